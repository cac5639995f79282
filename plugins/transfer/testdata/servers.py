"""servers.py FOLDER KEYS [tls] [sftp:KIND] [alone]: an HTTP and an FTP server over FOLDER, with "tls" an HTTPS and an FTPS one (TLS from
the beginning) too, and with "sftp" an sshd of this user's own with keys of that kind (ecdsa, ed25519, rsa; rsa-sha1: and it takes
signatures with SHA-1), on free ports of 127.0.0.1; for the tests of transfers. Prints "http PORT" and so on, then "ready", then a line
for each request; or "lacks" and what the machine lacks. Ends when FOLDER is gone. "alone": errors go to the output. User "u" has the password "p w".

KEYS gets public.pem, the certificate, which is for "localhost", and other.pem, another one for it; known, the key of the sshd; and user with user.pub, the key of its user, with the
passphrase "phrase". It prints "user NAME" and "place PATH", FOLDER as a part of a URL. "sftp-cut PORT" leads to the sshd too, and breaks
the first connection after so many bytes.

HTTP: /files/NAME is plain. Elsewhere the same files are there, but: /cut/ breaks off in the middle the first time; /norange/ does
too, and knows no ranges; /changes/ too, and the file is another one then; /busy/ answers 503 the first time; /private/ wants
the user; /moved/ leads to /files/; /slow/ takes its time; /full/ has no room; /spoils/ keeps other bytes than it gets.
FTP: a download of a name with "cut" breaks off in the middle the first time, and so does an upload of one; one of a name with
"full" has no room, and of one with "short" only the beginning is kept.
"""
import base64
import ctypes
import getpass
import hashlib
import http.server
import os
import socket
import socketserver
import ssl
import subprocess
import sys
import threading
import time
import urllib.parse

FOLDER, KEYS = sys.argv[1:3]
WANTED = sys.argv[3:]
# What Wine hands on, its own error output for one, would keep a test's reader waiting.
os.closerange(3, 1024)
if "alone" in WANTED:
    os.dup2(1, 2)
CUT_BYTES = 1_500_000
seen = set()
lock = threading.Lock()


def say(*words):
    with lock:
        print(*words, flush=True)


def first_time(what):
    with lock:
        is_first = what not in seen
        seen.add(what)
        return is_first


