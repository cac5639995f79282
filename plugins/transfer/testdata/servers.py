"""servers.py FOLDER [CERTIFICATE]: an HTTP server, with CERTIFICATE (a PEM file with its key) an HTTPS one too, and an FTP
server over FOLDER, on free ports of 127.0.0.1; for the tests of transfers. Prints "http PORT", "https PORT" and "ftp PORT",
then "ready", then a line for each request. User "u" has the password "p w".

HTTP: /files/NAME is plain. Elsewhere the same files are there, but: /cut/ breaks off in the middle the first time; /norange/ does
too, and knows no ranges; /changes/ too, and the file is another one then; /busy/ answers 503 the first time; /private/ wants
the user; /moved/ leads to /files/; /slow/ takes its time; /full/ has no room; /spoils/ keeps other bytes than it gets.
FTP: a download of a name with "cut" breaks off in the middle the first time, and so does an upload of one; one of a name with
"full" has no room, and of one with "short" only the beginning is kept.
"""
import base64
import hashlib
import http.server
import os
import socket
import socketserver
import ssl
import sys
import threading
import time
import urllib.parse

FOLDER = sys.argv[1]
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
        return connection

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


def serve(kind, server):
    server.daemon_threads = True
    say(kind, server.server_address[1])
    threading.Thread(target=server.serve_forever).start()


socketserver.ThreadingTCPServer.allow_reuse_address = True
serve("http", http.server.ThreadingHTTPServer(("127.0.0.1", 0), Http))
if len(sys.argv) > 2:
    protected = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Http)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[2])
    protected.socket = context.wrap_socket(protected.socket, server_side=True)
    serve("https", protected)
serve("ftp", socketserver.ThreadingTCPServer(("127.0.0.1", 0), Ftp))
say("ready")
