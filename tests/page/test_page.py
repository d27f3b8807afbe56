"""The page of the viewer in a real browser: what it shows is what the report says, and it can be used
with a mouse, with a keyboard and with a screen reader."""

import json
import shutil
import subprocess
from collections import Counter

import pytest
from selenium.webdriver.common.keys import Keys

import reports
from browser import number
from conftest import DATA

VIEWS = ["Overview", "Locks", "Flame graph", "Who blocks whom", "Exceptions", "Memory"]
TAKE = ["com.example.Stock.take", "com.example.Shop.buy", "java.lang.Thread.run"]
IDLE_LOCK = "java.lang.ref.ReferenceQueue$Lock@2092332497"  # of the recorded report
COUNT = ["com.example.Stock.count", "com.example.Shop.list", "java.lang.Thread.run"]


@pytest.fixture(scope="module")
def run_folder(tmp_path_factory):
    """A run with something in every part of it."""
    folder = tmp_path_factory.mktemp("run")
    session = reports.LockSession()
    session.lock("com.example.Stock@7", graph=[3, 0, 12, 5], blocked=9, waited=2)
    session.lock("com.example.Cart@8", graph=[1, 0, 0, 0], blocked=1)
    session.enter("com.example.Stock@7", "worker-1", TAKE, 10, blocked=5)
    session.enter("com.example.Stock@7", "worker-2", TAKE, 6, blocked=3)
    session.enter("com.example.Stock@7", "worker-2", COUNT, 4, blocked=1)
    session.enter("com.example.Cart@8", "worker-1", ["com.example.Cart.add", *TAKE[1:]], 1)
    session.own("worker-1", 8, periods=3, seconds=4, stacks=[(TAKE, 8)])
    session.own("cleaner", 2)
    session.write(folder)
    cart = {"name": "cart", "type": "object", "fields": [
        reports.value("owner", "String", "Ada Lovelace"),
        {"name": "next", "type": "object", "value": None}]}
    top = reports.frame("com.example.Shop.buy", "Shop.java", 42,
                        arguments=[reports.value("qty", "int", "3"), cart])
    below = reports.frame("com.example.Shop.run", locals=[reports.value("i", "int", "17")])
    reports.write_exceptions(folder, [
        *(reports.record("com.example.OutOfStock", [top, below], f"no more of {i}",
                         time=f"2026-11-21T14:35:{i:02}.000Z") for i in range(30)),
        reports.record("java.io.EOFException", [below], None, caught=None,
                       ambiguous=["a text holds a separator"]),
    ], dropped=2)
    reports.write_memory(folder, {
        "com.example.Order": {2: (40, 1920), 5: (12, 576)},
        "com.example.Session": {2: (1, 2**63)},
    })
    reports.write_run(folder)
    return folder


@pytest.fixture(scope="module")
def page(page_of, run_folder):
    return page_of(run_folder)


@pytest.fixture(scope="module")
def recorded_page(page_of, recorded):
    return page_of(*recorded)


@pytest.fixture(scope="module")
def recorded_report(recorded):
    return json.loads(recorded[0].read_text())


def test_overview_has_the_sums_of_the_report(browser, recorded_page, recorded_report):
    browser.open(recorded_page)
    locks = recorded_report["lockmap"].values()
    tiles = browser.tiles()
    assert number(tiles["Blocked"]) == sum(lock["totalBlockTime"] for lock in locks)
    idle = recorded_report["lockmap"][IDLE_LOCK]["totalWaitTime"]
    assert number(tiles["Waited"]) == sum(lock["totalWaitTime"] for lock in locks) - idle
    assert f"{idle} s in idle threads" in browser.text()
    assert number(tiles["Contended entries"]) == sum(lock["count"] for lock in locks)
    assert number(tiles["Contended locks"]) == len(locks) - 1
    assert "ReferenceQueue" not in browser.text()


def test_views_are_those_that_the_report_has_data_for(browser, page, recorded_page):
    browser.open(page)
    assert [link.text for link in browser.all("#views a")] == VIEWS
    assert browser.one("#title").text == "Profiling report: com.example.shop.Shop"
    assert "process 4711 · Java 17.0.15" in browser.one("#subtitle").text
    browser.open(recorded_page)
    assert [link.text for link in browser.all("#views a")] == VIEWS[:4]


def test_lock_table_has_the_numbers_of_the_report_and_sorts(
        browser, recorded_page, recorded_report):
    browser.open(recorded_page, "locks")
    locks = dict(recorded_report["lockmap"])
    del locks[IDLE_LOCK]
    table = browser.table("Locks")
    assert table.count() == len(locks)
    for row in table.rows():
        lock = locks[row["Lock"]]
        assert number(row["Entries"]) == lock["count"]
        assert number(row["Blocked s"]) == lock["totalBlockTime"]
        assert number(row["Waited s"]) == lock["totalWaitTime"]
        assert number(row["Threads"]) == len(lock["threadbean"])
    blocked = table.numbers("Blocked s")
    assert blocked == sorted(blocked, reverse=True), "the most blocked first"

    assert table.sort_on("Entries") == "descending"
    assert table.numbers("Entries") == sorted((x["count"] for x in locks.values()), reverse=True)
    assert table.sort_on("Entries") == "ascending"
    assert table.numbers("Entries") == sorted(x["count"] for x in locks.values())
    assert table.sort_on("Lock") == "ascending"
    names = table.column("Lock")
    assert set(names) == set(locks) and names == sorted(names, key=str.lower)


