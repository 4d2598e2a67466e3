"""A real browser without a screen, and what a test asks of it. Needs Debian's chromium, chromium-driver and
python3-selenium."""

import contextlib
import json
import os
import shutil
import subprocess
import tempfile

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains

from plant import await_that

# Sums up how far things moved, and keeps what moved, from the first picture on. Moves that a key or a click caused are
# none.
WATCH_SHIFTS = """
window.__shifts = [];
new PerformanceObserver(list => {
  for (const entry of list.getEntries()) {
    if (!entry.hadRecentInput)
      window.__shifts.push({value: entry.value, time: entry.startTime,
        what: entry.sources.map(one => one.node && (one.node.outerHTML || one.node.textContent || '').slice(0, 120))});
  }
}).observe({type: 'layout-shift', buffered: true});
"""

# The contrast of every text that is seen, as WCAG 2 defines it: each with its own colour over what is painted behind it.
CONTRASTS = """
const seen = [];
function parse(text) {
  const numbers = text.match(/[\\d.]+/g).map(Number);
  if (text.startsWith('color(srgb'))
    return [numbers[0] * 255, numbers[1] * 255, numbers[2] * 255, numbers.length > 3 ? numbers[3] : 1];
  return [numbers[0], numbers[1], numbers[2], numbers.length > 3 ? numbers[3] : 1];
}
function over(top, below) {
  const part = top[3];
  return [0, 1, 2].map(i => top[i] * part + below[i] * (1 - part)).concat(1);
}
function behind(node) {
  const layers = [];
  for (let one = node; one; one = one.parentElement) {
    const colour = parse(getComputedStyle(one).backgroundColor);
    layers.push(colour);
    if (colour[3] === 1)
      break;
  }
  let colour = matchMedia('(prefers-color-scheme: dark)').matches ? [18, 18, 18, 1] : [255, 255, 255, 1];
  for (const layer of layers.reverse())
    colour = over(layer, colour);
  return colour;
}
function luminance(colour) {
  const [r, g, b] = colour.slice(0, 3).map(part => {
    const x = part / 255;
    return x <= 0.04045 ? x / 12.92 : ((x + 0.055) / 1.055) ** 2.4;
  });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const text = walker.currentNode.textContent.trim();
  const node = walker.currentNode.parentElement;
  if (!text || ['SCRIPT', 'STYLE', 'NOSCRIPT', 'TITLE', 'OPTION'].includes(node.tagName) || node.closest('[disabled], svg'))
    continue;
  if (!node.checkVisibility({checkOpacity: true, checkVisibilityCSS: true}))
    continue;
  const box = node.getBoundingClientRect();
  if (box.width < 2 || box.height < 2)
    continue;
  const style = getComputedStyle(node);
  let part = 1;
  for (let one = node; one; one = one.parentElement)
    part *= Number(getComputedStyle(one).opacity);
  const ground = behind(node);
  const colour = parse(style.color);
  colour[3] *= part;
  const front = over(colour, ground);
  const [high, low] = [luminance(front), luminance(ground)].sort((a, b) => b - a);
  const size = parseFloat(style.fontSize);
  const isLarge = size >= 24 || (size >= 18.66 && Number(style.fontWeight) >= 700);
  seen.push({text: text.slice(0, 40), class: node.className, contrast: (high + 0.05) / (low + 0.05),
             wanted: isLarge ? 3 : 4.5});
}
return seen;
"""


