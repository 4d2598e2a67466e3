"""gateway_unit_test.py UNIT SYSUSERS PROGRAM: checks the unit of the gateway with systemd's own checkers, and that it
says what the service needs."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

# Tenths: systemd calls 0 "perfect" and 100 "unsafe".
MOST_EXPOSURE = 25


def lines_of(path):
    with open(path, encoding="utf-8") as file:
        return [line.strip() for line in file if line.strip() and line[0] not in "#;["]


class Unit(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)
        self.unit = self.folder / "micro850-gateway.service"
        # As installed, where the program is there.
        text = Path(UNIT).read_text(encoding="utf-8")
        self.unit.write_text(re.sub(r"/\S+/micro850-gateway ", f"{PROGRAM} ", text), encoding="utf-8")

    def analyze(self, *arguments):
        environment = {**os.environ, "SYSTEMD_COLORS": "0"}
        return subprocess.run(["systemd-analyze", "--no-pager", *arguments, self.unit], capture_output=True, text=True,
                              check=False, env=environment)

    def values(self, key):
        return [line.split("=", 1)[1] for line in lines_of(UNIT) if line.startswith(key + "=")]

    def test_has_no_mistake(self):
        done = self.analyze("verify", "--man=no")
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_with_a_mistake_is_refused_by_the_checker(self):
        with open(self.unit, "a", encoding="utf-8") as file:
            file.write("[Service]\nNoSuchKey=1\n")
        self.assertIn("NoSuchKey", self.analyze("verify", "--man=no").stderr)

    def test_leaves_little_exposed(self):
        done = self.analyze("security", "--offline=true", f"--threshold={MOST_EXPOSURE}")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        level = re.search(r"exposure level for micro850-gateway.service: ([0-9.]+)", done.stdout)
        self.assertIsNotNone(level, done.stdout)
        self.assertLess(float(level.group(1)), MOST_EXPOSURE / 10)

    def test_would_expose_too_much_without_its_protections(self):
        text = self.unit.read_text(encoding="utf-8")
        text = re.sub("(?m)^(Protect|Restrict|System|Private|Capability|NoNew|Device).*\n", "", text)
        self.unit.write_text(text, encoding="utf-8")
        self.assertNotEqual(self.analyze("security", "--offline=true", f"--threshold={MOST_EXPOSURE}").returncode, 0)

    def test_has_the_protections_that_are_promised(self):
        for key, value in {"ProtectSystem": "strict", "NoNewPrivileges": "yes", "MemoryDenyWriteExecute": "yes",
                           "DevicePolicy": "closed", "CapabilityBoundingSet": ""}.items():
            self.assertEqual(self.values(key), [value], key)
        self.assertEqual(self.values("SystemCallFilter")[0], "@system-service")

    def test_starts_only_with_a_configuration_and_at_boot_without_waiting_for_a_device(self):
        self.assertEqual(self.values("ConditionPathExists"), ["/etc/micro850/gateway.json"])
        self.assertEqual(self.values("WantedBy"), ["multi-user.target"])
        self.assertEqual(self.values("Requires") + self.values("BindsTo"), [])
        self.assertFalse([line for line in lines_of(UNIT) if ".device" in line])

    def test_reports_to_systemd_and_comes_back_after_a_failure(self):
        self.assertEqual(self.values("Type"), ["notify"])
        self.assertEqual(self.values("Restart"), ["on-failure"])
        self.assertEqual(self.values("StartLimitIntervalSec"), ["0"])
        self.assertEqual(self.values("RestartPreventExitStatus"), ["2"])
        self.assertGreater(int(self.values("WatchdogSec")[0]), 0)

    def test_checks_the_configuration_before_it_reloads(self):
        check, reload = self.values("ExecReload")
        self.assertTrue(check.endswith("/micro850-gateway --check /etc/micro850/gateway.json"), check)
        self.assertEqual(reload, "kill -HUP $MAINPID")

    def test_runs_as_the_user_of_the_service_in_the_group_of_serial_ports(self):
        self.assertEqual(self.values("User") + self.values("Group"), ["micro850", "micro850"])
        self.assertEqual(self.values("SupplementaryGroups"), ["dialout"])
        # A client's user and program go into the journal of writes.
        self.assertEqual(self.values("PrivateUsers") + self.values("ProtectProc"), [])

    def test_allows_serial_ports_by_class_and_loads_the_modules_that_make_the_classes_of_adapters(self):
        allowed = self.values("DeviceAllow")
        for name in ("ttyUSB", "ttyACM", "ttyS", "ttyAMA", "ttymxc"):
            self.assertIn(f"char-{name} rw", allowed)
        self.assertTrue(all(re.fullmatch("char-tty[A-Za-z]+ rw", line) for line in allowed), allowed)
        for module in ("usbserial", "cdc_acm"):
            self.assertIn(f"modprobe@{module}.service", self.values("Wants")[0].split())
            self.assertIn(f"modprobe@{module}.service", self.values("After")[0].split())

    def test_allows_lines_behind_device_servers(self):
        self.assertEqual(self.values("RestrictAddressFamilies"), ["AF_UNIX AF_INET AF_INET6"])
        self.assertEqual(self.values("PrivateNetwork") + self.values("IPAddressDeny"), [])

    def test_can_write_only_socket_and_history(self):
        self.assertEqual(self.values("RuntimeDirectory") + self.values("StateDirectory"), ["micro850", "micro850"])
        self.assertEqual(self.values("ReadWritePaths"), [])
        self.assertEqual(self.values("StateDirectoryMode"), ["0750"])


class Users(unittest.TestCase):
    def test_are_a_user_without_a_shell_who_may_use_serial_ports(self):
        with tempfile.TemporaryDirectory() as root:
            configuration = Path(root) / "usr/lib/sysusers.d/micro850-gateway.conf"
            configuration.parent.mkdir(parents=True)
            (Path(root) / "etc").mkdir()
            shutil.copy(SYSUSERS, configuration)
            done = subprocess.run(["systemd-sysusers", f"--root={root}", "micro850-gateway.conf"], capture_output=True,
                                  text=True, check=False)
            self.assertEqual(done.returncode, 0, done.stderr)
            user = (Path(root) / "etc/passwd").read_text(encoding="utf-8").strip().split(":")
            groups = dict(line.split(":")[::3] for line in
                          (Path(root) / "etc/group").read_text(encoding="utf-8").splitlines())
        self.assertEqual([user[0], user[4], user[5], user[6]],
                         ["micro850", "Micro850 gateway", "/var/lib/micro850", "/usr/sbin/nologin"])
        self.assertEqual(groups, {"micro850": "", "dialout": "micro850"})


if __name__ == "__main__":
    UNIT, SYSUSERS, PROGRAM = (os.path.abspath(sys.argv.pop(1)) for _ in range(3))
    unittest.main()
