"""The real worker against a peer that was written from docs/engine-link.md: what a foreign engine may rely on."""

import hashlib
import os
import re
import struct
import time
import unittest
import uuid
import zlib

import peer
from peer import is_final, is_status

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "engine-link.md")
ORDER_UUID = "00112233-4455-6677-8899-aabbccddeeff"

stage = None
big_file = None


def setUpModule():
    global stage, big_file
    stage = peer.Stage()
    unittest.addModuleCleanup(stage.remove)
    # Holes only: takes no room, and hours to read.
    big_file = peer.sparse_file(os.path.join(stage.root, "big.bin"), 1 << 40)


def order(**values):
    return dict({"uuid": uuid.UUID(ORDER_UUID).bytes, "text": "why", "task_ids": ["other", "T-1", "第三个"]}, **values)


class DocumentBytes(unittest.TestCase):
    """The byte examples of the page, so that the peer itself is known to be right."""

    def test_examples(self):
        with open(DOCUMENT, encoding="utf-8") as file:
            text = file.read()
        examples = re.findall(r"^`(\w+)`, [^\n]*\n(?:[^`\n][^\n]*\n)*\n```hex\n(.*?)```", text, re.M | re.S)
        self.assertGreaterEqual(len(examples), 19)
        for name, digits in examples:
            with self.subTest(name):
                data = bytes.fromhex(digits)
                frame = peer.unpack_frame(data)
                values = {key: value for key, value in frame.body.items() if value is not None}
                for entry in values.get("entries", []):
                    for key in [key for key, value in entry.items() if value is None]:
                        del entry[key]
                body = peer.encode(peer.BODY_OF[frame.id], values)
                self.assertEqual(peer.pack_frame(frame.seq, frame.ack, frame.id, body), data)


class WorkerCase(unittest.TestCase):
    def start(self, text=None, **more):
        engine = peer.EnginePlace(stage, text or peer.md5_text("T-1", big_file), **more)
        self.addCleanup(engine.close)
        return engine

    def start_running(self, **welcome):
        """A worker whose long task runs and whose frames so far are acknowledged."""
        engine = self.start()
        link, _ = engine.welcome(**welcome)
        link.wait_for(is_status(3))
        link.acknowledge()
        return engine, link

    def assert_ends(self, engine, seconds=15):
        engine.worker.wait(seconds)

    def assert_lost(self, engine, link, seconds=10):
        """The worker closes the connection without BYE, and ends."""
        seen = []
        link.wait_for_close(seconds, seen)
        self.assertFalse(link.said_bye, seen)
        link.close()
        self.assert_ends(engine)

    def assert_alive(self, link):
        """The session goes on: a PING gets its ACK."""
        link.send_control(peer.ID_PING)
        link.wait_for(peer.ID_ACK, 3)
        link.wait_for(peer.ID_HEARTBEAT, 5)


