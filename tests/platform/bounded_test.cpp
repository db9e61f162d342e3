#include "bounded.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "support/random_seed.h"

namespace {

using std::string;

string filled(size_t count) { return string(count, '\x7f'); }

TEST(Bounded, Memory) {
  struct Row {
    size_t size, count;
    int result;
    string expected;  // of 8 bytes
  };
  const Row rows[] = {
      {8, 3, 0, "aaa" + filled(5)},
      {8, 8, 0, "aaaaaaaa"},
      {4, 5, ERANGE, string(4, '\0') + filled(4)},
      {0, 1, ERANGE, filled(8)},
      {8, size_t(-1), ERANGE, string(8, '\0')},
      {size_t(-1), 3, ERANGE, filled(8)},
  };
  for (const Row& row : rows) {
    for (const auto copy : {memcpy_s, memmove_s}) {
      string target = filled(8);
      EXPECT_EQ(row.result, copy(target.data(), row.size, "aaaaaaaa", row.count)) << row.size << ' ' << row.count;
      EXPECT_EQ(row.expected, target) << row.size << ' ' << row.count;
    }
    string target = filled(8);
    EXPECT_EQ(row.result, memset_s(target.data(), row.size, 'a', row.count)) << row.size << ' ' << row.count;
    EXPECT_EQ(row.expected, target) << row.size << ' ' << row.count;
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

// Whatever stands behind the text and its terminator must stay.
TEST(Bounded, CopiesAndAppends) {
  struct Row {
    const char *before, *source, *after;  // before: what is appended to; nullptr: a copy
    size_t size, count;
    int result;
  };
  const Row rows[] = {
      {nullptr, "", "", 16, SIZE_MAX, 0},         {nullptr, "abc", "abc", 4, SIZE_MAX, 0},
      {nullptr, "abcdef", "abc", 16, 3, 0},       {nullptr, "abc", "", 16, 0, 0},
      {nullptr, "ab", "ab", 4, 100, 0},           {nullptr, "abc", "", 3, SIZE_MAX, ERANGE},
      {nullptr, "abcdef", "", 3, 3, ERANGE},      {nullptr, "", "", 1, SIZE_MAX, 0},
      {nullptr, "a", "xyz", 0, SIZE_MAX, ERANGE}, {nullptr, nullptr, "", 4, SIZE_MAX, EINVAL},
      {"abc", "def", "abcdef", 7, SIZE_MAX, 0},   {"abc", "def", "abcde", 16, 2, 0},
      {"abc", "", "abc", 4, SIZE_MAX, 0},         {"abc", "def", "", 6, SIZE_MAX, ERANGE},
      {"abc", "", "", 3, SIZE_MAX, ERANGE},       {"abc", "d", "abc", 0, SIZE_MAX, ERANGE},
      {"abc", nullptr, "", 8, SIZE_MAX, EINVAL},
  };
  for (const Row& row : rows) {
    string target = filled(16);
    strcpy(target.data(), row.before ? row.before : "xyz");
    string expected = target;
    memcpy(expected.data(), row.after, strlen(row.after) + (row.size ? 1 : 0));
    const auto call = row.before ? strncat_s : strncpy_s;
    EXPECT_EQ(row.result, call(target.data(), row.size, row.source, row.count)) << &row - rows;
    EXPECT_EQ(expected, target) << &row - rows;
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
  struct Row {
    size_t size, count;
    int result;
    const char* cut;
  };
  const Row rows[] = {
      {16, 15, 7, "value 7"},      {8, 7, 7, "value 7"}, {8, 100, 7, "value 7"},
      {8, 6, -1, "value "},        {8, 0, -1, ""},       {7, 7, -1, "value "},
      {7, SIZE_MAX, -1, "value "}, {1, 0, -1, ""},       {0, 0, -1, "old"},
  };
  for (const Row& row : rows) {
    char text[16] = "old", cut[16] = "old";
    EXPECT_EQ(row.size >= 8 ? 7 : -1, sprintf_s(text, row.size, "value %d", 7)) << row.size;
    EXPECT_STREQ(row.size >= 8 ? "value 7" : row.size ? "" : "old", text) << row.size;
    EXPECT_EQ(row.result, snprintf_s(cut, row.size, row.count, "value %d", 7)) << row.size << ' ' << row.count;
    EXPECT_STREQ(row.cut, cut) << row.size << ' ' << row.count;
  }
  char text[] = "old";
  EXPECT_TRUE(snprintf_s(text, 4, 2, "%lc", wint_t{0xd800}) == -1 && text[0] == '\0') << "no such character";
}

// Each row by text and by stream.
TEST(Bounded, ScannedTokensFitOrFail) {
  struct Row {
    const char *text, *format, *after;
    unsigned size;
    int result;
  };
  const Row rows[] = {
      {"word rest", "%s", "word", 16, 1}, {"k=value", "%*[^=]=%s", "value", 16, 1},
      {" word", "%s", "word", 5, 1},      {"word", "%s", "", 4, 0},
      {"worden", "%4s", "word", 5, 1},    {"]-^x", "%[]^-]", "]-^", 16, 1},
      {"a]b", "%[^]]", "a", 16, 1},       {"cab-d", "%[c-a]", "ca", 16, 1},
      {"abc", "%c", "ald", 1, 1},         {"ab", "%3c", "abd", 3, 1},
      {"abc", "%3c", "", 2, 0},           {"w", "%s", "old", 0, 0},
      {"  ", "%s", "old", 16, EOF},       {"ab", "ab%s", "old", 16, EOF},
  };
  for (const Row& row : rows) {
    FILE* const stream = fmemopen(const_cast<char*>(row.text), strlen(row.text), "r");
    char target[16] = "old", from_stream[16] = "old";
    EXPECT_EQ(row.result, sscanf_s(row.text, row.format, target, row.size)) << row.format << " of " << row.text;
    EXPECT_STREQ(row.after, target) << row.format << " of " << row.text;
    EXPECT_EQ(row.result, fscanf_s(stream, row.format, from_stream, row.size)) << row.format << " of " << row.text;
    EXPECT_STREQ(row.after, from_stream) << row.format << " of " << row.text;
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
  EXPECT_EQ(2, sscanf_s("IP=1.2.3.4 PREFIX=24", "IP=%s PREFIX=%d%n", name, 8, &number, &end));
  EXPECT_EQ("1.2.3.4 24 20", name + (' ' + std::to_string(number)) + ' ' + std::to_string(end));

  char text[] = "12kB";
  FILE* const stream = fmemopen(text, 4, "r");
  EXPECT_EQ(1, fscanf_s(stream, "%d", &number));
  EXPECT_EQ('k', getc(stream)) << "the character behind the number";
  fclose(stream);
}

TEST(Bounded, ScannedNumbersStayInTheirWidth) {
  struct Row {
    const char *text, *format;
    uint64_t after;  // of a word of all ones, little end first
  };
  const Row rows[] = {
      {"-300", "%hhd", 0xffffffffffffff80},      {"-2147483649", "%d", 0xffffffff80000000},
      {"9223372036854775808", "%ld", INT64_MAX}, {"18446744073709551616", "%lu", UINT64_MAX},
      {"0x7fffffffffff", "%p", 0x7fffffffffff},
  };
  for (const Row& row : rows) {
    uint64_t word = UINT64_MAX;
    EXPECT_EQ(1, sscanf_s(row.text, row.format, &word)) << row.format << " of " << row.text;
    EXPECT_EQ(row.after, word) << row.format << " of " << row.text;
  }
  float f = 0;
  double d = 0;
  long double l = 0;
  EXPECT_EQ(3, sscanf_s("1.5 -2.5e-3 0x1.8p1", "%f%lf%La", &f, &d, &l));
  EXPECT_TRUE(f == 1.5f && d == -2.5e-3 && l == 3.0L) << f << ' ' << d << ' ' << l;
  EXPECT_EQ(0, sscanf_s((string(2000, '1') + ".").c_str(), "%lf", &d)) << "longer than any double";
}

// The C library's own scan is the measure, in the values that fit.
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
