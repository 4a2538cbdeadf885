"""Tables of dBase, FoxPro and their kin (.dbf) as Arrow columns.

    import miralib
    t = miralib.read("stock.dbf", columns=["CODE", "PRICE"], where="PRICE>5")
    t.to_pandas()

Values are those of ``mira export``; see docs/python.md for types, options and errors.
"""

from ._native import TableError
from ._partitions import Partition, partitions
from ._sqlite import sqlite
from ._table import DataWarning, Field, Table, read

__all__ = [
    "DataWarning",
    "Field",
    "Partition",
    "Table",
    "TableError",
    "partitions",
    "read",
    "sqlite",
]
__version__ = "2.9.1"
