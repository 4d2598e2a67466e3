"""Tests of hardening.py. Run by ctest; arguments: the folder tests/package and a compiler."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

CHECK = os.path.join(sys.argv.pop(1), "hardening.py")
COMPILER = sys.argv.pop(1)
SOURCE = """#include <cstdio>
#include <cstring>
int main(int count, char** words)
{
    char copy[64];
    std::strcpy(copy, words[count - 1]);
    return std::printf("%s", copy);
}
"""
COMPILE = ["-O2", "-fPIE", "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=2", "-fstack-protector-strong"]
LINK = ["-pie", "-Wl,-z,relro", "-Wl,-z,now", "-Wl,-z,noexecstack"]
OBJECT = "CMakeFiles/micro850-tried.dir/main.o"


def knows(option):
    command = [COMPILER, "-Werror", option, "-x", "c++", "-S", "-o", os.devnull, os.devnull]
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


COMPILE += filter(knows, ["-fstack-clash-protection", "-fcf-protection", "-mbranch-protection=standard"])


class Build(unittest.TestCase):
    """A program that is built with every protection but those that a test takes away."""

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = os.path.realpath(scratch.name)
        os.makedirs(os.path.join(self.folder, os.path.dirname(OBJECT)))
        self.path("main.cpp", SOURCE)

    def path(self, name, text):
        with open(os.path.join(self.folder, name), "w", encoding="utf-8") as file:
            file.write(text)

    def run_here(self, command):
        done = subprocess.run(command, cwd=self.folder, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)

    def build(self, compiled_with=(), linked_with=(), said=None):
        """`said` stands in the compile command in place of what the object was compiled with."""
        files = ["-o", OBJECT, "-c", "main.cpp"]
        self.run_here([COMPILER, *COMPILE, *compiled_with, *files])
        self.run_here([COMPILER, OBJECT, "-o", "micro850-tried", *LINK, *linked_with])
        told = [COMPILER, *COMPILE, *(compiled_with if said is None else said), *files]
        entry = {"directory": self.folder, "command": " ".join(told), "file": "main.cpp"}
        self.path("compile_commands.json", json.dumps([entry]))

    def problems(self):
        command = [sys.executable, "-B", CHECK, self.folder, os.path.join(self.folder, "micro850-tried")]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 1 if done.stderr else 0, done.stderr)
        return [line.split(": ")[-1] for line in done.stderr.splitlines()]


class TheCheck(Build):
    def test_accepts_a_program_that_has_every_protection(self):
        self.build()
        self.assertEqual(self.problems(), [])

    def test_refuses_a_program_without_canaries(self):
        self.build(compiled_with=["-fno-stack-protector"])
        self.assertEqual(self.problems(), ["compiled without stack canaries", "no function guards its stack"])

    def test_refuses_a_program_without_checked_calls(self):
        self.build(compiled_with=["-U_FORTIFY_SOURCE"])
        self.assertEqual(self.problems(), ["compiled without checked calls", "no call of the C library is checked"])

    def test_refuses_a_program_without_optimisation(self):
        self.build(compiled_with=["-O0", "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=2", "-Wno-cpp"])
        self.assertIn("compiled without optimisation, so no call is checked", self.problems())

    def test_refuses_a_program_that_is_linked_late_or_writable(self):
        for option, problem in (
            ("-Wl,-z,lazy", "symbols are bound late"),
            ("-Wl,-z,norelro", "no segment becomes read-only after relocation"),
            ("-Wl,-z,execstack", "the stack is executable"),
        ):
            self.build(linked_with=[option])
            self.assertIn(problem, self.problems(), option)

    def test_refuses_a_program_that_is_always_at_the_same_address(self):
        self.build(compiled_with=["-fno-pie"], linked_with=["-no-pie"])
        self.assertEqual(self.problems(), ["the program is always at the same address"])

    def test_refuses_a_program_that_no_command_of_the_build_compiles(self):
        self.build()
        os.rename(os.path.join(self.folder, "micro850-tried"), os.path.join(self.folder, "micro850-other"))
        os.symlink("micro850-other", os.path.join(self.folder, "micro850-tried"))
        self.assertEqual(self.problems(), [])
        command = [sys.executable, "-B", CHECK, self.folder, os.path.join(self.folder, "micro850-other")]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertIn("micro850-other: no compile command builds it", done.stderr)


@unittest.skipUnless(knows("-fstack-clash-protection"), "the compiler has no stack probes")
class StackProbes(Build):
    def test_are_required_of_the_command_and_of_the_code(self):
        self.build(compiled_with=["-fno-stack-clash-protection"])
        self.assertEqual(self.problems(), ["compiled without stack probes",
                                           "the compiler probes no page of a large frame"])


@unittest.skipUnless(knows("-fcf-protection"), "the compiler does not mark branches in this way")
class BranchMarks(Build):
    def test_are_required_of_the_command_and_of_the_object(self):
        for option in "-fcf-protection=none", "-fcf-protection=branch":
            self.build(compiled_with=[option])
            self.assertEqual(self.problems(), ["compiled without branch marks", "the object has no branch marks"])

    def test_are_required_of_an_object_whatever_its_command_says(self):
        self.build(compiled_with=["-fcf-protection=none"], said=[])
        self.assertEqual(self.problems(), ["the object has no branch marks"])


class WrongUse(unittest.TestCase):
    def test_of_a_folder_that_is_no_build_is_named(self):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run([sys.executable, "-B", CHECK, folder, "x"], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 2)
        self.assertIn(f"hardening: {folder} holds neither compile_commands.json nor a Makefile", done.stderr)


if __name__ == "__main__":
    unittest.main()
