// Bounds-checked scanning of texts and streams.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bounded.h"
#include "scan_directive.h"

namespace {

using namespace tirn::bounded;

// The significant digits of every double fit (at most 767); a longer number does not match.
constexpr size_t kLongestReal = 1023;

constexpr int lower(int c) { return c | 0x20; }  // only to compare with a letter

constexpr unsigned digit_value(int c) {
  if (is_digit(c)) {
    return static_cast<unsigned>(c - '0');
  }
  return lower(c) >= 'a' && lower(c) <= 'f' ? static_cast<unsigned>(lower(c) - 'a') + 10 : 16;
}

// Reads characters from a text or a stream, with one character of look-ahead. The destructor returns that character
// to the stream.
class Input {
 public:
  explicit Input(const char* text) : text_(text) {}
  explicit Input(FILE* stream) : stream_(stream) { flockfile(stream); }
  ~Input() {
    if (stream_ == nullptr) {
      return;
    }
    if (ahead_ >= 0) {
      ungetc(ahead_, stream_);
    }
    funlockfile(stream_);
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  int peek() {
    if (ahead_ == kUnknown) {
      ahead_ = fetch();
    }
    return ahead_;
  }
  void take() {
    ahead_ = kUnknown;
    taken_++;
  }
  uint64_t taken() const { return taken_; }

 private:
  static constexpr int kUnknown = -2;
  static_assert(EOF != kUnknown);

  int fetch() {
    if (stream_ != nullptr) {
      return getc_unlocked(stream_);
    }
    return *text_ ? static_cast<unsigned char>(*text_++) : EOF;
  }

  const char* text_ = nullptr;
  FILE* stream_ = nullptr;
  int ahead_ = kUnknown;
  uint64_t taken_ = 0;
};

enum class Outcome { kMatched, kMismatch, kEnded };

// The analyzer does not see the constructor's va_copy.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
class Scanner {
 public:
  Scanner(Input& input, va_list arguments) : input_(input) { va_copy(arguments_, arguments); }
  ~Scanner() { va_end(arguments_); }
  Scanner(const Scanner&) = delete;
  Scanner& operator=(const Scanner&) = delete;

  int run(const char* format) {
    Outcome outcome = Outcome::kMatched;
    while (*format && outcome == Outcome::kMatched) {
      const char c = *format++;
      if (c == '%') {
        outcome = convert(parse_directive(format));
      } else if (is_space(c)) {
        skip_space();
      } else {
        outcome = literal(c);
      }
    }
    return outcome == Outcome::kEnded && assigned_ == 0 ? EOF : assigned_;
  }

 private:
  struct Real {
    char text[kLongestReal + 1];
    size_t length = 0;
    bool too_long = false;
  };

  Outcome convert(Directive directive);
  Outcome literal(char c);
  Outcome token(const Directive& directive);
  Outcome integer(const Directive& directive, unsigned base, bool is_signed);
  Outcome pointer(const Directive& directive);
  Outcome real(const Directive& directive);
  Outcome assign(const Directive& directive, const void* value, size_t bytes, int counted);

  void skip_space() {
    while (is_space(input_.peek())) {
      input_.take();
    }
  }
  // Returns the next character, or EOF if the field's width is used up.
  int look() { return left_ ? input_.peek() : EOF; }
  void advance() {
    input_.take();
    left_--;
  }
  void keep(Real& number);
  bool keep_word(Real& number, const char* word);
  size_t keep_digits(Real& number, bool hexadecimal);
  bool keep_digital(Real& number);

