#!/usr/bin/env bash
# link.sh [ROUNDS] [TASKS]: the engine link with a real worker (11 rounds, 20,000 tasks), beside peers in the same run.
# Everything is pinned to one processor (RQ_BENCH_CPU, default the last) and the rounds of all are interleaved; a figure
# is the median of its rounds, a ratio the median of the rounds' ratios: what one system does is divided by what the other
# did a moment before. The figures themselves say little on a machine that does other things too.
#
# RQWorkerU runs a package (type 14) with a plug-in whose tasks do nothing, and an engine of the bench's own that keeps
# nothing on disk (bench/link/engine.h). Its log is written as always; its standard output goes to /dev/null. The peers:
#   plain      plain sockets, the same engine, as many messages and acknowledgements and as many threads (bench/link/plain_worker.cpp)
#   gearman    gearmand and libgearman, jobs in memory
#   beanstalk  beanstalkd, jobs in memory
#
# backlog      TASKS tasks wait for one worker: tasks a second
# one by one   a process submits a task and waits until it hears of the task's end, then the next: microseconds
# start        a worker's start until its notice (4001) is with the engine; a program with the same libraries that does nothing
# memory       the resident and the proportional memory of an idle worker, and after the backlog
#
# Needs the Debian packages of scripts/packages-bench.txt: scripts/setup bench.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
rounds=${1:-11}
tasks=${2:-20000}
build=${RQ_BUILD:-$top/build/linux}
pin=(taskset -c "${RQ_BENCH_CPU:-$(($(nproc) - 1))}")

for command in gearmand beanstalkd taskset; do
    PATH=$PATH:/usr/sbin command -v "$command" >/dev/null || { echo "link.sh: $command is missing; run: scripts/setup bench" >&2; exit 1; }
done
PATH=$PATH:/usr/sbin
targets=(RQWorkerU CrashDump bench_link bench_noop bench_trivial bench_plain_worker bench_beanstalk bench_gearman)
if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux "${targets[@]}"; else ninja -C "$build" "${targets[@]}" >/dev/null; fi
bench=$build/bench

folder=$(mktemp -d)
servers=()
finish() {
    [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}" 2>/dev/null || true
    rm -rf -- "$folder"
}
trap finish EXIT

# A stage of its own, with the plug-in that does nothing.
stage=$folder/stage
mkdir -p "$stage/plugins/noop"
cp "$build/stage/RQWorkerU" "$build/stage/libCrashDump.so" "$top/data/worker.uid" "$top/data/KWROVLApparitor.ini" "$build/stage/actor.xml" "$stage"
cp "$bench/noop.so" "$top/data/worker.uid" "$stage/plugins/noop"
echo '<WorkerConfig><WORKER><TYPE>14</TYPE><PATH>plugins/noop/noop.so</PATH></WORKER></WorkerConfig>' >"$stage/RQWorkerConfig.xml"
printf '<Task><ID>T-000000</ID></Task>' >"$folder/task.xml"
export RQ_LOG_DIR=$folder/logs
ours=("$stage/RQWorkerU" 14 "$folder/task.xml" '{port}' 1)
plain=("$bench/bench_plain_worker" '{port}')

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# serve PORT COMMAND...: until it answers.
serve() {
    local port=$1
    shift
    "${pin[@]}" "$@" >/dev/null 2>&1 &
    servers+=($!)
    for ((i = 0; i < 100; i++)); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return
        sleep 0.1
    done
    echo "link.sh: $1 does not answer" >&2
    exit 1
}
gearman_port=$(free_port)
serve "$gearman_port" gearmand --listen=127.0.0.1 --port="$gearman_port" --log-file="$folder/gearmand.log"
beanstalk_port=$(free_port)
serve "$beanstalk_port" beanstalkd -l 127.0.0.1 -p "$beanstalk_port"

