#!/usr/bin/env bash
# package.sh [ROUNDS] [TASKS]: the real engine with one real package worker (5 rounds, 2,000 tasks), beside gearmand in the
# same run. Everything is pinned to one processor (RQ_BENCH_CPU, default the last), the rounds are interleaved; a figure is the
# median of its rounds, a ratio the median of the rounds' ratios. The tasks do nothing (bench/link/noop_plugin.c).
#
#   power, process   rqengine with that durability; each task is submitted over HTTP and kept with its events
#   gearman          gearmand, jobs in memory
#   gearman-sqlite   gearmand, jobs in its SQLite queue
#
# backlog      TASKS tasks wait for one worker: tasks a second
# one by one   submit a task and wait until its end is told, then the next: microseconds
#
# Needs the Debian packages of scripts/packages-bench.txt: scripts/setup bench.
set -euo pipefail
targets=(rqengine RQWorkerU CrashDump bench_noop bench_engine bench_gearman)
. "$(dirname -- "${BASH_SOURCE[0]}")/engine/common.sh"
need gearmand taskset
rounds=${1:-5}
tasks=${2:-2000}
singles=200

engine power power
engine process process
memory=$(free_port)
serve "$memory" gearmand --listen=127.0.0.1 --port="$memory" --log-file="$folder/gearmand.log"
sqlite=$(free_port)
serve "$sqlite" gearmand --listen=127.0.0.1 --port="$sqlite" --log-file="$folder/gearmand-sqlite.log" \
    --queue-type=libsqlite3 --libsqlite3-db="$folder/gearman.db"

# peer NAME PORT
peer() {
    local worker
    "${pin[@]}" "$bench/bench_gearman" fill "$2" "$tasks"
    keep "backlog $1" "$("${pin[@]}" "$bench/bench_gearman" drain "$2" "$tasks")"
    "${pin[@]}" "$bench/bench_gearman" work "$2" &
    worker=$!
    servers+=("$worker")
    read -r middle late < <("${pin[@]}" "$bench/bench_gearman" single "$2" "$singles")
    keep "single $1" "$middle"
    keep "late $1" "$late"
    kill "$worker"
    wait "$worker" 2>/dev/null || true
    unset 'servers[-1]'
}
for ((round = 0; round < rounds; round++)); do
    for name in power process; do
        keep "backlog $name" "$("${pin[@]}" "$bench/bench_engine" backlog "${port[$name]}" "${token[$name]}" "$tasks")"
        read -r middle late < <("${pin[@]}" "$bench/bench_engine" single "${port[$name]}" "${token[$name]}" "$singles")
        keep "single $name" "$middle"
        keep "late $name" "$late"
    done
    peer gearman "$memory"
    peer gearman-sqlite "$sqlite"
done

echo "load: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) processors; $rounds rounds of $tasks tasks"
for name in power process gearman gearman-sqlite; do
    printf 'backlog     %-15s %8.0f tasks/s          one by one %8.0f us (99th %.0f)\n' "$name" "$(of "backlog $name")" "$(of "single $name")" "$(of "late $name")"
done
for name in power process; do
    for peer in gearman gearman-sqlite; do
        printf '%s / %s: backlog %.2f; %s / %s: one by one %.2f\n' "$name" "$peer" "$(ratio "backlog $name" "backlog $peer")" \
            "$peer" "$name" "$(ratio "single $peer" "single $name")"
    done
done
