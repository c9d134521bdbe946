#!/usr/bin/env bash
# Bootstraps the machine, builds with the given preset (default: dev) and runs the whole test suite.
# The suite runs inside a private D-Bus session with an unlocked GNOME Keyring, so the secure-store
# tests talk to a real Secret Service; HOME points at a throw-away directory so nothing touches the
# user's real keyring or caches.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-dev}
shift || true
cd "$root"
scripts/bootstrap.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)"
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share \
  dbus-run-session -- sh -c 'printf pw | gnome-keyring-daemon --unlock --components=secrets >/dev/null 2>&1; exec "$@"' \
  sh ctest --preset "$preset" "$@"
