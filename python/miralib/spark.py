"""Tables as a data source of Spark 4, read by many workers.

    import miralib.spark
    miralib.spark.register(spark)
    spark.read.format("dbf").option("where", "PRICE>5").load("/data/*.dbf")

The options are those of miralib.read, as texts; see docs/spark.md.
"""

from __future__ import annotations

import datetime
import difflib
import json
import math
import os
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple

from pyspark.sql import SparkSession, datasource, types

from . import _native
from ._table import Field, _fields_of, _found, _options_of, _Report, read

_PUSHDOWN = "spark.sql.python.filterPushdown.enabled"
_PART = 64 << 20  # bytes of records in a partition
_TASKS = 200  # partitions that small tables are spread over
_THREADS = 16  # that look at tables, each of which may lie far away
_NAMED = 20  # strangers that are told one by one
_HEAD = 4096  # bytes that hold most headers

_SPARK_TYPES = {
    "large_string": types.StringType(),
    "large_binary": types.BinaryType(),
    "int64": types.LongType(),
    "int32": types.IntegerType(),
    "double": types.DoubleType(),
    "date32": types.DateType(),
    "timestamp[us]": types.TimestampNTZType(),
    "bool": types.BooleanType(),
}


def register(spark: SparkSession) -> None:
    """Makes the format "dbf" known to a session. Where the session's configuration has
    spark.sql.python.filterPushdown.enabled (Spark 4.1 and newer), comparisons with numbers and
    dates are tested by the readers, too."""
    pushes = spark.conf.get(_PUSHDOWN, "false") == "true" and hasattr(datasource, "EqualTo")
    spark.dataSource.register(_PushingSource if pushes else DbfSource)


class Range(NamedTuple):
    """Records of a table from 0, end excluded; None for all that there are."""

    path: str
    first: int
    end: Optional[int]


class Part(datasource.InputPartition):
    """What one task reads: a range of a large table, or several small tables."""

    def __init__(self, ranges: List[Range]) -> None:
        super().__init__(None)
        self.ranges = ranges


# --------------------------------------------------------------------------------------------------
# Options
# --------------------------------------------------------------------------------------------------


def _flag(text: str) -> bool:
    if text.lower() not in ("true", "false"):
        raise ValueError(f"true or false, not {text!r}")
    return text.lower() == "true"


def _names(text: str) -> List[str]:
    return [name.strip() for name in text.split(",")]


def _types(text: str) -> Dict[str, str]:
    return dict(pair.strip().split("=", 1) for pair in text.split(","))  # type: ignore[misc]


_OPTIONS = {
    "columns": _names,
    "where": str,
    "code_page": str,
    "types": _types,
    "deleted": str,
    "exact_decimals": _flag,
    "long_names": _flag,
    "batch_records": int,
    "source": str,
}


def _read_options(given: Dict[str, str]) -> Tuple[Dict[str, Any], int]:
    """For read, and the bytes of a partition."""
    options = {}
    part = _PART
    for name, text in given.items():
        if name in ("path", "paths"):
            continue
        if name == "partition_bytes":
            part = max(int(text), 1)
            continue
        if name not in _OPTIONS:
            near = difflib.get_close_matches(name, [*_OPTIONS, "partition_bytes"], 1)
            raise ValueError(f"no option {name!r}" + (f"; did you mean {near[0]}?" if near else ""))
        try:
            options[name] = _OPTIONS[name](text)
        except ValueError as error:
            raise ValueError(f"option {name}: {error}") from None
    return options, part


def _tables_of(given: Dict[str, str]) -> List[str]:
    """What load was given: tables, patterns, and folders for the tables in them."""
    paths = json.loads(given["paths"]) if "paths" in given else []
    paths += [given["path"]] if "path" in given else []
    if not paths:
        raise ValueError('load("/data/*.dbf") names the tables')
    named = []
    for path in paths:
        if path.startswith("file:"):
            path = urllib.parse.unquote(urllib.parse.urlsplit(path).path)
        named.append(os.path.join(path, "*.dbf") if os.path.isdir(path) else path)
    return list(dict.fromkeys(_found(named)))


# --------------------------------------------------------------------------------------------------
# Structures
# --------------------------------------------------------------------------------------------------


def _spark_type(field: Field) -> types.DataType:
    if field.type.startswith("decimal128"):
        return types.DecimalType(*map(int, field.type[11:-1].split(",")))
    return _SPARK_TYPES[field.type]


def _difference(first: Sequence[Field], other: Sequence[Field]) -> Optional[str]:
    """Where two structures part: "PRICE int64 instead of PRICE double"."""

    def shown(fields: Sequence[Field], at: int) -> str:
        return f"{fields[at].name} {fields[at].type}" if at < len(fields) else "nothing"

    for at in range(max(len(first), len(other))):
        ours, theirs = shown(first, at), shown(other, at)
        if ours != theirs:
            return f"{theirs} instead of {ours}"
    return None


