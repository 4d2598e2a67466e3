"""Measures the driver and prints tables; called by scripts/bench.

bench.py BIN_DIR OUT_DIR [--quick] [--write DOCUMENT] [SECTION...]: sections are cost, growth, peers, line and
reaction. Writes OUT_DIR/results.json and, from it, the plots beside it; with --write also the tables into the
document, between their marks, and the plots into its directory.
"""

import argparse
import json
import os
import re
import subprocess
import sys

KINDS = ["int", "dint", "int15", "lreal", "string20", "write", "handshake"]
SIZES = [10, 100, 1000, 10000, 100000]
OPERATIONS = ["cyclic", "fetch", "set", "rebuild"]
OWN_SECTIONS = ["cost", "growth"]
LINE_SECTIONS = ["peers", "line", "reaction"]


def announce(section):
    print(f"bench: measuring {section}", file=sys.stderr, flush=True)


def output_of(command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"bench: {' '.join(command)} failed:\n{done.stderr[-2000:]}")
    return done


def instructions(binary, kind, operation, number, variables, out_file):
    """User instructions of one operation; what comes before the operations is not counted."""
    done = output_of(["valgrind", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={out_file}",
                      binary, kind, operation, str(number), str(variables)])
    return int(re.search(r"Collected : (\d+)", done.stderr).group(1)) / number


def by_function(out_file, number):
    """The functions that cost most, each with its own instructions in one operation."""
    text = output_of(["callgrind_annotate", "--threshold=100", "--auto=no", out_file]).stdout
    rows = {}
    for match in re.finditer(r"^ *([\d,]+) \([^)]*\)\s+\S*?:(.+?)(?: \[[^\]]*\])?$", text, re.M):
        name = re.sub(r"\(anonymous namespace\)::|'\d+$", "", match.group(2))
        name = re.sub(r"\(.*", "", name)
        name = "QtCore, not exported" if name.startswith("0x") else name
        rows[name] = rows.get(name, 0) + int(match.group(1).replace(",", "")) / number
    return sorted(([name, round(cost)] for name, cost in rows.items() if cost >= 40), key=lambda row: -row[1])


def heap(bin_dir, kind, operation, number, variables):
    done = output_of([f"{bin_dir}/bench_steps", kind, operation, str(number), str(variables)],
                     env=dict(os.environ, LD_PRELOAD=f"{bin_dir}/libbench_allocations.so"))
    calls, size = re.search(r"allocations (\d+) bytes (\d+)", done.stderr).groups()
    return int(calls), int(size), int(re.search(r"wire (\d+)", done.stdout).group(1))


def nanoseconds(bin_dir, kind, variables, seconds, only=".*"):
    """Processor time, so that other programs on the machine do not count."""
    done = output_of([f"{bin_dir}/bench_times", kind, str(variables), "--benchmark_format=json",
                      f"--benchmark_min_time={seconds}", f"--benchmark_filter=^({only})$"])
    factor = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    return {row["name"]: row["cpu_time"] * factor[row["time_unit"]]
            for row in json.loads(done.stdout)["benchmarks"]}


def cost(bin_dir, out_dir, quick):
    rows = {}
    number = 200 if quick else 1000
    for kind in KINDS:
        trace = f"{out_dir}/{kind}.callgrind"
        count = instructions(f"{bin_dir}/bench_steps", kind, "step", number, 10, trace)
        calls_1, size_1, wire = heap(bin_dir, kind, "step", number, 10)
        calls_2, size_2, _ = heap(bin_dir, kind, "step", 2 * number, 10)
        rows[kind] = {
            "instructions": round(count),
            "allocations": round((calls_2 - calls_1) / number, 2),
            "bytes": round((size_2 - size_1) / number),
            "wire": wire,
            "nanoseconds": round(nanoseconds(bin_dir, kind, 10, 0.1 if quick else 0.5, "step")["step"]),
            "functions": by_function(trace, number),
        }
    return rows


