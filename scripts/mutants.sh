#!/usr/bin/env bash
# Applies small, named faults to the product one at a time and reports which ones the tests catch, then
# the share of test code. See --help.
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

usage() {
  cat <<'EOF'
Usage: scripts/mutants.sh [options] [NAME ...]

Applies the faults listed in tests/mutants.txt to the product, one at a time, and runs the tests named
for each. A fault is
  caught          a test failed (or the tests ran out of time: "timeout", counted as caught),
  survived        every test passed: the tests do not see this fault,
  does-not-compile  the build failed (not counted as caught: fix the fault in the list),
  build-timeout   the build ran out of time (not counted),
  stale           its line pattern matches the file zero or several times (not applied: fix the list).
At the end: a table, faults caught / faults run, and the share of test code.

The faults are applied to a scratch copy of the working tree (tracked and untracked files that git does
not ignore), kept in the build directory together with its own non-sanitized CMake build; the working
tree itself is never written. In the copy, a mutated file is restored after its fault, on error and on
Ctrl+C, and the copy is synchronised again at every start. Each fault costs an incremental build of the
test programs it names (optimised, no debug information; ccache and lld are used when present) plus those
tests, up to the first that fails. Everything runs under nice 19.

NAME selects faults by name (shell patterns allowed, e.g. 'core-*'), run in the order given; none selects all.

Options:
  --build-dir DIR  scratch copy and its build (default: build-mutants in the source tree)
  -j, --jobs N     parallel build jobs and tests (default 1)
  --timeout SECS   time limit for one fault, build plus tests (default 900)
  --no-clean-run   skip the first run of the selected tests on the unmodified product (by default a
                   failure there stops everything: a fault "caught" by a test that fails anyway means nothing)
  --check          only check that every fault's pattern matches exactly once; build nothing
  --list           list the faults (name, file, tests)
  --diff           show each fault as a diff against the working tree; build nothing
  --count          print only the share of test code
  --faults FILE    the list of faults (default tests/mutants.txt)
  -h, --help       this text

Format of the list: blocks separated by blank lines, "#" starts a comment line. Keys:
  name:     unique name
  file:     product file, relative to the source tree
  find:     literal text (part of one line, surrounding blanks ignored) that must occur exactly once
  replace:  its replacement (may be empty: the text is dropped)
  tests:    ctest -R regular expression selecting the tests to run
  why:      optional: what a user would see go wrong

Share of test code: non-blank lines of C++ and JavaScript (and the terminal page) tracked by git under
tests/, against the product (core admin sessions panels app server resources; benchmarks and
node_modules aside), as a percentage of the two together.
EOF
}

# ---------------------------------------------------------------- options
build_root="$root/build-mutants"
faults_file="$root/tests/mutants.txt"
jobs=1
limit=900
mode=run
clean_run=1
selected=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_root="$(realpath -m "$2")"; shift 2 ;;
    -j|--jobs) jobs="$2"; shift 2 ;;
    -j*) jobs="${1#-j}"; shift ;;
    --timeout) limit="$2"; shift 2 ;;
    --faults) faults_file="$(realpath -m "$2")"; shift 2 ;;
    --no-clean-run) clean_run=0; shift ;;
    --check) mode=check; shift ;;
    --list) mode=list; shift ;;
    --diff) mode="diff"; shift ;;
    --count) mode=count; shift ;;
    -h|--help) usage; exit 0 ;;
    -*) echo "mutants: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) selected+=("$1"); shift ;;
  esac
done
[[ "$jobs" =~ ^[1-9][0-9]*$ ]] || { echo "mutants: --jobs needs a positive number" >&2; exit 2; }
[[ "$limit" =~ ^[1-9][0-9]*$ ]] || { echo "mutants: --timeout needs a positive number of seconds" >&2; exit 2; }

