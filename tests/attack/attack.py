"""Attacks on a running engine from its own machine, measured: what its user notices meanwhile, and what it costs the engine.

  attack.py [--seconds N] [--connections N] [--files N] [ATTACK...]     (RQ_STAGE names the stage)

Each attack runs in processes of its own against a fresh engine, while tasks are submitted through rqctl and run by real workers,
and a foreign worker shakes hands again and again. `--files` is the engine's limit of open files. A line is printed for each attack;
the exit code is 1 when the engine died, a task was lost or repeated, or an answer took longer than `PATIENCE`.
"""

import argparse
import json
import multiprocessing
import os
import resource
import socket
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "wire"))
import peer  # noqa: E402

PATIENCE_S = 5.0
MD5_TASK = "<MD5Task><ID>a</ID><Files><File><Path>%s</Path></File></Files></MD5Task>"


class Target:
    """What an attacker is told."""

    def __init__(self, engine, connections):
        self.link, self.http, self.token, self.connections = engine.link_port, engine.http_port, engine.token, connections


def keep_open(port, count, each=None, first=b""):
    """Keeps so many connections open for ever, made anew when they are closed; `each` is sent once a second on each."""
    live = []
    while True:
        began = time.monotonic()
        while len(live) < count:
            try:
                sock = socket.create_connection(("127.0.0.1", port), 5)
                sock.setblocking(False)
                if first:
                    sock.send(first)
                live.append(sock)
            except OSError:
                break
            if time.monotonic() - began > 0.5:
                break
        still = []
        for sock in live:
            try:
                if each:
                    sock.send(each)
                if sock.recv(4096, socket.MSG_DONTWAIT) != b"":
                    still.append(sock)
                else:
                    sock.close()
            except BlockingIOError:
                still.append(sock)
            except OSError:
                sock.close()
        live = still
        time.sleep(max(0.0, 0.1 if len(live) < count else 1.0 - (time.monotonic() - began)))


def authorised(target, line, more=""):
    return ("%s HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer %s\r\n%s\r\n" % (line, target.token, more)).encode()


def silent_link(target):
    keep_open(target.link, target.connections)


def silent_http(target):
    keep_open(target.http, target.connections)


def trickle_link(target):
    keep_open(target.link, target.connections, b"\x10", struct.pack("<I", 60000))


def trickle_http(target):
    keep_open(target.http, target.connections, b"a", b"GET / HTTP/1.1\r\nX: ")


def half_frame(target):
    keep_open(target.link, target.connections, None, struct.pack("<I", 65536) + b"\x22" * 65000)


def half_header(target):
    keep_open(target.http, target.connections, None, b"GET / HTTP/1.1\r\nX: " + b"a" * 16000)


def half_body(target):
    """By somebody who has the token."""
    head = authorised(target, "POST /api/v1/tasks", "Content-Length: 16777216\r\n")
    keep_open(target.http, target.connections, b" " * 65536, head + b" " * 65536)


def slow_reader(target):
    """The same, of large answers."""
    keep_open(target.http, target.connections, None, authorised(target, "GET /api/v1/tasks/t1"))


def waiting_polls(target):
    keep_open(target.http, target.connections, None, authorised(target, "GET /api/v1/tasks/t1/events?after=999999&wait_ms=30000"))


def pipeline(target):
    """Requests without end, no answer read."""
    keep_open(target.http, 50, authorised(target, "GET /api/v1/health") * 200)


def deep_json(target):
    body = b'{"type": "mc", "text": ' + b"[" * 8_000_000 + b"]" * 8_000_000 + b"}"
    wide = b'{"type": "mc", "text": "x", "y": [' + b"[],[[]]," * 1_900_000 + b"0]}"
    while True:
        for text in (body, wide):
            try:
                sock = socket.create_connection(("127.0.0.1", target.http), 5)
                sock.settimeout(20)
                sock.sendall(authorised(target, "POST /api/v1/tasks", "Content-Length: %d\r\n" % len(text)) + text)
                sock.recv(65536)
                sock.close()
            except OSError:
                pass


def garbage(target):
    junk = os.urandom(70000)
    while True:
        for port in (target.link, target.http):
            try:
                sock = socket.create_connection(("127.0.0.1", port), 5)
                sock.sendall(junk)
                sock.close()
            except OSError:
                pass


def churn(target):
    """Comes and goes as fast as it can."""
    while True:
        for port in (target.link, target.http):
            try:
                sock = socket.create_connection(("127.0.0.1", port), 5)
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                sock.close()
            except OSError:
                pass


def guesses(target):
    """Wrong tokens, one after the other on a connection."""
    request = authorised(target, "GET /api/v1/health").replace(target.token.encode(), b"0" * 64)
    while True:
        try:
            sock = socket.create_connection(("127.0.0.1", target.http), 5)
            sock.settimeout(5)
            while True:
                sock.sendall(request)
                if not sock.recv(65536):
                    break
        except OSError:
            pass


def one_connection(target):
    """100,000 requests on one connection, again and again."""
    request = authorised(target, "GET /api/v1/health")
    while True:
        sock = socket.create_connection(("127.0.0.1", target.http), 5)
        for _ in range(100_000):
            sock.sendall(request)
            if not sock.recv(65536):
                break


def nothing(_target):
    time.sleep(3600)


ATTACKS = {one.__name__: one for one in (
    nothing, silent_link, silent_http, trickle_link, trickle_http, half_frame, half_header, half_body, slow_reader, waiting_polls,
    pipeline, deep_json, garbage, churn, guesses, one_connection)}


