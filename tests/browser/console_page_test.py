#!/usr/bin/python3
"""The console's page in a real browser.

Usage: console_page_test.py PROGRAM PICTURES [argument of unittest ...]: the console's program, and the folder that
gets a picture of the page from each test.
"""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait

LIMIT = 60  # seconds; only a failing test waits as long
PROGRAM, PICTURES = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])

# The mean difference of two pictures, 0 to 255: the captured one, drawn into an area given in parts of its width and
# height and mirrored if asked, against the same area of the replaced one. Both are read within one script, so they
# belong to the same capture.
DIFFERENCE = """
const [left, top, width, height, mirrored] = arguments;
const [captured, replaced] = ["captured", "replaced"].map((id) => document.getElementById(id));
const size = [width, height].map((part, i) => Math.round(part * [captured.width, captured.height][i]));
function pixels(picture, area, flip) {
    const drawn = new OffscreenCanvas(...size).getContext("2d", { willReadFrequently: true });
    if (flip) drawn.setTransform(-1, 0, 0, 1, size[0], 0);
    drawn.drawImage(picture, ...area, 0, 0, ...size);
    return drawn.getImageData(0, 0, ...size).data;
}
const one = pixels(captured, [0, 0, captured.width, captured.height], mirrored);
const other = pixels(replaced, [left * replaced.width, top * replaced.height, ...size], false);
let sum = 0;
for (let i = 0; i < one.length; ++i) sum += Math.abs(one[i] - other[i]);
return sum / (one.length * 3 / 4);
"""
BYTES = 'return document.getElementById(arguments[0]).toDataURL()'
WHOLE = (0, 0, 1, 1, False)


