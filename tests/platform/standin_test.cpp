// Tests the stand-in, which is the kernel side in user space.
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
#include <tuple>
#include <vector>

#include "libtirn/base/private_call.h"
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

using enum tirn::PrivateCommand;
using Command = tirn::PrivateCommand;
uint64_t word_of(uint32_t module, Command command) { return uint64_t{module} << 32 | static_cast<uint32_t>(command); }

long call(Command command, uint64_t a, uint64_t b = kNone, uint64_t c = kNone, uint64_t d = kNone) {
  errno = 0;
  return zut_private_call(word_of(TIRN_MODULE_ID, command), a, b, c, d);
}

// Returns the error of a call that returned -1, and 0 for any other result.
int error_of(long result) { return result == -1 ? errno : 0; }

// Native: the process has the emulator's own signal handlers.
TEST(StandinNative, NothingHappensAtLoadAndNothingAllocatesInHandlers) {
  const std::string maps = read_file("/proc/self/maps");
  EXPECT_TRUE(tirn::test::matches(maps, "*libzut.so*")) << maps;
  EXPECT_FALSE(tirn::test::matches(maps, "*/zut-*")) << maps;
  EXPECT_TRUE(tirn::test::matches(read_file("/proc/self/status"), "*SigCgt:\t00000000*")) << "real-time signals";
  const tirn::test::Imports imports(tirn::test::Object::kernel_side);
  EXPECT_NE(imports.function("syscall"), nullptr);
  for (const char* name :
       {"malloc", "opendir", "fopen", "fopen64", "sscanf", "__isoc99_sscanf", "strtol", "sysconf"}) {
    EXPECT_EQ(imports.function(name), nullptr) << name;
  }
}

// The thread is bound to one CPU, so it ran there last. Its name has blanks and brackets, which would mislead code
// that counts fields.
TEST(Standin, CountersAndThreadsArePrinted) {
  int64_t *table = nullptr, *again = nullptr;
  EXPECT_EQ(call(kMemoryTable, at(&table)), 0);
  EXPECT_EQ(call(kMemoryTable, at(&again)), 0);
  ASSERT_TRUE(table != nullptr && table == again);
  EXPECT_EQ(std::count(table, table + 1024, 0), 1024);
  table[381] = 4096;
  table[1023] = -8;
  cpu_set_t cpus, one{};
  ASSERT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0);
  uint32_t cpu = CPU_SETSIZE - 1, count = 0, self = static_cast<uint32_t>(gettid());
  while (!CPU_ISSET(cpu, &cpus)) {
    --cpu;
  }
  CPU_SET(cpu, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  ASSERT_EQ(prctl(PR_SET_NAME, "a) b) 1 2 3"), 0);
  const tirn::test::LogCapture log;
  EXPECT_EQ(call(kMemoryDump, kNone), 0);
  EXPECT_EQ(call(kCpuTaskInfo, cpu, at(&count)), 0);
  EXPECT_GT(count, 0u);
  EXPECT_EQ(call(kDumpCpuStack, at(&cpu)), 0);
  EXPECT_EQ(call(kDumpIdleThreadStack, self), 0);
  EXPECT_EQ(call(kThreadStatus, at(&self)), 0);
  const std::string named = "thread " + std::to_string(self) + " (a) b) 1 2 3)";
  const std::string counted = "cpu " + std::to_string(cpu) + ": " + std::to_string(count) + " threads*";
  const std::string expected[] = {"module 381 holds 4096 bytes", "module 1023 holds -8 bytes", counted,
                                  named + " is running: not dumped", named + ": R (running)"};
  EXPECT_TRUE(std::ranges::equal(log.texts(), expected, tirn::test::matches)) << log;
}

