"""The clients that are compared, the controllers that they read from, and the line between them.

"reference host" is the driver with the poll loop of the reference host. It runs over a pseudo-terminal, as the
other clients do.
"""

import collections
import contextlib
import json
import os
import random
import re
import subprocess
import sys
import tempfile

import measure

CLIENTS = {"reference host": "client_host", "libmodbus": "client_libmodbus", "Qt SerialBus": "client_serialbus"}
HOST = "reference host"
SIZES = {client: [1, 10, 62 if client == HOST else 125] for client in CLIENTS}
BAUDS = [9600, 38400, 115200]
BITS_OF_BYTE = 10
COUNTED_BAUD = 9600  # slow enough that a client under valgrind still gets each byte alone
SETTLING = 12  # requests until the connection is made and the cycle runs
WORST_DATA = 0x10101010  # every byte is doubled on the wire

# What passed over the line, in order (direction, begin, end, bytes), and what the client printed.
Passed = collections.namedtuple("Passed", "runs output")


@contextlib.contextmanager
def running(command):
    """Starts a program that prints the path of its pseudo-terminal and serves it; yields the path and the process."""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as process:
        try:
            first = process.stdout.readline()
            path = re.search(r"/dev/\S+", first)
            if not path:
                sys.exit(f"bench: {' '.join(command)} opened no pseudo-terminal: {first}")
            yield path.group(0), process
        finally:
            process.terminate()


class Bench:
    """The programs of the benchmark and the controllers that they read from."""

    def __init__(self, bin_dir, out_dir, quick):
        self.bin_dir = os.path.abspath(bin_dir)
        self.out_dir = out_dir
        self.quick = quick
        self.devices = {}
        self.scratch = None

    @contextlib.contextmanager
    def controllers(self):
        with contextlib.ExitStack() as stack:
            self.scratch = stack.enter_context(tempfile.TemporaryDirectory())
            responder, _ = stack.enter_context(running([self.program("modbus_responder")]))
            random.seed(1)
            values = [random.randint(-2**31, 2**31 - 1) for _ in range(62)]
            simulator, _ = stack.enter_context(self.simulator("random", values))
            worst, _ = stack.enter_context(self.simulator("worst", [WORST_DATA] * 62))
            self.devices = {client: responder for client in CLIENTS}
            self.devices[HOST] = simulator
            self.devices["worst data"] = worst
            yield

    def program(self, name):
        return f"{self.bin_dir}/{name}"

    def simulator(self, name, values):
        path = f"{self.scratch}/{name}.json"
        with open(path, "w", encoding="utf-8") as file:
            json.dump({"tags": [{"name": "Values", "type": "DINT", "length": 62, "value": values}]}, file)
        return running([self.program("micro850-sim"), path, "--quiet"])

    def command(self, client, values, reads, device=None, baud=115200):
        return [self.program(CLIENTS[client]), device or self.devices[client], str(baud), str(values), str(reads)]

    def reads_in(self, client, values, baud, seconds, timer=None):
        """About as many reads as a line of this speed carries in this time."""
        expected = 70 + 4 * values if client == HOST else 13 + 2 * values
        duration = expected * BITS_OF_BYTE / baud + (timer or 0) / 1000
        return max(10, int(seconds / duration))

    def paced(self, client, values, baud, reads, device=None, *, timer=None, env=None, prefix=()):
        """A client reads over a line of this speed; `timer` is the latency timer of an adapter in milliseconds, `prefix`
        a program that runs the client."""
        line = [self.program("paced_line"), device or self.devices[client], str(baud)]
        with running(line + (["--timer", str(timer)] if timer else [])) as (path, process):
            command = [*prefix, *self.command(client, values, SETTLING + reads, device=path, baud=baud)]
            output = measure.output_of(command, env=dict(os.environ, **(env or {}))).stdout
            process.terminate()
            lines = process.stdout.read().split("\n")
        fields = [text.split() for text in lines if text]
        return Passed([(run[0], *map(int, run[1:])) for run in fields], output)


def exchanges(runs):
    """Pairs of request and reply of the running cycle, without the runs that nothing answers."""
    pairs = [(request, reply) for request, reply in zip(runs, runs[1:]) if request[0] == ">" and reply[0] == "<"]
    return pairs[SETTLING:]


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * percent / 100))]
