"""Drives a real browser, chromium, against the live page.

The page is served by the program under test, or by an agent whose traffic is told line by line, where a test needs
thousands of connections or exact ones. Programs, folders and patience are those of the tests of the whole program.
"""

import contextlib
import importlib.util
import json
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.request

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

PROCESS = pathlib.Path(__file__).resolve().parent.parent / "process"
sys.path.insert(0, str(PROCESS))
_spec = importlib.util.spec_from_file_location("process_conftest", PROCESS / "conftest.py")
process = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(process)
LONG, SLOWNESS, eventually, free_port = process.LONG, process.SLOWNESS, process.eventually, process.free_port
keltop, wine_prefix = process.keltop, process.wine_prefix

CHROMIUM = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-extensions",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            "--force-device-scale-factor=1")


def pytest_addoption(parser):
    process.pytest_addoption(parser)
    parser.addoption("--view-agent", default="build/release/keltop_view_agent",
                     help="the command that starts a page whose traffic is told by lines")


class Page:
    """A tab with the live page."""

    def __init__(self, driver):
        self.driver = driver

    def open(self, port):
        self.driver.get(f"http://127.0.0.1:{port}/")
        self.until(lambda: self.text("#live-text") == "Live", "the page is live")

    def until(self, condition, what="what the page should show"):
        return eventually(condition, what=what)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """The text of the first such element as it stands in the document; nothing where there is none."""
        return self.run("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def texts(self, selector):
        return self.run("return [...document.querySelectorAll(arguments[0])].map((one) => one.textContent)", selector)

    def seen(self, selector):
        return self.run("const one = document.querySelector(arguments[0]); return !!one && one.checkVisibility()", selector)

    def click(self, selector):
        self.driver.find_element(By.CSS_SELECTOR, selector).click()

    def press(self, *keys):
        """Keys to whatever has the focus."""
        self.driver.switch_to.active_element.send_keys(*keys)

    def rows(self):
        return self.texts("[role=option] .what")

    def choose(self, connection):
        self.until(lambda: self.all(f"#row-{connection}"), f"row {connection}")
        self.click(f"#row-{connection}")
        self.until(lambda: self.all(f"#detail[data-shows='{connection}']"), "the detail")

    def tab(self, name):
        self.click(f"#tab-{name}")

    def table(self, label):
        """Names and values of a table of the detail."""
        return self.run("return [...document.querySelectorAll(`table[aria-label='${arguments[0]}'] tr`)]"
                        ".map((row) => [...row.children].map((cell) => cell.textContent))", label)

    def copied(self):
        return self.driver.execute_async_script("navigator.clipboard.readText().then(arguments[0], (e) => arguments[0](`${e}`))")

    def complaints(self):
        """What the browser has said since it was asked last, but for the network's part."""
        return [entry["message"] for entry in self.driver.get_log("browser") if "ERR_" not in entry["message"]]

    def size(self, width, height):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def theme(self, name):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": name}]})


@contextlib.contextmanager
def chromium():
    profile = tempfile.mkdtemp(prefix="keltop-browser-")
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for argument in (*CHROMIUM, f"--user-data-dir={profile}", "--window-size=1280,800"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        driver.set_script_timeout(LONG)
        driver.execute_cdp_cmd("Browser.grantPermissions",
                               {"permissions": ["clipboardReadWrite", "clipboardSanitizedWrite"]})
        yield driver
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)


@pytest.fixture(scope="session")
def driver(wine_prefix):
    with chromium() as made:
        yield made


@pytest.fixture
def page(driver):
    made = Page(driver)
    made.size(1280, 800)
    made.theme("light")
    made.complaints()
    yield made
    driver.get("about:blank")


class View:
    """A page whose traffic is told."""

    def __init__(self, command, raw=False, port=0):
        self.process = subprocess.Popen([*shlex.split(command), "raw" if raw else "http", str(port)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())
        self._count = 0

    def tell(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()

    def open(self, peer="10.0.0.7:40000", own="10.0.0.2:8080"):
        self._count += 1
        self.tell("open", peer, own)
        return self._count

    def received(self, connection, data):
        self.tell("received", connection, data.hex())

    def sent(self, connection, data):
        self.tell("sent", connection, data.hex())

    def ended(self, connection, how="here"):
        self.tell("ended", connection, how)

    def exchange(self, request, answer=b"HTTP/1.1 200 OK\r\nConnection: Close\r\n\r\n", how="here", **addresses):
        connection = self.open(**addresses)
        if request:
            self.received(connection, request)
        if answer:
            self.sent(connection, answer)
        self.ended(connection, how)
        return connection

    def get(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{path}", timeout=LONG) as answer:
            return answer.read()

    def json(self, path):
        return json.loads(self.get(path))

    def wait_for(self, count):
        """Waits until so many connections have been told."""
        eventually(lambda: len(self.json("/search?text=")["ids"]) >= count, what=f"{count} connections")

    def close(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            self.process.wait(LONG)
        self.process.stdout.close()


@pytest.fixture
def views(request):
    """Makes pages whose traffic is told."""
    with contextlib.ExitStack() as made:
        yield lambda **options: made.enter_context(contextlib.closing(
            View(request.config.getoption("--view-agent"), **options)))


@pytest.fixture
def view(views, page):
    """A page for HTTP, open in the browser."""
    made = views()
    page.open(made.port)
    return made


@pytest.fixture
def raw_view(views, page):
    made = views(raw=True)
    page.open(made.port)
    return made
