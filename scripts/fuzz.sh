#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time (seconds, default 120),
# starting from its kept corpus (tests/fuzz/corpus/<target without fuzz_>/). What a run finds that
# adds coverage joins that corpus, so committing it lets the next run start where this one ended.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-120}
cd "$root"
cmake --preset fuzz >/dev/null
names=()
for src in tests/fuzz/*.cpp; do names+=("$(basename "$src" .cpp)"); done
# Only the fuzz targets: they link the Socket.IO layer alone.
cmake --build --preset fuzz -j"$(nproc)" --target "${names[@]}"
for name in "${names[@]}"; do
  target=build/fuzz/tests/$name
  corpus=tests/fuzz/corpus/${name#fuzz_}
  found=build/fuzz/found/$name
  rm -rf "$found"
  mkdir -p "$corpus" "$found"
  echo "fuzzing $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix=build/fuzz/ "$found" "$corpus"
  "$target" -merge=1 "$corpus" "$found" 2>&1 | tail -1
done
