"""Spark's workers read what ``mira export`` gives. With MIRALIB_SPARK=all there are 10,000 tables."""

import datetime
import os
import shutil
import signal
import sys

import pytest
from conftest import SAMPLES, exported, mira

pytest.importorskip("pyspark", reason="PySpark is not installed")
if shutil.which("java") is None:
    pytest.skip("there is no java", allow_module_level=True)

import miralib
import miralib.spark
from pyspark.errors import PySparkException
from pyspark.sql import SparkSession
from pyspark.sql import functions as F
from test_consumers import compare

TABLES = 10_000 if os.environ.get("MIRALIB_SPARK") == "all" else 300


@pytest.fixture(scope="module")
def spark(tmp_path_factory):
    os.environ["PYSPARK_PYTHON"] = sys.executable
    session = (
        SparkSession.builder.master("local[2,4]")
        .config("spark.ui.enabled", "false")
        .config("spark.driver.bindAddress", "127.0.0.1")
        .config("spark.driver.host", "127.0.0.1")
        .config("spark.sql.shuffle.partitions", "2")
        .config("spark.sql.python.filterPushdown.enabled", "true")
        .config("spark.local.dir", str(tmp_path_factory.mktemp("spark")))
        .getOrCreate()
    )
    session.sparkContext.setLogLevel("OFF")
    miralib.spark.register(session)
    yield session
    session.stop()


def loaded(spark, path, **options):
    return spark.read.format("dbf").options(**options).load(str(path))


@pytest.mark.parametrize("name", ["generated", "customers", "orders", "stock"])
def test_rows_are_those_of_export(spark, table, name):
    path = table if name == "generated" else SAMPLES / f"{name}.dbf"
    compare(loaded(spark, path, exact_decimals="true", partition_bytes="40000").toArrow().to_pylist(), exported(path))


def test_columns_and_options(spark, table):
    given = dict(columns="note,_record", where="COUNT>100", deleted="include", source="file", code_page="CP1251")
    rows = loaded(spark, table, **given).toArrow()
    wanted = miralib.read(table, columns=["note", "_record"], where="COUNT>100", deleted="include", source="file")
    assert rows.to_pylist() == wanted.to_arrow().to_pylist()
    for options, words in [({"colums": "A"}, "did you mean columns"), ({"exact_decimals": "1"}, "true or false"),
                           ({"columns": "NAMES"}, "did you mean NAME"), ({"code_page": "CP1"}, "CP1")]:
        with pytest.raises(PySparkException, match=words):
            loaded(spark, table, **options).count()


def test_filters_let_through_what_spark_lets_through(spark, table):
    whole = loaded(spark, table).cache()
    assert whole.count() == 3000
    day = datetime.date(2000, 1, 1)
    for test in [F.col("COUNT") > 100, F.col("COUNT") == -5, F.col("COUNT") <= 0, F.col("PRICE") >= 12.25,
                 F.col("PRICE") < -0.01, F.col("NUMBER") < 5, F.col("BORN") > day, F.col("BORN") == day,
                 F.col("BORN") <= day, (F.col("COUNT") > 5) & (F.col("NAME") == "plain"), F.col("WIDE") > 5,
                 F.col("COUNT").isNull(), F.col("RATE") > 0.5, F.col("PRICE") > 1e300]:
        pushed = loaded(spark, table, batch_records="500").filter(test)
        assert pushed.collect() == whole.filter(test).collect(), test
    source = miralib.spark._PushingSource({"path": str(table), "where": "COUNT<50|COUNT>900"})
    reader = source.reader(source.schema())
    filters = [miralib.spark.datasource.GreaterThan(("COUNT",), 20)]
    assert reader.pushFilters(filters) == filters
    rows = sum(batch.num_rows for part in reader.partitions() for batch in reader.read(part))
    assert rows == len(exported(table, "-w", "(COUNT<50|COUNT>900)&COUNT>=20")) < 3000


