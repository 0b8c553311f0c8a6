#!/usr/bin/env bash
# Starts the local server (two agents) in the background, waits until it is ready, shows how to sign in
# and every agent's host name and pairing code in the order the client lists them, then runs the client pointed at it. The server stops when the client exits.
set -euo pipefail
server="$1"
client="$2"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${OSTV_BUILD_DIR:-$root/build}"
log="$build/local-server.log"
# The web engine refuses to start its sandbox as root.
if [ "$(id -u)" -eq 0 ]; then export QTWEBENGINE_DISABLE_SANDBOX=1; fi

# The log holds the pairing codes: readable by this user only.
rm -f "$log"
(umask 077 && : >"$log")
"$server" --agents 2 >>"$log" 2>&1 &
server_pid=$!
trap 'kill -TERM "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true' EXIT

for _ in $(seq 1 100); do
  grep -q '^ostvarren-server: ready' "$log" 2>/dev/null && break
  if ! kill -0 "$server_pid" 2>/dev/null; then
    echo "The local server did not start:"; cat "$log"; exit 1
  fi
  sleep 0.1
done
grep '^ostvarren-server:' "$log" | grep -v -E -e ': ready' -e ': agent [0-9]+ ' | sed 's/^ostvarren-server: /  /'
# The agents as the host list shows them, top row first (the server numbers them in that order): the
# row's title, then the code to type when pairing with it.
echo
echo "Agents, top row of the host list first:"
grep -E '^ostvarren-server: agent [0-9]+ ' "$log" | awk '{
  name = ""; code = ""
  for (i = 3; i < NF; i++) if ($i == "code") code = $(i + 1)
  if ((at = index($0, " hostname ")) > 0) name = substr($0, at + 10)
  if (name == "") name = "agent " $3
  printf "  %-24s code %s\n", name, code
}'
cat <<EOT

Sign in with user "admin" and password "quill_tarn" (the login screen is filled in already).
Double-click a row and type its code; the codes stay in $log.
EOT

if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "No display found: starting the client on a virtual display (xvfb-run)."
  xvfb-run -a -s "-screen 0 1600x1000x24" "$client"
else
  "$client"
fi
