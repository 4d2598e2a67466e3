"""Tests of tools/bench/gap.py. Run by ctest; argument: the folder tools/bench."""

import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
import clients  # noqa: E402
import gap  # noqa: E402

PERIOD = 1000000  # of a transaction, in nanoseconds


def line_of(number):
    """Requests and replies on the line: each reply ends 600 us after its request began, the gap takes 400 us."""
    runs = []
    for i in range(number):
        runs += [(">", i * PERIOD, i * PERIOD + 100000, 36), ("<", i * PERIOD + 200000, i * PERIOD + 600000, 30)]
    return runs


def marks_of(number):
    """In each gap the client wakes after 50 us, works 20 us, 3 of them emptying, and the rest is the way to the line."""
    return [(i * PERIOD + 650000, i * PERIOD + 670000, 3000) for i in range(number)]


class Parts(unittest.TestCase):
    number = clients.SETTLING + 5
    expected = (50000, 20000, 3000, 330000)

    def test_splits_each_gap_at_the_marks(self):
        self.assertEqual([self.expected] * 4, gap.gaps_of(line_of(self.number), marks_of(self.number)))

    def test_skips_a_gap_without_marks_of_its_own(self):
        marks = marks_of(self.number)
        del marks[clients.SETTLING + 1]
        self.assertEqual([self.expected] * 3, gap.gaps_of(line_of(self.number), marks))

    def test_skips_a_gap_whose_last_read_returned_before_the_last_byte_left_the_line(self):
        marks = marks_of(self.number)
        marks[clients.SETTLING] = (clients.SETTLING * PERIOD + 590000, clients.SETTLING * PERIOD + 670000, 0)
        self.assertEqual([self.expected] * 3, gap.gaps_of(line_of(self.number), marks))


class Table(unittest.TestCase):
    def test_shares_the_own_part_among_the_functions_by_their_instructions(self):
        row = {"client": clients.HOST, "values": 1, "baud": 115200, "gaps": 9, "gap_median": 100.0, "own_median": 12.0,
               "own_99": 20.0, "emptying_median": 2.0, "woken_median": 40.0, "sent_median": 48.0}
        counted = {"client": clients.HOST, "instructions": 5000, "parts": {"driver": 3000, "Qt": 2000},
                   "functions": [["crc", 2000], ["find", 1000]]}
        text = gap.gap_table({"rows": [row], "counted": [counted], "warm": 0.2})
        self.assertRegex(text[2], r"^115200 reference host +1 +100.0 +40.0 +12.0 +20.0 +2.0 +48.0$")
        self.assertEqual(["  2.00               the system empties the input", "  4.00         2000  crc",
                          "  2.00         1000  find", "  4.00         2000  functions with fewer",
                          " 10.00         5000  driver 3000, Qt 2000",
                          "  1.00               of these us the instructions take in a loop, where the caches are warm",
                          "  9.00               caches that are cold after the client has slept"], text[-7:])


if __name__ == "__main__":
    unittest.main()