def growth(bin_dir, out_dir, quick):
    rows = []
    for size in SIZES[:3] if quick else SIZES:
        row = {"variables": size, "nanoseconds": nanoseconds(bin_dir, "growth", size, 0.1 if quick else 0.5),
               "instructions": {}, "heap": heap_of_variables(bin_dir, size)}
        for operation in OPERATIONS:
            number = 3 if operation == "rebuild" else max(size, 2000)
            row["instructions"][operation] = round(instructions(
                f"{bin_dir}/bench_steps", "growth", operation, number, size, f"{out_dir}/growth.callgrind"))
        rows.append(row)
    return rows


def heap_of_variables(bin_dir, variables):
    """Bytes in use for each variable but the first, the benchmark's own list of them included."""
    def in_use(count):
        text = output_of([f"{bin_dir}/bench_steps", "growth", "fetch", "1", str(count)]).stdout
        return int(re.search(r"heap (\d+)", text).group(1))
    return round((in_use(variables) - in_use(1)) / (variables - 1))


def cost_table(rows):
    text = ["One transaction with the host's fetch of its value, replies prepared beforehand",
            f"{'kind':10} {'instructions':>12} {'allocations':>11} {'bytes':>6} {'ns':>6} {'on the wire':>11}"]
    for kind, row in rows.items():
        text.append(f"{kind:10} {row['instructions']:12} {row['allocations']:11.2f} {row['bytes']:6} "
                    f"{row['nanoseconds']:6} {row['wire']:11}")
    text += ["", "Where the instructions of one INT read go"]
    return text + [f"{count:8}  {name}" for name, count in rows["int"]["functions"][:20]]


def growth_table(rows):
    text = ["Growth with the number of variables (instructions, nanoseconds; bytes of heap a variable)",
            f"{'variables':>9}" + "".join(f"{operation:>22}" for operation in OPERATIONS) + f"{'heap':>6}"]
    for row in rows:
        cells = (f"{row['instructions'][operation]:>12} {row['nanoseconds'][operation]:>9.0f}"
                 for operation in OPERATIONS)
        text.append(f"{row['variables']:>9}" + "".join(cells) + f"{row['heap']:>6}")
    first, last = rows[0], rows[-1]
    return text + [f"{operation}: {last['instructions'][operation] / first['instructions'][operation]:.2f} times the "
                   f"instructions from {first['variables']} to {last['variables']} variables"
                   for operation in ("cyclic", "fetch", "set")]


def arguments():
    parser = argparse.ArgumentParser(prog="bench", description="Measures the driver beside its like.")
    parser.add_argument("bin_dir")
    parser.add_argument("out_dir")
    parser.add_argument("--quick", action="store_true", help="fewer repetitions and sizes, for a trial")
    parser.add_argument("--write", metavar="DOCUMENT", help="put the tables between the document's marks")
    parser.add_argument("sections", nargs="*", metavar="SECTION", help="cost, growth, peers, line, reaction; all")
    options = parser.parse_intermixed_args()
    wanted = options.sections or OWN_SECTIONS + LINE_SECTIONS
    for name in wanted:
        if name not in OWN_SECTIONS + LINE_SECTIONS:
            parser.error(f"unknown section \"{name}\" (there are: {', '.join(OWN_SECTIONS + LINE_SECTIONS)})")
    if options.write and not os.path.isfile(options.write):
        parser.error(f"{options.write}: there is no such document to write the tables into")
    return options, wanted


def main():
    import bench_line
    import bench_report
    options, wanted = arguments()
    os.makedirs(options.out_dir, exist_ok=True)
    results = {"machine": bench_report.machine()}
    if "cost" in wanted:
        announce("cost")
        results["cost"] = cost(options.bin_dir, options.out_dir, options.quick)
    if "growth" in wanted:
        announce("growth")
        results["growth"] = growth(options.bin_dir, options.out_dir, options.quick)
    if set(wanted) & set(LINE_SECTIONS):
        results.update(bench_line.run(options.bin_dir, options.quick, wanted))
    with open(f"{options.out_dir}/results.json", "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    print("\n\n".join("\n".join(text) for text in bench_report.tables(results).values()))
    plots = bench_report.plot(results, options.out_dir)
    if options.write:
        bench_report.write(options.write, results, plots)
    print(f"\nbench: results in {options.out_dir}/results.json")


if __name__ == "__main__":
    main()