TEST(Standin, WrongWordsAndPointersAreRefused) {
  const uint64_t good[2] = {1, 1}, ok = at(good);
  const std::string text(300, 'x');
  const uint64_t nobody = 0x7FFFFFFF, pointer = at(&nobody), long_text = at(text.c_str());
  for (const uint32_t module : {0u, 0x8000017Du}) {
    EXPECT_EQ(error_of(zut_private_call(word_of(module, kFreeMemory), ok, ok, ok, ok)), EINVAL);
  }
  const std::tuple<Command, uint64_t, int> rows[] = {
      {kResetLocalBoard, ok, ENOSYS},  {Command{0x900}, ok, ENOSYS},          {Command{0xFFFFFFFF}, ok, ENOSYS},
      {kPanic, long_text, ENOSYS},     {kGetIdleNoCstates, 100000, EINVAL},   {kSetIdleNoCstates, kNone / 2, EINVAL},
      {kThreadStatus, pointer, ESRCH}, {kDumpIdleThreadStack, nobody, ESRCH}, {kWait, ok + 1, EINVAL}};
  for (const auto& [command, a, error] : rows) {
    EXPECT_EQ(error_of(call(command, a, ok, ok, ok)), error) << std::hex << word_of(0, command);
  }
  zut_takedown last{};
  EXPECT_EQ(zut_last_takedown(&last), 0);
  EXPECT_EQ(std::string(last.text, strnlen(last.text, 256)), text.substr(0, 255));
  // A bit for each argument that is a pointer. Each pointer is bad in turn, and the others are good.
  const std::pair<uint32_t, std::vector<Command>> groups[] = {
      {1,
       {kPanic, kLocalTime, kTime, kDstTime, kCpufreqLowAll, kCpufreqStepDownAll, kLocalCpufreq, kFreeMemory,
        kMemoryTable, kThreadStatus, kDumpCpuStackKernel, kDumpCpuStack}},
      {2, {kGetIdleNoCstates, kSetIdleNoCstates, kCpuTaskInfo}},  // after the number of a CPU
      {3, {kLocalFromUtc, kDstFromUtc}},
      {4, {kRebootCount}},
      {7, {kWait}},
      {15, {kThreadRegisters}}};
  for (const auto& [pointers, commands] : groups) {
    for (uint32_t bad = 0; bad < 8; ++bad) {
      uint64_t args[4] = {pointers == 2 ? 0 : ok, ok, ok, ok};
      args[bad / 2] = bad % 2 != 0 ? kNone : 0;
      for (size_t i = 0; i < commands.size() && (pointers >> bad / 2 & 1) != 0; ++i) {
        EXPECT_EQ(error_of(call(commands[i], args[0], args[1], args[2], args[3])), EFAULT) << pointers << ' ' << i;
      }
    }
  }
}

TEST(Standin, WaitEndsByTimeWordOrSignal) {
  enum End { kTimeout, kZero, kWaker, kSignal };  // kWaker clears the word and sends the signal
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &action, nullptr);
  const std::pair<int64_t, End> rows[] = {
      {INT64_MIN, kTimeout}, {0, kTimeout},        {5, kTimeout},
      {12, kZero},           {INT64_MAX, kSignal}, {INT64_MAX / 4'000'000 + 1, kWaker},
  };
  for (const auto& [timeout, end] : rows) {
    std::atomic<uint32_t> word{end != kZero};
    std::atomic<bool> over{false};
    std::thread other([&, end = end, sleeper = pthread_self()] {
      while (!over) {
        usleep(end == kTimeout ? 0 : 20000);
        word = end == kTimeout ? word + 2 : end == kSignal;  // a value other than 0 does not end the wait
        syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
        pthread_kill(sleeper, end == kTimeout ? 0 : SIGUSR1);
      }
    });
    int64_t in_and_out = timeout, rest = -5;
    const auto start = steady_clock::now();
    const long result = call(kWait, at(&word), at(&in_and_out), at(&rest));
    const int error = errno;
    const auto lasted = (steady_clock::now() - start) / milliseconds(4);
    over = true;
    other.join();
    EXPECT_EQ(result, end == kTimeout ? 0 : -1) << timeout;
    EXPECT_EQ(rest, in_and_out) << timeout;
    if (end == kTimeout) {
      EXPECT_TRUE(rest == 0 && lasted >= timeout) << rest << ' ' << timeout;
    } else {
      EXPECT_TRUE((error == EINTR && end != kZero) || (error == EAGAIN && end != kSignal)) << error;
      EXPECT_TRUE(rest > 0 && timeout - lasted - 1 <= rest && rest <= timeout - (lasted > 1))
          << rest << ' ' << lasted;
    }
  }
}

struct Target {
  std::atomic<uint64_t> id{0};
  uint64_t frame = 0, stack = 0, frame_seen = 0, counter = 0;
  bool spins = true;
  long ask() { return call(kThreadRegisters, at(&id), at(&stack), at(&frame_seen), at(&counter)); }
};

// The function has a section of its own, as the linker defines symbols for the bounds of a section. It uses built-in
// atomics, which are inlined at any level of optimisation.
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
      ASSERT_EQ(target.ask(), 0) << errno;