declare -A figures
# keep NAME VALUE: one round's figure.
keep() { figures[$1]+="$2 "; }
median() { tr ' ' '\n' | grep . | sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
of() { median <<<"${figures[$1]}"; }
# ratio A B: the median of A / B over the rounds.
ratio() { paste -d' ' <(tr ' ' '\n' <<<"${figures[$1]}") <(tr ' ' '\n' <<<"${figures[$2]}") | awk 'NF == 2 { print $1 / $2 }' | median; }

# peer NAME PROGRAM PORT: one round of a server's worker and submitter.
peer() {
    local name=$1 program=$2 port=$3 worker rate middle late
    "${pin[@]}" "$program" fill "$port" "$tasks"
    rate=$("${pin[@]}" "$program" drain "$port" "$tasks")
    keep "backlog $name" "$rate"
    "${pin[@]}" "$program" work "$port" &
    worker=$!
    servers+=("$worker")
    read -r middle late < <("${pin[@]}" "$program" single "$port" "$singles")
    keep "single $name" "$middle"
    keep "late $name" "$late"
    kill "$worker"
    wait "$worker" 2>/dev/null || true
    unset 'servers[-1]'
}

# link NAME WORKER...: one round of a worker of the engine link.
link() {
    local name=$1 rate middle late frames reads processor
    shift
    read -r rate frames reads processor < <("${pin[@]}" "$bench/bench_link" backlog "$tasks" "$@")
    keep "backlog $name" "$rate"
    keep "backlog frames $name" "$frames"
    keep "backlog reads $name" "$reads"
    keep "processor $name" "$processor"
    read -r -d '' middle late frames reads < <("${pin[@]}" "$bench/bench_link" single "$singles" "$@") || true
    keep "single $name" "$middle"
    keep "late $name" "$late"
    keep "single frames $name" "$frames"
    keep "single reads $name" "$reads"
}

singles=3000
for ((round = 0; round < rounds; round++)); do
    link ours "${ours[@]}"
    link plain "${plain[@]}"
    peer gearman "$bench/bench_gearman" "$gearman_port"
    peer beanstalk "$bench/bench_beanstalk" "$beanstalk_port"
    read -r ours_ms trivial_ms < <("${pin[@]}" "$bench/bench_link" start 20 "$bench/bench_trivial" "${ours[@]}")
    keep start "$ours_ms"
    keep trivial "$trivial_ms"
    rm -rf "$RQ_LOG_DIR"
done
read -r resident proportional resident_after proportional_after < <("${pin[@]}" "$bench/bench_link" memory "$tasks" "${ours[@]}")

echo "load: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) processors; $rounds rounds"
for name in ours plain gearman beanstalk; do
    printf 'backlog of %d    %-10s %8.0f tasks/s          ours / %-10s %.2f\n' "$tasks" "$name" "$(of "backlog $name")" "$name" "$(ratio 'backlog ours' "backlog $name")"
done
for name in ours plain gearman beanstalk; do
    printf 'one by one         %-10s %8.1f us (99th %.0f)   %-10s / ours %.2f\n' "$name" "$(of "single $name")" "$(of "late $name")" "$name" "$(ratio "single $name" 'single ours')"
done
printf 'processor time of the worker for a task of the backlog: ours %.1f us, plain %.1f us, plain / ours %.2f\n' \
    "$(of 'processor ours')" "$(of 'processor plain')" "$(ratio 'processor plain' 'processor ours')"
for name in ours plain; do
    printf 'frames a task, and how many writes they came in: %-10s %.2f, %.2f (backlog); %.2f, %.2f (one by one)\n' "$name" \
        "$(of "backlog frames $name")" "$(of "backlog reads $name")" "$(of "single frames $name")" "$(of "single reads $name")"
done
printf 'start to notice    %.2f ms, the same libraries alone %.2f ms, ratio %.2f (goal: under 3)\n' "$(of start)" "$(of trivial)" "$(ratio start trivial)"
printf 'idle worker        %.1f MiB resident, %.1f proportional; after the backlog %.1f and %.1f (goal: under 10)\n' \
    "$(awk "BEGIN { print $resident / 1024 }")" "$(awk "BEGIN { print $proportional / 1024 }")" \
    "$(awk "BEGIN { print $resident_after / 1024 }")" "$(awk "BEGIN { print $proportional_after / 1024 }")"
