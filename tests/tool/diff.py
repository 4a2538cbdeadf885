"""What `mira diff A B` names, done to A by the commands that change tables, makes A equal to B:

    diff.py MIRA_PROGRAM [PAIRS [SEED]]
"""

import json
import os
import random
import subprocess
import sys
import tempfile

FIELDS = {"K": "C(3)", "T": "C(6)", "N": "N(8,3)", "D": "D", "L": "L", "M": "M"}
KINDS = ["dbase3", "dbase4", "foxpro", "visual", "smt", "level7"]
POOL = {"T": ["", "a", "é", "x y"], "N": ["", "0.000", "-1.500", "12.250"], "D": ["", "2024-02-29"],
        "L": ["", "true", "false"], "M": ["", "memo", "two\nlines", 'quo"te,']}


def cell(value):
    return "" if value is None else str(value).lower() if isinstance(value, bool) else str(value)


class Pair:
    def __init__(self, mira, folder, rand, keyed):
        self.mira, self.folder, self.rand, self.keyed = mira, folder, rand, keyed
        for name in "ab":
            self.make(name)

    def run(self, *words, text=None, fine=(0,)):
        done = subprocess.run([self.mira, *words], cwd=self.folder, input=text, capture_output=True,
                              text=True, check=False)
        assert done.returncode in fine, (words, done.returncode, done.stderr)
        return done.stdout

    def make(self, name):
        keys = self.rand.sample(range(12), self.rand.randrange(8))
        rows = [",".join(["K%02d" % key] + ['"%s"' % self.rand.choice(POOL[f]).replace('"', '""')
                                            for f in "TNDLM"]) for key in keys]
        self.run("import", "-q", "--force", "--no-backup", "--kind", self.rand.choice(KINDS),
                 "--code-page", "CP1252", "--schema", ", ".join(f"{f} {t}" for f, t in FIELDS.items()),
                 "-", name, text="\n".join([",".join(FIELDS)] + rows) + "\n")
        if self.keyed and self.rand.random() < 0.5:
            self.run("delete", name, "--no-backup", "-q", "--records", "1,3")

    def diff(self):
        key = ["--key", "K"] if self.keyed else []
        lines = self.run("diff", "a", "b", "--json", "-q", *key, fine=(0, 1)).splitlines()
        return [json.loads(line) for line in lines]

    def apply(self, change):
        which = ["-w", f"K=={change['key']['K']}"] if self.keyed else ["-w", f"_record={change.get('record')}"]
        values = [f"{f}={cell(v['new'])}" for f, v in change["fields"].items() if "new" in v]
        if change["change"] == "changed":
            self.run("set", "a", *values, *which, "-q", "--no-backup")
        elif change["change"] == "added":
            self.run("add", "a", *values, "-q", "--no-backup")
        else:
            self.run("delete", "a", *which, "-q", "--no-backup")


def main():
    pairs, seed = (int(word) for word in (sys.argv[2:] + ["6", "1"][len(sys.argv) - 2:])[:2])
    found = 0
    for number in range(pairs):
        rand = random.Random(seed * 100000 + number)
        with tempfile.TemporaryDirectory() as folder:
            pair = Pair(os.path.abspath(sys.argv[1]), folder, rand, rand.random() < 0.5)
            changes = pair.diff()
            found += len(changes)
            for change in changes:
                pair.apply(change)
            if not pair.keyed:
                pair.run("pack", "a", "-q", "--no-backup")
            assert pair.diff() == [], (seed, number, changes, pair.diff())
    assert found or not pairs, "nothing differed"
    print(f"{pairs} pairs, {found} changes")


if __name__ == "__main__":
    main()
