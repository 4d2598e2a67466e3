"""gateway_web_test.py PROGRAMS SOURCES: the gateway's interface for programs, with a simulated controller. Everything
is asked by the HTTP client of this language, or by bytes on a socket; openapi.yaml is held against what comes."""

import http.client
import itertools
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest
from pathlib import Path

import jsonschema
import yaml

PROGRAMS, SOURCES = Path(sys.argv[1]), Path(sys.argv[2])
sys.path.insert(0, str(SOURCES / "tests" / "page"))
from plant import PATIENCE, Plant, await_that, free_port  # noqa: E402

EVIL = "<img src=x onerror=alert(1)>\"'&"
BIG = 9007199254740993  # 2^53 + 1: no number of a browser
TAGS = [
    {"name": "Level", "type": "REAL", "value": 41.5},
    {"name": "Setpoint", "type": "INT", "value": 7},
    {"name": "Total", "type": "LINT", "value": BIG},
    {"name": "Batches", "type": "ULINT", "length": 2, "value": [18446744073709551615, 5]},
    {"name": "Recipe", "type": "INT", "length": 3, "value": [1, 2, 3]},
    {"name": "Label", "type": "SHORT_STRING", "value": EVIL},
    {"name": "On", "type": "BOOL", "value": True},
]
VARIABLES = [
    {"name": "Level", "tag": "Level", "unit": "cm"},
    {"name": "Setpoint", "tag": "Setpoint", "writable": True, "minimum": 0, "maximum": 100},
    {"name": "Total", "tag": "Total", "writable": True},
    {"name": "Batches", "tag": "Batches", "length": 2},
    {"name": "Recipe", "tag": "Recipe", "length": 3, "writable": True},
    {"name": EVIL, "tag": "Label", "writable": True},
    {"name": "a/b %2F?", "tag": "On"},
]


class Answer:
    def __init__(self, response):
        self.status, self.headers = response.status, response.headers
        self.type = (response.headers.get("Content-Type") or "").split(";")[0]
        self.body = b"" if self.type == "text/event-stream" else response.read()

    def json(self):
        return json.loads(self.body)


class Events:
    """A reader of the events."""

    def __init__(self, port, last_id=None, query=""):
        self.connection = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE)
        self.connection.request("GET", "/api/v1/events" + query, headers={"Last-Event-ID": last_id} if last_id else {})
        self.response = self.connection.getresponse()
        self.last_id = last_id

    def next(self, *names):
        """The next event of these names: its name and its data. None when the stream has ended."""
        event = {}
        until = time.monotonic() + PATIENCE
        while True:
            if time.monotonic() > until:
                raise AssertionError(f"no event {names} within {PATIENCE} seconds")
            line = self.response.readline().decode("utf-8")
            if not line:
                return None
            line = line.rstrip("\n")
            if line:
                key, _, value = line.partition(": ")
                event[key] = value
                continue
            if "event" in event:
                self.last_id = event["id"]
                if not names or event["event"] in names:
                    return event["event"], json.loads(event["data"])
            event = {}

    def value(self, name, wanted):
        """Waits for a value of the variable that is wanted."""
        until = time.monotonic() + PATIENCE
        while time.monotonic() < until:
            data = self.next("values", "snapshot")[1]
            for value in data["values"]:
                if value["name"] == name and wanted(value):
                    return value
        raise AssertionError(f"{name}: no value that is wanted within {PATIENCE} seconds")

    def close(self):
        self.connection.close()


