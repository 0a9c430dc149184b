# How test programs are made; also for the CMakeLists.txt of a platform.
find_package(GTest REQUIRED)
include(GoogleTest)

# Under an emulator everything takes longer.
set(kelim_test_timeout 300)
if(CMAKE_CROSSCOMPILING)
  set(kelim_test_timeout 1200)
endif()

# kelim_test(NAME SOURCES file... LIBS target... LABELS label...): one test program, its cases found by ctest.
function(kelim_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gtest_main)
  target_compile_options(${name} PRIVATE -Wall -Wextra -Wshadow)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${kelim_test_timeout} LABELS "${arg_LABELS}")
endfunction()

# kelim_store_conformance(NAME SOURCES file... LIBS target...): the tests of qx_mom.h on a platform's store; the sources define what
# tests/conformance/process.h declares.
function(kelim_store_conformance name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  kelim_test(${name} SOURCES ${CMAKE_SOURCE_DIR}/tests/conformance/store_test.cpp ${arg_SOURCES} LIBS ${arg_LIBS} LABELS conformance)
  target_link_libraries(${name} PRIVATE kelim_contract kelim_records)
endfunction()
