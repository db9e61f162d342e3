#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <random>
#include <vector>

#include "support/log_capture.h"
#include "tirn/crc32.h"
#if defined(__x86_64__)
#include "libtirn/crc32/x86_64/forms/forms.h"
#endif

namespace {

constexpr size_t kLongest = 5000;

// One way to each result; those that a row lacks are empty.
struct Form {
  const char* name;
  std::function<uint32_t(uint32_t, const uint8_t*, size_t)> crc32c = {};
  std::function<uint32_t(uint32_t, uint8_t*, const uint8_t*, size_t)> with_copy = {};
  std::function<uint16_t(uint16_t, const uint8_t*, size_t)> crc16 = {};
  size_t least16 = 0;  // bytes that its CRC-16 needs
};

std::vector<Form> forms() {
  std::vector<Form> all = {
      {"kesa_crc32cContinue", kesa_crc32cContinue,
       [](uint32_t crc, uint8_t* to, const uint8_t* from, size_t length) {
         return kesa_crc32cContinue_with_cpy(crc, to, static_cast<uint32_t>(length), from);
       },
       kesa_crc16},
      {"kesa_crc32cContinueHard", kesa_crc32cContinueHard,
       [](uint32_t crc, uint8_t* to, const uint8_t* from, size_t length) {
         return AsmCrc32cWithCpy(to, static_cast<uint32_t>(length), crc, from);
       },
       crc16_t10dif},
      {"kesa_3crc32cContinueHard", kesa_3crc32cContinueHard,
       [](uint32_t crc, uint8_t* to, const uint8_t* from, size_t length) {
         return Asm3Crc32cWithCpy(to, static_cast<uint32_t>(length), crc, from);
       }},
  };
#if defined(__x86_64__)
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

// All of a form's results for `length` bytes at `source`, which may be cut in two at `cut`, against the tables'.
void check(const Form& form, const uint8_t* source, size_t length, size_t cut, uint32_t seed, uint8_t* copy) {
  SCOPED_TRACE(testing::Message() << form.name << ", " << length << " bytes at "
                                  << reinterpret_cast<uintptr_t>(source) % 64 << ", cut at " << cut << ", seed "
                                  << seed << ", copied to " << reinterpret_cast<uintptr_t>(copy) % 64);
  const uint32_t expected = kesa_crc32cContinueSoft(seed, source, static_cast<uint32_t>(length));
  ASSERT_EQ(form.crc32c(form.crc32c(seed, source, cut), source + cut, length - cut), expected);
  copy[-1] = copy[length] = 0x5A;
  std::memset(copy, 0xA5, length);
  ASSERT_EQ(form.with_copy(seed, copy, source, length), expected);
  ASSERT_EQ(std::memcmp(copy, source, length), 0);
  ASSERT_TRUE(copy[-1] == 0x5A && copy[length] == 0x5A);
  if (form.crc16 && cut >= form.least16 && length - cut >= form.least16) {
    const auto seed16 = static_cast<uint16_t>(seed);
    ASSERT_EQ(form.crc16(form.crc16(seed16, source, cut), source + cut, length - cut),
              kesa_crc16_soft(seed16, source, length));
  }
}

class Crc32 : public testing::Test {
 protected:
  void SetUp() override { kesa_crc32_init(); }
};

}  // namespace

TEST_F(Crc32, KnownValuesAndEmptyInput) {
  static constexpr char kText[] = "123456789";
  for (const Form& form : forms()) {
    uint8_t copy[9];
    EXPECT_EQ(~form.crc32c(0xFFFFFFFF, reinterpret_cast<const uint8_t*>(kText), 9), 0xE3069283u) << form.name;
    EXPECT_EQ(~form.with_copy(0xFFFFFFFF, copy, reinterpret_cast<const uint8_t*>(kText), 9), 0xE3069283u)
        << form.name;
    EXPECT_EQ(form.crc32c(5, nullptr, 0), 5u) << form.name;
  }
  EXPECT_TRUE(kesa_crc32c(kText, 9) == 0xE3069283 && kesa_crc32c_soft(kText, 9) == 0xE3069283);
  EXPECT_EQ(kesa_crc32cEnd(kesa_crc32cContinue(kesa_crc32cStart(kText, 4), kText + 4, 5)), 0xE3069283u);
  EXPECT_TRUE(crc16_t10dif(0, kText, 9) == 0xD0DB && kesa_crc16_soft(0, kText, 9) == 0xD0DB);
  for (const auto& [buffer, length] : {std::pair{static_cast<const char*>(nullptr), 9u}, {kText, 0u}}) {
    EXPECT_TRUE(kesa_crc32c(buffer, length) == 0 && kesa_crc32c_soft(buffer, length) == 0);
    EXPECT_EQ(kesa_crc32cStart(buffer, length), 0xFFFFFFFFu);
    EXPECT_TRUE(kesa_crc32cContinue(7, buffer, length) == 7 && kesa_crc16(7, buffer, length) == 7);
  }
  // Beyond the signed range the three chains touch nothing.
  EXPECT_EQ(kesa_3crc32cContinueHard(7, nullptr, 0x80000000), 7u);
  EXPECT_EQ(Asm3Crc32cWithCpy(nullptr, 0xFFFFFFFF, 7, nullptr), 7u);
}

// Every length once, right before a page without access; around the block sizes of the forms, at every place.
TEST_F(Crc32, EveryFormAgreesWithTheTables) {
  const unsigned number = std::random_device()();
  SCOPED_TRACE(testing::Message() << "random numbers from " << number);
  std::mt19937 random(number);
  constexpr size_t kSpan = 8192;
  static_assert(kSpan >= kLongest + 64);
  auto* const source =
      static_cast<uint8_t*>(mmap(nullptr, kSpan + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(source + kSpan, 4096, PROT_NONE);
  std::generate(source, source + kSpan, [&] { return static_cast<uint8_t>(random()); });
  std::vector<uint8_t> copy(kLongest + 66);
  for (const Form& form : forms()) {
    const auto check_at = [&](const uint8_t* from, size_t length) {
      const size_t cut = random() % 2 == 0 ? 0 : random() % (length + 1);
      check(form, from, length, cut, static_cast<uint32_t>(random()), copy.data() + 1 + random() % 64);
    };
    for (size_t length = 0; length <= kLongest && !HasFatalFailure(); ++length) {
      check_at(source + kSpan - length, length);
    }
    for (const size_t length : {15,  16,  17,  31,  63,  64,   65,   79,   127,  255,  256,
                                257, 300, 511, 512, 513, 1007, 1008, 1009, 4079, 4080, 4081}) {
      for (size_t place = 0; place < 64 && !HasFatalFailure(); ++place) {
        check_at(source + place, length);
      }
    }
  }
  munmap(source, kSpan + 4096);
}

// Long enough for several pieces and, with copy, for stores past the caches, in pieces and whole.
TEST_F(Crc32, LongInput) {
  constexpr size_t kLength = (size_t{1} << 21) + 12345;
  std::mt19937_64 random(1);
  std::vector<uint8_t> source(kLength), copy(kLength + 2);
  std::generate(source.begin(), source.end(), [&] { return static_cast<uint8_t>(random()); });
  for (const Form& form : forms()) {
    check(form, source.data() + 3, kLength - 3, 100003, 42, copy.data() + 1);
    check(form, source.data(), 100000, 0, 42, copy.data() + 7);
  }
}

TEST_F(Crc32, StartUpChoosesByTheProcessorsModel) {
  tirn::test::LogCapture log;
  kesa_crc32_init();
  // The emulator can be told to be the one model that has three chains.
  const char* const emulated = std::getenv("QEMU_CPU");
  const bool expected = emulated != nullptr && std::strstr(emulated, "midr=0x481fd030") != nullptr;
  EXPECT_EQ(log.count(HURN_INFO, "platform support 3crc optimize, use 3crc algorithm."), expected ? 1u : 0u) << log;
  EXPECT_EQ(kesa_crc32c("123456789", 9), 0xE3069283u);
}
