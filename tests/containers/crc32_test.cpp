#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <random>
#include <vector>

#include "containers/guarded.h"
#include "libtirn/arch/arch.h"
#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/crc32.h"
#if defined(__x86_64__)
#include <cpuid.h>

#include "libtirn/crc32/x86_64/forms/forms.h"
#endif

namespace {

constexpr size_t kLongest = 5000;
constexpr size_t kPastCaches = size_t{1} << 19;

// One implementation of each checksum. `crc16` may be NULL.
struct Form {
  const char* name;
  uint32_t (*crc32c)(uint32_t crc, const uint8_t* from, size_t length);
  uint32_t (*with_copy)(uint32_t crc, uint8_t* to, const uint8_t* from, size_t length);
  uint16_t (*crc16)(uint16_t crc, const uint8_t* from, size_t length);
  size_t least16 = 0;  // the fewest bytes that `crc16` takes
};

template <auto kPlain, auto kCopying>
Form form_of(const char* name, decltype(Form::crc16) crc16) {
  return {name,
          [](uint32_t crc, const uint8_t* from, size_t length) {
            return kPlain(nullptr, static_cast<uint32_t>(length), crc, from);
          },
          [](uint32_t crc, uint8_t* to, const uint8_t* from, size_t length) {
            return kCopying(to, static_cast<uint32_t>(length), crc, from);
          },
          crc16};
}

std::vector<Form> forms() {
  const auto crc16 = [](uint16_t crc, const uint8_t* from, size_t length) { return crc16_t10dif(crc, from, length); };
  std::vector<Form> all = {form_of<AsmCrc32c, AsmCrc32cWithCpy>("AsmCrc32c", crc16),
                           form_of<Asm3Crc32c, Asm3Crc32cWithCpy>("Asm3Crc32c", nullptr)};
#if defined(__x86_64__)
  static_assert(kPastCaches == tirn::crc32::kStoresPassCaches);
  for (const tirn::crc32::Form* form : tirn::crc32::kForms) {
    if (form->is_available()) {
      all.push_back({form->name, form->crc32c, form->crc32c_with_copy, form->crc16, 16});
    } else {
      std::cout << "not tested, this processor lacks it: " << form->name << '\n';
    }
  }
#endif
  return all;
}

class Crc32 : public testing::Test {
 protected:
  void SetUp() override {
    kesa_crc32_init();
    std::generate(source.begin(), source.end(), [&] { return static_cast<uint8_t>(random()); });
  }

  // Checks a form against the tables for `length` bytes at `from`. The checksums are taken in one piece and in two;
  // the CRC-32C with a copy to `to` is taken in one piece only.
  void check(const Form& form, const uint8_t* from, size_t length, uint8_t* to) {
    const auto seed = static_cast<uint32_t>(random());
    const size_t cut = random() % (length + 1);
    SCOPED_TRACE(testing::Message() << form.name << ", " << length << " bytes, " << from - source.begin()
                                    << " from the start, copied to " << to - copy.begin() << ", cut at " << cut);
    const uint32_t expected = kesa_crc32cContinueSoft(seed, from, static_cast<uint32_t>(length));
    ASSERT_EQ(form.crc32c(seed, from, length), expected);
    ASSERT_EQ(form.crc32c(form.crc32c(seed, from, cut), from + cut, length - cut), expected);
    uint8_t* const before = std::max(copy.begin(), to - 64);
    uint8_t* const after = std::min(copy.end(), to + length + 64);
    std::memset(before, 0xA5, static_cast<size_t>(after - before));
    ASSERT_EQ(form.with_copy(seed, to, from, length), expected);
    ASSERT_EQ(std::memcmp(to, from, length), 0);
    const auto touched = [](uint8_t byte) { return byte != 0xA5; };
    ASSERT_TRUE(std::none_of(before, to, touched) && std::none_of(to + length, after, touched));
    if (form.crc16 != nullptr && length >= form.least16) {
      const auto seed16 = static_cast<uint16_t>(seed);
      const uint16_t expected16 = kesa_crc16_soft(seed16, from, length);
      ASSERT_EQ(form.crc16(seed16, from, length), expected16);
      if (cut >= form.least16 && length - cut >= form.least16) {
        ASSERT_EQ(form.crc16(form.crc16(seed16, from, cut), from + cut, length - cut), expected16);
      }
    }
  }

  std::mt19937 random{tirn::test::random_seed()};
  const tirn::test::Guarded source, copy;
};

}  // namespace

