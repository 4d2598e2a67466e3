"""maintainer_scripts_test.py FOLDER: runs the package's maintainer scripts in a tree of their own, as dpkg does, with
stand-ins for the programs that change the system, and checks what they ask for and what they leave."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

STAND_IN = """#!/bin/sh
echo "$(basename "$0") $*" >>"$RECORD"
case "$*" in
*was-enabled*) [ "$WAS_ENABLED" = yes ] ;;
esac
"""
PROGRAMS = ("deb-systemd-helper", "deb-systemd-invoke", "systemctl", "systemd-sysusers")
UNIT = "micro850-gateway.service"
# What the service writes beside its history, and a history that was not in order.
HISTORY = ("history.sqlite", "history.sqlite-wal", "history.sqlite-shm", "history.sqlite.lock",
           "history.sqlite.damaged-20261122T133000Z", "history.sqlite.damaged-20261122T133000Z-wal")


class Package(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.root = Path(scratch.name) / "root"
        self.record = Path(scratch.name) / "record"
        self.programs = Path(scratch.name) / "bin"
        self.programs.mkdir()
        for name in PROGRAMS:
            (self.programs / name).write_text(STAND_IN)
            (self.programs / name).chmod(0o755)
        self.has_systemd = True
        self.was_enabled = True
        (self.root / "var/lib").mkdir(parents=True)

    def run_script(self, name, *arguments):
        """What the script asked for, without changes of systemd's own lists."""
        if self.has_systemd:
            (self.root / "run/systemd/system").mkdir(parents=True, exist_ok=True)
        self.record.write_text("")
        done = subprocess.run(
            ["/bin/sh", FOLDER / name, *arguments], capture_output=True, text=True, check=False,
            env={"PATH": f"{self.programs}:{os.environ['PATH']}", "DPKG_ROOT": str(self.root),
                 "RECORD": str(self.record), "WAS_ENABLED": "yes" if self.was_enabled else "no"})
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        return self.record.read_text().splitlines()

    def actions(self, name, *arguments):
        return [line for line in self.run_script(name, *arguments) if line.startswith("deb-systemd-invoke")]

    def configure(self):
        (self.root / "etc/micro850").mkdir(parents=True, exist_ok=True)
        (self.root / "etc/micro850/gateway.json").write_text("{}")

    def record_history(self, folder="var/lib/micro850"):
        (self.root / folder).mkdir(parents=True, exist_ok=True)
        for name in HISTORY:
            (self.root / folder / name).write_text("x")

    def assert_history(self, folder="var/lib/micro850"):
        self.assertEqual(sorted(path.name for path in (self.root / folder).iterdir()), sorted(HISTORY))


class Installation(Package):
    def test_starts_nothing_without_a_configuration(self):
        self.assertEqual(self.actions("postinst", "configure", ""), [])
        self.assertTrue((self.root / "etc/micro850").is_dir())

    def test_starts_the_service_that_has_a_configuration(self):
        self.configure()
        self.assertEqual(self.actions("postinst", "configure", ""), [f"deb-systemd-invoke start {UNIT}"])

    def test_creates_the_user_before_it_starts_the_service(self):
        self.configure()
        asked = self.run_script("postinst", "configure", "")
        self.assertEqual(asked[0], f"systemd-sysusers --root={self.root} micro850-gateway.conf")
        self.assertEqual(asked[-2:], ["systemctl --system daemon-reload", f"deb-systemd-invoke start {UNIT}"])

    def test_lets_the_service_start_at_boot(self):
        self.assertIn(f"deb-systemd-helper enable {UNIT}", self.run_script("postinst", "configure", ""))

    def test_leaves_a_service_alone_that_was_disabled(self):
        self.was_enabled = False
        asked = self.run_script("postinst", "configure", "0.1.0")
        self.assertNotIn(f"deb-systemd-helper enable {UNIT}", asked)
        self.assertIn(f"deb-systemd-helper update-state {UNIT}", asked)

    def test_starts_nothing_where_systemd_does_not_run(self):
        self.has_systemd = False
        self.configure()
        asked = self.run_script("postinst", "configure", "")
        self.assertEqual([line for line in asked if line.startswith(("systemctl", "deb-systemd-invoke"))], [])
        self.assertIn(f"deb-systemd-helper enable {UNIT}", asked)

    def test_leaves_a_configuration_as_it_is(self):
        self.configure()
        for arguments in (("configure", ""), ("configure", "0.1.0")):
            self.run_script("postinst", *arguments)
        self.assertEqual((self.root / "etc/micro850/gateway.json").read_text(), "{}")


