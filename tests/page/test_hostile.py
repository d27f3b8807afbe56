"""Reports that try to get at the reader of the page, or to break it: nothing in them runs, and their
texts are shown as they are."""

import subprocess

import pytest

import reports

SCRIPTS = [
    "<script>window.hacked=1</script>",
    "</script><script>window.hacked=1</script>",
    "<!--<script>",
    "<img src=x onerror=window.hacked=1>",
    "\"'><svg onload=window.hacked=1>",
    "javascript:window.hacked=1",
    "${window.hacked=1}`'\"\\",
    "@STYLE@ @REPORT@ @SCRIPT@",
    "]]>&lt;b&gt;&amp;",
]
VIEWS = ["overview", "locks/0", "flame", "blockers", "exceptions/0", "memory"]


def hostile_folder(folder, names, top_frame=None):
    session = reports.LockSession(names[0])
    for i, name in enumerate(names):
        session.lock(name, graph=[1, 2], blocked=len(names) - i)
        session.enter(name, name, [top_frame or name, "a.B.c"], i + 1)
        session.own(name, i + 1, stacks=[([top_frame or name, "a.B.c"], 1)])
    session.write(folder)
    value = reports.value(names[0], "String", names[1])
    tree = {"name": names[2], "type": "object", "fields": [value, value]}
    reports.write_exceptions(folder, [
        reports.record(name, [reports.frame(name, name, 1, locals=[tree], arguments=[value])],
                       message=name, thread=name, time=name, ambiguous=[name])
        for name in names])
    reports.write_memory(folder, {name: {1: (1, 16)} for name in names})
    allocations = reports.AllocationSession()
    for name in names:
        allocations.site(name, [name, "a.B.c(B.java:1)"], 8,
                         threads=[{"name": name, "samples": 8}])
        allocations.path(name, [(name, name), (name, 3)], (name, name), [name])
    allocations.histograms({name: [1, 2, 3] for name in names}, points=3, problem=names[0])
    allocations.paths["problem"] = names[1]
    allocations.write(folder)
    reports.write_run(folder, command=names[1], java=names[0], vm=names[3], started=names[4],
                      options={names[0]: names[3]})
    return folder


@pytest.fixture
def see_all(browser):
    """Opens every view with everything in it unfolded, and gives all the texts of the page."""

    def see(page):
        texts = []
        for view in VIEWS:
            browser.open(page, view)
            browser.run(
                "for (const table of [...document.querySelectorAll('table.data')].slice(0, 2)) {"
                "  [...table.querySelectorAll('tbody button')].slice(0, 3).forEach(e => e.click());"
                "}"
                "document.querySelectorAll('details').forEach(e => { e.open = true; })")
            texts.append(browser.run(
                "const e = document.body.cloneNode(true);"
                "e.querySelectorAll('script, title').forEach(s => s.remove());"
                "return e.textContent"))
            assert browser.run("return window.hacked") is None, view
            assert browser.run("return document.scripts.length") == 2, view
            assert not browser.all("main img, main iframe, main object, main a[href^=javascript]")
        return texts

    return see


def test_names_with_scripts_are_texts(page_of, see_all, tmp_path):
    page = page_of(hostile_folder(tmp_path, SCRIPTS))
    overview, locks, flame, blockers, exceptions, memory = see_all(page)
    for name in SCRIPTS:
        for view in (locks, flame, blockers, exceptions, memory):
            assert name in view, name


def test_control_and_direction_characters_are_made_visible(page_of, see_all, tmp_path, browser):
    names = ["bell\x07", "line\nfeed", "right\u202eleft", "zero\u200bwidth", "nul\x00", "del\x7f",
             "sep\u2028\u2029", "mark\ufeff", "arabic\u061cmark"]
    page = page_of(hostile_folder(tmp_path, names, "one.line.only"))
    for text in see_all(page):
        assert not set("\x00\x07\x7f\u061c\u202e\u200b\u2028\ufeff") & set(text)
    browser.open(page, "locks")
    shown = browser.table("Locks").column("Lock")
    assert {"bell␇", "line␊feed", "right\ufffdleft"} <= set(shown)


def test_names_of_other_scripts_and_surrogates_are_shown(page_of, browser, tmp_path):
    session = reports.LockSession()
    session.lock("com.example.Lager\U0001f600@1")
    session.enter("com.example.Lager\U0001f600@1", "Zoë \ud83d", ["com.example.Łódź.日本"], 1)
    page = page_of(session.write(tmp_path))
    browser.open(page, "locks/0")
    assert browser.table("Locks").column("Lock") == ["com.example.Lager\U0001f600@1"]
    assert "Zoë \ufffd" in browser.text() and "com.example.Łódź.日本" in browser.text()


