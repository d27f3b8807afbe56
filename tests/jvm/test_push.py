"""Windows of profiles: that they add up to the reports, and that a server gets each of them once,
whatever it does meanwhile."""

import base64
import collections
import email
import http.server
import json
import pathlib
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time
import urllib.parse

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "viewer" / "command"))

import pprofs  # noqa: E402

LIMIT = 60  # seconds
ROUNDS = 20
SOLD_OUT = "PushedWork$SoldOut"
STOCK = "PushedWork$Stock"


@pytest.fixture
def start(jvm):
    (jar,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]

    def run(*arguments, given="", vm=(), **others):
        options = f"-javaagent:{jar}=output=results,contention=true,contention.interval=1s{given}"
        return jvm.run("PushedWork", *arguments, vm=[options, *vm], **others)

    return run


def run_folder(run):
    (folder,) = (run.folder / "results").iterdir()
    return folder


# Of the program's own lock: others may be contended after the last window.
def sums_of(profiles):
    sums = collections.Counter()
    for profile in profiles:
        for name in ("contentions", "delay"):
            if name in dict(profile.types):
                sums[name] += profile.by(name, lambda one: one.labels["lock"])[STOCK]
    return sums


def waiting_in(folder):
    """A machine under load may not get all sent in the two seconds at the end."""
    return [pprofs.Profile(file.read_bytes()) for file in (folder / "push").glob("*")]


def contention_of(file):
    report = json.loads(file.read_text("utf-8"))
    locks = [lock for lock in report["locks"] + report["otherLocks"]
             if lock["kind"] == "monitor" and lock["class"] == STOCK]
    return sum(lock["entries"] for lock in locks), sum(lock["blockedNanos"] for lock in locks)


def thrown_in(folder, name):
    counts = json.loads((folder / "exception-counts.json").read_text("utf-8"))
    return sum(site["thrown"] for site in counts["sites"] if site["class"] == name)


def test_windows_add_up_to_the_sessions(jvm):
    folder = jvm.new_folder("windows")
    run = jvm.run("PushedWork", "windows", folder, folder=folder)
    assert [run.facts[each] for each in ("nothing", "oneKept", "over", "unknown", "lost")] == [
        "true", "true", "true", "true", "0"]
    profiles = [pprofs.Profile((folder / f"{number}.pb").read_bytes()) for number in (1, 2, 3)]

    def of_stock(name):
        return [profile.by(name, lambda one: one.labels["lock"])[STOCK]
                for profile in profiles]

    assert of_stock("contentions") == [5, 3, 2]
    # Samples of the second window may have been given with the first.
    assert of_stock("delay")[0] > 0 and of_stock("delay")[2] > 0
    sessions = [contention_of(folder / f"{name}.json") for name in ("first", "second")]
    sums = [sums_of(profiles[:2]), sums_of(profiles[2:])]
    assert [each["contentions"] for each in sums] == [entries for entries, _ in sessions]
    assert all(each["delay"] >= nanos for each, (_, nanos) in zip(sums, sessions))
    ends = [each.raw.time_nanos + each.raw.duration_nanos for each in profiles]
    assert ends == sorted(ends) and all(each.raw.duration_nanos > 0 for each in profiles)
    labels = {name for profile in profiles for one in profile.samples for name in one.labels}
    assert labels <= {"lock", "field", "kind"}, "names of threads stay here"


