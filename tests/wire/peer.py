"""Either end of the engine link, from docs/engine-link.md alone: neither RQWorker's code nor a protobuf library.

What is here: the coding of frames and bodies, `Link` (one connection, which also checks what the other side sends),
`EnginePlace` (listens where a worker expects its engine), and starters for the real programs of a stage copy.
"""

import collections
import http.client
import json
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

# ---- protobuf ------------------------------------------------------------------------------------------------------

UINT, SINT, BYTES, FLOAT, MESSAGE = "uint", "sint", "bytes", "float", "message"


class CodingError(Exception):
    """Bytes that are no message."""


def _field(name, kind, repeated=False, schema=None):
    return (name, kind, repeated, schema)


HELLO = {1: _field("protocol_version", UINT), 2: _field("token", BYTES), 3: _field("attempt", BYTES),
         4: _field("process_id", UINT), 5: _field("worker_version", BYTES), 6: _field("resume_session_id", UINT),
         7: _field("resume_received", UINT), 8: _field("resume_acknowledged", UINT)}
WELCOME = {1: _field("protocol_version", UINT), 2: _field("session_id", UINT), 3: _field("resume_window_ms", UINT),
           4: _field("ping_interval_ms", UINT), 5: _field("silence_limit_ms", UINT), 6: _field("spool_folder", BYTES),
           7: _field("attempt", BYTES)}
REFUSE = {1: _field("code", UINT), 2: _field("text", BYTES)}
EMPTY = {}
HEARTBEAT = {1: _field("version", BYTES), 2: _field("worker_guid", BYTES)}
TASK_NOTICE = {1: _field("version", BYTES), 2: _field("worker_guid", BYTES), 3: _field("task_id", BYTES)}
REPLY = {1: _field("version", BYTES), 2: _field("guid", BYTES), 3: _field("task_id", BYTES),
         4: _field("result_code", BYTES), 5: _field("message", BYTES)}
PROGRESS_ENTRY = {1: _field("task_id", BYTES), 2: _field("second", BYTES), 3: _field("third", BYTES),
                  4: _field("percent", FLOAT), 5: _field("speed", FLOAT), 6: _field("average_speed", FLOAT)}
_RECORD_HEAD = {1: _field("id", UINT), 2: _field("kind", BYTES), 3: _field("sender", BYTES),
                4: _field("receiver", BYTES)}
PROGRESS = dict(_RECORD_HEAD)
PROGRESS[5] = _field("entries", MESSAGE, True, PROGRESS_ENTRY)
MD5_FILE = {1: _field("mode", UINT), 2: _field("first", BYTES), 3: _field("second", BYTES),
            4: _field("first_md5", BYTES), 5: _field("second_md5", BYTES), 6: _field("verification", SINT),
            7: _field("computed_md5", BYTES)}
MD5_RESULT = {1: _field("files", MESSAGE, True, MD5_FILE)}
VERIFICATION = {1: _field("first", BYTES), 2: _field("second", BYTES), 3: _field("first_md5", BYTES),
                4: _field("second_md5", BYTES), 5: _field("verification", SINT)}
TRANSFER_OUTPUT = {1: _field("kind", UINT), 2: _field("first", BYTES), 3: _field("second", BYTES),
                   4: _field("size_bytes", UINT), 5: _field("format_xml", BYTES), 6: _field("further_text", BYTES)}
TRANSCODE_OUTPUT = {1: _field("first", BYTES), 2: _field("second", BYTES), 3: _field("value1", UINT),
                    4: _field("value2", UINT), 5: _field("value64", UINT), 6: _field("format_xml", BYTES)}
TRANSFER_RESULT = {1: _field("verifications", MESSAGE, True, VERIFICATION),
                   2: _field("outputs", MESSAGE, True, TRANSFER_OUTPUT)}
TRANSCODE_RESULT = {1: _field("verifications", MESSAGE, True, VERIFICATION),
                    2: _field("outputs", MESSAGE, True, TRANSCODE_OUTPUT)}
STATUS_ENTRY = {1: _field("task_id", BYTES), 2: _field("second", BYTES), 3: _field("third", BYTES),
                4: _field("task_type", UINT), 5: _field("status", UINT), 6: _field("detail_error_code", UINT),
                7: _field("detail_error_text", BYTES), 8: _field("error_code", UINT), 9: _field("error_text", BYTES),
                10: _field("further_text", BYTES), 11: _field("md5", MESSAGE, False, MD5_RESULT),
                12: _field("transfer", MESSAGE, False, TRANSFER_RESULT),
                13: _field("transcode", MESSAGE, False, TRANSCODE_RESULT), 14: _field("stalled", UINT)}
