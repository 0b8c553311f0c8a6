#!/usr/bin/env bash
# The test command: set-up, a build of everything with AddressSanitizer, UndefinedBehaviorSanitizer and
# LeakSanitizer (into build-test/, apart from the optimised build the run command uses), then every test
# under a private D-Bus session with an unlocked keyring (for the keychain tests) and a virtual X display
# (for the window tests); any sanitizer report fails its test. Then a short run of every fuzz target.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${OSTV_TEST_BUILD_DIR:-$root/build-test}"
OSTV_BUILD_DIR="$build" OSTV_CMAKE_ARGS="-DOSTV_SANITIZE=ON -DOSTV_BUILD_BENCH=OFF ${OSTV_CMAKE_ARGS:-}" \
  bash "$root/scripts/build.sh"
mkdir -p "$build/test-home/runtime" && chmod 700 "$build/test-home/runtime"
export OSTV_BUILD_DIR="$build"
# Leaks are checked while every library is loaded (see checkLeaksNow in tests/support); the suppressions
# name system libraries only. UBSan stops at its first finding.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0${LSAN_OPTIONS:+:$LSAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
status=0
dbus-run-session -- bash "$root/scripts/with-keyring.sh" \
  xvfb-run -a -s "-screen 0 1600x1000x24" \
  ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600 "$@" 2>&1 | tee "$build/ctest.log" || status=$?
# A short run of every fuzz target from its seed corpus (scripts/fuzz.sh SECONDS runs them longer).
bash "$root/scripts/fuzz.sh" "${OSTV_FUZZ_SECONDS:-20}" || status=1
# CTest's summary once more, last, so that it closes the output.
grep -E 'tests passed|tests failed' "$build/ctest.log" | tail -n 1 || true
exit $status
