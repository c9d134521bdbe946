#!/usr/bin/env bash
# The full chaos run: builds the dev preset's qnbrl_chaos and runs it with at least 1,000 faults.
#   scripts/chaos.sh [--seed N] [--faults N] [--clients N] [--fault-ms N] [--op-ms N]
# The seed is printed first; the last line is the JSON summary. Exit status 0 only when nothing failed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/bootstrap.sh
cmake --preset dev >/dev/null
cmake --build --preset dev --target qnbrl_chaos
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
HOME=$home XDG_CACHE_HOME=$home/.cache XDG_DATA_HOME=$home/.local/share build/dev/tests/qnbrl_chaos --faults 1000 "$@"
