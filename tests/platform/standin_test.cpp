// The kernel side in user space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "platform/namesake.h"
#include "support/child_process.h"
#include "support/imports.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"
#include "zut.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tirn::test::read_file;
using tirn::test::wait_until;

constexpr uint64_t kNone = ~uint64_t{0};

uint64_t at(const volatile void* object) { return reinterpret_cast<uint64_t>(object); }

long call(uint32_t command, uint64_t a, uint64_t b = kNone, uint64_t c = kNone, uint64_t d = kNone) {
  errno = 0;
  return zut_private_call(381ull << 32 | command, a, b, c, d);
}

TEST(Standin, NothingHappensAtLoadAndNothingAllocatesInHandlers) {
  const std::string maps = read_file("/proc/self/maps");
  EXPECT_TRUE(tirn::test::matches(maps, "*libzut.so*") && !tirn::test::matches(maps, "*/zut-*")) << maps;
  for (int number = SIGRTMIN; number <= 61; ++number) {
    struct sigaction present {};
    EXPECT_TRUE(sigaction(number, nullptr, &present) != 0 || present.sa_handler == SIG_DFL) << number;
  }
  const tirn::test::Imports imports(tirn::test::Object::kernel_side);
  EXPECT_NE(imports.function("syscall"), nullptr);
  for (const char* name :
       {"malloc", "opendir", "fopen", "fopen64", "sscanf", "__isoc99_sscanf", "strtol", "sysconf"}) {
    EXPECT_EQ(imports.function(name), nullptr) << name;
  }
}

// Bound to one CPU, this thread is the one that ran there; its name is no help to who counts fields.
TEST(Standin, ThreadsOfACpu) {
  cpu_set_t cpus, one;
  ASSERT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0);
  uint32_t cpu = CPU_SETSIZE - 1, count = 0;
  while (!CPU_ISSET(cpu, &cpus)) {
    --cpu;
  }
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  prctl(PR_SET_NAME, "a) b) 1 2 3");
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  EXPECT_EQ(call(0x307, cpu, at(&count)), 0);
  EXPECT_GE(count, 1u);
  const tirn::test::LogCapture log;
  const uint32_t self = static_cast<uint32_t>(gettid());
  EXPECT_EQ(call(0x703, at(&cpu)) + call(0x704, self) + call(0x701, at(&self)), 0);
  const std::string named = "thread " + std::to_string(self) + " (a) b) 1 2 3)";
  EXPECT_TRUE(log.count("cpu " + std::to_string(cpu) + ": " + std::to_string(count) + " threads*") &&
              log.count(named + " is running: not dumped") && log.count(named + ": R (running)"))
      << log;
}

TEST(Standin, WrongWordsAndPointersAreRefused) {
  const uint64_t good[2] = {1, 1}, ok = at(good);
  const uint64_t nobody = 0x7FFFFFFF, pointer = at(&nobody);
  const std::string long_text(300, 'x');
  const struct {
    uint32_t module, command;
    uint64_t a;
    int error;
  } rows[] = {
      {0, 0x400, ok, EINVAL},       {0x8000017D, 0x400, ok, EINVAL}, {381, 0x000, ok, ENOSYS},
      {381, 0x900, ok, ENOSYS},     {381, 0xFFFFFFFF, ok, ENOSYS},   {381, 0x003, at(long_text.c_str()), ENOSYS},
      {381, 0x305, 100000, EINVAL}, {381, 0x306, kNone / 2, EINVAL}, {381, 0x701, pointer, ESRCH},
      {381, 0x704, nobody, ESRCH},  {381, 0x800, ok + 1, EINVAL},
  };
  for (const auto& [module, command, a, error] : rows) {
    errno = 0;
    EXPECT_EQ(zut_private_call(uint64_t{module} << 32 | command, a, ok, ok, ok), -1) << std::hex << command;
    EXPECT_EQ(errno, error) << std::hex << command;
  }
  zut_takedown last{};
  EXPECT_TRUE(zut_last_takedown(&last) == 0 &&
              long_text.substr(0, 255) == std::string(last.text, strnlen(last.text, 256)));
  // Which arguments of which command are pointers; each of them bad in turn, the others good.
  const struct {
    uint32_t command;
    std::vector<size_t> pointers;
  } commands[] = {{0x002, {2}},          {0x003, {0}}, {0x100, {0}}, {0x101, {0, 1}}, {0x102, {0}},
                  {0x103, {0, 1}},       {0x104, {0}}, {0x300, {0}}, {0x303, {0}},    {0x304, {0}},
                  {0x305, {1}},          {0x306, {1}}, {0x307, {1}}, {0x400, {0}},    {0x401, {0}},
                  {0x500, {0, 1, 2, 3}}, {0x701, {0}}, {0x702, {0}}, {0x703, {0}},    {0x800, {0, 1, 2}}};
  for (const auto& [command, pointers] : commands) {
    for (const size_t bad : pointers) {
      for (const uint64_t address : {uint64_t{0}, kNone}) {
        uint64_t args[4] = {0x305 <= command && command <= 0x307 ? 0 : ok, ok, ok, ok};
        args[bad] = address;
        EXPECT_TRUE(call(command, args[0], args[1], args[2], args[3]) == -1 && errno == EFAULT) << command << bad;
      }
    }
  }
}

