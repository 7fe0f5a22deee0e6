# Everything comes from Debian 12; scripts/install-dependencies fetches it.

find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(Boost REQUIRED COMPONENTS filesystem)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(HDF5 REQUIRED COMPONENTS C)
if(KESTRIX_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(KESTRIX_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()

# plog is packed inside r-cran-plogr, which is unpacked below .deps and never installed.
set(PLOG_INCLUDE_DIR ${CMAKE_SOURCE_DIR}/.deps/plog CACHE PATH "Folder that holds plog/Log.h")
if(NOT EXISTS ${PLOG_INCLUDE_DIR}/plog/Log.h)
  message(FATAL_ERROR "plog/Log.h is not below ${PLOG_INCLUDE_DIR}: run scripts/install-dependencies first")
endif()
add_library(plog INTERFACE)
target_include_directories(plog SYSTEM INTERFACE ${PLOG_INCLUDE_DIR})
target_compile_definitions(plog INTERFACE PLOGR_ENABLE)
