"""The C interface of libmira_arrow, by ctypes: streams, facts, capsules.

Nothing here is for users of the package.
"""

from __future__ import annotations

import ctypes
import json
import os
import pathlib
import threading
from typing import Any, Callable, Dict, Optional, Sequence

_MESSAGE = 4096  # bytes of an error text


class Schema(ctypes.Structure):
    """ArrowSchema."""


class Array(ctypes.Structure):
    """ArrowArray."""


class Stream(ctypes.Structure):
    """ArrowArrayStream."""


# With the interpreter's lock held, as they take no time.
_release_schema = ctypes.PYFUNCTYPE(None, ctypes.POINTER(Schema))
_release_array = ctypes.PYFUNCTYPE(None, ctypes.POINTER(Array))
_release_stream = ctypes.PYFUNCTYPE(None, ctypes.POINTER(Stream))
_get_schema = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(Stream), ctypes.POINTER(Schema))
_get_next = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(Stream), ctypes.POINTER(Array))
_get_last_error = ctypes.CFUNCTYPE(ctypes.c_char_p, ctypes.POINTER(Stream))
_done = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)

Schema._fields_ = [
    ("format", ctypes.c_char_p),
    ("name", ctypes.c_char_p),
    ("metadata", ctypes.c_void_p),
    ("flags", ctypes.c_int64),
    ("n_children", ctypes.c_int64),
    ("children", ctypes.POINTER(ctypes.POINTER(Schema))),
    ("dictionary", ctypes.POINTER(Schema)),
    ("release", _release_schema),
    ("private_data", ctypes.c_void_p),
]
Array._fields_ = [
    ("length", ctypes.c_int64),
    ("null_count", ctypes.c_int64),
    ("offset", ctypes.c_int64),
    ("n_buffers", ctypes.c_int64),
    ("n_children", ctypes.c_int64),
    ("buffers", ctypes.POINTER(ctypes.c_void_p)),
    ("children", ctypes.POINTER(ctypes.POINTER(Array))),
    ("dictionary", ctypes.POINTER(Array)),
    ("release", _release_array),
    ("private_data", ctypes.c_void_p),
]
Stream._fields_ = [
    ("get_schema", _get_schema),
    ("get_next", _get_next),
    ("get_last_error", _get_last_error),
    ("release", _release_stream),
    ("private_data", ctypes.c_void_p),
]


class Options(ctypes.Structure):
    """MiraArrowOptions."""

    _fields_ = [
        ("size", ctypes.c_size_t),
        ("columns", ctypes.c_char_p),
        ("where", ctypes.c_char_p),
        ("code_page", ctypes.c_char_p),
        ("types", ctypes.c_char_p),
        ("first", ctypes.c_uint64),
        ("end", ctypes.c_uint64),
        ("batch_records", ctypes.c_uint32),
        ("deleted", ctypes.c_uint8),
        ("exact_decimals", ctypes.c_uint8),
        ("long_names", ctypes.c_uint8),
        ("source", ctypes.c_char_p),
        ("done", _done),
        ("context", ctypes.c_void_p),
    ]


class TableError(ValueError):
    """A table that cannot be read: it is none, it is damaged, a change of it was interrupted, or a
    number does not fit its column."""


_NO_FILE, _NO_TABLE, _NO_FIELD, _NO_PAGE, _BAD_OPTION, _NO_MEMORY = range(1, 7)
_ERRORS: Dict[int, Callable[[str], Exception]] = {
    _NO_FILE: FileNotFoundError,
    _NO_TABLE: TableError,
    _NO_FIELD: KeyError,
    _NO_PAGE: LookupError,
    _BAD_OPTION: ValueError,
    _NO_MEMORY: MemoryError,
}


def _load() -> ctypes.CDLL:
    """Beside this module in a wheel; else where the system keeps libraries. MIRALIB_LIBRARY names
    another one."""
    name = "libmira_arrow.so.1"
    beside = pathlib.Path(__file__).with_name(name)
    wanted = os.environ.get("MIRALIB_LIBRARY") or (str(beside) if beside.exists() else name)
    library = ctypes.CDLL(wanted)
    library.mira_arrow_open_many.argtypes = [
        ctypes.POINTER(ctypes.c_char_p),
        ctypes.c_size_t,
        ctypes.POINTER(Options),
        ctypes.POINTER(Stream),
        ctypes.c_char_p,
        ctypes.c_size_t,
    ]
    library.mira_arrow_facts.argtypes = [
        ctypes.c_char_p,
        ctypes.c_char_p,
        ctypes.POINTER(ctypes.c_void_p),
    ]
    library.mira_arrow_free.argtypes = [ctypes.c_void_p]
    library.mira_arrow_free.restype = None
    library.mira_arrow_new.argtypes = [ctypes.c_size_t]
    library.mira_arrow_new.restype = ctypes.c_void_p
    library.mira_arrow_capsules.argtypes = [ctypes.c_void_p]
    library.mira_arrow_capsules.restype = None
    return library


