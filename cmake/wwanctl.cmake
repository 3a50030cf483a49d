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

# wwan_tool_path(TOOL VAR): where the tests find a tool of tools/ (wwan-busd,
# wwan-bus, wwan-modem-sim): in WWANCTL_HOST_TOOLS when set, else in this build.
function(wwan_tool_path tool var)
  set(dir ${PROJECT_BINARY_DIR})
  if(WWANCTL_HOST_TOOLS)
    set(dir ${WWANCTL_HOST_TOOLS})
  endif()
  if(tool STREQUAL "wwan-busd")
    set(${var} "${dir}/tools/busd/wwan-busd" PARENT_SCOPE)
  elseif(tool STREQUAL "wwan-bus")
    set(${var} "${dir}/tools/bus/wwan-bus" PARENT_SCOPE)
  elseif(tool STREQUAL "wwan-modem-sim")
    set(${var} "${dir}/tools/modem-sim/wwan-modem-sim" PARENT_SCOPE)
  else()
    message(FATAL_ERROR "wwan_tool_path: unknown tool ${tool}")
  endif()
endfunction()

# wwan_test_uses(TEST tool...): the test runs these executables of tools/
# (wwan-busd, wwan-bus, wwan-modem-sim). tools/ is configured after src/, so
# the build dependencies are added once everything is configured. The broker
# and CLI paths reach the test as WWAN_BUSD / WWAN_BUS; the simulator's is
# known to the channel's test harness.
function(wwan_test_uses test)
  if(NOT TARGET ${test})
    return()
  endif()
  foreach(tool ${ARGN})
    wwan_tool_path(${tool} path)
    if(tool STREQUAL "wwan-busd")
      target_compile_definitions(${test} PRIVATE WWAN_BUSD="${path}")
    elseif(tool STREQUAL "wwan-bus")
      target_compile_definitions(${test} PRIVATE WWAN_BUS="${path}")
    endif()
  endforeach()
  # A deferred call evaluates its arguments when it runs: bake them in now.
  list(JOIN ARGN " " tools)
  cmake_language(EVAL CODE
    "cmake_language(DEFER DIRECTORY \"${PROJECT_SOURCE_DIR}\" CALL _wwan_test_depends ${test} ${tools})")
endfunction()

function(_wwan_test_depends test)
  foreach(tool ${ARGN})
    if(TARGET ${tool})
      add_dependencies(${test} ${tool})
    endif()
  endforeach()
endfunction()
