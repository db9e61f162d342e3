// The kernel side in user space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/child_process.h"
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

TEST(Standin, NothingHappensAtLoad) {
  const std::string maps = read_file("/proc/self/maps");
  EXPECT_TRUE(tirn::test::matches(maps, "*libzut.so*") && !tirn::test::matches(maps, "*/dev/shm/zut-*")) << maps;
  for (int number = SIGRTMIN; number <= 61; ++number) {
    struct sigaction present {};
    EXPECT_TRUE(sigaction(number, nullptr, &present) != 0 || present.sa_handler == SIG_DFL) << number;
  }
}

TEST(Standin, WrongWordsAndPointersAreRefused) {
  const uint64_t good[2] = {1, 1}, ok = at(good);
  const uint64_t nobody = 0x7FFFFFFF, pointer = at(&nobody);
  const struct {
    uint32_t module, command;
    uint64_t a;
    int error;
  } rows[] = {
      {0, 0x400, ok, EINVAL},       {0x8000017D, 0x400, ok, EINVAL}, {381, 0x000, ok, ENOSYS},
      {381, 0x003, ok, ENOSYS},     {381, 0x900, ok, ENOSYS},        {381, 0xFFFFFFFF, ok, ENOSYS},
      {381, 0x305, 100000, EINVAL}, {381, 0x306, kNone / 2, EINVAL}, {381, 0x701, pointer, ESRCH},
      {381, 0x704, nobody, ESRCH},  {381, 0x800, ok + 1, EINVAL},
  };
  for (const auto& [module, command, a, error] : rows) {
    errno = 0;
    EXPECT_EQ(zut_private_call(uint64_t{module} << 32 | command, a, ok, ok, ok), -1) << std::hex << command;
    EXPECT_EQ(errno, error) << std::hex << command;
  }
  // Which arguments of which command are pointers; each of them bad in turn, the others good.
  const struct {
    uint32_t command, at;
  } pointers[] = {{0x002, 2}, {0x003, 0}, {0x100, 0}, {0x101, 0}, {0x101, 1}, {0x102, 0}, {0x103, 0},
                  {0x103, 1}, {0x104, 0}, {0x300, 0}, {0x303, 0}, {0x304, 0}, {0x305, 1}, {0x306, 1},
                  {0x307, 1}, {0x400, 0}, {0x401, 0}, {0x500, 0}, {0x500, 1}, {0x500, 2}, {0x500, 3},
                  {0x701, 0}, {0x702, 0}, {0x703, 0}, {0x800, 0}, {0x800, 1}, {0x800, 2}};
  for (const auto& [command, bad] : pointers) {
    for (const uint64_t address : {uint64_t{0}, kNone}) {
      uint64_t args[4] = {0x305 <= command && command <= 0x307 ? 0 : ok, ok, ok, ok};
      args[bad] = address;
      EXPECT_TRUE(call(command, args[0], args[1], args[2], args[3]) == -1 && errno == EFAULT)
          << command << ' ' << bad;
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
  } rows[] = {{INT64_MIN, kTime}, {-1, kTime},          {0, kTime},          {1, kTime},
              {5, kTime},         {12, kZero},          {INT64_MAX, kZero},  {15'000, kWaker},
              {15'000, kSignal},  {INT64_MAX, kSignal}, {INT64_MAX, kWaker}, {INT64_MAX / 4'000'000 + 1, kWaker}};
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

// Each test has a /dev/shm of its own.
class StandinJiffies : public testing::Test {
 protected:
  void SetUp() override {
    TIRN_NEEDS_PRIVATE_ROOT(root_);
    root_.tmpfs("/dev/shm", "mode=1777");
  }
  bool offered() { return zut_jiffies_device(&sysfs_, &dev_) == 0; }
  // The device as its user finds it: by the files of its map.
  const uint64_t* counter() const {
    const std::string map = folder_ + "/sysfs/uio0/maps/map0/";
    const int device = open((folder_ + "/dev/uio0").c_str(), O_RDONLY | O_CLOEXEC);
    char* const page = static_cast<char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, device, 0));
    close(device);
    return reinterpret_cast<const uint64_t*>(page + strtol(read_file(map + "offset").c_str(), nullptr, 0));
  }
  static uint64_t read(const uint64_t* counter) { return __atomic_load_n(counter, __ATOMIC_RELAXED); }
  static bool advances(const uint64_t* counter, milliseconds limit = milliseconds(10000)) {
    return wait_until([=, first = read(counter)] { return read(counter) > first + 2; }, limit);
  }

  tirn::test::PrivateRoot root_;
  const std::string folder_ = "/dev/shm/zut-" + std::to_string(geteuid());
  const char *sysfs_ = nullptr, *dev_ = nullptr;
};

TEST_F(StandinJiffies, OneCurrentDeviceForAll) {
  std::deque<tirn::test::ChildProcess> makers;
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

  ASSERT_TRUE(offered());
  const uint64_t* const first = counter();
  const auto clock = [] { return static_cast<uint64_t>(steady_clock::now().time_since_epoch() / milliseconds(4)); };
  EXPECT_GT(read(first), clock() - 250) << "current at once, before the thread has run";
  EXPECT_TRUE(wait_until([&] { return read(first) + 2 >= clock(); }));
  EXPECT_LE(read(first), clock());
  for (const char* damage : {"", "/dev/uio0", "/sysfs/uio0/maps/map0/size", "/sysfs"}) {
    fs::remove_all(folder_ + damage);
    ASSERT_TRUE(offered()) << damage << ": " << strerror(errno);
    EXPECT_TRUE(advances(counter())) << damage;
  }
  EXPECT_TRUE(advances(first)) << "who mapped the old device reads on";
}

TEST_F(StandinJiffies, ForeignAndFullFoldersAreRefused) {
  fs::create_directory(folder_);
  fs::permissions(folder_, fs::perms::all);
  EXPECT_TRUE(!offered() && errno == EPERM) << errno;
  fs::permissions(folder_, fs::perms::owner_all);
  fs::rename(folder_, "/dev/shm/elsewhere");
  fs::create_directory_symlink("/dev/shm/elsewhere", folder_);
  EXPECT_TRUE(!offered() && errno == ENOTDIR) << errno;
  EXPECT_TRUE(fs::is_empty("/dev/shm/elsewhere"));
  root_.tmpfs("/dev/shm", "size=12k,mode=1777");  // the texts take it all; none is left for the device
  EXPECT_TRUE(!offered() && errno == ENOSPC) << errno;
  EXPECT_TRUE(fs::is_empty(folder_ + "/dev")) << "half a device is left";
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
  const uint64_t* const shared = counter();
  EXPECT_TRUE(advances(shared)) << "the child's thread does not run";
  close(leave[1]);
  EXPECT_TRUE(wait_until([&] { return !advances(shared, milliseconds(100)); })) << "something else keeps the counter";
}

}  // namespace
