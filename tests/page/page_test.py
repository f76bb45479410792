#!/usr/bin/python3
"""The page of a handset in a browser, and its server. The program's path comes in the variable HANDSET,
the build folder's in BUILD: axe-core is fetched into it from the npm registry.
"""
import glob
import http.client
import json
import os
import signal
import socket
import subprocess
import tarfile
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

import serial
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from pages import Browser, Handset, eventually

PROGRAM = os.environ["HANDSET"]
BUILD = os.environ["BUILD"]
AXE = "axe-core@4.10.3"


def axe_source():
    """The checks' script. npm knows its registry; a package that was fetched once is used again."""
    folder = os.path.join(BUILD, "tests")
    packages = glob.glob(folder + "/axe-core-*.tgz")
    if not packages:
        fetched = subprocess.run(["npm", "pack", AXE, "--silent", "--pack-destination", folder],
                                 check=False, capture_output=True, text=True, timeout=60)
        if fetched.returncode != 0:
            raise AssertionError(f"{AXE} cannot be fetched from the npm registry:\n{fetched.stderr}")
        packages = glob.glob(folder + "/axe-core-*.tgz")
    with tarfile.open(packages[0]) as package:
        return package.extractfile("package/axe.min.js").read().decode()


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.quit)

    def start(self, *arguments):
        self.handset = Handset(PROGRAM, *arguments)
        self.addCleanup(self.handset.end)
        self.browser.size(1440, 900)
        self.browser.theme("light")
        self.browser.open(self.handset.url)

    def tearDown(self):
        self.assertEqual(self.browser.complaints(), [])
        self.browser.driver.get("about:blank")  # its handset ends