def test_chosen_lock_shows_its_graph_threads_and_stacks(browser, page):
    browser.open(page, "locks")
    browser.table("Locks").choose("com.example.Stock@7")
    bars = browser.all("#lock-detail .chart .bar")
    assert [bar.get_attribute("textContent") for bar in bars] == [
        "Minute 1: 3 entries", "Minute 2: 0 entries", "Minute 3: 12 entries",
        "Minute 4: 5 entries"]
    heights = [float(bar.get_attribute("height")) for bar in bars]
    assert heights[1] == 0
    assert heights[2] == pytest.approx(4 * heights[0])
    browser.one("#lock-detail .numbers summary").click()
    table = browser.table("Contended entries by minute on com.example.Stock@7")
    assert table.numbers("Entries") == [3, 0, 12, 5]
    threads = {row["Thread"]: row for row in browser.table(
        "Threads on com.example.Stock@7").rows()}
    assert threads["worker-1"]["Entries"] == "10" and threads["worker-1"]["Blocked s"] == "5"
    assert threads["worker-2"]["Entries"] == "10" and threads["worker-2"]["Share"] == "50 %"
    stacks = browser.all("#lock-detail .stacks details")
    assert [stack.text.split()[0] for stack in browser.all("summary", browser.one(
        "#lock-detail .stacks"))] == ["16", "4"]
    assert [frame.text for frame in browser.all(".stack li", stacks[0])] == TAKE


def test_links_of_the_overview_open_the_lock(browser, page):
    browser.open(page)
    browser.one_of(browser.all(".ranking a"), "Stock@7").click()
    browser.until(lambda: browser.all("#lock-detail"))
    assert browser.one("#lock-detail h3").text == "com.example.Stock@7"
    browser.driver.back()
    browser.until(lambda: browser.all(".ranking"))


def test_filter_leaves_the_rows_that_hold_the_text(browser, recorded_page, recorded_report):
    browser.open(recorded_page, "locks")
    browser.type_into("Filter", "PRICE")
    wanted = [name for name in recorded_report["lockmap"] if "price" in name.lower()]
    browser.until(lambda: browser.table("Locks").column("Lock") == wanted)
    browser.type_into("Filter", "")
    browser.until(lambda: browser.table("Locks").count() == len(recorded_report["lockmap"]) - 1)


def stack_totals(report):
    """From the report: entries by stack hash, over all locks."""
    totals = Counter()
    for lock in report["lockmap"].values():
        for thread in lock["threadbean"].values():
            for value, use in thread["stacktracebean"].items():
                totals[value] += use["count"]
    return totals


def flame_line(browser):
    return browser.one(".flame-line").text


def test_flame_graph_has_all_entries_of_the_report(
        browser, recorded_page, recorded_report, recorded):
    browser.open(recorded_page, "flame")
    totals = stack_totals(recorded_report)
    entries = sum(lock["count"] for lock in recorded_report["lockmap"].values())
    assert flame_line(browser) == f"All stacks: {entries:,} entries"
    missing = entries - sum(totals.values())
    assert missing > 0, "entries whose stack was not recorded"
    expected = Counter({"(no stack recorded)": missing})
    contended = expected.copy()
    for line in recorded[1].read_text().splitlines():
        value, text = line.split("=[")
        frames = [frame[3:-2] for frame in text[:-1].split(",")]
        for method in set(frames):
            expected[method] += totals[value]
        contended[frames[0]] += totals[value]
    rows = {row["Method"]: row for row in browser.table("Methods of the flame graph").rows()}
    assert {name: number(row["In stacks of"]) for name, row in rows.items()} == +expected
    assert {name: number(row["Contended here"]) for name, row in rows.items()} == {
        name: contended[name] for name in rows}


def test_flame_graph_of_one_lock_and_one_thread(browser, page):
    browser.open(page, "flame")
    assert flame_line(browser) == "All stacks: 21 entries"
    browser.choose("Lock", "com.example.Stock@7")
    assert flame_line(browser) == "All stacks: 20 entries"
    browser.choose("Thread", "worker-2")
    assert flame_line(browser) == "All stacks: 10 entries"
    methods = browser.table("Methods of the flame graph").rows()
    assert {row["Method"]: row["Contended here"] for row in methods} == {
        TAKE[0]: "6", COUNT[0]: "4", TAKE[1]: "0", COUNT[1]: "0", TAKE[2]: "0"}
    browser.choose("Lock", "com.example.Cart@8")
    assert flame_line(browser) == "All stacks: 0 entries"
    assert browser.table("Methods of the flame graph").count() == 0


def test_flame_graph_has_entries_without_a_stack(browser, page_of, tmp_path):
    session = reports.LockSession()
    session.lock("a.B@1")
    session.enter("a.B@1", "worker", ["a.B.c"], 5)
    session.locks["a.B@1"]["threadbean"]["worker"]["count"] = 7
    session.locks["a.B@1"]["count"] = 10
    session.write(tmp_path)
    browser.open(page_of(tmp_path), "flame")
    assert flame_line(browser) == "All stacks: 10 entries"
    methods = browser.table("Methods of the flame graph").rows()
    assert {row["Method"]: row["Contended here"] for row in methods} == {
        "a.B.c": "5", "(no stack recorded)": "5"}
    browser.choose("Thread", "worker")
    assert flame_line(browser) == "All stacks: 7 entries"


def test_uncaught_is_a_dash_where_it_is_not_known(browser, page_of, tmp_path):
    reports.write_exceptions(tmp_path, [
        reports.record("a.Unknown", [], caught=None), reports.record("a.Caught", []),
        reports.record("a.Uncaught", [], caught=False)])
    browser.open(page_of(tmp_path), "exceptions")
    rows = browser.table("Exceptions by class and site").rows()
    assert {row["Exception"]: row["Uncaught"] for row in rows} == {
        "a.Unknown": "–", "a.Caught": "0", "a.Uncaught": "1"}