class TypicalTask(WorkerCase):
    def small_file(self):
        path = os.path.join(stage.new_folder(), "样 片.bin")
        with open(path, "wb") as file:
            file.write(b"abc" * 1000)
        return peer.as_seen(path), hashlib.md5(b"abc" * 1000).hexdigest()

    def test_from_hello_to_bye(self):
        path, md5 = self.small_file()
        engine = self.start(peer.md5_text("样-1", path))
        link, hello = engine.welcome()
        self.assertEqual(hello["protocol_version"], 1)
        self.assertEqual(hello["token"].decode(), engine.TOKEN)
        self.assertEqual(hello["attempt"].decode(), engine.ATTEMPT)
        if peer.STARTER:
            self.assertGreater(hello["process_id"], 0)
        else:
            self.assertEqual(hello["process_id"], engine.worker.pid)
        self.assertTrue(hello["worker_version"])
        self.assertEqual((hello["resume_session_id"], hello["resume_received"],
                          hello["resume_acknowledged"]), (0, 0, 0))

        notice = link.receive()
        self.assertEqual((notice.id, notice.seq), (peer.ID_NOTICE, 1))
        self.assertEqual(notice.body["version"], b"1.0")
        self.assertEqual(notice.body["task_id"].decode(), "样-1")
        guid = notice.body["worker_guid"].decode()
        self.assertRegex(guid, r"^[0-9a-fA-F]{8}-([0-9a-fA-F]{4}-){3}[0-9a-fA-F]{12}$")

        running = link.receive()
        self.check_record(running, b"state")
        entry = running.body["entries"][0]
        self.assertEqual((entry["status"], entry["task_type"], entry["error_code"]), (3, 3, 0))
        self.assertEqual(entry["task_id"].decode(), "样-1")
        self.assertTrue(entry["error_text"])
        self.assertIsNone(entry["md5"])

        final = link.wait_for(is_final)
        self.check_record(final, b"state")
        entry = final.body["entries"][0]
        self.assertEqual((entry["status"], entry["task_type"], entry["error_code"]), (0, 3, 0))
        self.assertEqual((entry["second"], entry["third"]), (b"", b""))
        file, = entry["md5"]["files"]
        self.assertEqual((file["mode"], file["verification"]), (1, 0))
        self.assertEqual(file["first"].decode(), path)
        self.assertEqual(file["computed_md5"].decode(), md5)
        link.acknowledge()

        destroy = link.send(peer.ID_EXIT)
        link.wait_for_ack(destroy)
        link.wait_for(peer.ID_BYE)
        with self.assertRaises(peer.Closed):  # its sending direction, before the peer has closed anything
            link.receive(1)
        link.close()
        self.assert_ends(engine)
        self.assertEqual(engine.worker.returncode, 0)
        self.assertNotIn(engine.TOKEN.encode(), engine.written())
        for folder, _, names in os.walk(os.path.join(engine.folder, "RQWorker")):
            for name in names:
                with open(os.path.join(folder, name), "rb") as log:
                    self.assertNotIn(engine.TOKEN.encode(), log.read())

    def check_record(self, frame, kind):
        self.assertEqual(frame.body["id"], 4009)
        self.assertEqual((frame.body["kind"], frame.body["sender"], frame.body["receiver"]),
                         (kind, b"Worker", b"Lite/Agent"))
        self.assertEqual(len(frame.body["entries"]), 1)

    def test_verification_that_differs(self):
        path, md5 = self.small_file()
        other = "0" * 31 + "1"
        text = peer.md5_text("T-1", path).replace("</Path>", "</Path><MD5>%s</MD5>" % other)
        engine = self.start(text, task_type="mv")
        link, _ = engine.welcome()
        entry = link.wait_for(is_final).body["entries"][0]
        link.acknowledge()
        self.assertEqual((entry["status"], entry["task_type"], entry["error_code"]), (4, 4, 7))
        file, = entry["md5"]["files"]
        self.assertEqual((file["mode"], file["verification"]), (0, -1))
        self.assertEqual((file["first_md5"].decode(), file["second_md5"].decode()), (other, md5))
        self.assertEqual(file["computed_md5"], b"")

    def test_text_that_is_refused(self):
        engine = self.start("<MD5Task><Files/></MD5Task>")
        link, _ = engine.welcome()
        entry = link.wait_for(is_final).body["entries"][0]
        self.assertEqual(entry["status"], 4)
        self.assertNotEqual(entry["error_code"], 0)
        self.assertTrue(entry["error_text"])
        link.acknowledge()

    def test_progress_and_heartbeat(self):
        engine = self.start()
        link, _ = engine.welcome()
        seen = []
        link.wait_for(peer.ID_HEARTBEAT, seen=seen)
        link.wait_for(peer.ID_PROGRESS, seen=seen)
        link.wait_for(peer.ID_HEARTBEAT, seen=seen)
        self.assertEqual(len([frame for frame in seen if frame.id == peer.ID_NOTICE]), 1)
        notice = seen[0].body
        for frame in seen:
            if frame.id == peer.ID_HEARTBEAT:
                self.assertEqual(frame.body, {"version": b"1.0", "worker_guid": notice["worker_guid"]})
            elif frame.id == peer.ID_PROGRESS:
                self.check_record(frame, b"process")
                entry = frame.body["entries"][0]
                self.assertEqual((entry["task_id"], entry["second"], entry["third"]), (b"T-1", b"", b""))
                self.assertTrue(0 < entry["percent"] <= 100)
        self.assertEqual({frame.ack for frame in seen}, {0})