class Http(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def place(self):
        _, kind, name = urllib.parse.unquote(self.path).split("/", 2)
        return kind, os.path.join(FOLDER, name)

    def answer(self, code, body=b"", **headers):
        self.send_response(code)
        for key, value in headers.items():
            self.send_header(key.replace("_", "-"), value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def do_HEAD(self):
        self.do_GET()

    def do_GET(self):
        kind, path = self.place()
        wanted = self.headers.get("Range", "")
        say(self.command, self.path, wanted or "-", "user" if self.headers.get("Authorization") else "nobody")
        if kind == "moved":
            return self.answer(302, Location="/files/" + self.path.split("/", 2)[2])
        if kind == "private" and self.headers.get("Authorization") != "Basic " + base64.b64encode(b"u:p w").decode():
            return self.answer(401, WWW_Authenticate="Basic realm=x")
        if not os.path.isfile(path):
            return self.answer(404)
        if kind == "busy" and first_time(self.path):
            return self.answer(503)
        with open(path, "rb") as file:
            data = file.read()
        broken = self.command == "GET" and kind in ("cut", "norange", "changes") and first_time(self.path)
        if kind == "changes" and ("GET", self.path) in seen:
            data = data[::-1]
        if broken:
            seen.add(("GET", self.path))
        tag = '"%s"' % hashlib.md5(data).hexdigest()
        begin = 0
        code = 200
        if wanted.startswith("bytes=") and kind != "norange" and self.headers.get("If-Range", tag) == tag:
            begin = int(wanted[6:].split("-")[0])
            code = 206
        self.send_response(code)
        if kind != "norange":
            self.send_header("ETag", tag)
        if code == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (begin, len(data) - 1, len(data)))
        self.send_header("Content-Length", str(len(data) - begin))
        self.end_headers()
        if self.command == "HEAD":
            return None
        try:
            if kind == "slow":
                for at in range(0, len(data), 1 << 16):
                    self.wfile.write(data[at:at + (1 << 16)])
                    time.sleep(0.02)
            elif broken:
                self.wfile.write(data[:len(data) // 2])
                self.close_connection = True
                self.connection.shutdown(socket.SHUT_RDWR)
            else:
                self.wfile.write(data[begin:])
        except OSError:
            self.close_connection = True
        return None

    def do_PUT(self):
        kind, path = self.place()
        say("PUT", self.path)
        data = self.rfile.read(int(self.headers["Content-Length"]))
        if len(data) < int(self.headers["Content-Length"]):
            say("PUT was not complete")
            self.close_connection = True
            return None
        if self.headers.get("If-None-Match") == "*" and os.path.exists(path):
            return self.answer(412)
        if kind == "full":
            return self.answer(507)
        if kind == "moved":
            return self.answer(307, Location="/files/" + self.path.split("/", 2)[2])
        if kind == "cut" and first_time("PUT" + self.path):
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)
            return None
        with open(path, "wb") as file:
            file.write(data[::-1] if kind == "spoils" else data)
        return self.answer(201)


class Ftp(socketserver.StreamRequestHandler):
    def tell(self, text):
        self.wfile.write((text + "\r\n").encode())

    def path(self, name):
        return os.path.join(FOLDER, os.path.join(self.here, name).lstrip("/"))

    def data(self):
        connection, _ = self.passive.accept()
        self.passive.close()
        return protection.wrap_socket(connection, server_side=True) if self.server.is_protected else connection

    def send(self, name):
        with open(self.path(name), "rb") as file:
            content = file.read()
        broken = "cut" in name and not name.endswith(".rqpart") and first_time("RETR " + name)
        self.tell("150 here it comes")
        with self.data() as connection:
            connection.sendall(content[self.rest:len(content) // 2 if broken else len(content)])
        self.rest = 0
        return None if broken else "226 done"

    def receive(self, name, mode):
        if "full" in name:
            return "552 no room"
        broken = "cut" in name and first_time("STOR " + name)
        self.tell("150 send it")
        with self.data() as connection, open(self.path(name), mode) as file:
            while piece := connection.recv(1 << 16):
                file.write(piece)
                if broken and file.tell() > 100_000:
                    return None
            if "short" in name:
                file.truncate(1000)
        return "226 done"

    def handle(self):
        self.here = "/"
        self.rest = 0
        user = ""
        known = False
        self.tell("220 hello")
        for line in self.rfile:
            command, _, rest = line.decode().rstrip("\r\n").partition(" ")
            command = command.upper()
            say("ftp", command, "***" if command == "PASS" else rest)
            answer = "502 not here"
            if command == "USER":
                user = rest
                answer = "331 and the password?"
            elif command == "PASS":
                known = (user, rest) == ("u", "p w")
                answer = "230 come in" if known else "530 no"
            elif command == "QUIT":
                self.tell("221 bye")
                return
            elif not known:
                answer = "530 who are you?"
            elif command == "PWD":
                answer = '257 "%s"' % self.here
            elif command == "CWD":
                place = os.path.normpath(os.path.join(self.here, rest))
                is_there = os.path.isdir(os.path.join(FOLDER, place.lstrip("/")))
                answer = "250 there" if is_there else "550 no such folder"
                self.here = place if is_there else self.here
            elif command == "TYPE":
                answer = "200 as you like"
            elif command == "SIZE":
                is_file = os.path.isfile(self.path(rest))
                answer = "213 %d" % os.path.getsize(self.path(rest)) if is_file else "550 no such file"
            elif command in ("PBSZ", "PROT"):
                answer = "200 so be it"
            elif command == "EPSV":
                self.passive = socket.create_server(("127.0.0.1", 0))
                answer = "229 come (|||%d|)" % self.passive.getsockname()[1]
            elif command == "REST":
                self.rest = int(rest)
                answer = "350 from there"
            elif command == "RETR":
                answer = self.send(rest) if os.path.isfile(self.path(rest)) else "550 no such file"
            elif command in ("STOR", "APPE"):
                answer = self.receive(rest, "wb" if command == "STOR" else "ab")
            elif command == "RNFR":
                self.old = rest
                answer = "350 and to?"
            elif command == "RNTO":
                os.rename(self.path(self.old), self.path(rest))
                answer = "250 done"
            elif command == "DELE":
                os.remove(self.path(rest))
                answer = "250 gone"
            if answer is None:
                return
            self.tell(answer)


def make_certificates():
    private, public, other = (os.path.join(KEYS, name) for name in ("private.pem", "public.pem", "other.pem"))
    for path in (other, public):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                        "-subj", "/CN=test", "-addext", "subjectAltName=DNS:localhost", "-keyout", private, "-out", path],
                       check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(public, private)
    return context


def end_with_parent():
    ctypes.CDLL(None).prctl(1, 15)


def start_sshd(kind):
    program = "/usr/sbin/sshd"
    if not os.path.exists(program):
        return "there is no " + program
    if os.geteuid() == 0 and not os.path.isdir("/run/sshd"):
        return "as root it wants /run/sshd"
    for name, phrase in (("host", ""), ("user", "phrase")):
        form = ["-t", kind.split("-")[0]] + (["-m", "PEM"] if kind.startswith("rsa") and name == "user" else [])
        subprocess.run(["ssh-keygen", "-q", *form, "-N", phrase, "-C", "test", "-f", os.path.join(KEYS, name)], check=True)
    with socket.create_server(("127.0.0.1", 0)) as place:
        port = place.getsockname()[1]
    settings = ["ListenAddress 127.0.0.1", "Port %d" % port, 'HostKey "%s"' % os.path.join(KEYS, "host"),
                'AuthorizedKeysFile "%s"' % os.path.join(KEYS, "user.pub"), "StrictModes no", "PasswordAuthentication no",
                "PidFile none", "Subsystem sftp internal-sftp"]
    if kind == "rsa-sha1":
        settings += ["HostKeyAlgorithms +ssh-rsa", "PubkeyAcceptedAlgorithms +ssh-rsa"]
    with open(os.path.join(KEYS, "config"), "w") as file:
        file.write("\n".join(settings) + "\n")
    subprocess.Popen([program, "-D", "-e", "-f", os.path.join(KEYS, "config")], preexec_fn=end_with_parent)
    for _ in range(500):
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            break
        except OSError:
            time.sleep(0.02)
    with open(os.path.join(KEYS, "host.pub")) as file:
        key = file.read()
    cutter = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Cutter)
    cutter.port = port
    serve("sftp-cut", cutter)
    with open(os.path.join(KEYS, "known"), "w") as file:
        for known in (port, cutter.server_address[1]):
            file.write("[127.0.0.1]:%d %s" % (known, key))
    say("user", getpass.getuser())
    say("place", urllib.parse.quote(FOLDER))
    say("sftp", port)
    return None


class Cutter(socketserver.BaseRequestHandler):
    def handle(self):
        is_first = first_time("cutter")
        left = [CUT_BYTES]
        with socket.create_connection(("127.0.0.1", self.server.port)) as other:
            def pass_on(source, target):
                try:
                    while (piece := source.recv(1 << 14)) and (left[0] > 0 or not is_first):
                        target.sendall(piece)
                        left[0] -= len(piece)
                except OSError:
                    pass
                for end in (source, target):
                    try:
                        end.shutdown(socket.SHUT_RDWR)
                    except OSError:
                        pass
            say("sftp connection")
            back = threading.Thread(target=pass_on, args=(other, self.request))
            back.start()
            pass_on(self.request, other)
            back.join()


def serve(kind, server, is_protected=False):
    server.daemon_threads = True
    server.is_protected = is_protected
    if is_protected:
        server.socket = protection.wrap_socket(server.socket, server_side=True)
    say(kind, server.server_address[1])
    threading.Thread(target=server.serve_forever, daemon=True).start()


socketserver.ThreadingTCPServer.allow_reuse_address = True
here = ("127.0.0.1", 0)
serve("http", http.server.ThreadingHTTPServer(here, Http))
serve("ftp", socketserver.ThreadingTCPServer(here, Ftp))
if "tls" in WANTED:
    protection = make_certificates()
    serve("https", http.server.ThreadingHTTPServer(here, Http), True)
    serve("ftps", socketserver.ThreadingTCPServer(here, Ftp), True)
for wanted in WANTED:
    if wanted.startswith("sftp:") and (lack := start_sshd(wanted[5:])):
        say("lacks", lack)
say("ready")
end = time.monotonic() + 600
while os.path.isdir(FOLDER) and time.monotonic() < end:
    time.sleep(0.1)
