"""What the driver itself costs, with replies prepared beforehand: sections cost and growth."""

import re

import measure

SECTIONS = ["cost", "growth"]
KINDS = ["int", "dint", "int15", "lreal", "string20", "write", "handshake"]
SIZES = [10, 100, 1000, 10000, 100000]
OPERATIONS = ["cyclic", "fetch", "set", "rebuild"]


def cost(bin_dir, out_dir, quick):
    return {kind: measure.transaction(bin_dir, kind, quick, f"{out_dir}/{kind}.callgrind") for kind in KINDS}


def growth(bin_dir, out_dir, quick):
    rows = []
    for size in SIZES[:3] if quick else SIZES:
        row = {"variables": size, "nanoseconds": measure.nanoseconds(bin_dir, "growth", size, 0.1 if quick else 0.5),
               "instructions": {}, "heap": heap_of_variables(bin_dir, size)}
        for operation in OPERATIONS:
            number = 3 if operation == "rebuild" else max(size, 2000)
            row["instructions"][operation] = round(measure.instructions(
                f"{bin_dir}/bench_steps", "growth", operation, number, size, f"{out_dir}/growth.callgrind"))
        rows.append(row)
    return rows


def heap_of_variables(bin_dir, variables):
    """Bytes in use for each variable except the first, including its entry in the benchmark's own list."""
    def in_use(count):
        text = measure.output_of([f"{bin_dir}/bench_steps", "growth", "fetch", "1", str(count)]).stdout
        return int(re.search(r"heap (\d+)", text).group(1))
    return round((in_use(variables) - in_use(1)) / (variables - 1))


# ---- Tables


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


def run(bin_dir, out_dir, quick, sections):
    """Results by section, ready for JSON."""
    measures = {"cost": cost, "growth": growth}
    results = {}
    for name in SECTIONS:
        if name in sections:
            measure.announce(name)
            results[name] = measures[name](bin_dir, out_dir, quick)
    return results
