#!/usr/bin/env bash
# Builds the release benchmarks and runs them with the client and the Node servers pinned to one CPU
# (the servers are child processes and inherit the affinity): on these VMs loopback latency is
# otherwise dominated by wake-ups across virtual CPUs. Figures go to stdout as JSON lines; arguments
# are passed on (see `qnbrl_bench --help`).
#
#   scripts/bench.sh --callgrind [ARGS]   client instructions per operation instead (stable from run to
#                                         run; the Node server is not traced). Default ARGS:
#                                         --rounds 3 --scale 0.1 --only <the Socket.IO benchmarks>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/bootstrap.sh >/dev/null
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target qnbrl_bench >&2
if [[ ${1:-} != --callgrind ]]; then
  exec taskset -c 0 build/release/bench/qnbrl_bench "$@"
fi
shift
(($#)) || set -- --rounds 3 --scale 0.1 --only \
  socketio.ack_pipelined,websocket.echo_pipelined,socketio.ack_latency,websocket.echo_latency,socketio.event_receive
out=${CALLGRIND_DIR:-$(mktemp -d)}
[[ -n ${CALLGRIND_DIR:-} ]] || trap 'rm -rf "$out"' EXIT
# Each measured round is dumped on its own ("<bench> ops=<n>"); everything else is zeroed away.
taskset -c 0 valgrind --tool=callgrind --compress-strings=no --compress-pos=no --callgrind-out-file="$out/cg" build/release/bench/qnbrl_bench "$@" >/dev/null
python3 - "$out" <<'PY'
import glob, json, re, statistics, sys
per = {}
for f in glob.glob(sys.argv[1] + "/cg.*"):
    text = open(f, errors="replace").read()
    desc = re.search(r"^desc: Trigger: Client Request: (\S+) ops=(\d+)$", text, re.M)
    total = re.search(r"^summary: (\d+)", text, re.M)
    if desc and total:
        per.setdefault(desc[1], []).append(int(total[1]) / int(desc[2]))
for name, values in sorted(per.items()):
    print(json.dumps({"bench": name, "rounds": len(values), "instructions_per_op": round(statistics.median(values))}))
PY
