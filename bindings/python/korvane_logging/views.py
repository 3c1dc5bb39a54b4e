"""Read-only mapping views of a log file's metadata and resources."""

from __future__ import annotations

import sqlite3
from collections.abc import Iterator, Mapping
from contextlib import closing
from ctypes import byref, c_void_p
from pathlib import Path
from typing import TYPE_CHECKING

from ._calls import Value, bytes_of, checked, decode, encode, owned, read_value
from .errors import LogError, NotFoundError

if TYPE_CHECKING:
    from .logfile import LogFile


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
    """What both views share: the log file, and names listed from it."""

    _statement = ""

    def __init__(self, log: LogFile) -> None:
        self._log = log

    def __iter__(self) -> Iterator[str]:
        self._log._live()
        return iter(_names(self._log._location, self._statement))

    def __len__(self) -> int:
        self._log._live()
        return len(_names(self._log._location, self._statement))

    def __repr__(self) -> str:
        return f"{type(self).__name__}({dict(self)!r})"


class Metadata(_View, Mapping[str, Value]):
    """The metadata of a log file: key to int, float or str. Add keys with `add_metadata`."""

    _statement = "SELECT key FROM metadata"

    def __getitem__(self, key: str) -> Value:
        lib, out = self._log._lib, c_void_p()
        checked(lib, "KV_LogFile_GetMetadata", self._log._live(), encode(key), byref(out),
                kind=NotFoundError)
        with owned(lib, out.value, "KV_LogMetadata") as metadata:
            return read_value(lib, "KV_LogMetadata", metadata)


class Resources(_View, Mapping[str, bytes]):
    """The named resources of a log file, the thumbnail ("thumbnail") among them."""

    _statement = "SELECT name FROM resources"

    def __getitem__(self, name: str) -> bytes:
        lib, out = self._log._lib, c_void_p()
        checked(lib, "KV_LogFile_GetResource", self._log._live(), encode(name), byref(out),
                kind=NotFoundError)
        with owned(lib, out.value, "KV_LogResource") as resource:
            return bytes_of(lib.KV_LogResource_GetData, resource)
