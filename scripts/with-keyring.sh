#!/usr/bin/env bash
# Inside a D-Bus session: start an unlocked keyring that offers the secret service, then run "$@".
set -euo pipefail
export XDG_RUNTIME_DIR="${XDG_RUNTIME_DIR:-$(mktemp -d)}"
if command -v gnome-keyring-daemon >/dev/null 2>&1; then
  eval "$(printf 'ostvarren\n' | gnome-keyring-daemon --unlock --components=secrets 2>/dev/null)" || true
  export GNOME_KEYRING_CONTROL SSH_AUTH_SOCK 2>/dev/null || true
fi
"$@"
