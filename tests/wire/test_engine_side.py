"""The real engine against a peer that was written from docs/engine-link.md: what a foreign worker may rely on.

What only shows after 15 seconds and more (the engine's PING and its silence limit) is not looked at here.
"""

import http.client
import json
import struct
import threading
import time
import unittest

import peer

GUID = "5b0a3c9e-1d2f-4a6b-8c7d-9e0f11223344"
MD5 = "900150983cd24fb0d6963f7d28e17f72"

stage = None
engine = None


def setUpModule():
    global stage, engine
    stage = peer.Stage()
    unittest.addModuleCleanup(stage.remove)
    engine = peer.RealEngine(stage)
    unittest.addModuleCleanup(engine.close)


def record(entry, kind="state"):
    return {"id": 4009, "kind": kind, "sender": "Worker", "receiver": "Lite/Agent",
            "entries": [dict({"task_id": "T-1"}, **entry)]}


def status(number, **more):
    return record(dict({"task_type": 3, "status": number, "error_text": "KWR_OVL_ERROR_0"}, **more))


def finished():
    return status(0, md5={"files": [{"mode": 1, "first": "/data/样 片.mxf", "computed_md5": MD5}]})


class EngineCase(unittest.TestCase):
    of = None  # another engine than the module's

    def the_engine(self):
        return self.of or engine

    def connect(self, **hello):
        link, answer = self.the_engine().shake_hands(**hello)
        self.addCleanup(link.close)
        self.assertEqual(answer.id, peer.ID_WELCOME, answer)
        link.session = answer.body["session_id"]
        return link

    def worker(self, task_id="T-1"):
        """A connection whose task runs; returns the link."""
        link = self.connect()
        link.send(peer.ID_NOTICE, {"version": "1.0", "worker_guid": GUID, "task_id": task_id})
        link.wait_for_ack(link.send(peer.ID_STATE, status(3)))
        return link

    def task_of(self, link):
        """The ID of the task that the engine keeps for this connection."""
        for task in self.the_engine().get("/tasks?limit=1000")["tasks"]:
            full = self.the_engine().get("/tasks/" + task["id"])
            if [attempt for attempt in full["attempt_list"] if attempt["session"] == link.session]:
                return task["id"]
        self.fail("no task has session %d" % link.session)

    def wait_for_task(self, link, fits):
        return self.the_engine().wait_for_task(self.task_of(link), fits)

    def say_bye(self, link):
        link.acknowledge()
        link.send_control(peer.ID_BYE)
        link.sock.shutdown(1)
        link.wait_for_close(3)

    def of_kind(self, task_id, kind):
        return [event for event in self.the_engine().events(task_id) if event["kind"] == kind]


class Probes(EngineCase):
    def fetch(self, method, path, token=True):
        connection = http.client.HTTPConnection("127.0.0.1", engine.http_port, timeout=40)
        self.addCleanup(connection.close)
        connection.request(method, path, headers={"Authorization": "Bearer " + engine.token} if token else {})
        answer = connection.getresponse()
        return answer, answer.read().decode("utf-8")

    def test_a_probe_is_answered(self):
        answer, body = self.fetch("GET", "/healthz")
        self.assertEqual((answer.status, json.loads(body)), (200, {"status": "ok", "problems": []}))

    def test_metrics_have_the_format_of_prometheus(self):
        self.worker()
        answer, body = self.fetch("GET", "/metrics")
        self.assertEqual(answer.status, 200)
        self.assertEqual(answer.getheader("Content-Type"), "text/plain; version=0.0.4; charset=utf-8")
        samples = dict(line.rsplit(" ", 1) for line in body.splitlines() if not line.startswith("#"))
        self.assertGreaterEqual(int(samples['rq_tasks{state="running",type="mc"}']), 1)
        self.assertGreater(int(samples['rq_disk_free_bytes{folder="data"}']), 0)
        self.assertGreater(int(samples["rq_store_bytes"]), 0)

    def test_both_need_the_token_and_take_nothing_else(self):
        for path in ("/healthz", "/metrics"):
            self.assertEqual(self.fetch("GET", path, token=False)[0].status, 401)
            self.assertEqual(self.fetch("POST", path)[0].status, 405)
            self.assertEqual(self.fetch("GET", path + "?x=1")[0].status, 400)
        self.assertEqual(self.fetch("GET", "/metric")[0].status, 404)


