"""udev_rules_test.py FILE: checks the syntax of udev rules and what they do to devices, by a model of the keys that
they use. Where the machine has a udevadm that can verify rules, it must accept the file as well."""

import fnmatch
import os
import re
import shutil
import subprocess
import sys
import unittest

TOKEN = re.compile(r'\s*([A-Z]+)(?:\{([^{}"]+)\})?\s*(==|!=|\+=|=)\s*"([^"]*)"\s*(,|$)')
MATCHES = {"ACTION", "SUBSYSTEM", "KERNEL", "TEST"}
ASSIGNMENTS = {"ATTR": {"="}, "GROUP": {"="}, "MODE": {"="}, "RUN": {"+="}}


class Mistake(Exception):
    pass


def parse(line):
    """A rule as a list of (key, name, operator, value)."""
    tokens, rest = [], line
    while rest.strip():
        match = TOKEN.match(rest)
        if not match:
            raise Mistake(f"not a udev rule: {rest}")
        key, name, operator, value, end = match.groups()
        allowed = {"==", "!="} if key in MATCHES else ASSIGNMENTS.get(key, set())
        if operator not in allowed:
            raise Mistake(f"{key} with {operator}: {line}")
        if key == "ATTR" and not name:
            raise Mistake(f"ATTR of nothing: {line}")
        if key == "MODE" and not re.fullmatch("0[0-7]{3}", value):
            raise Mistake(f"not a mode: {value}")
        tokens.append((key, name, operator, value))
        rest = rest[match.end():]
        if end == "," and not rest.strip():
            raise Mistake(f"a comma at the end: {line}")
    if not any(key in ASSIGNMENTS for key, *_ in tokens):
        raise Mistake(f"does nothing: {line}")
    if not any(key == "SUBSYSTEM" for key, *_ in tokens):
        raise Mistake(f"holds for every device: {line}")
    return tokens


def effects(rules, device):
    """What the rules do to a device: a list of (key, name, value)."""
    done = []
    for rule in rules:
        wanted = []
        for key, name, operator, value in rule:
            if key in ASSIGNMENTS:
                wanted.append((key, name, value))
                continue
            found = value in device["files"] if key == "TEST" else any(
                fnmatch.fnmatchcase(device[key], pattern) for pattern in value.split("|"))
            if found != (operator == "=="):
                break
        else:
            done += wanted
    return done


def usb_port(action, *files):
    return {"ACTION": action, "SUBSYSTEM": "usb-serial", "KERNEL": "ttyUSB0", "files": files}


def terminal(name, *files, action="add"):
    return {"ACTION": action, "SUBSYSTEM": "tty", "KERNEL": name, "files": files}


class Rules(unittest.TestCase):
    def setUp(self):
        with open(FILE, encoding="ascii") as file:
            lines = file.read().splitlines()
        self.active = [parse(line) for line in lines if line.strip() and not line.startswith("#")]
        self.optional = [parse(line[1:]) for line in lines if re.match("#[A-Z]+[!=]=", line)]

    def test_some_are_active_and_some_wait_for_the_engineer(self):
        self.assertEqual((len(self.active), len(self.optional)), (2, 2))

    def test_set_the_timer_of_an_adapter_that_has_one_at_every_event_but_its_removal(self):
        for action in ("add", "bind", "change"):
            self.assertEqual(effects(self.active, usb_port(action, "latency_timer")),
                             [("ATTR", "latency_timer", "1")])
            self.assertEqual(effects(self.active, usb_port(action)), [])
        self.assertEqual(effects(self.active, usb_port("remove", "latency_timer")), [])

    def test_let_the_group_use_ports_of_adapters_and_nobody_else(self):
        for name in ("ttyUSB0", "ttyUSB12", "ttyACM3"):
            self.assertEqual(effects(self.active, terminal(name)),
                             [("GROUP", None, "dialout"), ("MODE", None, "0660")])
        for name in ("ttyS0", "tty1", "console", "ttyUSB", "ttyAMA0"):
            self.assertEqual(effects(self.active, terminal(name, "rx_trig_bytes")), [])

    def test_leave_other_devices_alone(self):
        disk = {"ACTION": "add", "SUBSYSTEM": "block", "KERNEL": "sda", "files": ("latency_timer",)}
        self.assertEqual(effects(self.active + self.optional, disk), [])

    def test_do_when_made_active_what_their_comments_say(self):
        self.assertEqual(effects(self.optional, terminal("ttyUSB0")),
                         [("RUN", None, "/bin/setserial /dev/%k low_latency")])
        self.assertEqual(effects(self.optional, terminal("ttyS1", "rx_trig_bytes")),
                         [("ATTR", "rx_trig_bytes", "1")])
        self.assertEqual(effects(self.optional, terminal("ttyS1")), [])

    def test_are_accepted_by_udevadm_where_it_can_verify(self):
        udevadm = shutil.which("udevadm") or "/usr/bin/udevadm"
        if not os.path.exists(udevadm):
            return
        known = subprocess.run([udevadm, "verify", "--help"], capture_output=True, check=False)
        if known.returncode == 0:
            verdict = subprocess.run([udevadm, "verify", "--resolve-names=never", FILE], capture_output=True,
                                     text=True, check=False)
            self.assertEqual(verdict.returncode, 0, verdict.stdout + verdict.stderr)


class TheCheck(unittest.TestCase):
    def test_notices_mistakes(self):
        good = 'SUBSYSTEM=="tty", ATTR{a}="1"'
        self.assertEqual(parse(good), [("SUBSYSTEM", None, "==", "tty"), ("ATTR", "a", "=", "1")])
        for line in ('SUBSYSTEM="tty", ATTR{a}="1"', 'SUBSYSTEM=="tty" ATTR{a}="1"', 'SUBSYSTEM=="tty", ATTR="1"',
                     'SUBSYSTEM=="tty", ATTR{a}==1', 'SUBSYSTEM=="tty", ATTR{a}="1",', 'SUBSYSTEM=="tty", MODE="660"',
                     'SUBSYSTEM=="tty", SUBSYSTEMS=="usb"', 'ATTR{a}="1"', 'SUBSYSTEM=="tty"', 'SUBSYSTEM=="tty',
                     'SUBSYSTEM=="tty", OWNR="root"', 'SUBSYSTEM=="tty", RUN="/bin/true"'):
            with self.assertRaises(Mistake, msg=line):
                parse(line)


if __name__ == "__main__":
    FILE = sys.argv.pop(1)
    unittest.main()