STATE = dict(_RECORD_HEAD)
STATE[5] = _field("entries", MESSAGE, True, STATUS_ENTRY)
STATE[6] = _field("repeat", UINT)
TASK_COMMAND = {1: _field("uuid", BYTES), 2: _field("text", BYTES), 3: _field("task_ids", BYTES, True)}
TASK_TEXT = {1: _field("text", BYTES)}
FRAME = {1: _field("seq", UINT), 2: _field("ack", UINT), 3: _field("id", UINT), 4: _field("body", BYTES)}

ID_HELLO, ID_WELCOME, ID_REFUSE, ID_ACK, ID_PING, ID_BYE = 1, 2, 3, 4, 5, 6
ID_HEARTBEAT, ID_NOTICE, ID_CANCEL, ID_CANCEL_REPLY, ID_SUSPEND, ID_SUSPEND_REPLY = 4000, 4001, 4002, 4003, 4004, 4005
ID_RESUME, ID_RESUME_REPLY, ID_PROGRESS, ID_STATE, ID_EXIT, ID_UPDATE = 4006, 4007, 4008, 4009, 4014, 4015
ID_UPDATE_REPLY, ID_ADD, ID_FINISH, ID_FINISH_REPLY = 4016, 4017, 4019, 4020

BODY_OF = {ID_HELLO: HELLO, ID_WELCOME: WELCOME, ID_REFUSE: REFUSE, ID_ACK: EMPTY, ID_PING: EMPTY, ID_BYE: EMPTY,
           ID_HEARTBEAT: HEARTBEAT, ID_NOTICE: TASK_NOTICE, ID_CANCEL: TASK_COMMAND, ID_CANCEL_REPLY: REPLY,
           ID_SUSPEND: TASK_COMMAND, ID_SUSPEND_REPLY: REPLY, ID_RESUME: TASK_COMMAND, ID_RESUME_REPLY: REPLY,
           ID_PROGRESS: PROGRESS, ID_STATE: STATE, ID_EXIT: EMPTY, ID_UPDATE: TASK_TEXT, ID_UPDATE_REPLY: REPLY,
           ID_ADD: TASK_TEXT, ID_FINISH: TASK_COMMAND, ID_FINISH_REPLY: REPLY}
FROM_WORKER = {ID_HEARTBEAT, ID_NOTICE, ID_CANCEL_REPLY, ID_SUSPEND_REPLY, ID_RESUME_REPLY, ID_PROGRESS, ID_STATE,
               ID_UPDATE_REPLY, ID_FINISH_REPLY}
FROM_ENGINE = {ID_CANCEL, ID_SUSPEND, ID_RESUME, ID_EXIT, ID_UPDATE, ID_ADD, ID_FINISH}
FINAL_STATUSES = (0, 4, 5)

FRAME_LIMIT = 16 * 1024 * 1024
FIRST_FRAME_LIMIT = 65536


def put_varint(value):
    out = bytearray()
    value &= (1 << 64) - 1
    while value > 0x7F:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


def get_varint(data, at):
    value = 0
    for count in range(10):
        if at >= len(data):
            raise CodingError("a varint ends too early")
        value |= (data[at] & 0x7F) << (7 * count)
        at += 1
        if not data[at - 1] & 0x80:
            return value & ((1 << 64) - 1), at
    raise CodingError("a varint is too long")


def put_bytes(number, data):
    return put_varint(number * 8 + 2) + put_varint(len(data)) + data


def encode(schema, values):
    """The bytes of a message, fields ascending, zeros and empty texts left out."""
    unknown = set(values) - {name for name, _, _, _ in schema.values()}
    if unknown:
        raise KeyError(unknown)
    out = b""
    for number in sorted(schema):
        name, kind, repeated, inner = schema[number]
        if name not in values:
            continue
        for value in values[name] if repeated else [values[name]]:
            if kind == MESSAGE:
                out += put_bytes(number, encode(inner, value))
            elif kind == BYTES:
                value = value.encode() if isinstance(value, str) else value
                if value or repeated:
                    out += put_bytes(number, value)
            elif kind == FLOAT:
                if struct.pack("<f", value) != b"\0\0\0\0":
                    out += put_varint(number * 8 + 5) + struct.pack("<f", value)
            elif value:
                zigzag = (value << 1) ^ (value >> 31) if kind == SINT else value
                out += put_varint(number * 8) + put_varint(zigzag & 0xFFFFFFFF if kind == SINT else zigzag)
    return out


