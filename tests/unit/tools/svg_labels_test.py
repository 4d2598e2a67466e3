"""Tests of tools/check/svg_labels.py, and of the project's pictures. Run by ctest; argument: the folder tools/check."""

import sys
import unittest
from pathlib import Path

TOOLS = sys.argv.pop(1)
sys.path.insert(0, TOOLS)
import svg_labels  # noqa: E402

PICTURES = sorted((Path(TOOLS) / ".." / ".." / "docs").glob("*.svg"))


def picture(body):
    return f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 400 300">{body}</svg>'


def text(words, x, y, more=""):
    return f'<text x="{x}" y="{y}" font-size="10" {more}>{words}</text>'


class Labels(unittest.TestCase):
    def problems(self, *labels):
        return svg_labels.problems(picture("".join(labels)))

    def test_accepts_labels_beside_and_below_each_other(self):
        self.assertEqual([], self.problems(text("first", 10, 20), text("second", 60, 20), text("third", 10, 32)))

    def test_finds_labels_one_upon_the_other(self):
        self.assertEqual(['"first" and "second" overlap'], self.problems(text("first", 10, 20), text("second", 25, 24)))

    def test_places_a_label_by_its_anchor(self):
        ends, middle = 'text-anchor="end"', 'text-anchor="middle"'
        self.assertEqual([], self.problems(text("left", 100, 20, ends), text("right", 101, 20)))
        self.assertEqual(['"left" and "right" overlap'], self.problems(text("left", 100, 20, middle), text("right", 101, 20)))

    def test_follows_the_shift_and_the_turn_of_a_group(self):
        shifted = '<g transform="translate(100,100)">' + text("moved", 0, 0) + "</g>"
        turned = '<g transform="translate(105,100) rotate(-90)">' + text("upright", 0, 0) + "</g>"
        self.assertEqual(['"moved" and "upright" overlap'], self.problems(shifted, turned))
        self.assertEqual([], self.problems(shifted, turned.replace("105,100", "105,80")))

    def test_takes_the_size_of_a_class_from_the_style_sheet(self):
        sheet = "<style>.large { font-size: 40px } @media print { .large { font-size: 4px } }</style>"
        self.assertEqual([], self.problems(text("one", 10, 60), text("other", 40, 60)))
        large = '<text class="large" x="10" y="60">one</text>'
        self.assertEqual(['"one" and "other" overlap'], self.problems(sheet, large, text("other", 40, 60)))

    def test_finds_a_label_that_is_cut_off(self):
        self.assertEqual(['"a long label" is cut off at the edge'], self.problems(text("a long label", 360, 20)))

    def test_refuses_what_is_no_picture(self):
        for wrong in ("no markup", "<html/>", '<svg xmlns="http://www.w3.org/2000/svg"/>'):
            with self.assertRaises(ValueError):
                svg_labels.problems(wrong)


class Pictures(unittest.TestCase):
    def test_of_the_documents_have_labels_that_do_not_overlap(self):
        self.assertLess(3, len(PICTURES))
        for path in PICTURES:
            with self.subTest(picture=path.name):
                self.assertEqual([], svg_labels.problems(path.read_text(encoding="utf-8")))


if __name__ == "__main__":
    unittest.main()
