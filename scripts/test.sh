#!/usr/bin/env bash
# The test command: set-up, build, then every test under a private D-Bus session with an unlocked
# keyring (for the keychain tests) and a virtual X display (for the window tests).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/build.sh"
build="${OSTV_BUILD_DIR:-$root/build}"
mkdir -p "$build/test-home/runtime" && chmod 700 "$build/test-home/runtime"
export OSTV_BUILD_DIR="$build"
status=0
dbus-run-session -- bash "$root/scripts/with-keyring.sh" \
  xvfb-run -a -s "-screen 0 1600x1000x24" \
  ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 600 "$@" 2>&1 | tee "$build/ctest.log" || status=$?
# A short run of every fuzz target from its seed corpus (scripts/fuzz.sh SECONDS runs them longer).
bash "$root/scripts/fuzz.sh" "${OSTV_FUZZ_SECONDS:-20}" || status=1
# CTest's summary once more, last, so that it closes the output.
grep -E 'tests passed|tests failed' "$build/ctest.log" | tail -n 1 || true
exit $status
