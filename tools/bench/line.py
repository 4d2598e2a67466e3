"""What the driver costs on a line, compared with other clients of a panel: sections peers, line and reaction."""

import json
import os
import re
import statistics

import measure
from clients import BAUDS, BITS_OF_BYTE, CLIENTS, HOST, SIZES, exchanges, percentile

ALONE = "driver alone"
ALONE_KINDS = {1: "dint", 10: "dint10", 62: "dint62"}


# ---- Comparison with other clients, on a line that takes no time


def slope(cost, client, values, short, long):
    """The cost of one read: the difference of two runs, so that the set-up does not count."""
    return (cost(client, values, long) - cost(client, values, short)) / (long - short)


def peer(bench, client, values):
    def callgrind(of, count, reads):
        done = measure.output_of(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
                         + bench.command(of, count, reads))
        return int(re.search(r"Collected : (\d+)", done.stderr).group(1))

    def heap(of, count, reads, what="allocations"):
        done = measure.output_of(bench.command(of, count, reads),
                         env=dict(os.environ, LD_PRELOAD=bench.program("libbench_allocations.so")))
        return int(re.search(what + r" (\d+)", done.stderr).group(1))

    def system_calls(of, count, reads):
        trace = f"{bench.scratch}/strace.txt"
        measure.output_of(["strace", "-c", "-f", "-U", "calls", "-o", trace] + bench.command(of, count, reads))
        with open(trace, encoding="utf-8") as file:
            return int(re.search(r"(\d+) total", file.read()).group(1))

    short, long = (20, 60) if bench.quick else (50, 250)
    return {
        "client": client, "values": values,
        "instructions": round(slope(callgrind, client, values, short, long)),
        "allocations": round(slope(heap, client, values, short, long), 2),
        "bytes": round(slope(lambda *run: heap(*run, what="bytes"), client, values, short, long)),
        "system_calls": round(slope(system_calls, client, values, short, long), 2),
    }


def alone(bench, values):
    """The driver's entry points with replies prepared beforehand: no line, no host."""
    row = measure.transaction(bench.bin_dir, ALONE_KINDS[values], bench.quick)
    return {
        "client": ALONE, "values": values,
        "instructions": row["instructions"],
        "allocations": row["allocations"],
        "bytes": row["bytes"],
        "system_calls": 0,
        "microseconds": round(row["nanoseconds"] / 1000, 2),
    }


def microseconds(bench, client, values):
    reads = {"Qt SerialBus": 200}.get(client, 2000) // (5 if bench.quick else 1)
    done = measure.output_of(bench.command(client, values, reads))
    return float(re.search(r"microseconds ([\d.]+)", done.stdout).group(1))


def peers(bench):
    rows = [peer(bench, client, values) for client in CLIENTS for values in SIZES[client]]
    # Each client in turn, in several rounds, so that other load on the machine affects all of them alike.
    rounds = [[microseconds(bench, row["client"], row["values"]) for row in rows]
              for _ in range(2 if bench.quick else 7)]
    for row, times in zip(rows, zip(*rounds)):
        row["microseconds"] = round(statistics.median(times), 1)
        row["microseconds_best"] = round(min(times), 1)
    return [alone(bench, values) for values in SIZES[HOST]] + rows


# ---- Use of a line that takes as long as a real one


def line_use(bench, client, device, values, baud, seconds):
    reads = bench.reads_in(client, values, baud, seconds)
    pairs = exchanges(bench.paced(client, values, baud, reads, device).runs)
    elapsed = pairs[-1][0][1] - pairs[0][0][1]  # from request to request
    carried = sum(request[3] + reply[3] for request, reply in pairs[:-1])
    gaps = [after[0][1] - before[1][2] for before, after in zip(pairs, pairs[1:])]
    answers = [reply[1] - request[2] for request, reply in pairs]
    busy = carried * BITS_OF_BYTE * 1e9 / baud
    fetched = (len(pairs) - 1) * values
    return {
        "client": client, "values": values, "baud": baud,
        "in_use": round(busy / elapsed, 4),
        "in_use_but_for_device": round(busy / (busy + sum(gaps)), 4),
        "gap_median": round(statistics.median(gaps) / 1000, 1),
        "gap_99": round(percentile(gaps, 99) / 1000, 1),
        "gap_worst": round(max(gaps) / 1000, 1),
        "device_median": round(statistics.median(answers) / 1000, 1),
        "values_per_second": round(fetched * 1e9 / elapsed, 1),
        "bytes_per_value": round(carried / fetched, 2),
    }


def line(bench):
    seconds = 0.5 if bench.quick else 3
    rows = [line_use(bench, client, bench.devices[client], SIZES[client][i], baud, seconds)
            for baud in BAUDS for i in range(3) for client in CLIENTS]
    worst = [line_use(bench, HOST, bench.devices["worst data"], values, 115200, seconds) for values in SIZES[HOST]]
    return {"rows": rows, "worst_data": worst}


