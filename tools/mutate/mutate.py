#!/usr/bin/env python3
"""Changes the driver one token at a time and counts the changes that make no unit test fail.

Works in copies of the tree in build-mutate and never changes the tree itself. A mutant that is listed in tools/mutate/equivalent behaves as the driver does and is not run.
"""

import argparse
import collections
import contextlib
import filecmp
import os
import random
import resource
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path

import mutants

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / "build-mutate"
EQUIVALENT = ROOT / "tools" / "mutate" / "equivalent"
NEEDED = 95.0
MEMORY_LIMIT = 4 << 30
CONFIGURE = [
    "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",
    "-DMICRO850_PROGRAMS=OFF",
]


class Failure(Exception):
    """A reason why the check cannot run, in one line."""


# ---- Running tests -----------------------------------------------------------------------------

PASSED, FAILED, TIMED_OUT = "passed", "failed", "timed out"


class Machine:
    """Lets workers run side by side, or one of them alone."""

    def __init__(self):
        self.changed = threading.Condition()
        self.running = 0
        self.is_taken = False

    @contextlib.contextmanager
    def shared(self):
        with self.changed:
            self.changed.wait_for(lambda: not self.is_taken)
            self.running += 1
        try:
            yield
        finally:
            with self.changed:
                self.running -= 1
                self.changed.notify_all()

    @contextlib.contextmanager
    def alone(self):
        with self.changed:
            self.changed.wait_for(lambda: not self.is_taken)
            self.is_taken = True
            self.changed.wait_for(lambda: self.running == 0)
        try:
            yield
        finally:
            with self.changed:
                self.is_taken = False
                self.changed.notify_all()


def killer(programs, durations, outcome, machine):
    """The name of the first program whose `outcome(program, seconds)` is FAILED; "" if there is none.

    A busy machine is slow too: a program that times out runs again, alone and with more time, before it counts.
    """
    late = []
    for program in programs:
        with machine.shared():
            result = outcome(program, 5 + 10 * durations[program])
        if result == FAILED:
            return program.name
        if result == TIMED_OUT:
            late.append(program)
    for program in late:
        with machine.alone():
            result = outcome(program, 20 + 20 * durations[program])
        if result != PASSED:
            return program.name + (" (timed out twice)" if result == TIMED_OUT else "")
    return ""


# ---- The copies --------------------------------------------------------------------------------


def tracked_files():
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=ROOT, check=True, capture_output=True, text=True,
    )
    return [name for name in listed.stdout.split("\0") if name and (ROOT / name).is_file()]


def synchronise(tree):
    """Makes `tree` equal to the current files. Equal files keep their time, so that little is rebuilt."""
    wanted = set(tracked_files())
    for name in wanted:
        target = tree / name
        if not target.exists() or not filecmp.cmp(ROOT / name, target, shallow=False):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(ROOT / name, target)
    for path in list(tree.rglob("*")):
        if path.is_file() and str(path.relative_to(tree)) not in wanted:
            path.unlink()