#ifndef __SANITIZE_THREAD__  // this sanitizer delays signals until the next call into its own code
      EXPECT_EQ(target.frame_seen, target.frame);
      EXPECT_TRUE(target.stack <= target.frame && target.frame <= target.stack + 4096) << target.stack;
      EXPECT_TRUE(at(__start_spin_text) <= target.counter && target.counter < at(__stop_spin_text));
#endif
    }
    __atomic_store_n(&target.spins, false, __ATOMIC_RELAXED);
    spinner.join();
    for (const uint64_t other : {target.id.load(), 1ul, 0ul, kNone, 1ul << 32 | static_cast<uint32_t>(getpid())}) {
      target.id = other;
      EXPECT_EQ(error_of(target.ask()), ESRCH) << other;
    }
  };
  std::thread other_caller(spin_and_ask);
  spin_and_ask();
  other_caller.join();
}

// Each test has its own places for the device.
class StandinJiffies : public testing::Test {
 protected:
  void SetUp() override {
    TIRN_NEEDS_PRIVATE_ROOT(root_);
    for (const char* place : kPlaces) {
      root_.tmpfs(place, "mode=1777");
    }
  }
  static void forbid_writing() {
    for (const char* place : kPlaces) {
      ASSERT_EQ(mount(place, place, nullptr, MS_BIND, nullptr), 0);
      ASSERT_EQ(mount(nullptr, place, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0) << strerror(errno);
    }
  }
  bool offered() { return zut_jiffies_device(&sysfs_, &dev_) == 0; }
  const uint64_t* counter() const {
    const int device = open((dev_ + std::string("uio0")).c_str(), O_RDONLY | O_CLOEXEC);
    char* const page = static_cast<char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, device, 0));
    close(device);
    return reinterpret_cast<const uint64_t*>(page + 0x80);
  }
  static uint64_t read(const uint64_t* counter) { return __atomic_load_n(counter, __ATOMIC_RELAXED); }
  static uint64_t clock() { return static_cast<uint64_t>(steady_clock::now().time_since_epoch() / milliseconds(4)); }
  static bool advances(const uint64_t* counter) {
    return wait_until([=, first = read(counter)] { return read(counter) > first + 2; });
  }
  // Returns how many threads of this process have a `file` in /proc that begins with `start`.
  static long threads_with(const char* file, const std::string& start) {
    return std::count_if(fs::directory_iterator("/proc/thread-self/.."), {},
                         [&](const auto& thread) { return read_file(thread.path() / file).starts_with(start); });
  }
  static long ticking() { return threads_with("comm", "zut_jiffies"); }

  static constexpr const char* kPlaces[] = {"/run", "/dev/shm", "/tmp"};
  tirn::test::PrivateRoot root_;
  const std::string folder_ = "/run/zut-0";  // in a private root, the user is root
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
      EXPECT_TRUE(offered()) << strerror(errno);
      EXPECT_EQ(stat((folder_ + "/dev/uio0").c_str(), &status), 0);
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

  ASSERT_TRUE(offered());
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGUSR1), 0) << "its thread's mask";
  const uint64_t* const first = counter();
  for (const char* damage : {"", "/dev/uio0", "/sysfs/uio0/maps/map0/size", "/sysfs"}) {
    fs::remove_all(folder_ + damage);
    ASSERT_TRUE(offered()) << damage << ": " << strerror(errno);
    EXPECT_TRUE(advances(counter())) << damage;
  }
  EXPECT_TRUE(advances(first)) << "who mapped the old device reads on";
  forbid_writing();
  EXPECT_TRUE(offered()) << "current, as its keeper lives";
  EXPECT_EQ(sysfs_, folder_ + "/sysfs/");
}

// A process that has not mapped the device yet repairs it, and at once. In the end, no process keeps it current.
TEST_F(StandinJiffies, DamagedDevicesArePutRight) {
  tirn::test::run_child([&] { return offered() ? 0 : 1; });
  for (const uint64_t value : {UINT64_MAX, clock() + 1000000, uint64_t{0}}) {
    std::string page(4096, '\0');
    memcpy(page.data() + 0x80, &value, sizeof value);
    root_.write_file(folder_ + "/dev/uio0", value != 0 ? page : "", 0600);
    const auto child = tirn::test::run_child([&] {
      const uint64_t before = clock();
      EXPECT_TRUE(offered()) << strerror(errno);
      const uint64_t seen = read(counter());
      EXPECT_TRUE(before <= seen && seen <= clock()) << before << ' ' << seen;
      EXPECT_TRUE(advances(counter()));
      return 0;
    });
    EXPECT_TRUE(child.exited()) << value << ' ' << child;
  }
  forbid_writing();
  EXPECT_TRUE(wait_until([&] { return !offered(); }));
  EXPECT_EQ(errno, EROFS);
}

