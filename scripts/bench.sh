#!/usr/bin/env bash
# Builds the release benchmarks and runs them with the client and the Node dev server pinned to one CPU
# (the server is a child process and inherits the affinity): on these VMs loopback latency is otherwise
# dominated by wake-ups across virtual CPUs. Figures go to stdout as JSON lines; arguments are passed on
# (see `qnbrl_bench --help`).
#
# Client instruction counts, stable from run to run (the Node server is not traced; --toggle-collect
# keeps the event loops only; the emits' arguments are built on the event loop before each round, so
# subtract the inclusive cost of AckChain::run's lambda):
#   valgrind --tool=callgrind --collect-atstart=no '--toggle-collect=boost::asio::detail::scheduler::run(*' \
#     build/release/bench/qnbrl_bench --rounds 1 --scale 0.5 --only socketio.ack_pipelined
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/bootstrap.sh >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target qnbrl_bench >&2
exec taskset -c 0 build/release/bench/qnbrl_bench "$@"
