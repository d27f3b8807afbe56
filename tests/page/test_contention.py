"""The page of contention reports: what it shows is what the report has, and what it does not know it
tells."""

import json
from collections import Counter

import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

import reports
from conftest import DATA

RUN = DATA / "contention-run"
VIEWS = ["Contention", "Blocked stacks", "Waiters and owners"]
MILLI = 1_000_000
CONTENTION = ("monitor", "lock")


@pytest.fixture(scope="module")
def page(page_of):
    return page_of(RUN)


@pytest.fixture
def report():
    return json.loads((RUN / "contention-1.json").read_text())


@pytest.fixture
def open_report(browser, page_of, tmp_path):
    """Opens the page of a report, given as a value."""

    def open_report(*documents, view=""):
        for number, document in enumerate(documents, 1):
            reports.write_json(tmp_path / f"contention-{number}.json", document)
        browser.open(page_of(tmp_path), view)

    return open_report


def clear(report):
    """The report of a profile that met nothing."""
    for name in ("locks", "otherLocks", "windows", "stacks", "stuck", "deadlocks"):
        report[name] = []
    return report


def name_of(lock):
    return f"{lock['class']}@{lock['identity']}"


def total(lock):
    return lock["blockedNanos"] + lock.get("stillBlockedNanos", 0)


def millis(text):
    return float(text.replace(",", "").rstrip("+"))


def drag(browser, first, last):
    """Drags over the time line, from one of its bars to another."""
    bars = browser.all(".time-line .bar")
    frame = browser.one(".time-frame")
    left, top = frame.rect["x"], frame.rect["y"]
    places = [bars[i].rect["x"] + bars[i].rect["width"] / 2 - left for i in (first, last)]
    actions = ActionChains(browser.driver)
    offset = [int(place - frame.rect["width"] / 2) for place in places]
    assert top >= 0
    actions.move_to_element_with_offset(frame, offset[0], 0).click_and_hold()
    actions.move_to_element_with_offset(frame, offset[1], 0).release().perform()


def test_page_opens_on_contention_where_threads_were_blocked(browser, open_report, report):
    open_report(report)
    assert browser.one("#views a[aria-current=page]").text == "Contention"
    tiles = browser.tiles()
    assert tiles["Still blocked"] == "5" and tiles["Longest block"] == "3.2 min"
    contended = [one for one in report["locks"] + report["otherLocks"] if one["kind"] in CONTENTION]
    entries = sum(one["entries"] for one in contended)
    assert tiles["Contended entries"] == f"{entries:,}"
    assert tiles["Blocked"] == f"{sum(map(total, contended)) / 60e9:.1f} min"


def test_page_of_a_profile_without_contention_opens_on_the_overview(browser, open_report, report):
    open_report(clear(report))
    assert browser.one("#views a[aria-current=page]").text == "Overview"
    browser.go("Contention")
    assert "No thread was blocked by a monitor or lock that is in this report." in browser.text()
    assert not browser.all(".stuck") and not browser.all(".time-line")
    for view in VIEWS:
        browser.go(view)


def test_what_is_stuck_comes_first_and_deadlocks_before_all(browser, page):
    browser.open(page, "contention")
    first = browser.one("#content .panel")
    assert "stuck" in first.get_attribute("class")
    titles = [title.text for title in browser.all("h4", first)]
    assert titles[0] == "Deadlock of 2 threads: each waits for what another one of them holds"
    circle = [line.text for line in browser.all(".deadlock li", first)]
    assert circle == [
        "refunds-1 waits for java.util.concurrent.locks.ReentrantLock@6d0c2a77, which refunds-2 "
        "holds, in com.example.shop.Cart.merge(Cart.java:71)",
        "refunds-2 waits for com.example.shop.Cart@27ab01e4, which refunds-1 holds, in "
        "com.example.shop.Cart.clear(Cart.java:83)"]
    assert titles[1].startswith("com.example.shop.PriceCache@5c29bfd1: 3 threads blocked, the first "
                                "for 3.2 min, since 12:01:50 UTC")
    owner, *waiters = browser.all(".stuck-lock", first)[0].find_elements("css selector", "details")
    assert owner.text == ("Held by price-loader, taken in "
                          "com.example.shop.PriceCache.load(PriceCache.java:48), now in "
                          "sun.nio.ch.SocketDispatcher.read0(Native Method)")
    assert [waiter.text.split()[0] for waiter in waiters] == [
        "http-worker-5", "http-worker-6", "http-worker-7"]
    browser.one("summary", waiters[0]).click()
    assert "com.example.shop.Worker.run" in waiters[0].text, "the stack"