class Structure(NamedTuple):
    """What all tables of a load have to share; from the first."""

    path: str
    fields: Tuple[Field, ...]
    code_page: str


def _head_of(path: str) -> bytes:
    """Version, lengths, code page mark and descriptors, as they are stored. Tables of one program
    and one structure share them; where they differ, the structure may be the same all the same."""
    with open(path, "rb", buffering=0) as file:
        head = file.read(_HEAD)
        length = int.from_bytes(head[8:10], "little")
        if length > len(head):
            head += file.read(length - len(head))
    return head[:1] + head[8:12] + head[29:30] + head[32:length]


def _page_files(paths: Sequence[str]) -> Dict[str, set]:
    """The stems, in small letters, that have a .cpg file, of each folder."""
    found = {}
    for folder in {os.path.dirname(path) for path in paths}:
        names = (os.path.splitext(name.lower()) for name in os.listdir(folder or "."))
        found[folder] = {stem for stem, extension in names if extension == ".cpg"}
    return found


def _strange(path: str, options: Dict[str, Any], structure: Structure, own_page: bool) -> Optional[str]:
    """What is strange about a table, in a sentence; opens it."""
    try:
        difference = _difference(structure.fields, read(path, **options).schema)
        if difference is not None:
            return f"{path}: its columns are not those of {structure.path}: {difference}"
        if own_page:
            facts = _native.facts(path, None)
            sure = facts["code_page_from"] not in ("guess", "default")
            if sure and facts["code_page"] != structure.code_page:
                return (
                    f"{path}: its code page is {facts['code_page']}, that of {structure.path} "
                    f"{structure.code_page}; the option code_page reads all in one"
                )
    except (OSError, ValueError, LookupError) as error:
        return str(error.args[0] if isinstance(error, KeyError) else error)
    return None


# --------------------------------------------------------------------------------------------------
# The data source
# --------------------------------------------------------------------------------------------------


class DbfSource(datasource.DataSource):
    """Tables of one structure. The driver chooses the code page by the first one."""

    @classmethod
    def name(cls) -> str:
        return "dbf"

    def schema(self) -> types.StructType:
        options, _ = _read_options(self.options)
        return types.StructType(
            [
                types.StructField(field.name, _spark_type(field))
                for field in read(_tables_of(self.options)[0], **options).schema
            ]
        )

    def reader(self, schema: types.StructType) -> "DbfReader":
        return DbfReader(self.options, schema)