  Input& input_;
  va_list arguments_;
  size_t left_ = kNoWidth;
  int assigned_ = 0;
};

Outcome Scanner::convert(Directive directive) {
  constexpr char kSkipping[] = "%diuoxXpsaAeEfFgG";
  const bool is_text = directive.conversion && strchr("sc[", directive.conversion) != nullptr;
  if (!directive.conversion || (is_text && directive.modified)) {  // wide text is not supported
    return Outcome::kMismatch;
  }
  if (strchr(kSkipping, directive.conversion) != nullptr) {
    skip_space();
  }
  if (directive.conversion != 'n' && input_.peek() == EOF) {
    return Outcome::kEnded;
  }
  left_ = directive.width;
  const uint64_t taken = input_.taken();
  switch (directive.conversion) {
    case '%':
      return literal('%');
    case 'n':
      return assign(directive, &taken, directive.bytes < 8 ? directive.bytes : 8, 0);
    case 'd':
    case 'u':
      return integer(directive, 10, directive.conversion == 'd');
    case 'i':
      return integer(directive, 0, true);
    case 'o':
      return integer(directive, 8, false);
    case 'x':
    case 'X':
      return integer(directive, 16, false);
    case 'p':
      return pointer(directive);
    case 's':
      for (int c = 0; c < 256; c++) {
        directive.set[static_cast<size_t>(c)] = !is_space(c);
      }
      return token(directive);
    case 'c':
      directive.set.set();
      if (left_ == kNoWidth) {
        left_ = 1;
      }
      return token(directive);
    case '[':
      return token(directive);
    default:
      return strchr(kSkipping, directive.conversion) != nullptr ? real(directive) : Outcome::kMismatch;
  }
}

Outcome Scanner::literal(char c) {
  const int next = input_.peek();
  if (next == EOF) {
    return Outcome::kEnded;
  }
  if (next != static_cast<unsigned char>(c)) {
    return Outcome::kMismatch;
  }
  input_.take();
  return Outcome::kMatched;
}

// The machine has to be little-endian: the first `bytes` bytes of a value are its low ones.
Outcome Scanner::assign(const Directive& directive, const void* value, size_t bytes, int counted) {
  if (directive.suppressed) {
    return Outcome::kMatched;
  }
  void* destination = va_arg(arguments_, void*);
  if (destination == nullptr) {
    return Outcome::kMismatch;
  }
  memcpy(destination, value, bytes);
  assigned_ += counted;
  return Outcome::kMatched;
}

Outcome Scanner::token(const Directive& directive) {
  char* destination = nullptr;
  size_t room = SIZE_MAX;
  if (!directive.suppressed) {
    destination = va_arg(arguments_, char*);
    room = va_arg(arguments_, unsigned);
    if (destination == nullptr) {
      room = 0;
    }
  }
  const size_t terminator = directive.conversion == 'c' ? 0 : 1;
  size_t count = 0;
  for (int c; (c = look()) != EOF && directive.set[static_cast<size_t>(c)]; count++) {
    if (room <= count + terminator) {
      if (room) {
        destination[0] = '\0';
      }
      return Outcome::kMismatch;
    }
    if (destination != nullptr) {
      destination[count] = static_cast<char>(c);
    }
    advance();
  }
  if (count == 0) {
    return Outcome::kMismatch;
  }
  if (destination != nullptr) {
    if (terminator) {
      destination[count] = '\0';
    }
    assigned_++;
  }
  return Outcome::kMatched;
}

// A value beyond the range of the argument's type becomes the nearest value in it, as with strtol.
Outcome Scanner::integer(const Directive& directive, unsigned base, bool is_signed) {
  const bool negative = look() == '-';
  if (negative || look() == '+') {
    advance();
  }
  bool any = false;
  if (look() == '0') {
    any = true;
    advance();
    if ((base == 0 || base == 16) && lower(look()) == 'x') {
      base = 16;
      advance();
    } else if (base == 0) {
      base = 8;
    }
  }
  if (base == 0) {
    base = 10;
  }
  uint64_t value = 0;
  bool overflown = false;
  for (unsigned digit; (digit = digit_value(look())) < base; advance()) {
    any = true;
    overflown |= __builtin_mul_overflow(value, base, &value);
    overflown |= __builtin_add_overflow(value, digit, &value);
  }
  if (!any) {
    return Outcome::kMismatch;
  }
  const size_t bytes = directive.bytes < 8 ? directive.bytes : 8;
  uint64_t most = UINT64_MAX >> (64 - bytes * 8);
  if (is_signed) {
    most = (most >> 1) + negative;
  }
  const bool clipped = overflown || value > most;
  if (clipped) {
    value = most;
  }
  if (negative && (is_signed || !clipped)) {
    value = 0 - value;
  }
  return assign(directive, &value, bytes, 1);
}

Outcome Scanner::pointer(const Directive& directive) {
  Directive as_long = directive;
  as_long.bytes = sizeof(void*);
  if (look() != '(') {
    return integer(as_long, 16, false);
  }
  // printf shows NULL as this text.
  for (const char* c = "(nil)"; *c; c++) {
    if (look() != *c) {
      return Outcome::kMismatch;
    }
    advance();
  }
  const uint64_t null = 0;
  return assign(as_long, &null, sizeof(void*), 1);
}

void Scanner::keep(Real& number) {
  if (number.length < kLongestReal) {
    number.text[number.length++] = static_cast<char>(look());
  } else {
    number.too_long = true;
  }
  advance();
}

bool Scanner::keep_word(Real& number, const char* word) {
  for (; *word; word++) {
    if (lower(look()) != *word) {
      return false;
    }
    keep(number);
  }
  return true;
}

size_t Scanner::keep_digits(Real& number, bool hexadecimal) {
  size_t count = 0;
  for (; digit_value(look()) < (hexadecimal ? 16u : 10u); count++) {
    keep(number);
  }
  return count;
}

bool Scanner::keep_digital(Real& number) {
  size_t count = 0;
  bool hexadecimal = false;
  if (look() == '0') {
    keep(number);
    count = 1;
    if (lower(look()) == 'x') {
      keep(number);
      hexadecimal = true;
      count = 0;
    }
  }
  count += keep_digits(number, hexadecimal);
  if (look() == '.') {
    keep(number);
    count += keep_digits(number, hexadecimal);
  }
  if (count == 0) {
    return false;
  }
  if (lower(look()) != (hexadecimal ? 'p' : 'e')) {
    return true;
  }
  keep(number);
  if (look() == '+' || look() == '-') {
    keep(number);
  }
  return keep_digits(number, false) > 0;
}

Outcome Scanner::real(const Directive& directive) {
  if (directive.bytes < sizeof(float)) {
    return Outcome::kMismatch;
  }
  Real number;
  if (look() == '+' || look() == '-') {
    keep(number);
  }
  bool complete;
  if (lower(look()) == 'i') {
    complete = keep_word(number, "inf") && (lower(look()) != 'i' || keep_word(number, "inity"));
  } else if (lower(look()) == 'n') {
    complete = keep_word(number, "nan");
  } else {
    complete = keep_digital(number);
  }
  if (!complete || number.too_long) {
    return Outcome::kMismatch;
  }
  number.text[number.length] = '\0';
  if (directive.bytes == sizeof(long double)) {
    const long double value = strtold(number.text, nullptr);
    return assign(directive, &value, sizeof value, 1);
  }
  if (directive.bytes == sizeof(double)) {
    const double value = strtod(number.text, nullptr);
    return assign(directive, &value, sizeof value, 1);
  }
  const float value = strtof(number.text, nullptr);
  return assign(directive, &value, sizeof value, 1);
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

}  // namespace

int vsscanf_s(const char* text, const char* format, va_list arguments) {
  if (text == nullptr || format == nullptr) {
    return EOF;
  }
  Input input(text);
  return Scanner(input, arguments).run(format);
}

int sscanf_s(const char* text, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int assigned = vsscanf_s(text, format, arguments);
  va_end(arguments);
  return assigned;
}

int fscanf_s(FILE* stream, const char* format, ...) {
  if (stream == nullptr || format == nullptr) {
    return EOF;
  }
  va_list arguments;
  va_start(arguments, format);
  Input input(stream);
  const int assigned = Scanner(input, arguments).run(format);
  va_end(arguments);
  return assigned;
}
