"""What the latency timer of a USB adapter makes of a line: section adapter."""

from clients import CLIENTS, exchanges

BAUDS = [9600, 19200, 38400, 57600, 115200]
TIMERS = {"timer 16 ms": 16, "timer 1 ms": 1, "no adapter": None}


def transactions(bench, client, baud, timer, seconds):
    """Transactions a second, each of one value."""
    reads = bench.reads_in(client, 1, baud, seconds, timer)
    pairs = exchanges(bench.paced(client, 1, baud, reads, timer=timer).runs)
    return round((len(pairs) - 1) * 1e9 / (pairs[-1][0][1] - pairs[0][0][1]), 1)


def adapter(bench):
    seconds = 0.3 if bench.quick else 1
    return [{"baud": baud, "client": client,
             **{name: transactions(bench, client, baud, timer, seconds) for name, timer in TIMERS.items()}}
            for baud in BAUDS for client in CLIENTS]


# ---- Tables


def adapter_table(rows):
    text = ["Transactions a second behind a USB adapter, by its latency timer; one value each",
            f"{'baud':>6} {'client':15}" + "".join(f"{name:>13}" for name in TIMERS) + f"{'16 to 1 ms':>13}"]
    for row in rows:
        gain = row["timer 1 ms"] / row["timer 16 ms"]
        text.append(f"{row['baud']:6} {row['client']:15}" + "".join(f"{row[name]:13.1f}" for name in TIMERS)
                    + f"{gain:7.1f} times")
    return text
