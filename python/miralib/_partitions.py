"""Ranges of records that other processes read."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Dict, Iterable, List, Union

from . import _native
from ._table import Path, Table, read


@dataclass(frozen=True)
class Partition:
    """The records of a table from first on, end excluded. It can be pickled; the path has to mean
    the same file wherever it is read."""

    path: str
    first: int
    end: int
    options: Dict[str, Any] = field(default_factory=dict)

    def read(self) -> Table:
        """Opens the range."""
        return read(self.path, first=self.first, end=self.end, **self.options)


def partitions(
    path: Union[Path, Iterable[Path]], records: int = 1_000_000, **options: Any
) -> List[Partition]:
    """Cuts tables into ranges of at most so many records, deleted ones counted.

    path and options are those of read, but for first and end. The code page is chosen here, once
    for each table. A table without records is one range. Raises what read raises.
    """
    if records < 1:
        raise ValueError("records is a number of records, from 1")
    whole = read(path, **options)  # mistakes are told here
    parts = []
    for name in whole._paths:
        facts = _native.facts(name, options.get("code_page"))
        given = {**options, "code_page": facts["code_page"]}
        starts = range(0, facts["records"], records) or range(1)
        ends = (min(start + records, facts["records"]) for start in starts)
        parts += [Partition(name, start, end, given) for start, end in zip(starts, ends)]
    return parts
