"""The engine is killed at random moments while tasks come in and end; a ledger of what it acknowledged is held against its store.

RQ_KILL_ROUNDS (10) and RQ_KILL_SEED (the time) make more of it; RQ_KILL_DURABILITY is "power" or "process".
"""
import http.client
import json
import os
import random
import signal
import sqlite3
import sys
import threading
import time
import unittest

import peer

ROUNDS = int(os.environ.get("RQ_KILL_ROUNDS", "10"))
SEED = int(os.environ.get("RQ_KILL_SEED", str(int(time.time()))))
DURABILITY = os.environ.get("RQ_KILL_DURABILITY", "power")
SUBMITTERS = 3
ENDED = ("finished", "failed", "cancelled")


class Ledger:
    """What the engine has acknowledged. Any thread."""

    def __init__(self):
        self.lock = threading.Lock()
        self.names = {}  # by ID, of acknowledged submissions
        self.unanswered = set()  # names of which nobody knows
        self.ended = {}  # state and result of tasks that somebody was shown as ended


class Submitter(threading.Thread):
    def __init__(self, engine, ledger, text, number):
        super().__init__()
        self.engine, self.ledger, self.text, self.number = engine, ledger, text, number

    def run(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.engine.http_port, timeout=20)
        try:
            headers = {"Authorization": "Bearer " + self.engine.token, "Content-Type": "application/json"}
            while True:
                name = "n%d-%d" % (self.number, random.getrandbits(60))
                with self.ledger.lock:
                    self.ledger.unanswered.add(name)
                connection.request("POST", "/api/v1/tasks",
                                   json.dumps({"type": "mc", "text": self.text, "name": name}), headers)
                answer = connection.getresponse()
                body = json.loads(answer.read())
                if answer.status != 201:
                    raise AssertionError("%d %r" % (answer.status, body))
                with self.ledger.lock:
                    self.ledger.names[body["id"]] = name
                    self.ledger.unanswered.discard(name)
                time.sleep(random.random() * 0.02)
        except (OSError, http.client.HTTPException, ValueError):
            pass  # the engine is gone
        finally:
            connection.close()


class Watcher(threading.Thread):
    """Notes what the engine shows as ended."""

    def __init__(self, engine, ledger):
        super().__init__()
        self.engine, self.ledger = engine, ledger

    def run(self):
        try:
            while True:
                status, page = self.engine.ask("GET", "/tasks?limit=50&state=" + ",".join(ENDED))
                for task in page["tasks"] if status == 200 else []:
                    if task["id"] not in self.ledger.ended:
                        full = self.engine.get("/tasks/" + task["id"])
                        self.ledger.ended[task["id"]] = (full["state"], full["result"])
                time.sleep(0.05)
        except (OSError, http.client.HTTPException, ValueError, AssertionError):
            pass


def end_workers(stage):
    """Workers of a killed engine that had not connected yet try for ever: ends those of this stage."""
    mine = os.path.join(stage.folder, "RQWorkerU").encode()
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open("/proc/%s/cmdline" % entry, "rb") as file:
                    if file.read().split(b"\0")[0] == mine:
                        os.kill(int(entry), signal.SIGKILL)
            except OSError:
                pass


class StoreSurvives(unittest.TestCase):
    def setUp(self):
        self.stage = peer.Stage()
        self.addCleanup(self.stage.remove)
        self.addCleanup(end_workers, self.stage)
        film = os.path.join(self.stage.new_folder(), "film.bin")
        with open(film, "wb") as file:
            file.write(b"content")
        self.text = "<MD5Task><ID>x</ID><Files><File><Path>%s</Path></File></Files></MD5Task>" % film
        self.data = os.path.join(self.stage.new_folder(), "data")

    def engine_on(self):
        os.makedirs(self.data, 0o700, exist_ok=True)
        with open(os.path.join(self.data, "engine.toml"), "w", encoding="ascii") as file:
            file.write('[engine]\nmax_workers = 2\n[store]\ndurability = "%s"\n' % DURABILITY)
        engine = peer.RealEngine.__new__(peer.RealEngine)
        engine.stage, engine.data, engine.process, engine.links = self.stage, self.data, None, []
        engine.start()
        return engine

    def check(self, ledger):
        store = sqlite3.connect(os.path.join(self.data, "store.db"))
        try:
            self.assertEqual(store.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            self.assertEqual(store.execute("PRAGMA foreign_key_check").fetchall(), [])
            names = dict(store.execute("SELECT public_id, name FROM tasks"))
            states = dict(store.execute("SELECT public_id, state FROM tasks"))
            bare = store.execute("SELECT count(*) FROM tasks WHERE id NOT IN (SELECT task FROM events WHERE kind = "
                                 "'submitted')").fetchone()
        finally:
            store.close()
        self.assertEqual(bare, (0,), "a task without its events")
        for task_id, name in ledger.names.items():
            self.assertEqual(names.get(task_id), name, "acknowledged and not there")
        for task_id, (state, _) in ledger.ended.items():
            self.assertEqual(states.get(task_id), state, "its end was shown and is not there")
        strangers = set(names.values()) - set(ledger.names.values()) - ledger.unanswered
        self.assertEqual(strangers, set(), "nobody submitted these")
        self.assertEqual(len(set(names.values())), len(names), "a submission is there twice")

    def test_what_was_acknowledged_is_there(self):
        random.seed(SEED)
        ledger = Ledger()
        for number in range(ROUNDS):
            with self.subTest(seed=SEED, round=number):
                engine = self.engine_on()
                threads = [Submitter(engine, ledger, self.text, one) for one in range(SUBMITTERS)]
                threads.append(Watcher(engine, ledger))
                for thread in threads:
                    thread.start()
                time.sleep(random.random() * 0.8)
                engine.kill()
                for thread in threads:
                    thread.join()
                end_workers(self.stage)
                self.check(ledger)
        self.assertGreater(len(ledger.names), ROUNDS)
        print("%d rounds, seed %d, durability %s: %d submissions acknowledged, %d not answered, %d ends shown" % (
            ROUNDS, SEED, DURABILITY, len(ledger.names), len(ledger.unanswered), len(ledger.ended)))
        # And an engine that nobody kills shows the same results as before.
        engine = self.engine_on()
        self.addCleanup(engine.close)
        for task_id, (state, result) in random.sample(sorted(ledger.ended.items()), min(20, len(ledger.ended))):
            task = engine.get("/tasks/" + task_id)
            self.assertEqual((task["state"], task["result"]), (state, result))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]])