class Interface(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.plant = Plant(PROGRAMS, {"press": (TAGS, VARIABLES)}, web={"writes": True, "connectionsPerAddress": 64})
        cls.addClassCleanup(cls.plant.end)
        cls.token = cls.plant.make_token()
        cls.plant.configuration["history"] = {"file": str(cls.plant.folder / "history.db")}
        cls.plant.start()
        cls.await_values()

    @classmethod
    def await_values(cls):
        await_that("all values are there", lambda: all(
            value["quality"] == "good" for value in cls.plant.json("/api/v1/values")["values"]))

    def ask(self, method, target, body=None, token=False, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.plant.port, timeout=PATIENCE)
        self.addCleanup(connection.close)
        sent = {**({"Authorization": "Bearer " + self.token} if token else {}), **(headers or {})}
        connection.request(method, target, json.dumps(body) if body is not None else None, sent)
        answer = Answer(connection.getresponse())
        connection.close()
        return answer

    def put(self, name, body, token=True):
        return self.ask("PUT", "/api/v1/values/" + name, body, token)

    def await_journal(self, outcome, new):
        await_that("the journal has it", lambda: any(
            write["outcome"] == outcome and write["new"] == new
            for write in self.plant.json("/api/v1/journal?limit=1000")["writes"]))

    def reload(self):
        (self.plant.folder / "gateway.json").write_text(json.dumps(self.plant.configuration), encoding="utf-8")
        subprocess.run([PROGRAMS / "micro850-gateway", "reload", "--socket", self.plant.folder / "gateway.sock"],
                       check=True, stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def events(self, last_id=None, query=""):
        events = Events(self.plant.port, last_id, query)
        self.addCleanup(events.close)
        return events

    def start_line_again(self):
        press = self.plant.controllers["press"]
        press.pull()
        press.start()
        await_that("the line is up", lambda: self.plant.json("/api/v1/values/Level")["quality"] == "good")


class Values(Interface):
    def test_gives_the_latest_values(self):
        values = {value["name"]: value for value in self.plant.json("/api/v1/values")["values"]}
        self.assertEqual(list(values), [variable["name"] for variable in VARIABLES])
        self.assertEqual(values["Level"]["value"], 41.5)
        self.assertEqual(values["Level"]["unit"], "cm")
        self.assertLess(values["Level"]["ageMs"], 60000)
        self.assertEqual(values["Recipe"]["value"], [1, 2, 3])

    def test_gives_integers_of_64_bits_as_exact_text(self):
        self.assertEqual(self.plant.json("/api/v1/values/Batches")["text"], ["18446744073709551615", "5"])
        total = self.plant.json("/api/v1/values/Total")
        self.assertEqual(total["text"], str(total["value"]))

    def test_takes_any_name_in_an_address(self):
        self.assertIs(self.plant.json("/api/v1/values/a%2Fb%20%252F%3F")["value"], True)
        evil = self.ask("GET", "/api/v1/values/%3Cimg%20src%3Dx%20onerror%3Dalert%281%29%3E%22%27%26")
        self.assertEqual(evil.json()["name"], EVIL)
        self.assertEqual(evil.json()["value"], EVIL)
        self.assertEqual(evil.type, "application/json")
        self.assertEqual(evil.headers["X-Content-Type-Options"], "nosniff")

    def test_writes_and_reads_back(self):
        events = self.events()
        answer = self.put("Setpoint", {"value": 42})
        self.assertEqual(answer.status, 200, answer.body)
        self.assertEqual(answer.json()["outcome"], "written")
        self.assertEqual((answer.json()["value"], answer.json()["verified"]), (42, True))
        self.assertEqual(events.next("write")[1]["new"], 42)
        events.value("Setpoint", lambda value: value["value"] == 42)
        self.assertEqual(self.plant.json("/api/v1/values/Setpoint")["value"], 42)

    def test_writes_an_element_and_exact_integers(self):
        self.assertEqual(self.put("Recipe", {"value": -9, "element": 1}).json()["value"], -9)
        await_that("the array has it", lambda: self.plant.json("/api/v1/values/Recipe")["value"] == [1, -9, 3])
        self.put("Recipe", {"value": 2, "element": 1})
        await_that("the array has it", lambda: self.plant.json("/api/v1/values/Recipe")["value"] == [1, 2, 3])
        for value in (str(BIG + 2), BIG + 4):
            answer = self.put("Total", {"value": value})
            self.assertEqual(answer.json()["text"], str(value), answer.body)

    def test_refuses_writes_with_the_reason(self):
        refused = [("Setpoint", {"value": 101}, 403, "outside its limits"), ("Level", {"value": 1}, 403, "not writable"),
                   ("Setpont", {"value": 1}, 404, "did you mean Setpoint"), ("Setpoint", {"value": "x"}, 400, "x"),
                   ("Recipe", {"value": 1, "element": 3}, 400, "element"), ("Recipe", {"value": 1}, 400, "element"),
                   ("Setpoint", {"value": 1, "element": 1}, 400, "element"), ("Setpoint", {}, 400, "value"),
                   ("Setpoint", {"value": 101, "check": True}, 403, "limits")]
        for name, body, status, text in refused:
            answer = self.put(name, body)
            self.assertEqual(answer.status, status, answer.body)
            self.assertEqual(answer.type, "application/problem+json")
            self.assertIn(text, answer.json()["detail"])
        self.assertEqual(self.put("Setpoint", {"value": 5, "check": True}).json()["outcome"], "allowed")
        nobody = self.put("Setpoint", {"value": 1}, token=False)
        self.assertEqual((nobody.status, nobody.headers["WWW-Authenticate"]), (401, "Bearer"))
        self.await_journal("not-allowed", 101)
        self.await_journal("check-failed", 101)

    def test_writes_only_what_the_client_has_seen(self):
        seen = {key: self.plant.json("/api/v1/values/Setpoint")[key] for key in ("station", "tag", "type")}
        seen["first"] = self.plant.json("/api/v1/values/Setpoint")["element"]
        self.assertEqual(self.put("Setpoint", {"value": 21, **seen}).status, 200)
        seen["revision"] = self.plant.json("/api/v1/values/Setpoint")["revision"]
        self.assertEqual(self.plant.end_gateway(), 0)
        self.plant.start_gateway()
        self.await_values()
        self.assertEqual(self.put("Setpoint", {"value": 21, **seen}).status, 200, "it is the same after a restart")
        for other in ({"revision": "0123456789abcdef"}, {"station": 2}, {"tag": "Level"}, {"first": 1}, {"type": "REAL"}):
            answer = self.put("Setpoint", {"value": 22, **seen, **other})
            self.assertEqual((answer.status, answer.json()["code"]), (409, "changed"), answer.body)
        self.assertEqual(self.plant.json("/api/v1/values/Setpoint")["value"], 21)
        self.await_journal("changed", 22)

    def test_writes_once_for_each_check(self):
        ticket = self.put("Setpoint", {"value": 31, "check": True}).json()["ticket"]
        self.assertEqual(self.put("Setpoint", {"value": 31, "ticket": ticket}).status, 200)
        # As a browser does when the connection ended before the answer.
        again = self.put("Setpoint", {"value": 31, "ticket": ticket})
        self.assertEqual((again.status, again.json()["code"]), (409, "repeated"), again.body)
        ticket = self.put("Setpoint", {"value": 31, "check": True}).json()["ticket"]
        other = self.put("Total", {"value": 1, "ticket": ticket})
        self.assertEqual((other.status, other.json()["code"]), (409, "changed"), other.body)
        # The name is another tag after a reload.
        ticket = self.put("Recipe", {"value": 5, "element": 0, "check": True}).json()["ticket"]
        project = self.plant.folder / "press.project.json"
        before = project.read_text(encoding="utf-8")
        project.write_text(before.replace('"tag": "Recipe"', '"tag": "Batches"').replace('"length": 3', '"length": 2'),
                           encoding="utf-8")
        self.reload()
        changed = self.put("Recipe", {"value": 5, "element": 0, "ticket": ticket})
        self.assertEqual((changed.status, changed.json()["code"]), (409, "changed"), changed.body)
        project.write_text(before, encoding="utf-8")
        self.reload()
        self.await_values()
        self.assertEqual(self.plant.json("/api/v1/values/Recipe")["value"], [1, 2, 3])

    def test_writes_nothing_for_a_ticket_that_it_does_not_know(self):
        ticket = self.put("Setpoint", {"value": 36, "check": True}).json()["ticket"]
        self.assertEqual(self.plant.end_gateway(), 0)
        self.plant.start_gateway()
        self.await_values()
        for given in (ticket, "x"):
            answer = self.put("Setpoint", {"value": 36, "ticket": given})
            self.assertEqual((answer.status, answer.json()["code"]), (409, "unknown-outcome"), answer.body)
        self.assertNotEqual(self.plant.json("/api/v1/values/Setpoint")["value"], 36)

    def begin_put(self, value):
        """A connection on which a write waits for its answer."""
        peer = socket.create_connection(("127.0.0.1", self.plant.port), timeout=PATIENCE)
        self.addCleanup(peer.close)
        body = json.dumps({"value": value})
        peer.sendall(f"PUT /api/v1/values/Setpoint HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer "
                     f"{self.token}\r\nContent-Length: {len(body)}\r\n\r\n{body}".encode())
        self.plant.json("/api/v1/session")  # a later request is answered: that one has come
        return peer

    def answer_of(self, peer):
        response = http.client.HTTPResponse(peer)
        response.begin()
        return Answer(response)

    def assert_written_once(self, value, answer):
        """What the client was told is what the journal says, of one write."""
        self.assertIn(answer.status, (200, 503, 504), answer.body)
        wanted = "written" if answer.status == 200 else answer.json()["code"]
        writes = await_that("the journal has it", lambda: [
            write for write in self.plant.json("/api/v1/journal?limit=1000")["writes"] if write["new"] == value])
        self.assertEqual([write["outcome"] for write in writes], [wanted])

    def frozen(self):
        """The controller says nothing until what this returns is called."""
        process = self.plant.controllers["press"].process
        os.kill(process.pid, signal.SIGSTOP)
        self.addCleanup(process.send_signal, signal.SIGCONT)
        return lambda: os.kill(process.pid, signal.SIGCONT)

    def test_keeps_its_connections_when_only_limits_are_others(self):
        events = self.events()
        events.next("snapshot")
        release = self.frozen()
        peer = self.begin_put(61)
        self.plant.configuration["web"].update(connections=77, connectionsPerAddress=63)
        self.reload()
        release()
        self.assert_written_once(61, self.answer_of(peer))
        self.plant.configuration["web"]["connections"] = 1
        self.reload()
        with self.assertRaises((http.client.HTTPException, OSError)):
            answer = self.ask("GET", "/api/v1/session")
            raise OSError(answer.status) if answer.status == 503 else AssertionError(answer.status)
        self.plant.configuration["web"]["connections"] = 128
        self.reload()
        self.assertIsNotNone(events.next("values", "ages"))
        self.assertEqual(self.ask("GET", "/api/v1/session").status, 200)

    def test_answers_a_write_when_it_moves_to_another_port(self):
        release = self.frozen()
        peer = self.begin_put(62)
        self.plant.port = self.plant.configuration["web"]["port"] = free_port()
        self.reload()
        self.assertEqual(self.ask("GET", "/api/v1/session").status, 200)
        release()
        answer = self.answer_of(peer)
        self.assertEqual(answer.headers["Connection"], "close")
        self.assert_written_once(62, answer)
        self.await_values()

    def test_answers_a_write_when_the_page_is_switched_off(self):
        release = self.frozen()
        peer = self.begin_put(63)
        web = self.plant.configuration.pop("web")
        self.reload()
        answer = self.answer_of(peer)
        self.assertIn((answer.status, answer.json()["code"]), {(503, "cancelled"), (504, "unknown-outcome")})
        self.plant.configuration["web"] = web
        self.reload()
        release()
        self.await_values()

    def test_answers_a_write_when_the_service_ends(self):
        release = self.frozen()
        peer = self.begin_put(64)
        self.plant.gateway.send_signal(signal.SIGTERM)
        answer = self.answer_of(peer)
        self.assertIn(answer.status, (200, 503, 504), answer.body)
        self.assertEqual(self.plant.end_gateway(), 0)
        release()
        self.plant.start_gateway()
        self.await_values()
        self.assert_written_once(64, answer)

    def test_goes_on_when_the_page_is_switched_off_while_writes_wait(self):
        events = self.events()
        os.kill(self.plant.controllers["press"].process.pid, signal.SIGSTOP)
        peers = []
        try:
            for value in range(8):
                peer = socket.create_connection(("127.0.0.1", self.plant.port), timeout=PATIENCE)
                self.addCleanup(peer.close)
                body = json.dumps({"value": value})
                peer.sendall(f"PUT /api/v1/values/Setpoint HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer "
                             f"{self.token}\r\nContent-Length: {len(body)}\r\n\r\n{body}".encode())
                peers.append(peer)
            # They have come when a later request is answered.
            self.plant.json("/api/v1/session")
            web = self.plant.configuration.pop("web")
            self.reload()
            self.assertIsNone(self.plant.gateway.poll())
            while events.next() is not None:
                pass
            self.plant.configuration["web"] = web
            self.reload()
        finally:
            os.kill(self.plant.controllers["press"].process.pid, signal.SIGCONT)
        self.start_line_again()
        await_that("it can be written again", lambda: self.put("Setpoint", {"value": 23}).status == 200)

    def test_tells_changes_within_their_time(self):
        events = self.events()
        events.next("snapshot")
        for level in (1.5, 2.5, 3.5):
            self.plant.controllers["press"].set(Level=level)
            value = events.value("Level", lambda value, level=level: value["value"] == level)
            self.assertLess(value["ageMs"], 30000)
        self.assertEqual(len(events.next("ages")[1]["ages"]["press"]), len(VARIABLES))
        self.assertIn("program", events.next("status")[1])

    def test_resumes_where_a_reader_went(self):
        events = self.events()
        events.next("snapshot")
        events.close()
        self.plant.controllers["press"].set(Level=77.5)
        await_that("it is read", lambda: self.plant.json("/api/v1/values/Level")["value"] == 77.5)
        again = self.events(events.last_id)
        name, data = again.next("values", "snapshot")
        self.assertEqual(name, "values")
        while not any(value["name"] == "Level" and value["value"] == 77.5 for value in data["values"]):
            data = again.next("values")[1]

    def test_goes_on_after_the_values_that_a_client_has(self):
        known = self.plant.json("/api/v1/values?lastEvent=1")
        self.assertEqual([value["name"] for value in known["values"]],
                         [value["name"] for value in self.plant.json("/api/v1/values")["values"]])
        self.plant.controllers["press"].set(Level=78.5)
        await_that("it is read", lambda: self.plant.json("/api/v1/values/Level")["value"] == 78.5)
        after = "?after=" + known["lastEvent"]
        events = self.events(query=after)
        value = events.value("Level", lambda value: True)
        self.assertEqual(value["value"], 78.5)
        events.next("ages")
        # A browser that connects again sends both: it has got that value.
        events.close()
        self.plant.controllers["press"].set(Level=79.5)
        again = self.events(events.last_id, after)
        self.assertEqual(again.value("Level", lambda value: True)["value"], 79.5)
        self.assertEqual(self.events(query="?after=other-1").next()[0], "reloaded")

    def test_begins_anew_after_a_restart_of_the_service(self):
        events = self.events()
        events.next("snapshot")
        self.assertEqual(self.plant.end_gateway(), 0)
        while events.next() is not None:
            pass
        self.plant.start_gateway()
        self.await_values()
        again = self.events(events.last_id)
        self.assertEqual(again.next()[0], "reloaded")
        name, data = again.next("snapshot", "values")
        self.assertEqual(name, "snapshot")
        self.assertEqual([value["value"] for value in data["values"] if value["name"] == "Recipe"], [[1, 2, 3]])

    def test_tells_of_a_line_that_is_pulled_and_back(self):
        events = self.events()
        events.next("snapshot")
        self.plant.controllers["press"].pull()
        value = events.value("Level", lambda value: value["quality"] == "stale")
        self.assertTrue(value["error"])
        answer = self.put("Setpoint", {"value": 1})
        self.assertEqual((answer.status, answer.json()["code"]), (503, "unreachable"), answer.body)
        self.plant.controllers["press"].start()
        events.value("Level", lambda value: value["quality"] == "good")
        alarms = await_that("the alarms have it", lambda: self.plant.json("/api/v1/alarms")["alarms"])
        self.assertTrue(any(alarm["line"] == "press" for alarm in alarms))
        self.assertEqual(alarms, sorted(alarms, key=lambda alarm: alarm["time"], reverse=True))

    def test_serves_others_while_readers_do_not_read(self):
        stalled = []
        for _ in range(30):
            peer = socket.create_connection(("127.0.0.1", self.plant.port))
            self.addCleanup(peer.close)
            peer.sendall(b"GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n")
            stalled.append(peer)
        events = self.events()
        for level in range(10):
            self.plant.controllers["press"].set(Level=level + 0.25)
            events.value("Level", lambda value, level=level: value["value"] == level + 0.25)
        self.assertEqual(stalled[0].recv(15), b"HTTP/1.1 200 OK")

    def test_rests_when_readers_have_gone(self):
        def ticks():
            fields = Path(f"/proc/{self.plant.gateway.pid}/stat").read_text(encoding="utf-8").rsplit(")", 1)[1].split()
            return int(fields[11]) + int(fields[12])
        begin = b"HTTP/1.1\r\nHost: localhost\r\n\r\n"
        before_peers = sum(os.readlink(link).startswith("socket:")
                           for link in Path(f"/proc/{self.plant.gateway.pid}/fd").iterdir())
        for turn, how in enumerate(("unread", "read", "reset", "read", "unread")):
            peers = [socket.create_connection(("127.0.0.1", self.plant.port), timeout=PATIENCE) for _ in range(4)]
            for peer in peers[:3]:
                peer.sendall(b"GET /api/v1/session " + begin)
            peers[3].sendall(b"GET /api/v1/events " + begin)
            for peer in peers[:3] if how == "unread" else peers:
                self.assertTrue(peer.recv(1 << 20))
            time.sleep(0.2 * turn)  # events come in between, or not
            for peer in reversed(peers):
                if how == "reset":
                    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                peer.close()

            def rests():
                before = ticks()
                time.sleep(0.25)
                return ticks() - before < 3  # of 25
            await_that("the service rests", rests, 8)  # it turned in a circle for half a minute
        sockets = [link for link in Path(f"/proc/{self.plant.gateway.pid}/fd").iterdir()
                   if os.readlink(link).startswith("socket:")]
        self.assertLess(len(sockets), before_peers + 4, "connections are left")

    def test_answers_every_method_on_every_path(self):
        paths = ["/", "/nothing", "/api/v1/", "/api/v1/values", "/api/v1/values/Level", "/api/v1/variables",
                 "/api/v1/status", "/api/v1/history?name=Level", "/api/v1/trends", "/api/v1/alarms", "/api/v1/journal",
                 "/api/v1/session", "/metrics", "/healthz", "/readyz", "/login", "/logout", "/page/app.js",
                 "/dygraphs/dygraph.min.js", "/api/v1/events"]
        methods = ["GET", "HEAD", "POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "PROPFIND", "get", "X"]
        for path, method in itertools.product(paths, methods):
            answer = self.ask(method, path, token=True)
            self.assertLess(answer.status, 500, f"{method} {path}: {answer.body}")
            self.assertNotIn(self.token.encode(), answer.body)
            self.assertIn("default-src 'self'", answer.headers["Content-Security-Policy"] or "", f"{method} {path}")
            if method == "HEAD":
                self.assertEqual(answer.body, b"")
            if method in ("DELETE", "X") and answer.status == 405:
                self.assertIn("OPTIONS", answer.headers["Allow"])

    def test_serves_no_files_but_its_own(self):
        for path in ("/page/../../etc/passwd", "/page/..%2f..%2fetc%2fpasswd", "/page/%2e%2e/%2e%2e/etc/passwd",
                     "/dygraphs/../../../../etc/passwd", "/dygraphs/..%2F..%2F..%2F..%2Fetc%2Fpasswd", "//etc/passwd",
                     "/page/%00", "/page/app.js%00.html", "/etc/passwd", "/../etc/passwd", "/page/\\..\\..\\etc"):
            peer = socket.create_connection(("127.0.0.1", self.plant.port), timeout=PATIENCE)
            self.addCleanup(peer.close)
            peer.sendall(f"GET {path} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n".encode())
            text = b"".join(iter(lambda: peer.recv(65536), b""))
            self.assertRegex(text, rb"^HTTP/1.1 4[0-9][0-9] ", path)
            self.assertNotIn(b"root:", text)


# method, target, body, with the token, the status that must come
CASES = [
    ("GET", "/api/v1/values", None, False, 200), ("GET", "/api/v1/values?match=L*&line=press", None, False, 200),
    ("GET", "/api/v1/values?lines=press", None, False, 400), ("GET", "/api/v1/values?line=other", None, False, 404),
    ("GET", "/api/v1/values/Level", None, False, 200), ("GET", "/api/v1/values/Total", None, False, 200),
    ("GET", "/api/v1/values/Batches", None, False, 200), ("GET", "/api/v1/values/Level?x=1", None, False, 400),
    ("GET", "/api/v1/values/Other", None, False, 404), ("PUT", "/api/v1/values/Setpoint", {"value": 9}, True, 200),
    ("PUT", "/api/v1/values/Setpoint", {"value": 9, "check": True}, True, 200),
    ("PUT", "/api/v1/values/Total", {"value": str(BIG)}, True, 200),
    ("PUT", "/api/v1/values/Setpoint", {"values": 9}, True, 400), ("PUT", "/api/v1/values/Setpoint", {"value": 9}, False, 401),
    ("PUT", "/api/v1/values/Setpoint", {"value": 900}, True, 403), ("PUT", "/api/v1/values/Other", {"value": 9}, True, 404),
    ("GET", "/api/v1/variables", None, False, 200), ("GET", "/api/v1/variables?x", None, False, 400),
    ("GET", "/api/v1/variables?line=other", None, False, 404), ("GET", "/api/v1/status", None, False, 200),
    ("GET", "/api/v1/history?name=Level", None, False, 200), ("GET", "/api/v1/history?name=Level&format=csv", None, False, 200),
    ("GET", "/api/v1/history", None, False, 400), ("GET", "/api/v1/history?name=Other", None, False, 404),
    ("GET", "/api/v1/trends", None, False, 200), ("GET", "/api/v1/trends?x=1", None, False, 400),
    ("GET", "/api/v1/alarms", None, False, 200), ("GET", "/api/v1/alarms?limit=0", None, False, 400),
    ("GET", "/api/v1/journal", None, False, 200), ("GET", "/api/v1/journal?from=now", None, False, 400),
    ("GET", "/api/v1/session", None, False, 200), ("GET", "/api/v1/session", None, True, 200),
    ("GET", "/api/v1/events", None, False, 200), ("GET", "/api/v1/events?x=1", None, False, 400),
    ("GET", "/metrics", None, False, 200), ("GET", "/healthz", None, False, 200), ("GET", "/readyz", None, False, 200),
]


class OpenApi(Interface):
    """Everything that openapi.yaml says, and nothing else, is so."""

    document = yaml.safe_load((SOURCES / "share" / "micro850" / "openapi.yaml").read_text(encoding="utf-8"))

    def resolved(self, node):
        while "$ref" in node:
            target = self.document
            for part in node["$ref"].split("/")[1:]:
                target = target[part]
            node = target
        return node

    def path_of(self, target):
        path = target.split("?")[0]
        for pattern in self.document["paths"]:
            if re.fullmatch(re.sub(r"\\{\w+\\}", "[^/]+", re.escape(pattern)), path):
                return pattern
        self.fail(path + " is not documented")

    def check(self, method, target, answer):
        path = self.path_of(target)
        responses = self.document["paths"][path][method.lower()]["responses"]
        status = str(answer.status)
        content = self.resolved(responses[status if status in responses else "default"])["content"]
        self.assertIn(answer.type, content, f"{method} {target}: {answer.status}")
        if answer.type.endswith("json"):
            schema = {**content[answer.type]["schema"], "components": self.document["components"]}
            jsonschema.Draft202012Validator(schema).validate(answer.json())
        return method.lower(), path, status

    def test_has_every_status_that_is_documented(self):
        seen = set()
        await_that("the history has the level", lambda: self.plant.get("/api/v1/history?name=Level")[0] == 200)
        for method, target, body, token, status in CASES:
            answer = self.ask(method, target, body, token)
            self.assertEqual(answer.status, status, f"{method} {target}: {answer.body}")
            seen.add(self.check(method, target, answer))
        self.plant.controllers["press"].pull()
        await_that("the line is down", lambda: not self.plant.json("/api/v1/status")["lines"][0]["up"])
        seen.add(self.check("PUT", "/api/v1/values/Setpoint", self.put("Setpoint", {"value": 1})))
        self.plant.controllers["press"].start()
        documented = {(method, path, status) for path, item in self.document["paths"].items()
                      for method, operation in item.items() if method in ("get", "put", "post")
                      for status in operation["responses"] if status != "default"}
        # A controller that takes a write and then says nothing has a test of its own.
        self.assertEqual(documented - seen, {("put", "/api/v1/values/{name}", "504")})

    def test_has_the_methods_that_are_documented(self):
        for path, item in self.document["paths"].items():
            methods = {method.upper() for method in item if method in ("get", "put", "post", "delete", "patch")}
            answer = self.ask("OPTIONS", path.replace("{name}", "Level"))
            self.assertEqual(set(answer.headers["Allow"].split(", ")) - {"HEAD", "OPTIONS"}, methods, path)

    def test_documents_every_route(self):
        pages = {"/", "/page/{name}", "/dygraphs/{name}", "/login", "/logout"}  # for browsers
        routes = set()
        for source in (SOURCES / "gateway" / "web").glob("*.cpp"):
            routes |= set(re.findall(r'\.add\(\s*"[A-Z]+",\s*"([^"]+)"', source.read_text(encoding="utf-8")))
        self.assertEqual(routes - pages, set(self.document["paths"]))
        self.assertGreater(len(routes), 10)

    def test_is_a_schema_by_itself(self):
        for schema in self.document["components"]["schemas"].values():
            jsonschema.Draft202012Validator.check_schema(schema)


class UnknownOutcome(unittest.TestCase):
    def test_is_told_when_the_controller_takes_a_write_and_says_nothing(self):
        # Five replies connect and read the value; nothing is read again before the write.
        variable = {"name": "Setpoint", "tag": "Setpoint", "writable": True, "intervalMs": 3600000}
        plant = Plant(PROGRAMS, {"press": (TAGS, [variable])}, web={"writes": True})
        self.addCleanup(plant.end)
        token = plant.make_token()
        faults = plant.folder / "faults.json"
        faults.write_text(json.dumps({"faults": [{"fault": "withhold", "message": list(range(6, 300))}]}), encoding="utf-8")
        plant.controllers["press"].options = ["--faults", faults]
        plant.start()
        await_that("the value is there", lambda: plant.json("/api/v1/values/Setpoint")["quality"] == "good")
        connection = http.client.HTTPConnection("127.0.0.1", plant.port, timeout=PATIENCE)
        self.addCleanup(connection.close)
        connection.request("PUT", "/api/v1/values/Setpoint", '{"value": 11}', {"Authorization": "Bearer " + token})
        answer = Answer(connection.getresponse())
        self.assertEqual((answer.status, answer.json()["code"]), (504, "unknown-outcome"), answer.body)
        self.assertIn("may have been carried out", answer.json()["detail"])
        self.assertEqual([write["outcome"] for write in plant.json("/api/v1/journal")["writes"]], ["unknown-outcome"])


class WithoutHistory(unittest.TestCase):
    def test_keeps_alarms_and_journal_in_memory_and_tells_what_is_missing(self):
        plant = Plant(PROGRAMS, {"press": (TAGS, VARIABLES)}, web={"writes": True})
        self.addCleanup(plant.end)
        token = plant.make_token()
        plant.start()
        await_that("values are there", lambda: plant.json("/api/v1/values/Level")["quality"] == "good")
        self.assertEqual(plant.get("/api/v1/history?name=Level")[0], 409)
        connection = http.client.HTTPConnection("127.0.0.1", plant.port, timeout=PATIENCE)
        self.addCleanup(connection.close)
        connection.request("PUT", "/api/v1/values/Setpoint", '{"value": 11}', {"Authorization": "Bearer " + token})
        self.assertEqual(connection.getresponse().status, 200)
        self.assertEqual([write["new"] for write in plant.json("/api/v1/journal")["writes"]], [11])
        self.assertTrue(plant.json("/api/v1/alarms")["alarms"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
