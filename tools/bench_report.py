"""What bench.py says of its results: the tables, the targets beside the figures, the plots, the document."""

import datetime
import math
import os
import platform
import re
import shutil
import sys

import bench
import bench_line

SCALARS = ["int", "dint", "lreal"]
WHOLE_ONLY = ["machine", "targets"]  # tables that a run of some sections would leave incomplete
LEAST_IN_USE = {38400: 0.97, 115200: 0.95}


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        text = file.read()
    model = re.search(r"model name\s*: (.*)", text)
    guest = ", a virtual machine" if re.search(r"^flags.*\bhypervisor\b", text, re.M) else ""
    load = os.getloadavg()
    packages = ["libqt5core5a", "libmodbus-dev", "libqt5serialbus5", "g++"]
    listed = bench.output_of(["dpkg-query", "-W", "-f", "${Package} ${Version}\n"]).stdout
    return {
        "processor": (model.group(1) if model else platform.machine()) + guest,
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "packages": [line for line in listed.splitlines() if line.split()[0] in packages],
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "load": round(load[0], 2),
    }


def machine_table(row):
    return [f"{row['date']}, {row['processors']} x {row['processor']}, Linux {row['kernel']}",
            ", ".join(row["packages"]),
            f"load before the run: {row['load']} (times mean something below 0.5; instructions and allocations always)"]


# ---- Targets: name, goal, figure, whether it is reached


def cost_targets(rows):
    for kind in SCALARS:
        count, calls = rows[kind]["instructions"], rows[kind]["allocations"]
        yield f"{kind.upper()} read and fetch: instructions", "<= 6000", f"{count}", count <= 6000
        yield f"{kind.upper()} read and fetch: allocations", "<= 12", f"{calls:.2f}", calls <= 12


def growth_targets(rows):
    first, last = rows[0], rows[-1]
    factor = last["instructions"]["cyclic"] / first["instructions"]["cyclic"]
    yield (f"cyclic read, {first['variables']} to {last['variables']} variables", "< 1.5 times", f"{factor:.2f}",
           factor < 1.5)
    small, large = ((row["variables"], row["instructions"]["rebuild"]) for row in rows if row["variables"] in
                    (rows[1]["variables"], min(10000, last["variables"])))
    growth = large[1] / small[1] / (large[0] * math.log(large[0]) / (small[0] * math.log(small[0])))
    yield (f"rebuilding the list, {small[0]} to {large[0]}, beside n log n", "about 1 times", f"{growth:.2f}",
           growth < 1.5)


def peers_targets(rows):
    for row in rows:
        if row["client"] not in (bench_line.ALONE, bench_line.HOST):
            continue
        serial_bus = bench_line.peer_row(rows, "Qt SerialBus", row)["instructions"] / row["instructions"]
        yield (f"{row['client']}, {row['values']} values: Qt SerialBus's instructions", ">= 8 times",
               f"{serial_bus:.1f}", serial_bus >= 8)
    for row in rows:
        if row["client"] == bench_line.HOST:
            libmodbus = row["microseconds"] / bench_line.peer_row(rows, "libmodbus", row)["microseconds"]
            yield (f"{row['client']}, {row['values']} values: time beside libmodbus's", "<= 2 times",
                   f"{libmodbus:.2f}", libmodbus <= 2)


def line_targets(results):
    for row in results["rows"]:
        least = LEAST_IN_USE.get(row["baud"])
        if row["client"] != bench_line.HOST or not least:
            continue
        name = f"{row['baud']} baud, {row['values']} values"
        yield f"{name}: line in use", f">= {least:.0%}", f"{row['in_use']:.1%}", row["in_use"] >= least
        yield f"{name}: gap, median", "< 100 us", f"{row['gap_median']:.0f}", row["gap_median"] < 100


def reaction_targets(rows):
    for row in rows:
        for name, what, most in (("write", "to a known tag", 0), ("write_unknown", "to a new tag", 1)):
            before = row[name]["requests_before"]
            yield (f"{row['baud']} baud: requests sent before a write {what}", f"<= {most}", f"{before}",
                   before <= most)


