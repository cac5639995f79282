#!/usr/bin/env bash
# progress.sh [ROUNDS]: what a progress call costs a plug-in (7 rounds), as a ratio to two local time stamps and one lock in the
# same run: with nobody reading the progress, and with a reader a thousand times a second. The rounds are interleaved; each
# figure is a median.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
rounds=${1:-7}
build=${RQ_BUILD:-$top/build/linux}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_progress; else ninja -C "$build" bench_progress >/dev/null; fi

"$build/src/plugin/bench_progress" --benchmark_repetitions="$rounds" --benchmark_min_time=0.2 \
    --benchmark_enable_random_interleaving=true --benchmark_format=csv 2>/dev/null |
    awk -F, '/_median"/ { name = $1; gsub(/"|_median/, "", name); time[name] = $3 }
    END {
        printf("limit %.0f ns\n", time["Limit"])
        printf("alone %.0f ns, ratio %.2f (goal: at most 1.3)\n", time["Alone"], time["Alone"] / time["Limit"])
        printf("with a reader %.0f ns, ratio %.2f (goal: at most 2)\n", time["WithReader"], time["WithReader"] / time["Limit"])
    }'
