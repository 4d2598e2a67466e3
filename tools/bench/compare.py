"""Compares the figures of a run with those of the page: which became worse."""

KEYS = {"client": "{}", "baud": "{} baud", "values": "{} values", "variables": "{} variables", "timer": "timer {} ms",
        "trials": "{} trials", "minutes": "{} minutes"}
# These do not depend on the machine, as long as compiler and libraries are the same.
COUNTED = {"instructions", "allocations", "bytes", "wire", "heap", "system_calls", "bytes_per_value", "driver",
           "host_kit", "driver_instructions"}
VIRTUAL = {"reaction", "freshness"}
HIGHER_IS_BETTER = {"in_use", "in_use_but_for_device", "values_per_second", "transactions", "timer 16 ms", "timer 1 ms",
                    "no adapter", "answered"}
# Single extremes, what does not belong to the client, and what other figures contain.
LEFT_OUT = {"functions", "parts", "gaps", "gap_worst", "microseconds_best", "device_median", "woken_median",
            "sent_median"}
NOT_FIGURES = {"machine", "quick"}
ENVIRONMENT = ["processor", "processors", "kernel", "packages"]
LIMIT = 0.10


def figures(results):
    """The figures by their path: section, row, name."""
    found = {}
    for section, part in results.items():
        if section not in NOT_FIGURES:
            collect(part, (section,), found)
    return found


def collect(part, path, found):
    if isinstance(part, list):
        for row in part:
            collect(row, path, found)
    elif isinstance(part, dict):
        keys = [text.format(part[key]) for key, text in KEYS.items() if key in part]
        here = path + ((", ".join(keys),) if keys else ())
        for name, inner in part.items():
            if name not in KEYS and name not in LEFT_OUT:
                collect(inner, here + (name,), found)
    elif isinstance(part, (int, float)):
        found[path] = part


def depends_on_machine(path):
    return VIRTUAL.isdisjoint(path) and COUNTED.isdisjoint(path)


def worsening(path, page, now):
    """By which share the figure became worse; below 0 when it became better."""
    if page == 0:  # by no share: half a unit of what is counted, or of a millisecond
        return 0 if abs(now) < 0.5 else float("inf") if now > 0 else float("-inf")
    change = (now - page) / abs(page)
    return -change if path[-1] in HIGHER_IS_BETTER else change


def differences(page, now):
    """In what the environment of this run differs from that of the page."""
    return [f"{name}: {shown(now.get(name))} (the page: {shown(page.get(name))})"
            for name in ENVIRONMENT if now.get(name) != page.get(name)]


def shown(value):
    return ", ".join(value) if isinstance(value, list) else str(value)


def change_text(path, page, now):
    percent = f"{(now - page) / abs(page):+.0%}" if page else ""
    return f"{': '.join(path):74} {page:>12g} {now:>12g} {percent:>7}"


def report(page, now):
    """Lines of text."""
    other = differences(page["machine"], now["machine"])
    of_page, of_now = figures(page), figures(now)
    measured = {path for path in of_page if path in of_now}
    usable = [path for path in of_page if path in measured and not (other and depends_on_machine(path))]
    changes = [(path, of_page[path], of_now[path]) for path in usable]
    worse = [row for row in changes if worsening(*row) > LIMIT]
    better = [row for row in changes if worsening(*row) < -LIMIT]
    sections = {path[0] for path in of_now}
    missing = [path for path in of_page if path[0] in sections and path not in measured]

    text = [f"Compared with the figures of the page, of {page['machine'].get('date')}"]
    if other:
        text += ["This is another environment, so that times of the machine are not compared:", *other]
    else:
        text.append("The environment is the same.")
    text += [f"Worse by more than {LIMIT:.0%}:" if worse else f"Nothing is worse by more than {LIMIT:.0%}."]
    if worse:
        text += [f"{'figure':74} {'page':>12} {'now':>12} {'change':>7}"] + [change_text(*row) for row in worse]
    text.append(f"bench: {len(changes)} figures compared: {len(worse)} worse and {len(better)} better by more than "
                f"{LIMIT:.0%}")
    if len(usable) < len(measured):
        text.append(f"bench: {len(measured) - len(usable)} times of the machine were not compared")
    if missing:
        text.append(f"bench: {len(missing)} figures of the page were not measured in this run"
                    + (" (it was a quick one)" if now.get("quick") else ""))
    return text