class Engine(peer.RealEngine):
    """An engine with a limit of open files."""

    def __init__(self, stage, files):
        if files:
            self.BEFORE = ["sh", "-c", 'ulimit -n %d; exec "$@"' % files, "sh"]
        super().__init__(stage)

    def rss_mib(self, peak=False):
        with open("/proc/%d/status" % self.process.pid, encoding="ascii") as file:
            found = [line for line in file if line.startswith("VmHWM" if peak else "VmRSS")]
        return int(found[0].split()[1]) // 1024

    def open_files(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))

    def cpu_s(self):
        with open("/proc/%d/stat" % self.process.pid, encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Probe(threading.Thread):
    """Does something again and again, and notes how long it took and how often it failed."""

    def __init__(self, what, pause_s):
        super().__init__(daemon=True)
        self.what, self.pause_s = what, pause_s
        self.times, self.faults, self.over = [], [], False

    def run(self):
        while not self.over:
            began = time.monotonic()
            try:
                self.what()
            except Exception as problem:  # noqa: BLE001: everything is a finding
                self.faults.append("%s: %s" % (type(problem).__name__, problem))
            self.times.append(time.monotonic() - began)
            time.sleep(self.pause_s)

    def end(self):
        self.over = True
        self.join(60)

    def text(self):
        worst = max(self.times, default=0.0) * 1000
        middle = sorted(self.times)[len(self.times) // 2] * 1000 if self.times else 0.0
        return "%d/%d failed, %.0f ms, worst %.0f" % (len(self.faults), len(self.times), middle, worst)

    def is_bad(self):
        return bool(self.faults) or not self.times or max(self.times) > PATIENCE_S


class Trial:
    def __init__(self, stage, files):
        self.stage = stage
        self.engine = Engine(stage, files)
        self.film = os.path.join(stage.new_folder(), "film.bin")
        with open(self.film, "wb") as file:
            file.truncate(200_000_000)
        self.tasks = []
        large = MD5_TASK % self.film + "<!-- %s -->" % ("x" * 4_000_000)
        assert self.engine.ask("POST", "/tasks", {"type": "mc", "text": large})[0] == 201

    def submit(self):
        done = subprocess.run(peer.program(self.stage.folder, "rqctl") +
                              ["--data", self.engine.data, "submit", "md5", self.film], stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=30, check=False)
        if done.returncode:
            raise AssertionError(done.stderr.decode())
        self.tasks.append(done.stdout.decode().split()[0])

    def shake_hands(self):
        link, answer = self.engine.shake_hands()
        self.engine.links.remove(link)
        link.close()
        if answer.id != peer.ID_WELCOME:
            raise AssertionError(repr(answer))

    def run(self, attack, target, seconds):
        before = self.engine.cpu_s()
        processes = [multiprocessing.Process(target=attack, args=(target,), daemon=True) for _ in range(1)]
        for process in processes:
            process.start()
        time.sleep(2)
        probes = {"rqctl": Probe(self.submit, 0.3), "worker": Probe(self.shake_hands, 0.3)}
        for probe in probes.values():
            probe.start()
        rss, files = 0, 0
        until = time.monotonic() + seconds
        while time.monotonic() < until and self.engine.process.poll() is None:
            rss, files = max(rss, self.engine.rss_mib()), max(files, self.engine.open_files())
            time.sleep(0.2)
        for probe in probes.values():
            probe.end()
        for process in processes:
            process.kill()
        if self.engine.process.poll() is not None:
            return ["the engine died: %d" % self.engine.process.returncode], probes, rss, files, 0
        cpu = self.engine.cpu_s() - before
        time.sleep(1)
        return self.faults(), probes, rss, files, cpu

    def faults(self):
        """What became of the tasks, once all is quiet."""
        faults = []
        for task in self.tasks:
            full = self.engine.wait_for_task(task, lambda one: one["state"] in ("finished", "failed", "cancelled", "lost"), 120)
            if full["state"] != "finished" or full["attempts"] != 1:
                faults.append("%s %s after %d attempts" % (task, full["state"], full["attempts"]))
        return faults


def main():
    parser = argparse.ArgumentParser(description="Attacks on a running engine, measured.")
    parser.add_argument("attacks", nargs="*", default=list(ATTACKS), metavar="ATTACK", help=", ".join(ATTACKS))
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--connections", type=int, default=5000)
    parser.add_argument("--files", type=int, default=0)
    options = parser.parse_args()
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    stage = peer.Stage()
    bad = False
    try:
        for name in options.attacks:
            trial = Trial(stage, options.files)
            try:
                faults, probes, rss, files, cpu = trial.run(
                    ATTACKS[name], Target(trial.engine, options.connections), options.seconds)
                print("%-14s %d tasks; %s; rss %d MiB; %d files; cpu %.1f s%s" % (
                    name, len(trial.tasks), "; ".join("%s: %s" % (who, probe.text()) for who, probe in probes.items()),
                    rss, files, cpu, "".join("; " + fault for fault in faults[:3])), flush=True)
                for probe in probes.values():
                    for fault in sorted(set(probe.faults))[:2]:
                        print("    " + fault.strip().replace("\n", " ")[:200], flush=True)
                bad = bad or bool(faults) or any(probe.is_bad() for probe in probes.values())
            finally:
                trial.engine.close()
    finally:
        stage.remove()
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
