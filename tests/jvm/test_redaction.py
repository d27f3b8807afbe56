"""Secrets that a program has wherever a record takes values from: none is in any file or log."""

import base64
import json
import random
import string
import uuid

import pytest

from harness import HOME
from test_companion import OUTPUT, jar, run_folder, start  # noqa: F401

ROUNDS = 20
WORDS = 16
DEEP = f"logLevel=4,twHome={HOME},captureObjDepth=5,captureObjType=7,captureSTDepth=20"
CAPTURE = f"output={OUTPUT},exceptions=true,exceptions.rate=0,exceptions.threadLocals=true"


def luhn(digits):
    total = sum(d if i % 2 else (2 * d - 9 if d > 4 else 2 * d)
                for i, d in enumerate(map(int, reversed(digits))))
    return digits + str(-total % 10)


def iban(random_):
    number = "".join(random_.choices(string.digits, k=18))
    return f"DE{98 - int(number + '131400') % 97:02}{number}"


def secrets(random_):
    """Of one round, by kind; each value stands for itself wherever it turns up."""
    def marker():
        return "zq" + "".join(random_.choices(string.ascii_lowercase + string.digits, k=14))

    found = {f"word{i}": marker() for i in range(1, WORDS + 1)}
    for i, prefix in enumerate(("4", "51", "4"), 1):
        found[f"card{i}"] = luhn(prefix + "".join(random_.choices(string.digits, k=15 - len(prefix))))
    found["iban"] = iban(random_)
    head = base64.urlsafe_b64encode(b'{"alg":"HS256"}').decode().rstrip("=")
    found["jwt"] = f"{head}.{marker()}.{marker()}"
    return found


def written(run):
    """The bytes of everything that the run has left, by file."""
    return {file: file.read_bytes() for file in run.folder.rglob("*")
            if file.is_file() and file.name not in ("planted.txt",)}


def planted(jvm, random_):
    folder = jvm.new_folder("planted")
    rounds = [secrets(random_) for _ in range(ROUNDS)]
    lines = [line for each in rounds
             for line in [*(f"{kind}\t{value}" for kind, value in each.items()), "throw"]]
    (folder / "planted.txt").write_text("\n".join(lines) + "\n")
    return folder, [value for each in rounds for value in each.values()]


def test_no_planted_secret_is_in_any_file(jvm, start):
    random_ = random.Random()
    folder, values = planted(jvm, random_)
    on_the_line = ["zqline" + uuid.uuid4().hex for _ in range(3)]
    arguments = ["--password", on_the_line[0], f"token={on_the_line[1]}",
                 f"https://u:{on_the_line[2]}@h/"]
    run = start("PlantedValues", "throw", folder / "planted.txt", *arguments, folder=folder,
                options=DEEP, given=f"{CAPTURE},exceptions.redact=standard")
    values += on_the_line
    assert len(values) >= 400
    files = written(run)
    leaks = {(value, file.name) for file, data in files.items() for value in values
             if value.encode() in data}
    assert not leaks
    records = (run_folder(run) / "exceptions.jsonl").read_text()
    assert records.count("login refused") >= ROUNDS
    for reason in ("name", "type", "password", "card", "iban", "token"):
        assert f"<redacted:{reason}>" in records, reason
    assert json.loads((run_folder(run) / "run.json").read_text())["redact"] == "standard"


def test_the_secrets_are_there_when_nothing_is_hidden(jvm, start):
    """Else the test above would find none in any case."""
    folder, values = planted(jvm, random.Random())
    run = start("PlantedValues", "throw", folder / "planted.txt", folder=folder, options=DEEP,
                given=f"{CAPTURE},exceptions.redact=off")
    text = b"".join(written(run).values())
    shown = [value for value in values if value.encode() in text]
    assert len(shown) > 0.8 * len(values)
    assert b"<redacted:" not in text


def innocent_values(random_):
    words = ("order", "customer", "shipping", "tokenizer", "secretary", "pinned", "card holder",
             "password policy", "basic plan", "bearer of news", "compass", "keyboard")

    def digits(count):
        return "".join(random_.choices(string.digits, k=count))

    makers = (
        lambda: f"{random_.choice(words)} {digits(4)} was refused",
        lambda: str(uuid.UUID(int=random_.getrandbits(128))),
        lambda: f"17{digits(11)}",  # milliseconds
        lambda: f"20{digits(2)}-0{digits(1)}-1{digits(1)} 1{digits(1)}:3{digits(1)}:0{digits(1)}.{digits(9)}",
        lambda: f"https://shop.example:8443/items/{digits(6)}?page={digits(2)}&sort=name",
        lambda: f"com.example.{random_.choice(('shop', 'token', 'card'))}.Service$Inner@{digits(6)}",
        lambda: f"/var/lib/app-{digits(2)}/cache/{digits(8)}.tmp",
        lambda: f"user{digits(3)}@mail.example",
        lambda: f"0.{digits(16)}",
        lambda: f"Cart[items={digits(1)}, total={digits(3)}.{digits(2)}, id=C-{digits(7)}]",
        lambda: f"unexpected token: '{random_.choice(words)}' at line {digits(2)}",
        lambda: "".join(random_.choices("0123456789abcdef", k=40)),
        lambda: f"jdbc:postgresql://db{digits(1)}.example:5432/shop?ssl=true&tokenCount={digits(2)}",
        lambda: f"+49 30 {digits(4)} {digits(4)}",
        lambda: f"192.168.{digits(2)}.{digits(2)}:80{digits(2)}",
        lambda: f"java -Xmx{digits(3)}m -cp lib/*.jar com.example.Main --verbose --port {digits(4)}",
    )
    return [makers[i % len(makers)]() for i in range(400)]


def test_innocent_values_are_shown(jvm, start):
    folder = jvm.new_folder("innocent")
    values = innocent_values(random.Random(20))
    (folder / "planted.txt").write_text("\n".join(values) + "\n")
    run = start("PlantedValues", "text", folder / "planted.txt", folder=folder,
                options=f"twHome={HOME}", given=f"{CAPTURE},exceptions.redact=standard")
    lines = (run_folder(run) / "exceptions.jsonl").read_text().splitlines()
    records = [line for line in lines if '"innocent"' in line]
    assert len(records) == len(values)
    hidden = [line for line in records if "<redacted:" in line]
    assert len(hidden) < 5, [value for value in values
                             if not any(json.dumps(value) in line for line in records)]


@pytest.mark.parametrize("given, told", [
    ("exceptions.redact=most", "expected off, names, standard or strict"),
    ("exceptions.redactNames=", "expected words separated by commas"),
    ("exceptions.redactValues=*", "expected patterns separated by commas"),
    ("exceptions.redactTypes=*?", "expected patterns separated by commas"),
])
def test_what_cannot_be_used_is_refused(jvm, start, given, told):
    folder = jvm.new_folder("refused")
    (folder / "planted.txt").write_text("a\n")
    run = start("PlantedValues", "text", folder / "planted.txt", folder=folder, quiet=False,
                given=f"{CAPTURE},{given}")
    assert f"ignoring option '{given}': {told}" in run.err
