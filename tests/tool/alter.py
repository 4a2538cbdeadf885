"""`mira alter` on every table of the samples and of MIRA_CORPUS, in and out again: what both structures
hold stays, else it is told and nothing is changed. With MIRA_EVERY=n on every nth of them.

    alter.py MIRA_PROGRAM SAMPLES [RESULTS]

Altered tables stay in the folder RESULTS, for other readers.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

KINDS = ["dbase3", "dbase4", "foxpro", "visual", "smt", "level7"]
# Headers of these are kept byte for byte but for the date.
WITHOUT_DATE = slice(4, None)


class Work:
    def __init__(self, mira, folder, source):
        self.mira, self.folder = mira, pathlib.Path(folder)
        self.files = [path for path in source.parent.iterdir()
                      if path.is_file() and path.stem.lower() == source.stem.lower()
                      and path.suffix.lower() in (".dbf", ".dbt", ".fpt", ".smt", ".cpg")]
        self.name = source.name

    def run(self, *words):
        return subprocess.run([self.mira, *words], cwd=self.folder, capture_output=True, check=False)

    def fresh(self):
        for path in self.folder.iterdir():
            if path.is_file():
                path.unlink()
        for path in self.files:
            shutil.copyfile(path, self.folder / path.name)
            (self.folder / "old").mkdir(exist_ok=True)
            shutil.copyfile(path, self.folder / "old" / path.name)

    def bytes(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir() if path.is_file()}

    def alter(self, *words):
        """Whether it was done; else nothing has changed, and the reason is told."""
        before = self.bytes()
        done = self.run("alter", self.name, "--no-backup", *words)
        assert done.returncode in (0, 2), (self.name, words, done.stderr)
        if done.returncode == 0:
            return True
        assert self.bytes() == before, (self.name, words)
        assert done.stderr, (self.name, words)
        return False

    def differences(self, renamed=False):
        page = self.run("info", "--json", "old/" + self.name).stdout.decode()
        page = re.search(r'"code_page":"([^"]*)"', page).group(1)
        done = self.run("diff", "old/" + self.name, self.name, "--deleted", "include",
                        "--code-page", page)
        only = re.findall(rb": only it has (.*)", done.stderr)
        return done.stdout + (b"" if renamed else b"; ".join(only))


def without_memos(work, table):
    """Header without date and memo references aside, what a table has to keep byte for byte."""
    schema = work.run("info", "--schema", table).stdout
    return None if re.search(rb" [MGPWB](?: |,|$)", schema, re.M) else (
        (work.folder / table).read_bytes().rstrip(b"\x1a"))


def alter_all(work, tally, results):
    work.fresh()
    if work.run("info", work.name).returncode != 0 or work.run("check", work.name, "-q").returncode == 2:
        return
    before = without_memos(work, work.name)
    if work.alter("--add", "ZZ_NEW C(7), ZZ_TWO N(5,2)") and work.alter("--drop", "ZZ_NEW", "--drop", "ZZ_TWO"):
        tally["in and out"] += 1
        assert work.differences() == b"", (work.name, work.differences()[:500])
        after = without_memos(work, work.name)
        tally["byte for byte"] += before is not None and after[WITHOUT_DATE] == before[WITHOUT_DATE]
    for kind in KINDS:
        work.fresh()
        if not work.alter("--kind", kind):
            tally[kind + " refused"] += 1
            continue
        tally[kind] += 1
        found = work.differences(renamed=True)
        assert found == b"", (work.name, kind, found[:500])
        if results:
            target = results / kind / work.files[0].parent.name
            target.mkdir(parents=True, exist_ok=True)
            for path in work.folder.iterdir():
                if path.is_file():
                    shutil.copyfile(path, target / path.name)
        back = work.alter("--kind", "visual") and work.alter("--kind", "dbase3")
        assert not back or work.differences(renamed=True) == b"", (work.name, kind, "and back")
        tally["and back"] += back


def main():
    mira = os.path.abspath(sys.argv[1])
    results = pathlib.Path(sys.argv[3]).absolute() if len(sys.argv) > 3 else None
    tally = dict.fromkeys(["in and out", "byte for byte", "and back"], 0)
    tally |= {kind + end: 0 for kind in KINDS for end in ("", " refused")}
    corpus = os.environ.get("MIRA_CORPUS")
    for folder in [sys.argv[2]] + ([corpus] if corpus else []):
        tables = [path for path in sorted(pathlib.Path(folder).absolute().rglob("*"))
                  if path.suffix.lower() == ".dbf" and path.is_file()]
        for path in tables[::int(os.environ.get("MIRA_EVERY", 1))]:
            with tempfile.TemporaryDirectory() as work:
                alter_all(Work(mira, work, path), tally, results)
    assert tally["in and out"] and all(tally[kind] for kind in KINDS), tally
    print(", ".join(f"{what}: {count}" for what, count in tally.items()))


if __name__ == "__main__":
    main()
