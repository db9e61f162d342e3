# shellcheck shell=sh disable=SC2154 # read by `dev`, which sets the variables
# The checks of `./dev lint`, a function each.

# A module may include the public headers, base, the processor's header and its own folder. base may include the
# platform's headers too. No layer includes one above it, except for the public headers.
check_includes() {
  sources 'libtirn/*.h' 'libtirn/*.cpp' 'platform/*.h' 'platform/*.cpp' 'include/*.h' | xargs awk '
    function allowed(folder, name) {
      if (folder == "include") return name ~ /^tirn\/[a-z_0-9]+\.h$/
      if (folder == "platform") return name !~ /^(tirn|libtirn)\//
      if (name ~ /^tirn\/[a-z_0-9]+\.h$/ || name == "libtirn/arch/arch.h") return 1
      if (index(name, "libtirn/" folder "/") == 1) return 1
      if (folder == "base") return name ~ /^(hurn\.h|bounded\.h|kernel\/kernel\.h)$/
      return folder != "arch" && name ~ /^libtirn\/base\/[a-z_0-9]+\.h$/
    }
    /^[ \t]*#[ \t]*include[ \t]*["<]/ {
      split(FILENAME, part, "/")
      folder = part[1] == "libtirn" ? part[2] : part[1]
      ours = $0 ~ /include[ \t]*"/ || $0 ~ /<(tirn\/|libtirn\/|kernel\/|hurn\.h|bounded\.h|zut\.h)/
      name = $0
      sub(/^[^"<]*["<]/, "", name)
      sub(/[">].*/, "", name)
      if (ours && !allowed(folder, name)) {
        print FILENAME ":" FNR ": " folder " may not include " name
        bad = 1
      }
    }
    END { exit bad }'
}

# Compiles each public header alone with clang and many warnings, and checks their comments. A test compiles them
# with the project's own compiler.
check_headers() {
  bad_header=
  for header in $(sources 'include/tirn/*.h' 'include/tirn/*.hpp'); do
    for language in 'c -std=c11' 'c++ -std=c++11' 'c++ -std=c++20'; do
      case "$header $language" in *.hpp\ c\ * | *.hpp*++11) continue ;; esac
      clang -fsyntax-only -Wall -Wextra -Wpedantic -Werror -Wno-unused-function -x $language -I include "$header" || bad_header=yes
    done
  done
  sources 'include/tirn/*.h' | xargs gawk -f tools/lint/headers.awk || bad_header=yes
  [ -z "$bad_header" ]
}

# The format, and the width of comments, which clang-format leaves alone.
check_format() {
  sources '*.h' '*.hpp' '*.cpp' '*.c' | xargs clang-format --dry-run -Werror &&
    sources '*.h' '*.hpp' '*.cpp' '*.c' |
    xargs awk 'length($0) > 118 { print FILENAME ":" FNR ": over 118 columns"; bad = 1 } END { exit bad }'
}

# What must agree for each module: its folder, the build file, the row in the docs and the header that this names.
# That tirn.h includes the header is checked with the headers.
check_modules() {
  bad_module=
  modules=$(ls -d libtirn/*/ | grep -vE '/(arch|base)/' | cut -d / -f 2)
  for module in $modules; do
    grep -q "[ (]$module/\*\.cpp" libtirn/CMakeLists.txt || { say "libtirn/CMakeLists.txt lacks $module"; bad_module=yes; }
    row=$(grep "^| \`$module\` |" docs/architecture.md) || { say "docs/architecture.md lacks $module"; bad_module=yes; }
    for header in $(say "$row" | grep -oE 'tirn/[a-z_0-9]+\.hp*'); do
      [ -f "include/$header" ] || { say "docs/architecture.md names $header, which is not there"; bad_module=yes; }
    done
  done
  for header in $(cd include && ls tirn/*.h | grep -vE '/(tirn|base)\.h'); do
    grep -q "^| .*\`$header\`" docs/architecture.md || { say "docs/architecture.md has no module with $header"; bad_module=yes; }
  done
  [ -z "$bad_module" ]
}

check_log_names() { sources 'libtirn/*.cpp' | xargs awk -f tools/lint/log_names.awk abi/tirn.symbols; }

run_tidy() {
  sed -n 's/^ *"file": "\(.*\)",*$/\1/p' build/release/compile_commands.json |
    grep -E "^$top/(libtirn|platform)/" | xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/release
}

run_cppcheck() {
  cppcheck --quiet -j "$jobs" --enable=warning,performance,portability --inline-suppr --error-exitcode=1 \
    --std=c++20 --std=c11 --language=c++ --suppress=missingInclude -D__GNUC__=12 -D__x86_64__ \
    -I . -I include -I platform -I platform/hurn -I platform/bounded -I platform/kernel/standin \
    libtirn platform tools examples
}
