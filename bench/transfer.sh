#!/usr/bin/env bash
# transfer.sh --small [FILES] [ROUNDS] [FOLDER]: how fast a task copies a folder of so many files of 10 kB (2000, 5 rounds), until all have their
# names and are synced, beside "cp -r" of it followed by "sync -f", in turns; and the most memory that it takes.
# transfer.sh [MiB] [ROUNDS] [FOLDER]: how fast the transfer plug-in copies a cached file (1024 MiB, 5 rounds, in a folder of its own below
# FOLDER, the folder for temporary files otherwise), beside "cp" and, with MD5, beside "md5sum" of the source alone. All run in turns, so that a
# busy machine hinders them alike; the figure of each is its best round. "copied" is until the bytes were handed to the system, which is
# all that cp does; the plug-in then syncs, which is shown beside "cp" followed by "sync" of the file.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
small=
if [ "${1:-}" = --small ]; then small=1; shift; fi
size_MiB=${1:-1024}
rounds=${2:-5}
build=${RQ_BUILD:-$top/build/linux}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_transfer; else ninja -C "$build" bench_transfer >/dev/null; fi
bench=$build/plugins/transfer/bench_transfer

folder=$(mktemp -d -p "${3:-${TMPDIR:-/tmp}}")
trap 'rm -rf -- "$folder"' EXIT
since() { awk -v a="$1" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.6f", b - a }'; }
best() { printf '%s\n' "$@" | sort -n | head -n 1; }

if [ -n "$small" ]; then
    files=${1:-2000}
    mkdir "$folder/source"
    (cd "$folder/source" && openssl enc -aes-128-ctr -nosalt -K 00 -iv 00 </dev/zero 2>/dev/null | head -c $((files * 10000)) | split -a 7 -b 10000 -) || true
    [ "$(find "$folder/source" -type f | wc -l)" = "$files" ] || { echo "transfer.sh: no room for $files files in $folder" >&2; exit 1; }
    sync -f "$folder"
    task=() memory=() copy=()
    for ((i = 0; i < rounds; i++)); do
        rm -rf "$folder"/target && sync -f "$folder"
        read -r a peak < <("$bench" "$folder/source" "$folder/target" folder)
        task+=("$a") memory+=("$peak")
        diff -r "$folder/source" "$folder/target" >/dev/null || { echo "transfer.sh: the target differs" >&2; exit 1; }
        rm -rf "$folder"/target && sync -f "$folder"
        begin=$EPOCHREALTIME
        cp -r "$folder/source" "$folder/target"
        sync -f "$folder"
        copy+=("$(since "$begin")")
    done
    awk -v n="$files" -v t="$(best "${task[@]}")" -v c="$(best "${copy[@]}")" -v k="$(printf '%s\n' "${memory[@]}" | sort -n | tail -n 1)" 'BEGIN {
        printf "%d files by a task       %8.3f s\n", n, t
        printf "%d files, cp -r and sync %8.3f s\n", n, c
        printf "cp and sync / task         %8.3f\n", c / t
        printf "peak memory                %8.1f MiB\n", k / 1024 }'
    exit 0
fi

file=$folder/data
openssl enc -aes-128-ctr -nosalt -K 00 -iv 00 </dev/zero 2>/dev/null | head -c $((size_MiB << 20)) >"$file" || true
[ "$(stat -c %s "$file")" = $((size_MiB << 20)) ] || { echo "transfer.sh: no room for $size_MiB MiB in $folder" >&2; exit 1; }
sync "$file"
cat "$file" >/dev/null

copied=() synced=() md5_copied=() md5_synced=() memory=() cp=() cp_synced=() sums=()
for ((i = 0; i < rounds; i++)); do
    rm -f "$folder"/target
    read -r a b _ < <("$bench" "$file" "$folder/target" none)
    copied+=("$a") synced+=("$b")
    rm -f "$folder"/target
    begin=$EPOCHREALTIME
    cp "$file" "$folder/target"
    cp+=("$(since "$begin")")
    sync "$folder/target"
    cp_synced+=("$(since "$begin")")
    rm -f "$folder"/target
    read -r a b digest peak < <("$bench" "$file" "$folder/target" md5)
    md5_copied+=("$a") md5_synced+=("$b") memory+=("$peak")
    cmp -s "$file" "$folder/target" || { echo "transfer.sh: the target differs" >&2; exit 1; }
    begin=$EPOCHREALTIME
    expected=$(md5sum "$file")
    sums+=("$(since "$begin")")
    [ "$digest" = "${expected%% *}" ] || { echo "transfer.sh: the digests differ: $digest ${expected%% *}" >&2; exit 1; }
done

awk -v n="$size_MiB" -v c="$(best "${copied[@]}")" -v s="$(best "${synced[@]}")" -v p="$(best "${cp[@]}")" -v q="$(best "${cp_synced[@]}")" \
    -v m="$(best "${md5_copied[@]}")" -v t="$(best "${md5_synced[@]}")" -v u="$(best "${sums[@]}")" \
    -v k="$(printf '%s\n' "${memory[@]}" | sort -n | tail -n 1)" 'BEGIN {
    printf "copy                  %8.1f MiB/s  (%.3f s)\n", n / c, c
    printf "cp                    %8.1f MiB/s  (%.3f s)\n", n / p, p
    printf "copy and publish      %8.1f MiB/s  (%.3f s)\n", n / s, s
    printf "cp and sync           %8.1f MiB/s  (%.3f s)\n", n / q, q
    printf "copy with MD5         %8.1f MiB/s  (%.3f s)\n", n / m, m
    printf "  and publish         %8.1f MiB/s  (%.3f s)\n", n / t, t
    printf "md5sum alone          %8.1f MiB/s  (%.3f s)\n", n / u, u
    printf "copy / cp             %8.3f\n", p / c
    printf "publish / cp and sync %8.3f\n", q / s
    printf "with MD5 / md5sum     %8.3f\n", u / m
    printf "peak memory           %8.1f MiB\n", k / 1024 }'
