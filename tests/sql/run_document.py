"""Runs the examples of a document and compares what they print.

    run_document.py DOCUMENT SAMPLES EXTENSION_FOLDER [--update]

A "sql" or "python" block that is followed by a "text" block must print that. The sql blocks are one
session of the sqlite3 shell: each is run after those before it, on fresh samples. --update writes
the outputs into the document.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

BLOCK = re.compile(r"^```(sql|python)\n(.*?)^```\n\n```text\n(.*?)^```\n", re.M | re.S)


def run(command, text, folder, extension):
    environment = dict(os.environ, LC_ALL="C", PYTHONIOENCODING="utf-8", LD_LIBRARY_PATH=extension)
    done = subprocess.run(
        command, input=text, cwd=folder, env=environment, capture_output=True, encoding="utf-8"
    )
    # Where in the session an error stands depends on what was run before.
    return done.stdout + re.sub(r" near line \d+", "", done.stderr)


def output_of(kind, code, before, samples, extension):
    with tempfile.TemporaryDirectory() as folder:
        shutil.copytree(samples, pathlib.Path(folder) / "samples")
        if kind == "python":
            return run(["/usr/bin/python3", "-"], code, folder, extension)
        quiet = f".output /dev/null\n{''.join(before)}.output\n" if before else ""
        return run(["sqlite3", "-init", "/dev/null"], quiet + code, folder, extension)


def main():
    document, samples, extension = map(pathlib.Path, sys.argv[1:4])
    text = document.read_text(encoding="utf-8")
    sessions = []
    failed = False

    def check(match):
        nonlocal failed
        kind, code, expected = match.groups()
        found = output_of(kind, code, sessions, samples.resolve(), str(extension.resolve()))
        if kind == "sql":
            sessions.append(code)
        if found != expected:
            failed = True
            print(f"{document.name}: after\n{code}comes\n{found}instead of\n{expected}")
        return match.group(0).replace(f"```text\n{expected}```", f"```text\n{found}```")

    updated = BLOCK.sub(check, text)
    if "--update" in sys.argv:
        document.write_text(updated, encoding="utf-8")
        failed = False
    if not sessions:
        sys.exit("no examples were found")
    sys.exit(1 if failed else 0)


main()
