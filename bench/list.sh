#!/usr/bin/env bash
# list.sh [TASKS] [ROUNDS]: how long the engine's answers over many tasks take (100,000 tasks, 51 rounds).
# The store is filled behind the engine's back, since workers would take hours for it: of ten tasks seven have finished,
# one failed, one was lost and one is queued, in four types, each with a text of 2 KiB, and one of a hundred queued ones
# declares memory. Nothing is started (drained). Each figure is that of a request on a connection that stays open, in
# milliseconds: the median of its rounds, the shortest and the longest, and the engine's processor time on average, which a
# machine that does other things too spoils least. A list is to take less than 50 ms of it.
set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=${RQ_BUILD:-$top/build/linux}
if [ -z "${RQ_BUILD:-}" ]; then "$top/scripts/build" linux rqengine; else ninja -C "$build" rqengine >/dev/null; fi
folder=$(mktemp -d)
engine=
finish() {
    [ -z "$engine" ] || kill "$engine" 2>/dev/null || true
    [ -z "$engine" ] || wait "$engine" 2>/dev/null || true
    rm -rf -- "$folder"
}
trap finish EXIT

start() {
    "$build/stage/rqengine" --data "$folder/data" --port 0 --http-port 0 >"$folder/out" 2>&1 &
    engine=$!
    for _ in $(seq 600); do
        [ ! -f "$folder/data/engine.json" ] || return 0
        kill -0 "$engine" 2>/dev/null || { cat "$folder/out" >&2; exit 1; }
        sleep 0.1
    done
    echo "list.sh: the engine did not start" >&2
    exit 1
}
end() {
    kill "$engine"
    wait "$engine" || true
    engine=
}

start
end
python3 - "$folder/data/store.db" "${1:-100000}" <<'PY'
import sqlite3, sys, time

path, count = sys.argv[1], int(sys.argv[2])
store = sqlite3.connect(path)
now = int(time.time() * 1e6)
text = "<Task>" + "x" * 2036 + "</Task>"
states = ["finished"] * 7 + ["failed", "lost", "queued"]
types = [3, 3, 1, 0, 4]
with store:
    store.execute("INSERT INTO stops (type, since_us, reason) VALUES (-2, ?, 'drained for the bench')", (now,))
    for i in range(1, count + 1):
        state, began = states[i % 10], now - (count - i) * 1000
        ended = state != "queued"
        store.execute(
            "INSERT INTO tasks (id, public_id, type, name, origin, text, state, reason, created_us, started_us, finished_us,"
            " attempts, last_attempt, memory_mib, priority) VALUES (?,?,?,?,'api',?,?,?,?,?,?,?,?,?,?)",
            (i, f"t{i}", types[i % 5], f"film {i}.mxf", text, state, "why" if state in ("failed", "lost") else None, began,
             began if ended else None, began + 900 if ended else None, int(ended), i if ended else None,
             64 if i % 1000 == 9 else 0, 40 + i % 20))
        if ended:
            store.execute(
                "INSERT INTO attempts (id, task, number, token, state, created_us, started_us, finished_us, percent, speed)"
                " VALUES (?,?,1,?,?,?,?,?,100,50)", (i, i, f"{i:032x}", state, began, began, began + 900))
        for kind in ("submitted", "state"):
            store.execute("INSERT INTO events (task, time_us, kind, json) VALUES (?,?,?,'{\"state\":\"queued\"}')",
                          (i, began, kind))
PY
start
python3 - "$folder/data" "${1:-100000}" "${2:-51}" <<'PY'
import http.client, json, os, statistics, sys, time

data, count, rounds = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
with open(data + "/engine.json") as file:
    engine = json.load(file)
with open(data + "/engine.token") as file:
    headers = {"Authorization": "Bearer " + file.read().strip()}
http_link = http.client.HTTPConnection("127.0.0.1", engine["http_port"])

def ask(target):
    http_link.request("GET", target, headers=headers)
    answer = http_link.getresponse()
    body = answer.read()
    if answer.status != 200:
        sys.exit(f"list.sh: {target}: {answer.status} {body[:300]!r}")
    return body

total = len(json.loads(ask("/api/v1/tasks?limit=1000"))["tasks"])
if total != min(1000, count):
    sys.exit(f"list.sh: the store has {total} tasks on a page")
last = count - count % 10 or count
cases = [
    ("list, first page of 100", "/api/v1/tasks"),
    ("list, first page of 1000", "/api/v1/tasks?limit=1000"),
    ("list, queued", "/api/v1/tasks?state=queued"),
    ("list, queued or failed", "/api/v1/tasks?state=queued,failed"),
    ("list, running (none)", "/api/v1/tasks?state=running"),
    ("list, all that have not ended", "/api/v1/tasks?limit=1000&state=queued,starting,running,paused,finishing"),
    ("list, last page", "/api/v1/tasks?after=t101"),
    ("list, last page of the failed", "/api/v1/tasks?state=failed&after=t1000"),
    ("health", "/api/v1/health"),
    ("explain, a queued task", f"/api/v1/tasks/t{last - 1}/explain"),
    ("metrics", "/metrics"),
]
def processor_ms():
    with open(f"/proc/{engine['pid']}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) * 1000 / os.sysconf("SC_CLK_TCK")

print(f"{count} tasks, {rounds} rounds, ms" + " " * 10 + "median  shortest   longest  processor")
used = {}
for name, target in cases:
    times, before = [], processor_ms()
    for _ in range(rounds):
        begun = time.perf_counter()
        ask(target)
        times.append((time.perf_counter() - begun) * 1e3)
    used[name] = (processor_ms() - before) / rounds
    print(f"{name:<34}{statistics.median(times):>10.2f}{min(times):>10.2f}{max(times):>10.2f}{used[name]:>11.2f}")
slow = [name for name in used if name.startswith("list") and used[name] >= 50]
if slow:
    sys.exit("list.sh: 50 ms of processor time or more: " + ", ".join(slow))
PY
end
