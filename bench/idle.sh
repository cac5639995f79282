#!/usr/bin/env bash
# idle.sh [COUNT] [SECONDS]: so many workers (1,000), as started by hand, that connect at once and then wait for SECONDS (30):
# how long until all are welcomed, what each costs the engine in memory, and how much processor time it uses while they wait.
# The last is held against the same time of an engine without workers. bench/engine/engine_bench.cpp speaks the link by hand.
set -euo pipefail
targets=(rqengine RQWorkerU CrashDump bench_noop bench_engine)
. "$(dirname -- "${BASH_SOURCE[0]}")/engine/common.sh"
need taskset
count=${1:-1000}
seconds=${2:-30}
ulimit -n $((count * 2 + 200)) 2>/dev/null || true

engine alone power
engine idle power
# The first connections make what all share.
"$bench/bench_engine" idle "${link[idle]}" "${token[idle]}" 10 "${process[idle]}" 0 >/dev/null
ticks() { sed 's/.*) //' "/proc/$1/stat" | awk -v hz="$(getconf CLK_TCK)" '{ print ($12 + $13) * 1000 / hz }'; }
before=$(ticks "${process[alone]}")
read -r welcomed bytes used < <("$bench/bench_engine" idle "${link[idle]}" "${token[idle]}" "$count" "${process[idle]}" "$seconds")
after=$(ticks "${process[alone]}")
echo "load: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) processors"
echo "$count workers welcomed in $welcomed ms (each is a task of its own in the store, durability power)"
echo "memory of the engine for each: $bytes bytes (goal: at most 8192)"
echo "processor time of the engine in $seconds s: $used ms; of one without workers: $(awk "BEGIN { print $after - $before }") ms, start of the others included"