class DbfReader(datasource.DataSourceReader):
    def __init__(self, given: Dict[str, str], schema: types.StructType) -> None:
        self._own_page = "code_page" not in given
        self._options, self._part = _read_options(given)
        self._paths = _tables_of(given)
        first = self._paths[0]
        table = read(first, **self._options)
        self._options["code_page"] = table.code_page
        self._structure = Structure(first, table.schema, table.code_page)
        wanted = [(field.name, field.dataType) for field in schema.fields]
        if wanted != [(field.name, _spark_type(field)) for field in table.schema]:
            raise ValueError("the columns are those of the table; select and cast follow after load")

    # -- the driver --------------------------------------------------------------------------------

    def partitions(self) -> Sequence[datasource.InputPartition]:
        with ThreadPoolExecutor(_THREADS) as threads:
            self._refuse_strangers(threads)
            sizes = list(threads.map(os.path.getsize, self._paths))
        few = -(-len(self._paths) // _TASKS)  # tables of a partition
        parts: List[datasource.InputPartition] = []
        ranges: List[Range] = []
        held = 0
        for path, size in zip(self._paths, sizes):
            if ranges and (held + size > self._part or len(ranges) >= few):
                parts.append(Part(ranges))
                ranges, held = [], 0
            if size <= self._part:
                ranges.append(Range(path, 0, None))
                held += size
            else:
                parts += [Part([piece]) for piece in self._cut(path)]
        return [*parts, Part(ranges)] if ranges else parts

    def _cut(self, path: str) -> Iterator[Range]:
        facts = _native.facts(path, self._options["code_page"])
        step = max(self._part // max(facts["record_length"], 1), 1)
        last = max(facts["records"] - 1, 0) // step * step
        for first in range(0, last, step):
            yield Range(path, first, first + step)
        yield Range(path, last, None)

    def _refuse_strangers(self, threads: ThreadPoolExecutor) -> None:
        """Names all tables that are not like the first. The readers look again."""
        pages = _page_files(self._paths) if self._own_page else {}
        known = _head_of(self._paths[0])

        def strange(path: str) -> Optional[str]:
            folder, name = os.path.split(path)
            has_page = os.path.splitext(name)[0].lower() in pages.get(folder, ())
            try:
                if not has_page and not self._options.get("long_names") and _head_of(path) == known:
                    return None
            except OSError as error:
                return f"{path}: {error.strerror}"
            return _strange(path, self._options, self._structure, self._own_page)

        told = [sentence for sentence in threads.map(strange, self._paths[1:]) if sentence]
        if not told:
            return
        more = [f"and {len(told) - _NAMED} more"] if len(told) > _NAMED else []
        raise _native.TableError("\n".join(told[:_NAMED] + more))

    # -- the workers -------------------------------------------------------------------------------

    def read(self, partition: Part) -> Iterator[Any]:  # type: ignore[override]
        for path, first, end in partition.ranges:
            opened = _opened(path, first, end, self._options)
            difference = _difference(self._structure.fields, _fields_of(opened))
            if difference is not None:
                raise _native.TableError(
                    f"{path}: its columns are not those of {self._structure.path}: {difference}"
                )
            yield from _batches(opened)


_DEFAULTS: Dict[str, Any] = {
    **dict.fromkeys(_OPTIONS),
    "deleted": "skip",
    "exact_decimals": False,
    "long_names": False,
    "batch_records": 0,
}


def _opened(path: str, first: int, end: Optional[int], options: Dict[str, Any]) -> _native.OpenStream:
    """What read opens, but once only: in large folders that is most of the work on a small table."""
    given = _options_of(**{**_DEFAULTS, **options}, first=first, end=end)
    return _native.OpenStream([path], given, _Report().take)


class _Opened:
    """The rows of a stream, once."""

    def __init__(self, opened: _native.OpenStream) -> None:
        self._opened = opened

    def __arrow_c_stream__(self, requested_schema: Optional[object] = None) -> object:
        return _native.stream_capsule(self._opened)


def _batches(opened: _native.OpenStream) -> Iterator[Any]:
    """Record batches with the types that Spark takes: its texts have offsets of 32 bits."""
    import pyarrow

    reader = pyarrow.RecordBatchReader.from_stream(_Opened(opened))
    small = {pyarrow.large_string(): pyarrow.string(), pyarrow.large_binary(): pyarrow.binary()}
    schema = pyarrow.schema(
        [pyarrow.field(field.name, small.get(field.type, field.type)) for field in reader.schema]
    )
    for batch in reader:
        arrays = [column.cast(kind) for column, kind in zip(batch.columns, schema.types)]
        yield pyarrow.RecordBatch.from_arrays(arrays, schema=schema)


# --------------------------------------------------------------------------------------------------
# Filters
# --------------------------------------------------------------------------------------------------


class _PushingSource(DbfSource):
    def reader(self, schema: types.StructType) -> DbfReader:
        return _PushingReader(self.options, schema)


class _PushingReader(DbfReader):
    """Tests first what the filter language says in the same way. Spark tests all of it again, so a
    condition may let too much through, but never too little."""

    def pushFilters(self, filters: List[Any]) -> Any:
        fields = {field.name: field for field in self._structure.fields}
        tests = [test for test in (_test_of(one, fields) for one in filters) if test]
        if self._options.get("where"):
            tests.insert(0, f"({self._options['where']})")
        if tests:
            self._options["where"] = "&".join(tests)
        return filters


def _test_of(one: Any, fields: Dict[str, Field]) -> Optional[str]:
    signs = {
        datasource.EqualTo: ("=",),
        datasource.GreaterThan: (">=",),
        datasource.GreaterThanOrEqual: (">=",),
        datasource.LessThan: ("<=",),
        datasource.LessThanOrEqual: ("<=",),
    }
    sign = signs.get(type(one))
    field = fields.get(one.attribute[0]) if sign and len(one.attribute) == 1 else None
    if sign is None or field is None or field.letter is None:
        return None
    if not (field.name.isascii() and field.name.isidentifier()):
        return None
    literal = _literal_of(field, one.value)
    return None if literal is None else field.name + sign[0] + literal


def _literal_of(field: Field, value: Any) -> Optional[str]:
    if field.type == "date32" and field.letter == "D" and isinstance(value, datetime.date):
        return value.isoformat() if 1 < value.year <= 9999 else None
    if field.letter not in "NFI" or isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    # So many digits are the same number as stored digits and as a double.
    digits = repr(value)
    exact = field.type == "int32" or field.length <= 15
    plain = "e" not in digits and math.isfinite(value) and len(digits.strip("-0.")) <= 15
    return digits if exact and plain and field.type in ("int64", "int32", "double") else None
