# Test helpers: every test binary runs headless, with its own settings and data folders, so that no
# test ever touches the user's real store.
find_package(GTest REQUIRED)
include(GoogleTest)

set(OSTV_TEST_HOME "${CMAKE_BINARY_DIR}/test-home")
set(OSTV_TEST_ENV
  "QT_QPA_PLATFORM=offscreen"
  "QTWEBENGINE_DISABLE_SANDBOX=1"
  "QTWEBENGINE_CHROMIUM_FLAGS=--disable-gpu --no-sandbox"
  "XDG_CONFIG_HOME=${OSTV_TEST_HOME}/config"
  "XDG_DATA_HOME=${OSTV_TEST_HOME}/data"
  "XDG_CACHE_HOME=${OSTV_TEST_HOME}/cache"
  "XDG_RUNTIME_DIR=${OSTV_TEST_HOME}/runtime"
  "OSTV_SERVER_BIN=${CMAKE_BINARY_DIR}/server/ostvarren-server"
  "OSTV_SOURCE_DIR=${CMAKE_SOURCE_DIR}"
)

# ostv_add_gtest(name SOURCES ... LIBS ... [LABELS ...] [TIMEOUT s])
function(ostv_add_gtest name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock ostv_test_support)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "${OSTV_TEST_ENV}" TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}")
endfunction()
