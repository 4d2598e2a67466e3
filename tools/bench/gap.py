"""What the gap between two transactions consists of: section gap.

The paced line knows when the last byte of a reply left it and when the next request reached it. A library in front of
the C library's notes in the client when the read of that byte returned, and when the next write began
(tests/bench/marks.cpp). All use the same clock, so that the gap has three parts: the system wakes the client, the
client's own part, the system takes the bytes and wakes the line.
"""

import statistics

import measure
from clients import CLIENTS, COUNTED_BAUD, HOST, SIZES, exchanges, percentile

BAUDS = [38400, 115200]
COUNTED_GAPS = 100
LIBRARY = "libbench_marks.so"
PARTS = {"libmicro850.so": "driver", "client_": "host kit", "libQt5": "Qt", "libc": "C library", "libm": "C library"}
FUNCTIONS = 24


def marks_of(path):
    with open(path, encoding="ascii") as file:
        return [tuple(map(int, text.split())) for text in file]


def gaps_of(runs, marks):
    """The parts of each gap in nanoseconds: wake-up of the client, own part, emptying the input, way to the line."""
    pairs = exchanges(runs)
    parts = []
    position = 0
    for before, after in zip(pairs, pairs[1:]):
        ended, begun = before[1][2], after[0][1]
        while position < len(marks) and marks[position][1] < ended:
            position += 1
        if position == len(marks):
            break
        returned, entered, emptying = marks[position]
        if ended <= returned and entered <= begun:
            parts.append((returned - ended, entered - returned, emptying, begun - entered))
    return parts


def timed(bench, client, values, baud, seconds):
    path = f"{bench.scratch}/marks"
    passed = bench.paced(client, values, baud, bench.reads_in(client, values, baud, seconds),
                         env={"LD_PRELOAD": bench.program(LIBRARY), "BENCH_MARKS": path})
    parts = gaps_of(passed.runs, marks_of(path))
    woken, own, emptying, sent = zip(*parts)

    def microseconds(figure):
        return round(figure / 1000, 1)
    return {
        "client": client, "values": values, "baud": baud, "gaps": len(parts),
        "gap_median": microseconds(statistics.median(map(lambda part: part[0] + part[1] + part[3], parts))),
        "own_median": microseconds(statistics.median(own)),
        "own_99": microseconds(percentile(own, 99)),
        "emptying_median": microseconds(statistics.median(emptying)),
        "woken_median": microseconds(statistics.median(woken)),
        "sent_median": microseconds(statistics.median(sent)),
    }


def counted(bench, client, values=1):
    """Instructions between the marks, by function."""
    gaps = 30 if bench.quick else COUNTED_GAPS
    trace = f"{bench.out_dir}/gap-{CLIENTS[client]}.callgrind"
    bench.paced(client, values, COUNTED_BAUD, gaps + 5,
                env={"LD_PRELOAD": bench.program(LIBRARY), "BENCH_COUNTED_GAPS": str(gaps)},
                prefix=["valgrind", "--tool=callgrind", "--collect-atstart=no", f"--callgrind-out-file={trace}"])
    costs = list(measure.self_costs(trace))
    parts = {}
    for file, _, count in costs:
        part = next((part for start, part in PARTS.items() if file.startswith(start)), "C library")
        parts[part] = parts.get(part, 0) + count / gaps
    return {
        "client": client,
        "instructions": round(sum(count for _, _, count in costs) / gaps),
        "parts": {part: round(count) for part, count in sorted(parts.items(), key=lambda item: -item[1])},
        "functions": measure.by_function(trace, gaps)[:FUNCTIONS],
    }


def warm(bench):
    """Nanoseconds of one instruction of the driver in a loop, where the caches hold its code and its data."""
    row = measure.transaction(bench.bin_dir, "dint", bench.quick)
    return round(row["nanoseconds"] / row["instructions"], 4)


def gap(bench):
    seconds = 0.4 if bench.quick else 2
    return {
        "rows": [timed(bench, client, SIZES[client][i], baud, seconds)
                 for baud in BAUDS for i in range(3) for client in CLIENTS],
        "counted": [counted(bench, client) for client in CLIENTS],
        "warm": warm(bench),
    }


# ---- Tables


def reasons(results):
    """The host's own part for a single value at the highest speed, by function."""
    row = next(row for row in results["rows"] if row["client"] == HOST and row["baud"] == BAUDS[-1])
    counts = next(row for row in results["counted"] if row["client"] == HOST)
    working = row["own_median"] - row["emptying_median"]
    share = working / counts["instructions"]
    functions = counts["functions"]
    rest = counts["instructions"] - sum(count for _, count in functions)
    text = [f"Where the host's own part goes: {row['own_median']:.1f} us, one DINT at {BAUDS[-1]} baud "
            "(time by share of the instructions)",
            f"{'us':>6} {'instructions':>12}",
            f"{row['emptying_median']:6.2f} {'':12}  the system empties the input"]
    text += [f"{count * share:6.2f} {count:12}  {name}" for name, count in functions]
    text.append(f"{rest * share:6.2f} {rest:12}  functions with fewer")
    in_loop = counts["instructions"] * results["warm"] / 1000
    parts = ", ".join(f"{part} {count}" for part, count in counts["parts"].items())
    return text + [f"{working:6.2f} {counts['instructions']:12}  {parts}",
                   f"{in_loop:6.2f} {'':12}  of these us the instructions take in a loop, where the caches are warm",
                   f"{working - in_loop:6.2f} {'':12}  caches that are cold after the client has slept"]


def gap_table(results):
    text = ["The gap between two transactions in microseconds: medians; of the client's own part also 99 %",
            f"{'baud':>6} {'client':15} {'values':>6} {'gap':>8} {'waking':>8} {'own part':>9} {'99 %':>8} "
            f"{'emptying':>9} {'sending':>8}"]
    for row in results["rows"]:
        text.append(f"{row['baud']:6} {row['client']:15} {row['values']:6} {row['gap_median']:8.1f} "
                    f"{row['woken_median']:8.1f} {row['own_median']:9.1f} {row['own_99']:8.1f} "
                    f"{row['emptying_median']:9.1f} {row['sent_median']:8.1f}")
    text += ["", "Instructions between the marks, one value: "
             + ", ".join(f"{row['client']} {row['instructions']}" for row in results["counted"]), ""]
    return text + reasons(results)