class Browser:
    def __init__(self, traces_requests=False):
        self.profile = tempfile.mkdtemp(prefix="micro850-browser-")
        self.traffic = os.path.join(self.profile, "traffic.json")
        self.downloads = os.path.join(self.profile, "downloads")
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--disable-default-apps", "--disable-extensions", "--hide-scrollbars", "--lang=en-US",
                     "--force-color-profile=srgb", f"--user-data-dir={self.profile}",
                     f"--log-net-log={self.traffic}"):
            options.add_argument(word)
        logs = {"browser": "ALL", "performance": "ALL"} if traces_requests else {"browser": "ALL"}
        options.set_capability("goog:loggingPrefs", logs)
        self.driver = self.start(options)
        self.driver.set_script_timeout(60)
        self.driver.execute_cdp_cmd("Browser.setDownloadBehavior",
                                    {"behavior": "allow", "downloadPath": self.downloads})
        self.complaints = []
        self.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": WATCH_SHIFTS})
        self.first = self.driver.current_window_handle

    @staticmethod
    def start(options):
        """Selenium looks for a free port, and another test can take it before the driver does: the driver ends then."""
        for tries in range(5):
            try:
                return webdriver.Chrome(service=Service("/usr/bin/chromedriver", log_path=os.devnull), options=options)
            except WebDriverException as error:
                if tries == 4 or "unexpectedly exited" not in str(error):
                    raise

    def end(self):
        """Returns what pages and workers asked for in all this time: the origin that asked, and the address."""
        try:
            self.driver.quit()
            return self.asked()
        finally:
            shutil.rmtree(self.profile, ignore_errors=True)

    def asked(self):
        """The browser's own record, which is whole when it has ended. What the browser itself wants to know of its maker
        has no origin, and neither has what a person types into the field of the address."""
        await_that("the browser has written its record", self.is_recorded)
        with open(self.traffic, encoding="utf-8") as file:
            record = json.load(file)
        kind = record["constants"]["logEventTypes"]["URL_REQUEST_START_JOB"]
        found = []
        for event in record["events"]:
            parameters = event.get("params", {})
            if event["type"] == kind and "url" in parameters and parameters.get("initiator") != "not an origin":
                found.append((parameters.get("initiator"), parameters["url"]))
        return found

    def is_recorded(self):
        with open(self.traffic, "rb") as file:
            file.seek(0, os.SEEK_END)
            file.seek(max(0, file.tell() - 8))
            return file.read().strip().endswith(b"}")

    # What the page looks like

    def look(self, width=1280, height=800, dark=False, language="en-US", scale=1):
        """The next page is loaded with these."""
        self.resize(width, height, scale)
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
                         {"name": "prefers-reduced-motion", "value": "reduce"}]})
        agent = self.run("return navigator.userAgent")
        self.driver.execute_cdp_cmd("Network.setUserAgentOverride", {"userAgent": agent, "acceptLanguage": language})

    def resize(self, width, height, scale=1):
        """What is shown now has another size."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": scale, "mobile": width < 600})
        self.run("return new Promise(resolve => requestAnimationFrame(() => requestAnimationFrame(resolve)))")

    @contextlib.contextmanager
    def before_each_page(self, script):
        """Runs it in each page before the scripts of the page."""
        made = self.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": script})
        try:
            yield
        finally:
            self.driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", made)

    def picture(self, file):
        self.driver.save_screenshot(str(file))

    def contrasts(self):
        return self.run(CONTRASTS)

    def shifts(self):
        return self.run("return window.__shifts")

    # Pages

    def open(self, address):
        """Loads the page anew, whatever is shown."""
        self.driver.get("about:blank")
        self.driver.get(address)

    def tab(self, address):
        self.driver.switch_to.new_window("tab")
        self.driver.get(address)
        return self.driver.current_window_handle

    def to(self, handle):
        self.driver.switch_to.window(handle)

    def close_tabs(self):
        for handle in self.driver.window_handles:
            if handle != self.first:
                self.to(handle)
                self.driver.close()
        self.to(self.first)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def text(self, selector="body"):
        return self.run("const one = document.querySelector(arguments[0]); return one && one.innerText || ''", selector)

    def await_text(self, text, selector="body", patience=60):
        try:
            await_that(f"the page shows {text!r}", lambda: text in self.text(selector), patience)
        except AssertionError as error:
            raise AssertionError(f"{error}; it shows:\n{self.text(selector)}") from None

    def all(self, selector):
        return self.driver.find_elements("css selector", selector)

    def one(self, selector):
        return await_that(f"the page has {selector}", lambda: (self.all(selector) or [None])[0])

    def click(self, selector):
        self.one(selector).click()

    def keys(self, *keys):
        ActionChains(self.driver).send_keys(*keys).perform()

    def keys_with(self, held, *keys):
        ActionChains(self.driver).key_down(held).send_keys(*keys).key_up(held).perform()

    def downloaded(self):
        """The content of the only file that was downloaded since the last call, as soon as it is whole."""
        def whole():
            files = os.listdir(self.downloads) if os.path.isdir(self.downloads) else []
            return files if len(files) == 1 and not files[0].endswith(".crdownload") else None
        name = await_that("a file is downloaded", whole)[0]
        file = os.path.join(self.downloads, name)
        with open(file, encoding="utf-8") as opened:
            content = opened.read()
        os.unlink(file)
        return name, content

    def gather(self):
        """Takes what the browser complained of since the last call."""
        for entry in self.driver.get_log("browser"):
            if entry["level"] in ("WARNING", "SEVERE"):  # the others are advice
                self.complaints.append(f"{entry['level']}: {entry['message']}")


def version():
    return subprocess.run(["/usr/bin/chromium", "--version"], capture_output=True, text=True, check=True).stdout.strip()