class Orders(WorkerCase):
    def answer(self, link, order_id, values, reply_id, message):
        seq = link.send(order_id, values)
        reply = link.wait_for(reply_id, 5)
        self.assertEqual(reply.body["version"], b"1.0")
        self.assertEqual(reply.body["task_id"], b"T-1")
        self.assertEqual(reply.body["result_code"], b"0")
        self.assertEqual(reply.body["message"], message.encode("gbk"))
        link.wait_for_ack(seq)
        return reply.body["guid"].decode()

    def test_suspend_resume_update_finish(self):
        engine = self.start()
        link, _ = engine.welcome()
        guid = link.wait_for(peer.ID_NOTICE).body["worker_guid"].decode()
        link.wait_for(is_status(3))
        link.wait_for(peer.ID_PROGRESS)  # from here on the plug-in works on its text, and an update comes too late
        self.assertEqual(self.answer(link, 4004, order(), 4005, "任务已暂停"), guid)
        self.assertEqual(self.answer(link, 4006, order(), 4007, "任务已恢复"), guid)
        text = peer.md5_text("T-9", "/nowhere") + "\nleft over"
        self.assertEqual(self.answer(link, 4015, {"text": text}, 4016, "task is updated."), guid)
        self.assertEqual(self.answer(link, 4015, {"text": b"<a>\0</a>"}, 4016, "task is updated."), guid)
        self.assertEqual(self.answer(link, 4019, order(), 4020, "任务已停止"), ORDER_UUID)
        entry = link.wait_for(is_final).body["entries"][0]
        link.acknowledge()
        self.assertEqual((entry["status"], entry["task_id"]), (0, b"T-1"))
        self.assertEqual(entry["further_text"], b"ended early: 0 of 1 files done")
        link.wait_for_ack(link.send(peer.ID_EXIT))
        link.wait_for(peer.ID_BYE)
        link.close()
        self.assert_ends(engine)
        for task_id in order()["task_ids"]:
            self.assertIn(task_id.encode(), engine.written())

    def test_cancel(self):
        engine, link = self.start_running()
        seen = []
        seq = link.send(4002, order())
        entry = link.wait_for(is_final, seen=seen).body["entries"][0]
        link.acknowledge()
        replies = [frame for frame in seen if frame.id == 4003]
        self.assertEqual(len(replies), 1)
        self.assertEqual(replies[0].body["message"], "任务已取消".encode("gbk"))
        self.assertEqual(entry["status"], 5)
        self.assertIsNone(entry["md5"])
        link.wait_for_ack(seq)

    def test_order_without_uuid_and_task_ids(self):
        _, link = self.start_running()
        self.assertEqual(self.answer(link, 4019, {}, 4020, "任务已停止"), str(uuid.UUID(int=0)))

    def test_one_more_task_is_not_answered(self):
        _, link = self.start_running()
        seen = []
        seq = link.send(4017, {"text": peer.md5_text("T-2", "/nowhere")})
        link.wait_for_ack(seq, seen=seen)
        link.wait_for(peer.ID_HEARTBEAT, seen=seen)
        self.assertLessEqual({frame.id for frame in seen}, {peer.ID_ACK, peer.ID_HEARTBEAT, peer.ID_PROGRESS})

    def with_welcome(self, order_id, values):
        """An order in one piece with WELCOME, so before the worker can have sent a record."""
        engine = self.start()
        link = engine.accept()
        link.receive()
        welcome = peer.encode(peer.WELCOME, {"protocol_version": 1, "session_id": 9, "silence_limit_ms": 60000})
        body = peer.encode(peer.BODY_OF[order_id], values)
        link.send_raw(peer.pack_frame(0, 0, peer.ID_WELCOME, welcome)
                      + peer.pack_frame(link.next_seq(), 0, order_id, body))
        return engine, link

    def test_new_text_before_the_first_record(self):
        engine, link = self.with_welcome(4015, {"text": peer.md5_text("T-2", "/nowhere")})
        self.assertEqual(link.wait_for(peer.ID_NOTICE).body["task_id"], b"T-1")
        link.wait_for(is_status(3))
        link.wait_for_ack(1)
        self.assertIn(b"4015", engine.written())

    def test_finish_before_the_first_record(self):
        _, link = self.with_welcome(4019, order())
        reply = link.wait_for(peer.ID_FINISH_REPLY).body
        self.assertEqual(reply["guid"].decode(), ORDER_UUID)
        self.assertIn(reply["task_id"], (b"", b"T-1"))  # empty before the task has been analysed

    def test_frame_in_pieces_and_fields_in_any_order(self):
        _, link = self.start_running()
        body = (peer.put_bytes(3, b"T-1") + peer.put_bytes(99, b"not known")
                + peer.put_bytes(1, uuid.UUID(ORDER_UUID).bytes))
        data = (peer.put_bytes(4, body) + b"\x48\x05" + b"\x18" + peer.put_varint(4019)
                + b"\x08" + peer.put_varint(link.next_seq()))
        for byte in struct.pack("<I", len(data)) + data:
            link.send_raw(bytes([byte]))
            time.sleep(0.001)
        self.assertEqual(link.wait_for(peer.ID_FINISH_REPLY).body["guid"].decode(), ORDER_UUID)


