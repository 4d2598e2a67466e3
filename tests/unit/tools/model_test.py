"""Changes copies of the model of the link, to see that scripts/model notices. Run by ctest; argument: tools/model."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

FOLDER = Path(sys.argv.pop(1)).resolve()
MODEL = FOLDER / "link.pml"
SCRIPT = FOLDER.parents[1] / "scripts" / "model"


def checked(model, name):
    """Exit status, table and complaint of the script for one run of the checker."""
    done = subprocess.run([SCRIPT, "--only", name, "--model", model], capture_output=True, text=True)
    return done.returncode, done.stdout, done.stderr


class Faults(unittest.TestCase):
    def expect_noticed(self, run, verdict, old, new):
        text = MODEL.read_text()
        self.assertEqual(text.count(old), 1, f"adapt the fault: {old}")
        with tempfile.TemporaryDirectory() as folder:
            copy = Path(folder) / "changed.pml"
            copy.write_text(text.replace(old, new))
            status, table, complaint = checked(copy, run)
        self.assertEqual((status, complaint), (1, f"model: not as expected: {run}\n"), table)
        self.assertIn(verdict, table)

    def test_none_in_the_model_as_it_is(self):
        self.assertEqual((checked(MODEL, "safe-wrap")[0], checked(MODEL, "bare-not-done")[0]), (0, 0))

    def test_a_reply_that_is_accepted_whatever_its_number_is(self):
        self.expect_noticed("safe-wrap", "FAILS, expected: holds", "kind == queued && got == number -> goto answered",
                            "kind == queued -> goto answered")

    def test_a_write_that_the_controller_acknowledges_and_does_not_execute(self):
        self.expect_noticed("safe-wrap", "FAILS, expected: holds", "\t\t\texecuted[what]++;\n", "")

    def test_a_host_that_never_writes(self):
        self.expect_noticed("bare-not-done", "expected: fails", ":: writes < WRITES && pending == 0 ->",
                            ":: false ->")

    def test_a_controller_that_keeps_connections_over_a_power_cycle(self):
        self.expect_noticed("bare-not-done", "expected: fails", "\t\topened = 0; lastNumber = 255;",
                            "\t\tlastNumber = 255;")

    def test_a_host_that_stops_for_ever(self):
        self.expect_noticed("safe-wrap", "UNKNOWN, expected: holds", 'printf("TIME-OUT\\n"); kind = Nothing; goto silent',
                            'printf("TIME-OUT\\n"); false')


if __name__ == "__main__":
    unittest.main()
