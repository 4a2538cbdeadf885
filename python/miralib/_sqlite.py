"""Tables in SQL, by the SQLite extension."""

from __future__ import annotations

import pathlib
from typing import Any


def sqlite(connection: Any) -> Any:
    """Loads the SQLite extension of tables into a connection of the module sqlite3; returns it.

    Afterwards ``CREATE VIRTUAL TABLE temp.stock USING mira('stock.dbf')`` and
    ``SELECT mira_attach('folder')`` work, writing too: see docs/sql.md. Raises
    sqlite3.NotSupportedError where this Python loads no extensions, sqlite3.OperationalError when
    the extension is not installed.
    """
    import sqlite3

    if not hasattr(connection, "enable_load_extension"):
        raise sqlite3.NotSupportedError("this Python's sqlite3 was built without extensions")
    beside = pathlib.Path(__file__).with_name("mira_sqlite.so")
    connection.enable_load_extension(True)
    try:
        connection.load_extension(str(beside) if beside.exists() else "mira_sqlite")
    finally:
        connection.enable_load_extension(False)
    return connection
