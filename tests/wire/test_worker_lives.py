"""Whole lives of the real worker: a stall, packages, and a life that is journalled and done again by `rqctl replay`."""

import json
import os
import re
import subprocess
import unittest
import uuid

import peer
from peer import is_final, is_status

ORDER_UUID = "00112233-4455-6677-8899-aabbccddeeff"

stage = None


def setUpModule():
    global stage
    stage = peer.Stage()
    stage.set_parameter("ProgressPatrolTimeout", "2")
    unittest.addModuleCleanup(stage.remove)


def order(**values):
    return dict({"uuid": uuid.UUID(ORDER_UUID).bytes, "text": "why", "task_ids": ["T-1"]}, **values)


class LifeCase(unittest.TestCase):
    def start(self, text, **more):
        engine = peer.EnginePlace(stage, text, **more)
        self.addCleanup(engine.close)
        return engine

    def assert_says_goodbye(self, engine, link):
        link.wait_for(peer.ID_BYE, 20)
        link.close()
        engine.worker.wait(20)
        self.assertEqual(engine.worker.returncode, 0)

    def final(self, link, seconds=20, seen=None):
        entry = link.wait_for(is_final, seconds, seen).body["entries"][0]
        link.acknowledge()
        return entry


class Stall(LifeCase):
    def test_a_task_that_stands_still(self):
        stage.install_plugin("scripted", 3)
        engine = self.start("id T-1; progress 100 50; until-stop 100000")
        link, _ = engine.welcome()
        link.wait_for(is_status(3))
        seen = []
        patrol = self.final(link, seen=seen)
        self.assertIn(50.0, [frame.body["entries"][0]["percent"] for frame in seen if frame.id == peer.ID_PROGRESS])
        self.assertEqual((patrol["status"], patrol["task_type"], patrol["task_id"]), (4, 3, b"T-1"))
        self.assertEqual((patrol["detail_error_code"], patrol["error_code"], patrol["stalled"]), (0x80000001, 6, 1))
        self.assertTrue(patrol["error_text"])
        own = self.final(link)  # the plug-in left 5; a close by the patrol makes it an error
        self.assertEqual((own["status"], own["error_code"], own["stalled"]), (4, 0, 0))
        link.send(peer.ID_EXIT)
        self.assert_says_goodbye(engine, link)


    # Its own final status differs: the close of a task of type 14 leaves no mark by which 5 would become 4.
    def package(self, number, init, own_status):
        stage.install_plugin("scripted", number)
        engine = self.start("type %d; id P-1; progress 100 50; until-stop 100000" % number, task_type=str(number),
                            environment={"RQ_SCRIPT_INIT": init})
        link, _ = engine.welcome()
        seen = []
        self.final(link, seen=seen)
        link.send(4017, {"text": "type %d; id P-2" % number})  # comes too late
        self.final(link, seen=seen)
        link.wait_for(peer.ID_BYE, 20, seen)  # without an order
        link.close()
        engine.worker.wait(20)
        self.assertEqual(engine.worker.returncode, 0)
        entries = [frame.body["entries"][0] for frame in seen if frame.id == peer.ID_STATE]
        self.assertEqual([(entry["status"], entry["error_code"], entry["detail_error_code"]) for entry in entries],
                         [(3, 0, 0), (4, 6, 0x80000001), (own_status, 0, 0)])
        self.assertEqual({(entry["task_id"], entry["task_type"]) for entry in entries}, {(b"P-1", number)})
        self.assertTrue(entries[1]["error_text"] and entries[1]["detail_error_text"])

    def test_a_package_of_type_14_that_stands_still(self):
        self.package(14, "record", 5)

    def test_a_package_of_type_23_that_stands_still(self):
        self.package(23, "text", 4)


class Loss(LifeCase):
    # Until its handler has heard of the loss the worker sends with the session's own ID, which is told otherwise.
    def test_what_is_sent_afterwards_has_no_session(self):
        stage.install_plugin("scripted", 3)
        for _ in range(8):  # whether a heartbeat or a progress report is under way is a matter of moments
            engine = self.start("id T-1; progress 100 50; sleep 4000")  # deaf to the stop flag
            link, _ = engine.welcome()
            link.wait_for(peer.ID_HEARTBEAT)
            link.close()
            engine.worker.wait(20)
            self.assertEqual(engine.worker.returncode, 0)
            refused = [line for line in engine.log("_C.log")[0].splitlines() if " not sent: " in line]
            while refused and refused[0].endswith("not sent: no open session"):
                refused.pop(0)
            for line in refused:
                self.assertRegex(line, r"40\d\d not sent: there is no session \(4294967295\)$")
            if refused:
                return
        self.fail("nothing was sent after a loss in eight lives")


