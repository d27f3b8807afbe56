"""The launcher, laid out as in a checkout, and the JDK to run it with, as CTest passes them."""

import pytest

from harness import Launcher


def pytest_addoption(parser):
    group = parser.getgroup("launcher")
    group.addoption("--java", help="the java program of the JDK to test with")
    group.addoption("--lib", help="the folder with the libraries, jars and twreport")
    group.addoption("--programs", help="the folder with the compiled test programs")


@pytest.fixture(scope="session")
def launcher(request, tmp_path_factory):
    values = [request.config.getoption(o) for o in ("--java", "--lib", "--programs")]
    if None in values:
        pytest.fail("run through ctest -R launcher, or give --java, --lib and --programs")
    return Launcher(*values, tmp_path_factory.mktemp)


@pytest.fixture
def folder(tmp_path):
    """A working directory of its own."""
    (tmp_path / "work").mkdir()
    return tmp_path / "work"