def fields_of(data):
    """(number, wire type, value) of each field as it stands in `data`."""
    at = 0
    while at < len(data):
        tag, at = get_varint(data, at)
        number, wire = tag >> 3, tag & 7
        if number == 0:
            raise CodingError("field number 0")
        if wire == 0:
            value, at = get_varint(data, at)
        else:
            if wire == 2:
                size, at = get_varint(data, at)
            elif wire in (1, 5):
                size = 8 if wire == 1 else 4
            else:
                raise CodingError("wire type %d" % wire)
            if at + size > len(data):
                raise CodingError("field %d ends too early" % number)
            value = data[at:at + size]
            at += size
        yield number, wire, value


def decode(schema, data):
    """A message as a dictionary in which every field of the schema is present (an absent sub-message as None)."""
    values = {}
    for name, kind, repeated, _ in schema.values():
        values[name] = [] if repeated else {BYTES: b"", FLOAT: 0.0, MESSAGE: None}.get(kind, 0)
    for number, wire, raw in fields_of(data):
        if number not in schema:
            continue
        name, kind, repeated, inner = schema[number]
        if wire != {BYTES: 2, MESSAGE: 2, FLOAT: 5}.get(kind, 0):
            raise CodingError("%s has wire type %d" % (name, wire))
        if kind == MESSAGE:
            value = decode(inner, raw)
        elif kind == FLOAT:
            value = struct.unpack("<f", raw)[0]
        elif kind == SINT:
            value = (raw >> 1) ^ -(raw & 1)
        else:
            value = raw
        if repeated:
            values[name].append(value)
        else:
            values[name] = value
    return values


# ---- frames --------------------------------------------------------------------------------------------------------

Frame = collections.namedtuple("Frame", "seq ack id body raw")


def pack_frame(seq, ack, message_id, body=b""):
    data = encode(FRAME, {"seq": seq, "ack": ack, "id": message_id, "body": body})
    return struct.pack("<I", len(data)) + data


def unpack_frame(data):
    """The frame in `data`, which begins with the four bytes of its length and holds nothing else."""
    size, = struct.unpack("<I", data[:4])
    if size != len(data) - 4:
        raise CodingError("length %d, %d bytes" % (size, len(data) - 4))
    head = decode(FRAME, data[4:])
    message_id = head["id"]
    body = decode(BODY_OF[message_id], head["body"]) if message_id in BODY_OF else head["body"]
    return Frame(head["seq"], head["ack"], message_id, body, data)


class Broken(AssertionError):
    """The other side sent what the protocol forbids."""


class Closed(Exception):
    """The other side has closed or reset the connection."""


class Silent(AssertionError):
    """The frame that a test waits for has not come in time."""