TEST(Standin, OneTableOfMemory) {
  int64_t *table = nullptr, *again = nullptr;
  ASSERT_EQ(call(0x401, at(&table)) + call(0x401, at(&again)), 0);
  ASSERT_TRUE(table != nullptr && table == again);
  EXPECT_EQ(std::count(table, table + 1024, 0), 1024);
  table[381] = 4096;
  table[1023] = -8;
  const tirn::test::LogCapture log;
  EXPECT_EQ(call(0x402, kNone), 0);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"module 381 holds 4096 bytes", "module 1023 holds -8 bytes"}));
}

TEST(Standin, WaitEndsByTimeWordOrSignal) {
  enum End { kTime, kZero, kWaker, kSignal };  // a waker clears the word and sends the signal
  const struct {
    int64_t timeout;
    End end;
  } rows[] = {{INT64_MIN, kTime}, {0, kTime},           {1, kTime},          {5, kTime},
              {12, kZero},        {INT64_MAX, kSignal}, {INT64_MAX, kWaker}, {INT64_MAX / 4'000'000 + 1, kWaker}};
  for (const int flags : {SA_RESTART, 0}) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
    for (const auto& [timeout, end] : rows) {
      std::atomic<uint32_t> word{end != kZero};
      std::atomic<bool> over{false};
      int64_t in_and_out = timeout, rest = -5;
      long result = 5, error = 0;
      milliseconds lasted{};
      std::thread sleeper([&] {
        const auto start = steady_clock::now();
        result = call(0x800, at(&word), at(&in_and_out), at(&rest));
        error = errno;
        lasted = std::chrono::floor<milliseconds>(steady_clock::now() - start);
        over = true;
      });
      for (uint32_t value = 1; end == kTime && !over; value += 2) {  // another value is no end
        word = value;
        syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
      }
      if (end == kWaker || end == kSignal) {
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_FALSE(over) << timeout;
        word = end == kSignal;
        do {  // a signal that came before the thread slept is lost without the cleared word
          pthread_kill(sleeper.native_handle(), SIGUSR1);
          std::this_thread::sleep_for(milliseconds(1));
        } while (end == kSignal && !over);
      }
      sleeper.join();
      EXPECT_TRUE(result == (end == kTime ? 0 : -1) && rest == in_and_out) << result << ' ' << rest << ' ' << timeout;
      if (end == kTime) {
        EXPECT_TRUE(rest == 0 && lasted / milliseconds(4) >= timeout) << rest << ' ' << timeout;
      } else {
        EXPECT_TRUE((error == EINTR && end != kZero) || (error == EAGAIN && end != kSignal)) << error;
        EXPECT_GE(rest, std::max<int64_t>(timeout - lasted / milliseconds(4) - 1, 1));
        EXPECT_LE(rest, timeout - (lasted >= milliseconds(8)));
      }
    }
  }
}

