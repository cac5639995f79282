#!/usr/bin/env bash
# submit.sh [ROUNDS] [COUNT] [CLIENTS...]: durable submissions a second (5 rounds of 2,000, by 1, 8 and 32 clients), beside
# gearmand with its SQLite queue and NATS JetStream on files. Servers and clients are pinned to one processor (RQ_BENCH_CPU,
# default the last), rounds are interleaved; a figure is the median of its rounds, a ratio the median of the rounds' ratios. Every
# client has one connection and waits for each acknowledgement.
#
#   power      rqengine: synced before it is acknowledged; gearmand's SQLite queue is that, too
#   process    rqengine: survives the end of the process; JetStream is that, too: Debian's nats-server (2.9) syncs its files
#              every two minutes and has no setting for it
#
# Needs the Debian packages of scripts/packages-bench.txt: scripts/setup bench.
set -euo pipefail
targets=(rqengine RQWorkerU CrashDump bench_noop bench_engine bench_gearman bench_nats)
. "$(dirname -- "${BASH_SOURCE[0]}")/engine/common.sh"
need gearmand nats-server taskset
rounds=${1:-5}
count=${2:-2000}
shift $(($# < 2 ? $# : 2))
clients=("${@:-1}")
[ $# -gt 0 ] || clients=(1 8 32)

engine power power
engine process process
for name in power process; do
    curl -sf -X POST -H "Authorization: Bearer ${token[$name]}" -d '{}' "http://127.0.0.1:${port[$name]}/api/v1/drain" >/dev/null
done
sqlite=$(free_port)
serve "$sqlite" gearmand --listen=127.0.0.1 --port="$sqlite" --log-file="$folder/gearmand.log" \
    --queue-type=libsqlite3 --libsqlite3-db="$folder/gearman.db"
nats=$(free_port)
serve "$nats" nats-server -a 127.0.0.1 -p "$nats" -js -sd "$folder/nats"

for ((round = 0; round < rounds; round++)); do
    for number in "${clients[@]}"; do
        for name in power process; do
            keep "$name $number" "$("${pin[@]}" "$bench/bench_engine" submit "${port[$name]}" "${token[$name]}" "$number" "$count")"
        done
        keep "gearman $number" "$("${pin[@]}" "$bench/bench_gearman" submit "$sqlite" "$count" "$number")"
        keep "nats $number" "$("${pin[@]}" "$bench/bench_nats" submit "$nats" "$number" "$count")"
    done
done

echo "load: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) processors; $rounds rounds of $count"
for number in "${clients[@]}"; do
    for name in power process gearman nats; do printf '%2d clients  %-8s %8.0f a second\n' "$number" "$name" "$(of "$name $number")"; done
    printf '%2d clients  power / gearman %.2f, process / nats %.2f, power / nats %.2f\n' "$number" \
        "$(ratio "power $number" "gearman $number")" "$(ratio "process $number" "nats $number")" "$(ratio "power $number" "nats $number")"
done
