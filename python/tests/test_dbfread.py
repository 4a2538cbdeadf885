"""dbfread and miralib agree about tables that are whole: the samples, and dbfread's own ones; and
dbfread's own tests hold for miralib."""

import datetime
import os
import pathlib
import subprocess
import sys
import warnings

import dbfread
import pytest
from conftest import SAMPLES, corpus

import miralib

warnings.simplefilter("ignore", miralib.DataWarning)


def adapted(path, **options):
    """A table as dbfread gives it: dicts, blank texts as "", numbers as int or float."""
    return miralib.read(path, **options).to_arrow().to_pylist()


def same(theirs, ours):
    if isinstance(theirs, (bytes, dbfread.memo.BinaryMemo)):
        return ours is None or isinstance(ours, (bytes, str))
    if theirs is None or ours is None:
        return theirs in (None, "", b"") and ours in (None, "")
    if isinstance(theirs, datetime.datetime):
        return abs((theirs - ours).total_seconds()) < 1
    if isinstance(theirs, str):
        return theirs.rstrip(" \0") == ours.rstrip(" \0")
    return theirs == ours or float(theirs) == float(ours)


WHOLE = [path for path in corpus() if path.is_relative_to(SAMPLES) or path.parent.name == "dbfread"]


@pytest.mark.parametrize("path", WHOLE, ids=lambda path: path.name)
def test_agrees(path):
    try:
        ours = adapted(path)
        code_page = miralib.read(path).code_page
        table = dbfread.DBF(str(path), encoding=code_page.lower(), char_decode_errors="replace", ignore_missing_memofile=True)
        theirs = list(table)
    except (miralib.TableError, ValueError, LookupError, dbfread.MissingMemoFile, UnicodeDecodeError) as error:
        pytest.skip(f"one of the two does not read it: {error}")
    except Exception as error:  # dbfread ends so on what it does not know
        pytest.skip(f"one of the two does not read it: {error!r}")
    assert len(ours) == len(theirs)
    if path.is_relative_to(SAMPLES):
        for mine, other in zip(ours, theirs):
            for name, value in other.items():
                if name in mine:
                    assert same(value, mine[name]), (name, value, mine[name])


def test_own_tests():
    """Those of dbfread against dbfread_adapter.py, which names what is otherwise by intent."""
    sources = os.environ["DBFREAD_SOURCES"]
    command = [sys.executable, "-m", "pytest", "-q", "-c", os.devnull, "--rootdir", sources, "-p", "dbfread_adapter"]
    path = str(pathlib.Path(__file__).parent)
    done = subprocess.run(
        [*command, "-p", "no:cacheprovider", "dbfread"],
        cwd=sources, env={**os.environ, "PYTHONPATH": path}, capture_output=True, text=True,
    )
    assert done.returncode == 0 and "11 passed, 5 xfailed" in done.stdout, done.stdout
