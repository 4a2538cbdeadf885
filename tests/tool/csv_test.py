"""What `mira import` reads from CSV is what Python's csv module reads, over random rows in every way
of writing them; the rows reach over the chunks in which files are read:

    csv_test.py MIRA_PROGRAM
"""

import csv
import io
import pathlib
import random
import subprocess
import sys
import tempfile

CELLS = ["", "a", "7", 'say "x"', '"', '""', 'in"ner', ",", ";", "\n", "\r", "a\r\nb", "\n\n", '\r"\n"',
         " lead", "é€", "x" * 90]


def text_of(rows, rng, delimiter, end):
    """Every cell with quotes where it needs them, and by chance where not."""
    def written(cell, first_of_one):
        needs = first_of_one or cell[:1] == '"' or any(c in cell for c in (delimiter, "\r", "\n"))
        return '"' + cell.replace('"', '""') + '"' if needs or rng.random() < 0.3 else cell
    lines = [delimiter.join(written(cell, len(row) == 1 and not cell) for cell in row) for row in rows]
    # Empty lines are passed over where rows have several cells.
    breaks = [end + (end if len(rows[0]) > 1 and rng.random() < 0.1 else "") for _ in lines]
    if rng.random() < 0.5:
        breaks[-1] = ""
    return "".join(line + after for line, after in zip(lines, breaks))


def agrees(mira, folder, seed):
    rng = random.Random(seed)
    delimiter, end = rng.choice(",;\t|"), rng.choice(["\n", "\r\n", "\r"])
    columns = rng.choice([1, 2, 5])
    cell = lambda: "".join(rng.choice(CELLS) for _ in range(rng.choice([1, 1, 2, 3])))[:100]
    rows = [[f"F{i}" for i in range(columns)]]
    rows += [[cell() for _ in range(columns)] for _ in range(rng.choice([3, 40, 2000]))]
    text = text_of(rows, rng, delimiter, end)
    mark = "\ufeff" if rng.random() < 0.3 else ""
    (folder / "in.csv").write_bytes((mark + text).encode())
    schema = ", ".join(f"F{i} C(200)" for i in range(columns))
    subprocess.run([mira, "import", "-q", "in.csv", "t", "-d", delimiter.replace("\t", "tab"), "--schema", schema, "--force",
                    "--code-page", "UTF-8"], cwd=folder, check=True)
    out = subprocess.run([mira, "export", "-q", "t"], cwd=folder, check=True, capture_output=True).stdout
    read = lambda text, **how: [row for row in csv.reader(io.StringIO(text, newline=""), **how) if row]
    # A field keeps no blanks at its end, and one that may not be null no empty text apart.
    bare = lambda rows: [[cell.rstrip(" ") for cell in row] for row in rows]
    expected = bare(read(text, delimiter=delimiter))
    assert expected == bare(rows), f"seed {seed}: the test itself"
    got = bare(read(out.decode()))
    blank = [""] if columns == 1 else None  # a record of one empty cell is an empty line
    return [row for row in got if row != blank] == [row for row in expected if row != blank]


def main():
    with tempfile.TemporaryDirectory() as name:
        wrong = [seed for seed in range(60) if not agrees(sys.argv[1], pathlib.Path(name), seed)]
    if wrong:
        sys.exit(f"read otherwise than by Python: seeds {wrong}")


main()
