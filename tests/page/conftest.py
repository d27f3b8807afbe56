"""A headless Chromium that opens pages written by twreport, and fails a test whose page reports an
error or asks for anything but itself."""

import json
import subprocess
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from browser import Browser

DATA = Path(__file__).parent.parent / "data"


def pytest_addoption(parser):
    parser.getgroup("page").addoption("--twreport", help="the viewer to test")


@pytest.fixture(scope="session")
def twreport(request):
    program = request.config.getoption("--twreport")
    if program is None:
        pytest.fail("run through ctest -R page, or give --twreport")
    return program


@pytest.fixture(scope="session")
def page_of(twreport, tmp_path_factory):
    """Writes the page of a folder or of files, and gives its path."""

    def write(*inputs):
        page = tmp_path_factory.mktemp("page") / "report.html"
        subprocess.run([twreport, *map(str, inputs), "-o", str(page)], check=True, timeout=60)
        return page

    return write


@pytest.fixture(scope="session")
def chromium():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_script_timeout(30)
    driver.set_page_load_timeout(30)
    yield driver
    driver.quit()


@pytest.fixture
def browser(chromium):
    chromium.get("about:blank")
    chromium.get_log("browser")
    chromium.get_log("performance")
    page = Browser(chromium)
    page.resize(1280, 900)
    yield page
    assert chromium.get_log("browser") == page.expected_errors
    assert set(requests(chromium)) <= page.visited


def requests(driver):
    """The addresses that the browser asked for."""
    for entry in driver.get_log("performance"):
        message = json.loads(entry["message"])["message"]
        if message["method"] == "Network.requestWillBeSent":
            yield message["params"]["request"]["url"].split("#")[0]


@pytest.fixture(scope="session")
def recorded():
    """The lock report and the stack file of a real session."""
    return DATA / "shop-run" / "locks-1.json", DATA / "shop-run" / "locks-1.stacks"
