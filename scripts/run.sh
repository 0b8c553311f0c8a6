#!/usr/bin/env bash
# The run command: set-up, build, start the local server in the background, then the client pointed at it.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/build.sh"
build="${OSTV_BUILD_DIR:-$root/build}"
server="$build/server/ostvarren-server"
client="$build/app/ostvarren"
exec bash "$root/scripts/start-local.sh" "$server" "$client"
