"""gateway_demo_test.py DEMO PROGRAMS: runs the demonstration of the gateway as a person does, who ends it by Ctrl-C."""

import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.request


def read_page(text):
    """Status and body of what the printed address shows."""
    address = re.search(r"(?m)^demo: see the plant .*: (http://127\.0\.0\.1:[0-9]+/)$", text)
    if not address:
        return None, text.encode()
    with urllib.request.urlopen(address.group(1), timeout=60) as page:
        return page.status, page.read()


class Demonstration(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # A session of its own, whose processes all get the signal, as those of a terminal do.
        demo = subprocess.Popen([DEMO, PROGRAMS], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                start_new_session=True)
        cls.lines = []
        ended = False
        for line in demo.stdout:
            cls.lines.append(line)
            if "PartsMade = " in line and not ended:  # the subscriber runs
                cls.page = read_page("".join(cls.lines))
                os.killpg(demo.pid, signal.SIGINT)
                ended = True
        demo.stdout.close()
        cls.status = demo.wait()
        cls.text = "".join(cls.lines)

    def test_ends_in_order_by_ctrl_c(self):
        self.assertEqual(self.status, 0, self.text)
        self.assertIn("timed out 0, corrupt 0", self.lines[-1])

    def test_writes_and_shows_what_is_refused(self):
        self.assertIn("demo: read back: Setpoint  REAL  42.25", self.text)
        self.assertIn("90 is outside its limits", self.text)

    def test_serves_the_page_at_the_address_that_it_prints(self):
        status, body = self.page
        self.assertEqual(status, 200, self.text)
        self.assertIn(b"<!doctype html>", body.lower())

    def test_shows_the_status_of_lines_that_are_read(self):
        stations = [line for line in self.lines if line.startswith("demo:     station")]
        self.assertEqual(len(stations), 2, self.text)
        for line in stations:
            self.assertIn("station 1: connected", line)


class DemonstrationWithABroker(unittest.TestCase):
    def test_shows_values_and_an_order_at_the_broker_and_cleans_up(self):
        with tempfile.TemporaryDirectory() as folder:
            demo = subprocess.run([DEMO, PROGRAMS, "2", "mqtt"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  text=True, env={**os.environ, "TMPDIR": folder})
            self.assertEqual(os.listdir(folder), [], demo.stdout)
        self.assertEqual(demo.returncode, 0, demo.stdout)
        self.assertRegex(demo.stdout, r"(?m)^demo:   mqtt: .*, connected with MQTT 5, .* delivered, [0-9]+ waiting")
        self.assertRegex(demo.stdout, r"(?m)^demo: mosquitto_sub -p [0-9]+ -v -t 'demo/press/1/\+'$")
        self.assertRegex(demo.stdout, r'demo:   {"value":42.25,.*"quality":"good".*"unit":"°C"')
        self.assertRegex(demo.stdout, r'demo:   {"outcome":"written","old":42.25,"value":35.5,"verified":true')
        self.assertRegex(demo.stdout, r'refused, as it should be: {"outcome":"not-allowed"')
        self.assertRegex(demo.stdout, r"(?m)^demo: who logs in there with this token can write: [A-Za-z0-9_=-]{40,}$")
        self.assertRegex(demo.stdout, r'(?m)^demo/press/1/PartsMade {"value":[0-9]+,')
        port = re.search(r"a broker at port ([0-9]+)", demo.stdout).group(1)
        with socket.socket() as probe:
            self.assertNotEqual(probe.connect_ex(("127.0.0.1", int(port))), 0, "the broker still runs")


if __name__ == "__main__":
    PROGRAMS = os.path.abspath(sys.argv.pop(2))
    DEMO = os.path.abspath(sys.argv.pop(1))
    os.chdir(os.path.join(os.path.dirname(DEMO), "../.."))
    unittest.main()
