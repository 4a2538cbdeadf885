#!/usr/bin/env python3
"""Runs the programs of a document: run_document.py DOCUMENT SAMPLES [--update]

A "python" block that is followed by a "text" block has to print that; it runs in a folder with the
sample tables. --update writes what they print into the document. One that imports a package that is
not here is left out.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

BLOCK = re.compile(r"^```python\n(.*?)^```\n\n```text\n(.*?)^```\n", re.M | re.S)


def output_of(code, samples):
    with tempfile.TemporaryDirectory() as folder:
        shutil.copytree(samples, pathlib.Path(folder) / "samples")
        done = subprocess.run(
            [sys.executable, "-"], input=code, cwd=folder, capture_output=True, encoding="utf-8"
        )
        return done.stdout + done.stderr


def main():
    document, samples = map(pathlib.Path, sys.argv[1:3])
    text = document.read_text(encoding="utf-8")
    run = failed = 0

    def check(match):
        nonlocal run, failed
        code, expected = match.groups()
        found = output_of(code, samples)
        if "ModuleNotFoundError" in found:
            return match.group(0)
        run += 1
        if found != expected and "--update" not in sys.argv:
            failed += 1
            print(f"{document.name}: after\n{code}comes\n{found}instead of\n{expected}")
        return f"```python\n{code}```\n\n```text\n{found}```\n"

    updated = BLOCK.sub(check, text)
    if "--update" in sys.argv:
        document.write_text(updated, encoding="utf-8")
    sys.exit(1 if failed or run == 0 else 0)


main()