struct Target {
  std::atomic<uint64_t> id{0};
  uint64_t frame = 0, stack = 0, frame_told = 0, counter = 0;
  bool spins = true;
  long ask() { return call(0x500, at(&id), at(&stack), at(&frame_told), at(&counter)); }
};

// In a section of its own, whose bounds the linker gives; built-in atomics are inlined at any optimisation.
__attribute__((noinline, section("spin_text"))) void spin(Target* target) {
  __atomic_store_n(&target->frame, at(__builtin_frame_address(0)), __ATOMIC_RELEASE);
  while (__atomic_load_n(&target->spins, __ATOMIC_RELAXED)) {
  }
}
extern "C" const char __start_spin_text[], __stop_spin_text[];

TEST(Standin, RegistersOfSpinningThreads) {
  const auto spin_and_ask = [] {
    Target target;
    std::thread spinner([&] {
      target.id = static_cast<uint64_t>(gettid());
      spin(&target);
    });
    wait_until([&] { return __atomic_load_n(&target.frame, __ATOMIC_ACQUIRE) != 0; });
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
      EXPECT_EQ(target.ask(), 0) << errno;
#ifndef __SANITIZE_THREAD__  // holds signals back to the next call into its own code
      EXPECT_EQ(target.frame_told, target.frame);
      EXPECT_TRUE(target.stack <= target.frame && target.frame <= target.stack + 4096) << target.stack;
      EXPECT_TRUE(at(__start_spin_text) <= target.counter && target.counter < at(__stop_spin_text));
#endif
    }
    __atomic_store_n(&target.spins, false, __ATOMIC_RELAXED);
    spinner.join();
    for (const uint64_t other : {target.id.load(), 1ul, 0ul, kNone, 1ul << 32 | static_cast<uint32_t>(getpid())}) {
      target.id = other;
      EXPECT_TRUE(target.ask() == -1 && errno == ESRCH) << other << ' ' << errno;
    }
  };
  std::thread other_caller(spin_and_ask);
  spin_and_ask();
  other_caller.join();
}

// Each test has places of its own.
class StandinJiffies : public testing::Test {
 protected:
  void SetUp() override {
    TIRN_NEEDS_PRIVATE_ROOT(root_);
    for (const char* place : {"/run", "/dev/shm", "/tmp"}) {
      root_.tmpfs(place, "mode=1777");
    }
  }
  bool offered() { return zut_jiffies_device(&sysfs_, &dev_) == 0; }
  // The device as its user finds it: by the files of its map.
  const uint64_t* counter() const {
    const std::string map = std::string(sysfs_) + "uio0/maps/map0/";
    const int device = open((dev_ + std::string("uio0")).c_str(), O_RDONLY | O_CLOEXEC);
    char* const page = static_cast<char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, device, 0));
    close(device);
    return reinterpret_cast<const uint64_t*>(page + strtol(read_file(map + "offset").c_str(), nullptr, 0));
  }
  static uint64_t read(const uint64_t* counter) { return __atomic_load_n(counter, __ATOMIC_RELAXED); }
  static uint64_t clock() { return static_cast<uint64_t>(steady_clock::now().time_since_epoch() / milliseconds(4)); }
  static bool advances(const uint64_t* counter) {
    return wait_until([=, first = read(counter)] { return read(counter) > first + 2; });
  }
  // Threads of the stand-in in this process.
  static long ticking() {
    return std::count_if(fs::directory_iterator("/proc/thread-self/.."), {},
                         [](const auto& task) { return read_file(task.path() / "comm") == "zut_jiffies\n"; });
  }

  tirn::test::PrivateRoot root_;
  const std::string folder_ = "/run/zut-0";  // a user of a private root is its root
  const char *sysfs_ = nullptr, *dev_ = nullptr;
};

