"""A handset that serves its page, and a browser without a window that looks at it: for the page's tests,
its screenshot and its stopwatch.
"""
import os
import signal
import subprocess
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

PATIENCE = 20  # seconds


def eventually(condition, what="what is awaited"):
    """Waits until the condition gives something, and gives that."""
    end = time.monotonic() + PATIENCE
    while not (found := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"{what} does not come")
        time.sleep(0.02)
    return found


class Handset:
    """A handset that serves its page at a port of its own."""

    def __init__(self, program, *arguments):
        self.process = subprocess.Popen(
            [program, "--web", "0", "--waits", "0", *arguments],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        line = ""
        while not line.startswith("ready"):
            line = self.process.stdout.readline()
            if not line:
                raise AssertionError("the handset did not start")
        self.url = line.split()[-1]
        self.line = line.split()[2] if "line" in line.split() else None

    def end(self):
        """Its status, and how long it took to end."""
        start = time.monotonic()
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(PATIENCE)
        self.process.stdout.close()
        return status, time.monotonic() - start

    def daemons(self):
        children = []
        for task in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{task}/children", encoding="ascii") as file:
                children += map(int, file.read().split())
        return children


class Browser:
    """A browser with one page."""

    def __init__(self, width=1440, height=900):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                         "--disable-dev-shm-usage", "--force-prefers-reduced-motion"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.size(width, height)

    def quit(self):
        self.driver.quit()

    def size(self, width, height):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def theme(self, name):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": name}]})

    def open(self, url):
        self.driver.get("about:blank")
        self.driver.get(url)
        eventually(lambda: self("daemon").text not in ("connecting", ""), "the page's first news")

    def __call__(self, element):
        return self.driver.find_element(By.ID, element)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def open_tab(self, name):
        self(f"tab-{name}").click()

    def is_ready(self):
        return self("daemon").text == "ready"

    def send(self, line):
        """Sends a line as one who types it does."""
        self("line-input").send_keys(line)
        self.run("document.getElementById('line-form').requestSubmit()")

    def exchange(self, sent, result, holds=""):
        """The text of the last shown exchange of a line, once it has this result and holds that."""
        script = """
          const rows = [...document.querySelectorAll('#exchanges > div')];
          const row = rows.reverse().find((r) => r.querySelector('code')?.textContent === arguments[0]);
          return row && row.className === arguments[1] && row.innerText.includes(arguments[2]) ?
            row.innerText : null;"""
        return eventually(lambda: self.run(script, sent, result, holds),
                          f"{sent} as {result} with {holds!r}")

    def ask(self, line, result="pass", holds=""):
        self.send(line)
        return self.exchange(line, result, holds)

    def complaints(self):
        """What the browser has found wrong with the page since the last time."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE"]