def test_stuck_threads_beyond_those_listed_are_counted(browser, open_report, report):
    report["stuck"][0]["waiterCount"] = 40
    listed = len(report["stuck"][0]["waiters"])
    report["stuck"][0]["owner"] = None
    report["stuck"][0]["ownerNote"] = "notKept"
    open_report(report)
    panel = browser.one(".stuck").text
    assert f"{40 - listed} more threads." in panel
    assert "the owner is not known: locks of this kind do not record it" in panel


def test_locks_by_class_have_the_sums_of_the_report(browser, page, report):
    browser.open(page, "contention")
    sums = {}
    for lock in report["locks"] + report["otherLocks"]:
        if lock["kind"] in CONTENTION:
            nanos, entries = sums.get(lock["class"], (0, 0))
            sums[lock["class"]] = nanos + total(lock), entries + lock["entries"]
    rows = browser.table("Locks by blocked time").rows()
    assert len(rows) == len(sums)
    for row in rows:
        name = next(name for name in sums if row["Lock"].startswith(name))
        nanos, entries = sums[name]
        assert millis(row["Blocked ms"]) == pytest.approx(nanos / MILLI, abs=0.6)
        assert row["Entries"] == f"{entries:,}"
    blocked = [millis(row["Blocked ms"]) for row in rows]
    assert blocked == sorted(blocked, reverse=True)
    longest = {row["Lock"]: row["Longest ms"] for row in rows}
    assert longest["com.example.shop.PriceCache@5c29bfd1"] == "190,000+", "it goes on"
    assert longest["com.example.shop.Inventory@1f7a2c09Shop.inventory"] == "412"


def test_locks_ungrouped_are_those_of_the_report(browser, page, report):
    browser.open(page, "contention")
    browser.one(".controls .check input").click()
    rows = {row["Lock"]: row for row in browser.table("Locks by blocked time").rows()}
    for lock in report["locks"]:
        if lock["kind"] in CONTENTION:
            name = next(name for name in rows if name.startswith(name_of(lock)))
            assert rows[name]["Still"] == str(lock["stillBlocked"])
            assert millis(rows[name]["Blocked ms"]) == pytest.approx(total(lock) / MILLI, abs=0.6)
    assert "com.example.shop.Requestothers" in rows


def test_filter_leaves_the_locks_with_the_text_in_name_or_field(browser, page):
    browser.open(page, "contention")
    browser.type_into("Filter", "LEDGER.refunds")
    browser.until(lambda: browser.table("Locks by blocked time").column("Lock") == [
        "java.util.concurrent.locks.ReentrantLock2 locks"])
    share = browser.table("Locks by blocked time").column("Share")
    assert share == ["11 %"], "of all locks"


def selected_sums(report, first, last):
    """Of some windows: the time and entries of each lock by id, and the time of all."""
    nanos, entries, whole = Counter(), Counter(), 0
    for window in report["windows"][first:last + 1]:
        whole += window["blockedNanos"]
        for lock in window["locks"]:
            nanos[lock["id"]] += lock["blockedNanos"]
            entries[lock["id"]] += lock["entries"]
    return nanos, entries, whole


