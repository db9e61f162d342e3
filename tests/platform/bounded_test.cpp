#include "bounded.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>

namespace {

using std::string;

constexpr char kFill = '\x7f';

string filled(size_t count) {
  return string(count, kFill);
}

TEST(BoundedMemory, CopiesSetsAndClears) {
  struct Row {
    const char* name;
    size_t size, count;
    int result;
    string expected;  // of 8 bytes
  };
  const Row rows[] = {
      {"part", 8, 3, 0, "abc" + filled(5)},
      {"exact", 8, 8, 0, "abcdefgh"},
      {"nothing", 8, 0, 0, filled(8)},
      {"too much clears only the destination", 4, 5, ERANGE, string(4, '\0') + filled(4)},
      {"size 0", 0, 1, ERANGE, filled(8)},
      {"size 0, nothing", 0, 0, ERANGE, filled(8)},
      {"a negative count", 8, size_t(-1), ERANGE, string(8, '\0')},
      {"a negative size", size_t(-1), 3, ERANGE, filled(8)},
  };
  for (const Row& row : rows) {
    for (const auto copy : {memcpy_s, memmove_s}) {
      string target = filled(8);
      EXPECT_EQ(row.result, copy(target.data(), row.size, "abcdefgh", row.count)) << row.name;
      EXPECT_EQ(row.expected, target) << row.name;
    }
    string target = filled(8);
    EXPECT_EQ(row.result, memset_s(target.data(), row.size, 's', row.count)) << row.name;
    string expected = row.expected;
    for (char& c : expected)
      c = c >= 'a' && c <= 'h' ? 's' : c;
    EXPECT_EQ(expected, target) << row.name;
  }
  string target = filled(2);
  EXPECT_EQ(EINVAL, memcpy_s(target.data(), 2, nullptr, 1));
  EXPECT_EQ(string(2, '\0'), target);
  EXPECT_EQ(EINVAL, memcpy_s(nullptr, 2, "ab", 1));
  EXPECT_EQ(EINVAL, memset_s(nullptr, 2, 0, 1));
}

TEST(BoundedMemory, Overlap) {
  char text[] = "0123456789";
  EXPECT_EQ(0, memmove_s(text + 2, 8, text, 8));
  EXPECT_STREQ("0101234567", text);
  EXPECT_EQ(0, memcpy_s(text, 10, text, 10));
  EXPECT_STREQ("0101234567", text);
  EXPECT_EQ(0, memcpy_s(text, 5, text + 5, 5)) << "neighbours";
  EXPECT_EQ(EINVAL, memcpy_s(text + 4, 6, text, 5));
  EXPECT_EQ(0, memcmp(text, "3456\0\0\0\0\0\0", 10));
  EXPECT_EQ(EINVAL, memcpy_s(text, 10, text + 4, 5));
}

struct TextRow {
  const char* name;
  size_t size;
  const char* before;
  const char* source;
  size_t count;
  int result;
  const char* after;
};

using TextCall = int (*)(char*, size_t, const char*, size_t);

// Whatever stands behind the text and its terminator must stay, and so must all of a refused destination.
void check_text(const char* function, TextCall call, const TextRow& row) {
  string target = filled(16);
  memcpy(target.data(), row.before, strlen(row.before) + 1);
  string expected = target;
  memcpy(expected.data(), row.after, strlen(row.after));
  if (row.size)
    expected[strlen(row.after)] = '\0';
  EXPECT_EQ(row.result, call(target.data(), row.size, row.source, row.count)) << function << ": " << row.name;
  EXPECT_EQ(expected, target) << function << ": " << row.name;
}

TEST(BoundedText, Copies) {
  const TextRow rows[] = {
      {"plain", 16, "", "abc", SIZE_MAX, 0, "abc"},
      {"empty", 16, "xyz", "", SIZE_MAX, 0, ""},
      {"exact", 4, "", "abc", SIZE_MAX, 0, "abc"},
      {"count cuts", 16, "", "abcdef", 3, 0, "abc"},
      {"count of nothing", 16, "xyz", "abc", 0, 0, ""},
      {"count above the size, text below", 4, "", "ab", 100, 0, "ab"},
      {"one too long", 3, "xyz", "abc", SIZE_MAX, ERANGE, ""},
      {"count as long as the size", 3, "xyz", "abcdef", 3, ERANGE, ""},
      {"size 1, empty", 1, "xyz", "", SIZE_MAX, 0, ""},
      {"size 1", 1, "xyz", "a", SIZE_MAX, ERANGE, ""},
      {"size 0", 0, "xyz", "a", SIZE_MAX, ERANGE, "xyz"},
      {"no source", 4, "xyz", nullptr, SIZE_MAX, EINVAL, ""},
  };
  const TextCall whole = [](char* to, size_t size, const char* from, size_t) { return strcpy_s(to, size, from); };
  for (const TextRow& row : rows) {
    check_text("strncpy_s", strncpy_s, row);
    if (row.count == SIZE_MAX)
      check_text("strcpy_s", whole, row);
  }
  EXPECT_EQ(EINVAL, strcpy_s(nullptr, 4, "a"));
  char text[] = "abcdef";
  EXPECT_EQ(0, strcpy_s(text, sizeof text, text));
  EXPECT_STREQ("abcdef", text);
  EXPECT_EQ(0, strncpy_s(text, 4, text + 4, 2)) << "neighbours";
  EXPECT_EQ(EINVAL, strcpy_s(text + 4, 3, text + 5));
  EXPECT_STREQ("", text + 4);
}

TEST(BoundedText, Appends) {
  const TextRow rows[] = {
      {"plain", 16, "abc", "def", SIZE_MAX, 0, "abcdef"},
      {"exact", 7, "abc", "def", SIZE_MAX, 0, "abcdef"},
      {"count cuts", 16, "abc", "def", 2, 0, "abcde"},
      {"nothing to a full one", 4, "abc", "", SIZE_MAX, 0, "abc"},
      {"one too long", 6, "abc", "def", SIZE_MAX, ERANGE, ""},
      {"a destination without end", 3, "abc", "", SIZE_MAX, ERANGE, ""},
      {"size 0", 0, "abc", "d", SIZE_MAX, ERANGE, "abc"},
      {"no source", 8, "abc", nullptr, SIZE_MAX, EINVAL, ""},
  };
  const TextCall whole = [](char* to, size_t size, const char* from, size_t) { return strcat_s(to, size, from); };
  for (const TextRow& row : rows) {
    check_text("strncat_s", strncat_s, row);
    if (row.count == SIZE_MAX)
      check_text("strcat_s", whole, row);
  }
  char text[16] = "abc";
  EXPECT_EQ(EINVAL, strcat_s(text, sizeof text, text));
  EXPECT_STREQ("", text);
}

TEST(BoundedText, Tokens) {
  char text[] = ":one:.2:";
  char* position = nullptr;
  EXPECT_STREQ("one", strtok_s(text, ":.", &position));
  EXPECT_STREQ("2", strtok_s(nullptr, ":.", &position));
  EXPECT_EQ(nullptr, strtok_s(nullptr, ":.", &position));
  position = nullptr;
  EXPECT_EQ(nullptr, strtok_s(nullptr, ":.", &position));
  EXPECT_EQ(nullptr, strtok_s(text, nullptr, &position));
  EXPECT_EQ(nullptr, strtok_s(text, ":", nullptr));
}

TEST(BoundedPrint, EmptiesOrCuts) {
  struct Row {
    size_t size, count;
    int whole_result;
    const char* whole;
    int cut_result;
    const char* cut;
  };
  const Row rows[] = {
      {16, 15, 7, "value 7", 7, "value 7"}, {8, 7, 7, "value 7", 7, "value 7"},
      {8, 100, 7, "value 7", 7, "value 7"}, {8, 6, 7, "value 7", -1, "value "},
      {8, 0, 7, "value 7", -1, ""},         {7, 7, -1, "", -1, "value "},
      {7, SIZE_MAX, -1, "", -1, "value "},  {1, 0, -1, "", -1, ""},
      {0, 0, -1, "old", -1, "old"},
  };
  for (const Row& row : rows) {
    char text[16] = "old";
    EXPECT_EQ(row.whole_result, sprintf_s(text, row.size, "value %d", 7)) << row.size;
    EXPECT_STREQ(row.whole, text) << row.size;
    char cut[16] = "old";
    EXPECT_EQ(row.cut_result, snprintf_s(cut, row.size, row.count, "value %d", 7)) << row.size << ' ' << row.count;
    EXPECT_STREQ(row.cut, cut) << row.size << ' ' << row.count;
  }
  EXPECT_EQ(-1, sprintf_s(nullptr, 8, "x"));
  EXPECT_EQ(-1, snprintf_s(nullptr, 8, 7, "x"));
  char text[] = "old";
  EXPECT_EQ(-1, snprintf_s(text, sizeof text, 2, "%lc", static_cast<wint_t>(0xd800))) << "no such character";
  EXPECT_STREQ("", text);
}

// The same row by text and by stream; a stream must have kept what the scan did not use.
void scan_token(const char* text, const char* format, unsigned size, int result, const char* after) {
  SCOPED_TRACE(string(format) + " of '" + text + "', size " + std::to_string(size));
  char target[16] = "old";
  EXPECT_EQ(result, sscanf_s(text, format, target, size));
  EXPECT_STREQ(after, target);

  const std::unique_ptr<FILE, int (*)(FILE*)> stream(tmpfile(), fclose);
  ASSERT_TRUE(stream);
  fputs(text, stream.get());
  rewind(stream.get());
  char from_stream[16] = "old";
  EXPECT_EQ(result, fscanf_s(stream.get(), format, from_stream, size));
  EXPECT_STREQ(after, from_stream);
}

TEST(BoundedScan, TokensFitOrFail) {
  struct Row {
    const char *text, *format;
    unsigned size;
    int result;
    const char* after;
  };
  const Row rows[] = {
      {"  word rest", "%s", 16, 1, "word"},
      {"word", "%s", 5, 1, "word"},
      {"word", "%4s", 5, 1, "word"},
      {"worden", "%4s", 5, 1, "word"},
      {"key=value", "%*[^=]=%s", 16, 1, "value"},
      {"10-20", "%[0-9]", 16, 1, "10"},
      {"]-^x", "%[]^-]", 16, 1, "]-^"},
      {"a]b", "%[^]]", 16, 1, "a"},
      {"cab-d", "%[c-a]", 16, 1, "ca"},
      {"bad", "%[a-b]", 16, 1, "ba"},
      {"abc", "%c", 1, 1, "ald"},
      {" bc", "%3c", 3, 1, " bc"},
      {"ab", "%3c", 3, 1, "abd"},
      {"100% x", "%*d%% %s", 16, 1, "x"},
      {"word", "%s", 4, 0, ""},
      {"word", "%5s", 4, 0, ""},
      {"word", "%[a-z]", 4, 0, ""},
      {"abc", "%3c", 2, 0, ""},
      {"w", "%s", 1, 0, ""},
      {"w", "%s", 0, 0, "old"},
      {"w", "%c", 0, 0, "old"},
      {"7", "%[a-z]", 16, 0, "old"},
      {"abc", "abd%s", 16, 0, "old"},
      {"", "%s", 16, EOF, "old"},
      {"  ", "%s", 16, EOF, "old"},
      {"", "%c", 16, EOF, "old"},
      {"ab", "ab%s", 16, EOF, "old"},
      {"word", "%999999999999999999999s", 16, 1, "word"},
      {"word", "%", 16, 0, "old"},
      {"word", "%*", 16, 0, "old"},
      {"word", "%12", 16, 0, "old"},
      {"word", "%l", 16, 0, "old"},
      {"word", "%[", 16, 0, "old"},
      {"word", "%[]", 16, 0, "old"},
      {"word", "%[^", 16, 0, "old"},
      {"word", "%[a-", 16, 0, "old"},
      {"word", "%ls", 16, 0, "old"},
      {"word", "%k", 16, 0, "old"},
  };
  for (const Row& row : rows)
    scan_token(row.text, row.format, row.size, row.result, row.after);
  EXPECT_EQ(EOF, sscanf_s(nullptr, "%d"));
  EXPECT_EQ(EOF, sscanf_s("1", nullptr));
  EXPECT_EQ(EOF, fscanf_s(nullptr, "%d"));
  EXPECT_EQ(0, sscanf_s("word", "%s", nullptr, 16));
  EXPECT_EQ(0, sscanf_s("7", "%d", nullptr));
}

TEST(BoundedScan, SeveralAndStreamPosition) {
  char address[8] = "", name[8] = "old";
  int prefix = 0, end = 0;
  EXPECT_EQ(2, sscanf_s("IPADDR=1.2.3.4 PREFIX=24", "IPADDR=%s PREFIX=%d%n", address, 8, &prefix, &end));
  EXPECT_STREQ("1.2.3.4", address);
  EXPECT_EQ(24, prefix);
  EXPECT_EQ(24, end);
  EXPECT_EQ(1, sscanf_s("12 too-long-a-name 7", "%d%s%d", &prefix, name, 8, &end)) << "the third is not reached";
  EXPECT_EQ(12, prefix);
  EXPECT_EQ(24, end);
  EXPECT_STREQ("", name);

  const std::unique_ptr<FILE, int (*)(FILE*)> stream(tmpfile(), fclose);
  ASSERT_TRUE(stream);
  fputs("12kB\n34", stream.get());
  rewind(stream.get());
  EXPECT_EQ(1, fscanf_s(stream.get(), "%d", &prefix));
  EXPECT_EQ('k', getc(stream.get())) << "the character behind the number";
  EXPECT_EQ(1, fscanf_s(stream.get(), "B %d", &prefix));
  EXPECT_EQ(34, prefix);
  EXPECT_EQ(EOF, fscanf_s(stream.get(), "%d", &prefix));
}

TEST(BoundedScan, NumbersOfEachWidth) {
  struct Row {
    const char *text, *format;
    int result;
    uint64_t after;  // of a word of all ones, little end first
  };
  const Row rows[] = {
      {"5", "%hhd", 1, 0xffffffffffffff05},
      {"-5", "%hd", 1, 0xfffffffffffffffb},
      {"5", "%hu", 1, 0xffffffffffff0005},
      {"5", "%d", 1, 0xffffffff00000005},
      {"5", "%ld", 1, 5},
      {"5", "%llu", 1, 5},
      {"5", "%zx", 1, 5},
      {"5", "%jd", 1, 5},
      {"5", "%td", 1, 5},
      {"0x7fffffffffff", "%p", 1, 0x7fffffffffff},
      {"(nil)", "%p", 1, 0},
      {"abc", "%*3c%ln", 0, 3},
      {"-2147483648", "%d", 1, 0xffffffff80000000},
      {"-1", "%u", 1, 0xffffffffffffffff},
      {"-3", "%hu", 1, 0xfffffffffffffffd},
      {"-0x10", "%i", 1, 0xfffffffffffffff0},
      {"0xzz", "%x", 1, 0xffffffff00000000},
      {"9223372036854775807", "%ld", 1, 0x7fffffffffffffff},
      {"2147483648", "%d", 1, 0xffffffff7fffffff},
      {"-2147483649", "%d", 1, 0xffffffff80000000},
      {"300", "%hhu", 1, 0xffffffffffffffff},
      {"-300", "%hhd", 1, 0xffffffffffffff80},
      {"9223372036854775808", "%ld", 1, 0x7fffffffffffffff},
      {"-99999999999999999999", "%ld", 1, 0x8000000000000000},
      {"99999999999999999999", "%lu", 1, UINT64_MAX},
      {"0000000000000000000000000000000007", "%lu", 1, 7},
      {"+", "%ld", 0, UINT64_MAX},
      {"(null)", "%p", 0, UINT64_MAX},
  };
  for (const Row& row : rows) {
    uint64_t word = UINT64_MAX;
    EXPECT_EQ(row.result, sscanf_s(row.text, row.format, &word)) << row.format << " of " << row.text;
    EXPECT_EQ(row.after, word) << row.format << " of " << row.text;
  }
  float single = 0;
  double whole = 0;
  long double extended = 0;
  EXPECT_EQ(3, sscanf_s("1.5 -2.5e-3 0x1.8p1", "%f%lf%La", &single, &whole, &extended));
  EXPECT_EQ(1.5f, single);
  EXPECT_EQ(-2.5e-3, whole);
  EXPECT_EQ(3.0L, extended);
  EXPECT_EQ(0, sscanf_s("100ergs", "%lf", &whole));
  EXPECT_EQ(0, sscanf_s((string(2000, '1') + ".").c_str(), "%lf", &whole)) << "longer than any double";
}

// The C library's own scan is the measure, in the values that fit.
TEST(BoundedScan, AgreesWithTheCLibrary) {
  int (*const reference)(const char*, const char*, ...) = sscanf;
  const char* const pieces[] = {"%d", "%i", "%3u", "%x",  "%2o", "%1i", "%2x", "%3i",     "%*d", "%*2x", " ",
                                ",",  "-",  "x",   "%5d", "%%",  "%n",  "0",   "%*[0-9]", "%4X", "\t",   "%*c"};
  const char alphabet[] = "0012789abfxX+-,% \t";
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto below = [&random](size_t bound) { return random() % bound; };
  for (int i = 0; i < 200000; i++) {
    string format, text;
    for (size_t n = below(5) + 1; n > 0; n--)
      format += pieces[below(std::size(pieces))];
    for (size_t n = below(9); n > 0; n--)
      text += alphabet[below(sizeof alphabet - 1)];
    int ours[5] = {1, 2, 3, 4, 5}, theirs[5] = {1, 2, 3, 4, 5};
    const int our_result = sscanf_s(text.c_str(), format.c_str(), ours, ours + 1, ours + 2, ours + 3, ours + 4);
    const int result =
        reference(text.c_str(), format.c_str(), theirs, theirs + 1, theirs + 2, theirs + 3, theirs + 4);
    ASSERT_EQ(result, our_result) << '\'' << format << "' of '" << text << "', seed " << seed;
    ASSERT_EQ(0, memcmp(ours, theirs, sizeof ours)) << '\'' << format << "' of '" << text << "', seed " << seed;
  }
}

}  // namespace
