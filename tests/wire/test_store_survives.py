"""The engine is killed at random moments while tasks come in and end; a ledger of what it acknowledged is held against its store.

RQ_KILL_ROUNDS (10) and RQ_KILL_SEED (the time) make more of it; RQ_KILL_DURABILITY is "power" or "process".
"""
import hashlib
import http.client
import json
import os
import random
import re
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
WORKERS = 3
ENDED = ("finished", "failed", "cancelled")


class Ledger:
    """What the engine has acknowledged. Any thread."""

    def __init__(self):
        self.lock = threading.Lock()
        self.names = {}  # by ID, of acknowledged submissions
        self.unanswered = set()  # names of which nobody knows
        self.finals = set()  # digests of final statuses that were acknowledged to their workers
        self.unsure = set()  # those of which nobody knows
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


class Workers(threading.Thread):
    """Workers started by hand, one after the other, each with a final status that no other has."""

    def __init__(self, engine, ledger):
        super().__init__()
        self.engine, self.ledger = engine, ledger

    def run(self):
        try:
            while True:
                link, answer = self.engine.shake_hands()
                if answer.id != peer.ID_WELCOME:
                    raise AssertionError("refused: %r" % (answer,))
                digest = "%032x" % random.getrandbits(128)
                link.send(peer.ID_NOTICE, {"version": "1.0", "worker_guid": "g", "task_id": digest})
                link.send(peer.ID_STATE, self.status(digest, {"status": 3}))
                with self.ledger.lock:
                    self.ledger.unsure.add(digest)
                final = {"status": 0, "md5": {"files": [{"mode": 1, "first": "/film", "computed_md5": digest}]}}
                link.wait_for_ack(link.send(peer.ID_STATE, self.status(digest, final)))
                with self.ledger.lock:
                    self.ledger.finals.add(digest)
                    self.ledger.unsure.discard(digest)
        except (OSError, peer.Closed, peer.Broken, peer.Silent):
            pass  # the engine is gone

    @staticmethod
    def status(task_id, entry):
        entry.update({"task_id": task_id, "task_type": 3, "error_text": "KWR_OVL_ERROR_0"})
        return {"id": 4009, "kind": "state", "sender": "Worker", "receiver": "Lite/Agent", "entries": [entry]}


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
        self.md5 = hashlib.md5(b"content").hexdigest()
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
            names = dict(store.execute("SELECT public_id, name FROM tasks WHERE origin = 'api'"))
            states = dict(store.execute("SELECT public_id, state FROM tasks"))
            results = [row[0] for row in store.execute(
                "SELECT results.json FROM results JOIN attempts ON attempts.id = results.attempt JOIN tasks ON tasks.id = "
                "attempts.task WHERE tasks.state = 'finished'")]
            bare = store.execute("SELECT count(*) FROM tasks WHERE id NOT IN (SELECT task FROM events WHERE kind = "
                                 "'submitted')").fetchone()
        finally:
            store.close()
        self.assertEqual(bare, (0,), "a task without its events")
        for task_id, name in ledger.names.items():
            self.assertEqual(names.get(task_id), name, "acknowledged and not there")
        for task_id, (state, _) in ledger.ended.items():
            self.assertEqual(states.get(task_id), state, "its end was shown and is not there")
        digests = [found for text in results for found in re.findall(r'"computed_md5": ?"([0-9a-f]{32})"', text)]
        kept = set(digests) - {self.md5}
        self.assertEqual(ledger.finals - kept, set(), "final statuses were acknowledged and are not there")
        self.assertEqual(kept - ledger.finals - ledger.unsure, set(), "nobody sent these")
        self.assertEqual(len([one for one in digests if one != self.md5]), len(kept), "a final status counts twice")
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
                threads += [Workers(engine, ledger) for _ in range(WORKERS)]
                threads.append(Watcher(engine, ledger))
                for thread in threads:
                    thread.start()
                time.sleep(random.random() * 0.8)
                engine.kill()
                for thread in threads:
                    thread.join()
                for link in engine.links:
                    link.close()
                end_workers(self.stage)
                self.check(ledger)
        self.assertGreater(len(ledger.names), ROUNDS)
        self.assertGreater(len(ledger.finals), ROUNDS)
        print("%d rounds, seed %d, durability %s: %d submissions acknowledged, %d not answered, %d final statuses "
              "acknowledged, %d not, %d ends shown" % (
            ROUNDS, SEED, DURABILITY, len(ledger.names), len(ledger.unanswered), len(ledger.finals),
            len(ledger.unsure), len(ledger.ended)))
        # And an engine that nobody kills shows the same results as before.
        engine = self.engine_on()
        self.addCleanup(engine.close)
        for task_id, (state, result) in random.sample(sorted(ledger.ended.items()), min(20, len(ledger.ended))):
            task = engine.get("/tasks/" + task_id)
            self.assertEqual((task["state"], task["result"]), (state, result))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]])