# Other people share this machine.
renice -n 19 -p $$ >/dev/null 2>&1 || true
# "&" in a replacement text is plain text.
shopt -u patsub_replacement 2>/dev/null || true

# ---------------------------------------------------------------- share of test code
count_lines() {  # non-blank lines of C++/JavaScript/page files tracked by git under the given folders
  git -C "$root" ls-files -z -- "$@" | grep -zE '\.(cpp|cc|cxx|h|hpp|js|mjs|html)$' | grep -zv 'node_modules/' |
    (cd "$root" && xargs -0 -r cat) | grep -c '[^[:space:]]'
}
print_share() {
  local t p
  t=$(count_lines tests)
  p=$(count_lines core admin sessions panels app server resources)
  awk -v t="$t" -v p="$p" 'BEGIN { printf "test code: %d lines against %d of product code: %.1f %% of the whole\n", t, p, 100 * t / (t + p) }'
}
if [ "$mode" = count ]; then print_share; exit 0; fi

# ---------------------------------------------------------------- the list of faults
[ -f "$faults_file" ] || { echo "mutants: no list of faults at $faults_file" >&2; exit 2; }
names=() files=() finds=() repls=() tests=() whys=()
declare -A seen=()
parse_error() { echo "mutants: $faults_file:$1: $2" >&2; exit 2; }
add_fault() {  # the block being read, if any
  [ -n "$b_start" ] || return 0
  local k
  for k in name file find tests; do
    [ -n "${b[$k]:-}" ] || parse_error "$b_start" "fault without \"$k:\""
  done
  [ -n "${b[replace]+set}" ] || parse_error "$b_start" "fault without \"replace:\""
  [ -z "${seen[${b[name]}]:-}" ] || parse_error "$b_start" "second fault named ${b[name]}"
  seen[${b[name]}]=1
  names+=("${b[name]}") files+=("${b[file]}") finds+=("${b[find]}") repls+=("${b[replace]}")
  tests+=("${b[tests]}") whys+=("${b[why]:-}")
  b=() b_start=""
}
declare -A b=()
b_start="" lineno=0
while IFS= read -r line || [ -n "$line" ]; do
  lineno=$((lineno + 1))
  if [[ "$line" =~ ^[[:space:]]*$ ]]; then add_fault; continue; fi
  [[ "$line" =~ ^[[:space:]]*# ]] && continue
  [[ "$line" =~ ^([a-z]+):(.*)$ ]] || parse_error "$lineno" "expected \"key: value\""
  key="${BASH_REMATCH[1]}" value="${BASH_REMATCH[2]}"
  value="${value#"${value%%[![:space:]]*}"}"   # surrounding blanks
  value="${value%"${value##*[![:space:]]}"}"
  case "$key" in name|file|find|replace|tests|why) ;; *) parse_error "$lineno" "unknown key \"$key\"" ;; esac
  [ -n "$b_start" ] || b_start=$lineno
  [ -z "${b[$key]+set}" ] || parse_error "$lineno" "\"$key:\" twice in one fault"
  b[$key]="$value"
done < "$faults_file"
add_fault

# Which faults to run, in the order the names are given (each once).
chosen=()
if [ ${#selected[@]} -eq 0 ]; then
  chosen=("${!names[@]}")
else
  declare -A taken=()
  for pattern in "${selected[@]}"; do
    for i in "${!names[@]}"; do
      # shellcheck disable=SC2053  # a pattern on purpose
      if [[ "${names[$i]}" == $pattern ]] && [ -z "${taken[$i]:-}" ]; then chosen+=("$i"); taken[$i]=1; fi
    done
  done
fi
[ ${#chosen[@]} -gt 0 ] || { echo "mutants: no fault matches ${selected[*]}" >&2; exit 2; }

if [ "$mode" = list ]; then
  for i in "${chosen[@]}"; do printf '%-34s %-44s %s\n' "${names[$i]}" "${files[$i]}" "${tests[$i]}"; done
  exit 0
fi

# How often the fault's text occurs in a file (non-overlapping).
occurrences() {  # file text
  local content rest
  content="$(cat "$1"; printf x)"; content="${content%x}"
  rest="${content//"$2"/}"
  echo $(( (${#content} - ${#rest}) / ${#2} ))
}

# Writes the file with the fault's text replaced (the caller has checked it occurs exactly once).
apply_fault() {  # index file
  local content
  content="$(cat "$2"; printf x)"; content="${content%x}"
  printf '%s' "${content/"${finds[$1]}"/"${repls[$1]}"}" > "$2"
}

# ---------------------------------------------------------------- the scratch copy
src="$build_root"            # the copy of the tree
build="$build_root/build"    # its CMake build
work="$build_root/.mutants"  # logs, results, the saved original of the file being mutated
mutated=""                   # file in the copy that currently holds a fault
child=""                     # the running build or test command

restore() {
  if [ -n "$mutated" ]; then
    # Written, not moved back: the file gets a new time stamp, so the next build recompiles it.
    cat "$work/original" > "$mutated"
    mutated=""
  fi
}
on_signal() {
  trap - INT TERM HUP
  if [ -n "$child" ]; then kill -TERM "$child" 2>/dev/null; wait "$child" 2>/dev/null; fi
  restore
  echo "mutants: interrupted; the scratch copy is restored" >&2
  exit 130
}
trap restore EXIT
trap on_signal INT TERM HUP

# Runs "$@" with a time limit, output to a log, in the background so that a signal reaches us at once.
# timeout runs the command in its own process group and ends the whole group.
run_limited() {  # seconds log command...
  local secs="$1" log="$2"; shift 2
  timeout -k 15 "$secs" "$@" >>"$log" 2>&1 </dev/null &
  child=$!
  wait "$child"
  local rc=$?
  child=""
  return $rc
}

sync_copy() {  # brings the copy to the working tree's content; changed files get fresh time stamps
  mkdir -p "$src" "$work"
  local list="$work/files" f
  (cd "$root" && git ls-files -co --exclude-standard -z) > "$list"
  (cd "$root" && xargs -0 -r sha1sum -- < "$list" 2>/dev/null | sort) > "$work/sums.tree" || true
  (cd "$src" && xargs -0 -r sha1sum -- < "$list" 2>/dev/null | sort) > "$work/sums.copy" || true
  comm -23 "$work/sums.tree" "$work/sums.copy" | cut -c43- | while IFS= read -r f; do
    [ -f "$root/$f" ] || continue
    mkdir -p "$src/$(dirname "$f")"
    cat "$root/$f" > "$src/$f"
  done
  # Files that left the tree leave the copy too.
  (cd "$src" && find . \( -path ./build -o -path ./.mutants -o -name node_modules \) -prune -o -type f -print0 |
    sed -z 's|^\./||' | sort -z) > "$work/files.copy"
  sort -z "$list" | comm -z -13 - "$work/files.copy" | (cd "$src" && xargs -0 -r rm -f --)
  # The terminal page's scripts come from npm in the real tree.
  if [ -d "$root/resources/web/node_modules" ]; then
    mkdir -p "$src/resources/web"
    ln -sfn "$root/resources/web/node_modules" "$src/resources/web/node_modules"
  fi
}

# ---------------------------------------------------------------- check the patterns
stale_reason=()
check_faults() {
  local i n bad=0
  for i in "${chosen[@]}"; do
    stale_reason[$i]=""
    if [ ! -f "$1/${files[$i]}" ]; then
      stale_reason[$i]="no file ${files[$i]}"
    else
      n=$(occurrences "$1/${files[$i]}" "${finds[$i]}")
      [ "$n" -eq 1 ] || stale_reason[$i]="pattern found $n times"
    fi
    if [ -n "${stale_reason[$i]}" ]; then bad=$((bad + 1)); fi
  done
  return $bad
}

if [ "$mode" = check ]; then
  check_faults "$root"
  stale=0
  for i in "${chosen[@]}"; do
    if [ -n "${stale_reason[$i]}" ]; then
      printf '%-34s stale: %s\n' "${names[$i]}" "${stale_reason[$i]}"; stale=$((stale + 1))
    fi
  done
  echo "${#chosen[@]} faults, $stale stale"
  [ "$stale" -eq 0 ]; exit $?
fi

if [ "$mode" = diff ]; then
  check_faults "$root"
  scratch="$(mktemp -d)"; trap 'rm -rf "$scratch"' EXIT
  for i in "${chosen[@]}"; do
    if [ -n "${stale_reason[$i]}" ]; then echo "# ${names[$i]}: stale: ${stale_reason[$i]}"; continue; fi
    echo "# ${names[$i]}: ${whys[$i]}"
    cp "$root/${files[$i]}" "$scratch/file"
    apply_fault "$i" "$scratch/file"
    diff -U0 --label "a/${files[$i]}" --label "b/${files[$i]}" "$root/${files[$i]}" "$scratch/file" | tail -n +3
  done
  exit 0
fi

# ---------------------------------------------------------------- build and test helpers
# Optimised but without debug information (links are what a fault mostly costs); ccache and lld when present.
launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
if command -v ld.lld >/dev/null 2>&1; then
  launcher+=(-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld)
fi

# The test programs behind a ctest regular expression (their targets carry the program's name).
targets_for() {  # regex
  ctest --test-dir "$build" -N -R "$1" --show-only=json-v1 2>/dev/null |
    jq -r '.tests[].command[0] // empty' | xargs -r -n1 basename | sort -u
}

run_tests() {  # log seconds ctest-selection...: a fault is caught by its first failing test
  mkdir -p "$build/test-home/runtime" && chmod 700 "$build/test-home/runtime"
  run_limited "$2" "$1" \
    dbus-run-session -- bash "$root/scripts/with-keyring.sh" xvfb-run -a -s "-screen 0 1600x1000x24" \
    ctest --test-dir "$build" -j"$jobs" --no-tests=error --output-on-failure "${@:3}"
}

# The numbers of the tests any of the given regular expressions selects, as ctest's -I wants them
# (one regular expression joining them all would exceed ctest's limit on groups).
test_numbers() {  # regex...
  local r
  for r in "$@"; do ctest --test-dir "$build" -N -R "$r" 2>/dev/null; done |
    sed -nE 's/^[[:space:]]*Test[[:space:]]+#([0-9]+):.*/\1/p' | sort -un | paste -sd, -
}

failed_tests() {  # log: the names ctest lists as failed, on one line
  sed -n '/The following tests FAILED:/,$p' "$1" | sed -nE 's/^[[:space:]]*[0-9]+ - ([^ ]+).*/\1/p' |
    head -n 4 | paste -sd' ' -
}

# ---------------------------------------------------------------- run
command -v jq >/dev/null 2>&1 || { echo "mutants: needs jq" >&2; exit 2; }
export OSTV_BUILD_DIR="$build"  # the tests find the server program through it
echo "mutants: synchronising the scratch copy in $src"
sync_copy
check_faults "$src"
mkdir -p "$work/logs"

echo "mutants: building the unmodified product in $build (the first time takes a while)"
log="$work/logs/_unmodified.log"; : > "$log"
if ! run_limited 7200 "$log" cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O1 -DOSTV_SANITIZE=OFF \
       -DOSTV_BUILD_BENCH=OFF "${launcher[@]}" ||
   ! run_limited 7200 "$log" cmake --build "$build" -j"$jobs"; then
  echo "mutants: the unmodified product does not build; see $log" >&2; exit 1
fi

if [ "$clean_run" = 1 ]; then
  regexes=()
  for i in "${chosen[@]}"; do
    [ -z "${stale_reason[$i]}" ] && regexes+=("${tests[$i]}")
  done
  numbers=""
  [ ${#regexes[@]} -eq 0 ] || numbers="$(test_numbers "${regexes[@]}")"
  if [ -n "$numbers" ]; then
    echo "mutants: running the selected tests on the unmodified product"
    if ! run_tests "$log" 7200 -I "0,0,0,$numbers"; then
      echo "mutants: tests fail without any fault (${log}): $(failed_tests "$log")" >&2
      echo "mutants: fix them first, or pass --no-clean-run to go on anyway" >&2
      exit 1
    fi
  fi
fi

results="$work/results.tsv"; : > "$results"
total=${#chosen[@]} n=0
for i in "${chosen[@]}"; do
  n=$((n + 1))
  name="${names[$i]}" file="$src/${files[$i]}"
  log="$work/logs/$name.log"; : > "$log"
  start=$SECONDS status="" detail=""
  printf '[%d/%d] %-34s ' "$n" "$total" "$name"
  if [ -n "${stale_reason[$i]}" ]; then
    status=stale detail="${stale_reason[$i]}"
  else
    mapfile -t targets < <(targets_for "${tests[$i]}")
    if [ ${#targets[@]} -eq 0 ]; then
      status=error detail="no test matches ${tests[$i]}"
    else
      cat "$file" > "$work/original"
      mutated="$file"
      apply_fault "$i" "$file"
      echo "== fault $name: ${files[$i]}: '${finds[$i]}' -> '${repls[$i]}'" >> "$log"
      run_limited "$limit" "$log" cmake --build "$build" -j"$jobs" --target "${targets[@]}"
      rc=$?
      left=$((limit - (SECONDS - start)))
      if [ $rc -eq 124 ] || [ $rc -eq 137 ]; then
        status=build-timeout detail="the build ran out of time"
      elif [ $rc -ne 0 ]; then
        status=does-not-compile detail="$(grep -m1 -E 'error:' "$log" | cut -c1-100)"
      elif [ $left -le 0 ]; then
        status=timeout detail="no time left for the tests"
      else
        run_tests "$log" "$left" -R "${tests[$i]}" --stop-on-failure
        rc=$?
        if [ $rc -eq 0 ]; then status=survived
        elif [ $rc -eq 124 ] || [ $rc -eq 137 ]; then status=timeout detail="tests ran out of time"
        elif grep -q 'No tests were found' "$log"; then status=error detail="no test matches ${tests[$i]}"
        else status=caught detail="$(failed_tests "$log")"
        fi
      fi
      restore
    fi
  fi
  secs=$((SECONDS - start))
  printf '%-16s %4ds %s\n' "$status" "$secs" "$detail"
  printf '%s\t%s\t%s\t%s\n' "$name" "$status" "$secs" "$detail" >> "$results"
done

# ---------------------------------------------------------------- report
echo
echo "Fault                              Result           Time  Detail"
while IFS=$'\t' read -r name status secs detail; do
  printf '%-34s %-16s %4ss  %s\n' "$name" "$status" "$secs" "$detail"
done < "$results"
echo
caught=$(awk -F'\t' '$2 == "caught" || $2 == "timeout"' "$results" | wc -l)
ran=$(awk -F'\t' '$2 == "caught" || $2 == "timeout" || $2 == "survived"' "$results" | wc -l)
others=$(awk -F'\t' '$2 != "caught" && $2 != "timeout" && $2 != "survived" { c[$2]++ } END { for (k in c) printf "%s%d %s", (n++ ? ", " : ""), c[k], k }' "$results")
echo "faults caught: $caught / $ran${others:+ (not counted: $others)}"
survivors=$(awk -F'\t' '$2 == "survived" { print $1 }' "$results" | paste -sd' ' -)
[ -z "$survivors" ] || echo "survived: $survivors"
print_share
echo "logs: $work/logs, results: $results"
