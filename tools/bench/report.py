"""The report of the results: tables, figures compared with their targets, plots, the document."""

import datetime
import json
import math
import os
import platform
import re
import shutil
import sys

import adapter
import clients
import cost
import gap
import gateway
import line
import live_table
import measure
import panel

SCALARS = ["int", "dint", "lreal"]
MOST_INSTRUCTIONS = {"int": 6400}  # a wider value adds the CRC of its bytes, which the cost table shows
MOST_ALLOCATIONS = 3
WHOLE_ONLY = ["machine", "targets"]  # written only when every section has run
HOST_INSTRUCTIONS = 9900
HOST_ALLOCATIONS = 8
MOST_OWN_PART = 15  # microseconds between the last byte of a reply and the next request
LEAST_IN_USE = {38400: 0.97, 115200: 0.95}
MOST_FOR_TABLE = 0.05  # poll with 2,000 variables on a full line behind an adapter
MOST_OF_PROCESSOR = 0.1  # the gateway and its workers with four full lines
MOST_MEGABYTES = 60
MOST_DELAY = 1000  # microseconds from a reply to a subscriber
LEAST_DELIVERED = 100000  # values a second


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        text = file.read()
    model = re.search(r"model name\s*: (.*)", text)
    guest = ", a virtual machine" if re.search(r"^flags.*\bhypervisor\b", text, re.M) else ""
    load = os.getloadavg()
    packages = ["libqt5core5a", "libmodbus-dev", "libqt5serialbus5", "g++"]
    listed = measure.output_of(["dpkg-query", "-W", "-f", "${Package} ${Version}\n"]).stdout
    return {
        "processor": (model.group(1) if model else platform.machine()) + guest,
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "packages": [package for package in listed.splitlines() if package.split()[0] in packages],
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "load": round(load[0], 2),
    }


def machine_table(row, quick=()):
    return [f"{row['date']}, {row['processors']} x {row['processor']}, Linux {row['kernel']}",
            ", ".join(row["packages"]),
            f"load before the run: {row['load']} (times mean something below 0.5; instructions and allocations always)",
            *([f"measured with few repetitions: {', '.join(quick)}"] if quick else [])]


# ---- Targets: name, goal, figure, whether the figure reaches the goal


def cost_targets(rows):
    for kind in SCALARS:
        count, calls = rows[kind]["instructions"], rows[kind]["allocations"]
        if kind in MOST_INSTRUCTIONS:
            most = MOST_INSTRUCTIONS[kind]
            yield f"{kind.upper()} read and fetch: instructions", f"<= {most}", f"{count}", count <= most
        yield f"{kind.upper()} read and fetch: allocations", f"<= {MOST_ALLOCATIONS}", f"{calls:.2f}", calls <= MOST_ALLOCATIONS


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
    yield from single_read_targets(rows)
    for row in rows:
        if row["client"] not in (line.ALONE, clients.HOST) or (row["client"], row["values"]) == (clients.HOST, 1):
            continue
        serial_bus = line.peer_row(rows, "Qt SerialBus", row)["instructions"] / row["instructions"]
        yield (f"{row['client']}, {row['values']} values: Qt SerialBus's instructions", ">= 8 times",
               f"{serial_bus:.1f}", serial_bus >= 8)
    for row in rows:
        if row["client"] == clients.HOST:
            libmodbus = row["microseconds"] / line.peer_row(rows, "libmodbus", row)["microseconds"]
            yield (f"{row['client']}, {row['values']} values: time beside libmodbus's", "<= 2 times",
                   f"{libmodbus:.2f}", libmodbus <= 2)


def single_read_targets(rows):
    """The reference host, driver included, reads one value."""
    row = next(row for row in rows if row["client"] == clients.HOST and row["values"] == 1)
    count, calls = row["instructions"], row["allocations"]
    serial_bus = line.peer_row(rows, "Qt SerialBus", row)["instructions"] / count
    yield "reference host, 1 values: instructions", f"<= {HOST_INSTRUCTIONS}", f"{count}", count <= HOST_INSTRUCTIONS
    yield "reference host, 1 values: allocations", f"<= {HOST_ALLOCATIONS}", f"{calls:.2f}", calls <= HOST_ALLOCATIONS
    yield ("reference host, 1 values: Qt SerialBus's instructions", ">= 4 times", f"{serial_bus:.1f}", serial_bus >= 4)


def line_targets(results):
    for row in results["rows"]:
        least = LEAST_IN_USE.get(row["baud"])
        if row["client"] != clients.HOST or not least:
            continue
        name = f"{row['baud']} baud, {row['values']} values"
        yield f"{name}: line in use", f">= {least:.0%}", f"{row['in_use']:.1%}", row["in_use"] >= least
        yield f"{name}: gap, median", "< 100 us", f"{row['gap_median']:.0f}", row["gap_median"] < 100