class FinalStatus(WorkerCase):
    def test_repeated_until_acknowledged(self):
        path = os.path.join(stage.new_folder(), "empty.bin")
        open(path, "wb").close()
        engine = self.start(peer.md5_text("T-1", peer.as_seen(path)))
        link, _ = engine.welcome()
        first = link.wait_for(is_final)
        link.acknowledge(first.seq - 1)
        second = link.wait_for(is_final, 12)
        self.assertGreater(second.seq, first.seq)
        self.assertEqual(first.body["repeat"], 0)
        self.assertEqual(second.body, dict(first.body, repeat=1))
        link.acknowledge(first.seq)  # late, and too small for the wait that runs now
        third = link.wait_for(is_final, 12)
        self.assertGreater(third.seq, second.seq)
        self.assertEqual(third.body, second.body)
        link.acknowledge(third.seq)
        link.send(peer.ID_EXIT)
        seen = []
        link.wait_for(peer.ID_BYE, 10, seen)
        self.assertFalse([frame for frame in seen if is_final(frame)])
        link.close()
        self.assert_ends(engine)

    def test_cancelled_is_not_repeated(self):
        _, link = self.start_running()
        link.send(4002, order())
        link.wait_for(is_final)
        until = time.monotonic() + 8
        try:
            while True:
                frame = link.receive(max(0.01, until - time.monotonic()))
                self.assertFalse(is_final(frame), frame)
        except (peer.Silent, peer.Closed):
            pass


