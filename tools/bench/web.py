"""web.py PROGRAMS [--seconds N] [--write DOCUMENT]: what the page costs: bytes and time of the first page in a browser, the
gateway's processor time and memory with many readers of many values. Called by scripts/web-bench. Nothing here passes or
fails."""

import argparse
import http.client
import json
import os
import re
import selectors
import socket
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests/page"))
from browser import Browser, version  # noqa: E402
from plant import Plant, await_that  # noqa: E402

LINES, VARIABLES, READERS = 4, 250, 50  # 1,000 variables
INTERVAL_MS = 500

# Notes when the first value of the table is in the page.
WATCH_FIRST_VALUE = """
new MutationObserver((changes, observer) => {
  for (const cell of document.querySelectorAll('.values .body .cell.value')) {
    if (/\\d/.test(cell.textContent)) {
      window.__firstValue = performance.now();
      observer.disconnect();
      return;
    }
  }
}).observe(document, {childList: true, subtree: true, characterData: true});
"""


def lines():
    tags = [{"name": "Data", "type": "INT", "length": VARIABLES,
             "motion": {"kind": "ramp", "min": 0, "max": 30000, "period": 97}}]
    variables = [{"tag": "Data", "type": "INT", "element": i, "name": f"Value{i}", "intervalMs": INTERVAL_MS}
                 for i in range(VARIABLES)]
    return {f"line{i}": (tags, variables) for i in range(LINES)}


def processor_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def own_memory(pid):
    """Bytes that only this process has."""
    text = Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return sum(int(kb) for kb in re.findall(r"Private_(?:Clean|Dirty): *(\d+) kB", text)) * 1024


