#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time (seconds, default 120).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-120}
cd "$root"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"$(nproc)"
for target in build/fuzz/tests/fuzz_*; do
  [[ -x $target ]] || continue
  name=$(basename "$target")
  corpus=$(mktemp -d)
  seeds=tests/fuzz/corpus/${name#fuzz_}
  echo "fuzzing $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$corpus" $( [[ -d $seeds ]] && echo "$seeds" )
  rm -rf "$corpus"
done
