"""What the gateway costs, and how soon its readers have a value. Section gateway."""

import json

import measure

LINES = 4
BAUD = 115200
READERS = 50
VALUES = 15  # one reply has so many


def load(bench, baud, values, readers):
    seconds = 2 if bench.quick else 10
    command = [bench.program("gateway_load"), bench.program("micro850-gateway"), LINES, baud, values, readers, seconds]
    return json.loads(measure.output_of([str(word) for word in command]).stdout)


def gateway(bench):
    return {"full": load(bench, BAUD, 1, 1), "readers": load(bench, 0, VALUES, READERS)}


def row_of(row):
    speed = f"{row['baud']} baud" if row["baud"] else "at once"
    return (f"{row['lines']:5} {speed:>11} {row['readers']:7} {row['replies']:9.0f} {row['delivered']:9.0f} "
            f"{row['delay_median']:7.0f} / {row['delay_99']:6.0f} {row['parent_share']:8.1%} {row['workers_share']:8.1%} "
            f"{row['proportional'] / 1e6:7.1f} {row['resident'] / 1e6:8.1f}")


def gateway_table(results):
    return ["Each reply has new values for every reader. Microseconds from a reply to the reader that has its value; shares of one",
            "processor; megabytes of all processes, what they share counted once and each time",
            f"{'lines':>5} {'speed':>11} {'readers':>7} {'replies/s':>9} {'values/s':>9} {'median / 99 %':>16} "
            f"{'service':>8} {'workers':>8} {'once':>7} {'each':>8}",
            *(row_of(results[name]) for name in ("full", "readers"))]
