"""Tests of tools/mutate. Run by ctest; argument: the folder tools/mutate."""

import sys
import threading
import unittest
from pathlib import Path

sys.path.insert(0, sys.argv.pop(1))
import mutants  # noqa: E402
import mutate  # noqa: E402

SOURCE = """int first(int x)
{
    if (x < 5) {
        note(x);
    }
    return x;
}

int second(int x)
{
    note(x);
    other(x);
    note(x);
    return x;
}
"""
REASON = "The reason."


def mutants_of(source):
    return mutants.mutants_of("src/a.cpp", source)


class Equivalents(unittest.TestCase):
    def explained(self, *blocks):
        return mutate.explained_by("# a comment\n\n" + "\n\n".join("\n".join(block) for block in blocks) + "\n",
                                   mutants_of(SOURCE))

    def refused(self, *blocks):
        with self.assertRaises(mutate.Failure) as caught:
            self.explained(*blocks)
        return str(caught.exception).partition(": ")[2]

    def test_explains_one_mutant_of_one_function(self):
        found = self.explained(("src/a.cpp first", "note(x); => ;", REASON))
        self.assertEqual([(m.line, m.description) for m in found], [(4, "note(x); => ;")])

    def test_explains_the_occurrence_that_the_number_names(self):
        for number, line in ("1", 11), ("2", 13):
            found = self.explained((f"src/a.cpp second #{number}", "note(x); => ;", REASON))
            self.assertEqual([m.line for m in found], [line])

    def test_refuses_a_block_that_explains_several_mutants(self):
        self.assertEqual(self.refused(("src/a.cpp second", "note(x); => ;", REASON)),
                         "src/a.cpp second: note(x); => ;: 2 such mutations there (add #1 to #2)")

    def test_refuses_a_block_that_explains_no_mutant(self):
        for place in "src/a.cpp", "src/a.cpp third", "src/b.cpp first", "src/a.cpp -":
            self.assertIn("no such mutation there", self.refused((place, "note(x); => ;", REASON)))
        self.assertIn("no such mutation there", self.refused(("src/a.cpp first", "note(y); => ;", REASON)))

    def test_refuses_a_number_that_the_place_does_not_have(self):
        for place in "second #3", "second #0", "second #x", "first #1":
            self.assertIn("there is no such number", self.refused((f"src/a.cpp {place}", "note(x); => ;", REASON)))

    def test_refuses_two_blocks_for_one_mutant(self):
        block = ("src/a.cpp first", "note(x); => ;", REASON)
        self.assertIn("two blocks explain it", self.refused(block, block))

    def test_refuses_a_block_of_two_lines(self):
        self.assertIn("this block is not place, mutation and reason: src/a.cpp first",
                      self.refused(("src/a.cpp first", "note(x); => ;")))

    def test_of_the_project_each_explain_one_mutant_of_the_driver(self):
        root = Path(mutate.ROOT)
        blocks = list(mutate.blocks_of(mutate.EQUIVALENT.read_text()))
        found = [m for path in sorted((root / "src").rglob("*")) if path.suffix in (".cpp", ".h")
                 for m in mutants.mutants_of(str(path.relative_to(root)), path.read_text())]
        self.assertEqual(len(mutate.explained_by(mutate.EQUIVALENT.read_text(), found)), len(blocks))


class Mutants(unittest.TestCase):
    def test_do_not_remove_the_result_at_the_end_of_a_function(self):
        switch = "int f(int x)\n{\n    switch (x) {\n    case 1:\n        return 2;\n    default:\n        return x;\n    }\n}\n"
        removed = [m.line for m in mutants_of(switch) if m.kind == "removal"]
        self.assertEqual(removed, [5])

    def test_remove_a_result_that_another_follows(self):
        source = "int f(int x)\n{\n    if (x) {\n        return 2;\n    }\n    return x;\n}\n"
        self.assertEqual([m.line for m in mutants_of(source) if m.kind == "removal"], [4])

    def test_leave_out_what_only_qt_4_compiles(self):
        source = "void f(int x)\n{\n#if QT_VERSION >= 0x050D00\n    a(x);\n#else\n    b(x);\n#endif\n    c(x);\n" \
                 "#if QT_VERSION < 0x050000\n    d(x);\n#if X\n    e(x);\n#endif\n#else\n    f(x);\n#endif\n}\n"
        self.assertEqual([m.line for m in mutants_of(source) if m.kind == "removal"], [4, 8, 15])

    def test_keep_the_branches_of_other_conditions(self):
        source = "void f(int x)\n{\n#if defined(X)\n    a(x);\n#else\n    b(x);\n#endif\n}\n"
        self.assertEqual([m.line for m in mutants_of(source) if m.kind == "removal"], [4, 6])


class Killing(unittest.TestCase):
    """Programs whose outcomes are given, one for each time that they run."""

    def killer(self, **outcomes):
        self.runs = []
        programs = [Path(name) for name in outcomes]

        def outcome(program, seconds):
            self.runs.append((program.name, seconds))
            return outcomes[program.name].pop(0)

        return mutate.killer(programs, {program: 1.0 for program in programs}, outcome, mutate.Machine())

    def test_is_done_by_the_first_program_that_fails(self):
        self.assertEqual(self.killer(a=[mutate.PASSED], b=[mutate.FAILED], c=[]), "b")

    def test_is_not_done_by_programs_that_pass(self):
        self.assertEqual(self.killer(a=[mutate.PASSED], b=[mutate.PASSED]), "")

    def test_is_not_done_by_a_time_out_that_does_not_come_again(self):
        self.assertEqual(self.killer(a=[mutate.TIMED_OUT, mutate.PASSED], b=[mutate.PASSED]), "")
        self.assertEqual([name for name, _ in self.runs], ["a", "b", "a"])
        self.assertGreater(self.runs[2][1], self.runs[0][1])

    def test_is_done_by_a_time_out_that_comes_again(self):
        self.assertEqual(self.killer(a=[mutate.TIMED_OUT, mutate.TIMED_OUT]), "a (timed out twice)")
        self.assertEqual(self.killer(a=[mutate.TIMED_OUT, mutate.FAILED]), "a")

    def test_asks_the_other_programs_before_one_runs_again(self):
        self.assertEqual(self.killer(a=[mutate.TIMED_OUT], b=[mutate.FAILED]), "b")


class Machine(unittest.TestCase):
    def test_lets_nothing_run_beside_what_runs_alone(self):
        machine, begun, may_end, seen = mutate.Machine(), threading.Event(), threading.Event(), []

        def beside():
            with machine.shared():
                begun.set()
                may_end.wait()
                seen.append("beside ends")

        def alone():
            with machine.alone():
                seen.append("alone")

        threads = [threading.Thread(target=beside), threading.Thread(target=alone)]
        threads[0].start()
        begun.wait()
        threads[1].start()
        while not machine.is_taken:
            pass
        later = threading.Thread(target=lambda: self.run_shared(machine, seen))
        later.start()
        may_end.set()
        for thread in [*threads, later]:
            thread.join()
        self.assertEqual(seen, ["beside ends", "alone", "later"])

    @staticmethod
    def run_shared(machine, seen):
        with machine.shared():
            seen.append("later")


if __name__ == "__main__":
    unittest.main()
