# Helpers that every layer uses.

# One version for both programs.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/talvek_version.h CONTENT
"#pragma once

/// The version of both programs, as `--version` prints it.
inline constexpr char talvekVersion[] = \"@PROJECT_VERSION@\";
" @ONLY)

# talvek_library(name DIRECTORIES dir… [LINK target…])
# A static library of all sources directly in the named directories. A program's main.cpp is no part of it.
function(talvek_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DIRECTORIES;LINK")
  set(sources "")
  foreach(directory IN LISTS arg_DIRECTORIES)
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${directory}/*.cpp ${CMAKE_SOURCE_DIR}/${directory}/*.h)
    list(APPEND sources ${found})
  endforeach()
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  add_library(${name} STATIC ${sources})
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
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    # What is tested is optimised (and instrumented) in its own libraries; a test itself would only take several times
    # as long to compile.
    target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
    if(TALVEK_SANITIZE MATCHES "undefined")
      target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
    endif()
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS "${arg_LABELS}")
endfunction()