class End(WorkerCase):
    def test_close(self):
        engine, link = self.start_running()
        link.close()
        self.assert_ends(engine)
        self.assertEqual(engine.written().count(b"12306"), 1)

    def test_reset(self):
        engine, link = self.start_running()
        link.reset()
        self.assert_ends(engine)

    def test_bye(self):
        engine, link = self.start_running()
        link.send_control(peer.ID_BYE)
        seen = []
        link.wait_for_close(5, seen)
        self.assertFalse([frame for frame in seen if is_final(frame)])
        link.close()
        self.assert_ends(engine)
        self.assertIn(b"12306", engine.written())

    def test_orders_before_the_loss_are_delivered(self):
        engine, link = self.start_running()
        for _ in range(20):
            link.send(4017, {"text": "<a>x</a>"})
        # Closing with bytes unread would reset the connection and drop orders that the worker has not received.
        link.sock.shutdown(1)
        link.wait_for_close(5, [])
        link.close()
        self.assert_ends(engine)
        written = engine.written()
        self.assertEqual(written.count(b"4017"), 20)
        self.assertGreater(written.index(b"12306"), written.rindex(b"4017"))

    def test_silence(self):
        engine, link = self.start_running(ping_ms=300, silence_ms=2000)
        begin = time.monotonic()
        seen = []
        link.wait_for_close(10, seen)
        self.assertGreater(time.monotonic() - begin, 1.5)
        self.assertIn(peer.ID_PING, {frame.id for frame in seen})
        self.assertFalse(link.said_bye)
        link.close()
        self.assert_ends(engine)


class Resume(WorkerCase):
    """The connection is lost and the session is not."""

    def start_resumable(self, window_ms=60000, **more):
        return self.start_running(resume_window_ms=window_ms, attempt="by-the-engine", **more)

    def test_cut_in_the_middle_of_a_task(self):
        engine, link = self.start_resumable()
        link.wait_for_ack(link.send(peer.ID_SUSPEND, order()))
        had = link.has
        beat = link.wait_for(peer.ID_HEARTBEAT)  # not acknowledged
        last = link.other_sent
        link.reset()
        link, hello = engine.accept_resuming(link)
        self.assertEqual(hello["protocol_version"], 1)
        self.assertEqual((hello["token"].decode(), hello["attempt"]), (engine.TOKEN, b"by-the-engine"))
        self.assertEqual((hello["resume_session_id"], hello["resume_received"], hello["resume_acknowledged"]), (7, 1, had))
        engine.continue_session(link, hello, had, resume_window_ms=60000)
        again = []
        while link.other_sent < last:
            again.append(link.receive())
        self.assertEqual([(frame.id, frame.body) for frame in again if frame.seq == beat.seq], [(beat.id, beat.body)])
        # And once more, with an order that the worker has not got.
        link.acknowledge()
        link.reset()
        link, hello = engine.accept_resuming(link)
        engine.continue_session(link, hello, hello["resume_acknowledged"], resume_window_ms=60000)
        self.assertEqual(link.send(peer.ID_FINISH, order()), 2)
        seen = []
        link.wait_for(is_final, seen=seen)
        self.assertEqual(len([frame for frame in seen if frame.id == peer.ID_FINISH_REPLY]), 1)
        link.acknowledge()
        link.wait_for_ack(link.send(peer.ID_EXIT))
        link.wait_for(peer.ID_BYE, seen=seen)
        link.close()
        self.assert_ends(engine)
        self.assertEqual(engine.worker.returncode, 0)
        self.assertFalse([frame for frame in again + seen if frame.id == peer.ID_NOTICE])
        self.assertNotIn(b"12306", engine.written())
        lines = engine.log("_C.log")[0]
        self.assertEqual(len(re.findall(r"session 7 interrupted: ", lines)), 2)
        self.assertEqual(len(re.findall(r"session 7 resumed after ", lines)), 2)
        self.assertNotIn(engine.TOKEN, lines)

    def test_worker_notices_first(self):
        """The old connection stands at the engine while the new one comes."""
        engine, link = self.start_resumable(silence_ms=1500)
        until = time.monotonic() + 10
        resumed, hello = engine.accept_resuming(link, 10)
        self.assertLess(time.monotonic(), until)
        link.close()
        engine.continue_session(resumed, hello, hello["resume_acknowledged"])
        self.assert_alive(resumed)

    def test_window_passes(self):
        engine, link = self.start_resumable(window_ms=1500)
        begin = time.monotonic()
        link.reset()
        engine.listener.close()
        self.assert_ends(engine)
        self.assertGreater(time.monotonic() - begin, 1.4)
        self.assertEqual(engine.written().count(b"12306"), 1)
        self.assertIn("session 7 lost: not resumed within 1500 ms", engine.log("_C.log")[0])

    def test_bye_is_the_end(self):
        engine, link = self.start_resumable()
        link.send_control(peer.ID_BYE)
        link.wait_for_close(5)
        link.close()
        self.assert_ends(engine)
        self.assertIn(b"12306", engine.written())

    def test_answers_that_end_it(self):
        for name, answer in (("refuse 6", lambda link, _: link.send_control(peer.ID_REFUSE, {"code": 6, "text": "no"})),
                             ("refuse 1", lambda link, _: link.send_control(peer.ID_REFUSE, {"code": 1})),
                             ("another session", lambda link, _: link.send_control(
                                 peer.ID_WELCOME, {"protocol_version": 1, "session_id": 8}, ack=2)),
                             ("more than was sent", lambda link, _: link.send_control(
                                 peer.ID_WELCOME, {"protocol_version": 1, "session_id": 7}, ack=1000)),
                             # The cut may have taken the last acknowledgement with it.
                             ("less than before", lambda link, hello: link.send_control(
                                 peer.ID_WELCOME, {"protocol_version": 1, "session_id": 7},
                                 ack=hello["resume_acknowledged"] - 1))):
            with self.subTest(name):
                engine, link = self.start_resumable()
                link.reset()
                link, hello = engine.accept_resuming(link)
                answer(link, hello)
                link.wait_for_close(5)
                self.assert_ends(engine)
                self.assertEqual(engine.written().count(b"12306"), 1)
                engine.close()

    def test_answers_that_are_asked_again(self):
        engine, link = self.start_resumable()
        link.reset()
        for answer in ({"code": 5}, {"code": 4}):
            refused, _ = engine.accept_resuming(link)
            refused.send_control(peer.ID_REFUSE, answer)
            refused.wait_for_close(5)
            refused.close()
        engine.accept(5).reset()  # no answer at all
        link, hello = engine.accept_resuming(link)
        engine.continue_session(link, hello, hello["resume_acknowledged"])
        self.assert_alive(link)


