"""The extension for DuckDB gives what ``mira export -F jsonl`` gives, in the DuckDB of Python and in
that of Node, which is an older one. MIRA_DUCKDB names the extension, MIRA_NODE a folder with
@duckdb/node-api; what is not there is left out."""

import os
import pathlib
import re
import shutil
import subprocess
import threading
import time

import pytest
from conftest import ROOT, SAMPLES, corpus, exported
from test_consumers import compare

duckdb = pytest.importorskip("duckdb")
EXTENSION = os.environ.get("MIRA_DUCKDB")
NODE = os.environ.get("MIRA_NODE")
pytestmark = pytest.mark.skipif(not EXTENSION, reason="MIRA_DUCKDB names no extension for DuckDB")


@pytest.fixture(scope="module")
def database():
    connection = duckdb.connect(config={"allow_unsigned_extensions": "true"})
    connection.execute(f"LOAD '{EXTENSION}'")
    return connection


def rows(database, query, *parameters):
    relation = database.execute(query, parameters)
    names = [column[0] for column in relation.description]
    return [dict(zip(names, row)) for row in relation.fetchall()]


def whole(read, path, more=""):
    """All rows, with the columns as doubles whose numbers their type does not hold."""
    types = {}
    while True:
        given = f", types := {types}" if types else ""
        try:
            return read(f"FROM read_dbf($1{given}{more})", str(path))
        except duckdb.Error as error:
            if "; types " not in str(error):
                raise
            name = str(error).split("; types ")[1].split("=")[0]
            assert name not in types, error
            types[name] = "double"


@pytest.mark.parametrize("more", ["", ", exact_decimals := true", ", range_records := 700"])
def test_generated(database, table, more):
    compare(whole(lambda *q: rows(database, *q), table, more), exported(table))


@pytest.mark.parametrize("path", corpus(), ids=lambda path: path.name)
def test_real_tables(database, path):
    try:
        read = whole(lambda *q: rows(database, *q), path)
    except duckdb.Error as error:
        assert database.execute("SELECT error FROM dbf_info([$1, $1])", [str(path)]).fetchone()[0] in str(error)
        pytest.skip("no table")
    compare(read, exported(path))
    compare(
        whole(lambda *q: rows(database, *q), path, ", deleted := 'include'"),
        exported(path, "--deleted", "include"),
    )


def test_ranges_and_threads(database, table):
    """However many threads take ranges of whatever length: the same sums and the same rows."""
    digest = (
        "SELECT count(*), sum(PRICE), sum(_record), max(NOTE), bit_xor(hash(NAME, BORN, SEEN, MONEY)) "
        "FROM read_dbf($1, columns := ['_record', 'NAME', 'PRICE', 'BORN', 'SEEN', 'MONEY', 'NOTE'], "
        "types := {'PRICE': 'decimal'}, range_records := $2)"
    )
    digests = set()
    for threads in 1, 4:
        database.execute(f"SET threads = {threads}")
        for records in 0, 9, 2047, 2048, 2049, 10**9:
            digests.add(tuple(database.execute(digest, [str(table), records]).fetchone()))
        ordered = f"SELECT _record FROM read_dbf('{table}', columns := '_record', range_records := 100)"
        assert [row[0] for row in database.execute(ordered).fetchall()] == list(range(1, 3001))
    assert len(digests) == 1
    for first, until, count in (0, 0, 0), (5, 5, 0), (0, 1, 1), (2999, 9999, 1), (10, 2058, 2048), (3000, 3001, 0):
        query = "SELECT count(*), min(_record) FROM read_dbf($1, columns := '_record', first := $2, until := $3)"
        assert database.execute(query, [str(table), first, until]).fetchone() == (count, first + 1 if count else None)


