"""What a reader does with the page and sees on it, in the words of the tests."""

import time

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

TIMEOUT = 20  # seconds

# Texts that a narrow place breaks into a column of letters.
NARROW_TEXTS = """
  const found = [];
  const texts = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  while (texts.nextNode()) {
    const text = texts.currentNode.textContent.trim();
    const place = texts.currentNode.parentElement;
    if (text.length < 6 || place.closest('.upright, .unseen, script, style, select')) continue;
    const range = document.createRange();
    range.selectNodeContents(texts.currentNode);
    const {width, height} = range.getBoundingClientRect();
    if (width > 0 && width < 30 && height > 40) found.push(text);
  }
  return found;"""


def number(text):
    """ "1,234 s" as 1234."""
    return int(text.split()[0].replace(",", ""))


class Browser:
    def __init__(self, driver):
        self.driver = driver
        self.visited = {"about:blank", "data:,"}
        self.expected_errors = []

    def resize(self, width, height):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def prefer(self, colours):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": colours}]})

    def open(self, page, view="overview"):
        self.driver.get("about:blank")
        address = page.as_uri()
        self.visited.add(address)
        self.driver.get(f"{address}#{view}")
        self.until(lambda: self.all("#content h2"))

    def go(self, view):
        """Follows the navigation to the view of this title."""
        link = next(a for a in self.all("#views a") if a.text == view)
        link.click()
        self.until(lambda: self.run(
            "return document.querySelector('#content h2').textContent") == view)

    def until(self, condition):
        end = time.monotonic() + TIMEOUT
        while time.monotonic() < end:
            if condition():
                return
            time.sleep(0.02)
        raise AssertionError("the page did not come to the state expected")

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def all(self, selector, within=None):
        return (within or self.driver).find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector, within=None):
        found = self.all(selector, within)
        assert found, f"nothing matches {selector}"
        return found[0]

    def field(self, label):
        """The input or choice with this label."""
        name = next(e for e in self.all("main label, header label") if e.text.strip() == label)
        return self.run("return arguments[0].control", name)

    def choose(self, label, option):
        select = self.field(label)
        self.one_of(self.all("option", select), option).click()

    def one_of(self, elements, text):
        texts = self.run("return arguments[0].map(e => e.textContent.trim())", elements)
        assert text in texts, f"{text!r} is none of {texts[:20]}"
        return elements[texts.index(text)]

    def type_into(self, label, text):
        """Replaces what the field holds."""
        control = self.field(label)
        control.send_keys(Keys.CONTROL, "a")
        control.send_keys(text if text else Keys.DELETE)

    def table(self, caption):
        """The table with this caption in the view that is shown."""
        for table in self.all("table.data"):
            if self.run("return arguments[0].caption.textContent", table) == caption:
                return Table(self, table)
        raise AssertionError(f"no table {caption!r}")

    def tiles(self):
        """The numbers at the top of the view, by title."""
        return {self.one("dt", tile).text: self.one(".value", tile).text
                for tile in self.all("div", self.one(".tiles"))}

    def keys(self, *keys):
        ActionChains(self.driver).send_keys(*keys).perform()

    def click_at(self, element, x, y):
        """Clicks at a place counted from the element's top left corner."""
        width, height = element.size["width"], element.size["height"]
        ActionChains(self.driver).move_to_element_with_offset(
            element, int(x - width / 2), int(y - height / 2)).click().perform()

    def text(self):
        return self.run("return document.body.innerText")

    def expect_to_fit(self, width, view):
        """The view scrolls down only, also with all its folds open, and its texts have room."""
        for fold in self.all("main details:not([open])"):
            self.run("arguments[0].open = true", fold)
        assert self.run("return document.documentElement.scrollWidth") <= width, view
        assert self.run(NARROW_TEXTS) == [], view

    def expect_readable(self, view):
        """Everything in the view has what assistive technology needs."""
        assert self.one("#views a[aria-current=page]").text == view
        assert not self.run(
            "return [...document.querySelectorAll('main input, main select')]"
            ".filter(e => e.labels.length === 0).length"), view
        assert not self.run(
            "return [...document.querySelectorAll('table')].filter(e => !e.caption).length"), view
        assert not self.run(
            "return [...document.querySelectorAll('button, a, summary')]"
            ".filter(e => !e.textContent.trim()).length"), view
        pictures = self.run(
            "return [...document.querySelectorAll('svg')].filter(e => "
            "!e.hasAttribute('aria-label') && e.getAttribute('aria-hidden') !== 'true').length")
        assert pictures == 0, view
        figures = self.all("figure")
        assert all(self.all("table.data", figure) for figure in figures), view
        levels = self.run("return [...document.querySelectorAll('h1,h2,h3,h4,h5,h6')]"
                             ".map(e => Number(e.tagName[1]))")
        assert all(b - a <= 1 for a, b in zip(levels, levels[1:])), (view, levels)


class Table:
    def __init__(self, browser, element):
        self.browser = browser
        self.element = element

    def headings(self):
        return self.browser.run(
            "return [...arguments[0].querySelectorAll('thead th')].map(e => e.textContent)",
            self.element)

    def rows(self):
        """The texts of the rows in the document, as dictionaries by heading."""
        cells = self.browser.run(
            "return [...arguments[0].querySelectorAll('tbody tr:not(.space)')]"
            ".map(r => [...r.cells].map(c => c.textContent))", self.element)
        headings = self.headings()
        return [dict(zip(headings, row)) for row in cells]

    def column(self, heading):
        return [row[heading] for row in self.rows()]

    def numbers(self, heading):
        return [number(text) for text in self.column(heading)]

    def sort_on(self, heading):
        """Clicks the heading; gives what assistive technology is told of the order."""
        cell = self.browser.one_of(self.browser.all("thead th", self.element), heading)
        self.browser.one("button", cell).click()
        return cell.get_attribute("aria-sort")

    def choose(self, text):
        """Clicks the row whose first cell has this text."""
        self.browser.one_of(self.browser.all("tbody td:first-child button", self.element),
                            text).click()

    def count(self):
        """The rows that the table says it has."""
        return int(self.element.get_attribute("aria-rowcount")) - 1