def test_flame_graph_zooms_with_the_mouse(browser, page):
    browser.open(page, "flame")
    canvas = browser.one("canvas")
    row = 19
    # The third row is com.example.Shop.buy (17 entries) left of com.example.Shop.list (4).
    browser.click_at(canvas, 10, 2.5 * row)
    assert flame_line(browser) == "com.example.Shop.buy: 17 entries, 81 % of all"
    width = canvas.size["width"]
    browser.click_at(canvas, width - 10, 2.5 * row)
    assert flame_line(browser) == "com.example.Shop.buy: 17 entries, 81 % of all", "it fills the row"
    browser.one_of(browser.all("main button"), "Zoom out").click()
    browser.click_at(canvas, width - 10, 2.5 * row)
    assert flame_line(browser) == "com.example.Shop.list: 4 entries, 19 % of all"


def test_flame_graph_works_with_the_keyboard(browser, page):
    browser.open(page, "flame")
    browser.run("document.querySelector('.flame-frame').focus()")
    browser.keys(Keys.ARROW_DOWN, Keys.ARROW_DOWN)
    assert flame_line(browser).startswith("com.example.Shop.buy: 17")
    browser.keys(Keys.ARROW_RIGHT)
    assert flame_line(browser).startswith("com.example.Shop.list: 4")
    browser.keys(Keys.ENTER, Keys.ARROW_DOWN)
    assert flame_line(browser).startswith("com.example.Stock.count: 4")
    browser.keys(Keys.ESCAPE)
    assert flame_line(browser).startswith("java.lang.Thread.run: 21")
    browser.keys(Keys.ESCAPE)
    assert flame_line(browser).startswith("All stacks: 21")


def test_flame_graph_search_marks_and_counts(browser, page):
    browser.open(page, "flame")
    plain = browser.run("return document.querySelector('canvas').toDataURL()")
    browser.type_into("Search methods", "stock.TAKE")
    browser.until(lambda: "1 method in 16 entries (76 %)" in browser.text())
    assert browser.table("Methods of the flame graph").column("Method") == [TAKE[0]]
    assert browser.run("return document.querySelector('canvas').toDataURL()") != plain
    browser.type_into("Search methods", "nowhere")
    browser.until(lambda: "0 methods in 0 entries (0 %)" in browser.text())


def test_flame_graph_from_the_contended_method(browser, page):
    browser.open(page, "flame")
    browser.field("Contended method first").click()
    browser.run("document.querySelector('.flame-frame').focus()")
    browser.keys(Keys.ARROW_DOWN)
    assert flame_line(browser).startswith("com.example.Stock.take: 16")


def test_matrix_has_the_owners_of_the_report(browser, recorded_page, recorded_report):
    browser.open(recorded_page, "blockers")
    owners = recorded_report["blockingThreads"]
    rows = browser.run(
        "return [...document.querySelectorAll('.matrix tbody tr')]"
        ".map(r => [...r.cells].map(c => c.textContent))")
    unknown = "price-refresher"  # never came to a lock itself
    assert {row[0]: number(row[1]) for row in rows} == {
        name: owner["blockingCount"] for name, owner in owners.items() if name != unknown}
    assert browser.one("#owners-without-locks").text == (
        "Not in a pair, as it is not known which locks they owned: price-refresher (found owning "
        f"{owners[unknown]['blockingCount']} times).")
    for row in rows:
        cells = [number(cell) for cell in row[2:] if cell not in ("", "itself")]
        assert sum(cells) == pytest.approx(number(row[1]), abs=len(cells)), row[0]
    pairs = browser.table("Pairs of owner and blocked thread").rows()
    spread = {(row["Owner"], row["Blocked"]): row["≈ Times"] for row in pairs}
    blocked = browser.run(
        "return [...document.querySelectorAll('.matrix .upright')].map(e => e.textContent)")
    for row in rows:
        for name, cell in zip(blocked, row[2:]):
            assert (cell if cell not in ("", "itself") else "0") == spread.get((row[0], name), "0")


def test_estimates_are_of_known_locks_only(browser, page):
    browser.open(page, "blockers")
    pairs = {(row["Owner"], row["Blocked"]): row for row in browser.table(
        "Pairs of owner and blocked thread").rows()}
    # worker-1 came to the stock as its former owner, so it owned that and not the cart.
    assert set(pairs) == {("worker-1", "worker-2")}
    assert pairs["worker-1", "worker-2"]["≈ Times"] == "8"
    assert pairs["worker-1", "worker-2"]["Locks in common"] == "Stock@7"
    # The cleaner never blocked: whom it blocked is not guessed.
    assert browser.one("#owners-without-locks").text.endswith(": cleaner (found owning 2 times).")
    assert len(browser.all(".matrix tbody tr")) == 1


def test_threads_have_their_sums(browser, page):
    browser.open(page, "blockers")
    rows = {row["Thread"]: row for row in browser.table("Threads").rows()}
    assert set(rows) == {"worker-1", "worker-2", "cleaner"}
    assert rows["worker-1"]["Entries"] == "11" and rows["worker-1"]["Blocking periods"] == "3"
    assert rows["cleaner"]["Found owning"] == "2" and rows["cleaner"]["Locks"] == "0"


def owner_page(page_of, folder, *lookups, found=2):
    session = reports.LockSession()
    session.lock("com.example.Stock@7", blocked=9)
    session.enter("com.example.Stock@7", "worker-1", TAKE, 20)
    session.enter("com.example.Stock@7", "worker-2", TAKE, 30)
    session.own("worker-1", found, periods=3, seconds=4, stacks=[(TAKE, 8)])
    if lookups:
        session.limit_lookups(*lookups)
    return page_of(session.write(folder))


