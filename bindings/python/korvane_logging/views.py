"""Read-only mapping views of a log file's metadata and resources."""

from __future__ import annotations

import sqlite3
import ctypes
from collections.abc import Callable, Iterator, Mapping
from contextlib import closing
from ctypes import byref, c_void_p
from pathlib import Path

from ._calls import Value, bytes_of, checked, decode, encode, owned, read_value
from .errors import LogError, NotFoundError


def _names(location: str, statement: str) -> list[str]:
    """Metadata keys or resource names, read from the file itself.

    The library hands out metadata values and resource bytes through handles that do not name
    them, so the names alone come from a read-only look at the file; every value is still read
    through the library.
    """
    try:
        with closing(sqlite3.connect(Path(location).as_uri() + "?mode=ro",
                                     uri=True)) as connection:
            connection.text_factory = bytes
            rows = connection.execute(statement).fetchall()
    except sqlite3.Error as error:
        raise LogError(str(error)) from error
    return list(dict.fromkeys(decode(name) for name, in rows))


class _View:
    """What both views share: the library, the file's handle (`live` gives it, or raises once
    the file is closed), its location, and names listed from it."""

    _statement = ""

    def __init__(self, lib: ctypes.CDLL, live: Callable[[], int], location: str) -> None:
        self._lib, self._live, self._location = lib, live, location

    def __iter__(self) -> Iterator[str]:
        self._live()
        return iter(_names(self._location, self._statement))

    def __len__(self) -> int:
        self._live()
        return len(_names(self._location, self._statement))

    def __repr__(self) -> str:
        return f"{type(self).__name__}({dict(self)!r})"


class Metadata(_View, Mapping[str, Value]):
    """The metadata of a log file: key to int, float or str. Add keys with `add_metadata`."""

    _statement = "SELECT key FROM metadata"

    def __getitem__(self, key: str) -> Value:
        lib, out = self._lib, c_void_p()
        checked(lib, "KV_LogFile_GetMetadata", self._live(), encode(key), byref(out),
                kind=NotFoundError)
        with owned(lib, out.value, "KV_LogMetadata") as metadata:
            return read_value(lib, "KV_LogMetadata", metadata)


class Resources(_View, Mapping[str, bytes]):
    """The named resources of a log file, the thumbnail ("thumbnail") among them."""

    _statement = "SELECT name FROM resources"

    def __getitem__(self, name: str) -> bytes:
        lib, out = self._lib, c_void_p()
        checked(lib, "KV_LogFile_GetResource", self._live(), encode(name), byref(out),
                kind=NotFoundError)
        with owned(lib, out.value, "KV_LogResource") as resource:
            return bytes_of(lib.KV_LogResource_GetData, resource)
