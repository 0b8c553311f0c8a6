#!/usr/bin/env bash
# Set-up plus an incremental build into build/ (or $OSTV_BUILD_DIR). --configure-only stops after CMake's
# configure step (the clean-room check uses it to find a missing package quickly).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
build="${OSTV_BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="${OSTV_BUILD_TYPE:-RelWithDebInfo}" ${OSTV_CMAKE_ARGS:-} >/dev/null
if [ "${1:-}" = "--configure-only" ]; then exit 0; fi
cmake --build "$build" -j"$(nproc)"
