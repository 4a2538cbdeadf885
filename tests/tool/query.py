"""`mira query` gives rows as they are found, in little memory, and stops at once:

    query.py MIRA_PROGRAM SAMPLES_FOLDER [SANITIZED]
"""

import os
import resource
import signal
import subprocess
import sys
import tempfile
import time

MIRA, SAMPLES = sys.argv[1:3]
ENDLESS = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n)"
FORMATS = [["-F", "table"], ["-F", "csv"], ["-F", "tsv"], ["-F", "json"], ["-F", "jsonl"], ["-o", "x.db"], ["-o", "x.dbf"]]


def stops(folder, statement, *words):
    """Within a moment, with nothing left of an output."""
    with subprocess.Popen([MIRA, "query", "-q", statement, SAMPLES, *words], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, cwd=folder) as process:
        time.sleep(0.3)
        assert process.poll() is None, statement
        process.send_signal(signal.SIGINT)
        before = time.monotonic()
        assert process.wait() == 130, (statement, process.returncode)
        assert time.monotonic() - before < 5, statement  # on a machine with other work
    assert not os.listdir(folder), os.listdir(folder)


def first_row_comes(statement):
    with subprocess.Popen([MIRA, "query", "-F", "csv", statement, SAMPLES], stdout=subprocess.PIPE, bufsize=0) as process:
        lines = process.stdout.readline(), process.stdout.readline()
        process.kill()
        return lines


def main():
    with tempfile.TemporaryDirectory() as folder:
        stops(folder, ENDLESS + " SELECT count(*) FROM n")
        stops(folder, ENDLESS + " SELECT i FROM n", "-o", "x.csv")
        stops(folder, ENDLESS + " SELECT i FROM n", "-o", "x.dbf")
        stops(folder, "SELECT count(*) FROM " + ", ".join(f"stock s{i}" for i in range(12)))
        assert first_row_comes(ENDLESS + " SELECT i FROM n WHERE i = 1") == (b"i\n", b"1\n")
        most = 400_000
        for words in FORMATS:
            statement = f"{ENDLESS} SELECT i, 'text ' || i AS t, i / 4.0 AS r, date(i) AS d FROM n LIMIT {most}"
            subprocess.run([MIRA, "query", "-q", statement, SAMPLES, *words], cwd=folder, check=True, stdout=subprocess.DEVNULL)
        peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        assert len(sys.argv) > 3 or peak < 32 * 1024, peak


if __name__ == "__main__":
    main()
