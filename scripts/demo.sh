#!/usr/bin/env bash
# Builds and runs the demo (examples/demo.cpp): two users log in against the local dev server, one
# tavern server goes down and the client fails over, then both log out. HOME, the caches and the data
# directory point at a throw-away directory, and the session bus at nothing, so the client keeps its
# device id and telemetry files there: the user's home and keyring stay untouched.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/bootstrap.sh
cmake --preset dev >/dev/null
cmake --build --preset dev -j2 --target qnbrl_demo
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share \
  DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus build/dev/examples/qnbrl_demo
