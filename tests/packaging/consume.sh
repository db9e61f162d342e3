#!/bin/sh
# consume.sh SOURCE_DIR BUILD_DIR: installs a build into a prefix of its own, then builds and runs a program
# against it twice, once through pkg-config and once through the CMake package, as a user of the library would.
set -eu

build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
# A sanitized library needs a program that is built with the same flags.
compiler=$(cached CMAKE_C_COMPILER) flags=$(cached CMAKE_C_FLAGS)

cmake --install "$build" --prefix "$work/first" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
# Neither way may remember where the files were installed at first.
mv "$work/first" "$work/prefix"
libraries=$(dirname "$(find "$work/prefix" -name libtirn.so)")

for header in "$1"/include/tirn/*.h "$1"/platform/hurn/hurn.h; do
  find "$work/prefix/include" -name "$(basename "$header")" | grep -q . || { echo "not installed: $header"; exit 1; }
done

cat >"$work/main.c" <<'END'
#include <hurn.h>
#include <tirn/tirn.h>

int main(void) {
  kesa_log_level_set(TIRN_MODULE_ID, TIRN_LOG_ERROR);
  return hurn_loglevel_get(TIRN_MODULE_ID) == (int)HURN_ERROR ? 0 : 1;
}
END

export PKG_CONFIG_PATH="$libraries/pkgconfig"
"$compiler" $flags "$work/main.c" $(pkg-config --cflags --libs tirn) \
  "-Wl,-rpath,$(pkg-config --variable=libdir tirn)" -o "$work/through_pkg_config"
"$work/through_pkg_config"
echo "pkg-config: built and ran"

mkdir "$work/project"
mv "$work/main.c" "$work/project/"
cat >"$work/project/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C)
find_package(tirn 1.0 REQUIRED)
add_executable(consumer main.c)
target_link_libraries(consumer PRIVATE tirn::tirn)
END
cmake -S "$work/project" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$compiler" \
  -DCMAKE_C_FLAGS="$flags" >"$work/cmake.log" 2>&1 &&
  cmake --build "$work/build" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
"$work/build/consumer"
echo "CMake package: built and ran"
