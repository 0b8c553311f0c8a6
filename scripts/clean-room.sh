#!/usr/bin/env bash
# The clean-room check: does the README's set-up work on a machine that has nothing installed?
#
# A green run on a developer's machine or on CI proves little about the set-up, because whatever was once
# installed by hand is still there. This script makes a minimal Debian 12 root (mmdebstrap, variant minbase),
# clones the committed tree into it and runs the README's commands inside (unshare + chroot, with /proc, /dev
# and /sys bound), so that a package missing from scripts/setup.sh fails here instead of on a newcomer's machine.
#
#   scripts/clean-room.sh [STAGE] [--base DIR] [--ref REF] [--keep] [--fresh-base]
#
#   --setup       scripts/setup.sh only
#   --configure   set-up, then CMake's configure step of the run command's build (what CI runs)
#   --build       set-up and the run command's whole build (default)
#   --test        set-up, then the README's test command in full (sanitized build, every test, fuzzing)
#   --base DIR    keeps the base root and the downloaded packages between runs, so that a second run only
#                 copies the root and installs from the local cache (default /var/cache/ostvarren-clean-room)
#   --ref REF     what to clone (default: main, else HEAD); uncommitted changes are never part of the check
#   --keep        keep the root of this run (under DIR/runs/) to look around in afterwards
#   --fresh-base  make the base root again
#
# It ends with one line saying what passed and exits 0; otherwise it prints the failing step's last lines
# and exits 1. Exit 3 means this machine cannot make a root at all (not root, or no unshare rights): the
# caller may go on without the check.
set -euo pipefail

stage=build
base_dir="${OSTV_CLEAN_ROOM_DIR:-/var/cache/ostvarren-clean-room}"
ref=""
keep=0
fresh_base=0
while [ $# -gt 0 ]; do
  case "$1" in
    --setup) stage=setup ;;
    --configure) stage=configure ;;
    --build) stage=build ;;
    --test) stage=test ;;
    --base) base_dir="${2:?--base needs a folder}"; shift ;;
    --base=*) base_dir="${1#--base=}" ;;
    --ref) ref="${2:?--ref needs a revision}"; shift ;;
    --ref=*) ref="${1#--ref=}" ;;
    --keep) keep=1 ;;
    --fresh-base) fresh_base=1 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "clean-room: unknown option '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done

say() { echo "clean-room: $*"; }
cannot() { say "skipped: this machine cannot make a root ($*)"; exit 3; }

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
[ "$(id -u)" -eq 0 ] || cannot "needs root"
unshare --mount --pid --fork true 2>/dev/null || cannot "unshare refused"
if ! command -v mmdebstrap >/dev/null 2>&1; then
  say "installing mmdebstrap"
  if ! { DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends mmdebstrap >/dev/null 2>&1 ||
         { apt-get update >/dev/null 2>&1 &&
           DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends mmdebstrap >/dev/null 2>&1; }; }; then
    echo "clean-room: FAILED: mmdebstrap could not be installed" >&2; exit 1
  fi
fi

if [ -z "$ref" ]; then
  if git -C "$repo" rev-parse --verify --quiet main >/dev/null; then ref=main; else ref=HEAD; fi
fi
sha="$(git -C "$repo" rev-parse --verify "$ref^{commit}")"

