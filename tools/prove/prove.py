#!/usr/bin/env python3
"""Proves the contracts of src/internal/FrameBytes.h and holds the open goals against the list of known ones."""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TOOLS = Path(__file__).resolve().parent
ROOT = TOOLS.parent.parent
HEADER = Path("src/internal/FrameBytes.h")
OPEN = TOOLS / "open"
QUICK = ["nextDle", "firstPair", "undoubleInPlace", "putTagName"]
# What a prover may spend on a goal. The steps decide, so that a busy machine gives the same result; the seconds are for
# a prover that counts none.
STEPS = 3000000
SECONDS = 120


class Failure(Exception):
    """What the user must know."""


class Result:
    """The goals of one run of Frama-C."""

    def __init__(self, output):
        self.open = set(re.findall(r"^\[wp\] \[(?:Failed|Unsuccess|Partial)\] Goal (?:typed_)?(\S+)", output, re.M))
        count = re.search(r"^\[wp\] Proved goals: +(\d+) / (\d+)", output, re.M)
        self.proved, self.all = (int(number) for number in count.groups()) if count else (0, 0)
        # Where the prover's model of memory does not fit the code, the goals mean less than they say.
        self.warnings = re.findall(r"^\[(?:wp|kernel\S*)\].*?(?:Warning|User Error):\s*\n?(.*)", output, re.M)
        if not count:
            raise Failure(f"Frama-C proved nothing:\n{output[-3000:]}")
        if self.all - self.proved != len(self.open):
            raise Failure(f"{self.all - self.proved} goals are open and {len(self.open)} of them have a name:\n{output[-3000:]}")


def known_open(text):
    """Goal and reason of each pair of lines; empty lines are between the pairs, and # begins a comment."""
    known = {}
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    for block in filter(None, (part.strip("\n") for part in "\n".join(lines).split("\n\n"))):
        goal, _, reason = block.partition("\n")
        if not reason.strip():
            raise Failure(f"{OPEN.name}: {goal} has no reason")
        known[goal.strip()] = reason.strip()
    return known


def problems(found, known, functions):
    """What is not as listed. With `functions` only their goals count."""
    belongs = [goal for goal in known if not functions or any(goal.startswith(name + "_") for name in functions)]
    texts = [f"not proved: {goal}" for goal in sorted(found.open - set(known))]
    texts += [f"proved, or gone: {goal} (remove it from tools/prove/{OPEN.name})"
              for goal in sorted(set(belongs) - found.open)]
    return texts + [f"warning: {text}" for text in found.warnings]


def copied_tree(header, folder):
    """The header and the proof in the folders in which they include each other."""
    (folder / HEADER.parent).mkdir(parents=True)
    shutil.copy(header, folder / HEADER)
    shutil.copytree(TOOLS, folder / "tools/prove")
    return folder / "tools/prove"


def prove(header, functions, steps):
    for program in ("frama-c", "why3", "z3", "cvc4"):
        if not shutil.which(program):
            raise Failure(f"{program} is missing: run scripts/setup prove")
    with tempfile.TemporaryDirectory(prefix="prove-") as name:
        folder = Path(name)
        # Both programs keep their settings in the user's folders otherwise.
        settings = dict(os.environ, WHY3CONFIG=str(folder / "why3.conf"), HOME=name, XDG_CONFIG_HOME=name,
                        XDG_CACHE_HOME=name, XDG_DATA_HOME=name, XDG_STATE_HOME=name)
        run(["why3", "config", "detect"], settings, folder)
        tools = copied_tree(header, folder)
        options = ["-no-frama-c-stdlib", f"-cpp-extra-args=-I{tools}/include -undef", "-wp", "-wp-rte",
                   "-warn-unsigned-overflow", "-wp-split", "-wp-model", "Typed", "-wp-prover", "z3,cvc4",
                   "-wp-steps", str(steps), "-wp-timeout", str(SECONDS), "-wp-par", "2"]
        if functions:
            options += ["-wp-fct", ",".join(functions)]
        return Result(run(["frama-c", *options, str(tools / "round_trip.c")], settings, folder))


def run(command, settings, folder):
    done = subprocess.run(command, env=settings, cwd=folder, capture_output=True, text=True)
    if done.returncode != 0:
        raise Failure(f"{command[0]} failed:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")
    return done.stdout


def arguments():
    parser = argparse.ArgumentParser(prog="prove", description=__doc__)
    parser.add_argument("--quick", action="store_true", help=f"only {', '.join(QUICK)}")
    parser.add_argument("--only", metavar="FUNCTION", help="only these functions, with commas between them")
    parser.add_argument("--header", type=Path, default=ROOT / HEADER, help="a changed copy, to see that a mistake is found")
    parser.add_argument("--steps", type=int, default=STEPS, help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    given = arguments()
    functions = given.only.split(",") if given.only else QUICK if given.quick else []
    began = time.monotonic()
    try:
        if not given.header.is_file():
            raise Failure(f"--header {given.header}: there is no such file")
        known = known_open(OPEN.read_text())
        found = prove(given.header, functions, given.steps)
    except Failure as failure:
        print(f"prove: {failure}", file=sys.stderr)
        return 2
    wrong = problems(found, known, functions)
    for text in wrong:
        print(f"prove: {text}", file=sys.stderr)
    listed = len(found.open & set(known))
    print(f"prove: {found.proved} of {found.all} goals proved, {listed} open as listed, "
          f"{time.monotonic() - began:.0f} s")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