// Checks the tables, to which the other forms are compared, and the special cases: empty input leaves the checksum as
// it is, and the forms with three chains touch no memory if the length is beyond the signed range.
TEST_F(Crc32, KnownValuesAndEmptyInput) {
  static constexpr char kText[] = "123456789";
  EXPECT_EQ(kesa_crc32c(kText, 9), 0xE3069283u);
  EXPECT_EQ(kesa_crc32c_soft(kText, 9), 0xE3069283u);
  EXPECT_EQ(~kesa_3crc32cContinueHard(~0u, kText, 9), 0xE3069283u);
  EXPECT_EQ(kesa_crc32cEnd(kesa_crc32cContinue(kesa_crc32cStart(kText, 4), kText + 4, 5)), 0xE3069283u);
  char copied[9];
  EXPECT_EQ(~kesa_crc32cContinue_with_cpy(~0u, copied, 9, kText), 0xE3069283u);
  EXPECT_EQ(std::memcmp(copied, kText, 9), 0);
  EXPECT_EQ(kesa_crc16_soft(0, kText, 9), 0xD0DB);
  EXPECT_EQ(kesa_crc16(0, kText, 9), 0xD0DB);
  for (const auto& [buffer, length] : {std::pair{static_cast<const char*>(nullptr), 9u}, {kText, 0u}}) {
    EXPECT_EQ(kesa_crc32c(buffer, length), 0u);
    EXPECT_EQ(kesa_crc32c_soft(buffer, length), 0u);
    EXPECT_EQ(kesa_crc32cStart(buffer, length), ~0u);
    EXPECT_EQ(kesa_crc32cContinue(7, buffer, length), 7u);
    EXPECT_EQ(kesa_crc16(7, buffer, length), 7u);
  }
  for (const uint32_t length : {0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kesa_3crc32cContinueHard(7, nullptr, length), 7u);
    EXPECT_EQ(Asm3Crc32cWithCpy(nullptr, length, 7, nullptr), 7u);
  }
}

// Covers every length up to kLongest, right after and right before an inaccessible page; the forms' block sizes at
// every alignment; and long input, which is cut into several pieces and, from a certain length on, copied with stores
// that bypass the caches.
TEST_F(Crc32, EveryFormAgreesWithTheTables) {
  for (const Form& form : forms()) {
    for (size_t length = 0; length <= kLongest && !HasFatalFailure(); ++length) {
      check(form, source.begin(), length, copy.end() - length);
      check(form, source.end() - length, length, copy.begin());
    }
    for (const size_t length : {15, 16, 17, 31, 63, 64, 65, 127, 256, 300, 512, 513, 1008, 1009, 4080, 4081}) {
      for (size_t place = 0; place < 64 && !HasFatalFailure(); ++place) {
        check(form, source.begin() + place, length, copy.begin() + random() % 64);
      }
    }
    for (const size_t length : {size_t{100000}, kPastCaches - 1, kPastCaches, kPastCaches + 1, kPastCaches + 63,
                                kPastCaches + 4096, (size_t{1} << 21) + 12345}) {
      check(form, source.end() - length, length, copy.begin() + random() % 64);
      check(form, source.begin() + random() % 64, length, copy.end() - length);
    }
  }
}

#if defined(__x86_64__)
// If a form left data in the upper halves of the vector registers, 128-bit instructions would be slow until the
// halves are cleared.
TEST_F(Crc32, NoFormLeavesUpperHalves) {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  const bool is_known = __get_cpuid_count(0xD, 1, &eax, &ebx, &ecx, &edx) != 0 && (eax & 4) != 0;
  const auto leaves_some = [](const auto& call) {
    asm volatile("vzeroupper");
    call();
    uint32_t low = 0, high = 0;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(1));
    return (low & 4) != 0;
  };
  const auto dirty = [] { asm volatile("vpcmpeqd %%ymm0, %%ymm0, %%ymm0" ::: "xmm0"); };
  if (!is_known || !__builtin_cpu_supports("avx2") || leaves_some([] {}) || !leaves_some(dirty)) {
    GTEST_SKIP() << "this processor does not tell which registers are in use";
  }
  for (const Form& form : forms()) {
    for (const uint32_t length : {16, 100, 512, 5000, 5001}) {
      SCOPED_TRACE(testing::Message() << form.name << ", " << length << " bytes");
      EXPECT_FALSE(leaves_some([&] { form.crc32c(0, source.begin(), length); }));
      EXPECT_FALSE(leaves_some([&] { form.with_copy(0, copy.begin(), source.begin(), length); }));
      EXPECT_FALSE(form.crc16 != nullptr && leaves_some([&] { form.crc16(0, source.begin(), length); }));
    }
  }
}
#endif

TEST_F(Crc32, StartUpChoosesByTheProcessorsModel) {
  tirn::test::LogCapture log;
  kesa_crc32_init();
  // The implementer and the part number of the one model that uses three chains. The emulator can be set to be it.
  const bool expected = (tirn::arch::cpu_identification() & 0xFF00FFF0) == 0x4800D030;
  EXPECT_EQ(log.count(HURN_INFO, "platform support 3crc optimize, use 3crc algorithm."), expected ? 1u : 0u) << log;
}
