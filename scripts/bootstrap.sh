#!/usr/bin/env bash
# Installs everything the build, the tests and the dev server need on Debian bookworm.
# Idempotent: when every package is present it only runs `npm ci` if the lockfile changed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

packages=(
  build-essential cmake ninja-build pkg-config clang-14 libclang-rt-14-dev lld-14
  libboost1.81-dev libboost-json1.81-dev libboost-url1.81-dev
  libssl-dev libre2-dev libsecret-1-dev libglib2.0-dev
  libgtest-dev libgmock-dev
  gnome-keyring dbus-x11 libsecret-tools
  nodejs npm python3-socketio python3-aiohttp openssl
  doxygen
  libedit-dev libcli11-dev tmux
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node and npm may come from outside Debian on a prepared machine; only install what is absent.
if command -v node >/dev/null && command -v npm >/dev/null; then
  filtered=()
  for p in "${missing[@]}"; do [[ $p == nodejs || $p == npm ]] || filtered+=("$p"); done
  missing=("${filtered[@]+"${filtered[@]}"}")
fi
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Dev server dependencies, reinstalled only when the lockfile changes.
cd "$root/devserver"
stamp=node_modules/.lock-stamp
if [[ ! -f $stamp ]] || ! cmp -s package-lock.json "$stamp"; then
  npm ci --no-audit --no-fund --loglevel=error
  cp package-lock.json "$stamp"
fi
