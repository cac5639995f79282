"""Engines that end and start again under running transcodes: it costs their workers nothing, and leaves nothing behind.

RQ_RESTARTS (6) and RQ_RESTART_SEED (the time) make more of it.
"""
import json
import os
import random
import re
import signal
import subprocess
import sys
import time
import unittest

import peer

RESTARTS = int(os.environ.get("RQ_RESTARTS", "6"))
SEED = int(os.environ.get("RQ_RESTART_SEED", str(int(time.time()))))
AT_ONCE = 3
SIZE, SECONDS = "320x180", 4
FAST, SLOW = "ultrafast", "veryslow"  # the second one meets several restarts

stage = None
clip = None
references = {}  # by preset


def setUpModule():
    global stage, clip
    stage = peer.Stage()
    unittest.addModuleCleanup(stage.remove)
    clip = os.path.join(stage.new_folder(), "clip 片.mkv")
    command = ([peer.STARTER] if peer.STARTER else []) + [
        os.environ["RQ_FFMPEG_COMMAND"], "-nostdin", "-v", "error", "-f", "lavfi", "-i",
        "testsrc2=r=25:s=%s:d=%d" % (SIZE, SECONDS), "-f", "lavfi", "-i", "sine=sample_rate=48000:d=%d" % SECONDS,
        "-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac", peer.as_seen(clip)]
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, timeout=100)


def text_of(target, preset, more=""):
    return ("<TranscodeTask><ID>%s</ID><Source><Path>%s</Path></Source><Target><Path>%s</Path><Container>mp4</Container>"
            "<Video><Codec>h264</Codec><Preset>%s</Preset>%s</Video></Target></TranscodeTask>"
            % (os.path.basename(target), peer.as_seen(clip), peer.as_seen(target), preset, more))


def bytes_of(path):
    with open(path, "rb") as file:
        return file.read()


def workers_of(engine):
    """The processes of the engine's workers, whoever their parent is."""
    found = []
    mark = os.path.basename(os.path.dirname(engine.data)).encode()
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            line = bytes_of("/proc/%s/cmdline" % name)
        except OSError:
            continue
        if b"RQWorkerU" in line and mark in line:
            found.append(int(name))
    return found


def wait_until(fits, seconds, what):
    until = time.monotonic() + seconds
    while not fits():
        if time.monotonic() > until:
            raise AssertionError("in %s s not: %s" % (seconds, what))
        time.sleep(0.05)