class TypicalTask(EngineCase):
    def test_from_hello_to_bye(self):
        link, answer = engine.shake_hands(worker_version="wire 1", process_id=4321)
        self.addCleanup(link.close)
        self.assertEqual((answer.seq, answer.ack, answer.id), (0, 0, peer.ID_WELCOME))
        welcome = answer.body
        link.session = welcome["session_id"]
        self.assertEqual(welcome["protocol_version"], 1)
        self.assertNotIn(link.session, (0, 0xFFFFFFFF))
        self.assertLess(link.session, 1 << 32)
        self.assertEqual(welcome["resume_window_ms"], 0)
        self.assertEqual((welcome["ping_interval_ms"], welcome["silence_limit_ms"]), (15000, 60000))
        self.assertTrue(welcome["spool_folder"].endswith(b"spool"), welcome)

        link.send(peer.ID_NOTICE, {"version": "1.0", "worker_guid": GUID, "task_id": "样-1"})
        seq = link.send(peer.ID_STATE, status(3))
        link.wait_for_ack(seq, 3)
        task_id = self.task_of(link)
        task = engine.wait_for_task(task_id, lambda task: task["state"] == "running")
        self.assertEqual((task["origin"], task["type"], task["type_code"]), ("external", 3, "mc"))
        self.assertIsNotNone(task["started"])
        self.assertIsNone(task["result"])

        link.send(peer.ID_PROGRESS, record({"percent": 41.5, "speed": 12.25, "average_speed": 306.25}, "process"))
        seq = link.send(peer.ID_HEARTBEAT, {"version": "1.0", "worker_guid": GUID})
        link.wait_for_ack(seq, 3)
        task = engine.wait_for_task(task_id, lambda task: task["percent"] == 41.5)
        self.assertEqual(task["speed"], 12.25)
        self.assertEqual(task["average_speed"], 306.25)

        seq = link.send(peer.ID_STATE, finished())
        link.wait_for_ack(seq)
        task = engine.get("/tasks/" + task_id)  # committed before it was acknowledged
        self.assertEqual((task["state"], task["status"]), ("finished", 0))
        self.assertEqual(task["result"], {"kind": "md5", "files": [{
            "mode": "computation", "first": "/data/样 片.mxf", "second": "", "first_md5": "", "second_md5": "",
            "verification": "not-compared", "computed_md5": MD5}]})
        attempt, = task["attempt_list"]
        self.assertEqual((attempt["number"], attempt["state"], attempt["status"]), (1, "finished", 0))
        self.assertEqual((attempt["pid"], attempt["worker_version"]), (4321, "wire 1"))
        self.assertEqual((attempt["worker_guid"], attempt["reported_task"]), (GUID, "样-1"))
        self.assertEqual(attempt["error"], {"code": 0, "text": "KWR_OVL_ERROR_0"})
        self.assertIsNone(attempt["exit"])

        link.wait_for(peer.ID_EXIT)
        self.say_bye(link)
        engine.wait_for_task(task_id, lambda _: self.of_kind(task_id, "disconnected"))
        kinds = {event["kind"] for event in engine.events(task_id)}
        self.assertLessEqual({"submitted", "state", "claimed", "connected", "notice", "status", "progress", "final",
                              "order", "disconnected"}, kinds)
        self.assertFalse(kinds & {"lost", "late-status"})
        self.assertEqual(self.of_kind(task_id, "connected")[0]["data"],
                         {"session": link.session, "pid": 4321, "version": "wire 1"})
        self.assertEqual(self.of_kind(task_id, "notice")[0]["data"], {"task_id": "样-1", "worker_guid": GUID})
        self.assertEqual(self.of_kind(task_id, "order")[-1]["data"], {"id": 4014})
        self.assertEqual(engine.get("/tasks/" + task_id)["state"], "finished")

    def test_repeats_of_the_final_status(self):
        link = self.worker()
        for _ in range(3):
            link.wait_for_ack(link.send(peer.ID_STATE, finished()))
        task_id = self.task_of(link)
        self.assertEqual(len(self.of_kind(task_id, "final")), 1)
        self.assertFalse(self.of_kind(task_id, "late-status"))
        link.wait_for_ack(link.send(peer.ID_STATE, status(4, error_code=6)))
        task = engine.get("/tasks/" + task_id)
        self.assertEqual((task["state"], task["status"]), ("finished", 0))
        engine.wait_for_task(task_id, lambda _: self.of_kind(task_id, "late-status"))
        self.assertEqual(self.of_kind(task_id, "late-status")[0]["data"]["status"], 4)

    def test_error(self):
        link = self.worker()
        result = {"files": [{"first": "/a", "first_md5": "0" * 32, "second_md5": MD5, "verification": -1}]}
        link.wait_for_ack(link.send(peer.ID_STATE, status(
            4, detail_error_code=0x80000001, detail_error_text="详情", error_code=(-5) & 0xFFFFFFFF,
            error_text="text", further_text=b"a\xffb", md5=result)))
        task = engine.get("/tasks/" + self.task_of(link))
        self.assertEqual((task["state"], task["status"]), ("failed", 4))
        self.assertEqual(task["result"]["files"][0]["verification"], "different")
        self.assertEqual(task["result"]["files"][0]["mode"], "verification")
        attempt, = task["attempt_list"]
        self.assertEqual(attempt["detail_error"]["text"], "详情")
        self.assertEqual(attempt["detail_error"]["code"] & 0xFFFFFFFF, 0x80000001)
        self.assertEqual(attempt["error"]["code"] & 0xFFFFFFFF, 4294967291)
        self.assertEqual(attempt["further_text"], "a\ufffdb")

    def test_other_results(self):
        link = self.worker()
        transfer = {"verifications": [{"first": "/a", "verification": 1}],
                    "outputs": [{"kind": 2, "first": "/b", "size_bytes": 1 << 40, "format_xml": "<f/>"}]}
        link.wait_for_ack(link.send(peer.ID_STATE, status(0, task_type=0, transfer=transfer)))
        result = engine.get("/tasks/" + self.task_of(link))["result"]
        self.assertEqual(result["kind"], "transfer")
        self.assertEqual(result["outputs"][0]["size_bytes"], 1 << 40)
        self.assertEqual(result["outputs"][0]["format_xml"], "<f/>")
        self.assertEqual(result["verifications"][0]["verification"], "equal")

        link = self.worker()
        transcode = {"outputs": [{"first": "/b", "value1": 5, "value2": 6, "value64": 1 << 40}]}
        link.wait_for_ack(link.send(peer.ID_STATE, status(0, task_type=1, transcode=transcode)))
        result = engine.get("/tasks/" + self.task_of(link))["result"]
        self.assertEqual(result["kind"], "transcode")
        self.assertEqual(result["outputs"][0]["value64"], 1 << 40)

    def test_suspended_and_odd_numbers(self):
        link = self.worker()
        for order, id, state in (("suspend", peer.ID_SUSPEND, "paused"), ("resume", peer.ID_RESUME, "running")):
            engine.ask("POST", "/tasks/%s/%s" % (self.task_of(link), order))
            link.wait_for(id)
            link.send(id + 1, {"version": "1.0", "guid": GUID, "task_id": "T-1", "result_code": "0",
                               "message": b"done"})
            self.wait_for_task(link, lambda task: task["state"] == state)
        for speed in (float("inf"), float("-inf"), float("nan")):
            link.wait_for_ack(link.send(peer.ID_PROGRESS, record({"percent": 7, "speed": speed}, "process")))
        self.wait_for_task(link, lambda task: task["percent"] == 7)  # the answer is JSON all the same

    def test_a_status_behind_the_perform_call(self):
        link = self.worker()
        link.send(peer.ID_STATE, status(7))
        link.wait_for(peer.ID_EXIT)
        self.wait_for_task(link, lambda task: task["state"] == "running")  # until the worker has ended

    def test_equal_task_ids(self):
        one, other = self.worker("same"), self.worker("same")
        self.assertNotEqual(one.session, other.session)
        self.assertNotEqual(self.task_of(one), self.task_of(other))
        other.wait_for_ack(other.send(peer.ID_STATE, status(4)))
        self.assertEqual(engine.get("/tasks/" + self.task_of(one))["state"], "running")

    def test_cancel(self):
        link = self.worker()
        task_id = self.task_of(link)
        code, answer = engine.ask("POST", "/tasks/%s/cancel" % task_id)
        self.assertEqual((code, answer["result"]), (200, "requested"))
        order = link.wait_for(peer.ID_CANCEL)
        self.assertIn(len(order.body["uuid"]), (0, 16))
        link.acknowledge()
        link.send(peer.ID_CANCEL_REPLY, {"version": "1.0", "guid": GUID, "task_id": "T-1", "result_code": "0",
                                         "message": "任务已取消".encode("gbk")})
        link.wait_for_ack(link.send(peer.ID_STATE, status(5)))
        task = engine.get("/tasks/" + task_id)
        self.assertEqual((task["state"], task["status"]), ("cancelled", 5))
        self.assertIsNotNone(task["cancel_requested"])
        reply, = self.of_kind(task_id, "reply")
        self.assertEqual((reply["data"]["id"], reply["data"]["result_code"]), (4003, "0"))

    def order(self, link, what):
        code, answer = engine.ask("POST", "/tasks/%s/%s" % (self.task_of(link), what))
        self.assertEqual(code, 200, answer)
        return answer["result"]

    def reply(self, link, message_id):
        link.acknowledge()
        link.send(message_id, {"version": "1.0", "guid": GUID, "task_id": "T-1", "result_code": "0", "message": b"ok"})

    def test_suspend_resume_finish(self):
        link = self.worker()
        self.assertEqual(self.order(link, "suspend"), "requested")
        link.wait_for(4004)
        self.assertEqual(self.order(link, "suspend"), "requested")  # once on the wire: the next order is 4006
        self.reply(link, 4005)
        self.wait_for_task(link, lambda task: task["state"] == "paused")
        self.assertEqual(self.order(link, "suspend"), "already-suspended")
        self.assertEqual(self.order(link, "resume"), "requested")
        self.assertEqual(link.wait_for(lambda frame: frame.id >= 4000).id, 4006)
        self.reply(link, 4007)
        self.wait_for_task(link, lambda task: task["state"] == "running")
        self.assertEqual(self.order(link, "finish"), "requested")
        link.wait_for(4019)
        self.reply(link, 4020)
        self.wait_for_task(link, lambda task: task["state"] == "finishing")
        code, answer = engine.ask("POST", "/tasks/%s/suspend" % self.task_of(link))
        self.assertEqual((code, answer["error"]["code"]), (409, "wrong-state"))
        link.wait_for_ack(link.send(peer.ID_STATE, finished()))
        self.assertEqual(self.wait_for_task(link, lambda task: task["state"] == "finished")["status"], 0)

    def test_lost(self):
        for name in ("close", "reset"):
            with self.subTest(name):
                link = self.worker()
                task_id = self.task_of(link)
                getattr(link, name)()
                task = engine.wait_for_task(task_id, lambda task: task["state"] == "lost")
                self.assertIsNone(task["status"])
                self.assertTrue(task["reason"])
                self.assertEqual(task["attempt_list"][0]["state"], "lost")

    def test_bye_without_final_status(self):
        link = self.worker()
        self.say_bye(link)
        self.wait_for_task(link, lambda task: task["state"] == "failed")


