"""Exceptions on the page: what was thrown beside what is recorded, values that are not there, and what
is folded."""

import json
import re

import pytest

import reports

PARSE = "java.util.Parser.parse"


def jdk(method):
    return reports.frame(method, "F.java", 7)


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("counts")
    static = {**reports.value("LIMIT", "int", "17"), "static": True}
    cart = {"name": "cart", "type": "object", "fields": [
        reports.value("qty", "int", "3"), static,
        {"name": "next", "type": "object", "notRead": True}]}
    read = reports.frame("a.Shop.read", "Shop.java", 12, fields=[static], arguments=[
        cart, {"name": "card", "type": "String", "redacted": "name"}],
        locals=[{"name": "i", "type": "int", "notAvailable": True}])
    frames = [jdk(PARSE), jdk("java.util.Parser.next"), read, jdk("java.lang.Thread.run")]
    reports.write_exceptions(folder, [
        reports.record("a.Bad", frames, f"bad {i}", time=f"2026-11-21T14:35:{i:02}.000Z")
        for i in range(10)])
    reports.write_counts(folder, [
        reports.counted("a.Bad", PARSE, "F.java", 7, thrown=12238, caught=12200, rethrown=3),
        reports.counted("a.Silent", "a.Shop.sell", "Shop.java", 40, thrown=5)])
    return folder


@pytest.fixture(scope="module")
def page(page_of, folder):
    return page_of(folder)


def test_thrown_stands_beside_records(browser, page):
    browser.open(page, "exceptions")
    rows = browser.table("Exceptions by class and site").rows()
    assert [(row["Exception"], row["Thrown in"], row["Message"], row["Thrown"], row["Records"],
             row["Uncaught"], row["Again"]) for row in rows] == [
        ("a.Bad", "a.Shop.read(Shop.java:12)", "bad 0", "12,238", "10", "38", "3"),
        ("a.Silent", "a.Shop.sell(Shop.java:40)", "", "5", "0", "5", "0")]
    text = browser.text()
    assert ("10 records of 12,243 thrown (12,200 caught, 43 not caught), 3 of them not for the first "
            "time.") in text
    assert "those without a record may have come from elsewhere" in text
    assert "Only records are known" not in text
    browser.go("Overview")
    assert browser.tiles()["Exceptions"] == "12,243"
    assert "thrown; 10 records" in browser.text()


def test_exceptions_that_were_only_counted_have_no_record(browser, page):
    browser.open(page, "exceptions")
    browser.table("Exceptions by class and site").choose("a.Silent")
    assert "There is no record of these exceptions: they were counted only." in browser.text()
    assert browser.table("Exception records").count() == 0


def test_counts_of_made_ones_say_what_they_lack(browser, page_of, tmp_path):
    reports.write_exceptions(tmp_path, [reports.record("a.X", [jdk(PARSE)])])
    site = {**reports.counted("a.X", PARSE, "F.java", 7, thrown=5), "caught": None, "uncaught": None}
    reports.write_counts(tmp_path, [site], mode="made", other=2)
    browser.open(page_of(tmp_path), "exceptions")
    text = browser.text()
    assert "1 record of 7 made." in text
    assert "Note: exceptions were counted where they are made: those that were thrown again" in text
    assert "0 exceptions are counted by class, and 2 without their class." in text
    rows = browser.table("Exceptions by class and site").rows()
    assert [(row["Exception"], row["Made"], row["Uncaught"]) for row in rows] == [
        ("a.X", "5", "–"), ("(further classes)", "2", "–")]


def test_without_counts_only_records_are_known(browser, page_of, tmp_path):
    reports.write_exceptions(tmp_path, [reports.record("a.X", [jdk(PARSE)])])
    browser.open(page_of(tmp_path), "exceptions")
    assert "Only records are known of each class and site" in browser.text()
    assert "Thrown" not in browser.table("Exceptions by class and site").headings()
    browser.go("Overview")
    assert "recorded; more may have been thrown" in browser.text()


def test_frames_of_the_jdk_are_folded(browser, page):
    browser.open(page, "exceptions/0")
    items = browser.run(
        "return [...document.querySelectorAll('main > div .panel:last-child .frames')][0].children"
        ".length")
    assert items == 3
    shown = browser.one("ol.frames").text
    assert shown.startswith("2 frames of the JDK\na.Shop.read Shop.java:12\n")
    assert shown.endswith("1 frame of the JDK") and PARSE not in shown
    browser.one(".frames .folded summary").click()
    assert PARSE in browser.one("ol.frames").text


def test_values_that_are_not_there_say_why(browser, page):
    browser.open(page, "exceptions/0")
    shown = browser.one("ol.frames").text
    assert "next object = …" in shown
    assert "… is not read (depth limit)." in browser.text()
    assert "card = <redacted:name>" in shown
    assert "i int = not available" in shown
    assert "null" not in shown
    assert "LIMIT" not in shown and "1 static field" in shown
    browser.one(".frames .statics summary").click()
    assert "LIMIT int = 17" in browser.one("ol.frames").text


def test_search_finds_what_is_folded(browser, page):
    browser.open(page, "exceptions")
    for text, found in (("limit", 10), ("bad 7", 1), (PARSE, 10)):
        browser.type_into("Search all texts and values", text)
        browser.until(lambda: f"{found} of 10 records" in browser.text())


@pytest.mark.parametrize("width", [420, 800, 1280])
def test_records_fit_the_window(browser, page, width):
    browser.resize(width, 900)
    browser.open(page, "exceptions/0")
    assert browser.run("return document.documentElement.scrollWidth") <= width


def graph(name, number, depth):
    """An object as a server has it: a few fields, some of them of this request, and statics."""
    fields = [
        reports.value("id", "int", str(number)), reports.value("open", "boolean", "1"),
        reports.value("url", "String", "jdbc:demo:shop;user=app;schema=public"),
        reports.value("customer", "String", f"customer {number} of the shop"),
        *({**reports.value(f"SETTING_{i}", "String", f"the value of setting {i} of {name}"),
           "static": True} for i in range(8))]
    if depth > 0:
        fields += [graph(f"{name}.a", number % 5, depth - 1), graph(f"{name}.b", 0, depth - 1)]
    return {"name": name, "type": "object", "fields": fields}


def large_record(number):
    """About 72 thousand characters: 20 frames with the same objects of a request in each."""
    frames = [reports.frame(f"com.example.shop.Layer{i}.handle", f"Layer{i}.java", 10 + i,
                            fields=[graph("service", 1, 0)],
                            arguments=[graph("order", number, 1)],
                            locals=[reports.value("note", "String", f"step {i} of {number}")])
              for i in range(20)]
    whole = reports.record("com.example.OutOfStock", frames, f"no more of {number}")
    values = len(json.dumps(frames, separators=(",", ":")))
    return {**whole, "raw": "r" * (values // 2)}


def test_68_records_are_a_page_below_a_megabyte(page_of, browser, tmp_path):
    reports.write_exceptions(tmp_path, [large_record(i) for i in range(68)])
    size = (tmp_path / "exceptions.jsonl").stat().st_size
    assert size > 4_900_000, "what such a page had before"
    page = page_of(tmp_path)
    print(f"{size} bytes of records, a page of {page.stat().st_size} bytes")
    assert page.stat().st_size < 1_000_000
    assert not re.search("r{1000}", page.read_text()), "the agent's own texts are not in it"
    browser.open(page, "exceptions")
    browser.type_into("Search all texts and values", "step 19 of 67")
    browser.until(lambda: "1 of 68 records" in browser.text())