class Upgrade(Package):
    def test_restarts_the_service_and_does_not_stop_it_before(self):
        self.configure()
        self.assertEqual(self.actions("prerm", "upgrade", "0.2.0"), [])
        self.assertEqual(self.actions("postrm", "upgrade", "0.2.0"), [])
        self.assertEqual(self.actions("postinst", "configure", "0.1.0"), [f"deb-systemd-invoke restart {UNIT}"])

    def test_starts_nothing_without_a_configuration(self):
        self.assertEqual(self.actions("postinst", "configure", "0.1.0"), [])

    def test_that_fails_brings_the_service_back(self):
        self.configure()
        self.assertEqual(self.actions("postinst", "abort-upgrade", "0.2.0"), [f"deb-systemd-invoke restart {UNIT}"])
        self.assertEqual(self.actions("postinst", "abort-remove"), [f"deb-systemd-invoke start {UNIT}"])

    def test_keeps_history_and_configuration(self):
        self.configure()
        self.record_history()
        self.run_script("postrm", "upgrade", "0.2.0")
        self.assertTrue((self.root / "etc/micro850/gateway.json").exists())
        self.assert_history()


class Removal(Package):
    def test_stops_the_service(self):
        self.assertEqual(self.actions("prerm", "remove"), [f"deb-systemd-invoke stop {UNIT}"])

    def test_keeps_history_and_configuration(self):
        self.configure()
        self.record_history()
        asked = self.run_script("postrm", "remove")
        self.assertIn(f"deb-systemd-helper mask {UNIT}", asked)
        self.assertTrue((self.root / "etc/micro850/gateway.json").exists())
        self.assert_history()


class Purge(Package):
    def test_deletes_history_and_configuration(self):
        self.configure()
        self.record_history()
        asked = self.run_script("postrm", "purge")
        self.assertIn(f"deb-systemd-helper purge {UNIT}", asked)
        self.assertFalse((self.root / "etc/micro850").exists())
        self.assertEqual(list((self.root / "var/lib").iterdir()), [])

    def test_keeps_a_history_that_was_configured_elsewhere(self):
        self.configure()
        (self.root / "etc/micro850/gateway.json").write_text('{"history": {"file": "/srv/plant/history.sqlite"}}')
        self.record_history()
        self.record_history("srv/plant")
        self.run_script("postrm", "purge")
        self.assert_history("srv/plant")
        self.assertEqual(list((self.root / "var/lib").iterdir()), [])

    def test_keeps_what_is_behind_links(self):
        for linked, name in (("var/lib/micro850", "all"), ("var/lib/micro850/history.sqlite", "one")):
            with self.subTest(linked):
                folder = f"srv/{name}"
                self.record_history(folder)
                target = self.root / folder if name == "all" else self.root / folder / "history.sqlite"
                (self.root / linked).parent.mkdir(parents=True, exist_ok=True)
                (self.root / linked).symlink_to(target)
                self.run_script("postrm", "purge")
                self.assert_history(folder)
                self.assertEqual(list((self.root / "var/lib").iterdir()), [])

    def test_empties_a_file_system_of_its_own(self):
        (self.programs / "mountpoint").write_text('#!/bin/sh\ncase $* in */var/lib/micro850) ;; *) exit 1 ;; esac\n')
        (self.programs / "mountpoint").chmod(0o755)
        self.record_history()
        (self.root / "var/lib/micro850/lost+found").mkdir()
        self.run_script("postrm", "purge")
        self.assertEqual([path.name for path in (self.root / "var/lib/micro850").iterdir()], ["lost+found"])

    def test_keeps_other_files_of_the_administrator(self):
        self.configure()
        (self.root / "etc/micro850/press.project.json").write_text("{}")
        self.run_script("postrm", "purge")
        self.assertEqual([path.name for path in (self.root / "etc/micro850").iterdir()], ["press.project.json"])

    def test_of_a_package_that_left_nothing_succeeds(self):
        self.run_script("postrm", "purge")


if __name__ == "__main__":
    FOLDER = Path(sys.argv.pop(1)).resolve()
    unittest.main()
