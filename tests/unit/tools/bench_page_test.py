"""Test of the page of figures. Run by ctest; argument: the folder tools/bench."""

import os
import sys
import unittest

TOOLS = sys.argv.pop(1)
sys.path.insert(0, TOOLS)
import report  # noqa: E402

DOCUMENT = os.path.join(TOOLS, "..", "..", "docs", "performance.md")


class Page(unittest.TestCase):
    def test_shows_the_figures_that_are_kept_beside_it(self):
        figures = report.page(DOCUMENT)
        self.assertEqual(list(report.TABLES), [name for name in report.TABLES if name in figures])
        with open(DOCUMENT, encoding="utf-8") as file:
            text = file.read()
        again, tables = report.with_tables(text, figures)
        self.assertEqual(len(report.TABLES) + len(report.WHOLE_ONLY), tables)
        self.assertMultiLineEqual(text, again, "write them with ./scripts/bench --write docs/performance.md")


if __name__ == "__main__":
    unittest.main()
