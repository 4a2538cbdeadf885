"""What the tests share: the program mira, samples, a folder of generated tables."""

import json
import os
import pathlib
import random
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SAMPLES = ROOT / "samples"
MIRA = os.environ.get("MIRA_PROGRAM", str(ROOT / "build/release/tool/mira"))


def mira(*arguments):
    """Standard output of mira; status 1 tells of values that could not be kept."""
    done = subprocess.run([MIRA, *map(str, arguments)], capture_output=True)
    assert done.returncode in (0, 1), done.stderr.decode()
    return done.stdout.decode("utf-8")


def exported(path, *options):
    """The rows of mira export -F jsonl, numbers as they are written."""
    text = mira("export", "-q", "-F", "jsonl", path, *options)
    lines = text.split("\n")[:-1]
    return [json.loads(line, parse_float=str, parse_int=str) for line in lines]


def fields_of(path):
    return json.loads(mira("info", "--json", path))["fields"]


def generated(folder, records=3000):
    """A table of every type that import makes, with blanks and texts beyond ASCII."""
    random.seed(5)
    path = folder / "generated.dbf"
    csv = folder / "generated.csv"
    with open(csv, "w", encoding="utf-8") as out:
        out.write("NAME,PRICE,COUNT,WIDE,BORN,SEEN,ACTIVE,MONEY,RATE,NUMBER,NOTE\n")
        for i in range(records):
            cells = [
                random.choice(["", "plain", "Плотник", "a  b", "ещё"]),
                f"{random.randint(-99999, 999999) / 100:.2f}",
                str(random.randint(-999, 9999)),
                str(random.randint(0, 10**20 - 1)),
                f"{random.randint(1900, 2100)}-{random.randint(1, 12):02}-{random.randint(1, 28):02}",
                f"2024-01-{random.randint(1, 28):02} {random.randint(0, 23):02}:00:59",
                random.choice(["true", "false"]),
                f"{random.randint(-10**9, 10**9) / 10000:.4f}",
                str(random.randint(-10**6, 10**6) / 8),
                str(random.randint(-2**31, 2**31 - 1)),
                random.choice(["", "note", "longer note " * 20]),
            ]
            if random.randrange(8) == 0:
                cells[random.choice([1, 2, 3, 4, 5, 6])] = ""
            out.write(",".join(cells) + "\n")
    mira(
        "import", "-q", csv, path, "--kind", "visual", "--code-page", "CP1251", "--schema",
        "NAME C(12), PRICE N(10,2), COUNT N(5), WIDE N(20), BORN D, SEEN T, ACTIVE L, MONEY Y, "
        "RATE B, NUMBER I, NOTE M",
    )
    return path


@pytest.fixture(scope="session")
def table(tmp_path_factory):
    return generated(tmp_path_factory.mktemp("tables"))


def corpus():
    """Samples, and real tables where MIRA_CORPUS names a folder of them."""
    folders = [SAMPLES] + [pathlib.Path(p) for p in [os.environ.get("MIRA_CORPUS")] if p]
    files = [path for folder in folders for path in sorted(folder.rglob("*.*"))]
    return [path for path in files if path.suffix.lower() in (".dbf", ".dbc", ".scx", ".vcx", ".frx")]
