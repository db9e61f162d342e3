#include "bounded.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <tuple>

#include "support/random_seed.h"

namespace {

using std::string;

string filled(size_t count) { return string(count, '\x7f'); }

TEST(Bounded, Memory) {
  const std::tuple<size_t, size_t, int, string> rows[] = {
      {8, 3, 0, "aaa" + filled(5)}, {4, 5, ERANGE, string(4, '\0') + filled(4)}, {8, 8, 0, "aaaaaaaa"},
      {0, 1, ERANGE, filled(8)},    {8, SIZE_MAX, ERANGE, string(8, '\0')},      {SIZE_MAX, 3, ERANGE, filled(8)},
  };
  const auto set = [](void* to, size_t size, const void*, size_t count) { return memset_s(to, size, 'a', count); };
  for (const auto& [size, count, result, expected] : rows) {
    for (int (*const call)(void*, size_t, const void*, size_t) : {memcpy_s, memmove_s, +set}) {
      string target = filled(8);
      EXPECT_EQ(result, call(target.data(), size, "aaaaaaaa", count)) << size << ' ' << count;
      EXPECT_EQ(expected, target) << size << ' ' << count;
    }
  }
  char text[] = "0123456789";
  EXPECT_EQ(EINVAL, memcpy_s(nullptr, 2, "ab", 1));
  EXPECT_EQ(0, memmove_s(text + 2, 8, text, 8));
  EXPECT_EQ(0, memcpy_s(text, 10, text, 10));
  EXPECT_STREQ("0101234567", text);
  EXPECT_EQ(0, memcpy_s(text, 5, text + 5, 5)) << "neighbours";
  EXPECT_EQ(EINVAL, memcpy_s(text + 4, 6, text, 5));
  EXPECT_EQ(EINVAL, memcpy_s(text, 2, nullptr, 1));
  EXPECT_EQ(string(2, '\0') + "56" + string(6, '\0'), string(text, 10)) << "a refused destination is cleared";
}

// The bytes after the text and its terminator must not change.
TEST(Bounded, CopiesAndAppends) {
  // The text before (nullptr for a copy), the source, the text after, the size, the count and the result.
  const std::tuple<const char*, const char*, const char*, size_t, size_t, int> rows[] = {
      {nullptr, "abc", "abc", 4, SIZE_MAX, 0},    {nullptr, "abc", "", 3, SIZE_MAX, ERANGE},
      {nullptr, "abcdef", "abc", 16, 3, 0},       {nullptr, "abcdef", "", 3, 3, ERANGE},
      {nullptr, "ab", "ab", 4, 100, 0},           {nullptr, "", "", 1, SIZE_MAX, 0},
      {nullptr, "a", "xyz", 0, SIZE_MAX, ERANGE}, {nullptr, nullptr, "", 4, SIZE_MAX, EINVAL},
      {"abc", "def", "abcdef", 7, SIZE_MAX, 0},   {"abc", "def", "", 6, SIZE_MAX, ERANGE},
      {"abc", "def", "abcde", 16, 2, 0},          {"abc", "", "", 3, SIZE_MAX, ERANGE},
      {"abc", "d", "abc", 0, SIZE_MAX, ERANGE},   {"abc", nullptr, "", 8, SIZE_MAX, EINVAL},
  };
  for (const auto& [before, source, after, size, count, result] : rows) {
    string target = filled(16);
    strcpy(target.data(), before ? before : "xyz");
    string expected = target;
    memcpy(expected.data(), after, strlen(after) + (size ? 1 : 0));
    EXPECT_EQ(result, (before ? strncat_s : strncpy_s)(target.data(), size, source, count)) << after << size;
    EXPECT_EQ(expected, target) << after << size;
  }
  char text[] = "abcdef";
  EXPECT_EQ(EINVAL, strcpy_s(nullptr, 4, "a"));
  EXPECT_EQ(0, strcpy_s(text, sizeof text, text));
  EXPECT_EQ(0, strncpy_s(text, 4, text + 4, 2)) << "neighbours";
  EXPECT_EQ(EINVAL, strcpy_s(text + 4, 3, text + 5));
  EXPECT_EQ(EINVAL, strcat_s(text, sizeof text, text));
  EXPECT_STREQ("", text);
}

TEST(Bounded, PrintsEmptyOrCut) {
  const std::tuple<size_t, size_t, int, const char*> rows[] = {
      {8, 7, 7, "value 7"},        {8, 100, 7, "value 7"}, {8, 6, -1, "value "}, {7, 7, -1, "value "},
      {7, SIZE_MAX, -1, "value "}, {1, 0, -1, ""},         {0, 0, -1, "old"},
  };
  for (const auto& [size, count, result, expected] : rows) {
    char text[16] = "old", cut[16] = "old";
    EXPECT_EQ(size >= 8 ? 7 : -1, sprintf_s(text, size, "value %d", 7)) << size;
    EXPECT_STREQ(size >= 8 ? "value 7" : size ? "" : "old", text) << size;
    EXPECT_EQ(result, snprintf_s(cut, size, count, "value %d", 7)) << size << ' ' << count;
    EXPECT_STREQ(expected, cut) << size << ' ' << count;
  }
  char text[] = "old";
  EXPECT_EQ(-1, snprintf_s(text, 4, 2, "%lc", wint_t{0xd800})) << "no such character";
  EXPECT_STREQ("", text);
}

// Scans each row from a text and from a stream.
TEST(Bounded, ScannedTokensFitOrFail) {
  const std::tuple<const char*, const char*, const char*, unsigned, int> rows[] = {
      {" word", "%s", "word", 5, 1},    {"k=value", "%*[^=]=%s", "value", 16, 1},
      {"word", "%s", "", 4, 0},         {"w", "%4s", "w", 5, 1},
      {"]-^x", "%[]^-]", "]-^", 16, 1}, {"a]b", "%[^]]", "a", 16, 1},
      {"worden", "%4s", "word", 5, 1},  {"cab-d", "%[c-a]", "ca", 16, 1},
      {"abc", "%c", "ald", 1, 1},       {"ab", "%3c", "abd", 3, 1},
      {"abc", "%3c", "", 2, 0},         {"w", "%s", "old", 0, 0},
      {"  ", "%s", "old", 16, EOF},     {"ab", "ab%s", "old", 16, EOF},
  };
  for (const auto& [text, format, after, size, result] : rows) {
    FILE* const stream = fmemopen(const_cast<char*>(text), strlen(text), "r");
    char target[16] = "old", from_stream[16] = "old";
    EXPECT_EQ(result, sscanf_s(text, format, target, size)) << format << " of " << text;
    EXPECT_STREQ(after, target) << format << " of " << text;
    EXPECT_EQ(result, fscanf_s(stream, format, from_stream, size)) << format << " of " << text;
    EXPECT_STREQ(after, from_stream) << format << " of " << text;
    fclose(stream);
  }
  char name[8] = "old";
  int number = 0, end = 0;
  for (const char* malformed : {"%", "%*", "%12", "%l", "%[", "%[]", "%[^", "%[a-", "%ls", "%k"})
    EXPECT_EQ(0, sscanf_s("word", malformed, name, 8)) << malformed;
  EXPECT_STREQ("old", name);
  EXPECT_EQ(EOF, sscanf_s(nullptr, "%d"));
  EXPECT_EQ(1, sscanf_s("word", "%999999999999999999999s", name, 8));
  EXPECT_EQ(1, sscanf_s("12 too-long-a-name 7", "%d%s%d", &number, name, 8, &end)) << "the third is not reached";
  EXPECT_TRUE(number == 12 && end == 0) << number << ' ' << end;
  FILE* const stream = fmemopen(const_cast<char*>("12kB"), 4, "r");
  EXPECT_EQ(1, fscanf_s(stream, "%d", &number));
  EXPECT_EQ('k', getc(stream)) << "the character after the number";
  fclose(stream);
}

TEST(Bounded, ScannedNumbersStayInTheirWidth) {
  // The text, the format, and the value of a 64-bit word of all ones after the scan, in little-endian order.
  const std::tuple<const char*, const char*, uint64_t> rows[] = {
      {"-300", "%hhd", 0xffffffffffffff80},      {"-2147483649", "%d", 0xffffffff80000000},
      {"9223372036854775808", "%ld", INT64_MAX}, {"18446744073709551616", "%lu", UINT64_MAX},
      {"0x7fffffffffff", "%p", 0x7fffffffffff},  {"1.5", "%f", 0xffffffff3fc00000},
      {"-0.5", "%lf", 0xbfe0000000000000},
  };
  for (const auto& [text, format, after] : rows) {
    uint64_t word = UINT64_MAX;
    EXPECT_EQ(1, sscanf_s(text, format, &word)) << format << " of " << text;
    EXPECT_EQ(after, word) << format << " of " << text;
  }
  long double number = 0;
  EXPECT_EQ(1, sscanf_s("0x1.8p1", "%La", &number));
  EXPECT_EQ(3, number);
  EXPECT_EQ(0, sscanf_s((string(2000, '1') + ".").c_str(), "%Lf", &number)) << "longer than any number";
}

// The results must be those of the C library's scan, for values that fit.
TEST(Bounded, ScansAgreeWithTheCLibrary) {
  int (*const reference)(const char*, const char*, ...) = sscanf;
  const char* const pieces[] = {"%d", "%i",  "%3u",   "%x",    "%2o",  "%1i", "%2x", "%3i", "%*d",     "%*2x",
                                " ",  ",",   "-",     "x",     "%5d",  "%%",  "%n",  "0",   "%*[0-9]", "%4X",
                                "\t", "%*c", "%2hhd", "%2hhi", "%4hu", "%ld", "%zx", "%jd"};
  const char alphabet[] = "0012789abfxX+-,% \t";
  std::mt19937 random(tirn::test::random_seed());
  for (int i = 0; i < 200000; i++) {
    string format, text;
    for (size_t n = random() % 5 + 1; n > 0; n--)
      format += pieces[random() % std::size(pieces)];
    for (size_t n = random() % 9; n > 0; n--)
      text += alphabet[random() % (sizeof alphabet - 1)];
    uint64_t our[6] = {~1ul, ~2ul, ~3ul, ~4ul, ~5ul}, own[6] = {~1ul, ~2ul, ~3ul, ~4ul, ~5ul};
    our[5] = uint64_t(sscanf_s(text.c_str(), format.c_str(), our, our + 1, our + 2, our + 3, our + 4));
    own[5] = uint64_t(reference(text.c_str(), format.c_str(), own, own + 1, own + 2, own + 3, own + 4));
    ASSERT_EQ(0, memcmp(our, own, sizeof our)) << '\'' << format << "' of '" << text << '\'';
  }
}

}  // namespace
