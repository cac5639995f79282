#!/usr/bin/env bash
# md5.sh [MiB] [ROUNDS]: how fast the md5 plug-in is on what lies in the page cache, beside "openssl dgst -md5" and md5sum.
# First one file (1024 MiB), everything pinned to one processor (RQ_BENCH_CPU, default the last). Then four files of a quarter
# each with one thread and with two, beside the same programs, one after the other and two at a time (xargs -P 2).
# Whole programs are timed, all in the same way, and in turns, so that a busy machine hinders all alike. For each the best
# round in seconds, and the processor time of the round that took least of it; ratios are the other's seconds by the plug-in's,
# above 1 where the plug-in is ahead: of the best rounds, the median over the rounds (5), and of the processor times.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
size_MiB=${1:-1024}
rounds=${2:-5}
build=${RQ_BUILD:-$top/build/linux}
processors=$(nproc)
cpu=${RQ_BENCH_CPU:-$((processors - 1))}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_md5; else ninja -C "$build" bench_md5 >/dev/null; fi

folder=$(mktemp -d)
trap 'rm -rf -- "$folder"' EXIT
file=$folder/data
openssl enc -aes-128-ctr -nosalt -K 00 -iv 00 </dev/zero 2>/dev/null | head -c $((size_MiB << 20)) >"$file" || true
[ "$(stat -c %s "$file")" = $((size_MiB << 20)) ] || { echo "md5.sh: no room for $size_MiB MiB in $folder" >&2; exit 1; }
quarters=()
for i in 0 1 2 3; do
    dd if="$file" of="$folder/$i" bs=1M skip=$((i * size_MiB / 4)) count=$((size_MiB / 4)) status=none
    quarters+=("$folder/$i")
done
cat "$file" "${quarters[@]}" >/dev/null

plug_in() { "$build/plugins/md5/bench_md5" "$@"; }
with_openssl() { openssl dgst -md5 -r "$@"; }
with_md5sum() { md5sum "$@"; }
two_openssl() { printf '%s\0' "$@" | xargs -0 -n 1 -P 2 openssl dgst -md5 -r; }
two_md5sum() { printf '%s\0' "$@" | xargs -0 -n 1 -P 2 md5sum; }

# run NAME COMMAND...: seconds and processor seconds of one run go to $folder/NAME.times, the digests, sorted, to $folder/NAME.md5.
TIMEFORMAT='%3R %3U %3S'
run() {
    local name=$1
    shift
    { time "$@" >"$folder/$name.out"; } 2>>"$folder/$name.times"
    cut -d' ' -f1 "$folder/$name.out" | sort >"$folder/$name.md5"
}
# same NAME...: whether all of them found the same.
same() {
    local name
    for name in "${@:2}"; do
        cmp -s "$folder/$1.md5" "$folder/$name.md5" || { echo "md5.sh: $1 and $name differ" >&2; exit 1; }
    done
}
best() { awk '{ print $1 }' "$folder/$1.times" | sort -n | head -n 1; }
processor() { awk '{ print $2 + $3 }' "$folder/$1.times" | sort -n | head -n 1; }
# ratios NAME PEER: of the best rounds, the median of the rounds' own, of processor time.
ratios() {
    local median
    median=$(paste -d' ' "$folder/$2.times" "$folder/$1.times" | awk '{ print $1 / $4 }' | sort -n |
        awk '{ all[NR] = $1 } END { print (all[int((NR + 1) / 2)] + all[int(NR / 2) + 1]) / 2 }')
    awk -v a="$(best "$2")" -v b="$(best "$1")" -v m="$median" -v p="$(processor "$2")" -v q="$(processor "$1")" \
        'BEGIN { printf "%6.2f %6.2f %6.2f\n", a / b, m, p / q }'
}
# report TITLE NAME PEER...
report() {
    local own=$2 name
    echo "$1"
    for name in "${@:2}"; do
        awk -v n="$name" -v s="$(best "$name")" -v p="$(processor "$name")" -v m="$size_MiB" -v r="$([ "$name" = "$own" ] || ratios "$own" "$name")" \
            'BEGIN { printf "  %-22s %8.1f MiB/s  %7.3f s  %7.3f s of processor  %s\n", n, m / s, s, p, r }'
    done
}

taskset -cp "$cpu" $BASHPID >/dev/null
for ((i = 0; i < rounds; i++)); do
    run plug-in plug_in "$file"
    run openssl with_openssl "$file"
    run md5sum with_md5sum "$file"
    same plug-in openssl md5sum
done
taskset -cp "0-$((processors - 1))" $BASHPID >/dev/null
for ((i = 0; i < rounds; i++)); do
    run plug-in-1-thread plug_in 1 "${quarters[@]}"
    run openssl-in-turn with_openssl "${quarters[@]}"
    run md5sum-in-turn with_md5sum "${quarters[@]}"
    run plug-in-2-threads plug_in 2 "${quarters[@]}"
    run openssl-2-at-a-time two_openssl "${quarters[@]}"
    run md5sum-2-at-a-time two_md5sum "${quarters[@]}"
    same plug-in-1-thread openssl-in-turn md5sum-in-turn plug-in-2-threads openssl-2-at-a-time md5sum-2-at-a-time
done

echo "load $(cut -d' ' -f1 /proc/loadavg) on $processors processors; behind each peer its ratios to the plug-in: best round, median round, processor time"
report "one file of $size_MiB MiB, one processor" plug-in openssl md5sum
report "four files of $((size_MiB / 4)) MiB, one at a time" plug-in-1-thread openssl-in-turn md5sum-in-turn
report "four files of $((size_MiB / 4)) MiB, two at a time" plug-in-2-threads openssl-2-at-a-time md5sum-2-at-a-time
report "two threads and one" plug-in-2-threads plug-in-1-thread
