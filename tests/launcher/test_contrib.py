"""What contrib/ has to copy: the options and settings in it start the profiles that they name."""

import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
import yaml

from harness import OUTPUT, SOURCE, results

CONTRIB = SOURCE / "contrib"
KUBERNETES = CONTRIB / "kubernetes" / "service.yaml"
DROP_IN = CONTRIB / "systemd" / "tomcat10.service.d" / "profiling.conf"


def settings_of_kubernetes():
    (found,) = [each for each in yaml.safe_load_all(KUBERNETES.read_text()) if each["kind"] == "ConfigMap"]
    return found["data"]["profiling.properties"]


def settings_of_gradle():
    (text,) = re.findall(r'settings\.text = "(.*)"', (CONTRIB / "gradle" / "profiling.gradle").read_text())
    return text.replace("\\n", "\n")


PLACES = {
    "kubernetes": (KUBERNETES, settings_of_kubernetes),
    "systemd": (DROP_IN, (CONTRIB / "systemd" / "profiling.properties").read_text),
    "maven": (CONTRIB / "maven" / "pom-snippet.xml", (CONTRIB / "maven" / "profiling.properties").read_text),
    "gradle": (CONTRIB / "gradle" / "profiling.gradle", settings_of_gradle),
}


def agent_options(file):
    """The options in the file, joined where its language joins pieces."""
    text = re.sub(r"""["'] \+\s*["']""", "", file.read_text())
    (found,) = re.findall(r"libjavanativeagent\.so=([^\s\"'<]+)", text)
    return found


@pytest.mark.parametrize("place", PLACES)
def test_options_and_settings_start_both_profiles(launcher, folder, place):
    file, settings = PLACES[place]
    output = folder / OUTPUT
    (output / "logs").mkdir(parents=True)
    properties = folder / "profiling.properties"
    properties.write_text(re.sub(r"(?m)^output=.*", f"output={output}", settings()))
    given = dict(option.split("=", 1) for option in agent_options(file).split(","))
    given.update(twHome=output, companion=properties)
    options = ",".join(f"{key}={value}" for key, value in given.items())
    agent = f"-agentpath:{launcher.root}/lib/libjavanativeagent.so={options}"
    done = launcher.plain("java", agent, "-cp", launcher.programs, "Echo", 0, "a", folder=folder)
    assert (done.code, done.err) == (0, ""), done
    (found,) = results(output)
    assert {"contention-1.json", "allocations-1.json"} <= {each.name for each in found.folder.iterdir()}
    (log,) = (output / "logs").iterdir()
    assert "Apr library initialized" in log.read_text() and "Ignoring" not in log.read_text()


def test_the_containers_of_kubernetes_are_confined():
    (deployment,) = [each for each in yaml.safe_load_all(KUBERNETES.read_text()) if each["kind"] == "Deployment"]
    pod = deployment["spec"]["template"]["spec"]
    assert pod["securityContext"]["runAsNonRoot"]
    mounts = {each["name"] for each in pod["volumes"]}
    for container in pod["initContainers"] + pod["containers"]:
        assert container["securityContext"]["readOnlyRootFilesystem"]
        assert container["securityContext"]["capabilities"] == {"drop": ["ALL"]}
        assert not container["securityContext"]["allowPrivilegeEscalation"]
        assert "memory" in container["resources"]["limits"]
        assert {each["name"] for each in container["volumeMounts"]} <= mounts


def test_images_have_the_version_of_this_release():
    version = (SOURCE / "VERSION").read_text().split()[0]
    files = [KUBERNETES, *(CONTRIB / "container").iterdir()]
    named = re.findall(r"javanativeagent[-:](\d[0-9.]*\d)", "".join(each.read_text() for each in files))
    assert len(named) > 3 and set(named) == {version}


def test_the_drop_in_is_a_unit_file(folder):
    unit = folder / "tomcat10.service"
    unit.write_text("[Service]\nExecStart=/bin/true\n" + DROP_IN.read_text())
    done = subprocess.run(["systemd-analyze", "verify", unit], capture_output=True, text=True, check=False)
    assert done.returncode == 0 and str(unit) not in done.stderr, done


def test_the_snippet_is_a_profile_of_maven():
    (found,) = ElementTree.parse(PLACES["maven"][0]).iter("argLine")
    assert found.text.startswith("-agentpath:${profiling.home}/lib/libjavanativeagent.so=")


@pytest.mark.parametrize("what, name", (("config", "prometheus.yml"), ("rules", "alerts.yml")))
def test_files_for_prometheus_are_understood(what, name):
    words = ["promtool", "check", what, CONTRIB / "prometheus" / name]
    done = subprocess.run(words, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done


@pytest.mark.parametrize("name", ("github", "gitlab"))
def test_commands_of_jobs_are_understood(launcher, folder, name):
    """Its words are given to the commands themselves, with a build that is a JVM."""
    text = (CONTRIB / "ci" / f"{name}.yml").read_text()
    assert yaml.safe_load(text)
    joined = re.sub(r"\s*\\\n\s+|\n\s+(?=--)", " ", text)
    (run,) = re.findall(r"twprofile (run .*) -- \S*mvnw? ", joined)
    (check,) = re.findall(r"twreport (check .*)", joined)
    (page,) = re.findall(r"twreport (--all .*)", joined)
    done = launcher.run(*run.split(), "--", "java", "-cp", launcher.programs, "Echo", 0, folder=folder)
    assert done.code == 0 and done.err == "", done
    viewer = launcher.root / "lib" / "twreport"
    for words in (check, page):
        done = launcher.plain(viewer, *words.replace("'", "").split(), folder=folder)
        assert done.code == 0, done
    assert (folder / "profiling.html").stat().st_size > 10_000