class Phone(PageTest):
    def setUp(self):
        self.start()

    def panel_colour(self):
        """What the middle of the panel's picture is, with the backlight's part of it."""
        return self.browser.run("""
          const image = document.getElementById('panel');
          const canvas = document.createElement('canvas');
          canvas.width = canvas.height = 1;
          const context = canvas.getContext('2d');
          context.filter = image.style.filter;
          context.drawImage(image, -270, -585);
          return [...context.getImageData(0, 0, 1, 1).data].slice(0, 3);""")

    def test_panel_and_lights(self):
        page = self.browser
        self.assertEqual(self.panel_colour(), [0, 0, 0])
        page.ask("AT+EDFT=0,5", holds="The panel is white and lit.")
        eventually(lambda: min(self.panel_colour()) > 200, "a white panel")
        self.assertIn("backlight 1019 of 2047", page("panel").get_attribute("alt"))
        page.ask(".node /sys/class/backlight/panel0-backlight/brightness 1", "ok")
        eventually(lambda: 20 < max(self.panel_colour()) < 150, "a dim panel")
        page.ask("AT+EDFT=0,0")
        eventually(lambda: self.panel_colour() == [0, 0, 0], "a dark panel")

        page.ask("AT+RGB")
        eventually(lambda: page("led").value_of_css_property("background-color")
                   == "rgba(255, 255, 255, 1)", "a white LED")
        page.ask(".node /sys/class/leds/blue/brightness 0", "ok")
        eventually(lambda: page("led").value_of_css_property("background-color")
                   == "rgba(255, 255, 0, 1)", "a yellow LED")
        page.ask("AT+EDFT=6,1")
        eventually(lambda: "vibrates" in page("phone").get_attribute("class"), "a vibrating phone")
        for line, shown in [("AT+EDFT=6,1", "on for 5000 ms"), (".card none", "none"),
                            (".node /sys/class/power_supply/battery/capacity 7", "7 %, 3.85 V"),
                            (".node /proc/qcom_flash 1", "rear on")]:
            page.ask(line, "ok" if line[0] == "." else "pass")
            eventually(lambda text=shown: text in page("phone-view").text, shown)

    def test_keys_and_sleep(self):
        page = self.browser
        keys = page.all("#keys button")
        page.ask(".waits 1", "ok")
        page.send("AT+KEY")
        eventually(lambda: "heard" in page("keys").get_attribute("class"), "a listener")
        for key in keys:
            key.click()
        page.exchange("AT+KEY", "pass", "POWER_KEY:1, VOL+:1, VOL-:1")
        keys[1].click()
        eventually(lambda: "voldown is lost" in page("toast").text, "what becomes of the key")

        page.ask(".node /sys/power/wake_lock x", "ok")
        self.assertFalse(page("wake").is_enabled())
        page.send("AT+ESLP=1")
        eventually(lambda: page("daemon").text == "asleep" and page("asleep").is_displayed(),
                   "a phone that sleeps")
        page.ask(".wakelock late taken", "failed", "the phone sleeps")
        keys[2].click()
        eventually(lambda: "slept 1 times" in page("phone-view").text, "a phone that woke up")

    def test_sensors_are_dragged(self):
        page = self.browser
        page.open_tab("sensors")
        slider = eventually(lambda: page("sensor-accel-2"))
        ActionChains(page.driver).click_and_hold(slider).move_by_offset(-90, 0).release().perform()
        dragged = slider.find_element("xpath", "following-sibling::output").text
        self.assertNotIn(dragged, ("", "9.81"))
        told = page.ask("AT+GSENSOR", holds=f"{float(dragged):.6f} m/s^2")
        self.assertIn("0.120000 m/s^2", told)

    def test_faults_are_switched(self):
        page = self.browser
        page.ask("AT+GSENSOR", holds="9.810000 m/s^2")
        page.open_tab("faults")
        hub, = page.all("[data-name='Sensor hub']")
        hub.send_keys("silent")
        eventually(lambda: page.run("return state.hub") == "silent")
        page.ask("AT+GSENSOR", "fail", "What to do:")
        colours = page.run("""return ['pass', 'fail'].map((name) =>
          getComputedStyle(document.querySelector(`#exchanges > .${name}`)).borderLeftColor);""")
        self.assertEqual(colours, ["rgb(26, 114, 56)", "rgb(179, 38, 30)"])
        hub.send_keys("healthy")
        eventually(lambda: page.run("return state.hub") == "healthy")
        page.ask("AT+GSENSOR", "pass")

        for name in ("Battery", "Memory card", "Second accelerometer", "Power key, not stuck"):
            switch, = page.all(f"[data-name='{name}']")
            for whole in (False, True):
                switch.click()
                eventually(lambda s=switch, w=whole: s.is_selected() == w and page.run(
                    "return SWITCHES.find(([name]) => name === arguments[0])[1](state)",
                    s.get_attribute("data-name")) == w, f"{name} {whole}")
        next(b for b in page.all("#broken button") if "locked" in b.get_attribute("aria-label")).click()
        eventually(lambda: "locked" in page("toast").text)
        page.ask("AT^SECRECY_LOCK_STATUS", holds="The lock is closed")

    def test_nodes_and_properties(self):
        page = self.browser
        page.open_tab("nodes")
        name, value = page("node-name"), page("node-value")

        def look_up(text):
            name.clear()
            name.send_keys(text + Keys.ENTER)

        look_up("/sys/class/power_supply/battery")
        below = eventually(lambda: [b for b in page.all("#node-below button") if "temp" in b.text])
        below[0].click()
        eventually(lambda: page("node-said").text == "253", "the node's value")
        value.send_keys("311")
        page("node-set").click()
        eventually(lambda: page("node-said").text == "311", "the new value")
        page.ask("AT+EADC=1", holds="31.10 degrees C")
        look_up("ro.product.model")
        eventually(lambda: page("node-said").text == "NV-A1", "the property")

    def test_journal(self):
        page = self.browser
        write = "write /sys/class/leds/vibrator/activate 1"

        def shown():
            return page("journal").text

        page.ask("AT+EDFT=6,1")
        eventually(lambda: write in shown(), "the write")
        self.assertIn("< OK", shown())
        page("journal-text").send_keys("Activate 1")
        eventually(lambda: shown().startswith(write) and "\n" not in shown(), "the write alone")
        page("journal-text").send_keys(Keys.CONTROL + "a" + Keys.DELETE)
        kind, = page.all("#kinds [data-kind=write]")
        kind.click()
        eventually(lambda: write not in shown() and "< OK" in shown(), "no writes")
        kind.click()
        page("journal-pause").click()
        page.ask("AT+EDFT=6,0")
        self.assertNotIn("activate 0", shown())
        page("journal-pause").click()
        eventually(lambda: "activate 0" in shown(), "what came meanwhile")
        saved = urllib.request.urlopen(page("journal-save").get_attribute("href")).read().decode()
        self.assertIn(f"\n{write}", saved)
        self.assertTrue(saved.startswith("main: "), saved[:80])

    def test_daemon_that_ends(self):
        page = self.browser
        before, = self.handset.daemons()
        os.kill(before, signal.SIGKILL)
        eventually(lambda: "is started anew" in page("toast").text)
        eventually(lambda: page.is_ready() and "start 2" in page("daemon-detail").text)
        page.ask("AT+EADC=1")

        # One that cannot make its worker does not come up.
        page.ask(".fail thread EAGAIN", "ok")
        os.kill(self.handset.daemons()[0], signal.SIGKILL)
        eventually(lambda: page("daemon").text == "ended" and page("ended-start").is_displayed()
                   and "with status" in page("ended").text, "the ended daemon")
        page.ask(".fail thread works", "ok")
        page("ended-start").click()
        eventually(page.is_ready)
        self.assertFalse(page("ended").is_displayed())
        page.ask("AT+EADC=1")

    def test_line_of_a_serial_program_and_two_browsers(self):
        other = Browser()
        self.addCleanup(other.quit)
        other.open(self.handset.url)
        with serial.Serial(self.handset.line, 115200, timeout=5) as line:
            for sent, result, holds in [("AT+EADC=1", "pass", "25.30 degrees C"),
                                        ("AT^NOPE", "undefined", "UNDEFINED COMMAND"),
                                        ("at+edft=0,5", "pass", "The panel is white and lit.")]:
                line.write(sent.encode() + b"\n")
                for page in (self.browser, other):
                    page.exchange(sent, result, holds)
        other.ask("AT+EDFT=9,1")
        self.browser.exchange("AT+EDFT=9,1", "pass")
        for page in (self.browser, other):
            eventually(lambda p=page: "red 1, green 1, blue 1" in p("parts").text)
        # What the handset is told while nobody looks is there when the page comes again.
        other.open(self.handset.url)
        other.exchange("at+edft=0,5", "pass")