def test_many_tables(database, table, tmp_path):
    (tmp_path / "deep" / "[x]").mkdir(parents=True)
    for name in "a.dbf", "B.DBF", "deep/c.dbf", "deep/[x]/d.Dbf":
        shutil.copy(SAMPLES / "stock.dbf", tmp_path / name)
    names = "SELECT DISTINCT right(filename, length(filename) - $2) FROM read_dbf($1, filename := true) ORDER BY 1"
    for given, wanted in {
        "": ["B.DBF", "a.dbf"],
        "*.dbf": ["B.DBF", "a.dbf"],
        "?.dbf": ["B.DBF", "a.dbf"],
        "**/*.dbf": ["B.DBF", "a.dbf", "deep/[x]/d.Dbf", "deep/c.dbf"],
        "deep/[x]/d.Dbf": ["deep/[x]/d.Dbf"],
        "a": ["a.dbf"],
    }.items():
        found = database.execute(names, [str(tmp_path / given), len(str(tmp_path)) + 1]).fetchall()
        assert [row[0] for row in found] == wanted, given
    several = [str(tmp_path / "a.dbf"), str(SAMPLES / "stock.dbf")]
    counts = database.execute("SELECT kind, count(*) FROM read_dbf($1, filename := 'kind') GROUP BY 1", [several])
    assert sorted(counts.fetchall()) == sorted((name, 11) for name in several)
    shutil.copy(SAMPLES / "orders.dbf", tmp_path / "stranger.dbf")
    with pytest.raises(duckdb.Error, match=r"stranger.dbf: its columns are not those of .*B.DBF"):
        database.execute("FROM read_dbf($1)", [str(tmp_path)]).fetchall()
    (tmp_path / "none.dbf").write_bytes(b"\x03none")
    info = rows(database, "SELECT file, records, error, json->>'flavour' AS told FROM dbf_info($1)", str(tmp_path))
    assert [(line["records"], line["told"]) for line in info if line["error"] is None] == [
        (12, "dBase III"), (12, "dBase III"), (7, "dBase III"),
    ]
    assert [pathlib.Path(line["file"]).name for line in info if line["error"]] == ["none.dbf"]


@pytest.mark.parametrize(
    "given, told",
    [
        ("'none.dbf'", "no such table"),
        ("'none*.dbf'", "no such tables"),
        ("$1, columns := ['PRIZE']", "did you mean PRICE"),
        ("$1, types := {'ITEM': 'double'}", "types ITEM=double"),
        ("$1, code_page := 'CP0'", "CP0"),
        ("$1, filter := 'PRICE>'", "nothing stands right"),
        ("$1, deleted := 'all'", "deleted"),
        ("$1, first := -1", "first"),
        ("$1, first := 2, \"until\" := 1", "until"),
        ("NULL", "no tables"),
        ("['none.dbf', NULL]", "no such table"),
    ],
)
def test_errors(database, given, told):
    with pytest.raises(duckdb.Error, match=told):
        parameters = [str(SAMPLES / "stock.dbf")] if "$1" in given else []
        database.execute(f"FROM read_dbf({given})", parameters).fetchall()


def test_options_and_parquet(database, table, tmp_path):
    stock = str(SAMPLES / "stock.dbf")
    assert database.execute("SELECT count(*) FROM read_dbf($1, deleted := 'only')", [stock]).fetchone() == (1,)
    assert [column[:2] for column in database.execute(
        "DESCRIBE FROM read_dbf($1, columns := 'STOCK,PRICE', types := {'PRICE': 'decimal'}, deleted := 'include')",
        [stock],
    ).fetchall()] == [("STOCK", "BIGINT"), ("PRICE", "DECIMAL(8,2)"), ("_deleted", "BOOLEAN")]
    filtered = "SELECT CODE FROM read_dbf($1, filter := 'PRICE>5', first := 6, until := 8)"
    assert database.execute(filtered, [stock]).fetchall() == [("LCK002",), ("GLU500",)]
    parquet = tmp_path / "x.parquet"
    database.execute(f"COPY (FROM read_dbf('{table}')) TO '{parquet}'")
    difference = f"(FROM read_dbf('{table}') EXCEPT ALL FROM '{parquet}')"
    assert database.execute(f"SELECT count(*) FROM {difference}").fetchone() == (0,)
    assert database.execute(f"SELECT count(*) FROM '{parquet}'").fetchone() == (3000,)