def gap_targets(results):
    for row in results["rows"]:
        if row["client"] == clients.HOST:
            yield (f"{row['baud']} baud, {row['values']} values: own part of the gap, median", f"<= {MOST_OWN_PART} us",
                   f"{row['own_median']:.1f}", row["own_median"] <= MOST_OWN_PART)


def reaction_targets(rows):
    for row in rows:
        for name, what, most in (("write", "to a known tag", 0), ("write_unknown", "to a new tag", 1)):
            before = row[name]["requests_before"]
            yield (f"{row['baud']} baud: requests sent before a write {what}", f"<= {most}", f"{before}",
                   before <= most)
        yield from recovery_targets(row)


def recovery_targets(row):
    """The worst of the trials in milliseconds. The goals end with the transaction that brings the next value. After a
    power cycle, the set-up also closes the connection that the controller may still have."""
    goals = {"lost_reply": ("a lost reply", max(20, 4 * row["transaction"]) + row["transaction"]),
             "power_cycle": ("a power cycle", row["timeout"] + row["start"]["first"] + 2 * row["transaction"]),
             "pulled_cable": ("a cable put back", 500),
             "disconnected_cable": ("a cable put back behind an adapter", 500)}
    for name, (what, most) in goals.items():
        worst = row[name]["worst"]
        yield f"{row['baud']} baud: {what}, worst", f"<= {most:.0f} ms", f"{worst:.0f}", worst <= most
    most = max(4, 20 / row["transaction"])
    asked = row["asked_again"]["round_trips"]
    yield (f"{row['baud']} baud: round trips until a lost reply is asked for", f"<= {most:.1f}", f"{asked:.1f}",
           asked <= most + 0.1)
    # As fast as a program that is alone: without a time-out, and without the half of one after which a first reply is
    # asked for again.
    first, most = row["following_program"]["worst"], row["start"]["first"] + row["transaction"]
    yield (f"{row['baud']} baud: following program, no time-out: first value", f"<= {most:.0f} ms", f"{first:.0f}",
           first <= most)
    pauses = row["pauses"]
    failed = sum(pauses[name] for name in ("timed_out", "wrong_values", "reconnects"))
    yield f"{row['baud']} baud: {pauses['minutes']} minutes with pauses, failed", "0", f"{failed}", failed == 0


def gateway_targets(results):
    full, readers = results["full"], results["readers"]
    share = full["parent_share"] + full["workers_share"]
    name = f"gateway, {full['lines']} lines at {full['baud']} baud"
    yield f"{name}: processor", f"< {MOST_OF_PROCESSOR:.0%}", f"{share:.1%}", share < MOST_OF_PROCESSOR
    memory = full["proportional"] / 1e6
    yield f"{name}: memory", f"< {MOST_MEGABYTES} MB", f"{memory:.1f}", memory < MOST_MEGABYTES
    yield (f"{name}: reply to subscriber, median", f"< {MOST_DELAY} us", f"{full['delay_median']:.0f}",
           full["delay_median"] < MOST_DELAY)
    yield (f"gateway, {readers['readers']} readers: values a second", f">= {LEAST_DELIVERED}",
           f"{readers['delivered']:.0f}", readers["delivered"] >= LEAST_DELIVERED)


def table_targets(rows):
    for row in rows:
        share = row["user_share"] + row["system_share"]
        how = f"adapter of {row['timer']} ms" if row["timer"] else "byte by byte"
        yield (f"table of {row['variables']} variables, {row['baud']} baud, {how}", f"< {MOST_FOR_TABLE:.0%}",
               f"{share:.1%}", share < MOST_FOR_TABLE)


TARGETS = {"cost": cost_targets, "growth": growth_targets, "peers": peers_targets, "line": line_targets,
           "gap": gap_targets, "reaction": reaction_targets, "gateway": gateway_targets, "table": table_targets}


def targets_table(results):
    text = [f"{'target':58} {'goal':>13} {'figure':>8}"]
    for section, of in TARGETS.items():
        if section in results:
            text += [f"{name:58} {goal:>13} {figure:>8}  {'reached' if reached else 'not reached'}"
                     for name, goal, figure, reached in of(results[section])]
    return text


TABLES = {"cost": cost.cost_table, "growth": cost.growth_table, "peers": line.peers_table, "line": line.line_table,
          "adapter": adapter.adapter_table, "gap": gap.gap_table, "reaction": line.reaction_table,
          "panel": panel.panel_table, "gateway": gateway.gateway_table, "table": live_table.table_of}