class Console:
    """The program with all that it starts, and the address that it prints. Files that it saves go to its folder."""

    def __init__(self, *arguments):
        self.folder = tempfile.mkdtemp(prefix="console-")
        self.process = subprocess.Popen([PROGRAM, *arguments], cwd=self.folder, text=True,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        lines = iter(self.process.stdout.readline, "")
        told = (line for line in lines if line.startswith("console at "))
        self.address = next(told, "").removeprefix("console at ").strip()
        if not self.address:
            raise RuntimeError(f"the console ended with {self.process.wait(LIMIT)} and printed no address")

    def end(self):
        self.process.send_signal(signal.SIGINT)
        try:
            self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise
        finally:
            self.process.stdout.close()
            shutil.rmtree(self.folder)


def start_browser():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--hide-scrollbars"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=webdriver.chrome.service.Service("/usr/bin/chromedriver"), options=options)


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.console = Console()
        cls.addClassCleanup(cls.console.end)
        cls.browser = start_browser()
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        self.browser.get("about:blank")
        self.browser.get_log("browser")  # what another test's page left
        self.gone = "\0"  # the address of a server that may well be missed
        self.open(self.console)

    def tearDown(self):
        self.browser.save_screenshot(os.path.join(PICTURES, f"console-{self._testMethodName[5:]}.png"))
        entries = [entry for entry in self.browser.get_log("browser") if self.gone not in entry["message"]]
        self.assertEqual(entries, [])

    def open(self, console, width=1280):
        self.resize(width)
        self.browser.get(console.address)
        self.until(lambda: self.text("connection") not in ("", "connecting"), "a connection")

    def resize(self, width):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": width, "height": 1000, "deviceScaleFactor": 1, "mobile": False})

    def until(self, condition, what):
        WebDriverWait(self.browser, LIMIT, poll_frequency=0.1).until(lambda _: condition(), f"no {what} in time")

    def until_text(self, name, *wanted):
        self.until(lambda: all(text in self.text(name) for text in wanted), f"{wanted} in '{name}'")

    def find(self, name):
        return self.browser.find_element(By.ID, name)

    def text(self, name):
        return self.browser.execute_script("return document.getElementById(arguments[0]).textContent", name)

    def cell(self, selector):
        return self.browser.execute_script("return document.querySelector(arguments[0])?.textContent", selector)

    def count(self, name, stream=0):
        return int((self.cell(f"#counts tr:nth-child({stream + 1}) .{name}") or "0").replace(",", ""))

    def click(self, name):
        self.find(name).click()

    def choose(self, name, text):
        Select(self.find(name)).select_by_visible_text(text)

    def type(self, name, text):
        field = self.find(name)
        field.clear()
        field.send_keys(text)

    def difference(self, area=WHOLE):
        return self.browser.execute_script(DIFFERENCE, *area)

    def until_replaced(self):
        self.until(lambda: self.text("replaced-note") == "" and self.count("inTime") > 0, "replacement")

    def until_pictures_change(self):
        for name in ("captured", "replaced"):
            before = self.browser.execute_script(BYTES, name)
            self.until(lambda: self.browser.execute_script(BYTES, name) != before, f"other picture in '{name}'")

    def test_pictures_change_as_the_effect_says(self):
        self.until_replaced()
        self.until_pictures_change()
        self.choose("effect", "none")
        self.until(lambda: self.difference() < 3, "picture that is only copied")
        self.choose("effect", "tint")
        self.until(lambda: self.difference() > 8, "tinted picture")
        self.choose("effect", "mirror")
        # The whole picture again, a third of its size and mirrored, stands in the lower right corner, one and a half
        # borders away from it.
        inset = ((1280 - 426 - 48) / 1280, (720 - 240 - 48) / 720, 426 / 1280, 240 / 720)
        self.until(lambda: self.difference((*inset, True)) < 16, "mirrored inset")
        self.assertLess(self.difference((*inset, True)), self.difference((*inset, False)) / 2)
        self.choose("effect", "tint")

    def test_frames_of_another_size_and_number(self):
        self.choose("size", "640x360")
        self.choose("streams", "3")
        self.browser.find_element(By.CSS_SELECTOR, "#frames button").click()
        self.until(lambda: len(Select(self.find("stream")).options) == 3, "third stream")
        self.choose("stream", "2")
        self.until(lambda: self.browser.execute_script('return document.getElementById("captured").width') > 0
                   and self.count("sent", stream=2) > 0, "figures of the third stream")
        self.until_pictures_change()
        self.choose("size", "1280x720")
        self.choose("streams", "2")
        self.browser.find_element(By.CSS_SELECTOR, "#frames button").click()
        self.until(lambda: len(Select(self.find("stream")).options) == 2, "two streams")
        self.until_replaced()

    def test_switch_changes_the_record(self):
        if self.cell("#camera-0 .mapping") == "closed":
            self.click("camera-open")
        self.until(lambda: self.cell("#camera-0 .mapping").startswith("0 →"), "open camera")
        target = "3" if self.cell("#camera-0 .mapping") == "0 → 2" else "2"
        self.choose("camera-target", target)
        self.click("camera-switch")
        self.until(lambda: self.cell("#camera-0 .mapping") == f"0 → {target}", "switched camera")
        self.until_text("message-list", '"overrideId":' + target, "restartNeeded", "OK_CAMERA_SERVICE",
                        "sessionRestartDone", "OK_APP")
        self.choose("message-peer", "CAMERA_SERVICE")
        self.until(lambda: "sessionRestartDone" not in self.text("message-list"), "filter by peer")
        self.assertIn("restartNeeded", self.text("message-list"))
        self.browser.find_element(By.XPATH, '//summary[contains(., "restartNeeded")]').send_keys(Keys.ENTER)
        self.until(lambda: '"restartNeeded": {\n' in self.text("message-list"), "unfolded message")

    def test_a_wrong_command_is_answered_with_its_log(self):
        self.choose("command-example", "wrong: broken JSON")
        self.find("command-line").send_keys(Keys.ENTER)
        self.until_text("command-answer", "PARSE_ERR", "failed to parse command")
        self.until_text("log-list", "failed to parse command")

    def test_filter_and_answer_show_the_changed_tag(self):
        tag = "android.control.aeExposureCompensation"
        if self.cell("#camera-0 .mapping") == "closed":
            self.click("camera-open")
        self.type("tag-search", "exposurecomp")
        self.browser.find_element(By.CSS_SELECTOR, f'[name=request][value="{tag}"]').click()
        self.until(lambda: json.loads(self.cell(f'tr:has([value="{tag}"]) .value') or "[]"), "value of the tag")
        self.choose("answer-example", "exposure compensation +1")
        self.find("answer-line").send_keys(Keys.ENTER)
        self.until_text("taken", f'{{"{tag}":[1]}}')
        self.click("answer-clear")
        self.type("tag-search", "velc2d")
        vendor_tag = self.browser.find_element(
            By.CSS_SELECTOR, '[name=result][value="com.brisel.zint.velc2d.SensorTemperature"]')
        self.until(vendor_tag.is_displayed, "vendor tag")

    def test_killed_and_stopped_peers_show_and_heal(self):
        for peer, action, end, state in (("app", "kill", "restart", "ended"), ("app", "stop", "continue", "stopped"),
                                         ("service", "kill", "restart", "ended")):
            with self.subTest(peer=peer, action=action):
                self.until_replaced()
                self.click(f"{action}-{peer}")
                self.until_text(f"state-{peer}", state)
                if peer == "app":
                    self.until_text("fact-captures", "without replacement for")
                    self.until_text("replaced-note", "no replacement")
                else:
                    self.until_text("fact-camera_server", "down for")
                self.click(f"{end}-{peer}")
                self.until_text(f"state-{peer}", "running")
                self.until(lambda: "for" not in self.text("fact-captures").split(";")[0], "replacements again")
                self.until_text("fact-camera_server", "up since")
                self.until_text("fact-app", "up since")
        self.until_text("fault-list", "app killed", "app continued", "service killed", "link up", "are back")

    def test_a_reload_goes_on(self):
        self.until_replaced()
        self.choose("camera-target", "5")
        sent = self.count("sent")
        mapping = self.cell("#camera-0 .mapping")
        self.browser.refresh()
        self.until(lambda: self.count("sent") > sent, "newer figures")
        self.until(lambda: self.cell("#camera-0 .mapping") == mapping, "the same mapping")
        self.until_text("message-list", "registered")
        self.until_pictures_change()

    def test_a_lost_server_is_said(self):
        console = Console()
        try:
            self.open(console)
        finally:
            console.end()
        self.gone = console.address.split("?")[0]
        self.until_text("connection", "server lost")

    def test_replay_shows_the_figures_of_the_session(self):
        self.until_replaced()
        self.until(lambda: self.count("sent") > 0, "figures")
        self.click("save")
        self.until_text("notice", "Saved")
        with open(os.path.join(self.console.folder, "out", "session.json"), encoding="utf-8") as file:
            events = json.load(file)["events"]
        newest = {event["name"]: event["args"] for event in events if event["cat"] == "figures"}
        replay = Console("--replay", os.path.join(self.console.folder, "out", "session.json"))
        self.addCleanup(replay.end)
        self.open(replay)
        for stream, name in enumerate(("stream 0 frames", "stream 1 frames")):
            for count, value in newest[name].items():
                self.until(lambda: self.count(count, stream) == value, f"{count} of {name} as saved")
        self.assertIn("saved session", self.text("connection"))
        self.assertFalse(self.find("kill-app").is_enabled())
        self.assertFalse(self.find("camera-open").is_enabled())
        self.assertTrue(self.find("message-text").is_enabled())

    def test_both_widths(self):
        for width in (400, 1280):
            with self.subTest(width=width):
                self.open(self.console, width)
                self.until_replaced()
                self.until_pictures_change()
                self.assertLessEqual(self.browser.execute_script("return document.documentElement.scrollWidth"), width)
                captured, replaced = (self.find(name).rect for name in ("captured", "replaced"))
                self.assertEqual(captured["y"] == replaced["y"], width == 1280, "beside each other where there is room")
                self.browser.save_screenshot(os.path.join(PICTURES, f"console-{width}.png"))

    def test_every_control_has_a_name_and_takes_the_focus(self):
        controls = self.browser.find_elements(
            By.CSS_SELECTOR, "button, select, input:not([name=request], [name=result]), canvas, ol, a")
        unnamed = [control.get_attribute("outerHTML") for control in controls if not control.accessible_name]
        self.assertEqual(unnamed, [])
        self.find("message-text").send_keys(Keys.TAB, Keys.TAB)
        self.assertEqual(self.browser.switch_to.active_element.get_attribute("id"), "message-pause")
        self.browser.switch_to.active_element.send_keys(Keys.SPACE)
        self.assertEqual(self.find("message-pause").get_attribute("aria-pressed"), "true")


if __name__ == "__main__":
    os.makedirs(PICTURES, exist_ok=True)
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