class Link:
    """One connection. Counts both sides' numbers and checks each frame of the other side against the page."""

    def __init__(self, sock, from_other):
        self.sock = sock
        self.sock.settimeout(20)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.from_other = from_other  # the message ids that the other side may send
        self.sent = 0                 # own highest seq
        self.has = 0                  # what the own frames acknowledge
        self.other_sent = 0           # the other side's highest seq
        self.other_has = 0            # what the other side has acknowledged
        self.received = 0
        self.said_bye = False
        self._rest = b""

    def close(self):
        self.sock.close()

    def reset(self):
        """Closes so that the other side gets a TCP reset."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    # sending

    def send_raw(self, data):
        try:
            self.sock.sendall(data)
        except (ConnectionError, OSError) as error:
            raise Closed(str(error)) from error

    def send_control(self, message_id, values=None, ack=None):
        body = encode(BODY_OF[message_id], values or {})
        self.send_raw(pack_frame(0, self.has if ack is None else ack, message_id, body))

    def next_seq(self):
        self.sent += 1
        return self.sent

    def send(self, message_id, values=None):
        """A numbered frame; returns its seq. Bytes as `values` are sent as the body as they are."""
        body = values if isinstance(values, bytes) else encode(BODY_OF[message_id], values or {})
        self.send_raw(pack_frame(self.next_seq(), self.has, message_id, body))
        return self.sent

    def acknowledge(self, seq=None):
        self.has = self.other_sent if seq is None else seq
        self.send_control(ID_ACK)

    # receiving

    def _bytes(self, count, until):
        while len(self._rest) < count:
            left = until - time.monotonic()
            if left <= 0:
                raise Silent("nothing came")
            self.sock.settimeout(left)
            try:
                more = self.sock.recv(65536)
            except socket.timeout:
                continue
            except OSError as error:
                raise Closed(str(error)) from error
            finally:
                self.sock.settimeout(20)
            if not more:
                if self._rest:
                    raise Broken("the connection ends inside a frame")
                raise Closed("end of stream")
            self._rest += more
        data, self._rest = self._rest[:count], self._rest[count:]
        return data

    def receive(self, seconds=10):
        """The next frame, whatever it is."""
        until = time.monotonic() + seconds
        head = self._bytes(4, until)
        size, = struct.unpack("<I", head)
        limit = FRAME_LIMIT if self.received else FIRST_FRAME_LIMIT
        if not 1 <= size <= limit:
            raise Broken("a frame of length %d" % size)
        try:
            frame = unpack_frame(head + self._bytes(size, until))
        except CodingError as error:
            raise Broken(str(error)) from error
        self.received += 1
        self._check(frame)
        return frame

    def _check(self, frame):
        if self.said_bye:
            raise Broken("a frame after BYE: %r" % (frame,))
        if frame.id >= 4000:
            if frame.id not in self.from_other:
                raise Broken("id %d is not the other side's to send" % frame.id)
            if frame.seq != self.other_sent + 1:
                raise Broken("seq %d after %d" % (frame.seq, self.other_sent))
            self.other_sent = frame.seq
        elif frame.seq or not 1 <= frame.id <= 6:
            raise Broken("control frame %r" % (frame,))
        if frame.ack > self.sent:
            raise Broken("ack %d, but only %d sent" % (frame.ack, self.sent))
        if frame.ack < self.other_has:
            raise Broken("ack %d after %d" % (frame.ack, self.other_has))
        self.other_has = frame.ack
        numbers = [number for number, _, _ in fields_of(frame.raw[4:])]
        if numbers != sorted(numbers):
            raise Broken("fields out of order: %r" % (numbers,))
        self.said_bye = frame.id == ID_BYE

    def wait_for(self, fits, seconds=15, seen=None):
        """Reads on until `fits(frame)`; every frame on the way, it too, is appended to `seen`."""
        until = time.monotonic() + seconds
        if isinstance(fits, int):
            wanted, fits = fits, lambda frame: frame.id == wanted
        while True:
            frame = self.receive(max(0.01, until - time.monotonic()))
            if seen is not None:
                seen.append(frame)
            if fits(frame):
                return frame

    def wait_for_ack(self, seq, seconds=5, seen=None):
        """Reads on until the other side has acknowledged `seq`."""
        if self.other_has < seq:
            self.wait_for(lambda frame: frame.ack >= seq, seconds, seen)

    def wait_for_close(self, seconds=10, seen=None):
        """Reads on to the end of the connection."""
        until = time.monotonic() + seconds
        try:
            while True:
                frame = self.receive(max(0.01, until - time.monotonic()))
                if seen is not None:
                    seen.append(frame)
        except Closed:
            return


def is_status(status):
    return lambda frame: frame.id == ID_STATE and frame.body["entries"][0]["status"] == status


def is_final(frame):
    return frame.id == ID_STATE and any(entry["status"] in FINAL_STATUSES for entry in frame.body["entries"])


# ---- the programs --------------------------------------------------------------------------------------------------

def md5_text(task_id, *paths):
    files = "".join("<File><Path>%s</Path></File>" % path for path in paths)
    return '<?xml version="1.0" encoding="UTF-8"?>\n<MD5Task><ID>%s</ID><Files>%s</Files></MD5Task>' % (task_id, files)


# Programs of another system: RQ_STARTER starts them, and they see this machine's root as RQ_PATH_ROOT. A process has
# another number there than here.
STARTER = os.environ.get("RQ_STARTER", "")


def as_seen(path):
    """The name by which the programs know a file of this machine."""
    return os.environ.get("RQ_PATH_ROOT", "") + path


def program(folder, name):
    """How the command line of a program of the stage begins."""
    path = os.path.join(folder, name)
    return [STARTER, path + ".exe"] if STARTER else [path]


def sparse_file(path, size):
    """Returns the name by which the programs know it."""
    with open(path, "wb") as file:
        file.truncate(size)
    return as_seen(path)


class Stage:
    """A copy of the stage in a temporary folder, whose worker sends heartbeats and progress often."""

    def __init__(self):
        source = os.environ.get("RQ_STAGE")
        if not source:
            sys.exit("RQ_STAGE must name the folder of RQWorkerU and rqengine")
        self.root = tempfile.mkdtemp(prefix="rq wire 链路 ")
        self.folder = os.path.join(self.root, "stage")
        shutil.copytree(source, self.folder)
        self.set_parameter("HeartbeatInterval", "1")
        self.set_parameter("ProgressReportInterval", "1")

    def set_parameter(self, name, value):
        path = os.path.join(self.folder, "actor.xml")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        begin = text.index("<%s>" % name) + len(name) + 2
        text = text[:begin] + value + text[text.index("</%s>" % name):]
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    def install_plugin(self, name, task_type):
        """One of the test plug-ins, for that type alone."""
        library = name + os.environ["RQ_BAD_PLUGIN_SUFFIX"]
        folder = os.path.join(self.folder, "plugins", name)
        if not os.path.isdir(folder):
            os.makedirs(folder)
            shutil.copy(os.path.join(os.environ["RQ_BAD_PLUGIN_DIR"], name, library), folder)
        with open(os.path.join(self.folder, "RQWorkerConfig.xml"), "w", encoding="utf-8") as file:
            file.write("<WorkerConfig><WORKER><TYPE>%d</TYPE><PATH>plugins\\%s\\%s</PATH></WORKER></WorkerConfig>"
                       % (task_type, name, library))

    def new_folder(self):
        return tempfile.mkdtemp(dir=self.root)

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)


def end_process(process):
    if process.poll() is None:
        process.kill()
    process.wait(20)


class EnginePlace:
    """Listens in the engine's place for the worker that it has started, or sends that worker to another `port`."""

    TOKEN, ATTEMPT = "wire-token-5f0c", "attempt-17"

    def __init__(self, stage, text=None, file=None, task_type="mc", port=None, environment=None):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.folder = stage.new_folder()
        parameter = file or os.path.join(self.folder, "task.xml")
        if not file:
            with open(parameter, "wb") as out:
                out.write(text if isinstance(text, bytes) else text.encode())
        environment = dict(os.environ, RQ_LOG_DIR=as_seen(self.folder), RQ_ENGINE_TOKEN=self.TOKEN, RQ_ATTEMPT=self.ATTEMPT,
                           RQ_CONSOLE_ENCODING="UTF-8", **(environment or {}))
        self.output = open(os.path.join(self.folder, "output"), "wb")
        self.worker = subprocess.Popen(
            program(stage.folder, "RQWorkerU") + [task_type, as_seen(parameter), str(port or self.port), "0"],
            cwd=self.folder, env=environment, stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.output)
        self.links = []

    def accept(self, seconds=15):
        """The next connection, HELLO not read yet."""
        self.listener.settimeout(seconds)
        try:
            sock, _ = self.listener.accept()
        except socket.timeout:
            raise Silent("no worker has connected") from None
        self.links.append(Link(sock, FROM_WORKER))
        return self.links[-1]

    def welcome(self, session=7, ping_ms=15000, silence_ms=60000, link=None, **more):
        """The handshake; returns the link and the worker's HELLO."""
        link = link or self.accept()
        hello = link.receive()
        if hello.id != ID_HELLO:
            raise Broken("the first frame is %r" % (hello,))
        link.send_control(ID_WELCOME, dict({"protocol_version": 1, "session_id": session, "ping_interval_ms": ping_ms,
                                            "silence_limit_ms": silence_ms}, **more))
        return link, hello.body

    def accept_resuming(self, before, seconds=15):
        """The connection that takes the place of the link `before`; returns the link and HELLO, not answered yet."""
        link = self.accept(seconds)
        link.sent, link.other_has = before.sent, before.other_has
        hello = link.receive()
        if hello.id != ID_HELLO:
            raise Broken("the first frame is %r" % (hello,))
        if not before.other_has <= hello.ack <= hello.body["resume_received"] <= before.sent:
            raise Broken("%r after %d orders" % (hello, before.sent))
        if hello.body["resume_acknowledged"] > before.has:
            raise Broken("%r, but %d were acknowledged" % (hello, before.has))
        return link, hello.body

    def continue_session(self, link, hello, has, **more):
        """WELCOME to one that resumes: the engine has the worker's frames up to `has`, and the others come again."""
        link.sent, link.has, link.other_sent = hello["resume_received"], has, has
        link.send_control(ID_WELCOME, dict({"protocol_version": 1, "session_id": hello["resume_session_id"],
                                            "ping_interval_ms": 15000, "silence_limit_ms": 60000,
                                            "attempt": hello["attempt"]}, **more))

    def written(self):
        """What the worker wrote to its output."""
        with open(self.output.name, "rb") as file:
            return file.read()

    def log(self, end):
        """The text and the name of the worker's log whose name ends so."""
        found = [os.path.join(folder, name) for folder, _, names in os.walk(self.folder) for name in names
                 if name.endswith(end)]
        if len(found) != 1:
            raise AssertionError("%d logs %s" % (len(found), end))
        with open(found[0], encoding="utf-8") as file:
            return file.read(), os.path.basename(found[0])

    def close(self):
        end_process(self.worker)
        for link in self.links:
            link.close()
        self.listener.close()
        self.output.close()


