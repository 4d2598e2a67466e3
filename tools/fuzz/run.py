"""Builds the fuzz harnesses and runs them; called by scripts/fuzz."""

import argparse
import os
import re
import subprocess
import sys

import harnesses

# Shorter stacks of allocations and a smaller quarantine of freed memory make each run faster. The input itself
# is enough to repeat a finding with the defaults.
ASAN_OPTIONS = "malloc_context_size=1:quarantine_size_mb=1:thread_local_quarantine_size_kb=64"


def whole(text):
    if not re.fullmatch(r"\d+", text):
        raise argparse.ArgumentTypeError(f"\"{text}\" is not a whole number")
    return int(text)


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="fuzz", description="Builds the fuzz harnesses with libFuzzer, AddressSanitizer and "
        "UndefinedBehaviorSanitizer and runs each.")
    parser.add_argument("--seconds", type=whole, help="run each harness for so long (default 60)")
    parser.add_argument("--runs", type=whole, help="run each harness so many times; with --seconds, until the "
                        "first limit is reached")
    parser.add_argument("--length", type=whole, default=1024, help="longest input in bytes (default 1024)")
    parser.add_argument("--unoptimized", action="store_true", help="build in half the time what runs slower, for "
                        "a short run")
    parser.add_argument("--build-only", action="store_true", help="run nothing")
    harnesses.add_arguments(parser)
    arguments = harnesses.parse(parser)
    if arguments.seconds is None:
        arguments.seconds = 60 if arguments.runs is None else 0
    return arguments


def command(name, arguments):
    build = arguments.build
    runs = -1 if arguments.runs is None else arguments.runs
    dictionary = harnesses.FOLDER / "dictionaries" / f"{name}.dict"
    return [build / "bin" / f"fuzz_{name}", harnesses.found(build, name), harnesses.unpacked(build, name),
            f"-max_total_time={arguments.seconds}", f"-runs={runs}", f"-max_len={arguments.length}",
            "-timeout=20", "-rss_limit_mb=2048", "-entropic=0", "-print_final_stats=1",
            f"-artifact_prefix={build}/findings/{name}-"] + ([f"-dict={dictionary}"] if dictionary.exists() else [])


def run(name, arguments):
    """True when the harness has no finding."""
    for folder in (harnesses.found(arguments.build, name), arguments.build / "findings", arguments.build / "logs"):
        folder.mkdir(parents=True, exist_ok=True)
    log = arguments.build / "logs" / f"{name}.log"
    environment = {"ASAN_OPTIONS": ASAN_OPTIONS, **os.environ}
    with open(log, "wb") as output:
        done = subprocess.run(command(name, arguments), env=environment, stdout=output, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        print(f"{harnesses.tail(log, 60)}fuzz: {name}: FAILED, see {log}", file=sys.stderr, flush=True)
        return False
    text = log.read_text(encoding="utf-8", errors="replace")
    executions = re.search(r"^stat::number_of_executed_units: *(\d+)", text, re.M).group(1)
    print(f"fuzz: {name}: {executions} executions, no finding", flush=True)
    return True


def main():
    arguments = parse_arguments()
    options = ["-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0 -g1 -DNDEBUG"] if arguments.unoptimized else []
    harnesses.build("fuzz", arguments.build, "fuzzers", options=options)
    if arguments.build_only:
        return 0
    return 0 if all([run(name, arguments) for name in arguments.names]) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