mkdir -p "$base_dir/apt-archives/partial" "$base_dir/logs" "$base_dir/runs"
base="$base_dir/bookworm-minbase"
logs="$base_dir/logs"
rm -f "$logs"/*.log

# Runs one step with its output in a log; on failure prints the log's end and stops.
step() {
  local id="$1" name="$2"; shift 2
  local log="$logs/$id.log"
  local started=$SECONDS
  say "$name ..."
  if ! "$@" >"$log" 2>&1; then
    echo "---- last lines of $log ----" >&2
    tail -n 40 "$log" >&2
    echo "clean-room: FAILED at $name (commit ${sha:0:12}, full log: $log)" >&2
    exit 1
  fi
  say "$name done in $((SECONDS - started)) s"
}

make_base() {
  local sources=()
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then sources=(/etc/apt/sources.list.d/debian.sources)
  elif [ -s /etc/apt/sources.list ]; then sources=(/etc/apt/sources.list)
  fi
  rm -rf "$base.tmp"
  mmdebstrap --variant=minbase --mode=root --aptopt='Acquire::Check-Valid-Until "false"' \
    bookworm "$base.tmp" "${sources[@]}"
  mv "$base.tmp" "$base"
  touch "$base/.ostvarren-base-complete"
}
if [ "$fresh_base" -eq 1 ]; then rm -rf "$base"; fi
if [ ! -f "$base/.ostvarren-base-complete" ]; then
  rm -rf "$base"
  step base "base root (mmdebstrap, Debian 12 minbase)" make_base
fi

run_root="$base_dir/runs/$(date +%Y%m%d-%H%M%S)-$$"
cleanup() {
  # The binds live only in the check's own mount namespace, so from here the root holds plain folders;
  # --one-file-system all the same, in case something was mounted by hand.
  if [ "$keep" -eq 0 ] && [ -d "$run_root" ]; then rm -rf --one-file-system "$run_root" || true; fi
}
trap cleanup EXIT

prepare() {
  cp -a "$base" "$run_root"
  git clone --quiet --no-hardlinks "$repo" "$run_root/src"
  git -C "$run_root/src" checkout --quiet --detach "$sha"
  # What makes the registries answer here as they do on the host: name resolution, the CA bundle (kept
  # through ca-certificates' own rebuild of the bundle) and npm's settings.
  cp -L /etc/resolv.conf "$run_root/etc/resolv.conf"
  [ -f /etc/hosts ] && cp -L /etc/hosts "$run_root/etc/hosts"
  if [ -f /etc/ssl/certs/ca-certificates.crt ]; then
    mkdir -p "$run_root/etc/ssl/certs" "$run_root/usr/local/share/ca-certificates"
    cp -L /etc/ssl/certs/ca-certificates.crt "$run_root/etc/ssl/certs/ca-certificates.crt"
    cp -L /etc/ssl/certs/ca-certificates.crt "$run_root/usr/local/share/ca-certificates/host-bundle.crt"
  fi
  # The root is thrown away after the check: dpkg need not sync every file, nor unpack documentation.
  # Neither changes which packages the set-up has to name.
  mkdir -p "$run_root/etc/dpkg/dpkg.cfg.d"
  printf '%s\n' force-unsafe-io path-exclude=/usr/share/doc/* path-exclude=/usr/share/man/* \
    path-exclude=/usr/share/info/* > "$run_root/etc/dpkg/dpkg.cfg.d/01-clean-room"
  local f
  for f in /root/.npmrc /etc/npmrc /usr/etc/npmrc /usr/local/etc/npmrc; do
    if [ -f "$f" ]; then mkdir -p "$run_root$(dirname "$f")"; cp -L "$f" "$run_root$f"; fi
  done
}
step root "fresh root with a clone of ${sha:0:12}" prepare

# Runs a command inside the root: own mount and PID namespaces (everything started inside ends with it),
# /proc, /dev and /sys bound, the package cache shared between runs, and a clean environment.
in_root() {
  unshare --mount --pid --fork --propagation private bash -euc '
    root="$1"; archives="$2"; shift 2
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mount --rbind /sys "$root/sys"
    mount -t tmpfs tmpfs "$root/run"
    mount -t tmpfs tmpfs "$root/tmp"
    mount --bind "$archives" "$root/var/cache/apt/archives"
    exec chroot "$root" /usr/bin/env -i HOME=/root USER=root LOGNAME=root LANG=C.UTF-8 TERM=dumb \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin CI="${CI:-}" \
      bash -euc "cd /src && $*"
  ' in-root "$run_root" "$base_dir/apt-archives" "$@"
}

passed=()
step setup "set-up (scripts/setup.sh)" in_root bash scripts/setup.sh
passed+=("set-up")
case "$stage" in
  configure)
    step configure "configure (scripts/build.sh --configure-only)" in_root bash scripts/build.sh --configure-only
    passed+=("configure") ;;
  build)
    step build "build (scripts/build.sh)" in_root bash scripts/build.sh
    passed+=("build") ;;
  test)
    step test "test command (scripts/test.sh)" in_root bash scripts/test.sh
    passed+=("test command: $(grep -E 'tests passed|tests failed' "$logs/test.log" | tail -n 1)") ;;
esac
[ "$keep" -eq 1 ] && say "root kept in $run_root"
IFS=,; passed_text="${passed[*]}"; unset IFS; say "passed in a fresh Debian 12 root at ${sha:0:12}: ${passed_text//,/, } (${SECONDS} s)"
