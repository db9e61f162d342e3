# Sets the compiler and linker flags: tirn_flags for every target of the project, tirn_strict for the libraries.
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
# The libraries are in one folder, in the build tree as when installed, so one search path serves both. A search path
# that is replaced at installation would be padded with colons, and an empty entry means the working folder.
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
  # Stack walks follow frame pointers, also those of leaf functions.
  -fno-omit-frame-pointer
  # Binds a library's calls to its own exports locally, so that a program's function `panic` does not replace them.
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

# The libraries are built without exceptions and run-time types.
add_library(tirn_strict INTERFACE)
target_compile_options(tirn_strict INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
target_link_libraries(tirn_strict INTERFACE tirn_flags)
# The distribution's hardening. Its checked calls need optimisation, so debug builds have none of it. The sanitizers,
# which are debug builds, check the same and more.
if(TIRN_HARDENING)
  target_compile_options(tirn_strict INTERFACE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2;-fstack-protector-strong;-fstack-clash-protection;${TIRN_BRANCHES}>")
endif()

# Lists the source files that match the patterns. CMake looks for new files at each build.
function(tirn_sources result)
  file(GLOB found CONFIGURE_DEPENDS ${ARGN})
  list(SORT found)
  set(${result} ${found} PARENT_SCOPE)
endfunction()
