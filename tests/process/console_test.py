#!/usr/bin/env python3
"""The console's server: whom it refuses, many browsers, slow ones, peers that are killed, saved sessions.

Usage: console_test.py PROGRAM [argument of unittest ...]
"""

import contextlib
import http.client
import json
import os
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

LIMIT = 60  # seconds; only a failing test waits as long
PROGRAM = os.path.abspath(sys.argv[1])
BROWSERS = 50


class Console:
    """The program in a folder of its own."""

    def __init__(self, folder, *arguments):
        self.process = subprocess.Popen([PROGRAM, *arguments], cwd=folder, text=True, stdout=subprocess.PIPE)
        address = self.process.stdout.readline().removeprefix("console at ").strip()
        if not address:
            raise RuntimeError(f"the console ended with {self.process.wait(LIMIT)} and printed no address")
        self.port = int(address.split(":")[2].split("/")[0])
        self.token = address.split("token=")[1]

    def children(self):
        found = []
        for task in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{task}/children") as children:
                found += children.read().split()
        return {int(pid) for pid in found}

    def end(self):
        self.process.send_signal(signal.SIGINT)
        code = self.process.wait(LIMIT)
        self.process.stdout.close()
        return code

    def ask(self, method, path, body=None, **headers):
        """Status and text of an answer; the token is added unless there is another cookie."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT)
        connection.putrequest(method, path, skip_host="Host" in headers)
        values = {"Cookie": f"vel_console_{self.port}={self.token}", **headers}
        if body is not None:
            values = {"Content-Type": "application/json", "Content-Length": str(len(body)), **values}
        for name, value in values.items():
            if value is not None:
                connection.putheader(name.replace("_", "-"), value)
        connection.endheaders(None if body is None else body.encode())
        answer = connection.getresponse()
        self.headers = answer.headers
        text = answer.read().decode()
        connection.close()
        return answer.status, text

    def do(self, **request):
        status, text = self.ask("POST", "/do", json.dumps(request))
        return status, json.loads(text)

    def stream(self, path, receive_buffer=None, **headers):
        """A connection whose answer has begun; the socket."""
        connection = socket.socket()
        connection.settimeout(LIMIT)
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.connect(("127.0.0.1", self.port))
        lines = [f"GET {path} HTTP/1.1", f"Host: 127.0.0.1:{self.port}", f"Cookie: vel_console_{self.port}={self.token}"]
        lines += [f"{name}: {value}" for name, value in headers.items()]
        connection.sendall("\r\n".join(lines + ["", ""]).encode())
        return connection

    def events(self, **headers):
        return Events(self.stream("/events", **headers))


class Events:
    """Server-sent events of a connection."""

    def __init__(self, connection):
        self.connection = connection
        self.lines = connection.makefile("r", encoding="utf-8", newline="\n")
        self.newest = 0

    def next(self):
        """Kind and data of the next event; ("end", None) when there will be none."""
        kind = "message"
        for line in self.lines:
            name, _, value = line.rstrip("\r\n").partition(": ")
            if name == "event":
                kind = value
            elif name == "id":
                self.newest = int(value)
            elif name == "data":
                return kind, json.loads(value)
        return "end", None

    def until(self, wanted):
        """The first event of a peer that is wanted."""
        limit = time.monotonic() + LIMIT
        while time.monotonic() < limit:
            kind, data = self.next()
            if kind == "end":
                break
            if kind == "message" and wanted(data):
                return data
        raise AssertionError("the event that is wanted did not come")

    def until_named(self, name, after=0):
        return self.until(lambda event: name in event["name"] and event["ts"] > after)

    def until_frames_flow(self, after=0):
        first = self.until_named("stream 0 frames", after)
        self.until(lambda event: event["name"] == first["name"] and event["args"]["inTime"] > first["args"]["inTime"])

    def close(self):
        self.lines.close()
        self.connection.close()


class Readers(threading.Thread):
    """Reads from many connections until it is closed, and counts what is in their answers."""

    def __init__(self, connections, text):
        super().__init__()
        self.text, self.counts, self.is_over = text, dict.fromkeys(connections, 0), False
        self.start()

    def run(self):
        while not self.is_over:
            for connection in select.select(list(self.counts), [], [], 0.1)[0]:
                self.counts[connection] += connection.recv(1 << 16).count(self.text)

    def close(self):
        self.is_over = True
        self.join()
        for connection in self.counts:
            connection.close()


def wait_until(condition):
    limit = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < limit, "it did not happen in time"
        time.sleep(0.01)


class ConsoleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        cls.console = Console(cls.folder)
        cls.addClassCleanup(cls.console.process.kill)

    @classmethod
    def tearDownClass(cls):
        children = cls.console.children()
        assert len(children) >= 4, "the bus and three peers"
        assert cls.console.end() == 0
        assert not [pid for pid in children if os.path.exists(f"/proc/{pid}")], "processes are left"

    def test_refusals(self):
        port, ask = self.console.port, self.console.ask
        own = f"127.0.0.1:{port}"
        for status, method, path, headers in (
                (401, "GET", "/", {"Cookie": None}), (401, "GET", "/?token=", {"Cookie": None}),
                (401, "GET", f"/events?token={self.console.token[:-1]}x", {"Cookie": None}),
                (401, "GET", "/tags", {"Cookie": f"vel_console_{port}={self.console.token}0"}),
                (403, "GET", "/tags", {"Host": f"example.com:{port}"}), (403, "GET", "/tags", {"Host": "127.0.0.1"}),
                (400, "GET", "/tags", {"Host": None}),
                (403, "POST", "/do", {"Origin": "http://example.com"}),
                (403, "GET", "/tags", {"Origin": f"https://{own}"}), (403, "GET", "/tags", {"Origin": "null"}),
                (200, "GET", "/tags", {"Origin": f"http://{own}"}), (200, "HEAD", "/tags", {}),
                (200, "GET", "/tags", {"Host": f"localhost:{port}"}),
                (200, "GET", f"/tags?token={self.console.token}", {"Cookie": None}),
                (404, "GET", "/nothing.js", {}), (404, "GET", "/../CMakeLists.txt", {}), (404, "GET", "/pictures/4", {}),
                (405, "DELETE", "/do", {})):
            with self.subTest(path=path, headers=headers):
                answered, text = ask(method, path, **headers)
                self.assertEqual(answered, status)
                self.assertTrue(text or method == "HEAD")
                self.assertIn("default-src 'self'", self.console.headers["Content-Security-Policy"])
                self.assertNotIn("Access-Control-Allow-Origin", self.console.headers)

    def test_nonsense_is_refused(self):
        def posted(body, **headers):
            return self.console.ask("POST", "/do", body, **headers)[0]

        line = {"do": "line", "peer": "app"}
        for request in ("", "[]", "{", "[" * 60000, '{"do":"line"}', '{"do":"dance"}', {**line, "line": "a\nb"},
                        {**line, "line": 7}, {**line, "line": ""}, {**line, "peer": "bus", "line": "help"},
                        {"do": "frames", "size": "1x1"}, {"do": "frames", "fps": 0}, {"do": "frames", "effect": "glow"},
                        {"do": "frames", "stream": 1}, {"do": "fault", "peer": "app", "action": "sing"}):
            with self.subTest(request=str(request)[:60]):
                self.assertEqual(posted(request if isinstance(request, str) else json.dumps(request)), 400)
        self.assertEqual(posted("{}", Content_Type="text/plain"), 400)
        self.assertEqual(posted("{}", Transfer_Encoding="chunked"), 400)
        self.assertEqual(posted(" " * 65537), 413)
        self.assertEqual(self.console.do(do="line", peer="app", line="help"), (200, {"ok": True}))

    def test_only_the_loopback_address_is_bound(self):
        sockets = set()
        for fd in os.listdir(f"/proc/{self.console.process.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                sockets.add(os.readlink(f"/proc/{self.console.process.pid}/fd/{fd}"))
        listening = []
        for table in ("tcp", "tcp6"):
            with open(f"/proc/net/{table}") as rows:
                fields = [row.split() for row in rows][1:]
            listening += [row[1] for row in fields if row[3] == "0A" and f"socket:[{row[9]}]" in sockets]
        self.assertEqual(listening, [f"0100007F:{self.console.port:04X}"])

    def test_many_browsers_and_one_that_does_not_read(self):
        events = self.console.events()
        stuck = self.console.stream("/pictures/0", receive_buffer=4096)
        pages = Readers([self.console.stream("/events") for _ in range(BROWSERS)], b"event: state")
        pictures = Readers([self.console.stream("/pictures/0") for _ in range(BROWSERS)], b"image/jpeg")
        self.addCleanup(pages.close)
        self.addCleanup(pictures.close)
        wait_until(lambda: min(pages.counts.values()) > 0 and min(pictures.counts.values()) > 3)

        more = []
        self.addCleanup(lambda: [connection.close() for connection in more])

        def is_admitted():
            more.append(self.console.stream("/pictures/1"))
            return b" 200 " in more[-1].recv(16)

        while is_admitted():
            self.assertLess(len(more), 200, "streams are not limited")
        self.assertEqual(self.console.ask("GET", "/tags")[0], 200)
        wait_until(is_admitted)  # the one that does not read has lost its place
        while stuck.recv(1 << 16):  # what was on its way
            pass
        stuck.close()
        self.assertEqual(self.console.do(do="frames", effect="blur")[0], 200)
        changed = events.until(lambda event: event["name"] == "effect" and event["args"]["ok"])
        events.until_frames_flow(changed["ts"])
        events.close()

    def test_faults_heal(self):
        for peer in ("app", "service"):
            with self.subTest(peer=peer):
                events = self.console.events()
                events.until_named("stream 0 frames")
                self.assertEqual(self.console.do(do="fault", peer=peer, action="kill")[0], 200)
                killed = events.until_named(f"{peer} killed")
                self.assertEqual(self.console.do(do="fault", peer=peer, action="stop")[0], 409)
                captured = Readers([self.console.stream("/pictures/0")], b"image/jpeg")
                self.addCleanup(captured.close)
                wait_until(lambda: sum(captured.counts.values()) > 2)
                self.assertEqual(self.console.do(do="fault", peer=peer, action="restart")[0], 200)
                again = events.until(lambda event: event["name"] == "frames" and event["ts"] > killed["ts"] and
                                     event["args"].get("ok"))
                events.until_frames_flow(again["ts"])
                events.close()
        self.assertEqual(self.console.do(do="fault", peer="app", action="stop")[0], 200)
        self.assertEqual(self.console.do(do="frames", size="640x480", streams=1)[0], 200)
        self.assertEqual(self.console.do(do="fault", peer="app", action="continue")[0], 200)
        events = self.console.events()
        begin = events.until(lambda event: event["name"] == "frames begin" and event["args"]["width"] == 640)
        events.until_frames_flow(begin["ts"])
        events.close()

    def test_a_reader_that_comes_back_goes_on(self):
        events = self.console.events()
        events.until_named("stream 0 frames")
        newest = events.newest
        events.close()
        again = self.console.events(**{"Last-Event-ID": newest})
        again.until(lambda event: True)
        self.assertEqual(again.newest, newest + 1)
        again.close()

    def test_a_saved_session_is_shown_again(self):
        events = self.console.events()
        events.until_named("stream 0 frames")
        events.close()
        status, saved = self.console.do(do="save")
        self.assertEqual(status, 200)
        file = os.path.join(self.folder, saved["session"])
        with open(file) as session:
            expected = json.load(session)
        replay = Console(self.folder, "--replay", file)
        self.assertEqual(replay.children(), set())
        self.assertEqual(replay.do(do="save")[0], 409)
        events = replay.events()
        kind, state = events.next()
        self.assertEqual((kind, state["replay"], state["figures"]), ("state", True, expected["figures"]))
        self.assertEqual([events.next()[1] for _ in expected["events"]], expected["events"])
        events.close()
        self.assertEqual(replay.end(), 0)
        for text in ("", "{}", '{"traceEvents":[]}', '{"format":1,"figures":{},"events":[1]}', "[" * 100000,
                     json.dumps(expected)[:-2]):
            with open(file, "w") as session:
                session.write(text)
            broken = subprocess.run([PROGRAM, "--replay", file], capture_output=True, text=True, timeout=LIMIT)
            self.assertEqual(broken.returncode, 1)
            self.assertIn("is no saved session", broken.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