class Restarts(unittest.TestCase):
    def engine(self, limits, more=""):
        engine = peer.RealEngine(stage, "[engine]\nmax_workers = %d\n[limits]\n%s\n[retry]\n%s\n" % (AT_ONCE, limits, more))
        self.addCleanup(self.end, engine)
        self.targets = stage.new_folder()
        return engine

    def end(self, engine):
        engine.close()
        for pid in workers_of(engine):
            os.kill(pid, signal.SIGKILL)

    def submit(self, engine, number, preset=FAST, more=""):
        target = os.path.join(self.targets, "%d.mp4" % number)
        code, answer = engine.ask("POST", "/tasks", {"type": "tc", "text": text_of(target, preset, more)})
        self.assertEqual(code, 201, answer)
        return answer["id"], target

    def reference(self, preset=FAST):
        """What the transcode makes when nobody disturbs it."""
        if preset in references:
            return references[preset]
        engine = self.engine("resume_s = 60")
        submitted = [self.submit(engine, 9000 + number, preset) for number in range(2)]
        for task, _ in submitted:
            engine.wait_for_task(task, lambda found: found["state"] == "finished", 60)
        made = [bytes_of(target) for _, target in submitted]
        self.assertEqual(made[0], made[1], "two undisturbed runs differ")
        self.assertEqual(engine.ask("POST", "/shutdown", {"cancel": True})[0], 202)
        engine.process.wait(30)
        references[preset] = made[0]
        return made[0]

    def restart(self, engine, orderly, pause):
        if orderly:
            self.assertEqual(engine.ask("POST", "/shutdown")[0], 202)
            self.assertEqual(engine.process.wait(20), 0)
        else:
            engine.kill()
        time.sleep(pause)
        engine.start()

    def expect_once(self, engine, task_id, target, expected):
        task = engine.wait_for_task(task_id, lambda found: found["state"] in ("finished", "failed", "lost", "cancelled"), 90)
        events = engine.events(task_id)
        told = json.dumps([task, events], indent=1)
        self.assertEqual(task["state"], "finished", told)
        kinds = [event["kind"] for event in events]
        # An engine that was killed while it started a worker has done nothing yet.
        undone = kinds.count("start-undone")
        self.assertEqual(task["attempts"], 1 + undone, told)
        self.assertEqual(kinds.count("claimed"), 1 + undone, told)
        self.assertEqual(kinds.count("final"), 1, told)
        # On Windows it may leave a process that never runs.
        killed = [event["data"]["rule"] for event in events if event["kind"] == "killed"]
        self.assertEqual([rule for rule in killed if rule != "no-connection"], [], told)
        self.assertLessEqual(len(killed), undone, told)
        for kind in ("lost", "repeat", "late-status", "late-worker"):
            self.assertNotIn(kind, kinds, told)
        self.assertEqual(bytes_of(target), expected, "%s is not what an undisturbed run makes" % target)

    def expect_nothing_left(self, engine, targets):
        wait_until(lambda: not workers_of(engine), 20, "every worker is gone")
        # The engine hears of the end of the last one.
        for folder in ("params", "spool"):
            wait_until(lambda: not os.listdir(os.path.join(engine.data, folder)), 10, folder + " is empty")
        self.assertEqual(sorted(os.listdir(self.targets)), sorted(os.path.basename(target) for target in targets))

    def test_restarts_cost_nothing(self):
        print("seed %d, %d restarts" % (SEED, RESTARTS), file=sys.stderr)
        chance = random.Random(SEED)
        expected = {preset: self.reference(preset) for preset in (FAST, SLOW)}
        engine = self.engine("resume_s = 60")
        tasks, open_tasks, number, met = {}, set(), 0, 0
        began = time.monotonic()
        for i in range(RESTARTS):
            open_tasks = {task for task in open_tasks if engine.get("/tasks/" + task)["state"] != "finished"}
            while len(open_tasks) < AT_ONCE:
                preset = SLOW if number % 2 else FAST
                task, target = self.submit(engine, number, preset)
                tasks[task] = (target, preset)
                open_tasks.add(task)
                number += 1
            time.sleep(chance.uniform(0, 1.2))
            met += len(workers_of(engine))
            self.restart(engine, i % 2 == 0, chance.uniform(0, 0.5))
        for task, (target, preset) in tasks.items():
            self.expect_once(engine, task, target, expected[preset])
        self.expect_nothing_left(engine, [target for target, _ in tasks.values()])
        outputs = os.listdir(os.path.join(engine.data, "logs", "workers"))
        self.assertEqual(len(outputs), len(tasks), "a worker was started twice: %r" % outputs)
        resumed = sum(event["kind"] == "resumed" for task in tasks for event in engine.events(task))
        print("%d tasks, %d workers met a restart, %d sessions went on, %.0f s"
              % (len(tasks), met, resumed, time.monotonic() - began), file=sys.stderr)
        self.assertGreater(met, 0)
        self.assertGreater(resumed, 0, "no session went on: the restarts met nobody")

    def test_without_an_engine_nothing_stays(self):
        engine = self.engine("resume_s = 2", "attempts = 1")
        # Longer than its window by far.
        task, target = self.submit(engine, 1, SLOW, "<Width_px>1920</Width_px><Height_px>1080</Height_px>")
        engine.wait_for_task(task, lambda found: found["state"] == "running", 30)
        engine.kill()
        time.sleep(0.3)
        self.assertTrue(workers_of(engine), "the worker waits")
        wait_until(lambda: not workers_of(engine), 40, "the worker is gone after its window")
        self.assertEqual(os.listdir(self.targets), [])
        engine.start()
        state = engine.wait_for_task(task, lambda found: found["state"] in ("lost", "cancelled", "failed", "finished"), 30)["state"]
        self.assertIn(state, ("lost", "cancelled"))
        self.expect_nothing_left(engine, [])

    def test_a_final_status_in_the_spool_counts(self):
        expected = self.reference()
        engine = self.engine("resume_s = 60", "attempts = 2")
        task, target = self.submit(engine, 1)
        engine.wait_for_task(task, lambda found: found["state"] == "running", 30)
        engine.kill()
        spool = os.path.join(engine.data, "spool")
        wait_until(lambda: [name for name in os.listdir(spool) if re.fullmatch(r"[0-9a-f]+\.final", name)], 60,
                   "the worker leaves its final status")
        for pid in workers_of(engine):
            os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not workers_of(engine), 20, "the worker is gone")
        engine.start()
        self.expect_once(engine, task, target, expected)
        self.expect_nothing_left(engine, [target])


if __name__ == "__main__":
    unittest.main()