// Each place is made unusable in turn, and the device is then offered at the next one.
TEST_F(StandinJiffies, RefusedPlacesAreLoggedAndLeft) {
  const std::function<void()> spoil[] = {
      [] { EXPECT_TRUE(fs::create_directory("/run/zut-0") && chmod("/run/zut-0", 0750) == 0); },
      [&] { root_.tmpfs("/dev/shm", "size=12k,mode=1777"); },  // the text files fill it
      [] {
        fs::rename("/tmp/zut-0", "/tmp/elsewhere");
        fs::remove_all("/tmp/elsewhere/sysfs");
        fs::create_directory_symlink("/tmp/elsewhere", "/tmp/zut-0");
      }};
  const std::pair<std::string, int> places[] = {
      {"/run/zut-0", EPERM}, {"/dev/shm/zut-0", ENOSPC}, {"/tmp/zut-0", ENOTDIR}, {"/tmp/zut-0-*", 0}};
  std::string refused = "Jiffies device refused: ";
  for (size_t i = 0; i < std::size(spoil); ++i) {
    const tirn::test::LogCapture log;
    spoil[i]();
    ASSERT_TRUE(offered()) << strerror(errno);
    EXPECT_TRUE(advances(counter()));
    EXPECT_TRUE(tirn::test::matches(sysfs_, places[i + 1].first + "/sysfs/")) << sysfs_;
    refused += (i > 0 ? ", " : "") + places[i].first + " errno=" + std::to_string(places[i].second);
    EXPECT_EQ(log.count(HURN_WARNING, refused + "."), 1u) << log;
  }
  const std::string before = sysfs_;
  EXPECT_TRUE(offered());
  EXPECT_EQ(before, sysfs_) << "one private folder is enough";
  EXPECT_TRUE(fs::is_empty("/dev/shm/zut-0/dev")) << "half a device is left";
  EXPECT_FALSE(fs::exists("/tmp/elsewhere/sysfs")) << "half a device is left";
}

// Runs the piece in a child that is the first process of a new namespace, with process id 1. A nested call thus gives
// a child the process id of its parent, as if the id had been used again after its owner's end.
void run_as_first(const std::function<void()>& piece) {
  EXPECT_EQ(unshare(CLONE_NEWPID), 0) << strerror(errno);
  const auto child = tirn::test::run_child([&] { return piece(), getpid() - 1; });
  EXPECT_TRUE(child.exited()) << child;
}

// Native: the emulator's own locks stay locked in a child of a threaded process.
using StandinJiffiesNative = StandinJiffies;

// One thread of the parent blocks all signals, holds the lock of the log's sink and waits for a reader of a pipe.
// Another thread waits for the registers of the first.
TEST_F(StandinJiffiesNative, ChildrenStartAnew) {
  static Target deaf;
  const auto inner = [&] {
    deaf.id = static_cast<uint64_t>(gettid());
    EXPECT_TRUE(wait_until([] { return ticking() == 1; }));
    EXPECT_EQ(deaf.ask(), 0) << strerror(errno);
    EXPECT_TRUE(offered()) << strerror(errno);
    EXPECT_EQ(hurn_init(nullptr, nullptr), 0);
  };
  const auto outer = [&] {
    EXPECT_TRUE(offered());
    EXPECT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    std::thread([] {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      deaf.id = static_cast<uint64_t>(gettid());
      hurn_init(nullptr, "file:/tmp/pipe");
    }).detach();
    wait_until([] { return deaf.id != 0 && threads_with("syscall", std::to_string(SYS_openat) + " ") != 0; });
    std::thread([] { deaf.ask(); }).detach();
    wait_until([] { return threads_with("syscall", std::to_string(SYS_futex) + " ") != 0; });
    run_as_first(inner);
  };
  const auto child = tirn::test::run_child([&] { return run_as_first(outer), 0; });
  EXPECT_TRUE(child.exited()) << child;
}

}  // namespace