class Use(PageTest):
    """The page for those without a mouse, with another theme, or with a narrow window."""

    def test_keyboard(self):
        self.start()
        page = self.browser

        def type_(*keys):
            ActionChains(page.driver).send_keys(*keys).perform()

        def typed():
            return page("line-input").get_property("value")

        type_("/", "batt")
        eventually(lambda: page("choices").is_displayed())
        type_(Keys.ARROW_DOWN)
        self.assertEqual(page("line-input").get_attribute("aria-activedescendant"), "choice-0")
        type_(Keys.ENTER)
        self.assertEqual(typed(), "AT+EADC=1")
        type_(Keys.ENTER)
        page.exchange("AT+EADC=1", "pass")
        type_("at+gs", Keys.TAB)
        self.assertEqual(typed(), "AT+GSENSOR")
        type_(Keys.ESCAPE, Keys.ENTER)
        page.exchange("AT+GSENSOR", "pass")
        type_(Keys.ARROW_UP, Keys.ARROW_UP)
        self.assertEqual(typed(), "AT+EADC=1")
        page.driver.refresh()
        eventually(page.is_ready)
        type_("/", Keys.ARROW_UP)
        self.assertEqual(typed(), "AT+GSENSOR")

        page.run("document.getElementById('tab-journal').focus()")
        type_(Keys.ARROW_RIGHT)
        self.assertTrue(page("commands-panel").is_displayed())
        self.assertFalse(page("journal-panel").is_displayed())
        page("commands-text").send_keys("battery temp")
        eventually(lambda: page("commands-count").text == "1 of 118")
        type_(Keys.TAB, Keys.ENTER)
        self.assertEqual(typed(), "AT+EADC=1")

    def test_windows_and_steadiness(self):
        self.start()
        page = self.browser
        for line in ("AT+EDFT=0,5", "AT+EADC=1", "AT+EDFT=9,1"):
            page.ask(line)
        shift = page.driver.execute_async_script("""
          const done = arguments[0];
          let sum = 0;
          new PerformanceObserver((list) => {
            for (const entry of list.getEntries()) sum += entry.value;
          }).observe({ type: 'layout-shift', buffered: true });
          setTimeout(() => done(sum), 200);""")
        self.assertLess(shift, 0.02)
        for width in (1920, 1120, 1000, 700, 360):
            page.size(width, 900)
            for tab in ("journal", "commands", "sensors", "nodes", "faults"):
                page.open_tab(tab)
                self.assertLessEqual(page.run("return document.documentElement.scrollWidth"), width,
                                     f"{tab} at {width}")

    def test_accessibility(self):
        source = axe_source()
        self.start("--count", "2")
        page = self.browser

        def check(what):
            # axe-core must run where the page's policy lets no script of others in.
            page.run(source)
            found = page.driver.execute_async_script(
                "axe.run().then(arguments[0], (error) => arguments[0]({violations: [String(error)]}))")
            serious = [f"{v['id']}: {v['help']} {v['nodes'][0]['html'][:200]}" if isinstance(v, dict)
                       else v for v in found["violations"]
                       if not isinstance(v, dict) or v["impact"] in ("serious", "critical")]
            self.assertEqual(serious, [], what)
            self.assertGreater(len(found["passes"]), 5)

        for theme in ("light", "dark"):
            page.theme(theme)
            page.open(self.handset.url)
            check(f"overview, {theme}")
            page.open(self.handset.url + "#1")
            for line, result in [("AT+EADC=1", "pass"), ("AT^NOPE", "undefined"), (".help", "ok"),
                                 ("AT+GSENSOR", "pass"), (".nonsense", "failed")]:
                page.ask(line, result)
            for tab in ("journal", "commands", "sensors", "nodes", "faults"):
                page.open_tab(tab)
                check(f"{tab}, {theme}")
        page.ask(".fail thread EAGAIN", "ok")
        page("line-input").send_keys("AT+")
        check("choices")
        os.kill(int(page("daemon-detail").text.split()[1].strip(",")), signal.SIGKILL)
        eventually(lambda: page("ended").is_displayed())
        check("ended")

    def test_all_phones(self):
        self.start("--count", "2")
        page = self.browser
        eventually(lambda: [card.text.split() for card in page.all("#overview a")]
                   == [["Phone", "1", "ready"], ["Phone", "2", "ready"]], "two phones")
        page.all("#overview a")[1].click()
        eventually(page.is_ready)
        page.ask("AT+EDFT=9,1")
        page("all-phones").click()
        eventually(lambda: page("title").text == "2 phones")
        eventually(lambda: [bool(led.get_attribute("style"))
                            for led in page.all("#overview .led:first-child")] == [False, True],
                   "the second phone's LED alone")