class Package(LifeCase):
    def package(self, number, init):
        stage.install_plugin("scripted", number)
        engine = self.start("type 14; id P-1; progress 10 5", task_type=str(number),
                            environment={"RQ_SCRIPT_INIT": init})
        link, _ = engine.welcome()
        self.assertEqual(link.wait_for(peer.ID_NOTICE).body["task_id"], b"P-1")
        ids = [self.final(link)["task_id"]]
        link.send(4017, {"text": "type 14; id P-2"})
        link.send(4017, {"text": "type 14; id P-3"})
        seen = []
        ids += [self.final(link, seen=seen)["task_id"] for _ in range(2)]
        self.assertEqual(ids, [b"P-1", b"P-2", b"P-3"])
        # The order to end alone does not end it.
        link.wait_for_ack(link.send(peer.ID_EXIT))
        link.send(4017, {"text": "type 14; id P-4"})
        self.assertEqual(self.final(link, seen=seen)["task_id"], b"P-4")
        self.assertFalse([frame for frame in seen if frame.id == peer.ID_NOTICE])
        link.send(4019, order())
        link.wait_for(peer.ID_FINISH_REPLY)
        self.assert_says_goodbye(engine, link)

    def test_type_14(self):
        self.package(14, "record")

    def test_type_23(self):
        self.package(23, "text")


class Journal(LifeCase):
    def setUp(self):
        stage.install_plugin("scripted", 3)
        self.folder = stage.new_folder()

    def path(self, name):
        return os.path.join(self.folder, name)

    def worker(self, journal, **more):
        return self.start("id T-1; progress 100 50; held-until-stop 100000",
                          environment={"RQ_LINK_JOURNAL": peer.as_seen(self.path(journal))}, **more)

    def live(self, engine):
        """One life of a worker: paused, resumed, finished, ended."""
        link, _ = engine.welcome()
        link.wait_for(is_status(3))
        link.wait_for(peer.ID_PROGRESS)
        for order_id, reply_id in ((4004, 4005), (4006, 4007), (4019, 4020)):
            link.send(order_id, order())
            link.wait_for(reply_id)
        self.assertEqual(self.final(link)["status"], 0)
        link.wait_for_ack(link.send(peer.ID_EXIT))
        self.assert_says_goodbye(engine, link)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            data = file.read()
        token = peer.EnginePlace.TOKEN.encode()
        self.assertNotIn(token, data)
        self.assertNotIn(token.hex().encode(), data)
        lines = [json.loads(line) for line in data.splitlines()]
        self.assertEqual([line["event"] for line in lines if "event" in line], ["connect", "close"])
        return lines

    @staticmethod
    def told(lines):
        """What does not hang on time: the numbered frames but heartbeats and progress, HELLO, WELCOME and BYE."""
        return [(line["way"], line["id"]) for line in lines
                if "way" in line and line["id"] not in (peer.ID_ACK, peer.ID_PING, peer.ID_HEARTBEAT, peer.ID_PROGRESS)]

    def ctl(self, *arguments):
        return peer.program(stage.folder, "rqctl") + list(arguments)

    def test_written_printed_and_done_again(self):
        engine = self.worker("first")
        self.live(engine)
        first = self.read("first")
        self.assertEqual(self.told(first),
                         [("out", 1), ("in", 2), ("out", 4001), ("out", 4009), ("in", 4004), ("out", 4005),
                          ("in", 4006), ("out", 4007), ("in", 4019), ("out", 4020), ("out", 4009), ("in", 4014),
                          ("out", 6)])

        printed = subprocess.run(self.ctl("replay", "--print", peer.as_seen(self.path("first"))), timeout=60,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True).stdout.decode("utf-8")
        for words in ("HELLO", "WELCOME", '4001 task "T-1"', "4014 order to end", "BYE", "state 0 finished"):
            self.assertIn(words, printed)
        self.assertNotIn(peer.EnginePlace.TOKEN, printed)

        with open(self.path("played"), "wb") as output:
            player = subprocess.Popen(self.ctl("replay", "--wait", "60", peer.as_seen(self.path("first"))),
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=output)
        self.addCleanup(player.stdout.close)
        self.addCleanup(peer.end_process, player)
        port = int(re.search(rb"waiting on 127\.0\.0\.1:(\d+) ", player.stdout.readline()).group(1))
        second = self.worker("second", port=port)
        played = player.stdout.read().decode("utf-8")
        self.assertEqual(player.wait(30), 0, played)
        second.worker.wait(20)
        self.assertEqual(second.worker.returncode, 0)
        self.assertEqual(self.told(self.read("second")), self.told(first))


if __name__ == "__main__":
    unittest.main(verbosity=2)
