"""gateway_sandbox_test.py UNIT GATEWAY SIMULATOR TAGS COMPILER: runs the gateway as its unit does: without the rights of
root, with no memory that is writable and executable, and with only the system calls that the unit's filter allows."""

import ctypes
import json
import os
import re
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request
from pathlib import Path

PR_SET_SECCOMP, SECCOMP_MODE_FILTER, PR_SET_NO_NEW_PRIVS, PR_SET_MDWE = 22, 2, 38, 65
NOBODY = 65534
PATIENCE = 120  # seconds; only a failure takes so long


def names_of(group):
    """The system calls of a group of systemd's, such as @system-service."""
    listed = subprocess.run(["systemd-analyze", "syscall-filter", group], capture_output=True, text=True, check=True)
    names = set()
    for line in listed.stdout.splitlines()[1:]:
        word = line.strip()
        if word.startswith("@"):
            names |= names_of(word)
        elif word and not word.startswith("#"):
            names.add(word)
    return names


def allowed_calls():
    """What the lines SystemCallFilter= of the unit allow together."""
    allowed = set()
    for value in re.findall("(?m)^SystemCallFilter=(.*)$", UNIT.read_text(encoding="utf-8")):
        for group in value.lstrip("~").split():
            allowed = allowed - names_of(group) if value.startswith("~") else allowed | names_of(group)
    return allowed


def numbers():
    """The numbers of this machine's system calls by name."""
    done = subprocess.run([COMPILER, "-E", "-dM", "-x", "c++", "-include", "sys/syscall.h", os.devnull],
                          capture_output=True, text=True, check=True)
    return {name: int(number) for name, number in re.findall(r"#define __NR_(\w+) (\d+)\n", done.stdout)}


def filter_program(allowed):
    """A program for the kernel that refuses every other system call with EPERM."""
    load_number, jump_if_equal, give = 0x20, 0x15, 0x06
    allow, refuse = 0x7FFF0000, 0x00050000 | 1
    program = [(load_number, 0, 0, 0)]
    for number in sorted(allowed):
        program += [(jump_if_equal, 0, 1, number), (give, 0, 0, allow)]
    program.append((give, 0, 0, refuse))
    return b"".join(struct.pack("HBBI", *instruction) for instruction in program)


class Sandbox:
    """Called in the new process before the program starts."""

    def __init__(self, allowed):
        self.library = ctypes.CDLL(None, use_errno=True)
        self.code = ctypes.create_string_buffer(filter_program(allowed))
        self.program = ctypes.create_string_buffer(
            struct.pack("HxxxxxxP" if struct.calcsize("P") == 8 else "HxxP",
                        (len(self.code) - 1) // 8, ctypes.addressof(self.code)))

    def __call__(self):
        os.umask(0o027)
        if os.geteuid() == 0:
            os.setgroups([])
            os.setgid(NOBODY)
            os.setuid(NOBODY)
        self.library.prctl(PR_SET_MDWE, 1, 0, 0, 0)  # kernels before 6.3 do not know it
        # Numbers are pointers here: the variable arguments of a C function.
        if self.library.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or self.library.prctl(
                PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.byref(self.program), 0, 0) != 0:
            os._exit(77)


class Service(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)
        self.folder.chmod(0o777)
        self.socket = self.folder / "gateway.sock"
        serial = self.simulate()
        os.chmod(serial, 0o666)
        # One line of each kind.
        for name, device in ("press", serial), ("oven", self.simulate("--listen", "tcp://127.0.0.1:0")):
            (self.folder / f"{name}.json").write_text(json.dumps(
                {"port": {"device": device}, "variables": [{"tag": "Speed", "intervalMs": 100}]}))
        (self.folder / "gateway.json").write_text(json.dumps(
            {"lines": [{"name": name, "project": f"{name}.json"} for name in ("press", "oven")],
             "socket": {"path": "gateway.sock"}, "history": {"file": "history.sqlite"},
             "web": {"port": 0}}))

    def simulate(self, *options):
        """The device of a simulated controller, which it prints."""
        process = self.start([SIMULATOR, "--quiet", *options, TAGS], stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        return process.stdout.readline().strip()

    def start(self, command, **options):
        process = subprocess.Popen(command, **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def wait_for(self, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, f"{condition} did not become true")
            time.sleep(0.02)

    def status(self):
        done = subprocess.run([GATEWAY, "status", "--json", "--socket", self.socket], capture_output=True, check=False)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def workers(self):
        """The processes of the workers of the lines that are read."""
        status = self.status()
        lines = status["lines"] if status else []
        return [line["workerPid"] for line in lines
                if line.get("up") and line.get("oldestMs") is not None and line["stations"][0]["connected"]]

    def test_reads_records_reloads_starts_workers_again_and_ends_in_order(self):
        known = numbers()
        allowed = {known[name] for name in allowed_calls() if name in known}
        self.assertGreater(len(allowed), 100)
        with (self.folder / "log").open("wb") as log:
            service = self.start([GATEWAY, self.folder / "gateway.json"], preexec_fn=Sandbox(allowed), stderr=log)
        self.wait_for(lambda: len(self.workers()) == 2)
        first = self.workers()
        self.wait_for(lambda: self.status()["history"]["state"] == "recording")
        self.assertGreater((self.folder / "history.sqlite").stat().st_size, 0)
        if os.geteuid() == 0:
            self.assertEqual(self.socket.stat().st_uid, NOBODY)
        self.assertEqual(self.socket.stat().st_mode & 0o777, 0o660)

        page = re.search(r"the page is at (\S+)\n", (self.folder / "log").read_text(encoding="utf-8")).group(1)
        with urllib.request.urlopen(page + "api/v1/values", timeout=PATIENCE) as answer:
            self.assertEqual([value["quality"] for value in json.load(answer)["values"]], ["good", "good"])
        with urllib.request.urlopen(page + "api/v1/events", timeout=PATIENCE) as events:
            self.assertIn(b"event: snapshot\n", [events.readline() for _ in range(5)])

        service.send_signal(signal.SIGHUP)
        done = subprocess.run([GATEWAY, "reload", "--socket", self.socket], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)

        # Not that of the pseudo-terminal, which stays exclusive for other users than root.
        os.kill(first[1], signal.SIGKILL)
        self.wait_for(lambda: len(set(self.workers()) - {first[1]}) == 2)

        service.terminate()
        self.assertEqual(service.wait(PATIENCE), 0)

    def test_is_refused_what_the_filter_does_not_allow(self):
        known = numbers()
        allowed = {known[name] for name in allowed_calls() if name in known} - {known["socket"]}
        service = self.start([GATEWAY, self.folder / "gateway.json"], preexec_fn=Sandbox(allowed),
                             stderr=subprocess.PIPE, text=True)
        error = service.communicate(timeout=PATIENCE)[1]
        self.assertNotEqual(service.returncode, 0)
        self.assertIn("Operation not permitted", error)


if __name__ == "__main__":
    UNIT, GATEWAY, SIMULATOR, TAGS = (Path(sys.argv.pop(1)).resolve() for _ in range(4))
    COMPILER = sys.argv.pop(1)
    unittest.main()
