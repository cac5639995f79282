#!/usr/bin/env bash
# log.sh [ROUNDS]: what a log line costs (7 rounds), as a ratio to the logging library's own synchronous file sink with the same
# columns in the same run. The rounds of both are interleaved; the figure of each is its median. One thread, and four.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
rounds=${1:-7}
build=${RQ_BUILD:-$top/build/linux}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_log; else ninja -C "$build" bench_log >/dev/null; fi

RQ_BENCH_DIR=$(mktemp -d)
export RQ_BENCH_DIR
trap 'rm -rf -- "$RQ_BENCH_DIR"' EXIT
"$build/src/util/bench_log" --benchmark_repetitions="$rounds" --benchmark_min_time=0.2 \
    --benchmark_enable_random_interleaving=true --benchmark_format=csv 2>/dev/null |
    awk -F, '/_median"/ {
        name = $1; gsub(/"/, "", name)
        split(name, part, "/")
        threads = name; sub(/.*threads:/, "", threads); sub(/_.*/, "", threads)
        time[part[1] "/" threads] = $3
    }
    END {
        for (threads = 1; threads <= 4; threads += 3)
            printf("threads: %d, ours %.0f ns, library %.0f ns, ratio %.2f (goal: at most 1.2)\n", threads,
                time["Ours/" threads], time["Library/" threads], time["Ours/" threads] / time["Library/" threads])
    }'
