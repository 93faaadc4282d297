# How every target of ours is compiled and linked.

# Compilations are remembered where ccache is installed. Paths are kept relative to the sources, so that a second
# checkout finds what the first one compiled.
find_program(TALVEK_CCACHE ccache DOC "The compiler cache; empty to build without one")
if(TALVEK_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${TALVEK_CCACHE})
endif()

# What every target of ours is compiled with.
add_library(talvek_settings INTERFACE)
target_include_directories(talvek_settings INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)
target_compile_options(talvek_settings INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wconversion -Wshadow -Wcast-qual -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual
  -fno-omit-frame-pointer -fstack-protector-strong)
target_compile_definitions(talvek_settings INTERFACE _FILE_OFFSET_BITS=64)
target_link_options(talvek_settings INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_definitions(talvek_settings INTERFACE _FORTIFY_SOURCE=2)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports members of coroutine frames and of std::expected that it cannot follow.
  target_compile_options(talvek_settings INTERFACE -Wno-maybe-uninitialized -fcoroutines)
else()
  # CMAKE_LINKER_TYPE would say this, but is younger than the CMake of Debian 12.
  target_link_options(talvek_settings INTERFACE -fuse-ld=lld)
endif()
if(TALVEK_SANITIZE)
  target_compile_options(talvek_settings INTERFACE -fsanitize=${TALVEK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(talvek_settings INTERFACE -fsanitize=${TALVEK_SANITIZE})
endif()
if(TALVEK_FUZZ)
  target_compile_options(talvek_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()
