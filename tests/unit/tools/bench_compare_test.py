"""Tests of tools/bench/compare.py. Run by ctest; argument: the folder tools/bench."""

import copy
import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
import compare  # noqa: E402

PAGE = {
    "machine": {"date": "yesterday", "processor": "P", "processors": 2, "kernel": "K", "packages": ["g++ 12"], "load": 0.1},
    "quick": [],
    "cost": {"int": {"instructions": 5000, "allocations": 2.0, "nanoseconds": 700, "functions": [["crc", 2000]]}},
    "growth": [{"variables": size, "instructions": {"cyclic": 6000}, "nanoseconds": {"cyclic": 900.0}}
               for size in (10, 100)],
    "line": {"rows": [{"client": "reference host", "values": 1, "baud": 9600, "in_use": 0.99, "gap_median": 100.0,
                       "gap_worst": 300.0, "device_median": 90.0}], "worst_data": []},
    "reaction": [{"baud": 9600, "trials": 200, "lost_reply": {"best": 0.0, "median": 800.0, "worst": 810.0}}],
}


class Comparing(unittest.TestCase):
    def compared(self, **changes):
        """The report on a run whose figures are those of the page but for the changes: path to figure."""
        now = copy.deepcopy(PAGE)
        for path, figure in changes.items():
            *folder, name = path.split("__")
            place = now
            for step in folder:
                place = place[int(step) if step.isdigit() else step]
            place[name] = figure
        return compare.report(PAGE, now)

    def worse(self, **changes):
        text = self.compared(**changes)
        heads = [i for i, line in enumerate(text) if line.startswith("figure ")]
        return [line for line in text[heads[0] + 1:] if not line.startswith("bench:")] if heads else []

    def test_finds_nothing_in_a_run_like_the_page(self):
        text = self.compared()
        self.assertIn("The environment is the same.", text)
        self.assertIn("Nothing is worse by more than 10%.", text)
        self.assertEqual("bench: 12 figures compared: 0 worse and 0 better by more than 10%", text[-1])

    def test_prints_a_regression_of_more_than_a_tenth_with_both_figures(self):
        lines = self.worse(cost__int__instructions=5501)
        self.assertEqual(1, len(lines))
        self.assertRegex(lines[0], r"^cost: int: instructions +5000 +5501 +\+10%$")

    def test_keeps_silent_about_a_tenth_and_less(self):
        self.assertEqual([], self.worse(cost__int__instructions=5500))

    def test_names_the_row_of_a_list_by_its_keys(self):
        self.assertRegex(self.worse(growth__1__instructions={"cyclic": 7000})[0],
                         r"^growth: 100 variables: instructions: cyclic +6000 +7000 +\+17%$")
        self.assertRegex(self.worse(line__rows__0__gap_median=120)[0],
                         r"^line: rows: reference host, 9600 baud, 1 values: gap_median +100 +120 +\+20%$")

    def test_takes_less_for_worse_where_more_is_better(self):
        self.assertRegex(self.worse(line__rows__0__in_use=0.80)[0], r"in_use +0.99 +0.8 +-19%$")
        self.assertEqual([], self.worse(line__rows__0__in_use=1.2))

    def test_takes_fewer_answers_of_a_controller_that_pauses_for_worse(self):
        page = copy.deepcopy(PAGE)
        page["reaction"][0]["pauses"] = {"minutes": 60, "answered": 1000, "timed_out": 0}
        for answered, timed_out, worse in (1200, 0, []), (800, 0, ["answered"]), (1000, 1, ["timed_out"]):
            now = copy.deepcopy(page)
            now["reaction"][0]["pauses"].update(answered=answered, timed_out=timed_out)
            lines = [line for line in compare.report(page, now) if "60 minutes: " in line]
            self.assertEqual(worse, [line.split("60 minutes: ")[1].split()[0] for line in lines])

    def test_counts_what_became_better_without_a_list(self):
        text = self.compared(cost__int__instructions=4000)
        self.assertEqual("bench: 12 figures compared: 0 worse and 1 better by more than 10%", text[-1])

    def test_takes_a_figure_that_was_none_for_worse(self):
        self.assertEqual([], self.worse(reaction__0__lost_reply={"best": 0.4, "median": 800.0, "worst": 810.0}))
        self.assertEqual(1, len(self.worse(reaction__0__lost_reply={"best": 0.6, "median": 800.0, "worst": 810.0})))

    def test_leaves_single_extremes_and_other_programs_out(self):
        self.assertEqual([], self.worse(line__rows__0__gap_worst=9000.0, line__rows__0__device_median=900.0))

    def test_compares_only_counts_and_virtual_times_with_another_environment(self):
        text = self.compared(machine__kernel="L", cost__int__nanoseconds=9000, line__rows__0__gap_median=900.0)
        self.assertIn("kernel: L (the page: K)", text)
        self.assertIn("Nothing is worse by more than 10%.", text)
        self.assertIn("bench: 7 figures compared: 0 worse and 0 better by more than 10%", text)
        self.assertIn("bench: 5 times of the machine were not compared", text)
        self.assertIn("cost: int: instructions", "".join(self.compared(machine__kernel="L", cost__int__instructions=9000)))
        self.assertIn("lost_reply: median", "".join(self.compared(
            machine__kernel="L", reaction__0__lost_reply={"best": 0.0, "median": 900.0, "worst": 810.0})))

    def test_takes_another_version_of_a_package_for_another_environment(self):
        self.assertIn("packages: g++ 13 (the page: g++ 12)", self.compared(machine__packages=["g++ 13"]))

    def test_takes_another_date_and_load_for_the_same_environment(self):
        self.assertIn("The environment is the same.", self.compared(machine__date="today", machine__load=2.0))

    def test_says_how_many_figures_of_a_section_were_not_measured(self):
        now = copy.deepcopy(PAGE)
        now["growth"].pop()
        now["quick"] = ["growth"]
        del now["line"]  # a section that was not asked for
        text = compare.report(PAGE, now)
        self.assertEqual("bench: 2 figures of the page were not measured in this run (it was a quick one)", text[-1])

    def test_does_not_compare_with_another_number_of_trials(self):
        now = copy.deepcopy(PAGE)
        now["reaction"][0].update(trials=20, lost_reply={"best": 900.0, "median": 900.0, "worst": 900.0})
        text = compare.report(PAGE, now)
        self.assertIn("Nothing is worse by more than 10%.", text)
        self.assertEqual("bench: 3 figures of the page were not measured in this run", text[-1])


if __name__ == "__main__":
    unittest.main()
