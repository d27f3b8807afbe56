"""Where things are, the building of what is measured, and the JDKs of this machine."""

import dataclasses
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build" / "bench"
OUT = ROOT / "out" / "bench"
CLASSES = BUILD / "references" / "classes"

_PACKAGES = ("cmake", "g++", "make", "pkg-config", "libapr1-dev")


class BenchError(Exception):
    """A step failed; the text names it and where to find out more."""


@dataclasses.dataclass(frozen=True)
class Jdk:
    version: str
    home: str

    @property
    def major(self):
        return int(self.version.split(".")[0])

    def program(self, name):
        return str(pathlib.Path(self.home, "bin", name))


def agent_path(name):
    """The path of a reference agent, such as "literalAgent"."""
    return BUILD / "references" / "lib" / f"lib{name}.so"


def recorder_settings(name):
    """The path of settings for the flight recorder, such as "recorder"."""
    return ROOT / "bench" / "programs" / f"{name}.jfc"


def recorder_options(name="recorder"):
    """The JVM options that start the flight recorder; it writes into the current folder."""
    return [
        f"-XX:StartFlightRecording:settings={recorder_settings(name)},filename=recording.jfr",
        "-XX:FlightRecorderOptions:stackdepth=100,repository=recorder",
    ]


def build_agents(library):
    """Builds the reference agents, and the agent library unless one is given; gives its path."""
    print(_common_script("ensurePackages", *_PACKAGES), end="")
    _cmake_build(
        "the reference agents",
        ROOT / "bench",
        BUILD / "references",
        "-DCMAKE_BUILD_TYPE=Release",
    )
    if library is not None:
        return library
    library = BUILD / "lib" / "libjavanativeagent.so"
    _cmake_build(
        "the agent library",
        ROOT,
        BUILD / "library",
        "-DCMAKE_BUILD_TYPE=Release",
        f"-DTW_OUTPUT_DIR={library.parent}",
        target="javanativeagent",
    )
    return library


def find_jdks(wanted):
    """The JDKs of this machine, the oldest first; only those with the wanted major versions."""
    homes = _common_script("jdkHomes").split()
    jdks = [Jdk(_common_script("jdkVersion", home).strip(), home) for home in homes]
    jdks = [jdk for jdk in jdks if wanted is None or jdk.major in wanted]
    if not jdks:
        raise BenchError("no JDK found")
    return sorted(jdks, key=lambda jdk: jdk.major)


def _common_script(function, *args):
    """Runs a function of scripts/common.sh and gives what it prints."""
    script = 'set -euo pipefail; source "$1"; "${@:2}"'
    command = ["bash", "-c", script, "bench/run", ROOT / "scripts" / "common.sh", function, *args]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        raise BenchError(f"{function} failed")
    return done.stdout


def _cmake_build(title, source, build, *options, target="all"):
    _run_step(f"Configuring {title}", ["cmake", "-S", source, "-B", build, *options])
    _run_step(f"Building {title}", ["cmake", "--build", build, "-j2", "--target", target])


def _run_step(title, command):
    print(f"==> {title}", flush=True)
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        sys.stderr.write("".join(done.stdout.splitlines(keepends=True)[-40:]))
        raise BenchError(f"failed: {' '.join(map(str, command))}")
