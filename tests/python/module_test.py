#!/usr/bin/env python3
"""miralib with the standard library alone: module_test.py SAMPLES [UNITTEST_OPTION...]

The streams are read by ctypes, and every capsule is kept, dropped or released in turn.
"""

import ctypes
import gc
import os
import pathlib
import pickle
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import warnings

import miralib
from miralib import _native

SAMPLES = pathlib.Path(sys.argv.pop(1))


def text_at(array, i):
    ends = ctypes.cast(array.buffers[1], ctypes.POINTER(ctypes.c_int64))
    return ctypes.string_at(array.buffers[2] + ends[i], ends[i + 1] - ends[i]).decode("utf-8")


def value_at(array, type, i):
    bits = array.buffers[0]
    if bits and not ctypes.string_at(bits + i // 8, 1)[0] >> i % 8 & 1:
        return None
    if type == "large_string":
        return text_at(array, i)
    if type == "bool":
        return bool(ctypes.string_at(array.buffers[1] + i // 8, 1)[0] >> i % 8 & 1)
    kind = {"double": ctypes.c_double, "int64": ctypes.c_int64, "date32": ctypes.c_int32}[type]
    return ctypes.cast(array.buffers[1], ctypes.POINTER(kind))[i]


def rows_of(table):
    """Rows through the capsule, moved away from it as consumers do."""
    types = [field.type for field in table.schema]
    capsule = table.__arrow_c_stream__()
    pointer = ctypes.pythonapi.PyCapsule_GetPointer
    pointer.restype, pointer.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    held = _native.Stream.from_address(pointer(capsule, b"arrow_array_stream"))
    stream = _native.Stream()
    ctypes.memmove(ctypes.addressof(stream), ctypes.addressof(held), ctypes.sizeof(stream))
    held.release = _native._release_stream()
    del capsule, held
    rows = []
    array = _native.Array()
    while stream.get_next(stream, array) == 0 and array.release:
        columns = [array.children[k].contents for k in range(array.n_children)]
        for i in range(array.length):
            rows.append(tuple(value_at(column, type, i) for column, type in zip(columns, types)))
        array.release(array)
    error = stream.get_last_error(stream)
    stream.release(stream)
    if error:
        raise miralib.TableError(error.decode("utf-8"))
    return rows


class Reading(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def copy(self, name, to=None):
        path = self.folder / (to or name)
        shutil.copy(SAMPLES / name, path)
        return path

    def test_rows_and_facts(self):
        t = miralib.read(SAMPLES / "stock", columns=["CODE", "PRICE"], where="PRICE>5")
        self.assertEqual(rows_of(t), [("LCK002", 12.5), ("GLU500", 7.25), ("SAW300", 24.0)])
        self.assertEqual(rows_of(t), rows_of(t))
        self.assertEqual(t.schema[1], miralib.Field("PRICE", "double", "N", 8, 2))
        self.assertEqual((t.records, t.code_page, t.faults), (12, "CP437", []))
        self.assertEqual(t.facts[0]["fields"][0]["name"], "CODE")
        self.assertEqual(miralib.read(SAMPLES / "customers.dbf").code_page, "CP866")

    def test_ranges_and_partitions(self):
        path = SAMPLES / "stock.dbf"
        whole = rows_of(miralib.read(path, columns=["CODE", "_record"]))
        parts = miralib.partitions(path, records=5, columns=["CODE", "_record"])
        self.assertEqual([(p.first, p.end) for p in parts], [(0, 5), (5, 10), (10, 12)])
        parts = pickle.loads(pickle.dumps(parts))
        self.assertEqual([row for p in parts for row in rows_of(p.read())], whole)
        self.assertEqual(rows_of(miralib.read(path, first=3, end=3)), [])

    def test_patterns(self):
        self.copy("stock.dbf", "a.DBF")
        self.copy("stock.dbf", "b.dbf")
        t = miralib.read(self.folder / "*.dbf", columns=["CODE"], source="file")
        self.assertEqual([os.path.basename(row[1]) for row in rows_of(t)], ["a.DBF"] * 11 + ["b.dbf"] * 11)
        self.assertEqual(t.records, 24)
        with self.assertRaises(FileNotFoundError):
            miralib.read(self.folder / "*.dbx")

    def test_errors(self):
        stock = self.copy("stock.dbf")
        (self.folder / "no.dbf").write_text("no table")
        cases = [
            (FileNotFoundError, "no such table", dict(path="none.dbf")),
            (miralib.TableError, "no table", dict(path=self.folder / "no.dbf")),
            (KeyError, "did you mean PRICE", dict(columns=["PRIZE"])),
            (KeyError, "did you mean PRICE", dict(types={"PRIZE": "text"})),
            (LookupError, "no such code page: CP0", dict(code_page="CP0")),
            (ValueError, "did you mean PRICE", dict(where="PRIZE>5")),
            (ValueError, "skip", dict(deleted="no")),
            (ValueError, "NAME=double", dict(types={"CODE": "date"})),
            (TypeError, "list", dict(columns="CODE")),
        ]
        for kind, text, options in cases:
            with self.subTest(options), self.assertRaises(kind) as caught:
                miralib.read(**{"path": stock, **options})
            self.assertIn(text, str(caught.exception))
        (self.folder / "stock.dbf-mira").write_bytes(b"journal")
        with self.assertRaisesRegex(miralib.TableError, "mira info"):
            miralib.read(stock)

    def test_pages_that_iconv_lacks(self):
        # An alias to nothing, as where the converters of East Asia are not installed.
        (self.folder / "gconv-modules").write_text("alias CP932// NOWHERE//\n")
        stock = self.copy("stock.dbf")
        marked = bytearray(stock.read_bytes())
        marked[29] = 0x13
        (self.folder / "marked.dbf").write_bytes(marked)
        program = (
            "import sys, miralib\n"
            "for name, page in ('stock', 'CP932'), ('stock', '866'), ('marked', None), ('marked', 'CP949'):\n"
            "    try: miralib.read(name, code_page=page).schema; print('read')\n"
            "    except LookupError as error: print(type(error).__name__, error)\n"
        )
        place = pathlib.Path(miralib.__file__).resolve().parents[1]
        environment = {**os.environ, "GCONV_PATH": str(self.folder), "PYTHONPATH": str(place)}
        done = subprocess.run(
            [sys.executable, "-c", program], cwd=self.folder, env=environment, capture_output=True, text=True
        )
        lacking = "is not among those of this system's iconv; install all of them (libc-gconv-modules-extra)"
        told = [line.split(",")[0] for line in done.stdout.splitlines()]
        self.assertEqual(
            told,
            [
                f"LookupError stock.dbf: code page CP932 {lacking}",
                "read",
                f"LookupError marked.dbf: its code page CP932 (mark 0x13) {lacking}",
                "read",
            ],
            done.stderr,
        )

    def test_faults_are_one_warning(self):
        path = self.copy("stock.dbf")
        data = bytearray(path.read_bytes())
        start = int.from_bytes(data[8:10], "little")
        data[start + 27 : start + 35] = b"  12,50 "
        path.write_bytes(data)
        t = miralib.read(path)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            rows = rows_of(t)
        self.assertIsNone(rows[0][2])
        self.assertEqual([w.category for w in caught], [miralib.DataWarning])
        self.assertIn("first in record 1, field PRICE", str(caught[0].message))
        self.assertEqual((t.faults[0]["kind"], t.faults[0]["count"]), ("no_number", 1))

    def test_a_number_that_does_not_fit_ends_the_read(self):
        path = self.copy("stock.dbf")
        data = bytearray(path.read_bytes())
        start = int.from_bytes(data[8:10], "little")
        data[start + 35 : start + 40] = b"  1.5"
        path.write_bytes(data)
        with self.assertRaisesRegex(miralib.TableError, "record 1, field STOCK: 1.5 is no whole number"):
            rows_of(miralib.read(path))
        t = miralib.read(path, types={"STOCK": "double"}, columns=["STOCK"])
        self.assertEqual(rows_of(t)[0], (1.5,))

    def test_capsules_left_and_dropped_while_an_exception_is_on_its_way(self):
        t = miralib.read(SAMPLES / "stock.dbf")
        files = len(os.listdir("/proc/self/fd"))
        for _ in range(100):
            t.__arrow_c_stream__(), t.__arrow_c_schema__()
            with self.assertRaises(TypeError):
                len(t.__arrow_c_stream__())
        gc.collect()
        self.assertEqual(len(os.listdir("/proc/self/fd")), files)
        kept.append((t.__arrow_c_stream__(), t.__arrow_c_schema__()))

    def test_threads(self):
        t = miralib.read(SAMPLES / "stock.dbf", columns=["CODE", "_record"])
        wanted, read = rows_of(t), []
        threads = [threading.Thread(target=lambda: read.append(rows_of(t))) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(read, [wanted] * 8)


kept = []  # capsules that outlive everything

unittest.main()
