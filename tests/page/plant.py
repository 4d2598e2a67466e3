"""A plant for tests of the page: simulated controllers whose values a test sets, and a gateway that serves the page. All
of it is in a folder that Plant.end() removes."""

import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

PATIENCE = 60  # seconds; only a failure takes so long


def await_that(what, condition, patience=PATIENCE):
    """Returns what the condition gives as soon as that is true; names what did not happen otherwise."""
    until = time.monotonic() + patience
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > until:
            raise AssertionError(f"{what}: not within {patience} seconds")
        time.sleep(0.005)


LOCKS = []


def free_port():
    """A port that nobody has now, and that no other test takes while this program runs: tests/support/test_port.h has
    the same locks. It is below those that the system gives to clients."""
    first = os.getpid() * 7 % 10000
    for port in (20000 + (first + i) % 10000 for i in range(10000)):
        lock = socket.socket(socket.AF_UNIX)
        try:
            lock.bind(f"\0micro850-test-{port}")
        except OSError:
            lock.close()
            continue
        LOCKS.append(lock)
        with socket.socket() as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise AssertionError("no free port")


class Controller:
    """A simulated controller at the end of a line."""

    def __init__(self, program, folder, name, tags):
        self.program, self.folder, self.name = program, folder, name
        self.tags = {tag["name"]: dict(tag) for tag in tags}
        self.device = folder / name
        self.file = folder / f"{name}.tags.json"
        self.options = []  # of the simulator
        self.process = None
        self._write()

    def _write(self):
        self.file.write_text(json.dumps({"tags": list(self.tags.values())}), encoding="utf-8")

    def start(self):
        self.process = subprocess.Popen(
            [self.program, "--quiet", self.file, "--link", self.device, *self.options], stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL, start_new_session=True)
        await_that(f"the controller of {self.name} starts", self.device.exists)

    def set(self, **values):
        """Gives tags other values, without the gateway."""
        for name, value in values.items():
            self.tags[name]["value"] = value
        self._write()
        self.process.stdin.write(b"download\n")
        self.process.stdin.flush()

    def pull(self):
        """The line is gone, with its device."""
        if self.process:
            self.process.kill()
            self.process.communicate()
            self.process = None


class Plant:
    """`lines`: the tags and the variables of each line by its name. `web`: the keys of the gateway's section."""

    def __init__(self, programs, lines, web=None, more=None):
        self.programs = Path(programs)
        self.folder = Path(tempfile.mkdtemp(prefix="micro850-page-"))
        self.port = free_port()
        self.controllers = {}
        self.gateway = None
        self.log = open(self.folder / "log", "ab")
        for name, (tags, variables) in lines.items():
            self.controllers[name] = Controller(self.programs / "micro850-sim", self.folder, name, tags)
            self.write_project(name, variables)
        self.configuration = {
            "lines": [{"name": name, "project": f"{name}.project.json"} for name in lines],
            "socket": {"path": str(self.folder / "gateway.sock")},
            "web": {"port": self.port, **(web or {})}, **(more or {})}

    @property
    def address(self):
        return f"http://127.0.0.1:{self.port}/"

    def write_project(self, line, variables):
        project = {"port": {"device": str(self.controllers[line].device), "baud": 115200}, "staleAfterMs": 1000,
                   "variables": variables}
        (self.folder / f"{line}.project.json").write_text(json.dumps(project), encoding="utf-8")

    def reload(self):
        """The gateway reads its files again."""
        subprocess.run([self.programs / "micro850-gateway", "reload", "--socket", self.folder / "gateway.sock"],
                       check=True, stdout=subprocess.DEVNULL)

    def make_token(self, *options):
        """Makes the file of the section's key "tokenFile", and returns the token."""
        file = self.folder / "token"
        subprocess.run([self.programs / "micro850-gateway", "token", *options, file], check=True,
                       stdout=subprocess.PIPE, text=True)
        self.configuration["web"]["tokenFile"] = str(file)
        return file.read_text(encoding="utf-8").strip()

    def start(self):
        for controller in self.controllers.values():
            controller.start()
        self.start_gateway()

    def start_gateway(self):
        file = self.folder / "gateway.json"
        file.write_text(json.dumps(self.configuration), encoding="utf-8")
        self.gateway = subprocess.Popen([self.programs / "micro850-gateway", file], stdin=subprocess.DEVNULL,
                                        stdout=self.log, stderr=self.log, start_new_session=True)
        await_that("the gateway has heard of every line", self.is_ready)

    def end_gateway(self, how=signal.SIGTERM):
        if self.gateway:
            self.gateway.send_signal(how)
            status = self.gateway.wait(PATIENCE)
            self.gateway = None
            return status
        return None

    def is_ready(self):
        if self.gateway.poll() is not None:
            raise AssertionError("the gateway ended: " + (self.folder / "log").read_text(encoding="utf-8"))
        try:
            return self.get("/readyz")[0] == 200
        except OSError:
            return False

    def get(self, path, headers=None, method="GET", body=None):
        """Status and body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE)
        try:
            connection.request(method, path, body, headers=headers or {})
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def json(self, path, headers=None):
        status, body = self.get(path, headers)
        if status != 200:
            raise AssertionError(f"{path}: {status} {body!r}")
        return json.loads(body)

    def end(self):
        try:
            self.end_gateway()
        finally:
            if self.gateway:
                self.gateway.kill()
                self.gateway.wait()
            for controller in self.controllers.values():
                controller.pull()
            self.log.close()
            shutil.rmtree(self.folder)
