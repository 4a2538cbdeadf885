"""Tables, lazily read."""

from __future__ import annotations

import ctypes
import glob
import os
import re
import struct
import warnings
from typing import Any, Dict, Iterable, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

from . import _native

Path = Union[str, "os.PathLike[str]"]

_DELETED = {"skip": 0, "include": 1, "only": 2}
_ARROW_TYPES = {
    "U": "large_string",
    "Z": "large_binary",
    "l": "int64",
    "i": "int32",
    "g": "double",
    "tdD": "date32",
    "tsu:": "timestamp[us]",
    "b": "bool",
}


class DataWarning(UserWarning):
    """Values of a table that did not come out as they are stored; told once a read."""


class Field(NamedTuple):
    """A column: its name, its Arrow type ("int64", "decimal128(8, 2)"), and the field that it comes
    from by letter, length and decimals; these are None for "_record", "_deleted" and the source."""

    name: str
    type: str
    letter: Optional[str]
    length: Optional[int]
    decimals: Optional[int]


def _type_of(format: str) -> str:
    return _ARROW_TYPES.get(format) or "decimal128({}, {})".format(*format[2:].split(","))


def _metadata_of(address: Optional[int]) -> Dict[str, str]:
    """Texts after their lengths, in pairs after their number."""
    if not address:
        return {}

    def take() -> int:
        nonlocal address
        number = struct.unpack("=i", ctypes.string_at(address, 4))[0]
        address += 4
        return number

    def take_text() -> str:
        nonlocal address
        size = take()
        text = ctypes.string_at(address, size).decode("utf-8")
        address += size
        return text

    return {take_text(): take_text() for _ in range(take())}


def _field_of(schema: _native.Schema) -> Field:
    metadata = _metadata_of(schema.metadata)
    numbers = [metadata.get(key) for key in ("mira:length", "mira:decimals")]
    length, decimals = (None if number is None else int(number) for number in numbers)
    return Field(
        schema.name.decode("utf-8"),
        _type_of(schema.format.decode("ascii")),
        metadata.get("mira:type"),
        length,
        decimals,
    )


def _fields_of(opened: _native.OpenStream) -> Tuple[Field, ...]:
    schema = opened.schema()
    try:
        return tuple(_field_of(schema.children[i].contents) for i in range(schema.n_children))
    finally:
        schema.release(schema)


def _found(path: Union[Path, Iterable[Path]]) -> List[str]:
    """The tables that a path, a pattern or a list of them names."""
    if not isinstance(path, (str, os.PathLike)):
        return [name for one in path for name in _found(one)]
    name = os.fspath(path)
    if os.path.exists(name) or not glob.has_magic(name):
        return [name]
    # The extension in any letter case.
    stem, extension = os.path.splitext(name)
    letters = "".join(f"[{c.lower()}{c.upper()}]" if c.isalpha() else c for c in extension)
    pattern = name if re.search(r"[\[*?]", extension) else stem + letters
    names = sorted(glob.glob(pattern, recursive=True))
    if not names:
        raise FileNotFoundError(f"{name}: no such tables")
    return names


def _options_of(
    columns: Optional[Sequence[str]],
    where: Optional[str],
    code_page: Optional[str],
    types: Optional[Mapping[str, str]],
    deleted: str,
    exact_decimals: bool,
    long_names: bool,
    batch_records: int,
    first: int,
    end: Optional[int],
    source: Optional[str],
) -> Dict[str, Any]:
    if isinstance(columns, str):
        raise TypeError("columns is a list of names")
    if deleted not in _DELETED:
        raise ValueError(f'deleted is "skip", "include" or "only", not {deleted!r}')
    if first < 0 or (end is not None and end < first):
        raise ValueError("first and end count records from 0, end excluded")
    if not 0 <= batch_records < 2**32:
        raise ValueError("batch_records is a number of rows, 0 for the usual one")
    if end is not None and end == first:
        first, end = 2**63, None  # no record at all: behind the last one
    for name in [*(columns or ()), *(types or ())]:
        if "," in name:
            raise KeyError(f'"{name}": a field with a comma in its name goes by its number')
    return {
        "columns": None if columns is None else ",".join(columns),
        "where": where,
        "code_page": code_page,
        "types": None if types is None else ",".join(f"{k}={v}" for k, v in types.items()),
        "deleted": _DELETED[deleted],
        "exact_decimals": int(exact_decimals),
        "long_names": int(long_names),
        "batch_records": batch_records,
        "first": first,
        "end": 0 if end is None else end,
        "source": source,
    }


class _Report:
    """What the last whole read met. A stream that is being read may outlive its Table."""

    def __init__(self) -> None:
        self.notes: List[str] = []
        self.faults: List[Dict[str, Any]] = []
        self.quiet = False

    def take(self, report: Dict[str, Any]) -> None:
        self.notes, self.faults = report["notes"], report["faults"]
        if not self.quiet:
            self.warn(2)

    def warn(self, level: int) -> None:
        if self.faults:
            text = "; ".join(fault["sentence"] for fault in self.faults)
            warnings.warn(text, DataWarning, stacklevel=level)