def test_many_tables_and_strangers(spark, tmp_path):
    csv = tmp_path / "one.csv"
    csv.write_text("NAME,VALUE\nПлотник,1\nСтройДвор,2\n", encoding="utf-8")
    first = tmp_path / "000000.dbf"
    mira("import", "-q", csv, first, "--schema", "NAME C(12), VALUE N(9)", "--code-page", "CP866")
    for number in range(1, TABLES):
        shutil.copyfile(first, tmp_path / f"{number:06}.dbf")
    load = tmp_path / "*.dbf"
    frame = loaded(spark, load, source="file")
    found = frame.agg(F.count("*"), F.sum("VALUE"), F.count_distinct("file"), F.max("NAME")).first()
    assert tuple(found) == (2 * TABLES, 3 * TABLES, TABLES, "СтройДвор")

    strangers = {"000100": ("NAME C(12), VALUE N(9,2)", "CP866", "VALUE double instead of VALUE int64"),
                 "000111": ("NAME C(12)", "CP866", "nothing instead of VALUE"),
                 "000222": ("NAME C(12), VALUE N(9)", "CP1251", "its code page is CP1251")}
    for name, (schema, page, _) in strangers.items():
        mira("import", "-q", "--lenient", "--force", csv, tmp_path / f"{name}.dbf", "--schema", schema, "--code-page", page)
    (tmp_path / "000250.dbf").write_bytes(b"no table at all" * 100)
    with pytest.raises(PySparkException) as told:
        loaded(spark, tmp_path).count()
    for name, (_, _, words) in strangers.items():
        assert any(name in line and words in line for line in str(told.value).split("\n")), (name, told.value)
    assert "000250" in str(told.value)
    # One that becomes a stranger after the plan is named by whoever reads it.
    source = miralib.spark.DbfSource({"path": str(first)})
    reader = source.reader(source.schema())
    parts = reader.partitions()
    shutil.copyfile(tmp_path / "000111.dbf", first)
    with pytest.raises(miralib.TableError, match="nothing instead of VALUE"):
        list(reader.read(parts[0]))


def test_a_table_of_three_gigabytes(spark, tmp_path):
    csv = tmp_path / "wide.csv"
    names = [f"F{i}" for i in range(128)]
    csv.write_text(",".join(names) + "\n" + ",".join(names) + "\n")
    path = tmp_path / "wide.dbf"
    mira("import", "-q", csv, path, "--schema", ", ".join(f"{name} C(254)" for name in names))
    head = bytearray(path.read_bytes())
    start, length = int.from_bytes(head[8:10], "little"), int.from_bytes(head[10:12], "little")
    record, count = bytes(head[start : start + length]), (3 << 30) // length
    head[4:8] = count.to_bytes(4, "little")
    with open(path, "wb") as out:
        out.write(head[:start])
        for number in (0, count // 2, count - 1):
            out.seek(start + number * length)
            out.write(record)
    frame = loaded(spark, path, columns="F0,F127,_record")
    assert 48 <= frame.rdd.getNumPartitions() <= 50
    found = frame.agg(F.count("*"), F.sum(F.when(F.col("F127") == "F127", F.col("_record")))).first()
    assert tuple(found) == (count, 1 + count // 2 + 1 + count)


def test_a_worker_that_dies(spark, table, tmp_path):
    died = str(tmp_path / "died")

    class DyingReader(miralib.spark.DbfReader):
        def read(self, partition):
            for batch in super().read(partition):
                yield batch
                if not os.path.exists(died):
                    open(died, "w").close()
                    os.kill(os.getpid(), signal.SIGKILL)

    class DyingSource(miralib.spark.DbfSource):
        @classmethod
        def name(cls):
            return "dying"

        def reader(self, schema):
            return DyingReader(self.options, schema)

    spark.conf.set("spark.sql.python.filterPushdown.enabled", "false")
    spark.dataSource.register(DyingSource)
    frame = spark.read.format("dying").options(partition_bytes="40000", batch_records="100").load(str(table))
    assert frame.count() == 3000
    assert os.path.exists(died)
    spark.conf.set("spark.sql.python.filterPushdown.enabled", "true")
