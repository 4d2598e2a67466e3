"""Tests of tools/check/conditions.py. Run by ctest; argument: the folder tools/check."""

import contextlib
import io
import json
import os
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, sys.argv.pop(1))
import conditions  # noqa: E402

SOURCE = """int f(int a, int b)
{
    if (a > 0 && // first
            b > 0)
        return 1;
    switch (a) {
    case 2:
        return 2;
    }
    for (int i : all)
        use(i);
    return a < b ? 3 : 4;
}
"""

BOTH = [3, 9, 4, 18]
FIRST = [3, 9, 3, 14]
SECOND = [4, 13, 4, 18]
SWITCH = [6, 13, 6, 14]
CASE = [7, 5, 7, 11]
EACH = [10, 16, 10, 17]
LESS = [12, 12, 12, 17]


def branch(place, true, false, kind=conditions.CONDITION):
    return [*place, true, false, 0, 0, kind]


def exported(root, shown=(True, True), less=(1, 1)):
    """What llvm-cov would print of the source: the parts of its decision, and how often `a < b` was true and false."""
    return {"data": [{"files": [{
        "filename": str(root / "room/f.cpp"),
        "branches": [branch(FIRST, 1, 1, conditions.PART), branch(SECOND, 1, 1, conditions.PART),
                     branch(SWITCH, 0, 1), branch(CASE, 1, 0), branch(EACH, 1, 0), branch(LESS, *less)],
        "mcdc_records": [[*BOTH, 0, 5, list(shown)]]}]}]}


class Conditions(unittest.TestCase):
    def judge(self, *exports, exceptions="", least="100"):
        """Status, output and errors of the program."""
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder).resolve()
            (root / "room").mkdir()
            (root / "room/f.cpp").write_text(SOURCE)
            (root / "exceptions").write_text(exceptions)
            names = []
            for number, arguments in enumerate(exports):
                names.append(f"{number}.json")
                (root / names[-1]).write_text(json.dumps(exported(root, **arguments)))
            before, out, err = os.getcwd(), io.StringIO(), io.StringIO()
            os.chdir(root)
            sys.argv[1:] = ["--exceptions", "exceptions", "--least", "room", least, *names]
            try:
                with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
                    status = conditions.main()
            finally:
                os.chdir(before)
                sys.argv[1:] = []
            return status, out.getvalue(), err.getvalue()

    def test_counts_each_condition_and_no_case_and_no_range_based_for(self):
        status, out, _ = self.judge({})
        self.assertEqual(status, 0)
        self.assertEqual(out, "room: 3 conditions, 3 covered, 0 excepted, 0 uncovered: 100.0 % (at least 100)\n")

    def test_names_a_part_with_its_decision(self):
        status, out, _ = self.judge({"shown": (True, False)})
        self.assertEqual(status, 1)
        self.assertIn("\n  room/f.cpp:4: b > 0 in a > 0 && b > 0\n", out)

    def test_wants_a_condition_by_itself_to_be_true_and_false(self):
        for less in ((1, 0), (0, 1), (0, 0)):
            status, out, _ = self.judge({"less": less})
            self.assertEqual(status, 1)
            self.assertIn("\n  room/f.cpp:12: a < b\n", out)

    def test_takes_together_what_several_programs_show(self):
        status, _, _ = self.judge({"shown": (True, False), "less": (1, 0)}, {"shown": (False, True), "less": (0, 1)})
        self.assertEqual(status, 0)

    def test_accepts_the_share_that_is_asked_for(self):
        self.assertEqual(self.judge({"less": (1, 0)}, least="66.6")[0], 0)
        self.assertEqual(self.judge({"less": (1, 0)}, least="66.7")[0], 1)

    def test_excepts_what_is_explained(self):
        status, out, _ = self.judge({"shown": (True, False)},
                                    exceptions="# why\n\nroom/f.cpp\nb > 0 in a > 0 && b > 0\nIt always is.\n")
        self.assertEqual(status, 0)
        self.assertIn("2 covered, 1 excepted, 0 uncovered", out)

    def test_refuses_an_exception_that_is_covered_or_names_nothing(self):
        for name in ("a < b", "a > b"):
            status, _, err = self.judge({}, exceptions=f"room/f.cpp\n{name}\nIt never is.\n")
            self.assertEqual(status, 1)
            self.assertIn(f"room/f.cpp: {name}: is covered, or not there: remove it", err)

    def test_refuses_an_exception_without_a_reason(self):
        with self.assertRaisesRegex(SystemExit, "each exception has three lines"):
            self.judge({}, exceptions="room/f.cpp\na < b\n")


if __name__ == "__main__":
    unittest.main()
