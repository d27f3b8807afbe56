"""The commands and programs in the documents do what stands there."""

import re
import shlex
import subprocess
from pathlib import Path

import pytest

from harness import SOURCE

DOCUMENTS = [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]
PROFILERS = ("--contention", "--allocations", "--exceptions", "--locks", "--memory")
MAIN = """
public class Shop {
  public static void main(String[] words) throws Exception {
    System.out.println("ready");
    com.example.shop.Main.main(new String[] {words.length == 0 ? "2" : words[0]});
  }
}
"""


def blocks(document, kind):
    """The fenced blocks of this kind."""
    return re.findall(rf"^```{kind}\n(.*?)^```$", document.read_text(), re.M | re.S)


def commands(document, program):
    """The commands of this program in all blocks that are none of Java, continued lines joined."""
    text = "\n".join(blocks(document, "(?:sh|console|bash)?")).replace("\\\n", " ")
    return re.findall(rf"^(?:\$ )?(?:sudo )?{program} .*$", text, re.M)


@pytest.fixture(scope="module")
def prepared(launcher, tmp_path_factory):
    """A folder with what the documents name: shop.jar and build.sh, and the path to find all by."""
    folder = tmp_path_factory.mktemp("documents")
    home = Path(launcher.java).resolve().parents[1]
    classes = folder / "classes"
    (folder / "Shop.java").write_text(MAIN)
    sources = [folder / "Shop.java", *(SOURCE / "java" / "demo").rglob("*.java")]
    javac = [home / "bin" / "javac", "--release", "8", "-g", "-Xlint:-options", "-d", classes]
    subprocess.run([*javac, *sources], check=True)
    jar = [home / "bin" / "jar", "cfe", folder / "shop.jar", "Shop", "-C", classes, "."]
    subprocess.run(jar, check=True)
    build = folder / "build.sh"
    build.write_text("#!/bin/sh\nexec java -jar shop.jar\n")
    build.chmod(0o755)
    return folder


def path(launcher):
    lib = launcher.root / "lib"
    return f"{launcher.root / 'bin'}:{lib}:{launcher.environment['PATH']}"


def shell(launcher, folder, script):
    run = launcher.plain("bash", "-euc", script, folder=folder, PATH=path(launcher))
    assert run.code == 0, f"{script}\n{run}"
    return run


@pytest.mark.parametrize("document", [d for d in DOCUMENTS if blocks(d, "sh")], ids=lambda d: d.name)
def test_what_is_marked_as_a_script_runs(launcher, prepared, document):
    assert document.read_text().count("```") % 2 == 0
    command = [launcher.java, "-jar", "shop.jar", "120"]
    with subprocess.Popen(command, cwd=prepared, stdout=subprocess.PIPE, text=True) as shop:
        try:
            assert shop.stdout.readline() == "ready\n"
            for script in blocks(document, "sh"):
                shell(launcher, prepared, script.replace("PID", str(shop.pid)))
        finally:
            shop.kill()


def test_the_quick_start_shows_results(launcher, prepared):
    start = [c for c in commands(SOURCE / "README.md", "twprofile") if " doctor" not in c]
    assert len(start) >= 2
    shown = shell(launcher, prepared, "\n".join(start)).out
    assert "Contention profile from" in shown and "com.example.shop.Inventory" in shown


def test_programs_compile(launcher, tmp_path):
    javac = Path(launcher.java).resolve().parent / "javac"
    found = []
    for document in DOCUMENTS:
        for program in blocks(document, "java"):
            name = re.search(r"^public class (\w+)", program, re.M)
            if name is None:
                # Statements: the body of a method.
                name = f"Snippet{len(found)}"
                program = (
                    "import com.korvane.twutils.nativeagent.*;\n"
                    f"class {name} {{ void run() throws Exception {{\n{program}}}\n}}\n")
            else:
                name = name[1]
            source = tmp_path / str(len(found)) / f"{name}.java"
            source.parent.mkdir()
            source.write_text(program)
            found.append(source)
    assert len(found) >= 4
    jar = launcher.root / "lib" / "javanativeagent.jar"
    for source in found:
        told = subprocess.run(
            [javac, "--release", "8", "-Xlint:-options", "-cp", jar, "-d", source.parent, source],
            capture_output=True, text=True)
        assert told.returncode == 0, told.stderr


def test_options_in_commands_are_known(launcher, folder):
    """Of every command, also of those that need a server or a fleet to run."""
    verbs = {}

    def helps(*words):
        if words not in verbs:
            verbs[words] = launcher.plain(*words, folder=folder, PATH=path(launcher)).out
        return verbs[words]

    checked = 0
    for document in DOCUMENTS:
        for command in commands(document, "twprofile"):
            words = shlex.split(command.lstrip("$ ").removeprefix("sudo "), comments=True)[1:]
            known = helps("twprofile", "help", words[0])
            assert known, f"{document.name}: {command}"
            for word in words[1:]:
                if word == "--":
                    break
                if word.startswith("--"):
                    name, _, rest = word.partition("=")
                    if words[0] == "report":
                        known += helps("twreport", "--help")
                    assert name in known, f"{document.name}: {command}: {name}"
                    if name not in PROFILERS:
                        rest = ""
                    for key in re.findall(r"(?:^|,)([A-Za-z]+)=", rest):
                        assert f" {key}" in known, f"{document.name}: {command}: {key}"
                    checked += 1
        for command in commands(document, "twreport"):
            words = shlex.split(command.lstrip("$ "), comments=True)[1:]
            known = helps("twreport", "--help") + helps("twreport", words[0], "--help")
            for word in words:
                if word.startswith("--"):
                    assert word.partition("=")[0] in known, f"{document.name}: {command}: {word}"
                    checked += 1
    assert checked >= 20


def test_links_lead_somewhere():
    for document in [*DOCUMENTS, *SOURCE.glob("*.md"), SOURCE / "contrib" / "README.md"]:
        text = re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.M | re.S)
        for link in re.findall(r"\]\(([^)\s]+)\)", text):
            file, _, anchor = link.partition("#")
            if "://" in link:
                continue
            target = (document.parent / file).resolve() if file else document
            assert target.exists(), f"{document.name}: {link}"
            if anchor:
                heads = re.findall(r"^#+ (.*)$", target.read_text(), re.M)
                slugs = {re.sub(r"[^\w\- ]", "", h.lower()).strip().replace(" ", "-") for h in heads}
                assert anchor in slugs, f"{document.name}: {link}"


def test_the_readme_stays_short():
    assert len((SOURCE / "README.md").read_text().splitlines()) <= 150
