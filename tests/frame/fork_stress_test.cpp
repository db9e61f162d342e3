// Tests that a forked child of a threaded process can use the library. While threads call each family of functions
// without pause, the process forks, and each child calls each family once. The tests run only on the native machine,
// as the emulator leaves its own locks locked in such a child.
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <span>
#include <thread>

#include "loopback.h"
#include "support/kernel_side.h"
#include "support/wait_until.h"
#include "tirn/tirn.h"

using namespace tirn::test;

namespace {

struct Family {
  const char* name;
  std::function<bool()> call;
};

std::string g_ini;

bool configuration() {
  char value[16];
  if (kesa_cfg_init(g_ini.c_str()) != 0) {
    return false;
  }
  // The result is not checked: another thread may have unloaded the file meanwhile.
  kesa_cfg_getItemValue("S", "a", value, sizeof value);
  KesaCfgItemRecord record;
  const bool found = kesa_cfg_getItemFromFile(g_ini.c_str(), "S", "b", &record) == 0;
  return kesa_cfg_destroy_ex(g_ini.c_str()) == 0 && found;
}

bool private_call() {
  const std::string text = "from " + std::to_string(gettid());
  return call(kEcho, text, 64) == std::pair(static_cast<uint32_t>(text.size()), text);
}

void* post(void* semaphore) {
  sem_post(static_cast<sem_t*>(semaphore));
  return nullptr;
}

bool threads() {
  sem_t done;
  sem_init(&done, 0, 0);
  const bool made = kesa_thrd_create(post, &done, nullptr) == 0;
  while (made && sem_wait(&done) != 0) {
  }
  char name[32];
  return made && kesa_get_process_name(name, sizeof name) == 0;
}

// Another thread may end the pool, which drops the record: then another one is queued. Records are never freed, since
// a dropped one cannot be told from one that is about to run.
bool scheduled_work() {
  for (;;) {
    auto& has_run = *new std::atomic<bool>(false);
    kesa_sched_work& work = *new kesa_sched_work;
    const auto run = [](kesa_sched_work* mine) { return *static_cast<std::atomic<bool>*>(mine->data) = true, 0; };
    kesa_sched_init_work(&work, run, &has_run);
    if (kesa_set_sched_work_timeout(&work, 15) != 0 || kesa_sched_add_work(&work) == -1) {
      return false;
    }
    kesa_sched_work_timeout_theck();
    if (wait_until([&has_run] { return has_run.load(); }, std::chrono::milliseconds(100))) {
      return true;
    }
  }
}

bool waiting() {
  kesa_sem_enhance sem;
  kesa_sem_enhance_init(&sem, 0);
  return kesa_sem_enhance_down_timeout(&sem, 4) == -ENODATA && kesa_sem_enhance_up(&sem) == 0 &&
         kesa_sem_enhance_down_timeout(&sem, 4) == 0;
}

bool allocation() {
  void* const block = kesa_mallocsubstandard(5, 100, 0, "f", 1);
  kesa_freesub(block, "f", 1);
  return block != nullptr;
}

bool logging() { return kesa_str_tou64(nullptr) == 0; }

bool start_up() { return kesa_Init() == 0 && kesa_get_jiffies() != 0 && kesa_destory() == 0; }

bool command() {
  FILE* const stream = kesa_popen("exit 3", "r");
  return stream != nullptr && WEXITSTATUS(kesa_pclose(stream)) == 3 && kesa_system("true") == 0;
}

bool processors() {
  kesa_cpumask mask{};
  return cpumask_init() == 0 && load_cpumask(&mask, "/sys/devices/system/cpu/online", 30) >= 0 &&
         kesa_thrd_bindAllCfgCpu() == 0;
}

bool timers() {
  kesa_timer timer{};
  kesa_timer_set(&timer, 60'000, 0, [](uint64_t) {});
  if (kesa_timer_module_init() != 0 || kesa_timer_add(&timer) != 0 || kesa_timer_destroy(&timer) != 0) {
    return false;
  }
  timer.timeout = 1'000'000;
  return kesa_timer_add_ns(&timer) == 0 && kesa_timer_destroy(&timer) == 0;
}

const Family kFamilies[] = {
    {"allocation", allocation},
    {"logging", logging},
    {"configuration", configuration},
    {"threads", threads},
    {"private call", private_call},
    {"waiting", waiting},
    {"start-up", start_up},
    {"command", command},
    {"processors", processors},
    {"timers", timers},
    {"scheduled work", scheduled_work},
};

// Runs in the child. Returns 0, or the number of the family that failed, counted from 1. The number after the last
// family stands for a failed fork or a wrong thread id.
int call_each(std::span<const Family> families) {
  alarm(60);  // a family that hangs ends the child by its signal
  int status = 0;
  for (const Family& family : families) {
    ++status;
    if (!family.call()) {
      return status;
    }
  }
  if (const pid_t grandchild = fork(); grandchild == 0) {
    _exit(0);
  } else if (waitpid(grandchild, nullptr, 0) != grandchild) {
    return status + 1;
  }
  return kesa_thread_get_knl_tid() == static_cast<uint32_t>(gettid()) ? 0 : status + 1;
}

void fork_under_load(std::span<const Family> families, int forks) {
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  std::atomic<bool> stop{false};
  std::vector<std::jthread> loops;
  for (size_t first = 0; first < families.size(); first += 3) {
    loops.emplace_back([&, first] {
      for (size_t at = first; !stop.load(); ++at) {  // three families at once, each for the same time
        const Family& family = families[at % families.size()];
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
        do {
          if (!family.call()) {
            ADD_FAILURE() << family.name << " in the parent";
            return;
          }
        } while (std::chrono::steady_clock::now() < end);
      }
    });
  }
  for (int i = 0; i < forks && !testing::Test::HasFailure(); ++i) {
    usleep(static_cast<useconds_t>(i * 7919 % 3000));
    const pid_t child = fork();
    if (child == 0) {
      _exit(call_each(families));
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status)) {
      ADD_FAILURE() << "child " << i << " ended by signal " << WTERMSIG(status);
    } else if (const auto failed = static_cast<size_t>(WEXITSTATUS(status)); failed != 0) {
      ADD_FAILURE() << "child " << i << ": "
                    << (failed <= families.size() ? families[failed - 1].name : "a child of its own, or its id");
    }
  }
  stop.store(true);
  loops.clear();  // joins them
  kesa_thrd_clearcurthreadinfo();
}

TEST(ForkNative, ChildrenUseEachFamily) {
  TIRN_NEEDS_FORKS();
  TIRN_NEEDS_SERVER(server);
  const TempFolder folder;
  g_ini = folder.write_file("one.ini", "[S]\na=1\nb=2\n");
  kesa_log_init("fork", ("file:" + folder.path("log") + ":4096:2").c_str());
  fork_under_load(kFamilies, 100);
  kesa_log_destroy();
}

// Without counters, each allocation asks the kernel side for them again.
TEST(ForkNative, ChildrenAllocateWithoutCounters) {
  TIRN_NEEDS_FORKS();
  KernelSide kernel;
  kernel.failing(PrivateCommand::kMemoryTable, ENOSYS);
  const Family alone[] = {{"allocation", allocation}};
  fork_under_load(alone, 300);
}

}  // namespace