def test_empty_names_can_be_chosen(page_of, browser, tmp_path):
    session = reports.LockSession("")
    session.lock("@1", blocked=1)
    session.enter("@1", "", ["a.B.c"], 3)
    session.own("", 2)
    page = page_of(session.write(tmp_path))
    browser.open(page, "blockers")
    assert browser.table("Threads").column("Thread") == ["(no name)"]
    browser.open(page, "flame")
    browser.choose("Thread", "(no name)")
    assert browser.one(".flame-line").text == "All stacks: 3 entries"


def test_names_of_a_megabyte_do_not_fill_the_page(page_of, see_all, browser, tmp_path):
    names = ["Y" * 2**20, "a." * 2**14, "<b>" * 2**14, "<", "&"]
    page = page_of(hostile_folder(tmp_path, names))
    for text in see_all(page):
        assert len(text) < 2**20
    browser.open(page, "locks")
    assert browser.run("return document.documentElement.scrollWidth") <= 1280


def test_values_nested_deeply_are_shown(page_of, browser, tmp_path):
    value = reports.value("last", "int", "1")
    for _ in range(60):
        value = {"name": "next", "type": "object", "fields": [value]}
    reports.write_exceptions(tmp_path, [
        reports.record("a.B", [reports.frame("a.B.c", locals=[value])], "deep")])
    browser.open(page_of(tmp_path), "exceptions")
    browser.all("button", browser.table("Exception records").element)[5].click()
    assert "last int = 1" in browser.one(".frames").get_attribute("textContent")


def test_what_could_not_be_read_is_on_the_page(twreport, browser, tmp_path):
    session = reports.LockSession()
    session.lock("a.B@1")
    session.write(tmp_path / "run")
    (tmp_path / "run" / "memory-1.json").write_text('{"sessionname": "memoryLeak", "sess')
    page = tmp_path / "report.html"
    result = subprocess.run([twreport, tmp_path / "run", "-o", page], timeout=60,
                            capture_output=True, text=True)
    assert result.returncode == 1 and "memory-1.json" in result.stderr
    browser.open(page)
    assert "Not everything could be read" in browser.text()
    assert "memory-1.json" in browser.one("main .problems").text
    assert not browser.all("#problem-note")
    browser.go("Locks")
    assert browser.one("#problem-note").text == (
        "This report is not complete: not everything could be read.")
    browser.one("#problem-note a").click()
    browser.until(lambda: "memory-1.json" in browser.text())


def test_damaged_page_says_so(page_of, browser, recorded, tmp_path):
    page = tmp_path / "damaged.html"
    text = page_of(*recorded).read_text()
    page.write_text(text.replace('{"version":1', '{version:1', 1))
    assert page.read_text() != text
    browser.visited.add(page.as_uri())
    browser.driver.get(page.as_uri())
    browser.until(lambda: browser.one("#subtitle").text.startswith("The report cannot be shown: "))
    assert "SyntaxError" in str(browser.driver.get_log("browser"))


def test_policy_stops_scripts_and_requests_that_are_not_the_pages_own(page_of, browser, recorded):
    browser.open(page_of(*recorded))
    browser.run("""
        const script = document.createElement('script');
        script.textContent = 'window.hacked = 1';
        document.body.append(script);
        const image = document.createElement('img');
        image.src = 'http://127.0.0.1:9/x.png';
        document.body.append(image);
        document.body.insertAdjacentHTML('beforeend', '<i style="color: red" onclick="x()">x</i>');
    """)
    assert browser.run("return window.hacked") is None
    browser.until(lambda: browser.run("return document.querySelector('img').complete"))
    browser.visited.add("http://127.0.0.1:9/x.png")
    assert '"blockedReason":"csp"' in str(browser.driver.get_log("performance"))
    messages = [entry["message"] for entry in browser.driver.get_log("browser")]
    for directive in ("script-src", "default-src", "style-src"):
        assert any(directive in message for message in messages), (directive, messages)


@pytest.mark.parametrize("target", ["missing/report.html", "."])
def test_page_that_cannot_be_written_leaves_nothing(twreport, recorded, tmp_path, target):
    result = subprocess.run([twreport, *recorded, "-o", tmp_path / target], timeout=60,
                            capture_output=True, text=True)
    assert result.returncode == 1
    assert "cannot be written" in result.stderr
    assert list(tmp_path.iterdir()) == []


def test_page_is_for_its_owner_only(page_of, recorded):
    page = page_of(*recorded)
    assert page.stat().st_mode & 0o777 == 0o600
    assert [file.name for file in page.parent.iterdir()] == [page.name]