class Worker:
    """One copy of the tree with its build. It contains one mutant at a time."""

    def __init__(self, number, seed):
        self.tree = WORK / f"worker-{number}" / "tree"
        self.build = WORK / f"worker-{number}" / "build"
        self.run_directory = WORK / f"worker-{number}" / "run"
        self.originals = {}
        self.changed = None
        self.targets = {"micro850"}
        self.durations = {}
        self.environment = dict(
            os.environ,
            CCACHE_BASEDIR=str(WORK),
            CCACHE_NOHASHDIR="1",
            GTEST_FAIL_FAST="1",
            RC_PARAMS=f"seed={seed} noshrink=1",
        )

    def prepare(self, jobs):
        """Builds the unchanged driver and all unit tests."""
        for directory in (self.tree, self.build, self.run_directory):
            directory.mkdir(parents=True, exist_ok=True)
        synchronise(self.tree)
        for source in filter(Path.is_file, (self.tree / "src").rglob("*")):
            self.originals[str(source.relative_to(self.tree))] = source.read_text()
        self.require(["cmake", "-S", str(self.tree), "-B", str(self.build), *CONFIGURE])
        self.require(["ninja", "-C", str(self.build), f"-j{jobs}", "tests/unit/all"])

    def require(self, command):
        done = subprocess.run(command, env=self.environment, capture_output=True, text=True)
        if done.returncode != 0:
            raise Failure(f"{' '.join(command)} failed:\n{(done.stdout + done.stderr)[-3000:]}")

    def programs(self):
        found = sorted((self.build / "bin").glob("*_test"))
        known = {source.stem for source in (self.tree / "tests" / "unit" / "src").glob("*_test.cpp")}
        return [program for program in found if program.name in known]

    def measure(self):
        """Runs every test once on the unchanged driver."""
        for program in self.programs():
            begin = time.monotonic()
            if self.outcome(program, 300) != PASSED:
                raise Failure(f"{program.name} fails without any mutation: fix it first")
            self.durations[program] = time.monotonic() - begin
        if not self.durations:
            raise Failure("no unit test was built")

    def outcome(self, program, seconds):
        """PASSED, FAILED or TIMED_OUT."""
        limits = ["prlimit", f"--as={MEMORY_LIMIT}", "--core=0"]
        try:
            done = subprocess.run(
                [*limits, str(program)], cwd=self.run_directory, env=self.environment,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                timeout=seconds,
            )
        except subprocess.TimeoutExpired:
            return TIMED_OUT
        return PASSED if done.returncode == 0 else FAILED

    def judge(self, mutant, machine):
        """The name of the first test program that fails, "" if none does, None if the mutant does not compile."""
        with machine.shared():
            if not self.compile(mutant):
                return None
        return killer(self.in_order_of_promise(mutant), self.durations, self.outcome, machine)

    def compile(self, mutant):
        """Builds the mutant. A header is also compiled into the tests of its unit, as it is into any host."""
        self.restore()
        self.changed = mutant.path
        own_test = Path(mutant.path).stem + "_test"
        if mutant.path.endswith(".h") and own_test in {p.name for p in self.durations}:
            self.targets.add(own_test)  # also for all later mutants, so that it is built without this one
        (self.tree / mutant.path).write_text(mutant.applied(self.originals[mutant.path]))
        done = subprocess.run(
            ["ninja", "-C", str(self.build), "-j1", *self.targets],
            env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        return done.returncode == 0

    def restore(self):
        if self.changed:
            (self.tree / self.changed).write_text(self.originals[self.changed])
            self.changed = None

    def in_order_of_promise(self, mutant):
        """The mutated unit's own tests first, then the quickest."""
        unit = Path(mutant.path).stem
        return sorted(
            self.durations, key=lambda p: (not p.name.startswith(unit), self.durations[p])
        )


# ---- Equivalent mutants ------------------------------------------------------------------------


def blocks_of(text):
    """(place, mutation, reason) of each block of three lines; empty lines are between the blocks."""
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    for block in filter(None, (part.strip("\n") for part in "\n".join(lines).split("\n\n"))):
        parts = [line.strip() for line in block.split("\n")]
        if len(parts) != 3:
            raise Failure(f"{EQUIVALENT.name}: this block is not place, mutation and reason: {parts[0]}")
        yield parts


def explained_by(text, found):
    """The mutants of `found` that the blocks of `text` explain: each block explains exactly one.

    The place is the file and the function ("-" in front of the first one), and #N if the function has the same
    mutation more than once: the Nth of them.
    """
    explained = set()
    for place_text, mutation, _ in blocks_of(text):
        names, _, number = place_text.partition(" #")
        at = [m for m in found if f"{m.path} {m.function or '-'}" == names and m.description == mutation]
        where = f"{EQUIVALENT.name}: {place_text}: {mutation}"
        if not at:
            raise Failure(f"{where}: no such mutation there (correct or remove the block)")
        if len(at) > 1 and not number:
            raise Failure(f"{where}: {len(at)} such mutations there (add #1 to #{len(at)})")
        if number and not (len(at) > 1 and number.isdigit() and 1 <= int(number) <= len(at)):
            raise Failure(f"{where}: there is no such number (the place has {len(at)})")
        mutant = at[int(number or 1) - 1]
        if mutant in explained:
            raise Failure(f"{where}: two blocks explain it (remove one)")
        explained.add(mutant)
    return explained


# ---- The check ---------------------------------------------------------------------------------


class Check:
    """Gives the mutants to the workers and keeps the outcome of each."""

    def __init__(self, chosen, spare, wanted):
        self.waiting = collections.deque(chosen)
        self.spare = collections.deque(spare)
        self.wanted = wanted
        self.killed = []
        self.survived = []
        self.not_built = 0
        self.lock = threading.Lock()
        self.machine = Machine()
        self.failure = None

    def next(self):
        with self.lock:
            return self.waiting.popleft() if self.waiting and not self.failure else None

    def note(self, mutant, noticed_by):
        with self.lock:
            if noticed_by is None:
                self.not_built += 1
                if self.spare:
                    self.waiting.append(self.spare.popleft())
            else:
                (self.killed if noticed_by else self.survived).append(mutant)
                self.print_progress(mutant, noticed_by)

    def print_progress(self, mutant, noticed_by):
        done = len(self.killed) + len(self.survived)
        fate = f"killed by {noticed_by}" if noticed_by else "SURVIVED"
        print(f"[{done}/{self.wanted}] {place(mutant)}: {fate}", file=sys.stderr, flush=True)

    def work(self, worker):
        try:
            while mutant := self.next():
                self.note(mutant, worker.judge(mutant, self.machine))
        except Exception as error:  # the main thread reports it
            self.failure = error

    def run(self, workers):
        threads = [threading.Thread(target=self.work, args=(worker,)) for worker in workers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if self.failure:
            raise Failure(str(self.failure))


def place(mutant):
    return f"{mutant.path}:{mutant.line}: {mutant.kind}"


def all_mutants(only):
    """The mutants of the places in `only`, each FILE or FILE:LINE; without any, of the whole of src/."""
    sources = sorted((ROOT / "src").rglob("*.cpp")) + sorted((ROOT / "src").rglob("*.h"))
    found = []
    for source in sources:
        path = str(source.relative_to(ROOT))
        found += mutants.mutants_of(path, source.read_text())
    for wanted in only:
        if not any(is_at(mutant, wanted) for mutant in found):
            raise Failure(f"--only {wanted}: no mutant there; give FILE or FILE:LINE of src/")
    return [m for m in found if not only or any(is_at(m, wanted) for wanted in only)]


def is_at(mutant, wanted):
    name = Path(mutant.path).name
    return wanted in (name, f"{name}:{mutant.line}")


def drawn(arguments):
    """The sample, ordered by file so that few files are compiled twice, and the mutants that may replace some."""
    pool = all_mutants(arguments.only)
    random.Random(arguments.seed).shuffle(pool)
    sample, spare = pool[: arguments.count], pool[arguments.count :]
    return sorted(sample, key=lambda m: (m.path, m.start)), spare


def workers_for(arguments):
    workers = [Worker(i, arguments.seed) for i in range(arguments.jobs)]
    for worker in workers:
        worker.prepare(arguments.jobs)
    workers[0].measure()
    for worker in workers[1:]:
        by_name = {program.name: time_taken for program, time_taken in workers[0].durations.items()}
        worker.durations = {program: by_name[program.name] for program in worker.programs()}
    return workers


def spent_since(begin):
    """The time since `begin` and the processor time of everything that was built and run."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    minutes = (time.monotonic() - begin) / 60
    return f"{minutes:.0f} minutes, {(used.ru_utime + used.ru_stime) / 60:.0f} of one processor"


def report(check, known, seed):
    noticeable = len(check.killed) + len(check.survived)
    share = 100.0 * len(check.killed) / noticeable if noticeable else 0.0
    for mutant in sorted(check.survived, key=lambda m: (m.path, m.line)):
        print(f"survived: {place(mutant)}\n    {mutant.description}")
    print(
        f"mutate: seed {seed}: {noticeable + known} mutants, {len(check.killed)} killed, "
        f"{len(check.survived)} survived, {known} equivalent; {check.not_built} more did not "
        f"compile; {share:.1f} % of those that are not equivalent are killed"
    )
    return 0 if share >= NEEDED else 1


def check_all(arguments):
    same = explained_by(EQUIVALENT.read_text(), all_mutants([]))
    sample, spare = drawn(arguments)
    explained = [m for m in sample if m in same]
    sample = [m for m in sample if m not in same]
    spare = [m for m in spare if m not in same]
    print(f"mutate: building the driver and its tests {arguments.jobs} times", file=sys.stderr)
    check = Check(sample, spare, len(sample))
    begin = time.monotonic()
    workers = workers_for(arguments)
    print(f"mutate: built and measured in {spent_since(begin)}", file=sys.stderr)
    check.run(workers)
    print(f"mutate: took {spent_since(begin)}")
    return report(check, len(explained), arguments.seed)


def positive(text):
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{text} is not a positive number")
    return value


def main():
    parser = argparse.ArgumentParser(prog="mutate", description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, default=1, help="which sample (default 1)")
    parser.add_argument("--count", type=positive, default=300, help="mutants (default 300)")
    parser.add_argument("--jobs", type=positive, default=2, help="at a time (default 2)")
    parser.add_argument("--only", nargs="+", default=[], metavar="FILE[:LINE]",
                        help="sources of src/, or single lines of them")
    parser.add_argument("--list", action="store_true", help="print the sample and stop")
    arguments = parser.parse_args()
    try:
        if arguments.list:
            for mutant in drawn(arguments)[0]:
                print(f"{place(mutant)}\n    {mutant.description}")
            return 0
        return check_all(arguments)
    except (Failure, OSError, subprocess.CalledProcessError) as error:
        print(f"mutate: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
