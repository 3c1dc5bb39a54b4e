"""The records that a log file gives back, as plain Python values."""

from __future__ import annotations

import ctypes
from ctypes import c_int8, c_int32
from dataclasses import dataclass
from typing import NamedTuple

from ._calls import Value, bytes_of, number_of, read_value, text_of


@dataclass(frozen=True)
class Source:
    """A data source: its id in the file, its name and its kind (a number of the caller's)."""

    id: int
    name: str
    type: int

    @classmethod
    def _from_handle(cls, lib: ctypes.CDLL, handle: int) -> Source:
        return cls(id=number_of(lib.KV_LogDataSource_GetId, handle, c_int8),
                   name=text_of(lib.KV_LogDataSource_GetName, handle),
                   type=number_of(lib.KV_LogDataSource_GetType, handle, c_int32))


@dataclass(frozen=True)
class Property:
    """A key and value attached to the data source `source_id`; keys may repeat."""

    source_id: int
    name: str
    value: Value

    @classmethod
    def _from_handle(cls, lib: ctypes.CDLL, handle: int) -> Property:
        family = "KV_LogDataSourceProperty"
        return cls(source_id=number_of(lib.KV_LogDataSourceProperty_GetDataSourceId, handle,
                                       c_int8),
                   name=text_of(lib.KV_LogDataSourceProperty_GetPropertyName, handle),
                   value=read_value(lib, family, handle))


class Entry(NamedTuple):
    """A logged entry: its id, source, data type, time (ms since the Unix epoch) and bytes.

    A named tuple, so that a chunk of entries is made without a Python call per entry. It
    also carries the dataclass fields of the frozen dataclass it was, so `dataclasses.replace`,
    `fields` and `asdict` work on it as before.
    """

    id: int
    source_id: int
    type: int
    timestamp: int
    data: bytes


@dataclass(frozen=True)
class _EntryFields:
    id: int
    source_id: int
    type: int
    timestamp: int
    data: bytes


Entry.__dataclass_fields__ = _EntryFields.__dataclass_fields__  # type: ignore[attr-defined]
Entry.__dataclass_params__ = _EntryFields.__dataclass_params__  # type: ignore[attr-defined]


@dataclass(frozen=True)
class Bookmark:
    """A bookmark on the entry `entry_id`, which identifies it in its file."""

    entry_id: int
    title: str
    comment: str = ""
    payload: bytes = b""

    @classmethod
    def _from_handle(cls, lib: ctypes.CDLL, handle: int) -> Bookmark:
        return cls(entry_id=number_of(lib.KV_LogBookmark_GetEntryId, handle, c_int32),
                   title=text_of(lib.KV_LogBookmark_GetTitle, handle),
                   comment=text_of(lib.KV_LogBookmark_GetComment, handle),
                   payload=bytes_of(lib.KV_LogBookmark_GetPayload, handle))
