#!/usr/bin/env python3
"""Checks the model of the link: each claim about the host's care, and that what goes wrong without it is found."""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))
import runs  # noqa: E402
import scripts  # noqa: E402

MODEL = Path(__file__).with_name("link.pml")
MEMORY_MB = 6000
DEPTH = 2000000


def call(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"model: {' '.join(command[:2])} failed: {done.stdout}{done.stderr}")
    return done.stdout


def built(run, folder, model):
    """Makes the checker of this run. The model is its own copy, so that runs can be done at the same time."""
    (folder / "link.pml").write_text(model)
    call(["spin", "-a", *run.options(), "link.pml"], folder)
    mode = ["-DNFAIR=2"] if run.live else ["-DSAFETY", "-DNOCLAIM"]
    if run.shortest:
        mode.append("-DREACH")
    call(["gcc", "-O1" if run.expected == "fails" else "-O2", "-w", *mode, f"-DMEMLIM={MEMORY_MB}", "-DVECTORSZ=2048", "-o", "pan", "pan.c"], folder)


def search(run):
    if run.live:
        return ["-a", "-f", "-N", "resumes"]
    return ["-i"] if run.shortest else []


def check(run, folder, model):
    built(run, folder, model)
    began = time.monotonic()
    depth = run.depth or DEPTH
    output = subprocess.run(["./pan", f"-m{depth}", "-w22", *search(run)], cwd=folder, capture_output=True,
                            text=True).stdout
    return Outcome(run, output, time.monotonic() - began)


class Outcome:
    """What the checker printed about a run."""

    def __init__(self, run, output, seconds):
        self.run = run
        self.seconds = seconds
        self.states = self._number(r"(\d\S*) states, stored", output)
        self.depth = self._number(r"depth reached (\d+)", output)
        self.memory = self._number(r"(\S+)\s+total actual memory usage", output)
        self.output = output
        # A violation that is no claim, such as an end without an end state, is a fault of the model.
        claim = r"^pan:\d+: acceptance cycle" if run.live else r"^pan:\d+: assertion violated \( !\(\(\d+&\d+\)\)"
        errors = re.findall(r"errors: (\d+)", output)
        incomplete = "Search not completed" in output or "search depth too small" in output
        if re.search(claim, output, re.M):
            self.verdict = "fails"
        else:
            self.verdict = "holds" if errors == ["0"] and not incomplete else "unknown"

    def as_expected(self):
        return self.verdict == self.run.expected

    @staticmethod
    def _number(pattern, text):
        found = re.findall(pattern, text)
        return float(found[-1]) if found else 0

    def row(self):
        verdict = self.verdict if self.as_expected() else self.verdict.upper() + f", expected: {self.run.expected}"
        return (f"{self.run.name:22} {self.states:>10.0f} {self.depth:>8.0f} {self.memory:>6.0f} "
                f"{self.seconds:>6.1f}  {verdict:7} {self.run.text}")


def trail_of(run, folder):
    return call(["spin", "-t", *run.options(), "link.pml"], folder)


def sample_of(run, seed, folder, model):
    """A run of the model that chance chose."""
    (folder / "link.pml").write_text(model)
    return call(["spin", f"-n{seed}", f"-u{run.steps}", *run.options(), "link.pml"], folder)


def recorded(outcome, folder, model):
    """The fault scripts of a run, by name."""
    run = outcome.run
    if run.replay and outcome.verdict == "fails":
        return {run.name: scripts.script_of(run, trail_of(run, folder))}
    return {f"{run.name}-{seed}": scripts.script_of(run, sample_of(run, seed, folder, model)) for seed in run.seeds}


def store(recordings, folder):
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.json"):
        old.unlink()
    for name, text in recordings.items():
        (folder / f"{name}.json").write_text(text)


def compare(recordings, folder):
    """The names of fault scripts that are not as recorded."""
    known = {path.stem: path.read_text() for path in folder.glob("*.json")}
    return sorted(name for name in recordings.keys() | known.keys() if recordings.get(name) != known.get(name))


def arguments():
    parser = argparse.ArgumentParser(prog="model", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="a few runs, some seconds")
    parser.add_argument("--only", metavar="NAME", help="only the runs whose name contains NAME")
    parser.add_argument("--model", type=Path, default=MODEL, help="another model: to see that a fault in it is found")
    parser.add_argument("--renew", action="store_true", help="record the fault scripts that the test replays")
    parser.add_argument("--recordings", type=Path, required=True, help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    given = arguments()
    chosen = [run for run in runs.ALL
              if (run.quick or not given.quick) and (not given.only or given.only in run.name)]
    if not chosen:
        print(f"model: no run has \"{given.only}\" in its name", file=sys.stderr)
        return 2
    if given.renew and len(chosen) != len(runs.ALL):
        print("model: --renew needs all runs (leave --only and --quick out)", file=sys.stderr)
        return 2
    try:
        model = given.model.read_text()
    except OSError as error:
        print(f"model: {given.model}: {error.strerror}", file=sys.stderr)
        return 2
    for program in ("spin", "gcc"):
        if not shutil.which(program):
            print(f"model: {program} is missing: run scripts/setup prove", file=sys.stderr)
            return 2
    print(f"{'claim':22} {'states':>10} {'depth':>8} {'MB':>6} {'s':>6}  verdict", flush=True)
    recordings = {}
    wrong = []

    def work(run):
        with tempfile.TemporaryDirectory(prefix="model-") as name:
            outcome = check(run, Path(name), model)
            print(outcome.row(), flush=True)
            return outcome, recorded(outcome, Path(name), model)

    with ThreadPoolExecutor(max_workers=min(2, os.cpu_count() or 1)) as pool:
        for outcome, made in pool.map(work, chosen):
            recordings.update(made)
            if not outcome.as_expected():
                wrong.append(outcome.run.name)
    if wrong:
        print(f"model: not as expected: {', '.join(wrong)}", file=sys.stderr)
        return 1
    if len(chosen) != len(runs.ALL):
        return 0
    if given.renew:
        store(recordings, given.recordings)
    elif changed := compare(recordings, given.recordings):
        print(f"model: the recorded fault scripts {', '.join(changed)} are not those of the model "
              "(record them with --renew)", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
