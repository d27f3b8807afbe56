"""The page of a contention report."""

import json
import shutil

import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from conftest import DATA


@pytest.fixture(scope="module")
def page(page_of):
    return page_of(DATA / "contention-run")


def test_what_is_stuck_comes_first(browser, page):
    browser.open(page, "contention")
    stuck = browser.one(".problems").text
    assert "Deadlock of 2 threads" in stuck
    assert "refunds-1 waits for java.util.concurrent.locks.ReentrantLock@6d0c2a77" in stuck
    assert "PriceCache@5c29bfd1: 3 threads, the first for 190 s (since 12:01:50)" in stuck
    assert "http-worker-6 for 190 s in com.example.shop.PriceCache.price" in stuck


def test_locks_are_ranked_with_the_time_of_threads_that_are_still_blocked(browser, page):
    browser.open(page, "contention")
    rows = browser.table("Locks by blocked time").rows()
    assert [row["Blocked ms"] for row in rows[:3]] == ["531,000", "94,212", "62,130"]
    assert rows[0]["Lock"] == "com.example.shop.PriceCache@5c29bfd1"
    assert (rows[0]["Entries"], rows[0]["Still blocked"]) == ("0", "3")
    assert [row["Longest ms"] for row in rows[:2]] == ["190,000+", "412"]
    assert len(rows) == 7, "waits are not among them"


def test_locks_are_grouped_by_class(browser, page):
    browser.open(page, "contention")
    browser.field("Group by class").click()
    rows = {row["Class"]: row for row in browser.table("Locks by blocked time").rows()}
    assert rows["java.util.concurrent.locks.ReentrantLock"]["Blocked ms"] == "83,610"
    assert rows["java.util.concurrent.locks.ReentrantLock"]["Entries"] == "5,251"


def test_a_lock_shows_who_waited_for_whom(browser, page):
    browser.open(page, "contention")
    browser.table("Locks by blocked time").choose("com.example.shop.Inventory@1f7a2c09")
    pairs = browser.table("Who waited for whom")
    first = pairs.rows()[0]
    assert first["Waited in"] == "com.example.shop.Inventory.reserve(Inventory.java:41)"
    assert first["Held by"] == "com.example.shop.Inventory.restock(Inventory.java:52)"
    assert first["Blocked ms"] == "71,500"
    assert first["Waiting threads"] == "http-worker-1 and 1 more"
    assert [row["And itself waits for"] for row in pairs.rows()][3] == (
        "java.util.concurrent.locks.ReentrantLock@4e1d33b0")
    assert pairs.rows()[-1]["Held by"] == "The owner is not known: it let go meanwhile"
    pairs.choose("com.example.shop.Inventory.reserve(Inventory.java:41)")
    stacks = [stack.text for stack in browser.all("ol.stack") if stack.is_displayed()]
    assert "com.example.shop.Inventory.restock(Inventory.java:52) took the lock" in stacks[-1]


def test_times_that_are_dragged_over_select_windows(browser, page):
    browser.open(page, "contention")
    bars = browser.all(".brush .bar")
    assert len(bars) == 31
    ActionChains(browser.driver).drag_and_drop(bars[2], bars[4]).perform()
    browser.until(lambda: "Locks from 12:00:20 to 12:00:50 UTC" in browser.text())
    rows = browser.table("Locks by blocked time").rows()
    report = json.loads((DATA / "contention-run" / "contention-1.json").read_text())
    blocked = sum(lock["blockedNanos"] for window in report["windows"][2:5]
                  for lock in window["locks"] if lock["id"] == 1)
    assert rows[0]["Lock"] == "com.example.shop.Inventory@1f7a2c09"
    assert rows[0]["Blocked ms"] == f"{round(blocked / 1e6):,}"
    assert "com.example.shop.PriceCache@5c29bfd1" not in [row["Lock"] for row in rows]
    browser.one_of(browser.all("button"), "All times").click()
    assert len(browser.table("Locks by blocked time").rows()) == 7


def test_the_flame_graph_is_as_wide_as_the_blocked_time(browser, page):
    browser.open(page, "blocked")
    assert browser.one(".flame-line").text == "All stacks: 779,073 ms"
    assert "779,073 ms in all" in browser.text()
    browser.choose("Lock", "com.example.shop.Inventory@1f7a2c09")
    assert browser.one(".flame-line").text == "All stacks: 94,212 ms"
    browser.run("document.querySelector('.flame-frame').focus()")
    browser.keys(Keys.ARROW_DOWN)
    assert browser.one(".flame-line").text == (
        "java.lang.Thread.run(Thread.java:840): 92,300 ms, 98 % of all")


def test_the_flame_graph_has_a_twin_by_the_stacks_of_owners(browser, page):
    browser.open(page, "blocked")
    browser.choose("Lock", "com.example.shop.Inventory@1f7a2c09")
    browser.choose("Stacks of", "the owners meanwhile")
    assert browser.one(".flame-line").text == "All stacks: 92,300 ms"
    browser.field("Innermost method first").click()
    browser.run("document.querySelector('.flame-frame').focus()")
    browser.keys(Keys.ARROW_DOWN)
    assert browser.one(".flame-line").text == (
        "java.lang.Thread.sleep(Native Method): 83,400 ms, 90 % of all")


def test_idle_waits_are_folded(browser, page):
    browser.open(page, "contention")
    assert len(browser.table("Waits").rows()) == 3
    box = next(e for e in browser.all("label.check") if "idle" in e.text)
    box.click()
    assert len(browser.table("Waits").rows()) == 5


def test_a_profile_that_was_not_stopped_says_so(browser, page_of, tmp_path):
    shutil.copytree(DATA / "contention-run", tmp_path / "run")
    file = tmp_path / "run" / "contention-1.json"
    report = json.loads(file.read_text())
    report["endedAt"] = None
    file.write_text(json.dumps(report))
    browser.open(page_of(tmp_path / "run"), "contention")
    assert "It was not stopped: it still ran at 2026-11-22 12:05:00 UTC" in browser.text()


def test_hostile_names_stay_texts(browser, page_of, tmp_path):
    report = json.loads((DATA / "contention-run" / "contention-1.json").read_text())
    hostile = "<img src=x onerror=alert(1)>\u202e</script>"
    for lock in report["locks"]:
        lock["class"] += hostile
        lock["field"] = hostile
        for pair in lock["pairs"]:
            pair["waiterThread"] = pair["ownerThread"] = hostile
    for stack in report["stacks"]:
        stack["frames"] = [frame + hostile for frame in stack["frames"]]
    for stuck in report["stuck"]:
        stuck["waiters"][0]["thread"] = stuck["owner"]["thread"] = hostile
    (tmp_path / "contention-1.json").write_text(json.dumps(report))
    browser.open(page_of(tmp_path), "contention")
    browser.one("tbody td:first-child button").click()
    assert "<img src=x onerror=alert(1)>" in browser.text()
    assert not browser.all("img")
    assert "\u202e" not in browser.text()
