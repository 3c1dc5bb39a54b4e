"""Entries as columns: the library writes many entries per call into memory that Python owns,
and takes a batch of entries as columns in one call. Standard library only."""

from __future__ import annotations

import ctypes
import operator
from array import array
from collections.abc import Iterable, Iterator, Sequence
from ctypes import byref, c_int32, c_uint64, c_void_p
from itertools import accumulate, chain, islice, repeat
from typing import Any

from ._calls import take_error
from ._library import EntryColumns
from .records import Entry, Source

CHUNK_ROWS = 1000
"""Entries that one library call of a chunked read delivers at most."""

CHUNK_BYTES = 8 << 20
"""Payload bytes that one library call of a chunked read delivers at most, unless one entry is
bigger: then that entry alone."""

FIRST_BYTES = 64 << 10
"""The payload room a chunked read starts with; it grows when entries are big."""

FILTER_SPAN = 16
"""A filtered call looks at no more than this many times its capacity of ids, so that a
selection that matches few entries still reads in short calls."""

_new_entry = tuple.__new__


def address(buffer: Any) -> int | None:
    """The address of the memory of `buffer`, a contiguous buffer that is writable or is
    `bytes`; None when it is empty. The caller keeps `buffer` alive while the address is used."""
    if isinstance(buffer, bytes):
        return ctypes.cast(ctypes.c_char_p(buffer), c_void_p).value if buffer else None
    view = memoryview(buffer)
    if view.nbytes == 0:
        return None
    if not view.c_contiguous or view.readonly:
        raise ValueError("a column must be contiguous, and writable unless it is bytes")
    return ctypes.addressof(ctypes.c_char.from_buffer(view))


def readable(buffer: Any) -> Any:
    """`buffer` itself when `address` takes it, else a copy of its bytes that it takes."""
    view = memoryview(buffer)
    if isinstance(buffer, bytes) or (view.c_contiguous and not view.readonly):
        return buffer
    return view.tobytes()


class Columns:
    """Arrays for up to `capacity` entries and a payload buffer, filled by one call after the
    other. Without `payloads`, only ids, timestamps, sources and types are read."""

    def __init__(self, capacity: int, payload_bytes: int = FIRST_BYTES,
                 payloads: bool = True) -> None:
        self.ids = array("i", bytes(4 * capacity))
        self.timestamps = array("q", bytes(8 * capacity))
        self.source_ids = array("b", bytes(capacity))
        self.types = array("i", bytes(4 * capacity))
        self.offsets = array("Q", bytes(8 * (capacity + 1))) if payloads else None
        self.payloads = bytearray(payload_bytes) if payloads else None
        self.struct = EntryColumns(capacity, self.ids.buffer_info()[0],
                                   self.timestamps.buffer_info()[0],
                                   self.source_ids.buffer_info()[0], self.types.buffer_info()[0])
        if payloads:
            self.struct.offsets = self.offsets.buffer_info()[0]
            self._lend_payloads()

    def _lend_payloads(self) -> None:
        self.struct.payloads = address(self.payloads)
        self.struct.payload_capacity = len(self.payloads)

    def make_room(self, at_least: int) -> None:
        """A bigger payload buffer: twice the size up to CHUNK_BYTES, or `at_least`."""
        size = max(min(2 * len(self.payloads), CHUNK_BYTES), at_least)
        if size > len(self.payloads):
            self.payloads = bytearray(size)
            self._lend_payloads()

    @property
    def count(self) -> int:
        return self.struct.count

    def entries(self) -> list[Entry]:
        """The entries of the last call, made without a Python call per entry."""
        count = self.struct.count
        if self.payloads is None:
            raise ValueError("these columns hold no payloads")
        ends = islice(self.offsets, 1, count + 1)
        slices = map(slice, self.offsets, ends)
        if self.struct.payload_size <= 1024 * count:
            # Small payloads: one copy of the chunk, and a slice of it per entry.
            data = map(bytes(memoryview(self.payloads)[:self.struct.payload_size]).__getitem__,
                       slices)
        else:
            # Big ones: each copied once, straight from the buffer.
            data = map(bytes, map(memoryview(self.payloads).__getitem__, slices))
        rows = zip(islice(self.ids, count), islice(self.source_ids, count),
                   islice(self.types, count), islice(self.timestamps, count), data)
        return list(map(_new_entry, repeat(Entry), rows))