class Store(EngineCase):
    def test_acknowledged_status_survives_a_crash(self):
        self.of = peer.RealEngine(stage)
        self.addCleanup(self.of.close)
        link = self.worker()
        task_id = self.task_of(link)
        link.wait_for_ack(link.send(peer.ID_STATE, finished()))
        self.of.kill()
        self.of.start()
        task = self.of.get("/tasks/" + task_id)
        self.assertEqual((task["state"], task["status"]), ("finished", 0))
        self.assertEqual(task["result"]["files"][0]["computed_md5"], MD5)

    def test_orderly_end(self):
        self.of = peer.RealEngine(stage)
        self.addCleanup(self.of.close)
        link = self.worker()
        code, _ = self.of.ask("POST", "/shutdown", {"cancel": True})
        self.assertEqual(code, 202)
        seen = []
        link.wait_for(lambda frame: frame.id in (peer.ID_CANCEL, peer.ID_EXIT, peer.ID_BYE), 15, seen)
        link.acknowledge()
        link.wait_for_ack(link.send(peer.ID_STATE, status(5)), 5, seen)
        try:
            link.wait_for(peer.ID_BYE, 15, seen)
        except peer.Closed:
            pass
        link.close()
        self.of.process.wait(20)
        self.assertEqual(self.of.process.returncode, 0)


