#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time (seconds per target,
# default 60), starting from its kept corpus (tests/fuzz/corpus/<target without fuzz_>/). What a run
# finds that adds coverage is merged into that corpus; commit only a few minimized seeds of it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
cd "$root"
cmake --preset fuzz >/dev/null
names=()
for src in tests/fuzz/*.cpp; do names+=("$(basename "$src" .cpp)"); done
# Only the fuzz targets (and the libraries they link), none of the suites.
cmake --build --preset fuzz -j"$(nproc)" --target "${names[@]}"
for name in "${names[@]}"; do
  target=build/fuzz/tests/$name
  corpus=tests/fuzz/corpus/${name#fuzz_}
  found=build/fuzz/found/$name
  dict=tests/fuzz/${name#fuzz_}.dict
  options=()
  if [[ -f $dict ]]; then options+=(-dict="$dict"); fi
  rm -rf "$found"
  mkdir -p "$corpus" "$found"
  echo "fuzzing $name for ${seconds}s"
  # Standard output closed: the client prints its reconnection attempts there. Entropic scheduling is
  # off: its bookkeeping over the library targets' twenty thousand features costs more than the inputs.
  "$target" -max_total_time="$seconds" -entropic=0 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=1 \
    -artifact_prefix=build/fuzz/ "${options[@]}" "$found" "$corpus"
  "$target" -merge=1 "$corpus" "$found" 2>&1 | tail -1
done
