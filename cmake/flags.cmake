# One interface target carries the flags of every target of the project.
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
# The libraries lie beside one another, in the build tree as installed: one search path serves both. A path that is
# replaced when it is installed is padded with colons, and an empty entry means the working folder.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_INSTALL_RPATH "$ORIGIN")

find_program(TIRN_CCACHE ccache)
if(TIRN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${TIRN_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${TIRN_CCACHE})
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

add_library(tirn_flags INTERFACE)
target_compile_options(tirn_flags INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wundef -Wvla -Wformat=2 -Wcast-align -Wpointer-arith
  # Stack walks follow frame pointers, in leaf functions too.
  -fno-omit-frame-pointer
  # Calls inside a library to its own exports are bound locally: a program's `panic` cannot take them over.
  -fno-semantic-interposition
  -fno-plt
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
target_compile_definitions(tirn_flags INTERFACE _GNU_SOURCE)
target_link_options(tirn_flags INTERFACE
  -Wl,-Bsymbolic-functions -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
target_link_libraries(tirn_flags INTERFACE Threads::Threads)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  target_compile_options(tirn_flags INTERFACE -march=x86-64-v2 -mno-omit-leaf-frame-pointer)
  set(TIRN_BRANCHES -fcf-protection)
else()
  set(TIRN_BRANCHES -mbranch-protection=standard)
endif()

# The library and what it is made of: no exceptions, no run-time types.
add_library(tirn_strict INTERFACE)
target_compile_options(tirn_strict INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
target_link_libraries(tirn_strict INTERFACE tirn_flags)
# The distribution's hardening. Checked calls need optimisation; the sanitizers, in debug builds, do the same and more.
if(TIRN_HARDENING)
  target_compile_options(tirn_strict INTERFACE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2;-fstack-protector-strong;-fstack-clash-protection;${TIRN_BRANCHES}>")
endif()

# Turns SOURCES of one folder into a list: folders are rooms, so a new file joins by being there.
function(tirn_sources result)
  file(GLOB found CONFIGURE_DEPENDS ${ARGN})
  list(SORT found)
  set(${result} ${found} PARENT_SCOPE)
endfunction()