def test_brush_selects_windows_and_filters_the_locks(browser, open_report, report):
    kinds = {lock["id"]: lock["kind"] for lock in report["locks"]}
    for window in report["windows"]:
        window["blockedNanos"] = 5_000 * MILLI + sum(
            lock["blockedNanos"] for lock in window["locks"] if kinds[lock["id"]] in CONTENTION)
    open_report(report)
    assert browser.one(".selection").text.startswith("All windows: 12:00:00 to 12:05:00 UTC: ")
    drag(browser, 15, 12)
    nanos, entries, whole = selected_sums(report, 12, 15)
    assert browser.one(".selection").text.startswith(
        f"Selected (4 windows): 12:02:00 to 12:02:40 UTC: {round(whole / MILLI):,} ms blocked")
    rows = browser.table("Locks by blocked time").rows()
    assert {row["Lock"].split("@")[0]: row["Entries"] for row in rows} == {
        "com.example.shop.Inventory": f"{entries[1]:,}",
        "java.util.concurrent.locks.ReentrantLock2 locks": f"{entries[2]:,}",
        "com.example.shop.PriceCache": "0"}
    by_time = [millis(row["Blocked ms"]) for row in rows]
    assert by_time == pytest.approx(
        sorted((nanos[id] / MILLI for id in (1, 2, 3)), reverse=True), abs=1)
    rest = whole - sum(nanos[id] for id in (1, 2, 3))
    note = browser.one("#selection-note").text
    assert f"{round(rest / MILLI):,} ms of them were at other locks" in note
    assert "“Longest” and “Still” are of the complete profile" in note
    assert rows[0]["Share"] == f"{100 * by_time[0] * MILLI / whole:.0f} %", "of the selected time"
    assert len(browser.all(".time-line .bar.outside")) == len(report["windows"]) - 4
    browser.one_of(browser.all("main button"), "Select all").click()
    assert browser.table("Locks by blocked time").count() == 6
    assert not browser.all(".time-line .bar.outside")


def test_page_tells_what_the_brush_does_not_filter(browser, page):
    browser.open(page, "contention")
    assert ("Longest blocks, details of a lock, pairs, flame graphs and waits are of the complete "
            "profile, as they are not known by window.") in browser.text()


