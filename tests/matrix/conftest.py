"""The options and fixtures of the tests on JVMs, whose harness and programs these tests use."""

import importlib.util
import sys
from pathlib import Path

JVM_TESTS = Path(__file__).resolve().parents[1] / "jvm"
sys.path.insert(0, str(JVM_TESTS))

_spec = importlib.util.spec_from_file_location("jvm_conftest", JVM_TESTS / "conftest.py")
_module = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_module)
jvm = _module.jvm
pytest_collection_modifyitems = _module.pytest_collection_modifyitems


def pytest_addoption(parser):
    _module.pytest_addoption(parser)
    parser.getgroup("agent").addoption("--demo", help="class path of the shop")
