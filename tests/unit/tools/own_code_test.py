"""Tests that clang-tidy finds the same with tools/analyze/own_code.cpp as without. Arguments: the folder
tools/analyze, the folder of the build."""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TOOL, BUILD = Path(sys.argv.pop(1)), Path(sys.argv.pop(1))
ROOT = TOOL.resolve().parents[1]
OWN_CODE = BUILD / "clang-tidy-of-own-code"

# Those of .clang-tidy and more, so that there is much to find.
CHECKS = "-*,bugprone-*,cert-*,misc-*,modernize-*,performance-*,readability-*,cppcoreguidelines-*,google-*"

HEADER = """
#include <string>
template<typename T> struct Holder
{
    T held;
    bool holds() { if (!held.size() > 0) return true; else return 0; }
};
#define DECLARE(name) int name()
"""
SOURCE = """
#include "header.h"
#include <algorithm>
#include <vector>
extern "C" {
#include <stdlib.h>
int started(char* text) { return atoi(text); }
}
namespace apart { struct Record; }
namespace { namespace std_like = std; using apart::Record; DECLARE(unused); }
int compare(std::string a) { return a.size() == 0 ? NULL : (int)a.length(); }
std::string moved(std::string text)
{
    std::string other = std::move(text);
    const std::vector<std::string> all{other};
    for (const std::string one : all)
        std::for_each(all.begin(), all.end(), [](auto each) { char* none = 0; (void)none; });
    Holder<std::string> holder{other};
    return holder.holds() ? text : "";
}
"""


def findings(program, source, *flags):
    done = subprocess.run([program, "--quiet", f"--checks={CHECKS}", "--warnings-as-errors=", "--header-filter=.*",
                           source, *flags], cwd=ROOT, capture_output=True, text=True)
    return re.findall(r"^.*: (?:warning|error): .*$", done.stdout, re.M), done.stderr


class ClangTidyOfOwnCode(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        subprocess.run([ROOT / "scripts" / "analyze", "--build", BUILD, "common/UserError.cpp"], check=True)

    def assert_same(self, source, *flags):
        expected, _ = findings("clang-tidy-14", source, *flags)
        found, errors = findings(OWN_CODE, source, *flags)
        self.assertEqual(found, expected)
        self.assertNotIn("preload", errors)
        return found

    def test_finds_what_clang_tidy_finds_in_sources_headers_macros_and_templates(self):
        with tempfile.TemporaryDirectory() as folder:
            (Path(folder) / "header.h").write_text(HEADER, encoding="utf-8")
            (Path(folder) / "source.cpp").write_text(SOURCE, encoding="utf-8")
            found = self.assert_same(f"{folder}/source.cpp", "--", "-std=c++17")
        for check in ("bugprone-use-after-move", "cert-err34-c", "misc-unused-using-decls", "misc-unused-alias-decls",
                      "modernize-use-nullptr", "performance-for-range-copy", "performance-unnecessary-value-param",
                      "readability-implicit-bool-conversion", "readability-container-size-empty"):
            self.assertTrue(any(check in line for line in found), f"{check} in {found}")
        self.assertTrue(any("/header.h:" in line for line in found))

    def test_finds_what_clang_tidy_finds_in_a_source_of_the_project(self):
        self.assertTrue(self.assert_same("common/CipType.cpp", "-p", BUILD))


if __name__ == "__main__":
    unittest.main()
