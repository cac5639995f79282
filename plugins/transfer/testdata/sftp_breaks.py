"""sftp_breaks.py SERVER FILE: the sftp subsystem of a test's sshd. Passes everything to SERVER and back, but breaks off at a
rename. Each one, of whatever connection, takes a line from FILE: "before" breaks off before it is passed on, "after" loses its answer, "-"
and no line let it be.
"""
import os
import signal
import struct
import subprocess
import sys
import threading

RENAME = 18
FILE = " ".join(sys.argv[2:])  # sshd hands on a name with blanks in parts
server = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
is_silent = threading.Event()
answered = threading.Event()


def read(source, count):
    data = b""
    while len(data) < count:
        part = source.read(count - len(data))
        if not part:
            return None
        data += part
    return data


def packet(source):
    head = read(source, 4)
    return None if head is None else (head, read(source, struct.unpack(">I", head)[0]))


def back():
    while True:
        got = packet(server.stdout)
        if got is None or None in got:
            break
        if is_silent.is_set():
            answered.set()
            continue
        sys.stdout.buffer.write(got[0] + got[1])
        sys.stdout.buffer.flush()
    answered.set()


def order():
    if not os.path.exists(FILE):
        return "-"
    with open(FILE, encoding="ascii") as file:
        lines = file.read().split("\n")
    with open(FILE, "w", encoding="ascii") as file:
        file.write("\n".join(lines[1:]))
    return lines[0]


def end_connection():
    """Ends the sshd of this connection, maybe behind a shell."""
    process = os.getppid()
    while True:
        with open("/proc/%d/stat" % process, encoding="ascii", errors="replace") as file:
            name, rest = file.read().split("(", 1)[1].rsplit(")", 1)
        if name.startswith("sshd"):
            os.kill(process, signal.SIGKILL)
            os._exit(1)
        process = int(rest.split()[1])


threading.Thread(target=back, daemon=True).start()
while True:
    got = packet(sys.stdin.buffer)
    if got is None or None in got:
        break
    if got[1][0] == RENAME:
        when = order()
        if when in ("before", "after"):
            if when == "after":
                is_silent.set()
                server.stdin.write(got[0] + got[1])
                server.stdin.flush()
                answered.wait(20)
            server.kill()
            end_connection()
    server.stdin.write(got[0] + got[1])
    server.stdin.flush()
server.stdin.close()
server.wait()