class RealEngine:
    """rqengine with a data folder of its own. Unless its configuration says otherwise a session ends with its connection."""

    BEFORE, MORE = [], []  # of the command line

    def __init__(self, stage, config="[limits]\nresume_s = 0\n"):
        self.stage = stage
        self.data = os.path.join(stage.new_folder(), "data")
        os.mkdir(self.data, 0o700)
        with open(os.path.join(self.data, "engine.toml"), "w", encoding="utf-8") as file:
            file.write(config)
        self.process = None
        self.links = []
        self.start()

    def start(self):
        facts = os.path.join(self.data, "engine.json")
        before = os.stat(facts).st_mtime_ns if os.path.exists(facts) else None
        output = open(os.path.join(self.stage.new_folder(), "output"), "wb")
        self.process = subprocess.Popen(
            self.BEFORE + program(self.stage.folder, "rqengine") +
            ["--data", as_seen(self.data), "--port", "0", "--http-port", "0"] + self.MORE,
            stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        output.close()
        until = time.monotonic() + 30
        while True:
            try:
                with open(facts, encoding="utf-8") as file:
                    where = json.load(file)
                if where["pid"] == self.process.pid or (STARTER and os.stat(facts).st_mtime_ns != before):
                    break
            except (OSError, ValueError):
                pass
            if self.process.poll() is not None or time.monotonic() > until:
                end_process(self.process)
                raise Silent("rqengine does not start; see %s" % output.name)
            time.sleep(0.02)
        self.link_port, self.http_port = where["link_port"], where["http_port"]
        with open(os.path.join(self.data, "engine.token"), encoding="ascii") as file:
            self.token = file.read().strip()

    def kill(self):
        end_process(self.process)

    def close(self):
        end_process(self.process)
        for link in self.links:
            link.close()

    def connect(self):
        """A connection, nothing sent yet."""
        self.links.append(Link(socket.create_connection(("127.0.0.1", self.link_port), 10), FROM_ENGINE))
        return self.links[-1]

    def shake_hands(self, link=None, **hello):
        """Sends HELLO; returns the link and the answer."""
        link = link or self.connect()
        values = {"protocol_version": 1, "token": self.token, "process_id": os.getpid(), "worker_version": "wire 1"}
        values.update(hello)
        link.send_control(ID_HELLO, values)
        return link, link.receive()

    def ask(self, method, path, body=None):
        """An HTTP request; returns the status and the decoded answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.http_port, timeout=40)
        try:
            headers = {"Authorization": "Bearer " + self.token}
            if body is not None:
                headers["Content-Type"] = "application/json"
                body = json.dumps(body)
            connection.request(method, "/api/v1" + path, body, headers)
            answer = connection.getresponse()
            return answer.status, json.loads(answer.read())
        finally:
            connection.close()

    def get(self, path):
        status, answer = self.ask("GET", path)
        if status != 200:
            raise AssertionError("GET %s: %d %r" % (path, status, answer))
        return answer

    def events(self, task_id):
        return self.get("/tasks/%s/events" % task_id)["events"]

    def wait_for_task(self, task_id, fits, seconds=15):
        """The task in full once `fits(task)`."""
        until = time.monotonic() + seconds
        while True:
            task = self.get("/tasks/" + task_id)
            if fits(task):
                return task
            if time.monotonic() > until:
                raise Silent("the task stands at %r, events %r" % (task, self.events(task_id)))
            time.sleep(0.05)
