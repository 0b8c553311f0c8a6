# Test helpers: every test binary runs headless, with its own settings and data folders, so that no
# test ever touches the user's real store.
find_package(GTest REQUIRED)
include(GoogleTest)

# The test mains set the headless environment themselves (tests/support/TestSupport.cpp), from
# these build paths.
set(OSTV_TEST_HOME "${CMAKE_BINARY_DIR}/test-home")
set(OSTV_TEST_DEFINITIONS
  OSTV_TEST_HOME="${OSTV_TEST_HOME}"
  OSTV_SERVER_BIN_DEFAULT="${CMAKE_BINARY_DIR}/server/ostvarren-server"
  OSTV_AGENT_BIN_DEFAULT="${CMAKE_BINARY_DIR}/server/ostvarren-agent"
  OSTV_SOURCE_DIR_DEFAULT="${CMAKE_SOURCE_DIR}")

# ostv_add_gtest(name SOURCES ... LIBS ... [LABELS ...] [TIMEOUT s] [SERIAL])
# SERIAL: CTest runs these tests with no other test beside them (tests with a time bound).
function(ostv_add_gtest name)
  cmake_parse_arguments(T "SERIAL" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock ostv_test_support)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(serial FALSE)
  if(T_SERIAL)
    set(serial TRUE)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${T_TIMEOUT} RUN_SERIAL ${serial} LABELS "${T_LABELS}")
endfunction()
