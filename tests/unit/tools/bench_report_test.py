"""Tests of tools/bench/report.py. Run by ctest; argument: the folder tools/bench."""

import os
import sys
import tempfile
import unittest
import unittest.mock

sys.path.insert(0, sys.argv.pop(1))
import clients  # noqa: E402
import report  # noqa: E402

MACHINE = {"date": "today", "processors": 2, "processor": "P", "kernel": "K", "packages": ["g++ 12"], "load": 0.1}
COST = {kind: {"instructions": 5000 + i, "allocations": 2.0, "bytes": 1, "nanoseconds": 1, "wire": 1,
               "functions": [["crc", 2000]]} for i, kind in enumerate(["int", "dint", "lreal"])}
GROWTH = [{"variables": size, "nanoseconds": dict.fromkeys(["cyclic", "fetch", "set", "rebuild"], 1.0), "heap": 400,
           "instructions": dict.fromkeys(["cyclic", "fetch", "set", "rebuild"], size)} for size in (10, 100, 1000)]
DOCUMENT = """# Before
<!-- bench machine -->
<!-- end -->
between
<!-- bench targets -->
old targets
<!-- end -->
<!-- bench cost -->
<!-- end -->
after
"""


class Document(unittest.TestCase):
    def written(self, text, results, times=1):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "page.md")
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
            for _ in range(times):
                report.write(path, results, [])
            with open(path, encoding="utf-8") as file:
                return file.read()

    def test_writes_a_table_between_its_marks_and_keeps_the_text_around_them(self):
        text = self.written(DOCUMENT, {"machine": MACHINE, "cost": COST})
        self.assertIn("<!-- bench cost -->\n```text\nOne transaction", text)
        self.assertIn("```\n<!-- end -->\nafter\n", text)
        self.assertIn("\nbetween\n<!-- bench targets -->\n", text)

    def test_writes_the_same_document_again_from_the_same_results(self):
        results = {"machine": MACHINE, "cost": COST}
        self.assertEqual(self.written(DOCUMENT, results), self.written(DOCUMENT, results, times=2))

    def test_keeps_machine_and_targets_when_only_some_sections_ran(self):
        text = self.written(DOCUMENT, {"machine": MACHINE, "cost": COST})
        self.assertIn("<!-- bench targets -->\nold targets\n<!-- end -->", text)
        self.assertIn("<!-- bench machine -->\n<!-- end -->", text)

    def test_keeps_the_figures_beside_the_document(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "page.md")
            with open(path, "w", encoding="utf-8") as file:
                file.write(DOCUMENT)
            report.write(path, {"machine": MACHINE, "cost": COST, "quick": ["cost"]}, [])
            report.write(path, {"machine": MACHINE, "growth": GROWTH, "quick": []}, [])
            page = report.page(path)
            self.assertEqual(COST, page["cost"])
            self.assertEqual(GROWTH, page["growth"])
            self.assertEqual(["cost"], page["quick"])
            report.write(path, {"machine": dict(MACHINE, date="later"), "cost": dict(COST, dint=COST["int"]), "quick": []}, [])
            page = report.page(path)
            self.assertEqual(5000, page["cost"]["dint"]["instructions"])
            self.assertEqual([], page["quick"])
            self.assertEqual("today", page["machine"]["date"], "the machine is that of a whole run")

    def test_says_what_is_wrong_with_a_damaged_file_of_figures(self):
        with tempfile.TemporaryDirectory() as directory:
            with open(os.path.join(directory, "page.json"), "w", encoding="utf-8") as file:
                file.write('{"cost":\n')
            with self.assertRaisesRegex(SystemExit, r"page\.json: Expecting value: line 2.*restore the file"):
                report.page(os.path.join(directory, "page.md"))

    def test_names_the_sections_that_were_measured_with_few_repetitions(self):
        self.assertEqual("measured with few repetitions: line, gap", report.machine_table(MACHINE, ["line", "gap"])[-1])
        self.assertNotIn("repetitions", "".join(report.machine_table(MACHINE)))

    def test_refuses_a_document_without_marks(self):
        with self.assertRaisesRegex(SystemExit, "page.md has no marks"):
            self.written("# Nothing here\n", {"machine": MACHINE, "cost": COST})


class Plots(unittest.TestCase):
    def test_of_the_line_have_a_bar_for_each_client_and_size(self):
        rows = [{"client": client, "baud": baud, "values": values, "in_use": 0.5}
                for baud in clients.BAUDS for client in clients.CLIENTS for values in clients.SIZES[client]]
        with tempfile.TemporaryDirectory() as directory, \
                unittest.mock.patch.object(report, "gnuplot", lambda path, commands: (path, commands)):
            path, commands = report.plot({"line": {"rows": rows}}, directory)[0]
            self.assertTrue(path.endswith("line.svg"))
            for client in clients.CLIENTS:
                self.assertIn(f"title '{client}'", commands)
            with open(f"{directory}/line.dat", encoding="ascii") as data:
                self.assertEqual(['"9600\\n1" 50.0 50.0 50.0'] + 8 * [unittest.mock.ANY], data.read().splitlines())


class Targets(unittest.TestCase):
    def test_reports_for_each_goal_whether_the_figure_reaches_it(self):
        for count, verdict in (6400, "reached"), (6401, "not reached"):
            lines = report.targets_table({"cost": dict(COST, int=dict(COST["int"], instructions=count))})
            self.assertRegex(lines[1], rf"^INT read and fetch: instructions +<= 6400 +{count}  {verdict}$")

    def test_has_a_goal_for_the_allocations_of_every_type(self):
        lines = report.targets_table({"cost": dict(COST, dint=dict(COST["dint"], allocations=3.01))})
        self.assertRegex(lines[3], r"^DINT read and fetch: allocations +<= 3 +3.01  not reached$")
        self.assertRegex(lines[4], r"^LREAL read and fetch: allocations +<= 3 +2.00  reached$")

    def reaction_targets(self, **changes):
        """The verdicts on a row that reaches every goal but for the changes: part of the row to its figures."""
        trials = {"best": 1.0, "median": 1.0, "worst": 100.0}
        row = {"baud": 9600, "transaction": 70.0, "timeout": 1600.0, "start": {"first": 270.0},
               "asked_again": {"after": 100.0, "round_trips": 1.5},
               "pauses": {"minutes": 60, "timed_out": 0, "wrong_values": 0, "reconnects": 0},
               **{name: {**trials, "requests_before": 0} for name in ("write", "write_unknown")},
               **{name: trials for name in ("lost_reply", "power_cycle", "pulled_cable", "disconnected_cable",
                                            "following_program")}}
        for name, figures in changes.items():
            row[name] = {**row[name], **figures}
        return {name: (figure, reached) for name, _, figure, reached in report.reaction_targets([row])}

    def test_wants_no_time_out_of_a_program_that_follows_another(self):
        name = "9600 baud: following program, no time-out: first value"
        self.assertEqual(("340", True), self.reaction_targets(following_program={"worst": 340.0})[name])
        for worst in 341.0, 270.0 + 1600 / 2, 270.0 + 1600:
            self.assertEqual((f"{worst:.0f}", False), self.reaction_targets(following_program={"worst": worst})[name])

    def test_wants_no_failure_of_a_controller_that_pauses(self):
        name = "9600 baud: 60 minutes with pauses, failed"
        self.assertEqual(("0", True), self.reaction_targets()[name])
        for kind in ("timed_out", "wrong_values", "reconnects"):
            self.assertEqual(("2", False), self.reaction_targets(pauses={kind: 2})[name], kind)


if __name__ == "__main__":
    unittest.main()
