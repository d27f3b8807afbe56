"""The Java installation, the agent and the compiled programs, as CTest passes them."""

import pytest

from harness import Jvm


def pytest_addoption(parser):
    group = parser.getgroup("agent")
    group.addoption("--java", help="the java launcher to test with")
    group.addoption("--agent", help="libjavanativeagent.so")
    group.addoption("--program-path", help="class path of the test programs and the agent's jar")


@pytest.fixture(scope="session")
def jvm(request, tmp_path_factory):
    values = [request.config.getoption(o) for o in ("--java", "--agent", "--program-path")]
    if None in values:
        pytest.fail("run through ctest -R jvm, or give --java, --agent and --program-path")
    return Jvm(*values, tmp_path_factory.mktemp)