class Receiver:
    """A server that does what it is told with each request, and then takes all."""

    def __init__(self, behaviours=(), elsewhere=None, port=0, certificate=None):
        self.behaviours = list(behaviours)
        self.elsewhere = elsewhere
        self.taken = []
        self.requests = []
        self.connections = 0  # with those that come to nothing
        self.changed = threading.Condition()
        receiver = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                receiver.serve(self)

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True

            def get_request(self):
                with receiver.changed:
                    receiver.connections += 1
                    receiver.changed.notify_all()
                return super().get_request()

        self.server = Server(("127.0.0.1", port), Handler)
        if certificate:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(certificate)
            self.server.socket = context.wrap_socket(self.server.socket, server_side=True)
        self.url = f"http{'s' if certificate else ''}://127.0.0.1:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def serve(self, request):
        with self.changed:
            behaviour = self.behaviours.pop(0) if self.behaviours else "take"
        size = int(request.headers["Content-Length"])
        if behaviour == "truncate":
            request.rfile.read(size // 2)
            return self.reset(request)
        body = request.rfile.read(size)
        self.requests.append((request.path, dict(request.headers), behaviour))
        if behaviour == "hang up":
            return self.reset(request)
        if behaviour == "slow":
            time.sleep(1.5)  # longer than an interval
        status = {"down": 503, "refuse": 400, "redirect": 307}.get(behaviour, 200)
        request.send_response(status)
        if behaviour == "redirect":
            request.send_header("Location", self.elsewhere + request.path)
        if behaviour == "down":
            request.send_header("Connection", "close")
        request.send_header("Content-Length", "0")
        request.end_headers()
        with self.changed:
            if status == 200:
                self.taken.append((request.path, dict(request.headers), body))
            self.changed.notify_all()
        return None

    @staticmethod
    def reset(request):
        request.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        request.connection.close()
        request.close_connection = True

    def wait_for(self, condition):
        with self.changed:
            assert self.changed.wait_for(condition, LIMIT), self.requests

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def pyroscope_profile(headers, body):
    head = f"Content-Type: {headers['Content-Type']}\r\n\r\n".encode()
    parts = {part.get_param("name", header="content-disposition"): part.get_payload(decode=True)
             for part in email.message_from_bytes(head + body).get_payload()}
    profile = pprofs.Profile(parts["profile"])
    types = json.loads(parts["sample_type_config"])
    assert {name for name, _ in profile.types} <= set(types)
    return profile


def parca_profile(_, body):
    (series,) = json.loads(body)["series"]
    labels = {label["name"]: label["value"] for label in series["labels"]["labels"]}
    assert labels.pop("__name__") in ("contention", "memory", "exceptions")
    assert labels == {"service": "shop", "env": "a b"}
    (sample,) = series["samples"]
    return pprofs.Profile(base64.b64decode(sample["rawProfile"]))


@pytest.mark.parametrize("form, path, decoded", [
    ("pyroscope", "/ingest", pyroscope_profile),
    ("parca", "/api/profiles/writeraw", parca_profile)])
def test_a_server_gets_each_window_once(form, path, decoded, start, tmp_path):
    elsewhere = Receiver()
    receiver = Receiver(
        ["down", "truncate", "slow", "hang up", "redirect", "take", "down"]
        if form == "pyroscope" else ["down"], elsewhere.url)
    token = tmp_path / "token"
    token.write_text("s3cret\n")
    end = tmp_path / "end"
    ender = threading.Thread(target=lambda: (
        receiver.wait_for(lambda: not receiver.behaviours and len(receiver.taken) > 1),
        end.touch()))
    ender.start()
    run = start(
        "until", end, ROUNDS,
        given=f",exceptions=true,push={receiver.url},pushForm={form},pushInterval=1s"
              f",pushLabels=service=shop\\,env=a b,pushToken={token}", quiet=False)
    ender.join()
    assert not elsewhere.requests, "redirects are not followed"
    folder = run_folder(run)
    profiles = [decoded(headers, body) for _, headers, body in receiver.taken]
    profiles += waiting_in(folder)
    profiles = list({one.raw.SerializeToString(): one for one in profiles}.values())
    sums = sums_of(profiles)
    entries, _ = contention_of(folder / "contention-1.json")
    assert sums["contentions"] == entries == ROUNDS
    thrown = collections.Counter()
    for profile in profiles:
        if profile.types[0][0] == "exceptions":
            thrown += profile.by("exceptions", lambda one: one.labels["exception"])
    assert thrown[SOLD_OUT] == thrown_in(folder, SOLD_OUT) == ROUNDS
    for asked, headers, _ in receiver.taken:
        assert headers["Authorization"] == "Bearer s3cret"
        assert asked.split("?")[0] == path
        if form == "pyroscope":
            query = urllib.parse.parse_qs(urllib.parse.urlsplit(asked).query)
            assert query["name"] == ["shop{env=a b}"] and query["format"] == ["pprof"]
            assert int(query["from"][0]) < int(query["until"][0])
    assert "s3cret" not in run.err
    assert "it is tried again" in run.err


def test_nothing_is_lost_when_a_server_restarts(start, tmp_path):
    first = Receiver(["down"] * 1000)
    others = []
    end = tmp_path / "end"

    def restart():
        first.wait_for(lambda: first.requests)
        first.close()
        others.append(Receiver(port=first.server.server_port))
        others[0].wait_for(lambda: others[0].taken)
        end.touch()

    restarter = threading.Thread(target=restart)
    restarter.start()
    run = start("until", end, ROUNDS, quiet=False, given=f",push={first.url},pushInterval=1s")
    restarter.join()
    profiles = [pyroscope_profile(headers, body) for _, headers, body in others[0].taken]
    profiles += waiting_in(run_folder(run))
    entries, _ = contention_of(run_folder(run) / "contention-1.json")
    assert not first.taken and sums_of(profiles)["contentions"] == entries == ROUNDS


def certificate_for(folder, address):
    """A file with a key and its certificate, and a store that trusts it."""
    file, store = folder / f"{address}.pem", folder / f"{address}.p12"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=test",
         "-addext", f"subjectAltName=IP:{address}", "-keyout", file, "-out", folder / "certificate"],
        check=True, capture_output=True)
    with file.open("a") as out:
        out.write((folder / "certificate").read_text())
    return file, store


