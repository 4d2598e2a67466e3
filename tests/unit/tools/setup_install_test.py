"""Tests of tools/setup/install with stand-ins for Debian's tools. Run by ctest; argument: the folder tools/setup."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

INSTALL = Path(sys.argv.pop(1)) / "install"

# A machine is a folder: in `packages` a file for each package that has files here, with the names of its files, and in
# `status` a line for each package. A package starts its services while it is installed, if the policy allows it.
DPKG_QUERY = """
case $1 in
-W) cat "$MACHINE/status" ;;
-L) shift; for package; do cat "$MACHINE/packages/$package"; done ;;
esac
"""
APT_GET = """
[ "$1" = install ] || exit 0
[ "$DEBIAN_FRONTEND" = noninteractive ] || exit 1
cp "$MACHINE/new/status" "$MACHINE/status"
cp "$MACHINE"/new/packages/* "$MACHINE/packages"
for service in $STARTED; do
    policy=$MACHINE/usr/sbin/policy-rc.d
    if [ ! -e "$policy" ] || "$policy" "$service" start; then echo "started $service" >>"$MACHINE/calls"; fi
done
[ -z "${APT_FAILS:-}" ] || { echo "E: the disk is full"; exit 100; }
"""
RECORDED = """
echo "$(basename "$0") $*" >>"$MACHINE/calls"
"""


class Machine(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.root = Path(scratch.name)
        for folder in ("bin", "packages", "new/packages", "usr/sbin", "etc/systemd/system", "run/systemd/system"):
            (self.root / folder).mkdir(parents=True)
        self.command("dpkg-query", DPKG_QUERY)
        self.command("apt-get", APT_GET)
        for name in ("systemctl", "update-rc.d", "service"):
            self.command(name, RECORDED)
        self.old = {"shell": ["/bin/sh"], "database": ["/lib/systemd/system/database.service",
                                                       "/lib/systemd/system/database@.service",
                                                       "/etc/init.d/database"]}
        self.write(self.root, self.old)
        self.environment = dict(os.environ, MACHINE=str(self.root), PATH=f"{self.root}/bin:{os.environ['PATH']}")

    @property
    def policy(self):
        return self.root / "usr/sbin/policy-rc.d"

    def command(self, name, text):
        path = self.root / "bin" / name
        path.write_text("#!/bin/sh\n" + text, encoding="utf-8")
        path.chmod(0o755)

    @staticmethod
    def write(folder, packages, states=()):
        states = dict(states)
        lines = [f"{states.get(name, 'installed')} {name}\n" for name in packages]
        (folder / "status").write_text("".join(lines), encoding="utf-8")
        for name, files in packages.items():
            (folder / "packages" / name).write_text("".join(file + "\n" for file in files), encoding="utf-8")

    def install(self, new, started, **environment):
        """Installs packages that start these services. Returns the result and the calls of Debian's tools."""
        self.write(self.root / "new", {**self.old, **new})
        result = subprocess.run([INSTALL, "--root", self.root, *new], check=False, text=True, capture_output=True,
                                env=dict(self.environment, STARTED=started, **environment))
        calls = self.root / "calls"
        return result, calls.read_text(encoding="utf-8").splitlines() if calls.exists() else []


class Services(Machine):
    server = {"server": ["/usr/sbin/server", "/lib/systemd/system/server.service", "/etc/init.d/server"]}

    def test_are_neither_started_nor_enabled(self):
        result, calls = self.install(self.server, "server.service server")
        self.assertEqual(calls, ["update-rc.d server disable", "systemctl disable server.service"])
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout, "setup: installed without starting or enabling: server server.service\n")
        self.assertFalse(self.policy.exists())

    def test_of_packages_before_are_started_as_ever_and_stay_enabled(self):
        _, calls = self.install(self.server, "database.service database database@main.service server@main.service")
        self.assertEqual(calls[:3], ["started database.service", "started database",
                                     "started database@main.service"])
        self.assertEqual([call for call in calls[3:] if "database" in call or "started" in call], [])

    def test_of_a_package_that_was_removed_before_count_as_new(self):
        self.write(self.root, {**self.old, **self.server}, {"server": "config-files"})
        _, calls = self.install(self.server, "server.service")
        self.assertEqual(calls, ["update-rc.d server disable", "systemctl disable server.service"])

    def test_that_the_machines_own_policy_let_start_are_stopped(self):
        self.policy.write_text("#!/bin/sh\nexit 0\n", encoding="utf-8")
        self.policy.chmod(0o755)
        _, calls = self.install(self.server, "server.service")
        self.assertEqual(calls, ["started server.service", "systemctl stop server", "update-rc.d server disable",
                                 "systemctl stop server.service", "systemctl disable server.service"])
        self.assertEqual(self.policy.read_text(encoding="utf-8"), "#!/bin/sh\nexit 0\n")

    def test_are_stopped_by_their_scripts_where_systemd_does_not_run(self):
        self.policy.write_text("#!/bin/sh\nexit 0\n", encoding="utf-8")
        self.policy.chmod(0o755)
        (self.root / "run/systemd/system").rmdir()
        _, calls = self.install(self.server, "server")
        self.assertEqual(calls, ["started server", "service server stop", "update-rc.d server disable",
                                 "systemctl disable server.service"])

    def test_are_disabled_too_when_the_installation_fails_half_way(self):
        result, calls = self.install(self.server, "server.service", APT_FAILS="yes")
        self.assertEqual(calls, ["update-rc.d server disable", "systemctl disable server.service"])
        self.assertEqual(result.returncode, 1)
        self.assertIn("E: the disk is full", result.stderr)
        self.assertIn("setup: apt-get could not install server\n", result.stderr)
        self.assertFalse(self.policy.exists())

    def test_sockets_and_timers_are_disabled_as_well(self):
        _, calls = self.install({"backup": ["/usr/lib/systemd/system/backup.timer",
                                            "/usr/lib/systemd/system/backup.socket"]}, "backup.timer backup.socket")
        self.assertEqual(calls, ["systemctl disable backup.socket", "systemctl disable backup.timer"])

    def test_are_disabled_where_systemd_is_not_installed(self):
        (self.root / "bin/systemctl").unlink()
        for name in ("env bash sh basename cat comm cp find grep install mktemp paste rm sed sort tail tr "
                     "xargs").split():
            (self.root / "bin" / name).symlink_to(shutil.which(name))
        self.environment["PATH"] = str(self.root / "bin")
        wanted = self.root / "etc/systemd/system/multi-user.target.wants"
        wanted.mkdir()
        for name in ("server.service", "database.service"):
            (wanted / name).symlink_to("/lib/systemd/system/" + name)
        result, calls = self.install(self.server, "server.service")
        self.assertEqual(result.stderr, "")
        self.assertEqual(calls, ["update-rc.d server disable"])
        self.assertEqual([link.name for link in wanted.iterdir()], ["database.service"])

    def test_whose_disabling_fails_are_reported(self):
        self.command("systemctl", "echo 'it is masked' >&2\nexit 1\n")
        result, _ = self.install(self.server, "")
        self.assertEqual(result.stderr, "it is masked\nsetup: server.service could not be disabled\n")


class Packages(Machine):
    def test_without_services_need_no_word(self):
        result, calls = self.install({"library": ["/usr/lib/library.so"]}, "")
        self.assertEqual((result.returncode, result.stdout, result.stderr, calls), (0, "", "", []))

    def test_start_their_services_again_after_a_setup_that_was_killed(self):
        self.install(Services.server, "")
        # What such a setup leaves.
        self.policy.write_text("#!/bin/sh\n# Made by scripts/setup for the time of an installation.\nexit 101\n",
                               encoding="utf-8")
        self.install({"library": ["/usr/lib/library.so"]}, "")
        self.assertFalse(self.policy.exists())


if __name__ == "__main__":
    unittest.main()
