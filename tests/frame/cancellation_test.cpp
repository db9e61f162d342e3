// Cancels a thread at each cancellation point that the library reaches. Nothing may be lost, and another thread must
// be able to call the same function afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "loopback.h"
#include "support/faults.h"
#include "threads/pool_watch.h"
#include "tirn/tirn.h"

using namespace tirn::test;

namespace {

struct Row {
  const char* name;
  std::function<void()> run;
  std::function<void()> clean_up = [] {};
  int blocks_kept = 0;
  int descriptors_kept = 0;
  int threads_kept = 0;
};

// With `is_started`, the library is started before the rows run, so the cancellation points of start-up do not count.
void cancel_everywhere(const std::vector<Row>& rows, bool is_started = true) {
  for (const Row& row : rows) {
    uint32_t calls = 0;
    const auto prepare = [is_started] {
      have_no_pool_threads();
      EXPECT_EQ(is_started ? kesa_Init() : 0u, 0u);
    };
    const Scenario scenario{.prepare = prepare,
                            .run = [&row] { return row.run(), 0L; },
                            .clean_up = row.clean_up,
                            .kinds = kCancellations,
                            .blocks_kept = row.blocks_kept,
                            .descriptors_kept = row.descriptors_kept,
                            .threads_kept = row.threads_kept};
    for (const std::string& problem : find_problems(scenario, &calls)) {
      ADD_FAILURE() << row.name << ": " << problem;
    }
    std::printf("%s: %u cancellation points\n", row.name, calls);
  }
}

void* nothing(void*) { return nullptr; }
int print_nothing(const char*, ...) { return 0; }
int go_on(void*, const char*, int, int64_t, uint64_t, unsigned) { return 0; }
int end_thread(void*, const char*, int, int64_t, uint64_t, unsigned) { pthread_exit(nullptr); }
int print_and_end(const char* format, ...) {
  return format[0] == '%' && format[1] == '5' ? (pthread_exit(nullptr), 0) : 0;
}

void end_pipe(FILE* stream) {
  if (stream != nullptr) {
    std::fputs("left for the flush", stream);
    kesa_pclose(stream);
  }
}

TEST(Cancellation, StartUpAndClocks) {
  cancel_everywhere({{"kesa_Init", [] { kesa_Init(); }, [] {}, 0, 0, 1},
                     {"cpumask_init", [] { cpumask_init(), globalCpuNum_init(); }}},
                    false);
  cancel_everywhere({
      {"kesa_destory", [] { kesa_destory(); }, [] { kesa_Init(); }},
      {"kesa_glibc_init", [] { kesa_glibc_init(); }},
      {"kesa_log_init", [] { kesa_log_init("name", "file:/dev/null"); }, kesa_log_destroy, 2, 1},  // names stay
      {"jiffies_uio_adp_open", [] { jiffies_uio_adp_open(); }},
      // The shell finds no program, which is the fastest case. The function reads its second pipe like the first.
      {"kesa_get_tsc_freq", [] { setenv("PATH", "/none", 1), kesa_get_tsc_freq(); }, [] {}, 1},
      {"kesa_estimate_tsc_freq", kesa_estimate_tsc_freq},
      {"kesa_timer_*",
       [] {
         static kesa_timer timer;
         kesa_timer_set(&timer, 60'000, 0, [](uint64_t) {});
         kesa_timer_add(&timer), kesa_timer_modify(&timer, 90'000), kesa_timer_destroy(&timer);
         timer.timeout = 1'000'000;
         kesa_timer_add_ns(&timer), kesa_timer_destroy(&timer);
       },
       [] {}, 0, 0, 1},  // that of the high-resolution timers
      {"kesa_key_*", [] { kesa_key_setspecific(999, nullptr), kesa_key_getspecific(999), kesa_key_delete(999); }},
      {"MORU_RegSysCall",
       [] {
         const MORU_SYSCALL_ENTRY entry = {kEcho, 0, serve_echo};
         MORU_RegSysCall(kGroup, &entry, 1), MORU_FindSysCall(0x1FF), MORU_CheckGroupCalls(1, nullptr, 0);
       },
       [] { MORU_UnRegSysCall(kGroup); }},
      {"MORU_Netlink_ext3_listen",
       [] {
         const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
         const timeval limit{0, 10000};
         setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
         MORU_Netlink_ext3_create();  // fails: its protocol does not exist here
         MORU_Netlink_ext3_listen(fd, 4711, [](void*) {});
         MORU_Netlink_ext3_release(fd);
       },
       [] {}, 0, 1},
  });
}

TEST(Cancellation, Threads) {
  static char name[32];
  static constexpr auto create = [](auto function) {
    function(nothing, nullptr, nullptr), kesa_usleep(1), function(nullptr, nullptr, nullptr);
  };
  cancel_everywhere({
      // Two threads may live at once. Each slot keeps its thread's record and signal stack.
      {"create_thread_raw", [] { create(create_thread_raw); }, [] {}, 4},
      {"kesa_thrd_create", [] { create(kesa_thrd_create); }, [] {}, 4},
      {"create_thread_nopreempt_raw", [] { create(create_thread_nopreempt_raw); }, [] {}, 4},
      {"kesa_thrd_setcurthreadinfo",
       [] { kesa_thrd_setcurthreadinfo(), kesa_thrd_setname(nullptr), kesa_thrd_clearcurthreadinfo(); }},
      {"kesa_thrd_list",
       [] {
         kesa_thrd_setcurthreadinfo();
         pthread_cleanup_push([](void*) { kesa_thrd_clearcurthreadinfo(); }, nullptr);
         kesa_thrd_list(print_and_end, 0, 0, 0, 0);
         pthread_cleanup_pop(1);
       }},
      {"kesa_get_process_name", [] { kesa_get_process_name(name, sizeof name); }},
      {"kesa_get_process_exe_name",
       [] { kesa_get_process_exe_name(name, sizeof name), kesa_get_process_exe_name(nullptr, 0); }},
      {"kesa_thrd_getstatus",
       [] {
         kesa_thrd_getstatus(static_cast<uint32_t>(gettid())), kesa_thrd_getstatus(0);
         kesa_thrd_dump_cpu_stack_knl(0), kesa_thrd_dump_cpu_stack(0);
         kesa_thrd_dump_thread_stack_if_not_running(static_cast<uint32_t>(getpid()));
       }},
      {"kesa_thrd_setbindcpu", [] { kesa_setCurThreadBind("nonsense"), kesa_thrd_bindAllCfgCpu(); }},
      {"kesa_initThreadStrategy",
       [] {
         const KesaThreadStrategyCfg row{0, "0-1"};
         kesa_initThreadStrategy(0, &row), kesa_setCurThreadStrategy(0), kesa_setCurThreadStrategy(9);
         kesa_setCurThreadPrio(-100), kesa_showThreadStrategyDbg(print_nothing);
       },
       [] {}, 1},
      {"kesa_thread_watch_add", [] { kesa_thread_watch_add(1), kesa_thread_watch_get(); },
       [] { kesa_shm_destroy("kesaThreadWatch"); }},
      {"kesa_affinity_init",
       [] {
         kesa_affinity_level level{};
         kesa_affinity_init(), kesa_parse_affinity_level("affinity_level_1", &level);
         kesa_set_thread_affinity(pthread_self(), "none");
       }},
      {"sleeps", [] { kesa_msleep(1), kesa_usleep(1), kesa_10msleep(0), kesa_schedule(); }},
      {"kesa_sched_setaffinity", [] { kesa_sched_init(), kesa_sched_setaffinity(100000); }},
      {"kesa_sched_add_work",
       [] {
         static kesa_sched_work work;
         kesa_sched_init_work(
             &work, [](kesa_sched_work*) { return 0; }, nullptr);
         kesa_sched_add_work(&work), kesa_sched_add_work(nullptr), kesa_sched_delete_work(&work);
         kesa_set_sched_work_timeout(&work, 1), sched_work_destroy(), sched_work_init();
       }},
      {"kesa_sem_enhance_up",
       [] {
         static kesa_sem_enhance sem;
         static const int initialised = kesa_sem_enhance_init(&sem, 1);
         kesa_sem_enhance_up(&sem), kesa_sem_enhance_down_timeout(&sem, 4 + initialised);
         kesa_sem_enhance_down_timeout(&sem, 4), kesa_sem_enhance_show(&sem);
       }},
  });
}

// The server is a child of the test process, and not of the processes that run the rows and must leave no child.
TEST(Cancellation, PrivateCalls) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  cancel_everywhere({{"MORU_SysCall without a server", [] { call(kEcho, "abc", 10); }}});
  Server server;
  ASSERT_TRUE(server.is_up());
  cancel_everywhere({
      {"MORU_SysCall", [] { call(kEcho, "abc", 10), call(kFill, u32_text(100), 10); }, [] {}, 0, 1},
  });
}

TEST(Cancellation, Commands) {
  static const TempFolder folder;
  static const std::string one = folder.write_file("one", "text\n"), other = folder.path("other");
  constexpr int kTable = 1;  // the library's table of the pipes' child processes
  cancel_everywhere({
      {"kesa_system",
       [] {
         kesa_system("exit 3"), system_s("exit 3", nullptr), kesa_system_s("a|b", nullptr);
         kesa_system_s("true", nullptr);
       }},
      {"kesa_popen r", [] { end_pipe(kesa_popen("echo a", "r")); }, [] {}, kTable},
      {"kesa_popen w", [] { end_pipe(kesa_popen("cat >/dev/null", "w")); }, [] {}, kTable},
      {"kesa_popen_s", [] { end_pipe(kesa_popen_s("echo a", "r", nullptr)); }, [] {}, kTable},
      {"kesa_cmd_*",
       [] {
         kesa_cmd_touch(one.c_str()), kesa_cmd_cp(one.c_str(), other.c_str()), kesa_cmd_rm(other.c_str());
         kesa_cmd_mkdir(nullptr);
       }},
      {"kesa_copy", [] { kesa_copy(one.c_str(), other.c_str()), kesa_copy("/missing", other.c_str()); }},
      {"kesa_readdir_new", [] { kesa_readdir_new("/proc/self", go_on, nullptr); }},
      {"kesa_readdir_new, ended", [] { kesa_readdir_new("/proc/self", end_thread, nullptr); }},
      {"kesa_open",
       [] {
         const int fd = kesa_open(one.c_str(), O_RDWR | O_CLOEXEC, 0);
         char text[16];
         const kesa_file_lock lock{KESA_FILE_LOCK_WRITE, 0, 0};
         kesa_lockfile(fd, &lock), kesa_unlockfile(fd, &lock), kesa_lockfile(fd, nullptr);
         kesa_readline(fd, text, sizeof text), kesa_read(fd, text, 1), kesa_write(fd, text, 0), kesa_sync(fd);
         kesa_close(fd);
       },
       [] {}, 0, 1},
      {"null paths",
       [] {
         kesa_open(nullptr, 0, 0), kesa_access(nullptr, 0), kesa_stat(nullptr, nullptr);
         kesa_statfs(nullptr, nullptr), kesa_str_tou64(nullptr), kesa_str_tok(nullptr, nullptr);
       }},
      {"kesa_dlopen", [] { kesa_dlclose(kesa_dlopen("libm.so.6", 1)); }},
      {"kesa_shm_create",
       [] {
         kesa_munmap(kesa_shm_create("tirn-cancelled", 8), 8), kesa_shm_destroy("tirn-cancelled");
         kesa_shm_create_ext("tirn-cancelled", O_RDWR, 0, 8), kesa_shm_destroy("tirn-cancelled");
       },
       [] { kesa_shm_destroy("tirn-cancelled"); }},
      {"kesa_mallocsubstandard",
       [] {
         kesa_freesub(kesa_mallocsubstandard(1, 8, 0, "f", 1), "f", 1), kesa_freesub(nullptr, "f", 1);
         kesa_mallocsubstandard(1, -1, 0, "f", 1), kesa_mem_show(print_nothing);
       }},
  });
}

TEST(Cancellation, Configuration) {
  static const TempFolder folder;
  static const std::string file = folder.write_file("one.ini", "[S]\na=1\nb=2\n[ x\n[T]\n!=\n");
  static constexpr char kMissing[] = "/missing";
  static kesa_cpumask mask;
  static uint64_t words[16];
  static char value[8];
  const auto forget = [] { kesa_cfg_destroy(); };
  cancel_everywhere({
      {"kesa_cfg_init", [] { kesa_cfg_init(file.c_str()), kesa_cfg_init(file.c_str()); }, forget},
      {"kesa_cfg_destroy_ex", [] { kesa_cfg_init(file.c_str()), kesa_cfg_destroy_ex(file.c_str()); }, forget},
      {"kesa_cfg_getItemValue",
       [] {
         KesaCfgItemRecord record;
         kesa_cfg_init(file.c_str());
         kesa_cfg_getItemValue("S", "a", value, 2), kesa_cfg_getItemValue("S", "z", value, 1);
         kesa_cfg_getItemValue_ex(file.c_str(), "S", "a", value, 1);
         kesa_cfg_getItemValue_ex(kMissing, "S", "a", value, 1);
         kesa_cfg_getItemFromFile(file.c_str(), "S", "b", &record);
       },
       forget},
      {"kesa_cfg_setItemValue",
       [] {
         kesa_cfg_init(file.c_str());
         kesa_cfg_setItemValue("S", "a", "3"), kesa_cfg_setItemValue_ex(file.c_str(), "S", "z", "3");
         kesa_cfg_setItemValue_ex(kMissing, "S", "a", "3"), kesa_cfg_setItemValue(nullptr, "a", "3");
       },
       forget},
      {"kesa_cst_*",
       [] { kesa_cst_getItem("s", "i", value, 8), kesa_cst_setItem("s", "i", "v"), kesa_cst_reloadConfig(); }},
      {"load_cpumask", [] { load_cpumask(&mask, "/sys/devices/system/cpu/online", 30); }},
      {"kesa_cpum_init",
       [] {
         kesa_cpum_init(file.c_str()), kesa_cpum_parse_cpumask("0-3,GROUP_0/A,x", words);
         kesa_cpum_get_partition("GROUP_0", "A"), kesa_cpum_dbg_show(print_nothing);
       },
       forget},
      {"kesa_numam_init",
       [] {
         kesa_numam_init(file.c_str()), kesa_numam_cfg_check(nullptr), kesa_numam_cpumask_get(0, nullptr);
         kesa_numam_parse_cpumask("3-1", words);
       },
       forget},
  });
}

}  // namespace
