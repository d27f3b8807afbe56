"""Reads profiles in the pprof form by the schema that Debian has."""

import collections
import functools
import gzip
import importlib.util
import pathlib
import subprocess
import tempfile

SCHEMA = pathlib.Path("/usr/share/gocode/src/github.com/google/pprof/proto/profile.proto")
# golang-go of Debian 12 has no other place.
GO = next((tool for tool in map(pathlib.Path, ("/usr/bin/go", "/usr/lib/go-1.19/bin/go"))
           if tool.exists()), None)

Sample = collections.namedtuple("Sample", "frames values labels")


@functools.cache
def schema():
    """The module that protoc makes of the schema."""
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["protoc", f"--python_out={folder}", f"-I{SCHEMA.parent}", SCHEMA.name],
                       check=True, timeout=60)
        spec = importlib.util.spec_from_file_location(
            "profile_pb2", pathlib.Path(folder) / "profile_pb2.py")
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        return module


class Profile:
    """One that was decoded, with texts in place of their numbers."""

    def __init__(self, data):
        if data[:2] == b"\x1f\x8b":
            data = gzip.decompress(data)
        self.raw = schema().Profile.FromString(data)
        texts = self.raw.string_table
        assert texts[0] == ""
        functions = {each.id: each for each in self.raw.function}
        locations = {each.id: each for each in self.raw.location}
        assert [each.id for each in self.raw.mapping] == [1]
        self.types = [(texts[each.type], texts[each.unit]) for each in self.raw.sample_type]
        self.comments = [texts[each] for each in self.raw.comment]
        self.samples = []
        for sample in self.raw.sample:
            assert len(sample.value) == len(self.types)
            frames = []
            for number in sample.location_id:
                location = locations[number]
                assert location.mapping_id == 1
                (line,) = location.line
                function = functions[line.function_id]
                frames.append((texts[function.name], texts[function.filename], line.line))
            labels = {texts[each.key]: texts[each.str] for each in sample.label}
            self.samples.append(Sample(frames, list(sample.value), labels))

    def total(self, name):
        index = [each for each, _ in self.types].index(name)
        return sum(sample.values[index] for sample in self.samples)

    def by(self, name, key):
        """The sums of one type by what `key` gives for a sample."""
        index = [each for each, _ in self.types].index(name)
        sums = collections.Counter()
        for sample in self.samples:
            sums[key(sample)] += sample.values[index]
        return +sums


def text_of(frame):
    """As reports have it."""
    name, file, line = frame
    if not file:
        return name
    return f"{name}({file}:{line})" if line else f"{name}({file})"
