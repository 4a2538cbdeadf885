"""The programs of the documents, with every package that they import."""

import subprocess
import sys

import pytest
from conftest import ROOT, SAMPLES


@pytest.mark.parametrize("document", ["README.md", "docs/python.md"])
def test_document(document):
    run = ROOT / "tests/python/run_document.py"
    done = subprocess.run([sys.executable, run, ROOT / document, SAMPLES], capture_output=True)
    assert done.returncode == 0, done.stdout.decode()