def test_owners_are_scaled_where_owner_lookups_were_skipped(browser, page_of, tmp_path):
    page = owner_page(page_of, tmp_path, 100, 1000, 15000)
    browser.open(page)
    assert "found owning 2 times, in all ≈ 32" in browser.text()
    browser.open(page, "blockers")
    note = browser.one("#owner-sample").text
    assert "1,000 owner lookups made, 15,000 skipped, at most 100 a second. About 6 % were found" in note
    assert "sums of the owners are exact" not in browser.text()
    cells = browser.all(".matrix tbody tr > *")
    assert [cell.text for cell in cells][:3] == ["worker-1", "2", "32"]
    (pair,) = browser.table("Pairs of owner and blocked thread").rows()
    assert pair["Blocked"] == "worker-2" and pair["≈ Times"] == "32"
    rows = {row["Thread"]: row for row in browser.table("Threads").rows()}
    assert rows["worker-1"]["Found owning"] == "2" and rows["worker-1"]["≈ In all"] == "32"
    assert rows["worker-1"]["Blocking periods"] == "3" and rows["worker-1"]["Blocking s"] == "4"


# Shared lookups can find an owner for each entry, however many lookups were skipped.
def test_a_sample_that_has_all_entries_is_not_said_to_be_scaled(browser, page_of, tmp_path):
    browser.open(owner_page(page_of, tmp_path, 100, 10, 5, found=50), "blockers")
    note = browser.one("#owner-sample").text
    assert "10 owner lookups made, 5 skipped, at most 100 a second." in note and "scaled" not in note


@pytest.mark.parametrize("lookups", [(), (100, 50, 0)], ids=["no-limit", "none-skipped"])
def test_owners_are_as_counted_where_no_owner_lookup_was_skipped(browser, page_of, tmp_path, lookups):
    page = owner_page(page_of, tmp_path, *lookups)
    browser.open(page)
    assert "found owning 2 times" in browser.text() and "in all" not in browser.text()
    browser.open(page, "blockers")
    assert "sums of the owners are exact" in browser.text()
    assert not browser.all("#owner-sample") and "≈ In all" not in browser.text()
    (pair,) = browser.table("Pairs of owner and blocked thread").rows()
    assert pair["≈ Times"] == "2"