class Spool(WorkerCase):
    def spooled(self, folder, attempt, seconds=10):
        """The frame in the attempt's file, once it is there."""
        path = os.path.join(folder, attempt + ".final")
        until = time.monotonic() + seconds
        while not os.path.exists(path):
            self.assertLess(time.monotonic(), until, os.listdir(folder))
            time.sleep(0.02)
        with open(path, "rb") as file:
            data = file.read()
        self.assertEqual(struct.unpack("<I", data[-4:])[0], zlib.crc32(data[:-4]))
        self.assertEqual(os.listdir(folder), [attempt + ".final"])
        return peer.unpack_frame(data[:-4])

    def start_final(self, window_ms):
        """A worker whose final status has come and is not acknowledged."""
        path = os.path.join(stage.new_folder(), "empty.bin")
        open(path, "wb").close()
        folder = stage.new_folder()
        engine = self.start(peer.md5_text("T-1", peer.as_seen(path)))
        link, _ = engine.welcome(resume_window_ms=window_ms, attempt="a-1", spool_folder=peer.as_seen(folder))
        final = link.wait_for(is_final)
        self.assertEqual(os.listdir(folder), [])
        return engine, link, final, folder

    def test_until_it_is_acknowledged(self):
        engine, link, final, folder = self.start_final(60000)
        link.reset()
        frame = self.spooled(folder, "a-1")
        # Frame 2 is the status before it, that the task runs.
        self.assertEqual((frame.seq, frame.ack, frame.id, frame.body), (final.seq, 2, final.id, final.body))
        link, hello = engine.accept_resuming(link)
        engine.continue_session(link, hello, final.seq - 1, spool_folder=peer.as_seen(folder))
        again = link.wait_for(is_final)
        self.assertEqual((again.seq, again.body), (final.seq, final.body))
        link.acknowledge()
        link.send(peer.ID_EXIT)
        seen = []
        link.wait_for(peer.ID_BYE, 10, seen)
        self.assertFalse([frame for frame in seen if is_final(frame)])
        link.close()
        self.assert_ends(engine)
        self.assertEqual(os.listdir(folder), [])

    def test_stays_after_a_loss(self):
        for window_ms in (0, 500):
            with self.subTest(window_ms):
                engine, link, final, folder = self.start_final(window_ms)
                engine.listener.close()
                link.reset()
                self.assert_ends(engine)
                self.assertEqual(self.spooled(folder, "a-1").body, final.body)

    def test_a_wait_that_runs_out(self):
        engine, link, final, folder = self.start_final(0)
        again = link.wait_for(is_final, 12)
        self.assertGreaterEqual(self.spooled(folder, "a-1").seq, final.seq)
        link.acknowledge(again.seq)
        link.send(peer.ID_EXIT)
        link.wait_for(peer.ID_BYE, 10)
        link.close()
        self.assert_ends(engine)
        self.assertEqual(os.listdir(folder), [])


