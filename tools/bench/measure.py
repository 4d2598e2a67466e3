"""Runs a program of the benchmarks once and reads what it cost: instructions, heap, time."""

import json
import os
import re
import subprocess
import sys


def announce(section):
    print(f"bench: measuring {section}", file=sys.stderr, flush=True)


def output_of(command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"bench: {' '.join(command)} failed:\n{done.stderr[-2000:]}")
    return done


def instructions(binary, kind, operation, number, variables, out_file):
    """User instructions of one operation; what the program does before the operations is not counted."""
    done = output_of(["valgrind", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={out_file}",
                      binary, kind, operation, str(number), str(variables)])
    return int(re.search(r"Collected : (\d+)", done.stderr).group(1)) / number


def by_function(out_file, number):
    """The functions that cost most, each with the instructions that it takes itself in one operation."""
    rows = {}
    for _, name, count in self_costs(out_file):
        rows[name] = rows.get(name, 0) + count / number
    return sorted(([name, round(cost)] for name, cost in rows.items() if cost >= 40), key=lambda row: -row[1])


def self_costs(out_file):
    """Object file, function and the instructions that it takes itself, of each function that callgrind saw."""
    text = output_of(["callgrind_annotate", "--threshold=100", "--auto=no", out_file]).stdout
    for match in re.finditer(r"^ *([\d,]+) \([^)]*\)\s+\S*?:(.+?)(?: \[([^\]]*)\])?$", text, re.M):
        name = re.sub(r"\(anonymous namespace\)::| \[clone [^\]]*\]|'\d+$", "", match.group(2))
        name = re.sub(r"\(.*", "", name)
        name = "QtCore, not exported" if name.startswith("0x") else name
        yield os.path.basename(match.group(3) or ""), name, int(match.group(1).replace(",", ""))


def heap(bin_dir, kind, operation, number, variables):
    """Allocations, their bytes, and the bytes on the wire of one transaction."""
    done = output_of([f"{bin_dir}/bench_steps", kind, operation, str(number), str(variables)],
                     env=dict(os.environ, LD_PRELOAD=f"{bin_dir}/libbench_allocations.so"))
    calls, size = re.search(r"allocations (\d+) bytes (\d+)", done.stderr).groups()
    return int(calls), int(size), int(re.search(r"wire (\d+)", done.stdout).group(1))


def nanoseconds(bin_dir, kind, variables, seconds, only=".*"):
    """Processor time of each operation, so that other programs on the machine do not count."""
    done = output_of([f"{bin_dir}/bench_times", kind, str(variables), "--benchmark_format=json",
                      f"--benchmark_min_time={seconds}", f"--benchmark_filter=^({only})$"])
    factor = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    return {row["name"]: row["cpu_time"] * factor[row["time_unit"]]
            for row in json.loads(done.stdout)["benchmarks"]}


def transaction(bin_dir, kind, quick, trace="/dev/null"):
    """The cost of one transaction: of allocations the difference of two runs, so that the set-up does not count."""
    number = 200 if quick else 1000
    calls_1, size_1, wire = heap(bin_dir, kind, "step", number, 10)
    calls_2, size_2, _ = heap(bin_dir, kind, "step", 2 * number, 10)
    return {
        "instructions": round(instructions(f"{bin_dir}/bench_steps", kind, "step", number, 10, trace)),
        "allocations": round((calls_2 - calls_1) / number, 2),
        "bytes": round((size_2 - size_1) / number),
        "wire": wire,
        "nanoseconds": round(nanoseconds(bin_dir, kind, 10, 0.1 if quick else 0.5, "step")["step"]),
        "functions": by_function(trace, number) if trace != "/dev/null" else [],
    }
