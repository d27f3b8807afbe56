"""Metrics: a real Prometheus scrapes JVMs under load, and has what they have done."""

import json
import re
import shutil
import socket
import subprocess
import threading
import time
import urllib.error
import urllib.parse
import urllib.request
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest

from harness import OUTPUT, SOURCE, results, wait_for

PREFIX = "javanativeagent_"
WINDOW = 60  # seconds that rates are of
INTERVAL = 2  # seconds between scrapes
TOLERANCE = 0.02
HOSTILE = 'example.Metered$Nobody"} 1\n\\of_{name'
TOKEN = "a-token-of-24-characters"


def get(url, **headers):
    """Status and text."""
    request = urllib.request.Request(url, headers=headers)
    try:
        with urllib.request.urlopen(request, timeout=20) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


def urls(output):
    return {path.parent.name: path.read_text().strip() for path in output.glob("run-*/metrics.url")}


def promtool(*words, stdin=None):
    tool = shutil.which("promtool")
    assert tool, "no promtool: install the package prometheus"
    done = subprocess.run([tool, *words], input=stdin, capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stdout + done.stderr


class Metered:
    """A JVM with known load: what it prints, in the background."""

    def __init__(self, process):
        self.process = process
        self.lines = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            numbers = line.split()
            if len(numbers) == 5:
                self.lines.append([int(number) for number in numbers])

    def at(self, second, column):
        """What there was at that time, between two lines."""
        millis = 1000 * second
        wait_for(lambda: self.lines and self.lines[-1][0] > millis, "line of the program")
        lines = self.lines
        after = next(i for i, line in enumerate(lines) if line[0] > millis)
        assert after > 0, "it has printed before that time"
        (t0, *before), (t1, *behind) = lines[after - 1], lines[after]
        share = (millis - t0) / (t1 - t0)
        return before[column] + share * (behind[column] - before[column])


@contextmanager
def metered(launcher, folder, *words):
    """A JVM of its own output folder; gives the program and the URL of its metrics."""
    folder.mkdir(parents=True, exist_ok=True)
    flags = ("--contention", "--allocations=interval=16k,growth=5s", "--exceptions=mode=thrown")
    command = ("run", *flags, *words, "--", "java", "-cp", launcher.programs, "example.Metered")
    with launcher.started(*command, folder=folder) as process:
        program = Metered(process)
        found = wait_for(lambda: urls(folder / OUTPUT), "URL of the metrics")
        yield program, next(iter(found.values()))


def free_port():
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        return server.getsockname()[1]


class Prometheus:
    def __init__(self, url):
        self.url = url

    def api(self, what, **parameters):
        status, text = get(f"{self.url}/api/v1/{what}?{urllib.parse.urlencode(parameters)}")
        answer = json.loads(text)
        assert status == 200 and answer["status"] == "success", text
        return answer["data"]

    def query(self, query, at=None):
        at = {} if at is None else {"time": at}
        return self.api("query", query=query, **at)["result"]


@contextmanager
def prometheus(folder, targets, token):
    """A real one, with the rules of this repository."""
    program = shutil.which("prometheus")
    assert program, "no prometheus: ./test installs it"
    folder.mkdir()
    config = {
        "global": {"scrape_interval": f"{INTERVAL}s", "evaluation_interval": "2s"},
        "rule_files": [str(SOURCE / "contrib/prometheus/alerts.yml")],
        "scrape_configs": [
            {
                "job_name": "jvm",
                "authorization": {"credentials_file": str(token)},
                "static_configs": [{"targets": targets}],
            }
        ],
    }
    (folder / "prometheus.yml").write_text(json.dumps(config))  # which is YAML, too
    port = free_port()
    with subprocess.Popen(
        [program, f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data",
         f"--web.listen-address=127.0.0.1:{port}"],
        stdout=subprocess.DEVNULL, stderr=(folder / "log").open("w"),
    ) as process:
        try:
            server = Prometheus(f"http://127.0.0.1:{port}")
            wait_for(lambda: is_up(server, len(targets)), "Prometheus that scrapes")
            yield server
        finally:
            process.kill()


def is_up(server, count):
    try:
        up = server.query("up")
    except (OSError, AssertionError, ValueError):  # it answers in words until it is ready
        return False
    return len([each for each in up if each["value"][1] == "1"]) == count


def test_rates_are_those_of_the_program(launcher, folder):
    if 'JAVA_VERSION="17' in (Path(launcher.java).resolve().parents[1] / "release").read_text():
        pytest.skip("takes a minute, and is for one JDK")
    token = folder / "token"
    token.write_text(TOKEN + "\n")
    token.chmod(0o600)
    with ExitStack() as stack:
        jvms = []
        for number, words in enumerate((("--metrics=0", f"--metricsToken={token}"),
                                        ("--metrics=127.0.0.1:0",), ("--metrics=localhost:0",))):
            jvms.append(stack.enter_context(metered(launcher, folder / str(number), *words)))
        targets = [urllib.parse.urlparse(url).netloc for _, url in jvms]
        server = stack.enter_context(prometheus(folder / "prometheus", targets, token))
        wait_for(lambda: len(server.query(f"{PREFIX}exceptions_thrown_total")) > 0, "samples")
        begin = time.time()
        restart(launcher, folder / "2")
        for _, url in jvms[1:]:
            promtool("check", "metrics", stdin=get(url)[1])
        wait_for(lambda: time.time() > begin + WINDOW + 2 * INTERVAL, "end of the window")
        at = time.time() - 1
        for (program, _), target in zip(jvms[:2], targets):
            compare(server, program, target, at)
        check_counters(server, at)
        check_cost(server, at)
        check_dashboard(server)
        rules = server.api("rules")["groups"]
        assert rules and all(rule["health"] == "ok" for group in rules for rule in group["rules"])


def restart(launcher, folder):
    """Sessions come and go: no counter goes back."""
    pid = results(folder / OUTPUT)[0].run["pid"]
    for verb in ("stop", "start"):
        done = launcher.run(verb, pid, "--contention", "--allocations", "--exceptions", folder=folder)
        assert done.code == 0, done


def compare(server, program, target, at):
    """Rates by PromQL, with the program's own counts at the times of the first and last sample."""
    contended = f'{{class="example.Metered$Till",instance="{target}"}}'
    for column, metric, unit in (
        (0, f"contention_blocks_total{contended}", 1),
        (1, f"contention_blocked_seconds_total{contended}", 1e9),
        (2, f'exceptions_thrown_total{{class="example.Metered$Refused",caught="yes",'
            f'instance="{target}"}}', 1),
        (3, f'allocations_bytes_total{{class="long[]",instance="{target}"}}', 1),
    ):
        name = PREFIX + metric
        rate = float(server.query(f"rate({name}[{WINDOW}s])", at)[0]["value"][1])
        samples = server.query(f"{name}[{WINDOW}s]", at)[0]["values"]
        (first, _), (last, _) = samples[0], samples[-1]
        truth = (program.at(last, column) - program.at(first, column)) / (last - first) / unit
        assert rate == pytest.approx(truth, rel=TOLERANCE), name
        increase = float(samples[-1][1]) - float(samples[0][1])
        assert increase == pytest.approx(truth * (last - first), rel=TOLERANCE), name


def check_counters(server, at):
    grow = '{__name__=~"javanativeagent_.*_(total|bucket|sum|count)"}'
    series = server.query(f"{grow}[{WINDOW + 10}s]", at)
    assert len(series) > 100
    for each in series:
        values = [float(value) for _, value in each["values"]]
        assert values == sorted(values), each["metric"]
    waited = server.query(f"{PREFIX}contention_waits_total", at)
    assert {each["metric"]["class"] for each in waited} >= {HOSTILE, "other"}
    series = server.query(f'count by (instance) ({{__name__=~"{PREFIX}.*"}})', at)
    limit = server.query(f"{PREFIX}metrics_series_limit", at)
    assert max(int(each["value"][1]) for each in series) <= int(limit[0]["value"][1])


def check_cost(server, at):
    """Of one scrape in 10 s; these come more often."""
    cost = server.query(
        f'max(rate({PREFIX}cost_processor_seconds_total{{part="metrics"}}[{WINDOW}s]))', at)
    per_scrape = float(cost[0]["value"][1]) * INTERVAL
    print(f"a scrape takes {per_scrape * 1e3:.2f} ms of a processor")
    assert per_scrape / 10 < 0.005


def check_dashboard(server):
    dashboard = json.loads((SOURCE / "contrib/grafana/dashboard.json").read_text())
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    assert len(queries) > 15
    for query in queries:
        query = query.replace("$__rate_interval", "30s").replace("$job", ".*")
        assert server.query(query.replace("$instance", ".*")), query
    for variable in dashboard["templating"]["list"]:
        if variable["type"] == "query":
            name, label = re.fullmatch(r"label_values\((.*), (\w+)\)", variable["definition"]).groups()
            found = server.query(name.replace("$job", ".*"))
            assert found and all(label in each["metric"] for each in found)


def test_only_who_has_the_token_gets_metrics(launcher, folder):
    token = folder / "token"
    token.write_text(TOKEN)
    token.chmod(0o600)
    with metered(launcher, folder, "--metrics=0.0.0.0:0", f"--metricsToken={token}") as (_, url):
        url = url.replace("0.0.0.0", "127.0.0.1")
        assert get(url)[0] == 401
        assert get(url, Authorization="Bearer " + TOKEN[:-1])[0] == 401
        assert get(url, Authorization="Basic " + TOKEN)[0] == 401
        status, text = get(url, Authorization="Bearer " + TOKEN)
        assert status == 200 and TOKEN not in text


def test_a_port_answers_get_of_metrics_and_nothing_else(launcher, folder):
    with metered(launcher, folder, "--metrics=0") as (_, url):
        assert get(url)[0] == 200
        assert get(url + "?x=y")[0] == 200
        assert get(url.replace("/metrics", "/"))[0] == 404
        assert get(url, Host="shop.example.com")[0] == 403, "a name that leads here"
        status, text = get(url, Accept="application/openmetrics-text; version=1.0.0")
        assert status == 200 and text.endswith("# EOF\n")
        place = urllib.parse.urlparse(url)
        answers = {
            b"POST /metrics HTTP/1.1\r\n\r\n": b"405",
            b"GET /metrics\r\n\r\n": b"400",
            b"\r\n\r\n": b"400",
            b"GET /metrics HTTP/1.1\r\nX: " + b"x" * 9000: b"431",
        }
        for request, status in answers.items():
            with socket.create_connection((place.hostname, place.port), timeout=20) as client:
                client.sendall(request)
                assert client.recv(100).split(b" ")[1] == status, request
        with ExitStack() as stack:
            idle = [stack.enter_context(socket.create_connection((place.hostname, place.port), 20))
                    for _ in range(30)]
            assert all(each.recv(1) == b"" for each in idle), "closed by a limit"
        assert get(url)[0] == 200
        pid = results(folder / OUTPUT)[0].run["pid"]
        assert f"metrics      {url}\n" in launcher.run("status", pid, folder=folder).out


def test_a_port_in_use_is_one_line_and_the_program_goes_on(launcher, folder):
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        server.listen()
        port = server.getsockname()[1]
        words = ("--locks", f"--metrics={port}", "--", "java", "-cp", launcher.programs)
        with launcher.started("run", *words, "example.Metered", folder=folder) as process:
            line = process.stderr.readline()
            program = Metered(process)
            wait_for(lambda: program.lines, "program that goes on")
            process.stdin.write("\n")
            process.stdin.close()
            rest = process.stderr.read()
            assert process.wait(60) == 0
    assert f"there are no metrics on port {port} of 127.0.0.1" in line
    assert "javanativeagent:" not in rest


def test_stuck_threads_and_deadlocks_are_shown(launcher, folder):
    words = ("--contention=stuck=100ms", "--metrics=0", "--", "java", "-cp", launcher.programs)
    with launcher.started("run", *words, "example.Deadlocked", folder=folder):
        url = next(iter(wait_for(lambda: urls(folder / OUTPUT), "URL of the metrics").values()))
        wait_for(lambda: f"{PREFIX}contention_deadlocks 1\n" in get(url)[1], "deadlock")
        text = get(url)[1]
        assert f"{PREFIX}contention_stuck_threads 2\n" in text
        assert f'{PREFIX}contention_blocked_threads{{kind="monitor"}} 2\n' in text
        seconds = r'contention_blocked_seconds_total\{class="java.lang.Object",kind="monitor"\} (\S+)'
        before = float(re.search(seconds, text)[1])
        wait_for(lambda: float(re.search(seconds, get(url)[1])[1]) > before, "time of what goes on")


def test_a_file_is_for_all_to_read_and_complete(launcher, folder):
    file = folder / "node" / "shop.prom"
    file.parent.mkdir()
    words = ("--contention", "--metrics=node/shop.prom", "--metricsInterval=1s")
    command = ("run", *words, "--", "java", "-cp", launcher.programs, "example.Metered")
    with launcher.started(*command, folder=folder) as process:
        wait_for(lambda: file.exists() and "Till" in file.read_text(), "metrics of the lock")
        promtool("check", "metrics", stdin=file.read_text())
        process.stdin.write("\n")
        process.communicate(timeout=60)
    text = file.read_text()
    assert all('{jvm="shop"' in line for line in text.splitlines() if line[0] != "#")
    assert file.stat().st_mode & 0o777 == 0o644
    assert [each.name for each in file.parent.iterdir()] == ["shop.prom"]


@pytest.mark.parametrize("words, expected", (
    (("--metrics=65536",), "expected a port from 0 to 65535"),
    (("--metrics=",), "expected a port from 0 to 65535"),
    (("--metrics=shop.txt",), "HOST:PORT or a file that ends in .prom"),
    (("--metrics=1::2:3",), "HOST:PORT or a file that ends in .prom"),
    (("--metrics=0.0.0.0:9464",), "expected a loopback address, or --metricsToken=FILE"),
    (("--metrics=0", "--metricsClasses=0"), "expected a number from 1 to 200"),
))
def test_other_places_are_refused(launcher, folder, words, expected):
    done = launcher.run("run", *words, "--", "java", "-version", folder=folder)
    assert done.code == 2 and expected in done.err


@pytest.mark.parametrize("options, expected", (
    ("metrics=0.0.0.0:0", "expected a loopback address, or the option metricsToken"),
    ("metrics=0,metricsToken=open", "expected one that others can neither read nor write"),
    ("metrics=0,metricsToken=short", "expected one line of 16 to 1,000 characters"),
    ("metrics=x", "expected a port from 0 to 65535"),
))
def test_the_companion_refuses_them_too(launcher, folder, options, expected):
    (folder / "open").write_text(TOKEN)
    (folder / "open").chmod(0o644)
    (folder / "short").write_text("short")
    (folder / "short").chmod(0o600)
    library = Path(launcher.root / "lib").resolve()
    command = (launcher.java, f"-agentpath:{library}/libjavanativeagent.so=quiet=1",
               f"-javaagent:{library}/javanativeagent.jar={options},output=out",
               "-cp", launcher.programs, "example.Metered")
    with subprocess.Popen(command, cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True) as process:
        line = process.stderr.readline()
        process.kill()
    assert line.startswith("javanativeagent: ") and expected in line and TOKEN not in line
    assert not list(folder.glob("out/run-*/metrics.url"))


def test_nothing_of_it_is_loaded_unless_it_is_asked_for(launcher, folder):
    done = launcher.run("run", "--locks", "--contention", "--allocations", "--exceptions", "--",
                        "java", "-verbose:class", "-cp", launcher.programs, "Echo", 0, "a",
                        folder=folder)
    loaded = re.findall(r"nativeagent\.(?:companion\.)?(\w+)", done.out)
    assert "Companion" in loaded
    assert not [name for name in loaded if re.match("Metrics|AgentMetrics|ClassSeries|PublicF", name)]
