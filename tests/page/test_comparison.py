"""The page of two runs compared."""

import subprocess

import pytest

import reports


@pytest.fixture
def comparison(browser, twreport, tmp_path):
    """Opens the page that compares two runs, each given as blocked seconds by lock."""

    def compare(before, after, *options):
        for side, locks in (("before", before), ("after", after)):
            session = reports.LockSession()
            for name, blocked in locks.items():
                session.lock(name, blocked=blocked)
            session.write(tmp_path / side)
        page = tmp_path / "diff.html"
        subprocess.run([twreport, "diff", tmp_path / "before", tmp_path / "after", "-o", page,
                        *options], check=True, timeout=60)
        browser.open(page)
        return browser

    return compare


BEFORE = {"a.Worse@1": 10, "a.Better@2": 30, "a.Went@3": 4, "a.Same@4": 100}
AFTER = {"a.Worse@5": 20, "a.Better@6": 3, "a.Came@7": 7, "a.Same@8": 101}


def test_differences_are_those_of_the_reports(comparison):
    browser = comparison(BEFORE, AFTER)
    assert browser.one("#title").text == "Comparison of two runs"
    rows = {row["Name"]: row for row in browser.table("Locks of both runs").rows()}
    assert {name: (row["Before"], row["After"], row["Difference"], row["Change"])
            for name, row in rows.items()} == {
        "a.Worse": ("10", "20", "+10", "worse"), "a.Better": ("30", "3", "-27", "better"),
        "a.Went": ("4", "–", "-4", "went"), "a.Came": ("–", "7", "+7", "came"),
        "a.Same": ("100", "101", "+1", "same")}
    assert browser.tiles() == {"worse": "1", "came": "1", "better": "1", "went": "1", "same": "1"}


def test_differences_fit_a_narrow_screen(comparison):
    comparison(BEFORE, AFTER).resize(400, 800)
    browser = comparison(BEFORE, AFTER)
    browser.expect_to_fit(400, "Comparison")
    assert browser.run("return [...document.querySelector('table.data').tHead.rows[0].cells]"
                       ".filter(e => e.offsetWidth > 0).map(e => e.textContent)") == [
        "Name", "Before", "Difference"]


def test_threshold_decides_and_is_named(comparison):
    browser = comparison(BEFORE, AFTER, "--threshold", "0", "--least", "8")
    assert "differences of 0 % and more of the larger number, and of 8 and more" in browser.text()
    assert browser.tiles() == {"worse": "1", "came": "0", "better": "1", "went": "0", "same": "3"}


def test_table_sorts_on_the_difference(comparison):
    table = comparison(BEFORE, AFTER).table("Locks of both runs")
    assert table.column("Name")[0] == "a.Better", "the largest difference first"
    table.sort_on("Difference")
    assert table.numbers("Difference") == [10, 7, 1, -4, -27]


def test_what_one_run_lacks_is_not_compared(browser, twreport, tmp_path):
    for side, sessions in (("before", 1), ("after", 2)):
        for number in range(1, sessions + 1):
            session = reports.LockSession(session=number)
            session.lock("a.B@1", blocked=5)
            session.write(tmp_path / side)
    reports.write_memory(tmp_path / "before", {"a.C": {1: (2, 48)}})
    page = tmp_path / "diff.html"
    subprocess.run([twreport, "diff", tmp_path / "before", tmp_path / "after", "-o", page],
                   check=True, timeout=60)
    browser.open(page)
    assert "Not recorded in AFTER." in browser.text()
    assert "Summed over the sessions of each run: 1 before, 2 after." in browser.text()


def test_hostile_names_are_texts(comparison):
    name = "<img src=x onerror=window.hacked=1>"
    browser = comparison({f"{name}@1": 1}, {f"{name}@2": 9})
    assert browser.table("Locks of both runs").column("Name") == [name]
    assert browser.run("return window.hacked") is None
