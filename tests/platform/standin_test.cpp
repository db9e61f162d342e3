// The kernel side in user space: the words of its commands, what they keep, and the sleep on a state word.
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sysinfo.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "hurn.h"
#include "platform/standin.h"

namespace {

using namespace standin;

// First, so that it also stands in a process that runs all tests.
TEST(StandinLoad, NothingHappensAtLoad) {
  EXPECT_FALSE(has_thread("zut_jiffies"));
  std::ifstream maps("/proc/self/maps");
  const std::string text{std::istreambuf_iterator<char>(maps), {}};
  EXPECT_NE(text.find("libzut.so"), std::string::npos);
  EXPECT_EQ(text.find("/dev/shm/zut-"), std::string::npos);
  for (int number = SIGRTMIN; number <= 61; ++number) {
    struct sigaction present {};
    if (sigaction(number, nullptr, &present) == 0) {
      EXPECT_EQ(present.sa_handler, SIG_DFL) << number;
    }
  }
}

TEST(StandinCommands, RefuseWrongWordsAndPointers) {
  struct Row {
    uint64_t word;
    uint64_t a, b, c, d;
    int error;
  };
  uint64_t good = 1;
  uint64_t unaligned[2] = {1, 1};
  int64_t time = 1;
  const uint64_t ok = at(&good);
  const uint64_t own = kModule << 32;
  const Row rows[] = {
      {0x400, ok, kNone, kNone, kNone, EINVAL},
      {382ull << 32 | 0x400, ok, kNone, kNone, kNone, EINVAL},
      {1ull << 63 | own | 0x400, ok, kNone, kNone, kNone, EINVAL},
      {own | 0x004, ok, ok, ok, ok, ENOSYS},
      {own | 0x700, ok, ok, ok, ok, ENOSYS},
      {own | 0x900, ok, ok, ok, ok, ENOSYS},
      {own | 0xFFFFFFFF, ok, ok, ok, ok, ENOSYS},
      {own | 0x305, 100000, ok, kNone, kNone, EINVAL},
      {own | 0x306, 1ull << 32, ok, kNone, kNone, EINVAL},
      {own | 0x307, 100000, ok, kNone, kNone, EINVAL},
      {own | 0x701, at("\xFF\xFF\xFF\x7F"), kNone, kNone, kNone, ESRCH},
      {own | 0x703, at("\xFF\xFF\xFF\x7F"), kNone, kNone, kNone, EINVAL},
      {own | 0x704, 0x7FFFFFFF, kNone, kNone, kNone, ESRCH},
      {own | 0x800, at(unaligned) + 1, at(&time), ok, kNone, EINVAL},
  };
  for (const Row& row : rows) {
    errno = 0;
    EXPECT_EQ(zut_private_call(row.word, row.a, row.b, row.c, row.d), -1) << std::hex << row.word;
    EXPECT_EQ(errno, row.error) << std::hex << row.word;
  }

  // Which arguments of which command are pointers; each of them bad in turn, the others good.
  struct Pointers {
    uint32_t command;
    std::vector<int> at;
  };
  const Pointers pointers[] = {{0x002, {2}}, {0x003, {0}},    {0x100, {0}}, {0x101, {0, 1}},
                               {0x102, {0}}, {0x103, {0, 1}}, {0x104, {0}}, {0x300, {0}},
                               {0x303, {0}}, {0x304, {0}},    {0x305, {1}}, {0x306, {1}},
                               {0x307, {1}}, {0x400, {0}},    {0x401, {0}}, {0x500, {0, 1, 2, 3}},
                               {0x701, {0}}, {0x702, {0}},    {0x703, {0}}, {0x800, {0, 1, 2}}};
  for (const Pointers& row : pointers) {
    for (const int bad : row.at) {
      for (const uint64_t address : {uint64_t{0}, kNone}) {
        uint64_t arguments[4] = {ok, ok, ok, ok};
        if (row.command >= 0x305 && row.command <= 0x307) {
          arguments[0] = 0;
        }
        arguments[bad] = address;
        EXPECT_EQ(call(row.command, arguments[0], arguments[1], arguments[2], arguments[3]), -1);
        EXPECT_EQ(errno, EFAULT) << std::hex << row.command << " argument " << bad;
      }
    }
  }
}

TEST(StandinCommands, ReplacedHandlersAndCounts) {
  static uint64_t seen[5];
  const zut_handler own = [](uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d) -> long {
    const uint64_t arguments[] = {word, a, b, c, d};
    std::copy(std::begin(arguments), std::end(arguments), seen);
    return 77;
  };
  const uint64_t word = kModule << 32 | 0x202;
  EXPECT_EQ(zut_call_count(0x202), 0u);
  ASSERT_EQ(zut_replace(0x202, own), 0);
  EXPECT_EQ(zut_private_call(word, 1, 2, 3, 4), 77);
  EXPECT_EQ(seen[0], word);
  EXPECT_EQ(seen[4], 4u);
  ASSERT_EQ(zut_replace(0x202, nullptr), 0);
  EXPECT_EQ(zut_private_call(word, 1, 2, 3, 4), 0);
  EXPECT_EQ(zut_call_count(0x202), 2u);
  EXPECT_EQ(zut_last_word(0x202), word);
  EXPECT_EQ(zut_private_call(word + (1ull << 32), 1, 2, 3, 4), -1);
  EXPECT_EQ(zut_call_count(0x202), 2u) << "another module's call is none of this command's";

  EXPECT_EQ(zut_replace(0x8FF, own), 0) << "a command of a test's own";
  EXPECT_EQ(call(0x8FF), 77);
  EXPECT_EQ(zut_replace(0x900, own), -1);
  EXPECT_EQ(zut_call_count(0x900) + zut_last_word(0xFFFFFFFF), 0u);
}

TEST(StandinCommands, TakedownsAreRecordedAndRefused) {
  zut_takedown last;
  EXPECT_EQ(zut_last_takedown(&last), -1);
  EXPECT_EQ(call(0x000), -1);
  EXPECT_EQ(errno, ENOSYS);
  EXPECT_EQ(call(0x001, 9, 381, 'x'), -1);
  EXPECT_EQ(errno, ENOSYS);
  ASSERT_EQ(zut_last_takedown(&last), 0);
  EXPECT_EQ(last.command, 0x001u);
  EXPECT_EQ(last.a + last.b + last.c, 9u + 381u + 'x');

  const std::string text(400, 'p');
  EXPECT_EQ(call(0x003, at(text.c_str())), -1);
  EXPECT_EQ(errno, ENOSYS);
  ASSERT_EQ(zut_last_takedown(&last), 0);
  EXPECT_EQ(last.text, text.substr(0, 255));

  uint32_t count = 5;
  EXPECT_EQ(call(0x002, 1, 2, at(&count)), 0);
  EXPECT_EQ(count, 0u);
}

TEST(StandinCommands, ClockFollowsTheZone) {
  struct Row {
    const char* zone;
    uint64_t utc, local;
  };
  const Row rows[] = {
      {"UTC0", 1'700'000'000, 1'700'000'000},
      {"XST-5:45", 1'700'000'000, 1'700'000'000 + 20'700},
      {"XST5", 1'700'000'000, 1'700'000'000 - 18'000},
      {"XST-1XDT,M3.5.0,M10.5.0/3", 1'705'000'000, 1'705'000'000 + 3'600},  // winter
      {"XST-1XDT,M3.5.0,M10.5.0/3", 1'720'000'000, 1'720'000'000 + 7'200},  // summer
      {"XST5", 100, 100},
      {"XST5", 18'000, 0},
  };
  for (const Row& row : rows) {
    setenv("TZ", row.zone, 1);
    uint64_t local = 1;
    uint64_t saving = 1;
    EXPECT_EQ(call(0x101, at(&row.utc), at(&local)), 0);
    EXPECT_EQ(call(0x103, at(&row.utc), at(&saving)), 0);
    EXPECT_EQ(local, row.local) << row.zone << ' ' << row.utc;
    EXPECT_EQ(saving, row.local) << row.zone << ' ' << row.utc;
  }
  const uint64_t beyond = uint64_t{1} << 62;
  uint64_t local;
  EXPECT_EQ(call(0x101, at(&beyond), at(&local)), -1) << "a year that has no date";

  setenv("TZ", "XST-2", 1);
  uint64_t now[3] = {};
  const uint64_t before = static_cast<uint64_t>(time(nullptr));
  EXPECT_EQ(call(0x102, at(&now[0])) + call(0x100, at(&now[1])) + call(0x104, at(&now[2])), 0);
  const uint64_t after = static_cast<uint64_t>(time(nullptr));
  EXPECT_TRUE(before <= now[0] && now[0] <= after) << now[0];
  EXPECT_TRUE(before + 7200 <= now[1] && now[1] <= now[2] && now[2] <= after + 7200) << now[1];
}

TEST(StandinCommands, MachineStateIsKept) {
  const auto console = [] {
    int query;
    int printing;
    zut_console(&query, &printing);
    return query * 10 + printing;
  };
  EXPECT_EQ(console(), 1);
  EXPECT_EQ(call(0x200) + call(0x203), 0);
  EXPECT_EQ(console(), 10);
  EXPECT_EQ(call(0x201) + call(0x202), 0);
  EXPECT_EQ(console(), 1);

  const auto change = [](uint32_t command) {
    uint32_t step = 99;
    EXPECT_EQ(call(command, at(&step)), 0);
    return step;
  };
  const uint32_t highest = change(0x301);
  EXPECT_EQ(change(0x302), highest);
  EXPECT_EQ(change(0x303), highest - 1);
  EXPECT_EQ(change(0x300), 0u);
  EXPECT_EQ(change(0x303), 0u);
  EXPECT_EQ(change(0x302), 1u);

  // Results of 32 bits, with nothing written beside them.
  const uint32_t wanted = 5;
  uint32_t frequency[3] = {7, 0, 7};
  uint32_t idle[3] = {7, 0, 7};
  EXPECT_EQ(call(0x304, at(&frequency[1])), 0);
  EXPECT_EQ(call(0x306, 0, at(&wanted)) + call(0x305, 0, at(&idle[1])), 0);
  EXPECT_GT(frequency[1], 1'000'000u);
  EXPECT_EQ(idle[1], wanted);
  EXPECT_EQ(frequency[0] + frequency[2] + idle[0] + idle[2], 28u);

  uint32_t threads = 0;
  for (uint32_t cpu = 0; cpu < static_cast<uint32_t>(get_nprocs_conf()); ++cpu) {
    uint32_t here = 0;
    EXPECT_EQ(call(0x307, cpu, at(&here)), 0);
    threads += here;
  }
  EXPECT_GE(threads, 1u);
}

TEST(StandinCommands, MemoryIsToldAndCounted) {
  struct sysinfo info;
  ASSERT_EQ(sysinfo(&info), 0);
  uint64_t free_bytes = 0;
  EXPECT_EQ(call(0x400, at(&free_bytes)), 0);
  EXPECT_TRUE(0 < free_bytes && free_bytes <= uint64_t{info.totalram} * info.mem_unit) << free_bytes;

  int64_t* table = nullptr;
  int64_t* again = nullptr;
  ASSERT_EQ(call(0x401, at(&table)) + call(0x401, at(&again)), 0);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table, again);
  EXPECT_EQ(std::count(table, table + 1024, 0), 1024);
  table[381] = 4096;
  table[1023] = -8;
  static std::string lines;
  const hurn_content_record capture{
      HURN_CALLBACK_ONLY, [](const hurn_line* line) { lines += std::string(line->text, line->length) + "|"; }};
  hurn_register_content_callback(&capture);
  EXPECT_EQ(call(0x402), 0);
  EXPECT_EQ(lines, "module 381 holds 4096 bytes|module 1023 holds -8 bytes|");
}

constexpr milliseconds kTick{4};

struct Sleep {
  long result;
  int error;
  int64_t rest;
  milliseconds lasted;
};

Sleep sleep_on(std::atomic<uint32_t>* word, int64_t timeout) {
  int64_t rest = -5;
  int64_t in_and_out = timeout;
  const auto start = Clock::now();
  const long result = call(0x800, at(word), at(&in_and_out), at(&rest));
  const int error = errno;
  EXPECT_EQ(in_and_out, rest);
  return {result, error, rest, std::chrono::floor<milliseconds>(Clock::now() - start)};
}

void set_nudge(int flags) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = flags;
  ASSERT_EQ(sigaction(SIGRTMAX - 4, &action, nullptr), 0);
}

TEST(StandinWait, RunsOutOrReturnsAtOnce) {
  std::atomic<uint32_t> word{0};
  Sleep sleep = sleep_on(&word, 12);
  EXPECT_EQ(sleep.result, -1);
  EXPECT_EQ(sleep.error, EAGAIN);
  EXPECT_TRUE(sleep.rest > 0 && sleep.rest <= 12) << sleep.rest;
  EXPECT_GT(sleep_on(&word, INT64_MAX).rest, INT64_MAX - 2500);

  word = 0x80000001;
  for (const int64_t timeout : {int64_t{1}, int64_t{5}}) {
    sleep = sleep_on(&word, timeout);
    EXPECT_EQ(sleep.result, 0);
    EXPECT_EQ(sleep.rest, 0);
    EXPECT_GE(sleep.lasted, timeout * kTick);
  }
  for (const int64_t timeout : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    sleep = sleep_on(&word, timeout);
    EXPECT_EQ(sleep.result, 0) << timeout;
    EXPECT_EQ(sleep.rest, 0) << timeout;
  }
}

// A waker clears the word and sends the signal; a signal alone ends the sleep as well, with SA_RESTART too.
TEST(StandinWait, SignalEndsTheSleep) {
  for (const int flags : {SA_RESTART, 0}) {
    set_nudge(flags);
    for (const int64_t timeout : {INT64_MAX, INT64_MAX - 1, INT64_MAX / 4'000'000 + 1, int64_t{15'000}}) {
      for (const bool clear : {true, false}) {
        std::atomic<uint32_t> word{1};
        std::atomic<pid_t> sleeper{0};
        std::atomic<bool> woken{false};
        Sleep sleep{};
        std::thread thread([&] {
          sleeper = thread_id();
          sleep = sleep_on(&word, timeout);
          woken = true;
        });
        await([&] { return sleeper != 0; });
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_FALSE(woken) << timeout;
        if (clear) {
          word = 0;
        }
        do {  // a signal that came before the thread slept is lost without the cleared word
          syscall(SYS_tgkill, getpid(), sleeper.load(), SIGRTMAX - 4);
          std::this_thread::sleep_for(milliseconds(1));
        } while (!woken && !clear);
        thread.join();
        EXPECT_EQ(sleep.result, -1);
        EXPECT_TRUE(sleep.error == EINTR || (clear && sleep.error == EAGAIN)) << sleep.error;
        EXPECT_LE(sleep.rest, timeout - (sleep.lasted >= 2 * kTick ? 1 : 0));
        EXPECT_GE(sleep.rest, timeout - sleep.lasted / kTick - 1);
      }
    }
  }
}

TEST(StandinWait, AnotherValueIsNoEnd) {
  std::atomic<uint32_t> word{1};
  std::atomic<bool> done{false};
  std::thread changer([&] {
    for (uint32_t value = 1; !done; value = value % 1000 + 1) {
      word = value;
      syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
    }
  });
  for (int round = 0; round < 10; ++round) {
    const Sleep sleep = sleep_on(&word, 5);
    EXPECT_EQ(sleep.result, 0);
    EXPECT_EQ(sleep.rest, 0);
    EXPECT_GE(sleep.lasted, 5 * kTick);
  }
  done = true;
  changer.join();
}

}  // namespace
