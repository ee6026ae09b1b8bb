#!/usr/bin/env python3
"""Looks at the page of `kestrun stat --html` in headless Chromium: html_report_test.py KESTRUN DIRECTORY

In the light and the dark scheme, on a desk and on a telephone: nothing on the console, nothing loaded from elsewhere,
no sideways scrolling of the page, every text large enough and in contrast with what lies under it. Pictures of the four
views stay in DIRECTORY, which is emptied first.
"""

import base64
import json
import pathlib
import re
import shutil
import subprocess
import sys
import urllib.request

SCHEMES = ["light", "dark"]
SCREENS = {"desk": (1280, 900, False), "telephone": (360, 740, True)}
MIN_TEXT_PIXELS = 10
MIN_CONTRAST = 4.5  # as the accessibility guidelines ask of text
# A container has no user to whom a sandbox could belong, and nothing here is to reach a network.
CHROMIUM = [
    "--headless",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-dev-shm-usage",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
]

# What is wrong with the texts of the page, a line each. Colours are flattened onto the page's own background.
JUDGE_TEXTS = """
const [minPixels, minContrast] = arguments;
const parse = text => {
  const numbers = text.match(/[\\d.]+/g).map(Number);
  return {rgb: numbers.slice(0, 3), alpha: numbers.length > 3 ? numbers[3] : 1};
};
const over = (top, under) => top.rgb.map((value, i) => value * top.alpha + under[i] * (1 - top.alpha));
const luminance = rgb => {
  const linear = rgb.map(v => v / 255).map(v => v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
  return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2];
};
const dark = matchMedia('(prefers-color-scheme: dark)').matches;
const backgroundOf = element => {
  if (element === null) return dark ? [18, 18, 18] : [255, 255, 255];
  return over(parse(getComputedStyle(element).backgroundColor), backgroundOf(element.parentElement));
};
const wrong = [];
let seen = 0;
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const text = walker.currentNode.data.trim();
  const element = walker.currentNode.parentElement;
  if (text === '' || !element.checkVisibility() || element.closest('style') !== null) continue;
  ++seen;
  const style = getComputedStyle(element);
  const background = backgroundOf(element);
  const colour = over(parse(style.color), background);
  const [low, high] = [luminance(colour), luminance(background)].sort((a, b) => a - b);
  const contrast = (high + 0.05) / (low + 0.05);
  const pixels = parseFloat(style.fontSize);
  if (pixels < minPixels) wrong.push(`"${text}" is ${pixels} pixels high`);
  if (contrast < minContrast) wrong.push(`"${text}" has a contrast of ${contrast.toFixed(2)}`);
}
return [seen, wrong];
"""


class Browser:
    """A session of ChromeDriver, by the protocol that every browser's driver speaks."""

    def __init__(self, work):
        self.driver = subprocess.Popen(
            ["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        )
        self.session = None
        try:
            port = next(
                match.group(1)
                for match in (re.search(r"started successfully on port (\d+)", line) for line in self.driver.stdout)
                if match
            )
            self.base = f"http://127.0.0.1:{port}/session"
            options = {"args": CHROMIUM + [f"--user-data-dir={work / 'profile'}"]}
            wanted = {
                "browserName": "chrome",
                "goog:chromeOptions": options,
                "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"},
            }
            answer = self.ask("", {"capabilities": {"alwaysMatch": wanted}})
            self.session = answer["sessionId"]
        except BaseException:
            self.close()
            raise

    def ask(self, path, body=None, method="POST"):
        url = self.base + (f"/{self.session}{path}" if self.session else "")
        data = json.dumps(body or {}).encode() if method == "POST" else None
        request = urllib.request.Request(url, data, {"Content-Type": "application/json"}, method=method)
        # Never by way of a proxy.
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def command(self, name, **parameters):
        self.ask("/goog/cdp/execute", {"cmd": name, "params": parameters})

    def run(self, script, *arguments):
        return self.ask("/execute/sync", {"script": script, "args": list(arguments)})

    def close(self):
        if self.session:
            self.ask("", method="DELETE")
        self.driver.terminate()
        self.driver.wait()


def make_page(kestrun, work):
    """A store with records of two types, plain keys, a block, a log, something deleted and something that expired."""
    store = work / "store"

    def run(*arguments, given=None):
        subprocess.run([kestrun, *map(str, arguments)], check=True, input=given, stdout=subprocess.DEVNULL, text=True)

    weather = "day,rain\n" + "".join(f"2012-{n:05d},{n % 70}\n" for n in range(3000))
    run("import", store, "-", "--type", "Weather day:%s,rain:%d", "--format", "csv", "--key", "weather:{day}", given=weather)
    towns = "name,people\n" + "".join(f"town-{n},{n * 1000}\n" for n in range(300))
    run("import", store, "-", "--type", "Town name:%s,people:%d", "--format", "csv", "--key", "town:{name}", given=towns)
    run("flush", store)
    run("put", store, "a key with <angles> & \u00e4", "a value", "--ttl", "1h")
    run("del", store, "town:town-7")
    page = work / "page.html"
    run("stat", store, "--html", page)
    return page


def requests_of(browser):
    """The addresses of everything that was asked for since the last call."""
    entries = browser.ask("/se/log", {"type": "performance"})
    events = [json.loads(entry["message"])["message"] for entry in entries]
    return [event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"]


def look(browser, page, work):
    wrong = []
    backgrounds = {}
    for scheme in SCHEMES:
        for screen, (width, height, mobile) in SCREENS.items():
            view = f"{scheme}, {screen}"
            browser.command(
                "Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}]
            )
            browser.command(
                "Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=mobile
            )
            browser.ask("/url", {"url": page.as_uri()})
            wrong += [f"{view}: console: {entry['message']}" for entry in browser.ask("/se/log", {"type": "browser"})]
            asked = [url for url in requests_of(browser) if url != page.as_uri()]
            wrong += [f"{view}: loads {url}" for url in asked if not url.startswith(("data:", "chrome"))]
            across, wide = browser.run("return [document.documentElement.scrollWidth, window.innerWidth]")
            if across > wide or wide != width:
                wrong.append(f"{view}: the page is {across} pixels wide on a screen of {width}")
            seen, texts = browser.run(JUDGE_TEXTS, MIN_TEXT_PIXELS, MIN_CONTRAST)
            if seen < 30:
                wrong.append(f"{view}: only {seen} texts are shown")
            wrong += [f"{view}: {text}" for text in texts]
            backgrounds[scheme] = browser.run("return getComputedStyle(document.body).backgroundColor")
            picture = work / f"{scheme}-{screen}.png"
            picture.write_bytes(base64.b64decode(browser.ask("/screenshot", method="GET")))
    if backgrounds["light"] == backgrounds["dark"]:
        wrong.append("the dark scheme has the background of the light one")
    if not browser.run("return document.title"):
        wrong.append("the page has no title")
    shown = browser.run("return document.body.innerText")
    wrong += [f"the page does not show {word}" for word in ["Weather", "Town", "weather:"] if word not in shown]
    return wrong


def main():
    kestrun, work = sys.argv[1], pathlib.Path(sys.argv[2]).absolute()
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    page = make_page(kestrun, work)
    browser = Browser(work)
    try:
        wrong = look(browser, page, work)
    finally:
        browser.close()
    for line in wrong:
        print(line)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
