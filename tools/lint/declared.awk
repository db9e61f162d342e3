# What the public headers declare for export, one a row: the name, and T for a function or D for a variable.
/^(extern )?TIRN_API/ { open = 1; text = "" }
open { text = text " " $0 }
open && /;/ {
  open = 0
  gsub(/__attribute__ *\(\([^;]*\)\)/, "", text)
  kind = text ~ /\(/ ? "T" : "D"
  sub(/[[(;].*/, "", text)
  sub(/.*[ *]/, "", text)
  print text, kind
}