def test_a_report_with_malformed_owner_lookups_is_a_problem(twreport, tmp_path):
    session = reports.LockSession()
    session.limit_lookups(100, "many", 0)
    done = subprocess.run([twreport, session.write(tmp_path), "-o", tmp_path / "page.html"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 1
    assert "locks-1.json: ownerLookups / made: expected a whole number, found string" in done.stderr


@pytest.fixture(scope="module")
def page_of_two(page_of, tmp_path_factory):
    """Two sessions with a lock, a thread and a stack in common, and some of their own."""
    folder = tmp_path_factory.mktemp("two")
    first = reports.LockSession()
    first.lock("com.example.Stock@7", graph=[3, 1], blocked=9, waited=2)
    first.enter("com.example.Stock@7", "worker-1", TAKE, 3, blocked=6)
    first.enter("com.example.Stock@7", "worker-2", COUNT, 1, blocked=3)
    first.own("worker-1", 4, periods=2, seconds=5, stacks=[(TAKE, 1)])
    first.write(folder)
    second = reports.LockSession("after the fix", session=2)
    second.lock("com.example.Stock@7", graph=[2], blocked=1)
    second.enter("com.example.Stock@7", "worker-1", TAKE, 2, blocked=1)
    second.lock("com.example.Cart@8", graph=[5], blocked=20)
    second.enter("com.example.Cart@8", "worker-3", TAKE, 5, blocked=20)
    second.own("worker-1", 1, stacks=[(TAKE, 1)])
    second.write(folder)
    return page_of(folder)


def test_sessions_are_merged(browser, page_of_two):
    browser.open(page_of_two, "overview")
    tiles = browser.tiles()
    assert (tiles["Blocked"], tiles["Contended entries"], tiles["Contended locks"]) == (
        "30 s", "11", "2")
    browser.go("Locks")
    rows = {row["Lock"]: row for row in browser.table("Locks").rows()}
    assert list(rows) == ["com.example.Cart@8", "com.example.Stock@7"]
    stock = rows["com.example.Stock@7"]
    assert (stock["Entries"], stock["Blocked s"], stock["Waited s"], stock["Threads"]) == (
        "6", "10", "2", "2")
    browser.table("Locks").choose("com.example.Stock@7")
    bars = browser.all("#lock-detail .chart .bar")
    assert [bar.get_attribute("textContent").split(": ")[1] for bar in bars] == [
        "3 entries", "1 entry", "2 entries"]
    assert "by minute, one session after the other" in browser.one("#lock-detail").text
    threads = {row["Thread"]: row for row in browser.table("Threads on com.example.Stock@7").rows()}
    assert threads["worker-1"]["Entries"] == "5" and threads["worker-1"]["Blocked s"] == "7"
    browser.go("Flame graph")
    assert flame_line(browser) == "All stacks: 11 entries"
    methods = browser.table("Methods of the flame graph").rows()
    assert {row["Method"]: row["Contended here"] for row in methods}[TAKE[0]] == "10"


def test_merged_sessions_pair_no_thread_with_one_of_another_session(browser, page_of_two):
    browser.open(page_of_two, "blockers")
    pairs = [(row["Owner"], row["Blocked"], row["≈ Times"], row["Locks in common"])
             for row in browser.table("Pairs of owner and blocked thread").rows()]
    assert pairs == [("worker-1", "worker-2", "4", "Stock@7")]
    rows = {row["Thread"]: row for row in browser.table("Threads").rows()}
    assert rows["worker-1"]["Found owning"] == "5" and rows["worker-1"]["Blocking s"] == "5"


def test_one_lock_session_can_be_chosen(browser, page_of_two):
    browser.open(page_of_two, "locks")
    browser.choose("Lock session", "1: checkout")
    assert browser.table("Locks").column("Lock") == ["com.example.Stock@7"]
    browser.go("Flame graph")
    assert flame_line(browser) == "All stacks: 4 entries"
    browser.choose("Lock session", "All sessions")
    assert flame_line(browser) == "All stacks: 11 entries"


def test_page_opens_on_the_lock_with_the_most_blocked_time(browser, page_of_two):
    browser.open(page_of_two, "")
    assert browser.one("#views a[aria-current=page]").text == "Locks"
    assert browser.one("#lock-detail h3").text == "com.example.Cart@8"


@pytest.mark.parametrize("blocked, view", [(700, "Contention"), (800, "Locks")])
def test_page_opens_on_the_part_with_the_most_blocked_time(
        browser, page_of, tmp_path, blocked, view):
    session = reports.LockSession()
    session.lock("a.B@1", blocked=blocked)
    session.enter("a.B@1", "worker", ["a.B.c"], 1)
    session.write(tmp_path)
    shutil.copy(DATA / "contention-run" / "contention-1.json", tmp_path)  # 779 s
    browser.open(page_of(tmp_path), "")
    assert browser.one("#views a[aria-current=page]").text == view


def test_stacks_of_locks_that_the_summary_did_not_know_are_listed(browser, page_of, tmp_path):
    session = reports.LockSession()
    session.stack(TAKE)
    session.stack(COUNT)
    session.write(tmp_path)
    browser.open(page_of(tmp_path), "")
    assert browser.one("#views a[aria-current=page]").text == "Locks"
    text = browser.text()
    assert "nothing was contended" not in text
    assert "No lock is in the report, but threads were blocked by some" in text
    panel = browser.one("#stacks-of-no-lock")
    assert browser.one("h3", panel).text == "Blocked, but at no lock of the report: 2 stacks"
    assert [code.text for code in browser.all("summary code", panel)] == ["Stock.take", "Stock.count"]
    assert [frame.text for frame in browser.all(".stack li", panel)][:3] == TAKE
    browser.go("Overview")
    assert "Blocked, but at no lock of the report: 2 stacks" in browser.text()


def test_stacks_of_known_locks_are_not_among_those_of_no_lock(browser, page, recorded_page):
    for one in (page, recorded_page):
        browser.open(one, "locks")
        assert not browser.all("#stacks-of-no-lock")


def test_session_without_anything_has_no_contention(browser, page_of, tmp_path):
    browser.open(page_of(reports.LockSession().write(tmp_path)), "locks")
    assert "nothing was contended, or no detail session was run." in browser.text()


def test_idle_waits_are_folded(browser, page_of, tmp_path):
    session = reports.LockSession()
    waits = {"java.lang.ref.ReferenceQueue$Lock@1": "Finalizer", "a.Tasks@2": "Common-Cleaner",
             "a.Control@3": "javanativeagent control", "a.Mailbox@4": "reader"}
    for name, thread in waits.items():
        session.lock(name, waited=10)
        session.enter(name, thread, ["a.B.c"], 0)
    session.lock("java.lang.ref.ReferenceQueue$Lock@5", waited=3)  # contended as well
    session.enter("java.lang.ref.ReferenceQueue$Lock@5", "Finalizer", ["a.B.c"], 4)
    browser.open(page_of(session.write(tmp_path)), "locks")
    assert set(browser.table("Locks").column("Lock")) == {
        "a.Mailbox@4", "java.lang.ref.ReferenceQueue$Lock@5"}
    idle = browser.one("#idle-locks")
    assert not idle.get_attribute("open") and "Idle: 30 s" in idle.text
    browser.one("summary", idle).click()
    assert set(browser.table("Idle waits").column("Lock")) == set(list(waits)[:3])
    browser.go("Overview")
    assert browser.tiles()["Waited"] == "13 s"


def test_exceptions_that_are_not_among_the_records(browser, page_of, tmp_path):
    cut = {**reports.record("a.b.Cut", []), "cut": True}
    reports.write_exceptions(tmp_path, [cut, reports.record("a.b.Whole", [])], dropped=4,
                             agent=reports.counts(seen=12238, overRate=12000, filtered=200,
                                                  blackListed=29, delivered=6, cut=1, stack=3))
    reports.write_run(tmp_path, removed={"reports": 5, "files": 10})
    (tmp_path / "memory-2.json.part").write_text("")
    browser.open(page_of(tmp_path), "exceptions")
    assert ("The agent saw 12,238 exceptions: 12,000 over the rate, 29 of excluded classes, 200 thrown "
            "in packages that are not recorded, 3 without a record (stack 3), 6 handed over as "
            "records. Records that were cut: 1.") in browser.text()
    assert "4 records were dropped." in browser.text()
    assert "no record could be made of 3 exceptions (stack 3)." in browser.text()
    groups = browser.table("Exceptions by class and site")
    groups.choose("a.b.Whole")
    assert "was cut" not in browser.text()
    groups.choose("a.b.Cut")
    assert "The record was too long and was cut" in browser.text()
    browser.go("Overview")
    assert "recorded; incomplete" in browser.text()
    assert "memory-2.json.part" in browser.text() and "5 older reports" in browser.text()


def test_exceptions_of_a_jvm_that_was_killed(browser, page_of, tmp_path):
    reports.write_json(tmp_path / "exceptions.jsonl", reports.record("a.b.X", []))
    browser.open(page_of(tmp_path), "exceptions")
    assert "there is no end line: the JVM was killed or is still running." in browser.text()
    assert "The agent saw" not in browser.text()


def test_exceptions_by_group_and_record(browser, page):
    browser.open(page, "exceptions")
    assert "2 records were dropped" in browser.text()
    groups = browser.table("Exceptions by class and site")
    assert [(row["Exception"], row["Thrown in"], row["Records"]) for row in groups.rows()] == [
        ("com.example.OutOfStock", "com.example.Shop.buy(Shop.java:42)", "30"),
        ("java.io.EOFException", "com.example.Shop.run", "1")]
    records = browser.table("Exception records")
    assert records.count() == 31
    groups.choose("java.io.EOFException")
    assert records.column("Exception") == ["java.io.EOFException"]
    assert records.column("Caught") == ["not known"]
    browser.all("button", records.element)[5].click()
    assert "a text holds a separator" in browser.text()
    browser.one_of(browser.all("main button"), "Records of all groups").click()
    assert records.count() == 31


def test_record_is_a_tree_of_frames_and_values(browser, page):
    browser.open(page, "exceptions/0")
    records = browser.table("Exception records")
    records.choose("14:35:07.000")
    frames = browser.all(".frames > li")
    assert [frame.text.split("\n")[0] for frame in frames] == [
        "com.example.Shop.buy Shop.java:42", "com.example.Shop.run"]
    tree = frames[0].text
    assert "no more of 7" in browser.text()
    assert "qty int = 3" in tree
    assert "owner String = “Ada Lovelace”" in tree
    assert "next object = null" in tree
    browser.one("summary", browser.one(".tree details", frames[0])).click()
    assert "Ada Lovelace" not in frames[0].text, "an object closes"
    assert "i int = 17" not in frames[1].text
    browser.one("summary", frames[1]).click()
    assert "i int = 17" in frames[1].text


def test_search_finds_values_deep_in_records(browser, page):
    browser.open(page, "exceptions")
    records = browser.table("Exception records")
    for text, found in (("ada LOVELACE", 30), ("no more of 29", 1), ("shop.java:42", 30),
                        ("eofexception", 1), ("17", 31), ("nowhere", 0)):
        browser.type_into("Search all texts and values", text)
        browser.until(lambda: f"{found} of 31 records" in browser.text())
        assert records.count() == found


def test_memory_is_stacked_by_generation(browser, page):
    browser.open(page, "memory")
    classes = {row["Class"]: row for row in browser.table(
        "Classes with surviving objects").rows()}
    assert classes["com.example.Order"]["Bytes"] == "2,496"
    assert classes["com.example.Order"]["Objects"] == "52"
    assert classes["com.example.Session"]["Bytes"] == "9,223,372,036,854,775,808"
    bars = browser.all(".survivor")
    assert [browser.one(".name", bar).text for bar in bars] == ["Session", "Order"]
    browser.choose("Show", "Objects")
    bars = browser.all(".survivor")
    parts = browser.all("rect", bars[1])
    assert [part.get_attribute("textContent") for part in parts] == [
        "Generation 2: 40 objects", "Generation 5: 12 objects"]
    widths = [float(part.get_attribute("width")) for part in parts]
    assert widths[0] / widths[1] == pytest.approx(40 / 12)
    browser.one(".numbers summary").click()
    rows = browser.table("Survivors by generation of all classes").rows()
    assert [(row["Class"], row["Generation"], row["Objects"], row["Bytes"]) for row in rows] == [
        ("com.example.Session", "2", "1", "9,223,372,036,854,775,808"),
        ("com.example.Order", "2", "40", "1,920"), ("com.example.Order", "5", "12", "576")]


@pytest.mark.parametrize("width", [800, 1280])
def test_no_view_is_wider_than_the_window(browser, page, width):
    browser.resize(width, 900)
    browser.open(page)
    for view in VIEWS:
        browser.go(view)
        assert browser.run("return document.documentElement.scrollWidth") <= width, view


CONTRAST = """
const channel = (c) => { c /= 255; return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; };
const light = (rgb) => { const [r, g, b] = rgb.match(/[\\d.]+/g).map(Number);
  return 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b); };
const colour = (name) => { const e = document.createElement('i'); e.style.color = `var(${name})`;
  document.body.append(e); const c = getComputedStyle(e).color; e.remove(); return light(c); };
return arguments[0].map(([a, b]) => { const [x, y] = [colour(a), colour(b)].sort((p, q) => q - p);
  return (x + 0.05) / (y + 0.05); });
"""


# The texts in sight whose contrast with what is behind them is below that of WCAG AA. Bars behind
# numbers are pictures, and among the pairs below.
FAINT = """
const probe = document.createElement('canvas').getContext('2d', {willReadFrequently: true});
const known = new Map();
const rgba = (colour) => {
  if (!known.has(colour)) {
    probe.clearRect(0, 0, 1, 1);
    probe.fillStyle = colour;
    probe.fillRect(0, 0, 1, 1);
    known.set(colour, [...probe.getImageData(0, 0, 1, 1).data]);
  }
  const [r, g, b, a] = known.get(colour);
  return {rgb: [r, g, b], alpha: a / 255};
};
const mix = (top, alpha, ground) => top.map((part, i) => part * alpha + ground[i] * (1 - alpha));
const ground = (e) => {
  if (!e) return rgba(getComputedStyle(document.body).backgroundColor).rgb;
  const {rgb, alpha} = rgba(getComputedStyle(e).backgroundColor);
  return alpha === 1 ? rgb : mix(rgb, alpha, ground(e.parentElement));
};
const channel = (c) => { c /= 255; return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; };
const light = ([r, g, b]) => 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b);
const found = [];
const texts = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (texts.nextNode()) {
  const e = texts.currentNode.parentElement;
  if (!texts.currentNode.textContent.trim() || e.closest('script, style, .unseen, .skip') ||
      !e.checkVisibility({visibilityProperty: true})) continue;
  const style = getComputedStyle(e);
  const behind = ground(e);
  const {rgb, alpha} = rgba(e.closest('svg') ? style.fill : style.color);
  let opacity = alpha;
  for (let at = e; at; at = at.parentElement) opacity *= Number(getComputedStyle(at).opacity);
  const [x, y] = [light(mix(rgb, opacity, behind)), light(behind)].sort((p, q) => q - p);
  if ((x + 0.05) / (y + 0.05) < 4.5) {
    found.push(`${e.tagName}.${e.className}: ${texts.currentNode.textContent.slice(0, 40)}`);
  }
}
return found;
"""


@pytest.mark.parametrize("colours", ["light", "dark"])
def test_every_text_can_be_read_against_its_ground(browser, page_of, colours):
    browser.prefer(colours)
    browser.open(page_of(DATA / "shop-run", DATA / "contention-run" / "contention-1.json"))
    for view in [a.text for a in browser.all("#views a")]:
        browser.go(view)
        for fold in browser.all("details:not([open])"):
            browser.run("arguments[0].open = true", fold)
        assert browser.run(FAINT) == [], view
    browser.run("document.querySelector('.note, p').style.opacity = .5")
    assert browser.run(FAINT), "the test sees a faint text"


UNMARKED = """
return [...document.querySelectorAll('a[href], button, input, select, summary, [tabindex="0"]')]
  .filter(e => e.checkVisibility() && !e.disabled).filter(e => {
    e.focus({focusVisible: true, preventScroll: true});
    const style = getComputedStyle(e);
    return document.activeElement !== e || style.outlineStyle === 'none' ||
      parseFloat(style.outlineWidth) < 2;
  }).map(e => e.outerHTML.slice(0, 80));
"""


def test_the_focus_can_be_seen_wherever_it_goes(browser, page_of):
    browser.open(page_of(DATA / "shop-run", DATA / "contention-run" / "contention-1.json"))
    for view in [a.text for a in browser.all("#views a")]:
        browser.go(view)
        assert browser.run(UNMARKED) == [], view


def test_nothing_moves_for_those_who_ask_for_that(browser, page):
    moving = """return [...document.querySelectorAll('*')].map(e => getComputedStyle(e))
      .filter(e => e.transitionDuration !== '0s' || e.animationName !== 'none' ||
        e.scrollBehavior !== 'auto').length"""
    browser.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-reduced-motion", "value": "reduce"}]})
    browser.open(page)
    assert browser.run(moving) == 0
    browser.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-reduced-motion", "value": "no-preference"}]})
    assert browser.run(moving) > 0, "the test sees what moves"


@pytest.mark.parametrize("colours", ["light", "dark"])
def test_colours_follow_the_system_and_the_switch(browser, page, colours):
    def is_dark():
        shade = browser.run("return getComputedStyle(document.body).backgroundColor")
        return int(shade.split("(")[1].split(",")[0]) < 128

    browser.prefer(colours)
    browser.open(page, "flame")
    assert is_dark() == (colours == "dark")
    pairs = [[text, ground] for text in ("--text", "--muted", "--accent", "--mark", "--danger")
             for ground in ("--ground", "--surface", "--raised")]
    pairs += [["--text", f"--flame-{name}"] for name in ("root", "jdk", 1, 2, 3, 4)]
    pairs += [["--flame-match-text", "--flame-match"], ["--text", "--bar"]]
    for pair, contrast in zip(pairs, browser.run(CONTRAST, pairs)):
        assert contrast >= 4.5, pair
    other = "Light" if colours == "dark" else "Dark"
    drawn = browser.run("return document.querySelector('canvas').toDataURL()")
    browser.choose("Colours", other)
    assert is_dark() == (other == "Dark")
    assert browser.run("return document.querySelector('canvas').toDataURL()") != drawn
    browser.choose("Colours", "As the system")
    assert is_dark() == (colours == "dark")


def test_page_can_be_used_from_the_keyboard(browser, page):
    browser.open(page)
    active = "const e = document.activeElement; return e.textContent || e.id"
    browser.keys(Keys.TAB)
    assert browser.run(active) == "Skip to the content"
    browser.keys(Keys.ENTER)
    assert browser.run("return document.activeElement.id") == "content"
    browser.run("document.querySelector('#views a[href=\"#locks\"]').focus()")
    browser.keys(Keys.ENTER)
    browser.until(lambda: browser.all("#lock-detail") or browser.all("table.data"))
    assert browser.run("return document.activeElement.id") == "content", "the focus follows"
    heading = browser.one_of(browser.all("table.data thead th"), "Entries")
    browser.run("arguments[0].querySelector('button').focus()", heading)
    browser.keys(Keys.ENTER)
    assert heading.get_attribute("aria-sort") == "descending"
    browser.run("document.querySelector('table.data tbody button').focus()")
    browser.keys(Keys.ENTER)
    assert browser.all("#lock-detail")


def test_page_tells_screen_readers_what_is_what(browser, page):
    browser.open(page)
    assert browser.run("return document.documentElement.lang") == "en"
    for landmark in ("header", "nav[aria-label]", "main"):
        assert len(browser.all(landmark)) == 1
    for view in VIEWS:
        browser.go(view)
        if view == "Locks":
            browser.table("Locks").choose("com.example.Stock@7")
        if view == "Exceptions":
            browser.table("Exceptions by class and site").choose("com.example.OutOfStock")
            assert browser.all(".frames")
        browser.expect_readable(view)


def test_recursion_counts_once_and_unknown_stacks_count(page_of, browser, tmp_path):
    session = reports.LockSession()
    session.lock("a.B@1")
    session.enter("a.B@1", "worker", ["a.B.down", "a.B.down", "a.B.down", "a.B.start"], 5)
    session.enter("a.B@1", "worker", ["a.B.lost"], 3)
    lost = next(value for value, text in session.stacks.items() if "lost" in text)
    session.write(tmp_path)
    stacks = tmp_path / "locks-1.stacks"
    stacks.write_text("".join(line for line in stacks.read_text().splitlines(True)
                              if not line.startswith(lost)))
    browser.open(page_of(tmp_path), "flame")
    assert flame_line(browser) == "All stacks: 8 entries"
    rows = {row["Method"]: (row["Contended here"], row["In stacks of"])
            for row in browser.table("Methods of the flame graph").rows()}
    assert rows == {"a.B.down": ("5", "5"), "a.B.start": ("0", "5"),
                    "(stack not in the stack file)": ("3", "3")}


@pytest.mark.parametrize("width", [400, 800])
def test_a_narrow_screen_scrolls_down_only(browser, page_of, width):
    browser.resize(width, 800)
    browser.open(page_of(DATA / "shop-run", DATA / "contention-run" / "contention-1.json"))
    for view in [a.text for a in browser.all("#views a")]:
        browser.go(view)
        browser.expect_to_fit(width, view)


SHOWN = """return [...arguments[0].tHead.rows[0].cells]
    .filter(e => e.offsetWidth > 0).map(e => e.textContent)"""


def test_a_narrow_table_shows_the_name_and_the_figure_and_all_on_demand(browser, page_of):
    def columns(caption):
        return browser.run(SHOWN, browser.table(caption).element)

    browser.resize(400, 800)
    browser.open(page_of(DATA / "shop-run"), "locks")
    assert columns("Locks") == ["Lock", "Blocked s"]
    box = next(e for e in browser.all("label.narrow") if e.is_displayed())
    box.click()
    assert len(columns("Locks")) > 4
    browser.resize(1280, 900)
    assert len(columns("Locks")) > 4
    assert not any(e.is_displayed() for e in browser.all("label.narrow"))
    browser.resize(400, 800)
    browser.go("Exceptions")
    assert columns("Exception records") == ["Time", "Exception"]
    browser.go("Who blocks whom")
    assert columns("Pairs of owner and blocked thread") == ["Owner", "Blocked", "≈ Times"]


PARTS = """
  const clipped = (e) => e.scrollWidth > e.clientWidth;
  const isSeen = (e) => {
    const [box, line] = [e.getBoundingClientRect(), e.closest('.java').getBoundingClientRect()];
    return box.width > 0 && box.top < line.bottom - 2;
  };
  return [...arguments[0].querySelectorAll('.java')].map(e => {
    const part = (name) => e.querySelector('.' + name);
    return [e.title, isSeen(part('packages')) && part('packages').offsetWidth,
      isSeen(part('start')) && !clipped(part('start')), isSeen(part('end')) && !clipped(part('end'))];
  });"""


@pytest.mark.parametrize("width", [400, 800])
def test_a_long_name_keeps_its_class_and_method(browser, page_of, tmp_path, width):
    package = "com.example.warehouse.fulfilment.persistence"
    session = reports.LockSession()
    session.lock(f"{package}.Stock@7", blocked=9)
    methods = [f"{package}.{'Order' + 'i' * more}.put" for more in range(60)]
    session.enter(f"{package}.Stock@7", "worker", [f"{m}(Order.java:31)" for m in methods], 1,
                  blocked=9)
    browser.resize(width, 900)
    browser.open(page_of(session.write(tmp_path)), "flame")
    found = browser.run(PARTS, browser.table("Methods of the flame graph").element)
    assert sorted(title for title, *_ in found) == sorted(f"{m}(Order.java:31)" for m in methods)
    for title, packages, start, end in found:
        assert end, f"the method is complete: {title}"
        assert start or packages is False, f"the package is cut before the class: {title}"
        # A letter of the package on its own would read as one of the class.
        assert packages is False or packages > 25, title
    assert {True, False} == {packages is False for _, packages, *_ in found}
    browser.go("Locks")
    assert all(start for _, _, start, _ in browser.run(PARTS, browser.table("Locks").element))


def test_the_overview_begins_with_what_the_run_comes_to(browser, page_of):
    browser.open(page_of(DATA / "shop-run"))
    answers = browser.all(".findings > dl > dt")
    assert [e.text for e in answers] == ["What holds it up", "What fails", "What leaks"]
    texts = [e.text for e in browser.all(".findings > dl > dd")]
    assert "com.example.shop.Inventory" in texts[0]
    views = [e.get_attribute("href").split("#")[1] for e in browser.all(".findings > dl a")]
    assert views == ["locks", "exceptions", "memory"]


def test_what_is_not_known_is_folded_with_what_would_answer_it(browser, page_of):
    browser.open(page_of(DATA / "shop-run" / "memory-1.json"))
    fold = browser.one(".findings details")
    assert "what holds it up, what fails" in fold.text and fold.get_attribute("open") is None
    browser.one("summary", fold).click()
    assert "Use --contention." in fold.text and "Use --exceptions." in fold.text