def test_brush_works_with_the_keyboard(browser, page, report):
    browser.open(page, "contention")
    browser.run("document.querySelector('.time-frame').focus()")
    browser.keys(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
    assert browser.one(".selection").text.startswith("Selected (1 window): 12:00:10 to 12:00:20 UTC")
    ActionChains(browser.driver).key_down(Keys.SHIFT).send_keys(Keys.ARROW_RIGHT).key_up(
        Keys.SHIFT).perform()
    assert browser.one(".selection").text.startswith("Selected (2 windows): 12:00:10 to 12:00:30")
    (row,) = [row for row in browser.table("Locks by blocked time").rows()
              if "Inventory" in row["Lock"]]
    assert row["Entries"] == f"{selected_sums(report, 1, 2)[1][1]:,}"
    browser.keys(Keys.ESCAPE)
    assert browser.one(".selection").text.startswith("All windows")


def test_chosen_class_shows_its_locks_and_pairs(browser, page):
    browser.open(page, "contention")
    assert browser.one("#row-detail h3").text == "com.example.shop.PriceCache@5c29bfd1", "the most"
    table = browser.table("Locks by blocked time")
    name = next(n for n in table.column("Lock") if "ReentrantLock" in n)
    table.choose(name)
    assert browser.one("#row-detail h3").text == "java.util.concurrent.locks.ReentrantLock"
    locks = browser.table("Locks of java.util.concurrent.locks.ReentrantLock").column("Lock")
    assert locks == ["java.util.concurrent.locks.ReentrantLock@6d0c2a77Ledger.refunds",
                     "java.util.concurrent.locks.ReentrantLock@4e1d33b0Ledger.lock"]
    first = browser.one("#row-detail .pairs > li").text
    assert first.splitlines()[0] == "com.example.shop.Cart.merge(Cart.java:71) refunds-1"
    assert "← held by com.example.shop.Ledger.refund(Ledger.java:130) refunds-2" in first
    assert "again: a circle" in first
    browser.one("#row-detail .pairs summary").click()
    waiter, owner = browser.all("#row-detail .pairs > li:first-child .both .stack")
    assert waiter.text.startswith("jdk.internal.misc.Unsafe.park")
    assert "com.example.shop.Ledger.refund(Ledger.java:130) took the lock" in owner.text


def test_waits_are_apart_and_idle_ones_folded(browser, page, report):
    browser.open(page, "contention")
    assert "java.util.concurrent.CountDownLatch" not in str(
        browser.table("Locks by blocked time").rows())
    waits = browser.table("Waits by time").column("Waited for")
    assert [name.split("@")[0] for name in waits] == [
        "com.example.shop.Mailbox", "java.util.concurrent.CountDownLatch",
        "java.util.concurrent.CompletableFutureothers"]
    idle = browser.one("#idle")
    assert not idle.get_attribute("open")
    browser.one("summary", idle).click()
    names = browser.table("Idle waits by time").column("Waited for")
    assert sorted(name.split("@")[0] for name in names) == [
        "java.lang.ref.ReferenceQueue$Lock",
        "java.util.concurrent.locks.AbstractQueuedSynchronizer$ConditionObject"]


def test_pairs_are_those_of_the_samples(browser, page, report):
    browser.open(page, "pairs")
    known = Counter()
    for lock in report["locks"]:
        if lock["kind"] in CONTENTION:
            for pair in lock["pairs"]:
                if pair["ownerThread"] is not None:
                    known[lock["class"]] += pair["nanos"]
    rows = browser.table("Pairs of waiting and holding site").rows()
    shown = sum(millis(row["Blocked ms"]) for row in rows)
    assert shown == pytest.approx(sum(known.values()) / MILLI)
    by_sites = {(row["Waited in"].rsplit(".", 3)[-2].split("(")[0],
                 row["Held by"].rsplit(".", 3)[-2].split("(")[0]): row for row in rows}
    top = by_sites["reserve", "restock"]
    assert top["Blocked ms"] == "71,500" and top["Samples"] == "3,575"
    assert top["Owner was in"] == "java.lang.Thread.sleep(Native Method)"
    assert top["Owners"] == "restocker" and top["Waiters"] == "http-worker-1 and 1 more"
    browser.table("Pairs of waiting and holding site").choose(top["Waited in"])
    waiter, owner = browser.all("#pair-stacks .stack")
    assert "com.example.shop.Inventory.reserve(Inventory.java:41)" in waiter.text
    assert browser.one("strong", owner).text == (
        "com.example.shop.Inventory.restock(Inventory.java:52) took the lock")
    assert "≈" not in browser.text() and not browser.all(".matrix"), "no estimates"
    unknown = browser.one_of(browser.all("h3"), "Time without a known owner").find_element(
        "xpath", "..").text
    assert "1,900 ms" in unknown and "a fair lock that was promised to the next thread" in unknown


def test_chain_goes_from_lock_to_lock(browser, page):
    browser.open(page, "pairs")
    panel = browser.one_of(browser.all("h3"), "Chains: owners that wait for another lock themselves"
                           ).find_element("xpath", "..")
    chains = [one.text for one in browser.all(".pairs > li", panel)]
    assert len(chains) == 3
    (chain,) = [one for one in chains if "Inventory.count" in one]
    assert "held by com.example.shop.Inventory.reserve(Inventory.java:46) http-worker-2" in chain
    assert ("and itself waits for java.util.concurrent.locks.ReentrantLock@4e1d33b0, Ledger.lock, "
            "held by com.example.shop.Ledger.post(Ledger.java:93) auditor") in chain
    assert "again" not in chain


def flame_rows(browser):
    return {row["Method"]: row for row in browser.table("Methods of the flame graph").rows()}


def test_flame_graph_is_by_blocked_time(browser, page, report):
    browser.open(page, "blockedstacks")
    frames = {stack["id"]: stack["frames"] for stack in report["stacks"]}
    expected = Counter()
    whole = 0
    for lock in report["locks"] + report["otherLocks"]:
        for pair in lock["pairs"] if lock["kind"] in CONTENTION else []:
            whole += pair["nanos"]
            for method in {frame.split("(")[0] for frame in frames[pair["waiterStack"]]}:
                expected[method] += pair["nanos"]
    assert browser.one(".flame-line").text == f"All stacks: {whole / 60e9:.1f} min"
    rows = flame_rows(browser)
    assert {name: millis(row["In stacks of"].split()[0]) for name, row in rows.items()} == {
        name: pytest.approx(nanos / MILLI, abs=0.6) for name, nanos in expected.items()}
    assert "of 13.0 min that threads spent there" in browser.one("#sampled-time").text


def test_flame_graph_of_owners_and_by_samples(browser, page):
    browser.open(page, "blockedstacks")
    browser.choose("Stacks of", "Threads that held the lock")
    rows = flame_rows(browser)
    assert rows["sun.nio.ch.SocketDispatcher.read0"]["Ends here"] == "530,000 ms"
    unknown = [name for name in rows if "not known" in name or "held by nobody" in name]
    assert sorted(unknown) == [
        "(held by nobody: a fair lock that was promised to the next thread)",
        "(the owner is not known: it had released the lock, or the JVM did not report it)",
        "(the owner is not known: locks of this kind do not record it)"]
    browser.choose("Width", "Samples")
    assert browser.one(".flame-line").text.endswith(" samples")
    assert flame_rows(browser)["sun.nio.ch.SocketDispatcher.read0"]["Ends here"] == "26,500"
    assert "entries are counted by lock and not by stack" in browser.text()


def test_flame_graph_of_one_lock_with_lines(browser, page):
    browser.open(page, "blockedstacks")
    browser.choose("Lock", "com.example.shop.PriceCache@5c29bfd1")
    assert browser.one(".flame-line").text == "All stacks: 8.8 min"
    browser.one_of(browser.all("label.check"), "Line numbers").click()
    assert "com.example.shop.PriceCache.price(PriceCache.java:37)" in flame_rows(browser)


def test_what_is_missing_is_told_in_words(browser, open_report, report):
    report["endedAt"] = None
    report["parks"] = "the class file could not be changed"
    report["omitted"].update(startsNotSeen=7, pairs=3, pairNanos=5 * MILLI)
    open_report(report)
    text = browser.text()
    assert ("Not stopped: the profile still ran at 12:05:00 UTC, when this was written, or the JVM was "
            "killed later.") in text
    missing = browser.one("#missing").text
    assert ("Locks and waits of java.util.concurrent are NOT in this report: the class file could not "
            "be changed.") in missing
    assert "7 blocks had begun before the profile" in missing
    assert "3 samples (5.0 ms) did not fit among the pairs." in missing
    assert "Times and entries, which are those of monitors only, are exact" in text
    assert "2.6 s of processor time (0.9 % of one processor), 3,120 safepoints" in text


def test_profile_with_the_most_blocked_time_is_shown_and_another_can_be_chosen(
        browser, open_report, report):
    few = json.loads(json.dumps(report))
    clear(few)["startedAt"] -= 86_400_000
    open_report(few, report)
    assert browser.tiles()["Contended entries"] == "25,206"
    choice = browser.field("Contention profile")
    browser.all("option", choice)[0].click()
    browser.until(lambda: browser.tiles()["Contended entries"] == "0")


def test_names_in_the_report_are_texts(browser, open_report, report):
    script = "<img src=x onerror=window.hacked=1>"
    lock = report["locks"][0]
    lock.update({"class": script, "field": f"a.{script}"})
    lock["pairs"][0].update(waiterThread=script, ownerThread=script, ownerNote=None)
    report["stacks"][0]["frames"][0] = script
    report["deadlocks"][0][0]["thread"] = script
    report["stuck"][0]["waiters"][0]["thread"] = script
    open_report(report)
    browser.table("Locks by blocked time").choose(next(
        name for name in browser.table("Locks by blocked time").column("Lock") if script in name))
    assert script in browser.one("#row-detail").text and script in browser.one(".stuck").text
    for view in VIEWS:
        browser.go(view)
        assert browser.run("return window.hacked") is None and not browser.all("main img")


def test_numbers_without_end_do_not_break_the_page(browser, open_report, report):
    for lock in report["locks"]:
        lock["blockedNanos"] = lock["maxNanos"] = 2**63 - 1
    for window in report["windows"]:
        window["endedAt"] = window["startedAt"]
    report["locks"][0]["histogram"] = [0] * 31 + [2**63 - 1]
    open_report(report)
    for view in VIEWS:
        browser.go(view)
    assert "NaN" not in browser.text() and "Infinity" not in browser.text()


@pytest.mark.parametrize("width", [800, 1280])
def test_no_view_is_wider_than_the_window(browser, page, width):
    browser.resize(width, 900)
    browser.open(page, "contention")
    for view in VIEWS:
        browser.go(view)
        assert browser.run("return document.documentElement.scrollWidth") <= width, view


def test_views_can_be_read_by_assistive_technology(browser, page):
    browser.open(page, "contention")
    for view in VIEWS:
        browser.go(view)
        browser.run("document.querySelectorAll('details').forEach(e => { e.open = true; })")
        browser.expect_readable(view)
