"""Changes copies of FrameBytes.h, to see that scripts/prove notices. Run by ctest; argument: the root of the sources."""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(sys.argv.pop(1)).resolve()
HEADER = ROOT / "src" / "internal" / "FrameBytes.h"
# Enough for what is true of the functions below, so that what is not is given up soon.
STEPS = "200000"


def open_goals(header, function):
    """Exit status of the script for one function, and the goals that it did not prove."""
    done = subprocess.run([ROOT / "scripts" / "prove", "--header", header, "--only", function, "--steps", STEPS],
                          capture_output=True, text=True)
    return done.returncode, re.findall(r"^prove: not proved: (\S+)$", done.stderr, re.M), done.stdout + done.stderr


class Faults(unittest.TestCase):
    def expect_noticed(self, function, goal, old, new):
        """The goal is one that the change makes false."""
        text = HEADER.read_text()
        self.assertEqual(text.count(old), 1, f"adapt the fault: {old}")
        with tempfile.TemporaryDirectory() as folder:
            copy = Path(folder) / "changed.h"
            copy.write_text(text.replace(old, new))
            subprocess.run(["cc", "-std=c99", "-Wall", "-Werror", "-fsyntax-only", "-x", "c", copy], check=True)
            status, goals, output = open_goals(copy, function)
        self.assertEqual(status, 1, output)
        self.assertTrue([name for name in goals if name.startswith(goal)], output)

    def test_none_in_the_header_as_it_is(self):
        self.assertEqual(open_goals(HEADER, "nextEnd,firstPair,undoubleInPlace,putTagName,frameCrc,doubleInPlace")[:2], (0, []))

    def test_a_search_that_reads_one_byte_behind_its_end(self):
        self.expect_noticed("nextEnd", "nextEnd_assert_rte_mem_access", "while (etx < last && (bytes", "while (etx <= last && (bytes")

    def test_a_search_for_pairs_that_never_ends(self):
        self.expect_noticed("firstPair", "firstPair_loop_variant", "return from;\n        ++from;\n", "return from;\n")

    def test_a_pair_whose_second_byte_is_behind_the_end(self):
        self.expect_noticed("firstPair", "firstPair_assert_rte_mem_access", "if (to - from < 2)", "if (to - from < 1)")

    def test_undoubling_that_forgets_a_dle_at_the_end(self):
        self.expect_noticed("undoubleInPlace", "undoubleInPlace_assert_rte_mem_access",
                            "if (byte == kDleByte && from < size && bytes[from]", "if (byte == kDleByte && bytes[from]")

    def test_undoubling_that_takes_any_byte_behind_a_dle(self):
        self.expect_noticed("undoubleInPlace", "undoubleInPlace_loop_invariant",
                            "from < size && bytes[from] == kDleByte)\n            ++from;", "from < size)\n            ++from;")

    def test_doubling_that_doubles_a_dle_behind_the_data(self):
        self.expect_noticed("doubleInPlace", "doubleInPlace_", "byte == kDleByte && from < last)", "byte == kDleByte && from <= last)")

    def test_doubling_that_writes_the_second_dle_over_the_first(self):
        self.expect_noticed("doubleInPlace", "doubleInPlace_", "from < last)\n            bytes[--to] = byte;",
                            "from < last)\n            bytes[to] = byte;")

    def test_a_tag_name_whose_last_character_is_missing(self):
        self.expect_noticed("putTagName", "putTagName_ensures", "i < length; ++i)\n        to[1 + i]",
                            "i + 1 < length; ++i)\n        to[1 + i]")

    def test_a_contract_from_which_the_crc_of_a_frame_does_not_follow(self):
        self.expect_noticed("frameCrc", "frameCrc_", "second == kAckByte ? 4 : second == kStxByte ? 2 : 0);\n*/",
                            "second == kAckByte ? 4 : second == kStxByte ? 2 : 0) || \\result == 2;\n*/")


if __name__ == "__main__":
    unittest.main()
