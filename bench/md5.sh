#!/usr/bin/env bash
# md5.sh [MiB] [ROUNDS]: how fast the md5 plug-in is on a cached file (1024 MiB, 5 rounds), beside "openssl dgst -md5" on the
# same file. Both run in turns, so that a busy machine hinders both alike; the figure of each is its best round. openssl's
# time includes starting the program, some milliseconds. Then four files of a quarter each, with as many threads as there are
# processors (at most four), beside as many openssl at a time.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
size_MiB=${1:-1024}
rounds=${2:-5}
build=${RQ_BUILD:-$top/build/linux}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_md5; else ninja -C "$build" bench_md5 >/dev/null; fi

folder=$(mktemp -d)
trap 'rm -rf -- "$folder"' EXIT
file=$folder/data
openssl enc -aes-128-ctr -nosalt -K 00 -iv 00 </dev/zero 2>/dev/null | head -c $((size_MiB << 20)) >"$file" || true
[ "$(stat -c %s "$file")" = $((size_MiB << 20)) ] || { echo "md5.sh: no room for $size_MiB MiB in $folder" >&2; exit 1; }
cat "$file" >/dev/null

plugin=() other=()
for ((i = 0; i < rounds; i++)); do
    read -r seconds digest < <("$build/plugins/md5/bench_md5" "$file")
    plugin+=("$seconds")
    begin=$EPOCHREALTIME
    expected=$(openssl dgst -md5 -r "$file")
    other+=("$(awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.6f", b - a }')")
    [ "$digest" = "${expected%% *}" ] || { echo "md5.sh: the digests differ: $digest ${expected%% *}" >&2; exit 1; }
done

# Several files.
threads=$(nproc)
[ "$threads" -le 4 ] || threads=4
files=()
for i in 1 2 3 4; do
    tail -c +$((1 + (i - 1) * (size_MiB << 18))) "$file" | head -c $((size_MiB << 18)) >"$folder/$i" || true
    files+=("$folder/$i")
done
several=() alone=() others=()
for ((i = 0; i < rounds; i++)); do
    read -r seconds digests < <("$build/plugins/md5/bench_md5" "$threads" "${files[@]}")
    several+=("$seconds")
    read -r seconds _ < <("$build/plugins/md5/bench_md5" 1 "${files[@]}")
    alone+=("$seconds")
    begin=$EPOCHREALTIME
    printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$threads" openssl dgst -md5 -r >/dev/null
    others+=("$(awk -v a="$begin" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.6f", b - a }')")
    expected=$(openssl dgst -md5 -r "${files[@]}" | cut -d' ' -f1 | paste -sd ' ')
    [ "$digests" = "$expected" ] || { echo "md5.sh: the digests of several files differ" >&2; exit 1; }
done

best() { printf '%s\n' "$@" | sort -n | head -n 1; }
awk -v p="$(best "${plugin[@]}")" -v o="$(best "${other[@]}")" -v n="$size_MiB" 'BEGIN {
    printf "plug-in             %8.1f MiB/s  (%.3f s)\n", n / p, p
    printf "openssl dgst -md5   %8.1f MiB/s  (%.3f s)\n", n / o, o
    printf "plug-in / openssl   %8.3f\n", o / p }'
awk -v s="$(best "${several[@]}")" -v a="$(best "${alone[@]}")" -v o="$(best "${others[@]}")" -v n="$size_MiB" -v t="$threads" 'BEGIN {
    printf "4 files, %d threads  %8.1f MiB/s  (%.3f s), %.2f of %d openssl at a time, %.2f of one thread\n", t, n / s, s, o / s, t, a / s }'