# ---- Reaction, on virtual time


def reaction(bench):
    trials = "20" if bench.quick else "200"
    return [json.loads(measure.output_of([bench.program("reaction"), str(baud), trials]).stdout) for baud in BAUDS]


# ---- Tables


def peer_row(rows, client, like):
    """The row of another client that reads as many values, or as many bytes."""
    sizes = SIZES[client]
    values = sizes[SIZES[HOST].index(like["values"])]
    return next(row for row in rows if row["client"] == client and row["values"] == values)


def ratios(rows, row):
    serial_bus = peer_row(rows, "Qt SerialBus", row)
    libmodbus = peer_row(rows, "libmodbus", row)
    text = (f"{row['client']}, {row['values']} elements: Qt SerialBus takes "
            f"{serial_bus['instructions'] / row['instructions']:.1f} times the instructions")
    if row["client"] == ALONE:
        return text
    return (f"{text} and {serial_bus['microseconds'] / row['microseconds']:.0f} times the time; the host takes "
            f"{row['microseconds'] / libmodbus['microseconds']:.2f} times the time of libmodbus")


def peers_table(rows):
    text = ["One completed read over a pseudo-terminal (values: DINT elements, or 16-bit registers)",
            f"{'client':15} {'values':>6} {'instructions':>12} {'a value':>9} {'allocations':>11} {'bytes':>6} "
            f"{'system calls':>12} {'us':>8} {'us a value':>10}"]
    for row in rows:
        text.append(f"{row['client']:15} {row['values']:6} {row['instructions']:12} "
                    f"{row['instructions'] / row['values']:9.0f} {row['allocations']:11.2f} {row['bytes']:6} "
                    f"{row['system_calls']:12.2f} {row['microseconds']:8.1f} "
                    f"{row['microseconds'] / row['values']:10.2f}")
    return text + [""] + [ratios(rows, row) for row in rows if row["client"] in (ALONE, HOST)]


def line_table(results):
    heads = [f"{'baud':>6} {'client':15} {'values':>6} {'in use':>7} {'without device':>14} {'gap us':>8} {'99 %':>8} "
             f"{'worst':>8} {'device us':>9} {'values/s':>9} {'bytes a value':>13}"]

    def text_of(row):
        return (f"{row['baud']:6} {row['client']:15} {row['values']:6} {row['in_use']:7.1%} "
                f"{row['in_use_but_for_device']:14.1%} {row['gap_median']:8.1f} {row['gap_99']:8.1f} "
                f"{row['gap_worst']:8.1f} {row['device_median']:9.1f} {row['values_per_second']:9.1f} "
                f"{row['bytes_per_value']:13.2f}")
    return (["Use of a line paced to its speed; gap: last byte of a reply to first of the next request"] + heads
            + [text_of(row) for row in results["rows"]]
            + ["", "The same where every byte of the values is doubled on the wire"]
            + [text_of(row) for row in results["worst_data"]])


def reaction_table(rows):
    def span(row, name):
        return " / ".join(f"{row[name][which]:.1f}" for which in ("best", "median", "worst"))
    lines = [("read transaction, longest of 2 s", lambda row: f"{row['transaction']:.1f}"),
             ("write to its frame", lambda row: span(row, "write")),
             ("the same, class not known yet", lambda row: span(row, "write_unknown")),
             ("start to first value / all values", lambda row: f"{row['start']['first']:.1f} / {row['start']['all']:.1f}"),
             ("reply lost to next value", lambda row: span(row, "lost_reply")),
             ("lost reply asked for again after", lambda row: f"{row['asked_again']['after']:.1f}"),
             ("power cycle to next value", lambda row: span(row, "power_cycle")),
             ("cable put back to next value", lambda row: span(row, "pulled_cable")),
             ("the same, behind an adapter", lambda row: span(row, "disconnected_cable")),
             ("program after another, first value", lambda row: span(row, "following_program")),
             ("pause of 300 ms ends to next value", lambda row: span(row["pauses"], "next_value"))]
    text = [f"Reaction in milliseconds while {rows[0]['start']['variables']} DINT variables are read in a cycle: "
            "best / median / worst",
            f"{'':36}" + "".join(f"{row['baud']:>20} baud" for row in rows)]
    text += [f"{name:36}" + "".join(f"{cell(row):>25}" for row in rows) for name, cell in lines]
    text += ["", "A controller that pauses for 300 ms every 10 s"]
    for row in rows:
        pauses = row["pauses"]
        text.append(f"{row['baud']:6} baud: {pauses['answered']} transactions in {pauses['minutes']} minutes, "
                    f"{pauses['timed_out']} timed out, {pauses['corrupt']} corrupt, "
                    f"{pauses['reconnects']} new connections, {pauses['wrong_values']} wrong values, "
                    f"{pauses['retries']} replies asked for again")
    return text
