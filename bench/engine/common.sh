# What the scripts that measure the real engine share: a stage with a plug-in whose tasks do nothing, servers, medians.
# Sourced by bench/package.sh, bench/submit.sh and bench/idle.sh, which set `targets` before.
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
build=${RQ_BUILD:-$top/build/linux}
pin=(taskset -c "${RQ_BENCH_CPU:-$(($(nproc) - 1))}")
PATH=$PATH:/usr/sbin
if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux "${targets[@]}"; else ninja -C "$build" "${targets[@]}" >/dev/null; fi
bench=$build/bench

# On the disk, where the machine has one: what is synced must get there.
folder=$(mktemp -d "${RQ_BENCH_FOLDER:-$build}/bench.XXXXXX")
servers=()
finish() {
    [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}" 2>/dev/null || true
    for server in "${servers[@]}"; do wait "$server" 2>/dev/null || true; done
    rm -rf -- "$folder"
}
trap finish EXIT

stage=$folder/stage
mkdir -p "$stage/plugins/noop"
cp "$build/stage/RQWorkerU" "$build/stage/rqengine" "$build/stage/libCrashDump.so" "$top/data/worker.uid" "$top/data/KWROVLApparitor.ini" "$build/stage/actor.xml" "$stage"
cp "$bench/noop.so" "$top/data/worker.uid" "$stage/plugins/noop"
echo '<WorkerConfig><WORKER><TYPE>14</TYPE><PATH>plugins/noop/noop.so</PATH></WORKER></WorkerConfig>' >"$stage/RQWorkerConfig.xml"

need() {
    for command in "$@"; do
        command -v "$command" >/dev/null || { echo "${0##*/}: $command is missing; run: scripts/setup bench" >&2; exit 1; }
    done
}
free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# serve PORT COMMAND...: until it answers.
serve() {
    local port=$1
    shift
    "${pin[@]}" "$@" >/dev/null 2>&1 &
    servers+=($!)
    for ((i = 0; i < 200; i++)); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return
        sleep 0.1
    done
    echo "${0##*/}: $1 does not answer" >&2
    exit 1
}
# engine NAME DURABILITY: one with a data folder of its own; its port, its token and its process are in ${port[NAME]} and so on.
declare -A port token process link
engine() {
    local data=$folder/$1
    mkdir -p "$data"
    chmod 700 "$data"
    printf '[engine]\nmax_workers = 1\n[store]\ndurability = "%s"\n' "$2" >"$data/engine.toml"
    port[$1]=$(free_port)
    link[$1]=$(free_port)
    serve "${port[$1]}" "$stage/rqengine" --data "$data" --port "${link[$1]}" --http-port "${port[$1]}"
    process[$1]=${servers[-1]}
    token[$1]=$(cat "$data/engine.token")
}

declare -A figures
# keep NAME VALUE: one round's figure.
keep() { figures[$1]+="$2 "; }
median() { tr ' ' '\n' | grep . | sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
of() { median <<<"${figures[$1]}"; }
# ratio A B: the median of A / B over the rounds.
ratio() { paste -d' ' <(tr ' ' '\n' <<<"${figures[$1]}") <(tr ' ' '\n' <<<"${figures[$2]}") | awk 'NF == 2 { print $1 / $2 }' | median; }
