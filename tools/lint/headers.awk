# Checks the public headers. Each exported function must follow a comment with an @safety line in the terms of the C
# library's manual ("MT-Safe env, AS-Unsafe lock heap"; remarks in parentheses). Each header must have its include
# guard and be included by tirn.h.
function complain(what) {
  print FILENAME ":" FNR ": " what
  bad = 1
}

function check_safety(text, claims, words, claim, word) {
  gsub(/\([^()]*\)/, "", text)
  if (split(text, claims, ",") != 2) return complain("@safety wants two claims:" text)
  for (claim = 1; claim <= 2; claim++) {
    split(claims[claim], words, " ")
    if (words[1] !~ (claim == 1 ? "^MT-(Safe|Unsafe)$" : "^AS-(Safe|Unsafe)$")) complain("no claim: " words[1])
    if (words[1] == "MT-Unsafe" && words[2] == "") complain("MT-Unsafe without a reason")
    for (word = 2; word in words; word++)
      if (words[word] !~ /^(init|env|locale|cwd|hostid|sigintr|fd|mem|lock|heap|timer|plugin|corrupt|i18n|dlopen|const|sig|term|stream|race(:[a-z_A-Z]+)?)$/)
        complain("no reason that the manual knows: " words[word])
  }
}

FNR == 1 {
  name = FILENAME
  sub(/.*\//, "", name)
  guard = "TIRN_" toupper(substr(name, 1, index(name, ".") - 1)) "_H"
  guarded = comment = ""
  if (name != "tirn.h") headers[name]
}
$0 == "#ifndef " guard { guarded = 1 }
name == "tirn.h" && /^#include "tirn\// { split($0, part, /[\/"]/); included[part[3]] }

/^\/\*/ { comment = "" }
/^\/\*/, /\*\// { comment = comment " " $0 }
/^(TIRN_API|extern TIRN_API)/ && /\(/ {
  is_void = $0 ~ /TIRN_API void [^*]/
  if (is_void == (index(comment, "@returns") > 0)) complain(is_void ? "@returns of nothing" : "no @returns before this function")
  at = index(comment, "@safety")
  if (!at) complain("no @safety before this function")
  else {
    text = substr(comment, at + 7)
    gsub(/\*\/| \* /, " ", text)
    check_safety(text)
    functions++
  }
  comment = ""
}
ENDFILE { if (!guarded) complain("no guard " guard) }
END {
  for (header in headers) if (!(header in included)) complain(header " is not in tirn.h")
  if (functions < 50) complain("hardly a function was found: the patterns have gone blind")
  exit bad
}
