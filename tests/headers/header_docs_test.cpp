// Each exported function is documented, and says how safe it is in the terms of the C library's manual.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <regex>
#include <set>
#include <sstream>

#include "headers/public_headers.h"

using namespace tirn::test;

namespace {

// The text behind @safety, joined over its lines; empty where there is none.
std::string safety_of(const std::string& comment) {
  const size_t at = comment.find("@safety");
  if (at == std::string::npos) {
    return {};
  }
  std::string text = comment.substr(at + 7, comment.size() - at - 9);
  return std::regex_replace(text, std::regex("\\s*\\n\\s*\\*?\\s*"), " ");
}

// "MT-Safe env, AS-Unsafe lock heap (a remark)": a claim with its reasons, for threads and for signal handlers.
std::string fault_of(const std::string& safety) {
  static const std::set<std::string> kReasons = {
      "init",   "env",    "locale", "cwd",   "hostid", "sigintr", "fd",           "mem",     "corrupt", "heap",
      "dlopen", "plugin", "i18n",   "timer", "lock",   "stream",  "selfdeadlock", "signals", "linux",   "glibc"};
  static const std::regex kObjectReason(
      "(race|const|sig|term|env|init|locale|timer|cwd|asynconsist)(:[\\w.\\[\\]*>-]+)*");
  static const std::set<std::string> kClaims = {"MT-Safe",   "MT-Unsafe", "AS-Safe",
                                                "AS-Unsafe", "AC-Safe",   "AC-Unsafe"};
  std::istringstream words(std::regex_replace(safety, std::regex("\\([^()]*\\)"), ""));
  std::set<std::string> claimed;
  std::string word;
  bool unsafe_without_reason = false;
  for (bool begins_claim = true; words >> word;) {
    const bool ends_claim = word.back() == ',';
    word.erase(word.find_last_not_of(",.") + 1);
    if (word.empty()) {
      begins_claim = true;
      continue;
    }
    if (begins_claim) {
      if (kClaims.count(word) == 0) {
        return "\"" + word + "\" is no claim";
      }
      if (!claimed.insert(word.substr(0, 2)).second) {
        return word.substr(0, 2) + " is claimed twice";
      }
      unsafe_without_reason |= word == "MT-Unsafe" && ends_claim;
    } else if (kReasons.count(word) == 0 && !std::regex_match(word, kObjectReason)) {
      return "\"" + word + "\" is no reason that the manual knows";
    }
    begins_claim = ends_claim;
  }
  if (unsafe_without_reason) {
    return "MT-Unsafe without a reason";
  }
  return claimed.count("MT") != 0 && claimed.count("AS") != 0 ? "" : "MT and AS must both be claimed";
}

TEST(HeaderDocs, RulesTellFaultsApart) {
  EXPECT_EQ(fault_of(" MT-Safe, AS-Safe "), "");
  EXPECT_EQ(fault_of("MT-Unsafe race:currCpuGHz, AS-Unsafe lock heap (until the table, if any, is found)"), "");
  for (const char* const wrong : {"", "MT-Safe", "AS-Safe", "MT-Safe, AS-Safe, MT-Unsafe", "MT-Unsafe, AS-Safe",
                                  "MT-Safe, AS-Unsafe mutex", "Safe, AS-Safe", "MT-Safe AS-Safe"}) {
    EXPECT_NE(fault_of(wrong), "") << wrong;
  }
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
