// Each exported function is documented, and says how safe it is in the terms of the C library's manual.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include "headers/public_headers.h"

using namespace tirn::test;

namespace {

// The text behind @safety without its remarks in parentheses; empty where there is none.
std::string safety_of(const std::string& comment) {
  const size_t at = comment.find("@safety");
  if (at == std::string::npos) {
    return {};
  }
  std::string text;
  int depth = 0;
  for (const char c : comment.substr(at + 7, comment.size() - at - 9)) {
    depth += c == '(' ? 1 : 0;
    if (depth == 0) {
      text += c;
    }
    depth -= c == ')' ? 1 : 0;
  }
  return text;
}

// A reason that the manual knows. These may name an object: race:name.
bool is_reason(const std::string& word) {
  static const std::set<std::string> kReasons = {"init",   "env",  "locale", "cwd",   "hostid", "sigintr", "fd",
                                                 "mem",    "lock", "heap",   "timer", "plugin", "corrupt", "i18n",
                                                 "dlopen", "race", "const",  "sig",   "term",   "stream"};
  return kReasons.count(word.substr(0, word.find(':'))) != 0 && word.back() != ':';
}

// "MT-Safe env, AS-Unsafe lock heap": claims with their reasons, for threads and for signal handlers.
std::string fault_of(const std::string& safety) {
  static const std::set<std::string> kClaims = {"MT-Safe",   "MT-Unsafe", "AS-Safe",
                                                "AS-Unsafe", "AC-Safe",   "AC-Unsafe"};
  std::istringstream claims(safety);
  std::set<std::string> claimed;
  for (std::string claim; std::getline(claims, claim, ',');) {
    std::istringstream words(claim);
    std::string word;
    while (words >> word && word == "*") {
    }
    if (kClaims.count(word) == 0) {
      return "\"" + word + "\" is no claim";
    }
    if (!claimed.insert(word.substr(0, 2)).second) {
      return word.substr(0, 2) + " is claimed twice";
    }
    const bool needs_reason = word == "MT-Unsafe";
    int reasons = 0;
    for (; words >> word; ++reasons) {
      if (word != "*" && !is_reason(word)) {
        return "\"" + word + "\" is no reason that the manual knows";
      }
    }
    if (needs_reason && reasons == 0) {
      return "MT-Unsafe without a reason";
    }
  }
  return claimed.count("MT") != 0 && claimed.count("AS") != 0 ? "" : "MT and AS must both be claimed";
}

TEST(HeaderDocs, RulesTellFaultsApart) {
  const auto fault_of_comment = [](const char* safety) {
    return fault_of(safety_of("/* Text.\n * @safety " + std::string(safety) + " */"));
  };
  for (const char* const right :
       {"MT-Safe, AS-Safe", "MT-Unsafe race:currCpuGHz, AS-Unsafe lock heap (until the table, if any, is found)",
        "MT-Safe race:map env,\n * AS-Unsafe lock\n * heap\n"}) {
    EXPECT_EQ(fault_of_comment(right), "") << right;
  }
  for (const char* const wrong :
       {"", "MT-Safe", "AS-Safe", "MT-Safe, AS-Safe, MT-Unsafe race:x", "MT-Unsafe, AS-Safe",
        "MT-Safe, AS-Unsafe mutex", "Safe, AS-Safe", "MT-Safe AS-Safe", "MT-Safe race:, AS-Safe"}) {
    EXPECT_NE(fault_of_comment(wrong), "") << wrong;
  }
  EXPECT_NE(fault_of(safety_of("/* Text. */")), "");
}

TEST(HeaderDocs, EachFunctionHasACommentAndItsSafety) {
  const auto declarations = exported_declarations();
  const auto functions =
      std::count_if(declarations.begin(), declarations.end(), [](const auto& each) { return each.is_function; });
  EXPECT_GT(functions, 50);  // else the reader has gone blind
  for (const Declaration& each : declarations) {
    if (!each.is_function) {
      continue;
    }
    EXPECT_FALSE(each.comment.empty()) << each.header << ": no comment stands before " << each.name;
    EXPECT_EQ(fault_of(safety_of(each.comment)), "") << each.header << ": " << each.name << ": " << each.comment;
  }
}

TEST(HeaderDocs, EachHeaderIsGuardedAndInTheWhole) {
  const std::string whole = read_file(TIRN_SOURCE_DIR "/include/tirn/tirn.h");
  for (const auto& path : public_headers()) {
    const std::string text = read_file(path);
    std::string guard = "TIRN_" + path.stem().string() + "_H";
    std::transform(guard.begin(), guard.end(), guard.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_NE(text.find("#ifndef " + guard + "\n#define " + guard + "\n"), std::string::npos) << path << ' ' << guard;
    if (path.filename() != "tirn.h") {
      EXPECT_NE(whole.find("#include \"tirn/" + path.filename().string() + "\"\n"), std::string::npos)
          << path << " is not in tirn.h";
    }
  }
}

}  // namespace
