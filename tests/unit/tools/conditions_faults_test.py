"""conditions_faults_test.py SUPPORT: does ./scripts/coverage --mcdc notice a condition that no test shows?

Builds the test of a small class as the script does, with a fault each: a test left out, a condition added. SUPPORT is the
library that the test is linked to. Run by ctest where clang 19 is installed.
"""

import shutil
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

TREE = Path(__file__).resolve().parents[3]
ROOM = "hostkit/wire"
SUPPORT = sys.argv.pop(1)

BOUNDS = "index >= 0 && index < m_size"
ADDED = "m_size < 1000 && " + BOUNDS


def run(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def build(folder, condition):
    """Builds the test with this condition in ByteSlice::at."""
    (folder / ROOM).mkdir(parents=True)
    text = (TREE / ROOM / "ByteSlice.h").read_text(encoding="utf-8")
    assert text.count(BOUNDS) == 1, "ByteSlice.h has changed: adapt the fault"
    (folder / ROOM / "ByteSlice.h").write_text(text.replace(BOUNDS, condition), encoding="utf-8")
    shutil.copy(TREE / "tests/unit" / ROOM / "ByteSlice_test.cpp", folder)
    libraries = run("pkg-config", "--cflags", "--libs", "gtest_main", "Qt5Core").split()
    run("clang++-19", "-std=c++17", "-fPIC", "-fprofile-instr-generate", "-fcoverage-mapping", "-fcoverage-mcdc",
        f"-I{folder / ROOM}", f"-I{TREE / 'tests/support'}", "ByteSlice_test.cpp", SUPPORT, *libraries, "-o", "program",
        cwd=folder)


class ConditionsFaults(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = tempfile.TemporaryDirectory()
        cls.root = Path(cls.temporary.name).resolve()
        with ThreadPoolExecutor() as pool:
            list(pool.map(lambda fault: build(cls.root / fault[0], fault[1]), (("right", BOUNDS), ("added", ADDED))))

    @classmethod
    def tearDownClass(cls):
        cls.temporary.cleanup()

    def judge(self, name, tests="*"):
        """Status and output of the script's last steps, after these tests."""
        folder = self.root / name
        run("./program", "--gtest_filter=" + tests, cwd=folder, env={"LLVM_PROFILE_FILE": "one.profraw"})
        run("llvm-profdata-19", "merge", "-sparse", "one.profraw", "-o", "all.profdata", cwd=folder)
        (folder / "all.json").write_text(
            run("llvm-cov-19", "export", "-instr-profile", "all.profdata", "program", ROOM, cwd=folder), encoding="utf-8")
        (folder / "excepted").write_text("", encoding="utf-8")
        judged = subprocess.run([sys.executable, "-B", TREE / "tools/check/conditions.py", "--exceptions", "excepted",
                                 "--least", ROOM, "100", "all.json"], cwd=folder, stdout=subprocess.PIPE, text=True,
                                check=False)
        return judged.returncode, judged.stdout

    def test_finds_nothing_where_the_tests_show_all(self):
        self.assertEqual(self.judge("right"),
                         (0, f"{ROOM}: 2 conditions, 2 covered, 0 excepted, 0 uncovered: 100.0 % (at least 100)\n"))

    def test_notices_a_test_that_is_gone(self):
        status, text = self.judge("right", "-*HasZerosOutsideItself")
        self.assertEqual(status, 1)
        self.assertIn(f": index >= 0 in {BOUNDS}\n", text)
        self.assertIn(f": index < m_size in {BOUNDS}\n", text)

    def test_notices_a_condition_that_no_test_looks_at(self):
        status, text = self.judge("added")
        self.assertEqual(status, 1)
        self.assertIn("3 conditions, 2 covered", text)
        self.assertIn(f": m_size < 1000 in {ADDED}\n", text)


if __name__ == "__main__":
    unittest.main()
