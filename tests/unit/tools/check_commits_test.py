"""Tests of tools/check/check_commits.py. Run by ctest; argument: the folder tools/check."""

import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
import check_commits  # noqa: E402

BODY = "\n\nThe reason for it.\n"


class Message(unittest.TestCase):
    def test_accepts_a_subject_in_the_imperative_with_a_body(self):
        for subject in ("Add a room for recorders", "Pass the limit as a type", "Bring back the old name", "A" + "d" * 71):
            self.assertEqual(check_commits.problems_of(subject + BODY), [], subject)

    def test_refuses_a_subject_of_73_characters(self):
        self.assertEqual(check_commits.problems_of("A" + "d" * 72 + BODY),
                         ["the subject has 73 characters, more than 72"])

    def test_refuses_other_forms_of_the_verb_and_words_that_are_no_verbs(self):
        for first in ("Added", "Adding", "Adds", "Made", "The"):
            found = check_commits.problems_of(f"{first} a room{BODY}")
            self.assertEqual(len(found), 1, first)
            self.assertIn(f"\"{first}\"", found[0])

    def test_refuses_a_small_letter_at_the_begin_and_a_dot_at_the_end(self):
        self.assertEqual(check_commits.problems_of("add a room." + BODY),
                         ["the subject does not begin with a capital letter", "the subject ends with a dot"])

    def test_refuses_a_message_without_a_body(self):
        self.assertEqual(check_commits.problems_of("Add a room\n"),
                         ["the body is missing: give the reason for the change"])

    def test_refuses_a_body_right_after_the_subject(self):
        self.assertEqual(check_commits.problems_of("Add a room\nThe reason for it.\n"),
                         ["no empty line between subject and body"])

    def test_refuses_a_line_of_the_body_that_is_not_wrapped(self):
        self.assertEqual(check_commits.problems_of("Add a room\n\n" + "word " * 20 + "x\n"),
                         ["a line of the body has 101 characters, more than 100"])

    def test_accepts_a_long_line_that_is_indented_or_cannot_be_wrapped(self):
        self.assertEqual(check_commits.problems_of("Add a room\n\n    " + "word " * 30 + "x\n" + "x" * 120 + "\n"), [])


if __name__ == "__main__":
    unittest.main()
