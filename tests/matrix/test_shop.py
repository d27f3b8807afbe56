"""The shop under load, started by `twprofile run`, and what `twreport check` finds of it."""

import json
import subprocess
from pathlib import Path

import pytest

from features import SAMPLED_ALLOCATIONS

ROOT = Path(__file__).resolve().parents[2]
SECONDS = 8


def run(folder, *words):
    return subprocess.run(words, cwd=folder, capture_output=True, text=True, timeout=100)


@pytest.fixture(scope="module")
def shop(jvm, request, tmp_path_factory):
    """A folder with the results of all profiles and profilers, as far as this Java has them."""
    folder = tmp_path_factory.mktemp("shop")
    profilers = ["--contention", "--locks=summary=2s,detail=2s", "--exceptions=threadLocals=true",
                 "--memory=track=com.example.shop.Session,interval=1s"]
    if jvm.has(SAMPLED_ALLOCATIONS):
        profilers.append("--allocations=interval=64k,growth=2s")
    done = run(folder, ROOT / "bin" / "twprofile", "run", *profilers, "-o", "results", "--",
               jvm.java, "-Xmx64m", "-Xmn4m", "-cp", request.config.getoption("--demo"),
               "com.example.shop.Main", str(SECONDS))
    assert done.returncode == 0, done
    return folder


def check(shop, *limits):
    done = run(shop, ROOT / "lib" / "twreport", "check", *limits, "results")
    told = (done.stdout + done.stderr).splitlines()
    return done.returncode, "".join(line for line in told if not line.startswith("note: "))


def test_the_locks_that_the_shop_queues_for_are_found(shop):
    every = "com.example.shop.*=100000000"
    assert check(shop, "--max-blocked-ms", every, "--no-deadlock") == (0, "")
    for limit in ("--max-blocked-ms", "--max-blocked-seconds"):
        code, told = check(shop, limit, "com.example.shop.Inventory=0")
        assert code == 1 and "com.example.shop.Inventory" in told, told


def test_refused_payments_are_recorded(shop):
    code, told = check(shop, "--no-exception", "com.example.shop.FailedPayments$PaymentRefused")
    assert code == 1 and "PaymentRefused" in told, told


def test_no_lookup_of_a_class_is_recorded(shop):
    (file,) = shop.glob("results/run-*/exceptions.jsonl")
    classes = {json.loads(line).get("class") for line in file.read_text().splitlines()}
    assert "java.lang.ClassNotFoundException" not in classes


def test_sessions_outlive_collections(shop):
    (file,) = shop.glob("results/run-*/memory-1.json")
    assert "com.example.shop.Session" in json.loads(file.read_text())["topNMemoryleakClass"]


def test_the_leak_is_found_by_its_site(shop, jvm):
    jvm.need(SAMPLED_ALLOCATIONS)
    code, told = check(shop, "--max-alive", "com.example.shop.*=1k")
    assert code == 1 and "com.example.shop." in told, told
