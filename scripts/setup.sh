#!/usr/bin/env bash
# Installs everything the project needs on Debian 12 and leaves what is already there alone.
# Safe to run again and again: every step checks first.
set -euo pipefail

need_root() {
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then SUDO=sudo; else
      echo "setup: run as root (or install sudo)" >&2; exit 1; fi
  else SUDO=; fi
}

PACKAGES=(
  build-essential cmake pkg-config git ca-certificates
  qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev
  qt6-webengine-dev qt6-webengine-dev-tools qt6-webchannel-dev qt6-httpserver-dev qt6-websockets-dev qt6-svg-dev
  qtkeychain-qt6-dev
  libngtcp2-dev libngtcp2-crypto-gnutls-dev libgnutls28-dev
  nlohmann-json3-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  xvfb xauth x11-utils
  gnome-keyring dbus dbus-x11 libsecret-tools
  fonts-noto-cjk fonts-noto-color-emoji fonts-dejavu-core
  clang libclang-rt-14-dev
  iproute2 procps jq
  dpkg-dev file
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
# Node.js and npm build the terminal page; any installed node (Debian's or another vendor's) will do.
if ! command -v node >/dev/null 2>&1; then missing+=(nodejs); fi
if ! command -v npm >/dev/null 2>&1; then missing+=(npm); fi

if [ "${#missing[@]}" -gt 0 ]; then
  need_root
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
else
  echo "setup: system packages already installed"
fi

# The terminal page's scripts come from npm, pinned by package-lock.json.
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ -f "$root/resources/web/package-lock.json" ]; then
  stamp="$root/resources/web/node_modules/.ostvarren-lock"
  if [ ! -f "$stamp" ] || ! cmp -s "$root/resources/web/package-lock.json" "$stamp"; then
    echo "setup: npm ci for the terminal page"
    (cd "$root/resources/web" && npm ci --no-audit --no-fund --loglevel=error)
    cp "$root/resources/web/package-lock.json" "$stamp"
  fi
fi
echo "setup: done"
