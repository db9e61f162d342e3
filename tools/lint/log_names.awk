# A log line that takes the name of the function that it stands in may only stand in an exported function: elsewhere, a
# helper that is renamed would change the log. The first file is abi/tirn.symbols.
FILENAME ~ /\.symbols$/ { exported[$1]; next }
FNR == 1 { name = "" }
/^[A-Za-z_]/ && /\(/ && !/^(using|namespace|constexpr|constinit|static_assert)/ {
  name = $0
  sub(/\(.*/, "", name)
  sub(/.*[^A-Za-z0-9_]/, "", name)
}
/TIRN_(ERROR|WARNING|INFO|DEBUG|LIMITED)\(/ && !/^ *(\/\/|#)/ && !(name in exported) {
  print FILENAME ":" FNR ": " name " is no exported function: name the one whose log line this is"
  bad = 1
}
END { exit bad }
