"""DuckDB as a library, for tests of what twreport exports: the shared library that the package of its
Node.js bindings has, called by ctypes."""

import ctypes
import hashlib
import pathlib
import shutil
import subprocess
import tarfile
import tempfile

VERSION = "1.5.6-r.1"
PACKAGE = f"@duckdb/node-bindings-linux-x64@{VERSION}"
SHA256 = "1b9f82478539bb9a1d1df44bd103121a12ae52142c07158dc52b97d2ec1d69ff"
CACHE = pathlib.Path(__file__).resolve().parent.parent.parent.parent / "build" / "duckdb"


class Missing(Exception):
    """The library is neither here nor to be had."""


def library():
    """The path of the library, which is fetched once into build/."""
    file = CACHE / VERSION / "libduckdb.so"
    if file.exists():
        return file
    if shutil.which("npm") is None:
        raise Missing("npm is not installed, which fetches DuckDB")
    file.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=file.parent) as folder:
        done = subprocess.run(["npm", "pack", "--silent", "--cache", f"{folder}/cache", PACKAGE],
                              cwd=folder, timeout=100, capture_output=True, encoding="utf-8")
        if done.returncode != 0:
            raise Missing(f"npm cannot fetch {PACKAGE}: {done.stderr.strip()}")
        (packed,) = pathlib.Path(folder).glob("*.tgz")
        assert hashlib.sha256(packed.read_bytes()).hexdigest() == SHA256, f"{PACKAGE} is another one"
        with tarfile.open(packed) as tar:
            tar.extract("package/libduckdb.so", folder)
        (pathlib.Path(folder) / "package" / "libduckdb.so").replace(file)
    return file


class _Result(ctypes.Structure):
    _fields_ = [("members", ctypes.c_uint64 * 6)]


class Database:
    """A database in memory. Rows are lists of texts, and None."""

    def __init__(self):
        self._call = ctypes.CDLL(str(library()))
        for name in ("duckdb_result_error", "duckdb_column_name"):
            getattr(self._call, name).restype = ctypes.c_char_p
        for name in ("duckdb_row_count", "duckdb_column_count"):
            getattr(self._call, name).restype = ctypes.c_uint64
        self._call.duckdb_value_varchar.restype = ctypes.c_void_p
        self._call.duckdb_value_varchar.argtypes = [ctypes.c_void_p, ctypes.c_uint64,
                                                    ctypes.c_uint64]
        self._call.duckdb_free.argtypes = [ctypes.c_void_p]
        database, self._connection = ctypes.c_void_p(), ctypes.c_void_p()
        assert self._call.duckdb_open(None, ctypes.byref(database)) == 0
        assert self._call.duckdb_connect(database, ctypes.byref(self._connection)) == 0

    def run(self, sql):
        result = _Result()
        place = ctypes.byref(result)
        failed = self._call.duckdb_query(self._connection, sql.encode(), place)
        assert failed == 0, self._call.duckdb_result_error(place).decode()
        rows = [[self._text(place, column, row)
                 for column in range(self._call.duckdb_column_count(place))]
                for row in range(self._call.duckdb_row_count(place))]
        self._call.duckdb_destroy_result(place)
        return rows

    def _text(self, place, column, row):
        text = self._call.duckdb_value_varchar(place, column, row)
        if text is None:
            return None
        try:
            return ctypes.string_at(text).decode()
        finally:
            self._call.duckdb_free(text)
