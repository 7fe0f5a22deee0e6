# Helpers that make a target of each folder: all .cpp files in it, one name.

# kestrix_sources(OUT dir...): the .cpp files of the folders, not of their subfolders.
function(kestrix_sources out)
  set(found)
  foreach(dir IN LISTS ARGN)
    file(GLOB here CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND found ${here})
  endforeach()
  list(SORT found)
  set(${out} ${found} PARENT_SCOPE)
endfunction()

function(kestrix_instrument target)
  if(KESTRIX_SANITIZE_FLAGS)
    target_compile_options(${target} PRIVATE ${KESTRIX_SANITIZE_FLAGS})
    target_link_options(${target} PRIVATE ${KESTRIX_SANITIZE_FLAGS})
  endif()
endfunction()

# kestrix_archive(target DIRS dir... SOURCES file... LINK lib...): a position independent archive.
# Headers are included from the project's root, as in "libraries/utils/Timer.h".
function(kestrix_archive target)
  cmake_parse_arguments(A "" "" "DIRS;SOURCES;LINK" ${ARGN})
  kestrix_sources(sources ${A_DIRS})
  foreach(file IN LISTS A_SOURCES)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
      list(APPEND sources ${file})
    endif()
  endforeach()
  if(NOT sources)
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/host/include)
    target_link_libraries(${target} INTERFACE ${A_LINK})
    return()
  endif()
  add_library(${target} STATIC ${sources})
  target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/host/include)
  target_link_libraries(${target} PUBLIC ${A_LINK})
  kestrix_instrument(${target})
endfunction()

# kestrix_test(target DIRS dir... LINK lib... [TIMEOUT s] [ALONE] [ELSEWHERE]): one test program of a folder. ELSEWHERE:
# another machine runs it.
function(kestrix_test target)
  cmake_parse_arguments(A "ALONE;ELSEWHERE" "TIMEOUT" "DIRS;LINK" ${ARGN})
  kestrix_sources(sources ${A_DIRS})
  if(NOT sources)
    return()
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 120)
  endif()
  add_executable(${target} ${sources})
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/host/include)
  target_link_libraries(${target} PRIVATE ${A_LINK} GTest::gmock GTest::gtest_main)
  kestrix_instrument(${target})
  if(A_ELSEWHERE)
    return()
  endif()
  # Also of the programs that a test starts.
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${A_TIMEOUT} RUN_SERIAL ${A_ALONE}
    ENVIRONMENT "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/cmake/leaks.supp:print_suppressions=0")
endfunction()
