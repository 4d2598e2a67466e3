"""Tests of tools/prove/prove.py. Run by ctest; argument: the folder tools/prove."""

import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
import prove  # noqa: E402

OUTPUT = """[kernel] Parsing round_trip.c (with preprocessing)
[wp] [Qed] Goal typed_nextDle_ensures : Valid (2ms)
[wp] [Failed] Goal typed_crcExtended_ensures
  CVC4 1.8: Unknown (Qed:3ms)
[wp] Proved goals:  1 / 2
"""


class List(unittest.TestCase):
    def test_accepts_the_goals_that_are_listed(self):
        self.assertEqual(prove.problems(prove.Result(OUTPUT), {"crcExtended_ensures": "why"}, []), [])

    def test_reports_an_open_goal_that_is_not_listed(self):
        self.assertEqual(prove.problems(prove.Result(OUTPUT), {}, []), ["not proved: crcExtended_ensures"])

    def test_reports_a_listed_goal_that_is_proved(self):
        known = {"crcExtended_ensures": "why", "nextDle_ensures": "why"}
        found = prove.problems(prove.Result(OUTPUT), known, [])
        self.assertEqual(len(found), 1)
        self.assertIn("proved, or gone: nextDle_ensures", found[0])

    def test_does_not_miss_goals_of_functions_that_were_left_out(self):
        known = {"crcExtended_ensures": "why", "nextDle_ensures": "why"}
        self.assertEqual(prove.problems(prove.Result(OUTPUT), known, ["crcExtended"]), [])

    def test_reports_a_warning(self):
        text = OUTPUT + "[wp] f.h:3: Warning: \n  Cast with incompatible pointers types\n"
        self.assertEqual(prove.problems(prove.Result(text), {"crcExtended_ensures": "why"}, []),
                         ["warning: Cast with incompatible pointers types"])

    def test_names_goals_alike_with_lemmas_about_bits_and_without(self):
        text = OUTPUT.replace("typed_", "typed_bits_")
        self.assertEqual(prove.Result(text).open, prove.Result(OUTPUT).open)

    def test_tells_lemmas_that_are_not_proved(self):
        output = "Goal left'vc.\nProver result is: Valid (0.1s, 3 steps).\n\nGoal right.\nProver result is: Timeout (5s).\n"
        self.assertEqual(prove.open_lemmas(output), (["right"], 2))

    def test_refuses_output_without_a_result(self):
        with self.assertRaises(prove.Failure):
            prove.Result("[kernel] Frama-C aborted: invalid user input.\n")

    def test_refuses_a_goal_without_a_reason(self):
        with self.assertRaises(prove.Failure):
            prove.known_open("some_goal\n")


if __name__ == "__main__":
    unittest.main()
