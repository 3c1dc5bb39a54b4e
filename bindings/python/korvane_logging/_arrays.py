"""Entries as NumPy arrays and pandas DataFrames, read through the column calls. NumPy and
pandas are imported on first use, so the rest of the package works without them."""

from __future__ import annotations

import ctypes
import importlib
from itertools import islice
from types import ModuleType
from typing import Any, NamedTuple

from ._columns import measure, read_chunks
from .errors import LogError

ARRAY_CHUNK_ROWS = 1 << 14
"""Entries that one library call of `read_arrays` delivers at most: the file is locked for
writers in other processes for one such call at a time."""

ARRAY_CHUNK_BYTES = 16 << 20
"""Payload bytes that one library call of `read_arrays` delivers at most, unless one entry is
bigger."""


def need(module: str, package: str) -> ModuleType:
    """`module`, or ImportError naming the Debian package that brings it."""
    try:
        return importlib.import_module(module)
    except ImportError as missing:
        raise ImportError(f"this needs {module} ({missing}); on Debian: apt-get install "
                          f"{package}, and a virtual environment made with "
                          "--system-site-packages to see it") from missing


class EntryArrays(NamedTuple):
    """Selected entries as NumPy arrays, one element per entry in ascending id order.

    Entry i's payload is `payloads[offsets[i]:offsets[i + 1]]`; `offsets` has one element
    more than the entries, and `payloads` holds all of them one after the other (it is empty
    when the payloads were not read).
    """

    ids: Any
    timestamps: Any
    source_ids: Any
    types: Any
    offsets: Any
    payloads: Any

    def payload(self, index: int) -> bytes:
        """The bytes of the entry at `index` (a position, not an id)."""
        return self.payloads[self.offsets[index]:self.offsets[index + 1]].tobytes()


class _ArrayColumns:
    """The `Columns` shape over NumPy arrays, moved along them call by call."""

    def __init__(self, struct: Any, arrays: EntryArrays, payloads: bool) -> None:
        self.struct, self.arrays, self.read_payloads = struct, arrays, payloads
        self.payloads = arrays.payloads if payloads else None

    def place(self, at: int, at_byte: int) -> None:
        """Points the next call at entry `at` and payload byte `at_byte` of the arrays."""
        arrays, struct = self.arrays, self.struct
        struct.capacity = min(ARRAY_CHUNK_ROWS, len(arrays.ids) - at)
        for field, column in (("entry_ids", arrays.ids), ("timestamps", arrays.timestamps),
                              ("source_ids", arrays.source_ids), ("types", arrays.types),
                              ("offsets", arrays.offsets)):
            setattr(struct, field, column.ctypes.data + at * column.itemsize)
        struct.payload_capacity = min(len(arrays.payloads) - at_byte, ARRAY_CHUNK_BYTES)
        struct.payloads = arrays.payloads.ctypes.data + at_byte if self.read_payloads else None

    def make_room(self, at_least: int) -> None:
        """Room for one entry bigger than a call's bytes, within what the measure found."""
        room = len(self.arrays.payloads) - (self.struct.payloads - self.arrays.payloads.ctypes.data)
        if at_least > room:
            raise LogError("The selected entries changed while they were read.")
        self.struct.payload_capacity = max(self.struct.payload_capacity, at_least)


def read_arrays(lib: ctypes.CDLL, handle: int, chosen: int, first: int, last: int,
                filtered: bool, payloads: bool) -> EntryArrays:
    """The selected entries from `first` to `last` (real ids) as arrays of exactly their size:
    counted and measured first, then read in calls of at most ARRAY_CHUNK_ROWS entries."""
    numpy = need("numpy", "python3-numpy")
    from ._library import EntryColumns

    count, size = measure(lib, handle, chosen, first, last, payloads)
    arrays = EntryArrays(numpy.empty(count, numpy.int32), numpy.empty(count, numpy.int64),
                         numpy.empty(count, numpy.int8), numpy.empty(count, numpy.int32),
                         numpy.zeros(count + 1, numpy.uint64), numpy.empty(size, numpy.uint8))
    if count == 0:
        return arrays
    columns = _ArrayColumns(EntryColumns(), arrays, payloads)
    at = at_byte = 0
    columns.place(at, at_byte)
    for _ in read_chunks(lib, handle, chosen, first, last, columns, filtered):
        delivered = columns.struct.count
        # Each call counts its offsets from its own first payload byte.
        arrays.offsets[at:at + delivered + 1] += numpy.uint64(at_byte)
        at, at_byte = at + delivered, at_byte + columns.struct.payload_size
        if at == count:
            break
        columns.place(at, at_byte)
    if at != count:  # entries went missing between the measure and the read
        arrays = EntryArrays(*(column[:at] for column in arrays[:4]), arrays.offsets[:at + 1],
                             arrays.payloads[:at_byte])
    return arrays


def to_pandas(arrays: EntryArrays, names: dict[int, str], payloads: bool, tz: Any) -> Any:
    """A DataFrame of `arrays`: id, timestamp (aware, in `tz`), source (name, categorical),
    source_id, type and, with `payloads`, data (bytes)."""
    numpy = need("numpy", "python3-numpy")
    pandas = need("pandas", "python3-pandas")
    # Two sources may share a name: the categories are the names, each once.
    categories = list(dict.fromkeys(names[source] for source in sorted(names)))
    codes = numpy.full(256, -1, numpy.int16)
    for source, name in names.items():
        codes[source + 128] = categories.index(name)
    sources = pandas.Categorical.from_codes(codes[arrays.source_ids.astype(numpy.int16) + 128],
                                            categories)
    times = pandas.to_datetime(arrays.timestamps, unit="ms", utc=True)
    columns = {"id": arrays.ids, "timestamp": times.tz_convert(tz), "source": sources,
               "source_id": arrays.source_ids, "type": arrays.types}
    if payloads:
        data = arrays.payloads.tobytes()
        offsets = arrays.offsets.tolist()
        column = numpy.empty(len(arrays.ids), object)
        column[:] = list(map(data.__getitem__, map(slice, offsets, islice(offsets, 1, None))))
        columns["data"] = column
    return pandas.DataFrame(columns)
