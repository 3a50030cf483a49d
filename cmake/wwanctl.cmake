# wwan_test(NAME src... LIBS lib...)
# One GoogleTest executable per library; ctest sees every test case.
function(wwan_test name)
  if(NOT WWANCTL_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "LIBS" ${ARGN})
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE
    WWANCTL_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    WWANCTL_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