TEST_F(StandinJiffies, OneCurrentDeviceForAll) {
  std::deque<tirn::test::ChildProcess> makers;
  umask(0777);
  const auto start = steady_clock::now() + milliseconds(50);
  for (int i = 0; i < 8; ++i) {
    makers.emplace_back([&] {
      struct stat status {};
      std::this_thread::sleep_until(start);  // all at once
      EXPECT_TRUE(offered() && stat((folder_ + "/dev/uio0").c_str(), &status) == 0) << strerror(errno);
      return printf("%lu", static_cast<unsigned long>(status.st_ino)) > 0 ? 0 : 1;
    });
  }
  for (auto& maker : makers) {
    EXPECT_TRUE(maker.wait().exited()) << maker.out();
    EXPECT_EQ(maker.out(), makers[0].out());
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_ + "/dev"), {}), 1) << "a temporary file is left";
  for (const auto& [name, mode] : {std::pair("", 0700), {"/sysfs/uio0/maps", 0700}, {"/dev/uio0", 0600}}) {
    EXPECT_EQ(static_cast<int>(fs::status(folder_ + name).permissions()), mode) << name;
  }

  const uint64_t before = clock();
  ASSERT_TRUE(offered());
  sigset_t mask;
  EXPECT_TRUE(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && !sigismember(&mask, SIGUSR1)) << "its thread's mask";
  const uint64_t* const first = counter();
  const uint64_t seen = read(first);
  EXPECT_TRUE(before <= seen && seen <= clock()) << before << ' ' << seen << ", current at once";
  for (const char* damage : {"", "/dev/uio0", "/sysfs/uio0/maps/map0/size", "/sysfs"}) {
    fs::remove_all(folder_ + damage);
    ASSERT_TRUE(offered()) << damage << ": " << strerror(errno);
    EXPECT_TRUE(advances(counter())) << damage;
  }
  EXPECT_TRUE(advances(first)) << "who mapped the old device reads on";
}

// Found by a process that has not mapped it.
TEST_F(StandinJiffies, DamagedDevicesArePutRight) {
  tirn::test::run_child([&] { return offered() ? 0 : 1; });
  const std::string device = folder_ + "/dev/uio0";
  const auto put = [&](uint64_t value) {
    std::string page(4096, '\0');
    memcpy(page.data() + 0x80, &value, sizeof value);
    root_.write_file(device, page, 0600);
  };
  const std::function<void()> rows[] = {[&] { put(UINT64_MAX); }, [&] { put(clock() + 1000000); },
                                        [&] { EXPECT_EQ(truncate(device.c_str(), 100), 0); }};
  for (const auto& damage : rows) {
    damage();
    const auto child = tirn::test::run_child([&] {
      EXPECT_TRUE(offered()) << strerror(errno);
      const uint64_t seen = read(counter());
      EXPECT_LE(seen, clock()) << "at once";
      EXPECT_TRUE(advances(counter()));
      return 0;
    });
    EXPECT_TRUE(child.exited()) << &damage - rows << ' ' << child;
  }
}