class Table:
    """One table, or several of one structure, that are read when somebody asks for the rows.

    Anything that takes an Arrow stream takes this: ``pandas.DataFrame.from_arrow(t)``,
    ``polars.DataFrame(t)``, ``pyarrow.table(t)``, ``duckdb.sql("FROM t")``. Each reads anew, in
    batches. What was odd about the values is one DataWarning, and ``faults``.
    """

    def __init__(self, paths: List[str], options: Dict[str, Any]) -> None:
        self._paths = paths
        self._options = options
        self._facts: Optional[List[Dict[str, Any]]] = None
        self._report = _Report()
        self.schema  # so that mistakes are told at once

    def __repr__(self) -> str:
        more = f" and {len(self._paths) - 1} more" if len(self._paths) > 1 else ""
        return f"<miralib.Table {self._paths[0]}{more}>"

    def _open(self, listening: bool = True) -> _native.OpenStream:
        return _native.OpenStream(self._paths, self._options, self._report.take if listening else None)

    def _read_by(self, read: Any) -> Any:
        """What read makes of this table; the warning names the line that asked for it."""
        self._report.quiet = True
        try:
            result = read(self)
        finally:
            self._report.quiet = False
        self._report.warn(4)
        return result

    # -- the Arrow protocol ------------------------------------------------------------------------

    def __arrow_c_stream__(self, requested_schema: Optional[object] = None) -> object:
        """A capsule with a new stream over all rows. A requested schema is left to the consumer."""
        return _native.stream_capsule(self._open())

    def __arrow_c_schema__(self) -> object:
        """A capsule with the schema."""
        return _native.schema_capsule(self._open(False).schema())

    # -- facts -------------------------------------------------------------------------------------

    @property
    def schema(self) -> Tuple[Field, ...]:
        """The columns."""
        return _fields_of(self._open(False))

    @property
    def facts(self) -> List[Dict[str, Any]]:
        """What ``mira info --json`` tells, a dict for every table; deleted records and
        the entries of indexes are not counted."""
        if self._facts is None:
            code_page = self._options["code_page"]
            self._facts = [_native.facts(path, code_page) for path in self._paths]
        return self._facts

    @property
    def records(self) -> int:
        """Records in the range, deleted ones included, whatever the filter."""
        first, end = self._options["first"], self._options["end"]
        counts = (facts["records"] for facts in self.facts)
        return sum(max((min(end, n) if end else n) - first, 0) for n in counts)

    @property
    def code_page(self) -> str:
        """Of the first table: "CP866", "UTF-8"."""
        return self.facts[0]["code_page"]

    @property
    def notes(self) -> List[str]:
        """What is odd about the tables, a sentence each: repairs, missing memo files, doubts about
        the code page."""
        told = [
            f"{facts['file']}: {sentence}"
            for facts in self.facts
            for sentence in facts["repairs"] + facts["notes"]
        ]
        return told + [note for note in self._report.notes if note not in told]

    @property
    def faults(self) -> List[Dict[str, Any]]:
        """What the last whole read met: values that became null or another one, a dict for each
        kind with file, kind, count, record (from 1) and field of the first, and a sentence."""
        return self._report.faults

    # -- consumers ---------------------------------------------------------------------------------

    def to_arrow(self) -> Any:
        """A pyarrow.Table. ImportError without pyarrow."""
        import pyarrow

        return self._read_by(pyarrow.table)

    def to_pandas(self) -> Any:
        """A pandas.DataFrame. ImportError without pandas and pyarrow."""
        import pandas

        if hasattr(pandas.DataFrame, "from_arrow"):
            return self._read_by(pandas.DataFrame.from_arrow)
        import pyarrow

        return self._read_by(pyarrow.table).to_pandas()

    def to_polars(self) -> Any:
        """A polars.DataFrame. ImportError without polars."""
        import polars

        return self._read_by(polars.DataFrame)


def read(
    path: Union[Path, Iterable[Path]],
    *,
    columns: Optional[Sequence[str]] = None,
    where: Optional[str] = None,
    code_page: Optional[str] = None,
    types: Optional[Mapping[str, str]] = None,
    deleted: str = "skip",
    exact_decimals: bool = False,
    long_names: bool = False,
    batch_records: int = 0,
    first: int = 0,
    end: Optional[int] = None,
    source: Optional[str] = None,
) -> Table:
    """Opens a table; nothing of its rows is read yet.

    path: a table, a pattern such as "folder/*.dbf", or a list of them; several tables have to
        agree in their columns. A table's extension may lack.
    columns: names of fields in any letter case, in the order wanted, "_record" and "_deleted"
        among them; None for all fields.
    where: a filter in the language of ``mira --where``, such as "PRICE>5&NAME~an".
    code_page: such as "CP866"; None for what the table says.
    types: {"DOSIS": "double", "NOTE": "binary"}: double, int64, decimal, text or binary.
    deleted: "skip" leaves deleted records out, "include" gives them with a column "_deleted",
        "only" gives them alone.
    exact_decimals: numbers with decimals as decimal128 instead of float64.
    long_names: names from the database container of the table.
    batch_records: rows of a batch; 0 for 65536, fewer where they are long.
    first, end: a range of records in each table, counted from 0, end excluded.
    source: the name of a last column with the path of each record's table.

    Raises FileNotFoundError, TableError (no table, damaged, a change was interrupted), KeyError for
    a column, with the nearest name, LookupError for a code page, ValueError for an option. A number
    that its column cannot hold ends a read with an error.
    """
    options = _options_of(
        columns, where, code_page, types, deleted, exact_decimals, long_names, batch_records,
        first, end, source,
    )
    return Table(_found(path), options)