class Handshake(WorkerCase):
    def refused(self, *frames):
        """Sends what is no good WELCOME; the worker must give this connection up and try again."""
        engine = self.start()
        link = engine.accept()
        self.assertEqual(link.receive().id, peer.ID_HELLO)
        for frame in frames:
            link.send_raw(frame)
        link.wait_for_close(4)
        link.close()
        link, _ = engine.welcome()
        link.wait_for(peer.ID_NOTICE)
        # The worker's own log tells where the reason stands.
        reasons, name = engine.log("_C.log")
        lines = [line for line in engine.log("_W.log")[0].splitlines() if "No session with the engine at" in line]
        self.assertEqual(len(lines), 1)
        self.assertRegex(lines[0], r" 127\.0\.0\.1:%d; .*%s says why" % (engine.port, re.escape(name)))
        return reasons

    def welcome_frame(self, **values):
        return peer.pack_frame(0, 0, peer.ID_WELCOME, peer.encode(peer.WELCOME, values))

    def test_refuse(self):
        for code in (1, 5, 99):
            with self.subTest(code):
                body = peer.encode(peer.REFUSE, {"code": code, "text": "不行"})
                self.assertIn("code %d: 不行" % code, self.refused(peer.pack_frame(0, 0, peer.ID_REFUSE, body)))

    def test_bad_welcome(self):
        for values in ({"session_id": 7}, {"protocol_version": 2, "session_id": 7}, {"protocol_version": 1},
                       {"protocol_version": 1, "session_id": 0xFFFFFFFF}):
            with self.subTest(values):
                self.refused(self.welcome_frame(**values))

    def test_other_first_frame(self):
        for name, frame in (("ping", peer.pack_frame(0, 0, peer.ID_PING)),
                            ("order", peer.pack_frame(1, 0, peer.ID_EXIT)),
                            ("length 0", b"\0\0\0\0"),
                            ("too long", struct.pack("<I", 65537)),
                            ("undecodable", b"\1\0\0\0\xff")):
            with self.subTest(name):
                self.refused(frame)

    def test_largest_welcome(self):
        engine = self.start()
        link = engine.accept()
        link.receive()
        # Filled up with a field that the worker does not know; 15 bytes are tags, lengths, the id and the two fields.
        body = peer.encode(peer.WELCOME, {"protocol_version": 1, "session_id": 7})
        body += peer.put_bytes(99, b"x" * (peer.FIRST_FRAME_LIMIT - 15))
        frame = peer.pack_frame(0, 0, peer.ID_WELCOME, body)
        self.assertEqual(len(frame), 4 + 65536)
        link.send_raw(frame)
        link.wait_for(peer.ID_NOTICE)

    def test_no_answer(self):
        engine = self.start()
        link = engine.accept()
        link.receive()
        begin = time.monotonic()
        link.wait_for_close(8)
        self.assertGreater(time.monotonic() - begin, 3)
        engine.welcome()