// Each place is spoiled in turn, and the device is offered at the next.
TEST_F(StandinJiffies, RefusedPlacesAreToldAndLeft) {
  const auto spoil_run = [] { return fs::create_directory("/run/zut-0") && chmod("/run/zut-0", 0750) == 0; };
  const auto spoil_shm = [&] { return root_.tmpfs("/dev/shm", "size=12k,mode=1777"), true; };  // the texts fill it
  const auto spoil_tmp = [] {
    fs::rename("/tmp/zut-0", "/tmp/elsewhere");
    fs::remove_all("/tmp/elsewhere/sysfs");
    return fs::create_directory_symlink("/tmp/elsewhere", "/tmp/zut-0"), true;
  };
  const struct {
    std::function<bool()> spoil;
    std::string refused, offered;
  } rows[] = {{spoil_run, "/run/zut-0 refused, errno=1", "/dev/shm/zut-0/sysfs/"},
              {spoil_shm, "/dev/shm/zut-0 refused, errno=28", "/tmp/zut-0/sysfs/"},
              {spoil_tmp, "/tmp/zut-0 refused, errno=20", "/tmp/zut-0-*/sysfs/"}};
  for (const auto& [spoil, refused, place] : rows) {
    const tirn::test::LogCapture log;
    EXPECT_TRUE(spoil());
    ASSERT_TRUE(offered()) << place << ' ' << strerror(errno);
    EXPECT_TRUE(tirn::test::matches(sysfs_, place)) << sysfs_;
    EXPECT_EQ(log.count(HURN_WARNING, "Jiffies device below " + refused + "."), 1u) << log;
    EXPECT_TRUE(advances(counter())) << place;
  }
  const std::string before = sysfs_;
  EXPECT_TRUE(offered() && before == sysfs_) << "one folder of random name is enough";
  EXPECT_TRUE(fs::is_empty("/dev/shm/zut-0/dev")) << "half a device is left";
  EXPECT_FALSE(fs::exists("/tmp/elsewhere/sysfs")) << "a link was followed";
}

TEST_F(StandinJiffies, WhatCanOnlyBeReadIsOfferedWhileItIsCurrent) {
  tirn::test::ChildProcess keeper(
      [&] { return offered() && puts("made") >= 0 && fflush(stdout) == 0 ? pause() : 1; });
  ASSERT_TRUE(wait_until([&] { return !keeper.out().empty(); }));
  for (const char* place : {"/run", "/dev/shm", "/tmp"}) {
    ASSERT_EQ(mount(place, place, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, place, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0) << strerror(errno);
  }
  ASSERT_TRUE(wait_until([&] { return offered(); })) << strerror(errno);
  EXPECT_EQ(sysfs_, folder_ + "/sysfs/");
  EXPECT_TRUE(advances(counter()) && ticking() == 0);
  keeper.kill(SIGKILL);
  EXPECT_TRUE(wait_until([&] { return !offered(); }) && errno == EROFS) << errno;
}

// The parent makes the device and forks; it dies, and its child's thread keeps the counter going until that ends.
TEST_F(StandinJiffies, GoOnInAChildWhenTheParentIsGone) {
  int leave[2];
  ASSERT_EQ(pipe(leave), 0);
  const auto parent = tirn::test::run_child([&] {
    EXPECT_TRUE(offered());
    if (fork() == 0) {
      char end;
      close(leave[1]);
      _exit(static_cast<int>(::read(leave[0], &end, 1)));
    }
    return 0;
  });
  EXPECT_TRUE(parent.exited()) << parent;
  sysfs_ = "/run/zut-0/sysfs/";
  dev_ = "/run/zut-0/dev/";
  const uint64_t* const shared = counter();
  EXPECT_TRUE(advances(shared)) << "the child's thread does not run";
  close(leave[1]);
  EXPECT_TRUE(wait_until([&] { return read(shared) + 100 < clock(); })) << "something else keeps the counter";
}

// One thread of the parent asks another, which takes no signal, for its registers, and waits for the answer.
TEST_F(StandinJiffies, ChildrenWithTheIdOfTheirParentStartAnew) {
  const auto inner = [&] {
    Target self;
    self.id = static_cast<uint64_t>(gettid());
    EXPECT_TRUE(wait_until([] { return ticking() == 1; }) && self.ask() == 0 && offered()) << strerror(errno);
  };
  const auto outer = [&] {
    EXPECT_TRUE(offered());
    static Target deaf;
    std::thread([] {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      deaf.id = static_cast<uint64_t>(gettid());
      while (true) {
        pause();
      }
    }).detach();
    wait_until([] { return deaf.id != 0; });
    std::thread([] { deaf.ask(); }).detach();
    wait_until([] { return zut_call_count(0x500) != 0; });
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_TRUE(tirn::test::run_as_first(inner));
  };
  const auto child = tirn::test::run_child([&] { return tirn::test::run_as_first(outer) ? 0 : 1; });
  EXPECT_TRUE(child.exited()) << child;
}

}  // namespace