def tables(results):
    """Lines of text by section, in the order of the report."""
    text = {"machine": machine_table(results["machine"], results.get("quick", ()))} if "machine" in results else {}
    text.update((section, table(results[section])) for section, table in TABLES.items() if section in results)
    if any(section in results for section in TARGETS):
        text["targets"] = targets_table(results)
    return text


# ---- Plots and the document


def gnuplot(path, commands):
    measure.output_of(["gnuplot", "-e", f"set terminal svg size 720,420 background 'white'; set output '{path}'; "
                     "set grid; " + commands])
    return path


def plot_growth(rows, out_dir):
    with open(f"{out_dir}/growth.dat", "w", encoding="ascii") as data:
        for row in rows:
            print(row["variables"], *(row["instructions"][operation] for operation in cost.OPERATIONS), file=data)
    curves = ", ".join(f"'{out_dir}/growth.dat' using 1:{i + 2} with linespoints title '{operation}'"
                       for i, operation in enumerate(cost.OPERATIONS))
    return gnuplot(f"{out_dir}/growth.svg", "set logscale xy; set key left top; set xlabel 'variables'; "
                   f"set ylabel 'user instructions'; plot {curves}")


def plot_line(results, out_dir):
    names = list(clients.CLIENTS)
    groups = [(baud, i) for baud in clients.BAUDS for i in range(3)]
    with open(f"{out_dir}/line.dat", "w", encoding="ascii") as data:
        for baud, i in groups:
            shares = [next(row["in_use"] for row in results["rows"] if row["client"] == client and row["baud"] == baud
                           and row["values"] == clients.SIZES[client][i]) for client in names]
            print(f'"{baud}\\n{("1", "10", "most")[i]}"', *(100 * share for share in shares), file=data)
    bars = ", ".join(f"'{out_dir}/line.dat' using {i + 2}:xtic(1) title '{client}'"
                     for i, client in enumerate(names))
    return gnuplot(f"{out_dir}/line.svg", "set style data histogram; set style fill solid 0.7; set yrange [0:100]; "
                   "set key above; set bmargin 5; set xlabel 'baud, values read at once' offset 0,-1; "
                   f"set ylabel 'share of time that carries frames, %'; plot {bars}")


def plot(results, out_dir):
    plots = []
    if "growth" in results:
        plots.append(plot_growth(results["growth"], out_dir))
    if "line" in results:
        plots.append(plot_line(results["line"], out_dir))
    return plots


def figures_of(document):
    """The file beside the document that holds the figures of its tables."""
    return os.path.splitext(document)[0] + ".json"


def page(document):
    """The figures that the document shows; empty before the first ones are written."""
    path = figures_of(document)
    if not os.path.exists(path):
        return {}
    with open(path, encoding="utf-8") as file:
        try:
            return json.load(file)
        except ValueError as error:
            sys.exit(f"bench: {path}: {error} (restore the file, or remove it and write all sections anew)")


def merged(old, results):
    """The figures of the page with those of a run in their place. The machine is that of a whole run."""
    sections = [name for name in TABLES if name in results]
    whole = all(name in results for name in TABLES)
    new = results if whole else {**old, **{name: results[name] for name in sections}}
    quick = set(old.get("quick", [])) - set(sections) | set(results.get("quick", []))
    return {**new, "machine": results["machine"] if whole or "machine" not in old else old["machine"],
            "quick": [name for name in TABLES if name in quick]}


def write(document, results, plots):
    """Writes each table between its marks, <!-- bench NAME --> and <!-- end -->, and the figures beside the document;
    copies the plots to the same folder."""
    with open(document, encoding="utf-8") as file:
        text = file.read()
    results = merged(page(document), results)
    text, found = with_tables(text, results)
    if found == 0:
        sys.exit(f"bench: {document} has no marks such as <!-- bench cost --> and <!-- end --> for the tables")
    with open(document, "w", encoding="utf-8") as file:
        file.write(text)
    with open(figures_of(document), "w", encoding="utf-8") as file:
        file.write(json.dumps(results, indent=1) + "\n")
    for path in plots:
        shutil.copy(path, os.path.dirname(os.path.abspath(document)))


def with_tables(text, results):
    """The document's text with the tables of these results, and the number of tables that it has."""
    whole = all(section in results for section in TABLES)
    found = 0
    for section, lines in tables(results).items():
        block = "```text\n" + "\n".join(lines) + "\n```\n"
        text, marks = re.subn(rf"(<!-- bench {section} -->\n)(.*?)(<!-- end -->)", lambda match, section=section, block=block:
                              match[1] + (match[2] if section in WHOLE_ONLY and not whole else block) + match[3],
                              text, flags=re.S)
        found += marks
    return text, found