class Handshake(EngineCase):
    def assert_refused(self, link, answer, code):
        self.assertEqual((answer.id, answer.body["code"]), (peer.ID_REFUSE, code), answer)
        answer.body["text"].decode("utf-8")
        link.wait_for_close(3)

    def test_wrong_hello(self):
        for name, code, hello in (("wrong token", 1, {"token": "no"}),
                                  ("no token", 1, {"token": ""}),
                                  ("half a token", 1, {"token": engine.token[:32]}),
                                  ("version 2", 2, {"protocol_version": 2}),
                                  ("version 0", 2, {"protocol_version": 0}),
                                  ("version before token", 2, {"protocol_version": 2, "token": "no"}),
                                  ("unknown attempt", 3, {"attempt": "no such attempt"}),
                                  ("token before attempt", 1, {"token": "no", "attempt": "no such attempt"})):
            with self.subTest(name):
                link, answer = engine.shake_hands(**hello)
                self.assert_refused(link, answer, code)

    @unittest.skipIf(peer.STARTER, "what the engine hands its worker can be read by the worker's own number only")
    def test_attempt_in_use_and_ended(self):
        path = peer.sparse_file(stage.new_folder() + "/big.bin", 1 << 40)
        code, task = engine.ask("POST", "/tasks", {"type": "mc", "text": peer.md5_text("T-1", path)})
        self.assertEqual(code, 201)
        attempt, = engine.wait_for_task(task["id"], lambda task: task["state"] == "running")["attempt_list"]
        with open("/proc/%d/environ" % attempt["pid"], "rb") as file:
            environment = dict(entry.split(b"=", 1) for entry in file.read().split(b"\0") if b"=" in entry)
        self.assertEqual(environment[b"RQ_ENGINE_TOKEN"].decode(), engine.token)
        link, answer = engine.shake_hands(attempt=environment[b"RQ_ATTEMPT"])
        self.assert_refused(link, answer, 3)
        engine.ask("POST", "/tasks/%s/cancel" % task["id"])
        engine.wait_for_task(task["id"], lambda task: task["state"] == "cancelled" and
                             task["attempt_list"][0]["exited"])
        # Who comes with an attempt that has ended is told to stop.
        link, answer = engine.shake_hands(attempt=environment[b"RQ_ATTEMPT"])
        self.addCleanup(link.close)
        self.assertEqual(answer.id, peer.ID_WELCOME)
        link.wait_for(peer.ID_CANCEL)
        link.wait_for(peer.ID_EXIT)
        link.acknowledge()
        link.wait_for_ack(link.send(peer.ID_STATE, finished()))
        self.assertEqual(engine.get("/tasks/" + task["id"])["state"], "cancelled")
        self.assertEqual(len(self.of_kind(task["id"], "late-status")), 1)
        self.assertEqual(len(self.of_kind(task["id"], "late-worker")), 1)

    def test_without_a_window_nothing_is_resumed(self):
        first = self.connect()
        link, answer = engine.shake_hands(resume_session_id=first.session, resume_received=0)
        self.assert_refused(link, answer, 6)

    def test_bad_first_frame(self):
        for name, data in (("ping", peer.pack_frame(0, 0, peer.ID_PING)),
                           ("record", peer.pack_frame(1, 0, peer.ID_HEARTBEAT, b"\x0a\x031.0")),
                           ("welcome", peer.pack_frame(0, 0, peer.ID_WELCOME, b"\x08\x01")),
                           ("undecodable hello", peer.pack_frame(0, 0, peer.ID_HELLO, b"\x12\x7fno")),
                           ("undecodable frame", b"\3\0\0\0\x08\xff\xff")):
            with self.subTest(name):
                link = engine.connect()
                link.send_raw(data)
                self.assert_refused(link, link.receive(3), 4)

    def test_bad_first_length(self):
        for name, length in (("0", 0), ("over 64 KiB", 65537), ("over 16 MiB", peer.FRAME_LIMIT + 1),
                             ("largest", 0xFFFFFFFF)):
            with self.subTest(name):
                link = engine.connect()
                link.send_raw(struct.pack("<I", length))
                seen = []
                link.wait_for_close(4, seen)
                self.assertLessEqual({frame.id for frame in seen}, {peer.ID_REFUSE})

    def test_no_hello(self):
        link = engine.connect()
        begin = time.monotonic()
        seen = []
        link.wait_for_close(10, seen)
        self.assertGreater(time.monotonic() - begin, 3)
        for frame in seen:
            self.assertEqual((frame.id, frame.body["code"]), (peer.ID_REFUSE, 4))

    def test_hello_in_pieces(self):
        link = engine.connect()
        body = peer.encode(peer.HELLO, {"protocol_version": 1, "token": engine.token, "process_id": 1})
        for byte in peer.pack_frame(0, 0, peer.ID_HELLO, body):
            link.send_raw(bytes([byte]))
            time.sleep(0.001)
        self.assertEqual(link.receive().id, peer.ID_WELCOME)

    def test_record_together_with_hello(self):
        """What comes too early does not change the answer to the first frame."""
        link = engine.connect()
        body = peer.encode(peer.HELLO, {"protocol_version": 1, "token": "no", "process_id": 1})
        link.send_raw(peer.pack_frame(0, 0, peer.ID_HELLO, body)
                      + peer.pack_frame(1, 0, peer.ID_HEARTBEAT, b"\x0a\x031.0"))
        self.assertEqual(link.receive().body["code"], 1)


