"""The memory view of allocation samples: what grows comes first, each figure with the samples behind
it, and what is not known is told."""

import time

import pytest

import reports

PLACES = "Places that allocated what is alive"
CLASSES = "Classes of what is alive"
ABOUT = "What these figures do not tell"


@pytest.fixture
def open_session(browser, page_of, tmp_path):
    """Opens the page of allocation sessions."""

    def open_session(*sessions, view="memory"):
        for number, session in enumerate(sessions, 1):
            session.write(tmp_path, number)
        browser.open(page_of(tmp_path), view)

    return open_session


def test_page_opens_on_what_grows(browser, open_session):
    open_session(reports.shop_allocations(), view="")
    assert browser.one("#views a[aria-current=page]").text == "Memory"
    tiles = browser.tiles()
    assert tiles["Grows most"] == "4.5 MiB/min"
    assert tiles["Alive after collections"] == "≈ 128 MiB"
    browser.go("Overview")
    assert "Shop.login:31" in browser.text()


def test_growth_fits_a_narrow_screen(browser, open_session):
    browser.resize(400, 800)
    open_session(reports.shop_allocations())
    browser.table(CLASSES).choose("com.example.shop.Session")
    browser.expect_to_fit(400, "Memory")


def test_leaks_come_before_caches_and_what_was_made_at_the_start(browser, open_session):
    open_session(reports.shop_allocations())
    table = browser.table(PLACES)
    assert table.column("Allocated in") == [
        "com.example.shop.Shop.login(Shop.java:31)", "com.example.shop.Bus.add(Bus.java:5)",
        "com.example.shop.Pages.get(Pages.java:20)", "com.example.shop.Prices.load(Prices.java:9)"]
    assert table.column("Grows by") == ["4.5 MiB/min", "128 KiB/min", "0", "0"]
    assert table.column("Samples") == ["73", "3 (few)", "60", "120"]
    assert table.column("Classes")[0] == "Session, HashMap$Node"


def test_place_shows_classes_paths_and_stacks(browser, open_session):
    open_session(reports.shop_allocations())
    detail = browser.one("#allocation-place")
    assert ("held by java.util.HashMap$Node.value <- java.util.HashMap$Node[12] <- "
            "java.util.HashMap.table <- static field com.example.shop.Shop.sessions") in detail.text
    assert "held by java.util.HashMap$Node[12] <- java.util.HashMap.table <- static" in detail.text
    browser.run("document.querySelectorAll('#allocation-place details').forEach("
                "e => { e.open = true; })")
    assert "java.util.HashMap.put(HashMap.java:610)" in detail.text
    browser.table(PLACES).choose("com.example.shop.Bus.add(Bus.java:5)")
    assert ("com.example.shop.Listener: ≈ 1.5 MiB alive (3 samples: an estimate, between about "
            "372 KiB and 4.2 MiB), grows by 128 KiB/min") in detail.text
    assert "Who holds these objects is not known: no path to a root." in detail.text


def test_class_shows_its_places(browser, open_session):
    open_session(reports.shop_allocations())
    table = browser.table(CLASSES)
    assert table.column("In histogram")[0] == "21.0 MiB"
    table.choose("byte[]")
    assert "com.example.shop.Prices.load(Prices.java:9)" in browser.one("#allocation-class").text


def test_charts_have_their_numbers(browser, open_session):
    open_session(reports.shop_allocations())
    assert len(browser.all(".allocations .chart")) == 2
    assert len(browser.all(".allocations .chart .line")) == 4 + 2
    browser.run("document.querySelectorAll('details.numbers').forEach(e => { e.open = true; })")
    rows = browser.table("Alive after collections, from the places that grow most").rows()
    assert len(rows) == 8
    assert rows[7]["Place 1: Shop.login:31"] == f"{73 * 524_288:,}"


def test_what_is_not_known_is_told(browser, open_session):
    session = reports.shop_allocations(collections=0, afterCollection=False)
    open_session(session)
    assert browser.tiles()["Grows most"] == "not known"
    assert "No collection ran: nothing is known to survive" in browser.text()
    assert "NO COLLECTION ran" in browser.one(".allocations .notes").text


def test_histograms_alone_are_shown(browser, page_of, tmp_path):
    session = reports.shop_allocations()
    session.write(tmp_path)
    (tmp_path / "allocations-1.json").unlink()
    browser.open(page_of(tmp_path), "memory")
    assert "Allocations were not sampled" in browser.text()
    assert browser.table(CLASSES).column("Known from") == ["histograms", "histograms"]


def test_survivors_of_tracked_classes_are_on_the_same_view(browser, open_session, tmp_path):
    reports.write_memory(tmp_path, {"com.example.Order": {1: (4, 640)}})
    open_session(reports.shop_allocations(), reports.AllocationSession())
    assert "Survivors of session 1" in browser.text()
    assert len(browser.all(".allocations")) == 2


def test_large_session_stays_small_and_quick(browser, page_of, tmp_path):
    session = reports.AllocationSession(points=120)
    for number in range(1000):
        frames = [f"com.example.p{number % 50}.Class{number}.m{depth}(Class{number}.java:{depth})"
                  for depth in range(10)] + [f"com.example.Deep.level{level}(Deep.java:{level})"
                                             for level in range(50)]
        session.site(f"com.example.Kind{number % 300}", frames, 8 + number % 40,
                     course=[524_288 * point for point in range(120)])
    for number in range(9000):
        session.stacks.append({"id": 2000 + number, "isCut": False,
                               "frames": [f"com.example.Other{number}.m(Other.java:1)"] * 60})
    session.write(tmp_path)
    page = page_of(tmp_path)
    report = (tmp_path / "allocations-1.json").stat().st_size
    print(f"report {report / 2**20:.1f} MiB, page {page.stat().st_size / 2**20:.1f} MiB")
    assert page.stat().st_size < 3 * 2**20
    browser.open(page)
    start = time.monotonic()
    browser.go("Memory")
    built = time.monotonic() - start
    print(f"view {1000 * built:.0f} ms")
    assert built < 5
    assert browser.table(PLACES).count() == 1000
