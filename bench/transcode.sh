#!/usr/bin/env bash
# transcode.sh [SECONDS] [ROUNDS]: how many frames a second the transcode plug-in makes (20 s of 1280x720, 5 rounds), beside the
# ffmpeg command with the same settings on the same source. Both run in turns, so that a busy machine hinders both alike; the
# figure of each is its best round. Three settings: one that the encoder dominates, one that decoding and scaling do, and
# MPEG-2. The time that the command takes to start is measured without work, and taken off. Beside it the processor's
# seconds of both, which say more when the machine is not idle.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-20}
rounds=${2:-5}
build=${RQ_BUILD:-$top/build/linux}

if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux bench_transcode; else ninja -C "$build" bench_transcode >/dev/null; fi

folder=$(mktemp -d)
trap 'rm -rf -- "$folder"' EXIT
ffmpeg -nostdin -v error -f lavfi -i "testsrc2=s=1280x720:r=25:d=$seconds" -f lavfi -i "sine=sample_rate=48000:d=$seconds" \
    -c:v libx264 -preset veryfast -crf 18 -g 50 -c:a aac -shortest "$folder/source.mp4"

best() { printf '%s\n' "$@" | sort -n | head -n 1; }

# timed COMMAND...: sets took_s and processor_s.
TIMEFORMAT='%R %U %S'
timed() {
    local times
    times=$({ time "$@" >/dev/null 2>"$folder/errors"; } 2>&1) || { cat "$folder/errors" >&2; exit 1; }
    read -r took_s processor_s < <(awk '{ print $1, $2 + $3 }' <<<"$times")
}

start_up=() start_up_processor=()
for ((i = 0; i < rounds; i++)); do
    timed ffmpeg -nostdin -v error -version
    start_up+=("$took_s") start_up_processor+=("$processor_s")
done
start_up_s=$(best "${start_up[@]}")
start_up_processor_s=$(best "${start_up_processor[@]}")

# compare NAME VIDEO_AND_AUDIO ARGUMENTS...: the plug-in with these elements, the command with these arguments.
compare() {
    local name=$1 elements=$2
    shift 2
    cat >"$folder/task.xml" <<END
<TranscodeTask><ID>bench</ID><Source><Path>$folder/source.mp4</Path></Source>
<Target><Path>$folder/plugin.mp4</Path><Container>mp4</Container><Overwrite>true</Overwrite>$elements</Target></TranscodeTask>
END
    local plugin=() plugin_processor=() other=() other_processor=() frames='' took='' processor=''
    for ((i = 0; i < rounds; i++)); do
        read -r took processor frames < <("$build/plugins/transcode/bench_transcode" "$folder/task.xml")
        plugin+=("$took") plugin_processor+=("$processor")
        # The plug-in's target is on the disk when it is done; so is this one.
        timed bash -c 'ffmpeg -nostdin -v error -y "$@" && sync "${@: -1}"' _ -i "$folder/source.mp4" "$@" "$folder/command.mp4"
        other+=("$took_s") other_processor+=("$processor_s")
    done
    local made
    made=$(ffprobe -v error -select_streams v -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$folder/command.mp4" | tr -cd 0-9)
    [ "$made" = "$frames" ] || { echo "transcode.sh: $name: the plug-in made $frames frames, the command $made" >&2; exit 1; }
    awk -v p="$(best "${plugin[@]}")" -v o="$(best "${other[@]}")" -v s="$start_up_s" -v n="$frames" -v name="$name" \
        -v pc="$(best "${plugin_processor[@]}")" -v oc="$(best "${other_processor[@]}")" -v sc="$start_up_processor_s" 'BEGIN {
        o -= s; oc -= sc
        printf "%s\n  plug-in %8.1f frames/s  %.3f s, processor %.2f s\n", name, n / p, p, pc
        printf "  ffmpeg  %8.1f frames/s  %.3f s, processor %.2f s\n", n / o, o, oc
        printf "  plug-in / ffmpeg %.3f, by processor %.3f\n", o / p, oc / pc }'
}

echo "load: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) processors; ffmpeg starts in $start_up_s s"
compare "h264 medium, same size" \
    "<Video><Codec>h264</Codec><Preset>medium</Preset><Quality>23</Quality></Video><Audio><Codec>aac</Codec><BitRate_kbps>128</BitRate_kbps></Audio>" \
    -c:v libx264 -preset medium -crf 23 -g 250 -c:a aac -b:a 128k
compare "h264 ultrafast, 640x360" \
    "<Video><Codec>h264</Codec><Preset>ultrafast</Preset><Quality>23</Quality><Width_px>640</Width_px><Height_px>360</Height_px></Video><Audio><Codec>aac</Codec><BitRate_kbps>128</BitRate_kbps></Audio>" \
    -vf scale=640:360:flags=bicubic -c:v libx264 -preset ultrafast -crf 23 -g 250 -c:a aac -b:a 128k
compare "mpeg2video, same size" \
    "<Video><Codec>mpeg2video</Codec><Quality>5</Quality></Video><Audio><Codec>aac</Codec><BitRate_kbps>128</BitRate_kbps></Audio>" \
    -c:v mpeg2video -q:v 5 -g 12 -c:a aac -b:a 128k