TARGETS = {"cost": cost_targets, "growth": growth_targets, "peers": peers_targets, "line": line_targets,
           "reaction": reaction_targets}


def targets_table(results):
    text = [f"{'target':58} {'goal':>13} {'figure':>8}"]
    for section, of in TARGETS.items():
        if section in results:
            text += [f"{name:58} {goal:>13} {figure:>8}  {'reached' if reached else 'not reached'}"
                     for name, goal, figure, reached in of(results[section])]
    return text


def tables(results):
    """Lines of text by section, in the order in which they are read."""
    of = {"machine": machine_table, "cost": bench.cost_table, "growth": bench.growth_table,
          "peers": bench_line.peers_table, "line": bench_line.line_table, "reaction": bench_line.reaction_table}
    text = {section: table(results[section]) for section, table in of.items() if section in results}
    if any(section in results for section in TARGETS):
        text["targets"] = targets_table(results)
    return text


# ---- Plots and the document


def gnuplot(path, commands):
    bench.output_of(["gnuplot", "-e", f"set terminal svg size 720,420 background 'white'; set output '{path}'; "
                     "set grid; " + commands])
    return path


def plot_growth(rows, out_dir):
    with open(f"{out_dir}/growth.dat", "w", encoding="ascii") as data:
        for row in rows:
            print(row["variables"], *(row["instructions"][operation] for operation in bench.OPERATIONS), file=data)
    curves = ", ".join(f"'{out_dir}/growth.dat' using 1:{i + 2} with linespoints title '{operation}'"
                       for i, operation in enumerate(bench.OPERATIONS))
    return gnuplot(f"{out_dir}/growth.svg", "set logscale xy; set key left top; set xlabel 'variables'; "
                   f"set ylabel 'user instructions'; plot {curves}")


def plot_line(results, out_dir):
    clients = list(bench_line.CLIENTS)
    groups = [(baud, i) for baud in bench_line.BAUDS for i in range(3)]
    with open(f"{out_dir}/line.dat", "w", encoding="ascii") as data:
        for baud, i in groups:
            shares = [next(row["in_use"] for row in results["rows"] if row["client"] == client and row["baud"] == baud
                           and row["values"] == bench_line.SIZES[client][i]) for client in clients]
            print(f'"{baud}\\n{("1", "10", "most")[i]}"', *(100 * share for share in shares), file=data)
    bars = ", ".join(f"'{out_dir}/line.dat' using {i + 2}:xtic(1) title '{client}'"
                     for i, client in enumerate(clients))
    return gnuplot(f"{out_dir}/line.svg", "set style data histogram; set style fill solid 0.7; set yrange [0:100]; "
                   "set key above; set xlabel 'baud, values read at once'; "
                   f"set ylabel 'share of time that carries frames, %'; plot {bars}")


def plot(results, out_dir):
    plots = []
    if "growth" in results:
        plots.append(plot_growth(results["growth"], out_dir))
    if "line" in results:
        plots.append(plot_line(results["line"], out_dir))
    return plots


def write(document, results, plots):
    """Puts each table between its marks, <!-- bench NAME --> and <!-- end -->, and the plots beside the document."""
    with open(document, encoding="utf-8") as file:
        text = file.read()
    whole = all(section in results for section in TARGETS)
    found = 0
    for section, lines in tables(results).items():
        block = "```text\n" + "\n".join(lines) + "\n```\n"
        text, marks = re.subn(rf"(<!-- bench {section} -->\n)(.*?)(<!-- end -->)", lambda match, section=section, block=block:
                              match[1] + (match[2] if section in WHOLE_ONLY and not whole else block) + match[3],
                              text, flags=re.S)
        found += marks
    if found == 0:
        sys.exit(f"bench: {document} has no marks like <!-- bench cost --> and <!-- end --> to put tables between")
    with open(document, "w", encoding="utf-8") as file:
        file.write(text)
    for path in plots:
        shutil.copy(path, os.path.dirname(os.path.abspath(document)))
