#!/usr/bin/python3
"""Opens a page in headless Chromium.

browser.py shot PAGE PNG WIDTH HEIGHT [SCALE]   save a picture; HEIGHT 0: of the whole page
browser.py time PAGE [ROUNDS]                   print how long the page takes to open, for each round, in milliseconds:
                                                the CPU time of the page's main thread, and the elapsed time

As a module:
    with Browser() as browser:
        browser.open("file:///page.html")
        browser.evaluate("document.title")
"""
import base64
import itertools
import json
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# Time from the start of the navigation until the page has been painted after its load event.
PAINTED = """new Promise(done => {
  const painted = () => requestAnimationFrame(() => setTimeout(() => done(performance.now())));
  document.readyState === "complete" ? painted() : addEventListener("load", painted);
})"""


class Browser:
    """Speaks the DevTools protocol through pipes: Chromium reads its descriptor 3 and writes descriptor 4."""

    def __enter__(self):
        self.profile = tempfile.mkdtemp()
        command_read, self.command_write = os.pipe()
        self.answer_read, answer_write = os.pipe()
        redirect = f"exec \"$@\" 3<&{command_read} 4>&{answer_write}"
        options = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                   "--hide-scrollbars", "--remote-debugging-pipe", f"--user-data-dir={self.profile}", "about:blank"]
        self.child = subprocess.Popen(["bash", "-c", redirect, "browser", "chromium", *options],
                                      pass_fds=(command_read, answer_write), stdin=subprocess.DEVNULL,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(command_read)
        os.close(answer_write)
        self.answers = self.messages()
        self.numbers = itertools.count(1)
        self.session = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        self.call("Page.enable")
        return self

    def __exit__(self, *_):
        os.close(self.command_write)  # Chromium then ends.
        self.child.wait()
        os.close(self.answer_read)
        shutil.rmtree(self.profile, ignore_errors=True)

    def messages(self):
        rest = b""
        while data := os.read(self.answer_read, 1 << 20):
            *complete, rest = (rest + data).split(b"\0")
            yield from map(json.loads, complete)

    def call(self, method, **parameters):
        number = next(self.numbers)
        message = {"id": number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        with open(self.command_write, "wb", closefd=False) as pipe:
            pipe.write(json.dumps(message).encode() + b"\0")
        for answer in self.answers:
            if answer.get("id") == number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
        raise RuntimeError(f"Chromium ended during {method}")

    def evaluate(self, expression):
        """Returns the value of an expression, which may be a promise."""
        answer = self.call("Runtime.evaluate", expression=expression, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def open(self, url):
        """Returns the milliseconds until the page was painted."""
        error = self.call("Page.navigate", url=url).get("errorText")
        if error:
            raise RuntimeError(f"{url}: {error}")
        return self.evaluate(PAINTED)

    def set_size(self, width, height, scale=1):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale,
                  mobile=width < 600)

    def picture(self):
        return base64.b64decode(self.call("Page.captureScreenshot")["data"])


def shoot(page, png, width, height, scale="1"):
    with Browser() as browser:
        browser.set_size(int(width), int(height) or 800, float(scale))
        browser.open(Path(page).resolve().as_uri())
        if int(height) == 0:
            browser.set_size(int(width), browser.evaluate("document.documentElement.scrollHeight"), float(scale))
        Path(png).write_bytes(browser.picture())


def measure(page, rounds="5"):
    for _ in range(int(rounds)):
        with Browser() as browser:
            browser.set_size(1280, 800)
            browser.call("Performance.enable", timeDomain="threadTicks")
            elapsed = browser.open(Path(page).resolve().as_uri())
            metrics = {one["name"]: one["value"] for one in browser.call("Performance.getMetrics")["metrics"]}
            print(round(metrics["TaskDuration"] * 1000), round(elapsed))


if __name__ == "__main__":
    {"shot": shoot, "time": measure}[sys.argv[1]](*sys.argv[2:])
