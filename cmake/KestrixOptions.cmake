# Compiler settings shared by everything: C++20, warnings are errors, hidden symbols.

option(KESTRIX_BUILD_TESTS "Build the tests" ON)
option(KESTRIX_BUILD_BENCHMARKS "Build the benchmarks" ON)
option(KESTRIX_BUILD_FUZZERS "Build the fuzzers; clang only" OFF)
set(KESTRIX_SANITIZE "" CACHE STRING "Sanitizers to build with: empty, address-undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# All products side by side, so that a run from the build tree needs no search path.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/archive)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

add_compile_options(-Wall -Wextra -Wpedantic -Wformat=2 -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
# g++ 12 sees overlaps and overruns in std::string and std::vector that aren't there, once it optimises.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow> $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overread>)
# One object counter per shared object: the loader must not fold equal symbols of several libraries.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

if(KESTRIX_SANITIZE STREQUAL "address-undefined")
  set(KESTRIX_SANITIZE_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # plog's singleton casts to itself while it is under construction.
  list(APPEND KESTRIX_SANITIZE_FLAGS -fno-sanitize=vptr)
  if(KESTRIX_BUILD_FUZZERS)
    # What the fuzzer runs tells it which way it took.
    list(APPEND KESTRIX_SANITIZE_FLAGS -fsanitize=fuzzer-no-link)
  endif()
elseif(KESTRIX_SANITIZE STREQUAL "thread")
  set(KESTRIX_SANITIZE_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(KESTRIX_SANITIZE)
  message(FATAL_ERROR "KESTRIX_SANITIZE must be empty, address-undefined or thread")
endif()

find_program(KESTRIX_CCACHE ccache)
if(KESTRIX_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KESTRIX_CCACHE})
endif()
