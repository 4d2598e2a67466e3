#!/usr/bin/env python3
"""Which conditions does no test show to decide by themselves?

Reads what `llvm-cov export` prints of binaries that clang built with -fcoverage-mcdc. A condition of a decision with
several (a && b) is covered when two runs differ in it alone and in the outcome (MC/DC). A decision of one condition is
covered when it was true and false.

A file of exceptions names conditions that no test can cover, three lines each: the source file, the condition and, if
it is part of a decision, " in " and that decision, as they are written there with single blanks; and the reason.
Status 1: a condition is uncovered and no exception, an exception is covered now or names nothing, or a room has less
than its share.
"""
import argparse
import json
import re
import sys
from collections import defaultdict
from dataclasses import dataclass, field
from pathlib import Path

CONDITION = 4  # a decision of its own
PART = 6       # one of several conditions


@dataclass(frozen=True, order=True)
class Range:
    line: int
    column: int
    last_line: int
    last_column: int

    def holds(self, other):
        return ((self.line, self.column) <= (other.line, other.column) and
                (other.last_line, other.last_column) <= (self.last_line, self.last_column))

    def text(self, lines):
        taken = lines[self.line - 1:self.last_line]
        taken[-1] = taken[-1][:self.last_column - 1]
        taken[0] = taken[0][self.column - 1:]
        return re.sub(r"\s+", " ", " ".join(re.sub(r"//.*", "", line) for line in taken)).strip()


def is_choice(place, lines):
    """Is it the branch of a switch, which chooses by a value, or of a range-based for, which has no condition?"""
    text = place.text(lines)
    return (re.match(r"case\b|default\b|:$", text) is not None or
            lines[place.line - 1][:place.column - 1].rstrip().endswith("switch ("))


@dataclass
class File:
    """What was counted of a source file, over all binaries and instances of its templates."""
    branches: dict = field(default_factory=lambda: defaultdict(lambda: [0, 0]))
    parts: set = field(default_factory=set)
    decisions: dict = field(default_factory=dict)

    def add(self, data):
        for *place, true, false, _, _, kind in data.get("branches", []):
            counts = self.branches[Range(*place)]
            counts[0] += true
            counts[1] += false
            if kind == PART:
                self.parts.add(Range(*place))
        for *place, _, _, shown in data.get("mcdc_records", []):
            known = self.decisions.setdefault(Range(*place), [False] * len(shown))
            self.decisions[Range(*place)] = [before or now for before, now in zip(known, shown)]

    def parts_of(self, decision):
        inner = [other for other in self.decisions if other != decision and decision.holds(other)]
        return sorted(part for part in self.parts
                      if decision.holds(part) and not any(other.holds(part) for other in inner))

    def conditions(self, lines):
        """Each as its range, the range of its decision (None if it is one by itself), and whether it is covered."""
        for place, counts in self.branches.items():
            if place not in self.parts and not is_choice(place, lines):
                yield place, None, all(counts)
        for decision, shown in self.decisions.items():
            parts = self.parts_of(decision)
            if len(parts) != len(shown):
                sys.exit(f"conditions: line {decision.line} has {len(shown)} conditions, but {len(parts)} were counted")
            for part, covered in zip(parts, shown):
                yield part, decision, covered


def read_files(exports, root):
    files = defaultdict(File)
    for export in exports:
        for data in json.loads(Path(export).read_text(encoding="utf-8"))["data"]:
            for file in data["files"]:
                path = Path(file["filename"])
                if path.is_relative_to(root):
                    files[str(path.relative_to(root))].add(file)
    return files


def read_exceptions(path):
    text = "\n".join(line for line in Path(path).read_text(encoding="utf-8").split("\n") if not line.startswith("#"))
    exceptions = {}
    for block in filter(None, (block.strip() for block in text.split("\n\n"))):
        lines = block.split("\n")
        if len(lines) != 3:
            sys.exit(f"conditions: {path}: each exception has three lines (file, condition, reason), not:\n{block}")
        exceptions[lines[0], lines[1]] = lines[2]
    return exceptions


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--exceptions", required=True, help="file of the conditions that cannot be covered")
    parser.add_argument("--least", nargs=2, action="append", default=[], metavar=("ROOM", "PERCENT"),
                        help="a room, and the share of its conditions that must be covered or excepted")
    parser.add_argument("exports", nargs="+", help="output of llvm-cov export")
    options = parser.parse_args()

    root = Path.cwd()
    files = read_files(options.exports, root)
    exceptions = read_exceptions(options.exceptions)
    unused = dict(exceptions)
    failed = False
    for room, percent in options.least:
        total = covered = excepted = 0
        uncovered = []
        for name in sorted(name for name in files if name.startswith(room + "/")):
            lines = (root / name).read_text(encoding="utf-8").split("\n")
            for place, decision, shown in sorted(files[name].conditions(lines), key=lambda found: found[0]):
                key = place.text(lines) + (f" in {decision.text(lines)}" if decision else "")
                total += 1
                covered += shown
                if not shown and (name, key) in exceptions:
                    excepted += 1
                    unused.pop((name, key), None)
                elif not shown:
                    uncovered.append(f"{name}:{place.line}: {key}")
        share = 100 * (covered + excepted) / total if total else 0
        print(f"{room}: {total} conditions, {covered} covered, {excepted} excepted, {len(uncovered)} uncovered: "
              f"{share:.1f} % (at least {percent})")
        print(*(f"  {line}" for line in uncovered), sep="\n", end="\n" if uncovered else "")
        failed = failed or share < float(percent)
    for name, key in unused:
        print(f"conditions: {options.exceptions}: {name}: {key}: is covered, or not there: remove it", file=sys.stderr)
    return 1 if failed or unused else 0


if __name__ == "__main__":
    sys.exit(main())