def test_warnings(database, table, tmp_path):
    data = bytearray((SAMPLES / "stock.dbf").read_bytes())
    start, length = (int.from_bytes(data[at : at + 2], "little") for at in (8, 10))
    for record in 2, 7:
        data[start + (record + 1) * length - 8 : start + (record + 1) * length] = b"20249999"
    path = tmp_path / "odd.dbf"
    path.write_bytes(data)
    query = "SELECT count(COUNTED) FROM read_dbf($1, range_records := 3)"
    before = database.execute(query, [str(SAMPLES / "stock.dbf")]).fetchone()[0]
    assert database.execute(query, [str(path)]).fetchone()[0] < before
    told = rows(database, "FROM dbf_warnings() WHERE file = $1 AND kind = 'no_date'", str(path))
    assert [(line["count"], line["record"], line["field"]) for line in told] == [(2, 3, "COUNTED")]
    assert "2 values that are no date" in told[0]["sentence"]


def test_hostile_files(database, table, tmp_path):
    """Any byte of the header may be any other: rows or an error."""
    data = bytearray(table.read_bytes())
    path = tmp_path / "hostile.dbf"
    shutil.copy(table.with_suffix(".fpt"), path.with_suffix(".fpt"))
    for at in [*range(0, 44, 2), *range(44, 400, 11)]:
        for value in 0, 0xFF, data[at] ^ 0x40:
            path.write_bytes(data[:at] + bytes([value]) + data[at + 1 : 9000])
            try:
                database.execute("SELECT count(c) FROM (SELECT hash(COLUMNS(*)) c FROM read_dbf($1))", [str(path)]).fetchall()
            except duckdb.Error:
                pass


def test_interrupt(database, tmp_path):
    """A query over a table of 2 GB, most of it a hole, ends when it is told to."""
    path = tmp_path / "long.dbf"
    header = bytearray((SAMPLES / "orders.dbf").read_bytes())
    del header[int.from_bytes(header[8:10], "little") :]
    length = int.from_bytes(header[10:12], "little")
    count = 2 * 10**9 // length
    header[4:8] = count.to_bytes(4, "little")
    with open(path, "wb") as out:
        out.write(header)
        out.truncate(len(header) + count * length)
    timer = threading.Timer(0.2, database.interrupt)
    timer.start()
    start = time.monotonic()
    with pytest.raises(duckdb.InterruptException):
        database.execute("SELECT count(DISTINCT hash(COLUMNS(*))) FROM read_dbf($1, deleted := 'include')", [str(path)]).fetchall()
    assert time.monotonic() - start < 5
    timer.join()


def test_document(database):
    """What the document says is printed, in samples' folder."""
    text = (ROOT / "docs/duckdb.md").read_text(encoding="utf-8")
    blocks = re.findall(r"^```sql\n((?:[^`].*\n)+)```\n\n```text\n((?:[^`].*\n)+)```\n", text, re.M)
    assert blocks
    database.execute("SET threads = 1")
    here = os.getcwd()
    os.chdir(ROOT)
    try:
        for query, told in blocks:
            printed = "".join(
                "|".join("" if cell is None else str(cell) for cell in row) + "\n"
                for row in database.execute(query).fetchall()
            )
            assert printed == told
    finally:
        os.chdir(here)


@pytest.mark.skipif(not NODE, reason="MIRA_NODE names no folder with @duckdb/node-api")
def test_node(database, table, tmp_path):
    """The DuckDB of Node writes every table as that of Python does."""
    paths = [str(table), *map(str, corpus())]
    for name in "node", "python":
        (tmp_path / name).mkdir()
    program = pathlib.Path(__file__).with_name("read_dbf.mjs")
    done = subprocess.run(
        ["node", program, EXTENSION, tmp_path / "node", *paths], capture_output=True, text=True,
        env={**os.environ, "MIRA_NODE": NODE},
    )
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip() != duckdb.__version__
    for number, path in enumerate(paths):
        out = tmp_path / "python" / f"{number}.csv"
        try:
            database.execute(f"COPY (SELECT COLUMNS(*)::VARCHAR FROM read_dbf($1)) TO '{out}'", [path])
        except duckdb.Error:
            continue
        assert (tmp_path / "node" / out.name).read_bytes() == out.read_bytes(), path
    assert len(list((tmp_path / "node").iterdir())) > len(paths) / 2