class Server(unittest.TestCase):
    """What the server does with those who are no page of its own."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.handset = Handset(PROGRAM)
        self.addCleanup(self.handset.end)
        self.port = urllib.parse.urlparse(self.handset.url).port

    def ask(self, method, path, body=None, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        try:
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            return answer.status, answer.read()
        finally:
            connection.close()

    def line(self, text):
        status, body = self.ask("POST", "/phones/1/line", text)
        self.assertEqual(status, 200)
        told = json.loads(body)
        return told["ok"], told["said"]

    def test_who_is_refused(self):
        own = f"127.0.0.1:{self.port}"
        for expected, method, path, headers in [
                (200, "GET", "/", {}),
                (200, "GET", "/", {"Host": f"localhost:{self.port}"}),
                (200, "GET", "/", {"Host": "[::1]:80"}),
                (403, "GET", "/", {"Host": "station.example"}),
                (403, "GET", "/", {"Host": f"127.0.0.1.example:{self.port}"}),
                (403, "GET", "/", {"Host": ""}),
                (200, "GET", "/phones", {"Origin": f"http://{own}"}),
                (403, "GET", "/phones", {"Origin": "http://station.example"}),
                (403, "GET", "/phones", {"Origin": f"https://{own}"}),
                (403, "POST", "/phones/1/line", {"Origin": "null"}),
                (403, "POST", "/phones/1/line", {"Origin": "http://localhost"}),
                (404, "GET", "/phones/2/events", {}),
                (404, "GET", "/page.cpp", {}),
                (404, "GET", "/../commands.json", {}),
                (404, "GET", "/%2e%2e/%2e%2e/etc/passwd", {}),
                (404, "POST", "/phones/0/line", {}),
                (404, "DELETE", "/phones/1/line", {})]:
            with self.subTest(path=path, **headers):
                self.assertEqual(self.ask(method, path, **headers)[0], expected)

    def test_what_is_too_large_or_leaves_the_phone(self):
        self.assertEqual(self.ask("POST", "/phones/1/line", "A" * 65537)[0], 413)
        self.assertEqual(self.ask("GET", "/" + "a" * 9000)[0], 414)
        outside = os.path.join(self.folder.name, "panel.png")
        for text in (f".panel {outside}", ".link /data/x /etc", ".file /../../../../etc/passwd",
                     ".remove /data/../../x", f".broken {self.folder.name}"):
            self.assertEqual(self.line(text)[0], False, text)
            self.assertIn("files of the desk", self.line(text)[1])
        self.assertFalse(os.path.exists(outside))
        self.assertEqual(self.line("AT\nAT"), (False, "one line, please\n"))
        self.assertEqual(self.line(".power")[0], True)

    def test_a_port_has_one_handset(self):
        other = subprocess.run([PROGRAM, "--web", str(self.port)], check=False, capture_output=True,
                               text=True, timeout=20)
        self.assertEqual(other.returncode, 2)
        self.assertIn(f"cannot serve the page at {self.port}", other.stderr)

    def test_panel_and_unheard_of_parameters(self):
        for query, width in [("", 1080), ("?every=4", 270), ("?every=0", 1080), ("?every=x", 1080),
                             ("?every=99999", 33)]:
            status, png = self.ask("GET", "/phones/1/panel.png" + query)
            self.assertEqual((status, png[1:4], int.from_bytes(png[16:20], "big")),
                             (200, b"PNG", width), query)

    def test_pictures_leave_no_memory_behind(self):
        def resident():
            with open(f"/proc/{self.handset.process.pid}/statm", encoding="ascii") as file:
                return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6

        before = resident()
        for _ in range(50):  # more than the server has threads
            self.ask("GET", "/phones/1/panel.png?every=2")
        self.assertLess(resident() - before, 40)

    def stream(self, receive_buffer=None):
        client = socket.socket()
        if receive_buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(20)
        client.connect(("127.0.0.1", self.port))
        client.sendall(f"GET /phones/1/events HTTP/1.1\r\nHost: 127.0.0.1:{self.port}\r\n\r\n".encode())
        self.addCleanup(client.close)
        return client

    def test_slow_browsers_hold_nobody_up(self):
        for _ in range(3):
            self.stream(receive_buffer=2048)  # takes nothing
        for _ in range(5):
            client = socket.create_connection(("127.0.0.1", self.port))  # says nothing
            self.addCleanup(client.close)
        start = time.monotonic()
        for _ in range(300):
            self.assertEqual(self.line("AT+EDFT=9,1"), (True, "< OK\\r\\n\n"))
        self.assertLess(time.monotonic() - start, 15)
        reader = self.stream()
        received = b""
        while b"event: exchange" not in received:
            received += reader.recv(65536)
        status, took = self.handset.end()
        self.assertEqual(status, 0)
        self.assertLess(took, 6)

    def test_streams_are_bounded_and_given_up(self):
        def is_served():
            return self.stream().recv(12)[9:]

        streams = [self.stream() for _ in range(24)]
        self.assertEqual({stream.recv(12)[9:] for stream in streams}, {b"200"})
        self.assertEqual(is_served(), b"503")
        for stream in streams:
            stream.close()
        eventually(lambda: is_served() == b"200", "room for another stream")


if __name__ == "__main__":
    unittest.main()