def read_chunks(lib: ctypes.CDLL, handle: int, chosen: int, first: int, last: int,
                columns: Columns, filtered: bool) -> Iterator[Columns]:
    """Fills `columns` with the selected entries from `first` to `last` (real ids), call after
    call, and yields it after each call that delivered entries; its contents are replaced by
    the next call. A filtered call covers at most FILTER_SPAN times the capacity of ids. When
    a call fails, the entries it delivered are yielded first, then LogError is raised."""
    span = FILTER_SPAN * max(columns.struct.capacity, 1) if filtered else None
    start = first
    while start <= last:
        end = last if span is None else min(last, start + span - 1)
        error = c_void_p()
        read = lib.KVX_ReadColumns(handle, start, end, chosen, byref(columns.struct),
                                   byref(error))
        struct = columns.struct
        following, needed = struct.next_entry_id, struct.next_payload_size
        # Stopped by the payload room rather than by the number of entries.
        short_of_room = following != -1 and struct.count < struct.capacity
        if struct.count:
            yield columns
        if not read:
            raise take_error(lib, error)
        if following == -1:
            start = end + 1
            continue
        if short_of_room and columns.payloads is not None:
            columns.make_room(needed)
        start = following


def measure(lib: ctypes.CDLL, handle: int, chosen: int, first: int, last: int,
            payloads: bool) -> tuple[int, int]:
    """The number of selected entries and, when `payloads`, their payload bytes."""
    count, size, error = c_int32(), c_uint64(), c_void_p()
    if not lib.KVX_MeasureEntries(handle, first, last, chosen, byref(count),
                                  byref(size) if payloads else None, byref(error)):
        raise take_error(lib, error)
    return count.value, size.value


def _column(values: Any, typecode: str, what: str) -> Any:
    """`values` as a buffer of `typecode` elements: itself when it is one already (an array
    or a NumPy array of that width), else a new array; OverflowError for a value that does
    not fit."""
    try:
        view = memoryview(values)
    except TypeError:
        pass
    else:
        if view.ndim == 1 and view.c_contiguous and view.itemsize == array(typecode).itemsize \
                and view.format.lstrip("@=<") in _FORMATS[typecode]:
            return readable(values)
    try:
        return array(typecode, values)
    except OverflowError:
        raise OverflowError(f"a {what} does not fit in its column") from None


_FORMATS = {"b": {"b"}, "i": {"i"}, "q": {"q", "l"}, "Q": {"Q", "L"}}


def _source_ids(sources: Iterable[Any]) -> Any:
    try:
        return _column(sources, "b", "source id")
    except TypeError:  # Source records among them
        return _column([source.id if isinstance(source, Source) else operator.index(source)
                        for source in sources], "b", "source id")


class Batch:
    """A batch of entries as the columns of KVX_LogColumns, kept alive for the call."""

    def __init__(self, sources: Any, types: Any, timestamps: Any, payloads: Any,
                 offsets: Any | None = None) -> None:
        self.sources = _source_ids(sources)
        self.types = _column(types, "i", "data type")
        self.timestamps = _column(timestamps, "q", "timestamp")
        if offsets is None:
            payloads = list(payloads)
            self.payloads = b"".join(payloads)
            self.offsets = array("Q", chain((0,), accumulate(map(len, payloads))))
        else:
            self.payloads = readable(payloads)
            self.offsets = _column(offsets, "Q", "payload offset")
        count = len(self.types)
        if not len(self.sources) == len(self.timestamps) == count == len(self.offsets) - 1:
            raise ValueError("the columns of a batch must hold one value per entry, and the "
                             "offsets one more")
        if count and self.offsets[-1] > memoryview(self.payloads).nbytes:
            raise ValueError("the payload offsets run past the end of the payloads")
        self.count = count

    def log(self, lib: ctypes.CDLL, handle: int) -> None:
        error = c_void_p()
        if not lib.KVX_LogColumns(handle, self.count, address(self.sources),
                                  address(self.types), address(self.timestamps),
                                  address(self.offsets), address(self.payloads), byref(error)):
            raise take_error(lib, error)


def transpose(entries: Iterable[Sequence[Any]], now: int) -> tuple[list, list, list, list]:
    """Columns of source, type, payload and timestamp from (source, type, data[, timestamp])
    tuples; an entry without a timestamp, or with None, gets `now`."""
    sources, types, payloads, timestamps = [], [], [], []
    for entry in entries:
        if not 3 <= len(entry) <= 4:
            raise ValueError("an entry is (source, type, data) or (source, type, data, "
                             f"timestamp), not {len(entry)} values")
        sources.append(entry[0])
        types.append(entry[1])
        payloads.append(entry[2])
        timestamps.append(now if len(entry) == 3 or entry[3] is None else entry[3])
    return sources, types, payloads, timestamps