class BadFrames(WorkerCase):
    def test_fatal(self):
        def command(body, seq=1, ack=0):
            return peer.pack_frame(seq, ack, 4004, body)

        good = peer.encode(peer.TASK_COMMAND, order())
        welcome = peer.encode(peer.WELCOME, {"protocol_version": 1, "session_id": 8})
        cases = [
            ("length 0", struct.pack("<I", 0)),
            ("length over 16 MiB", struct.pack("<I", peer.FRAME_LIMIT + 1)),
            ("undecodable frame", b"\x03\0\0\0\x08\xff\xff"),
            ("undecodable body", command(b"\x0a\x20short")),
            ("uuid of 5 bytes", command(b"\x0a\x05" + b"12345")),
            ("uuid of 17 bytes", command(b"\x0a\x11" + b"1" * 17)),
            ("a gap in seq", command(good, seq=2)),
            ("an order with seq 0", command(good, seq=0)),
            ("an unknown id of 4000 and above with seq 0", peer.pack_frame(0, 0, 4999)),
            ("a control id with seq", peer.pack_frame(1, 0, peer.ID_PING)),
            ("an unknown control id with seq", peer.pack_frame(1, 0, 77)),
            ("ack above what was sent", command(good, ack=1000)),
            ("id 0", peer.pack_frame(0, 0, 0)),
            ("id 0 with seq", peer.pack_frame(1, 0, 0)),
            ("a second WELCOME", peer.pack_frame(0, 0, peer.ID_WELCOME, welcome)),
            ("REFUSE after WELCOME", peer.pack_frame(0, 0, peer.ID_REFUSE, b"\x08\x01")),
            ("HELLO", peer.pack_frame(0, 0, peer.ID_HELLO, b"\x08\x01")),
        ]
        for name, data in cases:
            with self.subTest(name):
                engine, link = self.start_running()
                link.send_raw(data)
                self.assert_lost(engine, link)
                self.assertNotIn(b"4004", engine.written())
                engine.close()

    def test_harmless(self):
        engine, link = self.start_running()
        # An unknown id, 12306, a record that only a worker sends: each counts and is acknowledged.
        for message_id in (4999, 12306, peer.ID_NOTICE, peer.ID_STATE):
            with self.subTest(message_id):
                link.send_raw(peer.pack_frame(link.next_seq(), link.has, message_id, b"\xff\xffany"))
                link.wait_for_ack(link.sent, 5)
        with self.subTest("unknown control id"):
            link.send_raw(peer.pack_frame(0, link.has, 77, b"\xff\xffany"))
            self.assert_alive(link)
        with self.subTest("repeated seq"):
            seen = []
            link.send_raw(peer.pack_frame(link.sent, link.has, 4004, peer.encode(peer.TASK_COMMAND, order())))
            link.send_raw(peer.pack_frame(1, link.has, 4004, peer.encode(peer.TASK_COMMAND, order())))
            link.wait_for(peer.ID_HEARTBEAT, seen=seen)
            link.wait_for(peer.ID_HEARTBEAT, seen=seen)
            self.assertFalse([frame for frame in seen if frame.id == peer.ID_SUSPEND_REPLY])
        with self.subTest("smaller ack"):
            link.send_control(peer.ID_PING, ack=0)
            self.assert_alive(link)
        link.wait_for_ack(link.send(4004, order()))

    def test_large_order(self):
        """Almost 16 MiB, which is allowed."""
        _, link = self.start_running()
        seq = link.send(4017, {"text": b"<a>" + b"x" * (peer.FRAME_LIMIT - 100) + b"</a>"})
        link.wait_for_ack(seq, 20)
        self.assert_alive(link)


if __name__ == "__main__":
    unittest.main(verbosity=2)
