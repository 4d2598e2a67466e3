"""page_test.py PROGRAMS PICTURES [GROUP...]: the page of the gateway in a real browser, before a real gateway and simulated
controllers. PICTURES is the folder where what the browser drew is kept."""

import csv
import datetime
import io
import itertools
import json
import re
import signal
import statistics
import subprocess
import sys
import time
import unittest
from pathlib import Path
from urllib.parse import urlsplit

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from browser import Browser
from plant import PATIENCE, Plant, await_that

HOSTILE = "<img src=x onerror=\"document.title='markup ran'\">"
SECOND = 1.0

PRESS_TAGS = [
    {"name": "PumpRunning", "type": "BOOL", "value": True},
    {"name": "Speed", "type": "INT", "value": 1234},
    {"name": "PartsMade", "type": "DINT", "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.5}},
    {"name": "Recipe", "type": "DINT", "length": 20, "value": [i * 1000 for i in range(20)]},
    {"name": "EnergyTotal", "type": "LINT", "value": 9007199254740993},
    {"name": "SerialNumber", "type": "ULINT", "value": 18446744073709551615},
    {"name": "ProductName", "type": "SHORT_STRING", "value": HOSTILE},
    {"name": "Trap", "type": "INT", "value": 7},
]
PRESS = [
    {"tag": "PumpRunning", "type": "BOOL", "intervalMs": 200, "writable": True},
    {"tag": "Speed", "type": "INT", "unit": "1/min", "intervalMs": 100},
    {"tag": "PartsMade", "type": "DINT", "intervalMs": 500},
    {"tag": "Recipe", "type": "DINT", "length": 20, "intervalMs": 500, "writable": True, "minimum": 0,
     "maximum": 20000},
    {"tag": "EnergyTotal", "type": "LINT", "unit": "kWh", "intervalMs": 500, "writable": True},
    {"tag": "SerialNumber", "type": "ULINT", "intervalMs": 500},
    {"tag": "ProductName", "type": "SHORT_STRING", "name": "Product", "intervalMs": 500},
    {"tag": "NoSuchTagInThisController", "type": "INT", "name": "Absent", "intervalMs": 500},
    {"tag": "Trap", "type": "INT", "name": HOSTILE, "intervalMs": 500},
]
OVEN_TAGS = [
    {"name": "Temperature", "type": "REAL", "motion": {"kind": "sine", "min": 18.5, "max": 24.5, "period": 15}},
    {"name": "Setpoint", "type": "REAL", "value": 21.5},
    {"name": "Spare", "type": "REAL", "value": 1.5},
    {"name": "Spares", "type": "REAL", "length": 3, "value": [1, 2, 3]},
    {"name": "Pressure", "type": "UINT", "motion": {"kind": "sine", "min": 900, "max": 1100, "period": 12}},
]
OVEN = [
    {"tag": "Temperature", "type": "REAL", "unit": "°C", "intervalMs": 250, "deadband": 0.1},
    {"tag": "Setpoint", "type": "REAL", "unit": "°C", "intervalMs": 250, "writable": True, "minimum": 0, "maximum": 80},
    {"tag": "Pressure", "type": "UINT", "unit": "mbar", "intervalMs": 250},
]

# What one row of the table shows, by the name of its variable; null when it is not drawn.
ROW = """
for (const row of document.querySelectorAll('.values .body .row')) {
  const name = row.querySelector('.cell.name a, .cell.name span');
  if (!name || name.textContent !== arguments[0])
    continue;
  const word = row.querySelector('.cell.quality .word');
  const text = part => row.querySelector(`.cell.${part}`).innerText;
  return {value: text('value'), type: text('type'), age: text('age'), quality: word.innerText, reason: word.title,
          classes: row.className, colour: getComputedStyle(row.querySelector('.cell.value')).color,
          mark: getComputedStyle(word).color};
}
return null;
"""


# Drives the page's own feed by a stream that the test makes. Gives the messages after each step.
FEED = """
const done = arguments[0];
(async () => {
  let source = null;
  const Real = {EventSource: window.EventSource, fetch: window.fetch, setInterval: window.setInterval};
  window.EventSource = class {
    constructor(address) { source = this; this.address = address; this.on = {}; this.readyState = 1; }
    addEventListener(name, handler) { this.on[name] = handler; }
    close() {}
    send(name, data) { this.on[name]({data: JSON.stringify(data)}); }
  };
  window.EventSource.CLOSED = 2;
  let reply = {ok: false};
  window.fetch = async address => address.startsWith('/api/v1/values') ? reply : new Promise(() => {});
  window.setInterval = () => 0;
  const opened = async () => { while (!source) await new Promise(resolve => setTimeout(resolve)); };
  const told = [];
  const {Feed} = await import('/page/feed.js');
  const tell = message => told.push(message.kind === 'connection' ? message.state : message.kind);
  const feed = new Feed(tell);
  await opened();
  const addresses = [source.address];
  const steps = {};
  const step = (name, act) => { act(); steps[name] = [feed.state, ...told.splice(0)]; };
  const value = name => ({line: 'a', name, value: 1, quality: 'good', ageMs: 100});
  step('open', () => source.onopen());
  step('part', () => source.send('snapshot', {values: [value('x')], more: true}));
  step('snapshot', () => source.send('snapshot', {values: [value('y')]}));
  step('lost', () => { source.readyState = 0; source.onerror(); });
  step('open again', () => source.onopen());
  step('part again', () => source.send('snapshot', {values: [value('x')], more: true}));
  step('ages in a snapshot', () => source.send('ages', {ages: {a: [5, 5]}}));
  step('snapshot again', () => source.send('snapshot', {values: [value('y')]}));
  step('part of gone ones', () => source.send('snapshot', {values: [value('gone')], more: true}));
  step('reloaded', () => source.send('reloaded', {}));
  source.send('snapshot', {values: [value('gone')], more: true});
  source.onerror();
  source.onopen();
  step('of those there are', () => source.send('snapshot', {values: [value('x'), value('y')]}));
  step('lost again', () => source.onerror());
  step('open to resume', () => source.onopen());
  step('missed', () => source.send('values', {values: [value('x')]}));
  step('ages', () => source.send('ages', {ages: {a: [5, 6]}}));
  const ages = [...feed.values.values()].map(value => value.ageMs);
  source = null;
  reply = {ok: true, json: async () => ({values: [value('x')], lastEvent: 'run&1-7'})};
  const other = new Feed(tell);
  await opened();
  addresses.push(source.address);
  steps['values first'] = [other.state, ...told.splice(0)];
  source.onopen();
  source.send('values', {values: [{...value('x'), value: 2}]});
  source.send('ages', {ages: {a: [5]}});
  steps['then the stream'] = [other.state, ...told.splice(0), [...other.values.values()][0].value];
  Object.assign(window, Real);
  const {ageOf, plant} = await import('/page/live.js');
  const before = plant.connection;
  plant.connection = 'live';
  const held = ageOf({ageMs: 300, heard: Date.now() - 1000});
  const grown = ageOf({ageMs: 300, heard: Date.now() - 5000});
  plant.connection = 'lost';
  const lost = ageOf({ageMs: 300, heard: Date.now() - 1000});
  plant.connection = before;
  steps.never = [ageOf({ageMs: null, heard: 0})];
  done([steps, addresses, ages, held, grown, lost]);
})().catch(error => done(String(error)));
"""


class Page(unittest.TestCase):
    """Tests that share a plant and a browser."""

    lines = {"press": (PRESS_TAGS, PRESS), "oven": (OVEN_TAGS, OVEN)}
    web = {}
    more = {"history": {"file": "history.sqlite"}}
    has_token = False

    @classmethod
    def setUpClass(cls):
        cls.plant = Plant(PROGRAMS, cls.lines, dict(cls.web), cls.more)
        cls.addClassCleanup(cls.plant.end)
        cls.prepare(cls.plant)
        cls.token = cls.plant.make_token() if cls.has_token else None
        cls.plant.start()
        cls.browser = Browser()
        cls.addClassCleanup(cls.end_browser)

    @classmethod
    def end_browser(cls):
        """No page and no worker asked anybody but the gateway."""
        origin = f"http://127.0.0.1:{cls.plant.port}"
        asked = cls.browser.end()
        foreign = {(who, url) for who, url in asked if who != origin or not url.startswith((origin + "/", f"blob:{origin}/"))}
        if foreign:
            raise AssertionError(f"a request to elsewhere: {foreign}")
        if not any(url.startswith(origin + "/api/v1/events") for _, url in asked):
            raise AssertionError(f"the record lacks the stream of the worker: {asked}")

    @classmethod
    def prepare(cls, plant):
        """What is there before the gateway starts."""

    def setUp(self):
        self.browser.close_tabs()
        self.browser.look()
        self.refusals = []

    def tearDown(self):
        self.browser.close_tabs()
        self.browser.gather()
        complaints, self.browser.complaints = self.browser.complaints, []
        refused, others = [], []
        for text in complaints:
            # The browser notes each refusal of the gateway.
            found = re.fullmatch(r"SEVERE: (\S+) - Failed to load resource: the server responded with a status of (\d+).*", text)
            if found:
                refused.append((int(found[2]), urlsplit(found[1]).path))
            elif not self.is_expected(text):
                others.append(text)
        self.assertEqual(others, [])
        self.assertEqual(sorted(refused), sorted(self.refusals), "what the gateway refused")

    def assert_takes(self, limit, measure, count):
        """The median of so many in a row is below the limit. A busy machine is given some more of them."""
        times = []
        for _ in range(6 * count):
            times.append(measure())
            if len(times) >= count and statistics.median(times[-count:]) < limit:
                return
        self.fail(f"takes longer than {limit} s: {times}")

    def expect_refusal(self, status, path):
        """The test provokes it, once."""
        self.refusals.append((status, path))

    def is_expected(self, complaint):
        """Whether the browser had to complain so. A test that breaks something says what."""
        return "willReadFrequently" in complaint  # a test read a picture

    def show(self, view):
        self.browser.open(f"{self.plant.address}#/{view}")

    def row(self, name):
        return self.browser.run(ROW, name)

    def await_row(self, name, what, condition, patience=PATIENCE):
        try:
            return await_that(f"{name}: {what}", lambda: (lambda row: row and condition(row) and row)(self.row(name)),
                              patience)
        except AssertionError as error:
            raise AssertionError(f"{error}; the row is {self.row(name)}; the page is:\n{self.browser.text()}") from None

    def await_live(self):
        self.await_row("Speed", "has a value", lambda row: row["quality"] == "good")

    def log_in(self, token):
        self.browser.open(self.plant.address + "login")
        self.browser.one("#token").send_keys(token, Keys.ENTER)


class Live(Page):
    """What the plant does is on the page soon."""

    def test_a_change_in_the_controller_is_shown_within_a_second(self):
        self.show("values")
        self.await_live()
        values = itertools.count(1501)

        def change():
            value = next(values)
            begin = time.monotonic()
            self.plant.controllers["press"].set(Speed=value)
            self.await_row("Speed", f"is {value}", lambda row: re.sub(r"\D", "", row["value"].split("1/min")[0]) ==
                           str(value))
            return time.monotonic() - begin
        self.assert_takes(SECOND, change, 5)

    def test_a_line_that_is_pulled_is_grey_with_the_reason_within_two_seconds_and_comes_back(self):
        self.show("values")
        self.await_live()
        good = self.row("Speed")
        pulled = []

        def pull():
            if pulled:
                self.plant.controllers["press"].start()
                self.await_row("Speed", "is good again", lambda row: row["quality"] == "good")
            begin = time.monotonic()
            self.plant.controllers["press"].pull()
            pulled.append(self.await_row("Speed", "is stale", lambda row: row["quality"] == "stale" and row["reason"]))
            return time.monotonic() - begin
        self.assert_takes(2 * SECOND, pull, 1)
        stale = pulled[-1]
        self.assertIn("is-old", stale["classes"])
        self.assertNotEqual(stale["colour"], good["colour"])
        self.assertNotEqual(stale["mark"], good["mark"])
        self.assertEqual(self.row("Setpoint")["quality"], "good", "the other line goes on")
        self.show("overview")
        self.browser.await_text("down")
        self.browser.picture(PICTURES / "line-pulled.png")
        self.show("values")
        self.plant.controllers["press"].start()
        back = self.await_row("Speed", "is good again", lambda row: row["quality"] == "good")
        self.assertEqual(back["colour"], good["colour"])
        self.assertEqual(back["reason"], "")

    def test_names_and_texts_of_controllers_are_data(self):
        for view in ("values", "overview", "journal", "trend?v=" + "press%2F" + "".join(
                f"%{byte:02X}" for byte in HOSTILE.encode())):
            self.show(view)
            self.browser.await_text("live", "#connection")
            self.assertEqual(self.browser.run("return document.querySelectorAll('img[onerror], img[src=x]').length"), 0)
            self.assertNotEqual(self.browser.run("return document.title"), "markup ran")
            if view.startswith("trend"):
                self.browser.await_text(HOSTILE)
        self.show("values")
        row = self.await_row(HOSTILE, "has a value", lambda row: row["quality"] == "good")
        self.assertEqual(row["value"], "7")
        self.assertEqual(self.await_row("Product", "has a text", lambda row: row["value"])["value"], HOSTILE)

    def test_integers_of_64_bits_are_exact(self):
        self.show("values")
        self.await_live()
        self.assertEqual(re.sub(r"\D", "", self.row("SerialNumber")["value"]), "18446744073709551615")
        self.assertEqual(re.sub(r"\D", "", self.row("EnergyTotal")["value"].replace("kWh", "")), "9007199254740993")

    def test_is_searched_sorted_and_grouped_and_arrays_open_and_the_address_brings_it_back(self):
        self.show("values")
        self.await_live()
        names = "return [...document.querySelectorAll('.values .body .cell.name')].map(one => one.innerText.trim())"
        self.browser.one(".tools input[type=search]").send_keys("s*point")
        await_that("the search chooses", lambda: self.browser.run(names) == ["Setpoint"])
        self.assertIn("1 of 12", self.browser.text(".count"))
        search = self.browser.one(".tools input[type=search]")
        search.clear()
        search.send_keys("r")
        self.browser.click(".heads .name button")
        await_that("the order is that of the names", lambda: "ascending" in self.browser.run(
            "return document.querySelector('.heads .name').getAttribute('aria-sort') || ''"))
        self.browser.click(".cell.open button")
        self.await_row("Recipe[3]", "is shown", lambda row: re.sub(r"\D", "", row["value"]) == "3000")
        address = self.browser.run("return location.href")
        shown = self.browser.run(names)
        self.browser.open(address)
        self.await_row("Recipe[3]", "is shown again", lambda row: row["quality"] == "good")
        self.assertEqual(self.browser.run(names), shown)

    def test_eight_tabs_of_one_browser_are_all_live(self):
        tabs = [self.browser.tab(self.plant.address + "#/values") for _ in range(8)]
        for tab in tabs:
            self.browser.to(tab)
            self.await_live()
        self.plant.controllers["press"].set(Speed=4321)
        for tab in tabs:
            self.browser.to(tab)
            self.await_row("Speed", "has the new value",
                           lambda row: re.sub(r"\D", "", row["value"].split("1/min")[0]) == "4321")
        clients = self.plant.json("/api/v1/status")
        self.assertIn("lines", clients)  # a connection was left for another program

    def test_a_browser_without_shared_workers_is_live_too(self):
        broken = """window.SharedWorker = class {
            constructor() {
              this.port = {postMessage() {}};
              setTimeout(() => this.onerror?.(new Event('error')));
            }
          };"""
        for number, script in enumerate(("window.SharedWorker = undefined;", broken)):
            with self.subTest(script), self.browser.before_each_page(script):
                self.show("values")
                self.await_live()
                self.browser.await_text("live", "#connection")
                value = 1700 + number
                self.plant.controllers["press"].set(Speed=value)
                self.await_row("Speed", "has the new value",
                               lambda row: re.sub(r"\D", "", row["value"].split("1/min")[0]) == str(value))

    def test_the_page_is_live_only_when_it_has_got_what_it_missed(self):
        self.show("values")
        self.await_live()
        result = self.browser.driver.execute_async_script(FEED)
        self.assertIsInstance(result, list, result)
        steps, addresses, ages, held, grown, lost = result
        self.assertEqual(steps, {
            "open": ["connecting"],
            "part": ["connecting"],
            "snapshot": ["live", "snapshot", "live"],
            "lost": ["lost", "lost"],
            "open again": ["lost"],
            "part again": ["lost"],
            "ages in a snapshot": ["lost"],
            "snapshot again": ["live", "snapshot", "live"],
            "part of gone ones": ["live"],
            "reloaded": ["live"],
            "of those there are": ["live", "lost", "snapshot", "live"],
            "lost again": ["lost", "lost"],
            "open to resume": ["lost"],
            "missed": ["lost", "values"],
            "ages": ["live", "ages", "live"],
            "values first": ["connecting", "snapshot"],
            "then the stream": ["live", "values", "ages", "live", 2],
            "never": [None]})
        self.assertEqual(addresses, ["/api/v1/events", "/api/v1/events?after=run%261-7"])
        self.assertEqual(ages, [5, 6])
        self.assertEqual(held, 300)
        self.assertGreaterEqual(grown, 5300, "a connection hangs that is not closed")
        self.assertGreaterEqual(lost, 1300)

    def test_a_table_that_is_left_and_opened_again_and_again_leaves_nothing_behind(self):
        self.show("values")
        self.await_live()
        for view in ("overview", "values", "journal", "values", "trend", "values") * 3:
            self.browser.click(f"#to-{view}")
            self.browser.await_text("live", "#connection")
        self.await_live()
        self.assertEqual(len(self.browser.all(".values")), 1)


    def test_the_legend_says_since_when_a_value_holds(self):
        self.plant.controllers["oven"].set(Setpoint=30)
        self.show("values")
        self.await_row("Setpoint", "is 30", lambda row: row["value"].startswith("30"))
        rows = await_that("the history has it", lambda: [
            point for point in self.plant.json(
                f"/api/v1/history?line=oven&name=Setpoint&from={iso((time.time() - 60) * 1000)}"
                f"&to={iso((time.time() + 1) * 1000)}&points=800")["points"] if point[3] == 30])
        self.show("trend?v=oven%2FSetpoint&span=600")
        since = await_that("the legend tells it", lambda: [
            text for text in [self.browser.text(".legend td.time")] if text not in ("", "–") and not text.startswith("before")])[0]
        told = self.browser.run("return import('/page/format.js').then(made => made.timeText(arguments[0]))", rows[0][0])
        self.assertEqual(since, told)
        self.show("trend?v=press%2FSerialNumber&span=60")
        await_that("a rounded number says so", lambda: self.browser.text(".legend td.value").startswith("about "))

    def test_a_trend_tells_since_when_a_value_holds(self):
        told = self.browser.run("""
            return import('/page/series.js').then(({Series}) => {
              const series = new Series({label: 'a/b'});
              const since = time => (({time, isBefore}) => [time, isBefore])(series.at(time));
              const told = {};
              series.replace([[100, 1, 1, 1], [200, 2, 2, 2], [300, 2, 2, 2], [400, 2, 2, 2]], 0, 100);
              told.closed = [since(150), since(250), since(400), since(900)];
              series.forgetBefore(350);
              told.forgotten = [since(350), [...series.times]];
              series.takeLive(500, 2, 9, true);
              told.again = since(500);
              series.replace([[0, 1, 3, 2], [10, 2, 2, 2], [20, 2, 4, 2], [30, 2, 2, 2]], 10, 0);
              told.parts = [since(5), since(15), since(25), since(35)];
              series.replace([[0, 1, 1, 1], [5, null, null, null], [9, 1, 1, 1]], 0, 0);
              told.gap = [series.at(6), since(9)];
              return told;
            });""")
        self.assertEqual(told, {
            "closed": [[100, True], [200, False], [200, False], [200, False]],
            "forgotten": [[200, False], [200, 400]],
            "again": [200, False],
            "parts": [[10, True], [10, True], [20, False], [20, False]],
            "gap": [None, [9, False]]})

    def test_a_trend_forgets_what_its_name_meant_before_a_reload(self):
        told = self.browser.run("""
            return import('/page/series.js').then(({Series}) => {
              const series = new Series({label: 'a/b'});
              const variable = {station: 1, tag: 'One', element: 0, type: 'INT'};
              const told = [series.mean({variable, element: null})];
              series.takeLive(5, 7, 9, true);
              told.push(series.mean({variable, element: null}), series.mean(null), series.mean({variable, element: null}),
                        series.times.length);
              variable.tag = 'Two';
              told.push(series.mean({variable, element: null}), series.times.length, series.recent.length);
              return told;
            });""")
        self.assertEqual(told, [True, False, False, False, 1, True, 0, 0])

    def test_a_tab_that_is_gone_without_a_word_is_given_up(self):
        told = self.browser.run("""
            return import('/page/ports.js').then(({Ports}) => {
              const ports = new Ports();
              const tab = () => ({got: [], postMessage(message) { this.got.push(message.kind); }});
              const [good, crashed] = [tab(), tab()];
              const told = [ports.take(good, 'hello'), ports.take(crashed, 'hello')];
              for (let i = 0; i < 5; ++i) {
                ports.ask();
                ports.take(good, 'here');
              }
              told.push(ports.size);
              ports.post({kind: 'values'});
              told.push(good.got.length, crashed.got.length, ports.take(crashed, 'here'), ports.size);
              ports.take(good, 'bye');
              told.push(ports.size);
              return told;
            });""")
        self.assertEqual(told, [True, True, 1, 6, 3, True, 2, 1])

    def test_a_reason_is_shown_whole_to_who_touches_it(self):
        self.browser.look(360, 740)
        self.show("values?search=Absent")
        reason = self.await_row("Absent", "has a reason", lambda row: row["quality"] != "good" and row["reason"])["reason"]
        self.browser.click(".cell.name .soft[tabindex]")
        seen = self.browser.run("""
            const one = document.querySelector('.cell.name .soft[tabindex]'), box = one.getBoundingClientRect();
            const at = document.elementFromPoint(box.left + box.width / 2, box.bottom - 4);
            return [document.activeElement === one, one.scrollWidth <= one.clientWidth, at === one, box.right <= innerWidth,
                    one.innerText];""")
        self.assertEqual(seen, [True, True, True, True, reason])


class Restart(Page):
    """The gateway ends and comes back."""

    def is_expected(self, complaint):
        return "ERR_CONNECTION_REFUSED" in complaint or "ERR_INCOMPLETE_CHUNKED" in complaint or \
            "ERR_CONNECTION_RESET" in complaint or "ERR_EMPTY_RESPONSE" in complaint

    def test_a_lost_connection_has_room_in_the_header_of_a_telephone(self):
        for language in ("en-US", "de-DE"):
            self.browser.look(360, 740, language=language)
            self.show("journal")
            await_that("the page is live", lambda: self.browser.all("#connection.is-live"))
            self.plant.end_gateway()
            self.browser.one("#connection.is-lost")
            self.browser.picture(PICTURES / f"lost-360-{language[:2]}.png")
            outside, cut = self.browser.run("""
                const box = document.getElementById('top').getBoundingClientRect();
                const parts = [...document.querySelectorAll('#top > *, #views a')].filter(one => one.offsetWidth);
                const isOutside = one => {
                  const {top, bottom, left, right} = one.getBoundingClientRect();
                  return top < box.top || bottom > box.bottom || left < 0 || right > innerWidth;
                };
                const state = document.getElementById('connection');
                return [parts.filter(isOutside).map(one => one.outerHTML), state.scrollWidth > state.clientWidth];""")
            self.assertEqual((outside, cut), ([], False), language)
            self.plant.start_gateway()
            await_that("the page is live again", lambda: self.browser.all("#connection.is-live"))

    def test_the_page_tells_and_resumes_by_itself(self):
        self.show("values")
        self.await_live()
        self.browser.run("window.isTheSamePage = true")
        for how in (signal.SIGTERM, signal.SIGKILL):
            self.plant.end_gateway(how)
            self.browser.await_text("connection", "#banner")
            lost = self.await_row("Speed", "is not live", lambda row: row["quality"] != "good")
            self.assertNotIn("is-good", lost["classes"])
            value = 2000 + how
            self.plant.controllers["press"].set(Speed=value)
            self.plant.start_gateway()
            self.await_row("Speed", "has the new value", lambda row: row["quality"] == "good" and
                           re.sub(r"\D", "", row["value"].split("1/min")[0]) == str(value))
            self.assertEqual(self.browser.text("#banner").strip(), "")
        self.assertTrue(self.browser.run("return window.isTheSamePage === true"), "the page was loaded anew")


class Writing(Page):
    """Who has the token writes, with a confirmation, and by the keyboard alone."""

    web = {"writes": True}
    has_token = True

    def journal(self):
        return self.plant.json("/api/v1/journal")["writes"]

    def open_dialog(self, name):
        self.show("values")
        self.await_live()
        self.browser.one(f'button[aria-label="Write {name}"]').click()
        return self.browser.one("dialog.write[open]")

    def await_dialog(self, text):
        self.browser.await_text(text, "dialog.write")

    def test_1_a_wrong_token_is_refused_and_the_right_one_logs_in(self):
        self.show("values")
        self.await_live()
        self.assertEqual(self.browser.all('button[aria-label^="Write "]'), [])
        self.expect_refusal(401, "/login")
        self.log_in("not-the-token")
        self.browser.await_text("not the token")
        self.assertEqual(self.browser.driver.get_cookies() and [
            one for one in self.browser.driver.get_cookies() if one["name"].endswith("session")], [])
        self.browser.picture(PICTURES / "login-refused.png")
        self.log_in(self.token)
        self.browser.await_text("live", "#connection")
        self.show("values")
        self.browser.one('button[aria-label="Write Setpoint"]')
        for cookie in self.browser.driver.get_cookies():
            self.assertTrue(cookie["httpOnly"], cookie["name"])
            self.assertEqual(cookie["sameSite"], "Strict", cookie["name"])
        self.assertNotIn(self.token, self.browser.run("return document.documentElement.outerHTML + document.cookie + "
                                                      "location.href + JSON.stringify(localStorage)"))

    def test_2_a_write_is_confirmed_and_the_value_read_back_is_shown(self):
        dialog = self.open_dialog("Setpoint")
        dialog.find_element("css selector", "[name=value]").send_keys("42.25", Keys.ENTER)
        self.await_dialog("42.25")
        self.assertIn("21.5", self.browser.text("dialog.write .old"))
        self.assertEqual(self.row("Setpoint")["value"].split("°")[0].strip(), "21.5", "nothing is written before the confirmation")
        self.browser.picture(PICTURES / "write-confirm.png")
        self.browser.click("dialog.write button.primary")
        self.browser.one("dialog.write .outcome.is-good")
        self.assertIn("42.25", self.browser.text("dialog.write .facts"))
        self.browser.picture(PICTURES / "write-done.png")
        self.browser.click("dialog.write .buttons button")
        self.await_row("Setpoint", "is written", lambda row: row["value"].split("°")[0].strip() == "42.25")
        self.browser.click("#to-journal")
        self.browser.await_text("42.25", "#view")
        newest = self.journal()[0]
        self.assertEqual((newest["name"], newest["new"], newest["outcome"]), ("Setpoint", 42.25, "written"))

    def test_3_a_refused_write_says_why_and_writes_nothing(self):
        dialog = self.open_dialog("Setpoint")
        before = self.row("Setpoint")["value"]
        field = dialog.find_element("css selector", "[name=value]")
        self.expect_refusal(403, "/api/v1/values/Setpoint")
        field.send_keys("90", Keys.ENTER)
        await_that("the reason", lambda: "limits" in self.browser.text("dialog.write .problem"))
        self.browser.picture(PICTURES / "write-refused.png")
        self.expect_refusal(400, "/api/v1/values/Setpoint")  # it is a number, but none of a controller
        for nonsense in ("", "abc", "1e999", "4,5,6"):
            reason = self.browser.text("dialog.write .problem")
            field.clear()
            field.send_keys(nonsense, Keys.ENTER)
            await_that(f"{nonsense!r} is refused", lambda: self.browser.text("dialog.write .problem").strip() not in ("", reason))
        self.browser.keys(Keys.ESCAPE)
        await_that("the dialogue is gone", lambda: not self.browser.all("dialog.write"))
        self.assertEqual(self.row("Setpoint")["value"], before)

    def test_3_while_the_gateway_is_asked_nothing_can_be_changed(self):
        self.show("values?open=press%2FRecipe")
        self.await_row("Recipe[4]", "is shown", lambda row: row["quality"] == "good")
        self.browser.one('button[aria-label="Write Recipe[4]"]').click()
        field = self.browser.one("dialog.write[open] [name=value]")
        self.browser.run("""
            const asked = window.fetch;
            window.fetch = (address, how) => {
              if (how?.method === 'PUT')
                window.open_ = [...document.querySelectorAll('dialog.write :is(input, select, button):not(:disabled)')].length;
              return asked(address, how);
            };""")
        field.send_keys("4", Keys.ENTER)
        self.browser.one("dialog.write .new")
        self.assertEqual(self.browser.run("return window.open_"), 0)
        self.browser.keys(Keys.ESCAPE)

    def test_4_integers_of_64_bits_are_written_exactly(self):
        dialog = self.open_dialog("EnergyTotal")
        dialog.find_element("css selector", "[name=value]").send_keys("9007199254740995", Keys.ENTER)
        self.browser.one("dialog.write .new")
        self.browser.click("dialog.write button.primary")
        self.browser.one("dialog.write .outcome.is-good")
        value = self.plant.json("/api/v1/values/EnergyTotal?line=press")
        self.assertEqual(value["text"], "9007199254740995")

    def test_5_an_element_of_an_array_is_written_by_the_keyboard_alone(self):
        self.show("values?open=press%2FRecipe")
        self.await_row("Recipe[4]", "is shown", lambda row: row["quality"] == "good")
        self.tab_to('button[aria-label="Write Recipe[4]"]')
        self.browser.keys(Keys.ENTER)
        self.browser.one("dialog.write[open]")
        await_that("the field has the focus",
                   lambda: self.browser.run("return document.activeElement.name === 'value'"))
        self.browser.keys("4444", Keys.ENTER)
        self.browser.one("dialog.write .new")
        self.tab_to("dialog.write button.primary")
        self.browser.keys(Keys.ENTER)
        self.browser.one("dialog.write .outcome.is-good")
        self.browser.keys(Keys.ENTER)
        self.await_row("Recipe[4]", "is written", lambda row: re.sub(r"\D", "", row["value"]) == "4444")
        self.assertEqual(self.plant.json("/api/v1/values/Recipe?line=press")["value"][3:6], [3000, 4444, 5000])

    def test_5_a_bool_is_written_by_the_keyboard_alone(self):
        self.show("values")
        self.await_live()
        self.tab_to('button[aria-label="Write PumpRunning"]')
        self.browser.keys(Keys.ENTER)
        self.browser.one("dialog.write[open]")
        await_that("the field has the focus",
                   lambda: self.browser.run("return document.activeElement.name === 'value'"))
        self.assertEqual(self.browser.run("return document.activeElement.value"), "", "nothing is chosen before")
        self.browser.keys("f")
        self.tab_to("dialog.write button.primary")
        self.browser.keys(Keys.ENTER)
        self.browser.one("dialog.write .new")
        self.assertEqual((self.browser.text("dialog.write .old"), self.browser.text("dialog.write .new")),
                         ("true", "false"))
        self.tab_to("dialog.write button.primary")
        self.browser.keys(Keys.ENTER)
        self.browser.one("dialog.write .outcome.is-good")
        self.browser.keys(Keys.ENTER)
        self.await_row("PumpRunning", "is written", lambda row: row["value"] == "false")
        self.assertIs(self.plant.json("/api/v1/values/PumpRunning?line=press")["value"], False)

    def test_5_small_trends_have_the_colour_of_the_page_and_are_level_where_nothing_moves(self):
        # Of each small trend: the colours of its ink, and how many rows of the picture have some.
        ink = """
            const found = {};
            for (const row of document.querySelectorAll('.values .body .row')) {
              const canvas = row.querySelector('canvas');
              if (!canvas)
                continue;
              const {width, height} = canvas;
              const data = canvas.getContext('2d').getImageData(0, 0, width, height).data;
              const colours = new Set(), rows = new Set();
              for (let at = 0; at < data.length; at += 4) {
                if (data[at + 3] > 200)
                  colours.add(data.slice(at, at + 3).join(' '));
                if (data[at + 3] > 0)
                  rows.add(Math.floor(at / 4 / width));
              }
              if (rows.size > 0)
                found[row.querySelector('.name a').textContent] = {colours: [...colours], height: rows.size};
            }
            return found;"""
        for dark, colour in ((False, (0x0b, 0x57, 0xa4)), (True, (0x82, 0xbd, 0xff))):
            self.browser.look(dark=dark)
            self.open_dialog("Setpoint")
            steady = ("Setpoint", "EnergyTotal", "SerialNumber", "Speed")
            found = await_that("the small trends are drawn", lambda: (lambda all: all if all.keys() >= set(steady)
                               else None)(self.browser.run(ink)))
            for name, one in found.items():
                for text in one["colours"]:
                    off = max(abs(int(a) - b) for a, b in zip(text.split(), colour))
                    self.assertLess(off, 8, f"{name} is drawn in {text}, dark: {dark}")
            self.assertTrue(any(one["colours"] for one in found.values()))
            for name in ("EnergyTotal", "SerialNumber", "Speed"):
                self.assertLess(found[name]["height"], 5, f"{name} jumps")

    def tab_to(self, selector):
        """Presses the tabulator until the element has the focus, which is drawn at each step."""
        for _ in range(200):
            if self.browser.run("return document.activeElement === document.querySelector(arguments[0])", selector):
                return
            self.browser.keys(Keys.TAB)
            drawn = self.browser.run("""
                const one = document.activeElement, style = getComputedStyle(one);
                if (one === document.body)
                  return true;
                return style.outlineStyle !== 'none' && parseFloat(style.outlineWidth) >= 1 || style.boxShadow !== 'none';""")
            self.assertTrue(drawn, "the focus cannot be seen on " +
                            self.browser.run("return document.activeElement.outerHTML.slice(0, 200)"))
        self.fail(f"the keyboard does not reach {selector}")

    def test_6_every_view_is_reached_by_the_keyboard_alone(self):
        self.show("overview")
        self.browser.await_text("live", "#connection")
        self.browser.run("document.activeElement.blur()")
        self.browser.keys(Keys.TAB)
        self.assertEqual(self.browser.run("return document.activeElement.id"), "skip")
        for view in ("values", "trend", "journal", "overview"):
            self.tab_to(f"#to-{view}")
            self.browser.keys(Keys.ENTER)
            await_that(f"the view {view}", lambda: f"#/{view}" in self.browser.run("return location.hash"))

    def test_7_whoever_logs_out_writes_no_more(self):
        self.show("values")
        self.browser.one("#log-out").click()
        await_that("the session ends", lambda: not self.browser.all("#log-out"))
        self.show("values")
        self.await_live()
        self.assertEqual(self.browser.all('button[aria-label^="Write "]'), [])


class Trends(Page):
    """What somebody does with a trend."""

    lines = {"oven": (OVEN_TAGS, OVEN)}
    two = "trend?v=oven%2FTemperature&v=oven%2FPressure"

    def open_trend(self, more=""):
        self.show(self.two + more)
        self.browser.one(".trend .place canvas")
        await_that("both have values", lambda: self.values() and all(re.search(r"\d", one) for one in self.values()))

    def values(self):
        """Of the legend."""
        return self.browser.run("return [...document.querySelectorAll('.legend td.value')].map(one => one.innerText)")

    def window(self):
        """What the address says: the seconds of a live span, or the beginning and the end in ms."""
        return self.browser.run("""
            const parts = new URLSearchParams(location.hash.split('?')[1]);
            return parts.has('from') ? [Date.parse(parts.get('from')), Date.parse(parts.get('to'))] : Number(parts.get('span'));""")

    def await_window(self, what, condition):
        return await_that(what, lambda: (lambda window: window if condition(window) else None)(self.window()))

    def press(self, name):
        self.browser.click(f'.trend button[aria-label="{name}"]')

    def test_zooms_and_moves_by_buttons_and_back_takes_back(self):
        self.open_trend("&span=600")
        self.press("Zoom in")
        self.await_window("half the span", lambda window: window == 300)
        self.press("Zoom out")
        self.await_window("the span again", lambda window: window == 600)
        begin = self.browser.run("return Date.now()")
        self.press("Earlier")
        earlier = self.await_window("a part of the past", lambda window: isinstance(window, list))
        self.assertAlmostEqual(earlier[1] - earlier[0], 600000, delta=2)
        self.assertAlmostEqual(earlier[1], begin - 300000, delta=10000)
        self.browser.driver.back()
        self.await_window("back to the present", lambda window: window == 600)
        self.assertEqual(self.browser.one(".trend button.live").get_attribute("aria-pressed"), "true")
        self.browser.driver.back()
        self.await_window("back to half the span", lambda window: window == 300)
        self.browser.driver.forward()
        self.await_window("forward again", lambda window: window == 600)

    def test_zooms_by_a_drag_over_the_chart_and_a_double_click_is_live_again(self):
        self.open_trend("&span=600")
        chart = self.browser.one(".trend .plot")
        width = chart.size["width"]
        ActionChains(self.browser.driver).move_to_element_with_offset(chart, -width // 5, 0).click_and_hold() \
            .move_by_offset(width // 5, 0).move_by_offset(width // 5, 0).release().perform()
        part = self.await_window("the part that was drawn", lambda window: isinstance(window, list))
        self.assertGreater(part[1] - part[0], 600000 * 0.3)
        self.assertLess(part[1] - part[0], 600000 * 0.6)
        await_that("the chart is not held", lambda: self.browser.run(
            "return document.querySelector('.trend .chart').getAttribute('aria-busy') === 'false'"))
        ActionChains(self.browser.driver).double_click(chart).perform()
        self.await_window("live again", lambda window: window == 600)

    def test_is_used_by_keys_alone(self):
        self.open_trend("&span=600")
        self.browser.run("document.querySelector('.trend .chart').focus()")
        hairline = "return !document.querySelector('.trend .hairline').hidden"
        caption = lambda: self.browser.text(".legend caption")
        self.assertFalse(self.browser.run(hairline))
        self.browser.keys(Keys.END)
        await_that("the cursor is drawn", lambda: self.browser.run(hairline))
        newest = caption()
        self.assertTrue(all(re.search(r"\d", one) for one in self.values()), self.values())
        self.browser.keys(*[Keys.ARROW_LEFT] * 5)
        await_that("the legend tells another time", lambda: caption() != newest)
        self.browser.keys(Keys.HOME)
        await_that("no value of ten minutes ago", lambda: self.values() == ["–", "–"])
        self.browser.keys(Keys.ESCAPE)
        await_that("the cursor is gone", lambda: not self.browser.run(hairline))
        self.browser.keys("+")
        self.await_window("half the span", lambda window: window == 300)
        self.browser.keys("-")
        self.await_window("the span again", lambda window: window == 600)
        self.browser.keys_with(Keys.SHIFT, Keys.ARROW_LEFT)
        earlier = self.await_window("a part of the past", lambda window: isinstance(window, list))
        self.browser.keys_with(Keys.SHIFT, Keys.ARROW_RIGHT)
        self.await_window("later", lambda window: isinstance(window, list) and window[1] > earlier[1] + 100000)

    def test_the_tabulator_goes_through_it_from_top_to_bottom_and_out(self):
        self.open_trend("&span=600")
        self.browser.run("document.querySelector('#to-journal').focus()")
        places, names = [], []
        for _ in range(40):
            self.browser.keys(Keys.TAB)
            at = self.browser.run("""
                const one = document.activeElement, box = one.getBoundingClientRect();
                return one.closest('.trend') && [one.className || one.tagName,
                  ['tools', 'chart', 'legend'].findIndex(part => one.closest('.' + part)), box.left, box.top];""")
            if at:
                names.append(at[0])
                places.append(at[1])
            elif places:
                break
        else:
            self.fail("the focus does not come out of the trend")
        self.assertEqual(places, sorted(places), names)
        self.assertEqual(set(places), {0, 1, 2}, names)
        self.assertEqual(places.count(2), 2, "each variable can be removed by keys")
        self.assertGreater(places.count(0), 12, names)

    def test_variables_are_added_and_removed_by_keys(self):
        self.show("trend?span=600")
        field = self.browser.one(".trend .picker input")
        field.send_keys("setp", Keys.ENTER)
        await_that("the address has it", lambda: "v=oven%2FSetpoint" in self.browser.run("return location.hash"))
        await_that("its value", lambda: [re.split("[^0-9.]", one)[0] for one in self.values()] == ["21.5"])
        self.browser.one('.legend button[aria-label="Remove oven/Setpoint"]').send_keys(Keys.ENTER)
        await_that("it is gone", lambda: not self.values() and "Setpoint" not in self.browser.run("return location.hash"))
        self.browser.driver.back()
        await_that("it is there again", lambda: len(self.values()) == 1)

    def test_what_is_seen_is_saved_as_a_table(self):
        self.open_trend("&span=600")
        begin = time.time()
        # The history is a little late: until it has both, each of them changed more than once.
        await_that("some records", lambda: len(self.plant.json(
            f"/api/v1/history?line=oven&name=Pressure&from={iso(begin * 1000 - 600000)}&to={iso(time.time() * 1000 + 1000)}")
            ["points"]) > 3)
        self.browser.click(".trend .outputs button")
        name, table = self.browser.downloaded()
        self.assertRegex(name, r"^trend-.*\.csv$")
        self.assertTrue(table.startswith("\ufeff"))
        rows = list(csv.reader(io.StringIO(table[1:])))
        self.assertEqual(rows[0], ["time", *(f"oven/{one} {part} ({unit})" for one, unit in
                                             (("Temperature", "°C"), ("Pressure", "mbar"))
                                             for part in ("minimum", "maximum", "last"))])
        self.assertGreater(len(rows), 3)
        times = [datetime.datetime.fromisoformat(row[0].replace("Z", "+00:00")).timestamp() for row in rows[1:]]
        self.assertEqual(times, sorted(times))
        self.assertTrue(all(begin - 660 < one < time.time() + 5 for one in times))
        for row in rows[1:]:
            for cell, least, greatest in ((row[3], 18.5, 24.5), (row[6], 900, 1100)):
                self.assertTrue(cell == "" or least - 0.01 <= float(cell) <= greatest + 0.01, row)
        for column in (3, 6):
            self.assertTrue(any(row[column] for row in rows[1:]), rows[0][column])


class Changes(Page):
    """Another configuration and another token while the page is open; no history; and a proxy may be in front, so that
    everything needs the token."""

    lines = {"press": (PRESS_TAGS, PRESS), "oven": (OVEN_TAGS, OVEN)}
    web = {"writes": True, "proxies": ["127.0.0.9"]}
    more = {}
    has_token = True

    def setUp(self):
        super().setUp()
        self.browser.open(self.plant.address + "login")
        if self.browser.all("#token"):
            self.log_in(self.token)
        self.browser.await_text("live", "#connection")

    def told(self, path):
        return self.plant.json(path, {"Authorization": f"Bearer {self.token}"})

    def test_1_a_trend_without_a_history_is_that_of_the_last_ten_minutes(self):
        for parameters in ("v=oven%2FTemperature&v=press%2FRecipe%5B3%5D", "v=oven%2FTemperature&span=3600"):
            self.show("trend?" + parameters)
            self.browser.one(".trend .place canvas")
            self.browser.await_text("no history", ".trend .note")
            await_that("its value", lambda: re.search(r"\d", self.browser.text(".legend td.value")))
        self.browser.click('.trend button[aria-label="Earlier"]')
        await_that("a part of the past", lambda: "from=" in self.browser.run("return location.hash"))
        self.browser.await_text("no history", ".trend .note")

    def test_2_variables_come_and_go_while_the_page_is_open(self):
        self.show("values")
        self.await_live()
        self.browser.run("window.isTheSamePage = true")
        try:
            self.plant.write_project("oven", [OVEN[1], {**OVEN[0], "name": "Heat"}])
            self.plant.reload()
            self.await_row("Heat", "is there", lambda row: row["quality"] == "good" and "°C" in row["value"])
            await_that("the others are gone", lambda: not self.row("Pressure") and not self.row("Temperature"))
            count = len(PRESS) + 2
            self.browser.await_text(f"{count} of {count}", ".count")
            self.assertEqual(self.row("Setpoint")["quality"], "good")
            self.show("trend?v=oven%2FPressure")
            self.browser.await_text("no such variable", ".legend")
        finally:
            self.plant.write_project("oven", OVEN)
            self.plant.reload()
        await_that("the trend of the variable that is back",
                   lambda: re.search(r"\d", self.browser.text(".legend td.value")))
        self.show("values")
        self.await_row("Pressure", "is back", lambda row: row["quality"] == "good")

    def test_3_a_dialogue_of_a_variable_that_goes_writes_nothing(self):
        self.show("values")
        self.await_live()
        self.browser.one('button[aria-label="Write Setpoint"]').click()
        self.browser.one("dialog.write[open] [name=value]").send_keys("33.5", Keys.ENTER)
        self.browser.one("dialog.write .new")
        try:
            self.plant.write_project("oven", [OVEN[0], OVEN[2]])
            self.plant.reload()
            self.browser.await_text("gone", "dialog.write")
            button = self.browser.all("dialog.write button.primary:not([disabled])")
            if button:
                self.expect_refusal(404, "/api/v1/values/Setpoint")
                button[0].click()
                self.browser.one("dialog.write .outcome.is-bad")
            self.browser.keys(Keys.ESCAPE)
            await_that("the dialogue is gone", lambda: not self.browser.all("dialog.write"))
        finally:
            self.plant.write_project("oven", OVEN)
            self.plant.reload()
        value = await_that("the value is read again", lambda: (lambda one: one if one["quality"] == "good" else None)(
            self.told("/api/v1/values/Setpoint?line=oven")))
        self.assertEqual(value["value"], 21.5)
        self.assertEqual([one for one in self.told("/api/v1/journal")["writes"] if one["outcome"] == "written"], [])

    def test_3_a_confirmed_value_is_not_written_to_another_variable(self):
        """The name means another element while the dialogue is open."""
        def setpoint(**changes):
            return [OVEN[0], {**OVEN[1], "name": "Setpoint", **changes}, OVEN[2]]
        others = {"another tag": setpoint(tag="Spare"), "an element": setpoint(tag="Spares", element=1),
                  "an array": setpoint(tag="Spares", length=3), "another scale": setpoint(gain=0.5),
                  "another limit": setpoint(maximum=1000)}
        for step in ("input", "confirmation"):
            for what, variables in others.items():
                with self.subTest(f"{what} at the {step}"):
                    try:
                        self.show("values")
                        self.await_row("Setpoint", "has a value", lambda row: row["quality"] == "good")
                        self.browser.one('button[aria-label="Write Setpoint"]').click()
                        self.browser.one("dialog.write[open] [name=value]").send_keys("77")
                        if step == "confirmation":
                            self.browser.keys(Keys.ENTER)
                            self.browser.one("dialog.write .new")
                        self.plant.write_project("oven", variables)
                        self.plant.reload()
                        self.browser.await_text("another variable", "dialog.write")
                        self.assertEqual(self.browser.all("dialog.write .primary, dialog.write input"), [])
                        self.browser.picture(PICTURES / "write-changed.png")
                        self.browser.keys(Keys.ENTER)
                        await_that("the dialogue is gone", lambda: not self.browser.all("dialog.write"))
                    finally:
                        self.plant.write_project("oven", OVEN)
                        self.plant.reload()
        self.assertEqual([one for one in self.told("/api/v1/journal")["writes"] if one["new"] == 77], [])

    def test_3_the_gateway_refuses_what_the_page_has_not_heard_of(self):
        self.show("values")
        self.await_row("Setpoint", "has a value", lambda row: row["quality"] == "good")
        self.browser.one('button[aria-label="Write Setpoint"]').click()
        self.browser.one("dialog.write[open] [name=value]").send_keys("78", Keys.ENTER)
        self.browser.one("dialog.write .new")
        self.browser.run("return import('/page/early.js').then(({early}) => { early.worker.port.onmessage = null; })")
        try:
            self.plant.write_project("oven", [OVEN[0], {**OVEN[1], "name": "Setpoint", "tag": "Spare"}, OVEN[2]])
            self.plant.reload()
            self.expect_refusal(409, "/api/v1/values/Setpoint")
            self.browser.click("dialog.write button.primary")
            self.browser.await_text("another variable", "dialog.write")
        finally:
            self.plant.write_project("oven", OVEN)
            self.plant.reload()
        self.assertEqual([one["outcome"] for one in self.told("/api/v1/journal")["writes"] if one["new"] == 78],
                         ["changed"])

    def test_4_a_session_that_ends_leads_to_the_login_and_back_to_the_view(self):
        self.show("values?search=Set")
        self.await_row("Setpoint", "has a value", lambda row: row["quality"] == "good")
        view = self.browser.run("return location.hash")
        type(self).token = self.plant.make_token("--replace")
        self.plant.reload()
        self.browser.one("#token")
        self.assertNotIn("21.5", self.browser.text())
        self.browser.one("#token").send_keys(self.token, Keys.ENTER)
        self.await_row("Setpoint", "has a value", lambda row: row["quality"] == "good")
        self.assertEqual(self.browser.run("return location.hash"), view)

    def test_5_a_dialogue_whose_session_ends_writes_nothing(self):
        self.show("values")
        self.await_live()
        self.browser.one('button[aria-label="Write Setpoint"]').click()
        self.browser.one("dialog.write[open] [name=value]").send_keys("34.5", Keys.ENTER)
        self.browser.one("dialog.write .new")
        type(self).token = self.plant.make_token("--replace")
        self.plant.reload()
        self.browser.one("#token")
        self.assertEqual(self.told("/api/v1/values/Setpoint?line=oven")["value"], 21.5)


class Month(Page):
    """The trend of a month at one value a second."""

    lines = {"oven": ([{"name": "Level", "type": "REAL", "value": 50}],
                      [{"tag": "Level", "type": "REAL", "unit": "cm", "intervalMs": 1000}])}
    days = 30
    peak = 99.5  # for one second a day; the rest is between 10 and 90

    @classmethod
    def prepare(cls, plant):
        subprocess.run([plant.programs / "make_history", plant.folder / "history.sqlite", "oven", "Level",
                        str(cls.days * 86400), "0"], check=True)

    def test_is_drawn_within_a_second_and_loses_no_peak(self):
        def draw():
            self.browser.open(f"{self.plant.address}#/trend?v=oven%2FLevel&span=600")
            self.browser.one(".trend .place canvas")
            begin = time.monotonic()
            self.browser.run(f"location.hash = '#/trend?v=oven%2FLevel&span={self.days * 86400}'")
            self.await_drawn_month()
            return time.monotonic() - begin
        self.assert_takes(SECOND, draw, 3)
        self.browser.picture(PICTURES / "month.png")
        end = int(time.time() * 1000)
        trend = self.plant.json(f"/api/v1/history?line=oven&name=Level&from={iso(end - self.days * 86400000)}"
                                f"&to={iso(end)}&points=800")
        peaks = [point for point in trend["points"] if point[2] == self.peak]
        self.assertIn(len(peaks), (self.days - 1, self.days), "each day has its peak")
        self.assertEqual(min(point[1] for point in trend["points"] if point[1] is not None), 10)

    def await_drawn_month(self):
        """The chart has ink over its whole width, of parts that are as wide as a picture element."""
        drawn = """
            const canvas = document.querySelectorAll('.trend .place canvas')[0];
            if (!canvas || !canvas.width)
              return 0;
            const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
            let columns = 0;
            for (let x = 0; x < canvas.width; x += 8) {
              let ink = 0;
              for (let y = 0; y < canvas.height; y += 2) {
                const at = (y * canvas.width + x) * 4;
                if (data[at + 3] > 40 && Math.max(data[at], data[at + 1], data[at + 2]) -
                    Math.min(data[at], data[at + 1], data[at + 2]) > 30)
                  ++ink;
              }
              columns += ink > canvas.height / 8;
            }
            return columns * 8 / canvas.width;"""
        await_that("the month is drawn", lambda: self.browser.run(drawn) > 0.7)


def iso(ms):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(ms / 1000))


class Looks(Page):
    """What is drawn, on small and large screens, dark and light, in both languages."""

    web = {"writes": True}
    has_token = True
    views = {"overview": "#view dl", "values": ".values .row:not(.heads)",
             "trend?v=oven%2FTemperature&v=oven%2FSetpoint&v=oven%2FPressure": "canvas",
             "journal": "table.journal tbody tr", "journal?list=alarms": "table.journal tbody tr"}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # For the journal: one that is written, one with a long text, and one that is refused with a reason.
        for path, value, wanted in (("Setpoint?line=oven", 42.25, 200), ("EnergyTotal?line=press", 9007199254740995, 200),
                                    ("Setpoint?line=oven", 900, 403), ("Setpoint?line=oven", 21.5, 200)):
            status, body = cls.plant.get("/api/v1/values/" + path, method="PUT", body=json.dumps({"value": value}), headers={
                "Authorization": f"Bearer {cls.token}", "Content-Type": "application/json"})
            if status != wanted:
                raise AssertionError(f"{path}: {status} {body!r}")

    def setUp(self):
        super().setUp()
        self.browser.open(self.plant.address)

    def each_view(self):
        for view, sign in self.views.items():
            self.show(view)
            self.browser.one(sign)
            await_that("the page is live", lambda: self.browser.run(
                "return document.querySelector('#connection').className.includes('is-live')"))
            self.browser.run("return document.fonts.ready.then(() => new Promise(resolve => "
                             "requestAnimationFrame(() => requestAnimationFrame(resolve))))")
            yield "alarms" if "alarms" in view else re.match("[a-z]+", view).group()

    def scrolled(self):
        """What has a part that is out of sight to the right."""
        return self.browser.run("""
            return [document.documentElement, ...document.querySelectorAll('#view *')].filter(one =>
              one.scrollWidth > one.clientWidth + 1 && (one === document.documentElement ||
              ['auto', 'scroll'].includes(getComputedStyle(one).overflowX))).map(one => one.outerHTML.slice(0, 120));""")

    def check(self, name):
        weak = [one for one in self.browser.contrasts() if one["contrast"] < one["wanted"]]
        self.assertEqual(weak, [], name)
        self.assertGreater(len(self.browser.contrasts()), 10, f"{name} shows nothing")
        wide = self.browser.run("return document.documentElement.scrollWidth - document.documentElement.clientWidth")
        self.assertLessEqual(wide, 0, f"{name} is scrolled sideways")
        self.assertEqual(self.scrolled(), [], f"a part of {name} is scrolled sideways")
        moved = self.browser.shifts()
        self.assertLess(sum(one["value"] for one in moved), 0.02, f"{name} jumps: {json.dumps(moved, indent=1)}")

    def look_at(self, width, height, **how):
        self.browser.look(width, height, **how)
        scheme = "dark" if how.get("dark") else "light"
        language = how.get("language", "en-US")[:2]
        for view in self.each_view():
            name = f"{view}-{width}-{scheme}-{language}"
            self.browser.picture(PICTURES / f"{name}.png")
            with self.subTest(name):
                self.check(name)
                self.assertEqual(self.browser.run("return document.documentElement.lang"), language)

    def test_on_a_telephone_light(self):
        self.look_at(360, 740)

    def test_on_a_telephone_dark_in_german(self):
        self.look_at(360, 740, dark=True, language="de-DE")

    def test_on_a_panel_dark(self):
        self.look_at(768, 1024, dark=True)

    def test_on_a_panel_light_in_german(self):
        self.look_at(768, 1024, language="de-DE")

    def test_on_a_desk_light(self):
        self.look_at(1600, 900)

    def test_on_a_desk_dark_in_german(self):
        self.look_at(1600, 900, dark=True, language="de-DE")

    def test_a_notebook_shows_all_columns_of_the_stations(self):
        for language in ("en-US", "de-DE"):
            for width in (1366, 1280, 1024):
                self.browser.look(width, 768, language=language)
                self.show("overview")
                self.browser.one(".stations tbody tr")
                self.browser.one("#connection.is-live")
                wide = self.browser.run("return [...document.querySelectorAll('.scroller')].map(one => "
                                        "one.scrollWidth - one.clientWidth)")
                self.assertEqual(wide, [0, 0], f"{language} {width}")
                self.browser.picture(PICTURES / f"overview-{width}-{language[:2]}.png")

    def test_on_a_wall_dark(self):
        self.look_at(3840, 2160, dark=True)

    def test_no_width_hides_a_part(self):
        for language in ("de-DE", "en-US"):
            self.browser.look(360, 800, language=language)
            for view in ("overview", "journal"):
                self.show(view)
                self.browser.one(self.views[view])
                for width in (360, 414, 751, 1024, 1280, 1366, 1500, 1920, 2560, 3840):
                    with self.subTest(view, width=width, language=language):
                        self.browser.resize(width, 800)
                        self.assertEqual(self.scrolled(), [])

    def test_the_login_has_contrast_in_both_schemes(self):
        for dark in (False, True):
            self.browser.look(360, 740, dark=dark)
            self.browser.open(self.plant.address + "login")
            self.browser.one("#token")
            self.browser.picture(PICTURES / f"login-360-{'dark' if dark else 'light'}.png")
            weak = [one for one in self.browser.contrasts() if one["contrast"] < one["wanted"]]
            self.assertEqual(weak, [])

    def test_no_style_or_script_is_refused_by_the_policy(self):
        self.show("trend?v=oven%2FTemperature")
        self.browser.one("canvas")
        refused = "window.__refused = []; addEventListener('securitypolicyviolation', e => window.__refused.push(e.blockedURI))"
        self.browser.run(refused)
        self.browser.click("#to-values")
        self.await_live()
        self.assertEqual(self.browser.run("return window.__refused"), [])


# The ten minutes before the plant began, which nobody waits for: what the gateway would tell of them. Each trend ends near
# the value that the controller has.
TEN_MINUTES = """
const curves = {
  PumpRunning: i => Number(i < 14 || i > 22),
  Speed: i => (i < 14 ? 1180 + 40 * Math.sin(i / 2) : i < 23 ? 0 : 1234 - 700 * Math.exp((22 - i) / 5)),
  PartsMade: i => 48000 + (i < 14 ? i : Math.max(14, i - 8)) * 3.2,
  EnergyTotal: i => 86200 + i * 0.9,
  Temperature: i => 21.5 + 3.2 * Math.exp(-i / 22) * Math.cos(i / 4.5),
  Setpoint: i => (i < 9 ? 20 : 21.5),
  Pressure: i => 985 + 22 * Math.sin(i / 5) + 12 * Math.sin(i / 1.7),
  Level: i => 40 + 32 * Math.abs((i + 20) % 32 / 16 - 1),
  Flow: i => (i < 14 || i > 22 ? 12.4 + 1.1 * Math.sin(i / 3.1) : 0.4),
};
const asked = window.fetch;
window.fetch = async (address, ...more) => {
  if (!String(address).startsWith('/api/v1/trends'))
    return asked(address, ...more);
  const answer = await (await asked(address, ...more)).json();
  for (const trend of answer.trends) {
    const curve = curves[trend.name];
    if (curve)
      trend.points = trend.points.map((point, i) => point ?? [curve(i), curve(i + 0.5)].sort((a, b) => a - b));
  }
  return new Response(JSON.stringify(answer));
};
"""


class Picture(Page):
    """The picture of the page in README.md: docs/page.png, which scripts/page-picture makes."""

    most_bytes = 150000
    web = {"writes": True}
    has_token = True
    lines = {
        "press": ([
            {"name": "PumpRunning", "type": "BOOL", "value": True},
            {"name": "Speed", "type": "INT", "value": 1234},
            {"name": "PartsMade", "type": "DINT", "value": 48167},
            {"name": "Recipe", "type": "DINT", "length": 20, "value": [i * 1000 for i in range(20)]},
            {"name": "EnergyTotal", "type": "LINT", "value": 86254},
            {"name": "ProductName", "type": "SHORT_STRING", "value": "Apple juice"},
        ], [
            {"tag": "PumpRunning", "type": "BOOL", "intervalMs": 500},
            {"tag": "Speed", "type": "INT", "unit": "1/min", "intervalMs": 200},
            {"tag": "PartsMade", "type": "DINT", "intervalMs": 500},
            {"tag": "EnergyTotal", "type": "LINT", "unit": "kWh", "intervalMs": 500},
            {"tag": "Recipe", "type": "DINT", "length": 20, "intervalMs": 500, "writable": True},
            {"tag": "ProductName", "type": "SHORT_STRING", "name": "Product", "intervalMs": 500},
        ]),
        "oven": ([
            {"name": "Temperature", "type": "REAL", "value": 21.75},
            {"name": "Setpoint", "type": "REAL", "value": 21.5},
            {"name": "Pressure", "type": "UINT", "value": 966},
            {"name": "Level", "type": "INT", "value": 41},
            {"name": "Flow", "type": "LREAL", "value": 12.95},
        ], [
            {"tag": "Temperature", "type": "REAL", "unit": "°C", "intervalMs": 250},
            {"tag": "Setpoint", "type": "REAL", "unit": "°C", "intervalMs": 250, "writable": True},
            {"tag": "Pressure", "type": "UINT", "unit": "mbar", "intervalMs": 250},
            {"tag": "Level", "type": "INT", "unit": "cm", "intervalMs": 250},
            {"tag": "Flow", "type": "LREAL", "unit": "l/min", "intervalMs": 250},
        ]),
    }

    def test_shows_the_values_with_their_last_ten_minutes(self):
        self.log_in(self.token)
        self.browser.await_text("live", "#connection")
        self.browser.look(1120, 640, scale=1.25)
        self.enterContext(self.browser.before_each_page(TEN_MINUTES))
        self.show("values")
        for name in ("Speed", "Product", "Temperature", "Flow"):
            self.await_row(name, "has a value", lambda row: row["quality"] == "good")
        self.browser.one('button[aria-label="Write Setpoint"]')
        # The pictures of the small trends that have ink in most of their columns.
        drawn = """
            return [...document.querySelectorAll('.values .body .row canvas')].filter(canvas => {
              const {width, height} = canvas;
              const ink = canvas.getContext('2d').getImageData(0, 0, width, height).data;
              let columns = 0;
              for (let x = 0; x < width; ++x) {
                for (let y = 0; y < height; ++y) {
                  if (ink[(y * width + x) * 4 + 3] > 0) {
                    ++columns;
                    break;
                  }
                }
              }
              return columns > width * 0.9;
            }).length;"""
        await_that("nine small trends are drawn", lambda: self.browser.run(drawn) == 9)
        file = PICTURES / "page.png"
        self.browser.picture(file)
        self.assertLess(file.stat().st_size, self.most_bytes)


if __name__ == "__main__":
    PROGRAMS = Path(sys.argv.pop(1)).resolve()
    PICTURES = Path(sys.argv.pop(1)).resolve()
    PICTURES.mkdir(parents=True, exist_ok=True)
    unittest.main()
