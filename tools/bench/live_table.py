"""What the live table of micro850-host poll costs on a full line. Section table."""

import contextlib
import fcntl
import json
import os
import pty
import select
import struct
import subprocess
import termios
import time

import clients

BAUD = 115200
VARIABLES = 2000
ELEMENTS = 500  # of each array
WINDOW = (40, 120)
SETTLING = 8  # seconds until every variable has been read
TIMERS = [None, 1]  # milliseconds; a byte at a time, and as a USB adapter hands bytes over


def plant():
    """Tags of which every value moves, and a project that shows each element as a variable."""
    motion = {"kind": "ramp", "min": 0, "max": 30000, "period": 20}
    tags = [{"name": f"A{i}", "type": "INT", "length": ELEMENTS, "motion": motion}
            for i in range(VARIABLES // ELEMENTS)]
    variables = [{"name": f"{tag['name']}_{i}", "tag": tag["name"], "element": i} for tag in tags
                 for i in range(ELEMENTS)]
    return {"tags": tags}, {"variables": variables}


@contextlib.contextmanager
def on_terminal(command):
    """A program on a terminal of its own; yields its process and a function that reads what it draws for some time."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", *WINDOW, 0, 0))
    environment = dict(os.environ, TERM="xterm", LC_ALL="C.UTF-8")
    with subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, env=environment) as process:
        os.close(slave)

        def drawn(seconds):
            end, count = time.monotonic() + seconds, 0
            while (left := end - time.monotonic()) > 0:
                if select.select([master], [], [], left)[0]:
                    count += len(os.read(master, 65536))
            return count
        try:
            yield process, drawn
        finally:
            process.kill()
            os.close(master)


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    tick = os.sysconf("SC_CLK_TCK")
    return int(fields[11]) / tick, int(fields[12]) / tick


def load(bench, timer):
    seconds = 5 if bench.quick else 20
    tags, project = plant()
    for name, content in (("table.tags.json", tags), ("table.json", project)):
        with open(f"{bench.scratch}/{name}", "w", encoding="utf-8") as file:
            json.dump(content, file)
    simulator = [bench.program("micro850-sim"), f"{bench.scratch}/table.tags.json", "--quiet"]
    line = [bench.program("paced_line")]
    timers = ["--timer", str(timer)] if timer else []
    with clients.running(simulator) as (device, _), clients.running(line + [device, str(BAUD)] + timers) as (path, paced):
        command = [bench.program("micro850-host"), "poll", f"{bench.scratch}/table.json", "--port", path, "--baud",
                   str(BAUD), "--interval", "0", "--driver", bench.program("libmicro850.so")]
        with on_terminal(command) as (process, drawn):
            drawn(SETTLING)
            before = processor_seconds(process.pid)
            count = drawn(seconds)
            after = processor_seconds(process.pid)
        paced.terminate()
        runs = [list(map(int, line.split()[1:])) for line in paced.stdout.read().splitlines() if line]
    user, system = ((now - then) / seconds for then, now in zip(before, after))
    return {"baud": BAUD, "variables": VARIABLES, "timer": timer or 0, "user_share": user, "system_share": system,
            "in_use": in_use(runs), "drawn": count / seconds}


def in_use(runs):
    """The share of the time that carries bytes, from the first to the last."""
    carried = sum(size for _, _, size in runs) * clients.BITS_OF_BYTE / BAUD
    return carried / ((runs[-1][1] - runs[0][0]) / 1e9)


def live_table(bench):
    return [load(bench, timer) for timer in TIMERS]


def table_of(rows):
    return [f"micro850-host poll shows {VARIABLES} variables, all of which change, in a window of "
            f"{WINDOW[1]} columns and {WINDOW[0]} rows,", "drawn twice a second; shares of one processor",
            f"{'speed':>12} {'adapter':>9} {'program':>8} {'system':>8} {'line in use':>11} {'drawn bytes/s':>14}",
            *(f"{row['baud']:>7} baud {str(row['timer']) + ' ms' if row['timer'] else 'none':>9} "
              f"{row['user_share']:8.1%} {row['system_share']:8.1%} {row['in_use']:11.1%} "
              f"{row['drawn']:14.0f}" for row in rows)]
