# Helpers for the three kinds of test: unit (one process, fakes), component (real processes),
# kernel (real packets). Every test gets a state folder of its own through the environment.
if(IP_SPOOFING_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

# add_unit_test(<name> SOURCES ... LIBS ...): one CTest entry for the whole executable.
function(add_unit_test name)
  if(NOT IP_SPOOFING_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT 300)
endfunction()

# add_system_test(<name> LABEL component|kernel SOURCES ... LIBS ... [NEEDS targets...]): one CTest entry per test
# case, so that each case that lacks a privilege is counted as skipped. NEEDS names executables the test starts.
function(add_system_test name)
  if(NOT IP_SPOOFING_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBS;NEEDS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  if(ARG_NEEDS)
    add_dependencies(${name} ${ARG_NEEDS})
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT})
endfunction()