class Frames(EngineCase):
    def test_fatal(self):
        heartbeat = peer.encode(peer.HEARTBEAT, {"version": "1.0", "worker_guid": GUID})
        hello = peer.encode(peer.HELLO, {"protocol_version": 1, "token": engine.token})
        cases = [
            ("length 0", lambda seq: b"\0\0\0\0"),
            ("length over 16 MiB", lambda seq: struct.pack("<I", peer.FRAME_LIMIT + 1)),
            ("undecodable frame", lambda seq: b"\3\0\0\0\x08\xff\xff"),
            ("undecodable body", lambda seq: peer.pack_frame(seq, 0, peer.ID_STATE, b"\x2a\x20short")),
            ("undecodable entry", lambda seq: peer.pack_frame(seq, 0, peer.ID_STATE, b"\x2a\x02\x0a\x09")),
            ("a gap in seq", lambda seq: peer.pack_frame(seq + 1, 0, peer.ID_HEARTBEAT, heartbeat)),
            ("a record with seq 0", lambda seq: peer.pack_frame(0, 0, peer.ID_HEARTBEAT, heartbeat)),
            ("a control id with seq", lambda seq: peer.pack_frame(seq, 0, peer.ID_PING)),
            ("ack above what was sent", lambda seq: peer.pack_frame(seq, 1000, peer.ID_HEARTBEAT, heartbeat)),
            ("id 0", lambda seq: peer.pack_frame(0, 0, 0)),
            ("a second HELLO", lambda seq: peer.pack_frame(0, 0, peer.ID_HELLO, hello)),
            ("WELCOME", lambda seq: peer.pack_frame(0, 0, peer.ID_WELCOME, b"\x08\x01\x10\x05")),
            ("REFUSE", lambda seq: peer.pack_frame(0, 0, peer.ID_REFUSE, b"\x08\x01")),
        ]
        for name, make in cases:
            with self.subTest(name):
                link = self.worker()
                task_id = self.task_of(link)
                link.send_raw(make(link.next_seq()))
                link.wait_for_close(5)
                self.assertFalse(link.said_bye)
                engine.wait_for_task(task_id, lambda task: task["state"] == "lost")
                self.assertTrue(self.of_kind(task_id, "disconnected")[0]["data"]["reason"])

    def test_harmless(self):
        link = self.worker()
        for message_id in (4999, 12306, peer.ID_EXIT, peer.ID_CANCEL):
            with self.subTest(message_id):
                link.send_raw(peer.pack_frame(link.next_seq(), 0, message_id, b"\xff\xffany"))
                link.wait_for_ack(link.sent, 3)
        with self.subTest("unknown control id"):
            link.send_raw(peer.pack_frame(0, 0, 77, b"\xff\xffany"))
        with self.subTest("repeated seq"):
            body = peer.encode(peer.PROGRESS, record({"percent": 99}, "process"))
            link.send_raw(peer.pack_frame(link.sent, 0, peer.ID_PROGRESS, body))
            link.send_raw(peer.pack_frame(1, 0, peer.ID_PROGRESS, body))
        with self.subTest("ping"):
            link.send_control(peer.ID_PING)
            self.assertEqual(link.wait_for(lambda frame: frame.id == peer.ID_ACK, 2).ack, link.sent)
        with self.subTest("fields in any order, unknown ones too"):
            body = (b"\x48\x05" + peer.put_bytes(2, GUID.encode()) + peer.put_bytes(99, b"x")
                    + peer.put_bytes(1, b"1.0"))
            data = (peer.put_bytes(4, body) + peer.put_bytes(77, b"?") + b"\x18" + peer.put_varint(4000)
                    + b"\x08" + peer.put_varint(link.next_seq()))
            link.send_raw(struct.pack("<I", len(data)) + data)
            link.wait_for_ack(link.sent, 3)
        link.wait_for_ack(link.send(peer.ID_STATE, status(3)))
        self.assertNotEqual(engine.get("/tasks/" + self.task_of(link))["percent"], 99)

    def test_smaller_ack(self):
        link = self.worker()
        link.wait_for_ack(link.send(peer.ID_STATE, finished()))
        link.wait_for(peer.ID_EXIT)
        link.acknowledge()
        link.send_control(peer.ID_PING, ack=0)
        link.wait_for(peer.ID_ACK, 2)

    def test_acknowledged_within_a_second(self):
        link = self.worker()
        for _ in range(5):
            link.wait_for_ack(link.send(peer.ID_HEARTBEAT, {"version": "1.0", "worker_guid": GUID}), 3)

    def test_large_record(self):
        link = self.worker()
        seq = link.send(peer.ID_STATE, status(4, further_text=b"x" * (peer.FRAME_LIMIT - 1000)))
        link.wait_for_ack(seq, 20)
        self.assertEqual(self.wait_for_task(link, lambda task: task["state"] == "failed")["status"], 4)

    def test_many_at_once(self):
        """Twenty workers, each with a hundred records and its own final status."""
        failures = []

        def work():
            try:
                link = self.worker()
                for percent in range(100):
                    link.send(peer.ID_PROGRESS, record({"percent": percent}, "process"))
                link.wait_for_ack(link.send(peer.ID_STATE, finished()), 30)
            except BaseException as error:  # reported below
                failures.append(error)

        threads = [threading.Thread(target=work) for _ in range(20)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
        self.assertFalse(failures)


if __name__ == "__main__":
    unittest.main(verbosity=2)