@pytest.mark.parametrize("address, isTrusted, fails", [
    ("127.0.0.1", True, None), ("127.0.0.1", False, "PKIX"), ("127.0.0.2", True, "127.0.0.1")])
def test_only_a_server_with_a_trusted_certificate_gets_windows(
        address, isTrusted, fails, jvm, start, tmp_path):
    keytool = pathlib.Path(jvm.java).resolve().parent / "keytool"
    if not keytool.exists():
        pytest.skip("this Java came without keytool")
    certificate, store = certificate_for(tmp_path, address)
    vm = []
    if isTrusted:
        subprocess.run(
            [keytool, "-importcert", "-noprompt", "-alias", "test", "-storetype", "PKCS12", "-storepass",
             "changeit", "-keystore", store, "-file", tmp_path / "certificate"],
            check=True, capture_output=True)
        vm = [f"-Djavax.net.ssl.trustStore={store}", "-Djavax.net.ssl.trustStorePassword=changeit"]
    receiver = Receiver(certificate=certificate)
    end = tmp_path / "end"
    token = tmp_path / "token"
    token.write_text("s3cret")
    ender = threading.Thread(target=lambda: (
        receiver.wait_for(lambda: receiver.connections > 1 if fails else receiver.taken), end.touch()))
    ender.start()
    run = start("until", end, ROUNDS, vm=vm, quiet=False,
                given=f",push={receiver.url},pushInterval=1s,pushToken={token}")
    ender.join()
    if fails:
        assert not receiver.requests and fails in run.err and "0 windows sent" in run.err
    else:
        assert receiver.taken[0][1]["Authorization"] == "Bearer s3cret"


def test_what_a_server_never_takes_stays_on_disk(start, tmp_path):
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))  # and does not listen
        end = tmp_path / "end"
        end.touch()
        run = start("until", end, ROUNDS, quiet=False,
                    given=f",push=http://127.0.0.1:{unused.getsockname()[1]}")
    files = sorted((run_folder(run) / "push").iterdir())
    assert files and all(file.stat().st_mode & 0o777 == 0o600 for file in files)
    sums = sums_of(pprofs.Profile(file.read_bytes()) for file in files)
    entries, _ = contention_of(run_folder(run) / "contention-1.json")
    assert sums["contentions"] == entries == ROUNDS
    assert f"0 windows sent, {len(files)} waiting, 0 dropped" in run.err


def test_windows_without_room_and_refused_ones_are_counted(start, tmp_path):
    end = tmp_path / "end"
    end.touch()
    refusing = Receiver(["refuse"] * 100)
    run = start("until", end, ROUNDS, given=f",push={refusing.url},pushInterval=1h", quiet=False)
    assert "0 waiting, 0 dropped, 1 refused (the server answers 400)" in run.err
    down = Receiver(["down"] * 100)
    run = start("until", end, ROUNDS, quiet=False,
                given=f",push={down.url},pushDisk=0,pushInterval=1h")
    assert "0 windows sent, 0 waiting, 1 dropped, 0 refused (the server answers 503)" in run.err


def test_a_token_is_not_sent_in_the_clear(start, tmp_path):
    end = tmp_path / "end"
    end.touch()
    run = start("until", end, 1, quiet=False,
                given=f",push=http://192.0.2.1:4040,pushToken={tmp_path / 'token'}")
    assert "expected https, or a server on this machine, with pushToken" in run.err
    assert (run_folder(run) / "contention-1.json").exists()


def test_without_push_nothing_of_it_is_loaded(start, tmp_path):
    end = tmp_path / "end"
    end.touch()
    run = start("until", end, 1, vm=["-verbose:class"])
    assert "companion.Controller" in run.out
    assert "companion.Push" not in run.out and "HttpURLConnection" not in run.out
