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
# What a prover may spend on a goal. The steps decide, so that a busy machine gives the same result. The seconds are
# those of a clock, and only for a prover that hangs.
STEPS = 3000000
SECONDS = 1800
# Lemmas about bits that Frama-C does not have, and how Frama-C is told of them.
BITS = TOOLS / "bits.mlw"


class Failure(Exception):
    """What the user must know."""


class Result:
    """The goals of one run of Frama-C."""

    def __init__(self, output):
        self.open = set(re.findall(r"^\[wp\] \[(?:Failed|Unsuccess|Partial)\] Goal (?:typed_(?:bits_)?)?(\S+)", output, re.M))
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


def open_lemmas(output):
    """The lemmas that `why3 prove` did not prove, and the number of all."""
    results = re.findall(r"^Goal (\S+?)(?:'vc)?\.\nProver result is: (\w+)", output, re.M)
    return [name for name, result in results if result != "Valid"], len(results)


def prove_lemmas(settings, folder, steps):
    """Those about bits, with the theories that they are about: Frama-C's, without the hints that only it understands."""
    theories = Path(run(["frama-c", "-print-share-path"], settings, folder).strip()) / "wp/why3/frama_c_wp"
    copy = folder / "theories/frama_c_wp"
    copy.mkdir(parents=True)
    for theory in theories.glob("*.mlw"):
        (copy / theory.name).write_text(re.sub(r"^ *meta .*$", "", theory.read_text(), flags=re.M))
    done = subprocess.run(["why3", "prove", "-L", str(copy.parent), "-P", "CVC4,,", f"--stepslimit={steps}", "-t", str(SECONDS),
                           str(BITS)], env=settings, cwd=folder, capture_output=True, text=True)
    unproved, lemmas = open_lemmas(done.stdout)
    if not lemmas or unproved:
        raise Failure(f"{BITS.name}: not proved: {', '.join(unproved) or 'all'}\n{done.stdout[-3000:]}{done.stderr[-3000:]}")


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
        found = folder / "why3.conf"
        found.write_text(found.read_text().replace("[main]\n", f'[main]\nloadpath = "{tools}"\n', 1))
        prove_lemmas(settings, folder, steps)
        options = ["-no-frama-c-stdlib", f"-cpp-extra-args=-I{tools}/include -undef", "-wp", "-wp-rte",
                   "-warn-unsigned-overflow", "-wp-split", "-wp-model", "Typed", "-wp-driver", str(tools / "bits.driver"),
                   "-wp-prover", "z3,cvc4", "-wp-steps", str(steps), "-wp-timeout", str(SECONDS), "-wp-par", "2"]
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
