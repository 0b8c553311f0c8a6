#!/usr/bin/env bash
# The benchmark command: set-up and build (the same optimised build as the run command), then every
# benchmark of the project in one go, and a short table of the figures with their targets. Each
# benchmark's full output stays in <build>/bench-logs/ for a closer look.
#
#   scripts/bench.sh [--quick]     --quick: shorter runs (a 10 s flood instead of 60 s, fewer samples)
#
# Figures depend on the machine: run it on a quiet one (the benchmarks share its cores with the local
# server, the client and its web engine).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
quick=0
for arg in "$@"; do
  case "$arg" in
    --quick) quick=1 ;;
    *) echo "usage: scripts/bench.sh [--quick]" >&2; exit 2 ;;
  esac
done
bash "$root/scripts/build.sh"
build="${OSTV_BUILD_DIR:-$root/build}"
logs="$build/bench-logs"
mkdir -p "$logs"
export QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}"
[ "$(id -u)" = 0 ] && export QTWEBENGINE_DISABLE_SANDBOX=1

flood=60 logins=200 mb=400 startups=5 floodphase=10
if [ "$quick" = 1 ]; then flood=10 logins=50 mb=100 startups=3 floodphase=3; fi

status=0
run() {  # run NAME COMMAND...: output to the log; a failure is reported and counted, the rest still run
  local name="$1"; shift
  printf 'bench: %-14s ' "$name"
  local t0=$SECONDS
  if "$@" >"$logs/$name.log" 2>&1; then
    echo "done in $((SECONDS - t0)) s"
  else
    echo "FAILED (see $logs/$name.log)"
    status=1
  fi
}

run decoder "$build/bench/core/bench_decoder" --benchmark_format=json --benchmark_min_time=1
run relay-link "$build/bench/core/bench_relay_link" "$mb"
run admin-login "$build/bench/admin/ostv_bench_admin_login" "$logins"
run relay-flood "$build/bench/server/bench_relay_flood" "$floodphase"
run startup "$build/bench/sessions/bench_startup" --runs "$startups"
run terminal "$build/bench/sessions/bench_terminal" all --flood-seconds "$flood"

# ---- the table ----
log() { cat "$logs/$1.log" 2>/dev/null || true; }
# A field of the first line matching a pattern: first NAME PATTERN AWK-PROGRAM
pick() { log "$1" | grep -E -m1 "$2" | awk "$3" || true; }
# Google Benchmark's JSON: a counter of the named benchmark.
gb() {
  log decoder | awk -v want="\"name\": \"$1" -v field="\"$2\":" '
    index($0, want) { inside = 1 }
    inside && index($0, field) { gsub(/[ ,]/, ""); split($0, kv, ":"); print kv[2]; exit }'
}
num() { [ -n "$1" ] && awk -v v="$1" "BEGIN { printf \"$2\", v $3 }" || echo "-"; }

decoder=$(num "$(gb BM_PtyData16KiB bytes_per_second)" "%.0f" "/ 1e6")
pong=$(num "$(gb BM_LatencyPong items_per_second)" "%.0f" "/ 1e3")
link=$(pick relay-link '^relay throughput' '{ for (i = 1; i <= NF; ++i) if ($i == "MB/s") print $(i - 1) }')
linkcpu=$(pick relay-link '^relay cpu' '{ print $3 }')
pingp50=$(pick relay-link '^ping round trip' '{ print $5 }')
pingp99=$(pick relay-link '^ping round trip' '{ print $8 }')
warm=$(pick admin-login 'after warm-up' '{ print $4 " / " $7 }')
cold=$(pick admin-login 'without warm-up' '{ print $4 " / " $7 }')
floodgrowth=$(pick relay-flood 'client not reading' '{ for (i = 1; i <= NF; ++i) if ($i ~ /^\(\+/) { gsub(/[(+),]/, "", $i); print $i } }')
login=$(pick startup 'start to login screen' '{ print $(NF - 2) }')
page=$(pick startup 'sign-in to ready terminal page' '{ print $(NF - 2) }')
total=$(pick startup 'start to ready terminal page' '{ print $(NF - 2) }')
ratio=$(pick terminal '^  ratio' '{ print $2 }')
e2e=$(pick terminal 'shell on the local server to page' '{ print $(NF - 1) }')
keys=$(pick terminal '^  p50 .* p99' '{ print $2 " / " $5 }')
rss=$(pick terminal 'client RSS peak' '{ print $7 }')
typing=$(pick terminal 'typing in the third tab' '{ print $(NF - 7) " / " $(NF - 4) }')

row() { printf '  %-52s %-18s %s\n' "$1" "${2:--}" "$3"; }
echo
echo "Figures ($(nproc) cores; full outputs in $logs)"
row "figure" "measured" "target"
row "decoder: 16 KiB PTY_DATA lines (MB/s)" "$decoder" ">= 300"
row "decoder: latency_pong (thousand lines/s)" "$pong" "-"
row "QUIC relay link throughput (MB/s)" "$link" ">= 100"
row "QUIC relay link CPU (s per 100 MB, both ends)" "$linkcpu" "-"
row "QUIC ping round trip p50 / p99 (us)" "${pingp50:-}${pingp99:+ / $pingp99}" "p99 <= 1000"
row "admin login after warm-up p50 / p99 (ms)" "$warm" "faster than without"
row "admin login without warm-up p50 / p99 (ms)" "$cold" "-"
row "server memory, client not reading (+KiB)" "$floodgrowth" "bounded (a few MiB)"
row "terminal throughput, shell to page (MB/s)" "$e2e" "-"
row "terminal throughput ratio (to page's own rate)" "$ratio" ">= 0.80"
row "keystroke round trip p50 / p99 (ms)" "$keys" "p99 <= 5"
row "memory under a ${flood} s flood in two tabs (peak/idle)" "$rss" "<= 1.50"
row "typing in a third tab meanwhile p50 / p99 (ms)" "$typing" "-"
row "start-up to login screen painted (ms, median)" "$login" "<= 500 (ours)"
row "sign-in to ready terminal page (ms, median)" "$page" "<= 1000 (ours)"
row "start-up to ready terminal page (ms, median)" "$total" "<= 1500 (ours)"
exit $status
