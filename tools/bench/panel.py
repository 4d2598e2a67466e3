"""What a panel feels: its processor's share, wake-ups, the age of what it shows, and memory. Section panel."""

import json
import re

import measure
from clients import CLIENTS, COUNTED_BAUD, HOST

BAUDS = [38400, 115200]
DRIVER_KIND = "dint"
# An estimate for a panel's processor: 600 MHz, and one instruction in two cycles.
PANEL_MEGAHERTZ = 600
CYCLES_OF_INSTRUCTION = 2
PANEL_INSTRUCTIONS = PANEL_MEGAHERTZ * 1e6 / CYCLES_OF_INSTRUCTION
LINES = [(38400, None), (115200, None), (115200, 1)]  # baud, latency timer of an adapter in ms
FRESHNESS = [(baud, variables) for baud in BAUDS for variables in (10, 100, 1000)]
MEMORY_VARIABLES = 100000


def instructions_of(bench, client, baud, timer=None):
    """Instructions of one transaction where bytes arrive as they do at this speed: the difference of two runs. They are
    run at a lower speed, with an adapter's timer that is longer by as much."""
    slower = timer * baud // COUNTED_BAUD if timer else None

    def run(reads):
        trace = f"{bench.out_dir}/panel.callgrind"
        bench.paced(client, 1, COUNTED_BAUD, reads, timer=slower,
                    prefix=["valgrind", "--tool=callgrind", f"--callgrind-out-file={trace}"])
        return sum(count for _, _, count in measure.self_costs(trace))
    short, long = (10, 25) if bench.quick else (15, 75)
    return round((run(long) - run(short)) / (long - short))


def load(bench, client, baud, timer, seconds, instructions):
    """What a full line costs, for each transaction of one value: processor's microseconds, wake-ups, instructions."""
    output = bench.paced(client, 1, baud, bench.reads_in(client, 1, baud, seconds, timer), timer=timer).output
    read = {name: float(figure) for name, figure in re.findall(r"(\w+) ([\d.]+)", output)}
    return {
        "client": client, "baud": baud, "timer": timer or 0,
        "transactions": round(1e6 / read["microseconds"], 1),
        "wakeups": round(read["wakeups"], 2),
        "user": round(read["user"], 1),
        "system": round(read["system"], 1),
        "instructions": instructions,
    }


def loads(bench):
    seconds = 1 if bench.quick else 3
    plain = {client: instructions_of(bench, client, BAUDS[0]) for client in CLIENTS}
    packets = {client: instructions_of(bench, client, BAUDS[-1], 1) for client in CLIENTS}
    return [load(bench, client, baud, timer, seconds, (packets if timer else plain)[client])
            for baud, timer in LINES for client in CLIENTS]


def freshness(bench, baud, variables):
    trials = 100 if bench.quick else 500
    return json.loads(measure.output_of([bench.program("freshness"), str(baud), str(variables), str(trials)]).stdout)


def panel(bench):
    variables = MEMORY_VARIABLES // 10 if bench.quick else MEMORY_VARIABLES
    return {
        "driver_instructions": measure.transaction(bench.bin_dir, DRIVER_KIND, bench.quick)["instructions"],
        "load": loads(bench),
        "freshness": [freshness(bench, *row) for row in FRESHNESS],
        "memory": json.loads(measure.output_of([bench.program("memory"), str(variables)]).stdout),
    }


# ---- Tables


def load_table(results):
    text = ["A full line, one DINT or register at a time: what it costs each second",
            f"{'baud':>6} {'adapter':>7} {'client':15} {'transactions':>12} {'wake-ups':>8} {'user':>7} {'system':>7} "
            f"{'instructions':>12} {'panel':>7}"]

    def line_of(row, name, instructions, times):
        adapter = f"{row['timer']} ms" if row["timer"] else "-"
        return (f"{row['baud']:6} {adapter:>7} {name:15} {row['transactions']:12.1f} {times:24} "
                f"{instructions * row['transactions']:12.0f} "
                f"{instructions * row['transactions'] / PANEL_INSTRUCTIONS:7.2%}")
    for row in results["load"]:
        a_second = row["transactions"]
        text.append(line_of(row, row["client"], row["instructions"],
                            f"{row['wakeups'] * a_second:8.0f} {row['user'] * a_second / 1e6:7.2%} "
                            f"{row['system'] * a_second / 1e6:7.2%}"))
        if row["client"] == HOST:
            driver = results["driver_instructions"]
            text.append(line_of(row, "  driver", driver, ""))
            text.append(line_of(row, "  host kit", row["instructions"] - driver, ""))
    return text + [f"panel: an estimate for {PANEL_MEGAHERTZ} MHz and one instruction in {CYCLES_OF_INSTRUCTION} "
                   "cycles, without the system's part"]


def freshness_table(rows):
    def span(row):
        return f"{row['median']:.0f} / {row['99']:.0f}"
    text = ["Age of what a panel shows, in milliseconds: median / 99 %",
            f"{'baud':>6} {'variables':>9} {'one cycle':>10} {'change to callback':>20} {'write to its value read':>24}"]
    return text + [f"{row['baud']:6} {row['variables']:9} {row['cycle']:10.0f} {span(row['change']):>20} "
                   f"{span(row['write']):>24}" for row in rows]


def memory_table(row):
    return [f"Memory with {row['variables']} cyclic variables, all with a value: megabytes, bytes a variable",
            *(f"{name:22} {row[key] / 1e6:7.1f} {row[key] / row['variables']:7.0f}"
              for name, key in (("heap of the driver", "driver"), ("heap of the host kit", "host_kit"),
                                ("growth of the process", "resident")))]


def panel_table(results):
    return (load_table(results) + [""] + freshness_table(results["freshness"]) + [""]
            + memory_table(results["memory"]))
