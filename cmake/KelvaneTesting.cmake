# KelvaneTesting.cmake -- registering GoogleTest programs with CTest. Every test's name starts with its label
# (library.*, wire.*, faults.*, runs.*, valgrind.*, report.*, install.*, examples.*, cluster.*), so that
# `ctest -L cluster` and `ctest -R '^cluster\.'` pick the same tests, and a new group of tests needs nothing but a new
# label.
#
#   kelvane_add_gtests(<target> LABEL <label> [FILTER <gtest filter>] [TIMEOUT <s>] [PROPERTIES <name value>...])
#
# FILTER registers only the matching tests of the program, so one program can carry two labels with two calls
# (FILTER *Valgrind* and FILTER -*Valgrind*). Names carry no parameter decoration: a value-parameterized test is
# named by its instance name alone (faults.Faults/ZsetFault.FailsExactlyItsChecks/leak_one).
include(GoogleTest)

function(kelvane_add_gtests target)
  cmake_parse_arguments(arg "" "LABEL;FILTER;TIMEOUT" "PROPERTIES" ${ARGN})
  if(NOT arg_LABEL)
    message(FATAL_ERROR "kelvane_add_gtests(${target}): a LABEL is required")
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  set(filter "")
  if(arg_FILTER)
    set(filter TEST_FILTER "${arg_FILTER}")
  endif()
  gtest_discover_tests(${target} TEST_PREFIX "${arg_LABEL}." NO_PRETTY_VALUES DISCOVERY_TIMEOUT 30 ${filter}
                       PROPERTIES LABELS ${arg_LABEL} TIMEOUT ${arg_TIMEOUT} ${arg_PROPERTIES})
endfunction()