class Readers:
    """Programs that read all events, and count them."""

    def __init__(self, port, count):
        self.selector = selectors.DefaultSelector()
        self.bytes, self.values = 0, 0
        for _ in range(count):
            reader = socket.create_connection(("127.0.0.1", port))
            reader.sendall(b"GET /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % port)
            reader.setblocking(False)
            self.selector.register(reader, selectors.EVENT_READ)

    def read(self, seconds):
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            for key, _ in self.selector.select(until - time.monotonic()):
                data = key.fileobj.recv(1 << 20)
                if not data:
                    sys.exit("web-bench: the gateway has closed the stream of a reader")
                self.bytes += len(data)
                self.values += data.count(b'"name":')

    def close(self):
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()
        self.selector.close()


def memory_without_page(programs):
    plant = Plant(programs, lines())
    plant.configuration.pop("web")
    plant.is_ready = lambda: (plant.folder / "gateway.sock").exists()
    try:
        plant.start()
        time.sleep(3)
        return own_memory(plant.gateway.pid)
    finally:
        plant.end()


def load(plant, seconds):
    """With all readers: the shares of a processor, and what they get."""
    pid = plant.gateway.pid
    idle = own_memory(pid)
    before = processor_seconds(pid)
    begin = time.monotonic()
    time.sleep(seconds)
    alone = (processor_seconds(pid) - before) / (time.monotonic() - begin)
    readers = Readers(plant.port, READERS)
    readers.read(2)
    readers.bytes = readers.values = 0
    before = processor_seconds(pid)
    begin = time.monotonic()
    readers.read(seconds)
    took = time.monotonic() - begin
    share = (processor_seconds(pid) - before) / took
    memory = own_memory(pid)
    readers.close()
    return {"share_without_readers": alone, "share": share, "values_per_second": readers.values / took,
            "bytes_per_second": readers.bytes / took, "memory_without_readers": idle, "memory": memory}


def bytes_of(plant, path):
    """What a request of the shared worker moves: the browser's log of the page does not have these."""
    connection = http.client.HTTPConnection("127.0.0.1", plant.port, timeout=30)
    connection.request("GET", path, headers={"Accept-Encoding": "gzip"})
    response = connection.getresponse()
    size = sum(len(f"{name}: {value}\r\n") for name, value in response.getheaders()) + len(response.read())
    connection.close()
    return size


def first_page(plant):
    """Bytes of the first page in all its requests but the stream, and when the first value was in the table."""
    browser = Browser(traces_requests=True)
    try:
        browser.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": WATCH_FIRST_VALUE})
        browser.driver.get_log("performance")
        browser.open(plant.address + "#/values")
        cold = await_that("the first value", lambda: browser.run("return window.__firstValue"))
        time.sleep(1)
        sizes, urls = {}, {}
        for entry in browser.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            parameters = message["params"]
            if message["method"] == "Network.responseReceived":
                urls[parameters["requestId"]] = parameters["response"]["url"]
            if message["method"] == "Network.loadingFinished":
                sizes[parameters["requestId"]] = parameters["encodedDataLength"]
        warm = []
        for _ in range(5):
            browser.open(plant.address + "#/values")
            warm.append(await_that("the first value", lambda: browser.run("return window.__firstValue")))
        files = {url: sizes[key] for key, url in urls.items() if key in sizes and plant.address in url}
        for path in ("api/v1/values?lastEvent=1", "api/v1/variables", "api/v1/status"):
            files[plant.address + path] = bytes_of(plant, "/" + path)
        return {"browser": version(), "bytes": sum(files.values()), "requests": len(files), "first_ms": cold,
                "again_ms": sorted(warm)[len(warm) // 2], "files": files}
    finally:
        browser.end()


def table(results):
    page, many = results["page"], results["load"]
    def share(number):
        return f"{number:.1%}".replace("%", " %")
    rows = [
        ("first page, all its files and first values", f"{page['bytes'] / 1000:.0f} kB in {page['requests']} requests"),
        ("first value in the table, browser's cache empty", f"{page['first_ms']:.0f} ms"),
        ("first value in the table, opened again", f"{page['again_ms']:.0f} ms"),
        (f"gateway, {LINES * VARIABLES:,} variables at {1000 / INTERVAL_MS:g} Hz, no reader",
         share(many["share_without_readers"]) + " of a core"),
        (f"gateway with {READERS} readers", share(many["share"]) + " of a core"),
        ("what the readers get", f"{many['values_per_second']:,.0f} values/s, "
         f"{many['bytes_per_second'] / 1e6:.1f} MB/s"),
        ("memory of the gateway without the page", f"{results['memory_without_page'] / 1e6:.1f} MB"),
        ("with the page, no reader", f"{many['memory_without_readers'] / 1e6:.1f} MB"),
        (f"with {READERS} readers", f"{many['memory'] / 1e6:.1f} MB"),
    ]
    return "\n".join(["| | |", "|---|---|"] + [f"| {what} | {figure} |" for what, figure in rows]) + "\n"


def main():
    parser = argparse.ArgumentParser(prog="web-bench")
    parser.add_argument("programs")
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--files", action="store_true", help="lists what the first page is made of")
    parser.add_argument("--write")
    options = parser.parse_args()
    results = {"memory_without_page": memory_without_page(options.programs)}
    plant = Plant(options.programs, lines(), {"connectionsPerAddress": READERS + 10})
    try:
        plant.start()
        results["page"] = first_page(plant)
        results["load"] = load(plant, options.seconds)
    finally:
        plant.end()
    shown = table(results)
    print(shown, end="")
    if options.files:
        for url, size in sorted(results["page"]["files"].items(), key=lambda item: -item[1]):
            print(f"{size:8} {url}", file=sys.stderr)
    if options.write:
        document = Path(options.write)
        begin, end = "<!-- web-bench -->\n", "<!-- end of web-bench -->"
        text = document.read_text(encoding="utf-8")
        if begin not in text or end not in text:
            sys.exit(f"web-bench: {document} has no place for the figures: it must have the lines {begin.strip()} and {end}")
        before, rest = text.split(begin, 1)
        document.write_text(before + begin + shown + rest[rest.index(end):], encoding="utf-8")


main()
