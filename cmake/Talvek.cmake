# Settings and helpers that every layer uses.

# What every target of ours is compiled with.
add_library(talvek_settings INTERFACE)
target_include_directories(talvek_settings INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)
target_compile_options(talvek_settings INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wconversion -Wshadow -Wcast-qual -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual
  -fno-omit-frame-pointer -fstack-protector-strong)
target_compile_definitions(talvek_settings INTERFACE _FILE_OFFSET_BITS=64)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_definitions(talvek_settings INTERFACE _FORTIFY_SOURCE=2)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports members of coroutine frames and of std::expected that it cannot follow.
  target_compile_options(talvek_settings INTERFACE -Wno-maybe-uninitialized -fcoroutines)
endif()
if(TALVEK_SANITIZE)
  target_compile_options(talvek_settings INTERFACE -fsanitize=${TALVEK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(talvek_settings INTERFACE -fsanitize=${TALVEK_SANITIZE})
endif()
if(TALVEK_FUZZ)
  target_compile_options(talvek_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()

# One version for both programs.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/talvek_version.h CONTENT
"#pragma once

/// The version of both programs, as `--version` prints it.
inline constexpr char talvekVersion[] = \"@PROJECT_VERSION@\";
" @ONLY)

# talvek_library(name DIRECTORIES dir… [LINK target…])
# A static library of all sources directly in the named directories.
function(talvek_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DIRECTORIES;LINK")
  set(sources "")
  foreach(directory IN LISTS arg_DIRECTORIES)
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${directory}/*.cpp ${CMAKE_SOURCE_DIR}/${directory}/*.h)
    list(APPEND sources ${found})
  endforeach()
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(NOT sources)
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/${name}_empty.cpp CONTENT "")
    set(sources ${CMAKE_BINARY_DIR}/generated/${name}_empty.cpp)
  endif()
  add_library(${name} STATIC ${sources})
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
  target_link_libraries(${name} PUBLIC talvek_settings ${arg_LINK})
endfunction()

# talvek_tests(name DIRECTORY dir LINK target… [LABELS label…])
# One test program of all *_test.cpp (and helpers) in tests/<dir>; ctest learns of each case.
function(talvek_tests name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DIRECTORY" "LINK;LABELS")
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${arg_DIRECTORY}/*.cpp
       ${CMAKE_SOURCE_DIR}/tests/${arg_DIRECTORY}/*.h)
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE talvek_settings ${arg_LINK} GTest::gtest_main GTest::gmock)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS "${arg_LABELS}")
endfunction()
