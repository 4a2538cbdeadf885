"""Today's consumers of Arrow streams give what ``mira export -F jsonl`` gives."""

import base64
import datetime
import decimal
import json
import os
import re
import tempfile
import warnings

import duckdb
import nanoarrow
import pandas
import polars
import pyarrow
import pyogrio.raw
import pytest
from conftest import corpus, exported

import miralib

warnings.simplefilter("ignore", miralib.DataWarning)


class Rounded(datetime.datetime):
    """A moment to the nearest millisecond or so."""


def shown(value, cell):
    """A Python value as the exported cell shows it, or what is equal to that."""
    if value is None or value is pandas.NaT or value is pandas.NA:
        return None
    if isinstance(value, float):
        if value != value:
            return None
        return cell if cell is not None and float(cell) == value else repr(value)
    if isinstance(value, bool):
        return value
    if isinstance(value, (int, decimal.Decimal)):
        return cell if cell is not None and decimal.Decimal(cell) == value else str(value)
    if isinstance(value, bytes):
        return {"base64": base64.b64encode(value).decode()}
    if isinstance(value, Rounded) and cell is not None:
        difference = abs(value - datetime.datetime.fromisoformat(cell))
        return cell if difference <= datetime.timedelta(milliseconds=1) else str(value)
    if isinstance(value, datetime.datetime):
        text = value.isoformat(sep="T", timespec="milliseconds")
        return text[:-4] if text.endswith(".000") else text
    if isinstance(value, datetime.date):
        return value.isoformat()
    # A binary memo in a column of texts.
    if isinstance(cell, dict) and value.startswith("base64:"):
        return {"base64": value[7:]}
    return value


def compare(rows, wanted):
    assert len(rows) == len(wanted)
    for number, (row, cells) in enumerate(zip(rows, wanted), 1):
        for name, cell in cells.items():
            assert row[name] is ... or shown(row[name], cell) == cell, (number, name, row[name])


def by_pyarrow(t):
    made = pyarrow.table(t)
    made.validate(full=True)
    return made.to_pylist()


def by_pandas(t):
    return t.to_pandas().astype(object).to_dict("records")


def by_polars(t):
    return t.to_polars().to_dicts()


def by_duckdb(t):
    relation = duckdb.sql("FROM t")
    return [dict(zip(relation.columns, row)) for row in relation.fetchall()]


def by_nanoarrow(t):
    # It takes negative decimals for huge ones, which are not compared.
    huge = decimal.Decimal(10) ** 30
    return [
        {k: ... if isinstance(v, decimal.Decimal) and v > huge else v for k, v in row.items()}
        for row in nanoarrow.Array(t).to_pylist()
    ]


def by_gdal(t):
    """GDAL takes the stream and writes what it has understood as lines of JSON. Its decimals have at
    most 19 digits; wider ones are given as texts."""
    wide = [f.name for f in t.schema if re.match(r"decimal128\((2\d|3\d),", f.type)]
    types = ",".join([t._options["types"] or "", *(f"{name}=text" for name in wide)]).lstrip(",")
    t = miralib.Table(t._paths, {**t._options, "types": types or None})
    kinds = {
        "date32": lambda text: datetime.datetime.strptime(text, "%Y/%m/%d").date(),
        "timestamp[us]": lambda text: Rounded.fromisoformat(text.replace("/", "-")),
        "large_binary": bytes.fromhex,
    }
    with tempfile.TemporaryDirectory() as folder, warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # no place on Earth
        path = os.path.join(folder, "rows.geojsonl")
        pyogrio.raw.write_arrow(t, path, driver="GeoJSONSeq", geometry_name=None, geometry_type="Unknown")
        with open(path, encoding="utf-8") as lines:
            rows = [json.loads(line)["properties"] for line in lines]
    for field in t.schema:
        for row in rows if field.type in kinds else []:
            if row[field.name] is not None:
                row[field.name] = kinds[field.type](row[field.name])
    return rows


CONSUMERS = [by_pyarrow, by_pandas, by_polars, by_duckdb, by_nanoarrow, by_gdal]


def read(path, **options):
    """A table with the columns as doubles whose numbers their type does not hold."""
    types = {}
    while True:
        t = miralib.read(path, types=types, **options)
        try:
            pyarrow.table(t)
            return t
        except (OSError, ValueError) as error:
            name = str(error).split("; types ")[1].split("=")[0]
            assert name not in types, error
            types[name] = "double"


@pytest.mark.parametrize("by", CONSUMERS)
def test_generated(by, table):
    compare(by(miralib.read(table)), exported(table))
    compare(by(miralib.read(table, exact_decimals=True)), exported(table))


@pytest.mark.parametrize("path", corpus(), ids=lambda path: path.name)
def test_real_tables(path):
    try:
        t = read(path)
    except miralib.TableError:
        pytest.skip("no table")
    wanted = exported(path)
    for by in CONSUMERS:
        compare(by(t), wanted)
    compare(by_pyarrow(read(path, deleted="include")), exported(path, "--deleted", "include"))


def test_ranges_make_the_whole(table):
    whole = pyarrow.table(miralib.read(table, columns=["_record", "NAME"]))
    parts = miralib.partitions(table, records=700, columns=["_record", "NAME"])
    assert pyarrow.concat_tables([pyarrow.table(part.read()) for part in parts]).equals(whole)


def test_batches_and_lazy_reading(table):
    t = miralib.read(table, batch_records=1000)
    reader = pyarrow.RecordBatchReader.from_stream(t)
    assert [batch.num_rows for batch in reader] == [1000, 1000, 1000]
    reader = pyarrow.RecordBatchReader.from_stream(t)
    del t
    assert reader.read_next_batch().num_rows == 1000
    assert pyarrow.schema(miralib.read(table)).field("PRICE").metadata == {
        b"mira:type": b"N", b"mira:length": b"10", b"mira:decimals": b"2",
    }


def test_sqlite(table):
    import sqlite3

    connection = sqlite3.connect(":memory:")
    if not hasattr(connection, "enable_load_extension"):
        with pytest.raises(sqlite3.NotSupportedError):
            miralib.sqlite(connection)
        return
    miralib.sqlite(connection)
    connection.execute(f"CREATE VIRTUAL TABLE temp.t USING mira('{table}')")
    assert connection.execute("SELECT count(*) FROM t").fetchone() == (3000,)
