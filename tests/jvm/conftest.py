"""The Java installation, the agent and the compiled programs, as CTest passes them."""

import pytest

from harness import Jvm


def pytest_addoption(parser):
    group = parser.getgroup("agent")
    group.addoption("--java", help="the java launcher to test with")
    group.addoption("--agent", help="libjavanativeagent.so")
    group.addoption("--program-path", help="class path of the test programs and the agent's jar")
    group.addoption("--part", default="1/1", help="which tests to run, as in 1/2: every second one")


def pytest_collection_modifyitems(config, items):
    number, count = map(int, config.getoption("--part").split("/"))
    mine = items[number - 1::count]
    config.hook.pytest_deselected(items=[item for item in items if item not in mine])
    items[:] = mine


@pytest.fixture(scope="session")
def jvm(request, tmp_path_factory):
    values = [request.config.getoption(o) for o in ("--java", "--agent", "--program-path")]
    if None in values:
        pytest.fail("run through ctest -R jvm, or give --java, --agent and --program-path")
    return Jvm(*values, tmp_path_factory.mktemp)