_library = _load()

# --------------------------------------------------------------------------------------------------
# Reports: a stream tells what it met when it has come to its end, on the thread that reads it.
# --------------------------------------------------------------------------------------------------

_lock = threading.Lock()
_listeners: Dict[int, Callable[[Dict[str, Any]], None]] = {}
_next_listener = 1


@_done
def _tell(context: int, report: bytes) -> None:
    with _lock:
        listener = _listeners.pop(context, None)
    if listener is not None:
        listener(json.loads(report.decode("utf-8", "replace")))


def _listen(listener: Callable[[Dict[str, Any]], None]) -> int:
    global _next_listener
    with _lock:
        number = _next_listener
        _next_listener += 1
        _listeners[number] = listener
    return number


# --------------------------------------------------------------------------------------------------
# Streams
# --------------------------------------------------------------------------------------------------


def _text(text: Optional[str]) -> Optional[bytes]:
    return None if text is None else text.encode("utf-8")


class OpenStream:
    """A stream of tables; released with this object, unless it was moved away before."""

    def __init__(
        self,
        paths: Sequence[str],
        options: Dict[str, Any],
        listener: Optional[Callable[[Dict[str, Any]], None]] = None,
    ) -> None:
        self.stream: Optional[Stream] = Stream()
        self._listener = 0
        given = Options(size=ctypes.sizeof(Options))
        for name, value in options.items():
            setattr(given, name, _text(value) if isinstance(value, (str, type(None))) else value)
        if listener is not None:
            self._listener = _listen(listener)
            given.done = _tell
            given.context = self._listener
        names = (ctypes.c_char_p * len(paths))(*[os.fsencode(path) for path in paths])
        message = ctypes.create_string_buffer(_MESSAGE)
        result = _library.mira_arrow_open_many(
            names, len(paths), given, self.stream, message, len(message)
        )
        if result != 0:
            self._forget()
            raise _ERRORS[result](message.value.decode("utf-8", "replace"))

    def _forget(self) -> None:
        with _lock:
            _listeners.pop(self._listener, None)

    def schema(self) -> Schema:
        """To be released by whoever takes it."""
        schema = Schema()
        if self.stream.get_schema(self.stream, schema) != 0:
            raise MemoryError
        return schema

    def next(self) -> Optional[Array]:
        """The next array, to be released by whoever takes it; None at the end."""
        array = Array()
        if self.stream.get_next(self.stream, array) != 0:
            raise TableError((self.stream.get_last_error(self.stream) or b"").decode("utf-8", "replace"))
        return array if array.release else None

    def __del__(self) -> None:
        if self.stream is not None and self.stream.release:
            self.stream.release(self.stream)
            self._forget()


def facts(path: str, code_page: Optional[str]) -> Dict[str, Any]:
    """What is known of a table without reading its records."""
    json_text = ctypes.c_void_p()
    result = _library.mira_arrow_facts(os.fsencode(path), _text(code_page), json_text)
    if json_text.value is None:
        raise MemoryError
    text = ctypes.string_at(json_text.value).decode("utf-8", "replace")
    _library.mira_arrow_free(json_text)
    if result != 0:
        raise _ERRORS[result](text)
    return json.loads(text)


# --------------------------------------------------------------------------------------------------
# Capsules
# --------------------------------------------------------------------------------------------------

_new_capsule = ctypes.PYFUNCTYPE(
    ctypes.py_object, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p
)(("PyCapsule_New", ctypes.pythonapi))
_STREAM_NAME = b"arrow_array_stream"
_SCHEMA_NAME = b"arrow_schema"
_library.mira_arrow_capsules(
    ctypes.cast(ctypes.pythonapi.PyCapsule_GetPointer, ctypes.c_void_p)
)

# Capsules and streams may outlive this module when the interpreter ends.
for _kept in (_STREAM_NAME, _SCHEMA_NAME, _tell):
    ctypes.pythonapi.Py_IncRef(ctypes.py_object(_kept))


def _address(function: Any) -> Optional[int]:
    return ctypes.cast(function, ctypes.c_void_p).value


def _moved(structure: Any) -> int:
    """The address of a copy that its capsule frees."""
    size = ctypes.sizeof(structure)
    address = _library.mira_arrow_new(size)
    if address is None:
        raise MemoryError
    ctypes.memmove(address, ctypes.addressof(structure), size)
    return address


def stream_capsule(opened: OpenStream) -> object:
    """Takes the stream away from opened."""
    address = _moved(opened.stream)
    opened.stream = None
    return _new_capsule(address, _STREAM_NAME, _address(_library.mira_arrow_destroy_stream))


def schema_capsule(schema: Schema) -> object:
    """Takes the schema away from its owner."""
    address = _moved(schema)
    return _new_capsule(address, _SCHEMA_NAME, _address(_library.mira_arrow_destroy_schema))
