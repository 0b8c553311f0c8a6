#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UndefinedBehaviorSanitizer on) and runs
# each for $1 seconds (default 20) from the seed corpus. A crash fails the script and leaves the input
# that caused it in build-fuzz/findings/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-20}"
build="${OSTV_FUZZ_BUILD_DIR:-$root/build-fuzz}"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DOSTV_FUZZ=ON -DOSTV_CLIENT=OFF \
  -DOSTV_BUILD_TESTS=OFF -DOSTV_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target all >/dev/null
export QT_QPA_PLATFORM=offscreen
mkdir -p "$build/findings"
status=0
for target in "$build"/tests/fuzz/fuzz_*; do
  [ -x "$target" ] && [ -f "$target" ] || continue
  name="$(basename "$target")"
  seeds="$root/tests/fuzz/corpus/${name#fuzz_}"
  [ -d "$seeds" ] || seeds="$root/tests/fuzz/corpus/lines"
  work="$build/corpus/$name"
  mkdir -p "$work"
  if "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$build/findings/$name-" "$work" "$seeds" >"$build/$name.log" 2>&1; then
    runs=$(grep -Eo 'stat::number_of_executed_units: *[0-9]+' "$build/$name.log" | grep -Eo '[0-9]+$' || echo '?')
    echo "fuzz: $name clean for ${seconds}s ($runs inputs)"
  else
    echo "fuzz: $name FAILED, see $build/$name.log and $build/findings/"
    tail -n 30 "$build/$name.log"
    status=1
  fi
done
exit $status
