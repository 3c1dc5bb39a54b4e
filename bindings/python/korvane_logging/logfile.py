"""LogFile: an open log file, for recording and for reading back."""

from __future__ import annotations

import ctypes
import operator
import os
import sqlite3
import time
import weakref
from collections.abc import Iterable, Iterator, Sequence
from contextlib import closing, contextmanager
from ctypes import byref, c_int8, c_int32, c_int64, c_void_p
from functools import partial
from itertools import chain, islice
from pathlib import Path
from types import TracebackType
from typing import Any, Union

from ._arrays import EntryArrays, read_arrays
from ._arrays import to_pandas as frame_of
from ._calls import Value, blob, bytes_of, checked, collect, encode, fixed, make_value
from ._calls import number_of, owned, read_value
from ._columns import CHUNK_ROWS, Batch, Columns, measure, read_chunks, transpose
from ._library import library
from ._reading import Selection
from .errors import LogError, NotFoundError
from .records import Bookmark, Entry, Property, Source
from .views import Metadata, Resources

PathLike = Union[str, "os.PathLike[str]"]
SourceRef = Union[Source, int]
"""A data source, given as the record that `add_source` or `sources` returned or by its id."""


def _release(lib: ctypes.CDLL, handle: int, sources: dict[int, int]) -> None:
    """Destroys a file's handle and the source handles kept for it; runs once per file."""
    for source in sources.values():
        lib.KV_LogDataSource_Destroy(source)
    sources.clear()
    lib.KV_LogFile_Destroy(handle)


@contextmanager
def _config(lib: ctypes.CDLL, app_name: str, app_version: str, time_zone: str,
            level: int) -> Iterator[int]:
    """A config for a new file, destroyed when the block ends."""
    config = lib.KV_LogConfig_Create(encode(app_name), encode(app_version), encode(time_zone))
    with owned(lib, config, "KV_LogConfig"):
        checked(lib, "KV_LogConfig_SetCompressionLevel", config,
                fixed(level, 8, "compression level"))
        yield config


# What every SQLite database file starts with; a log file that no longer does was replaced.
_DATABASE_MAGIC = b"SQLite format 3\0"


def _is_empty(path: bytes) -> bool:
    try:
        return os.stat(path).st_size == 0
    except OSError:
        return False


def _source_id(source: SourceRef) -> int:
    return fixed(source.id if isinstance(source, Source) else source, 8, "source id")


def _selection(types: Iterable[int], sources: Iterable[SourceRef],
               source_types: Iterable[int]) -> Selection:
    return Selection.of(types, map(_source_id, sources), source_types)


def _chunk(chunk: int) -> int:
    chunk = operator.index(chunk)
    if chunk < 1:
        raise ValueError(f"a chunk holds at least one entry, not {chunk}")
    return chunk


def _sequence(values: Any) -> Any:
    """`values` as something with a length; buffers and sequences stay as they are."""
    return values if hasattr(values, "__len__") else list(values)


def _entry_fields(lib: ctypes.CDLL, handle: int) -> tuple[int, int, int, bytes]:
    """All fields of an entry record but the id, which an entry handle does not give."""
    return (number_of(lib.KV_LogDataEntry_GetDataSourceId, handle, c_int8),
            number_of(lib.KV_LogDataEntry_GetType, handle, c_int32),
            number_of(lib.KV_LogDataEntry_GetTimestamp, handle, c_int64),
            bytes_of(lib.KV_LogDataEntry_GetData, handle))


class LogFile:
    """An open log file.

    Make one with `LogFile.create` (a new file that accepts sources and entries) or
    `LogFile.open` (an existing file, which takes metadata, resources and bookmarks but no new
    sources or entries). Close it with `close()` or by using it in a `with` block; a file that
    is dropped unclosed is closed when it is collected. Every write is complete when its call
    returns. Failures raise `LogError` with the library's message.
    """

    def __init__(self, lib: ctypes.CDLL, handle: int, path: PathLike) -> None:
        """Takes ownership of `handle`; use `create` or `open` instead."""
        self._lib = lib
        self._handle = handle
        self._path = os.fsdecode(path)
        self._location = os.path.abspath(self._path)
        # What the path named when the file was opened; `follow` notices a replaced file.
        status = os.stat(self._location)
        self._identity = (status.st_dev, status.st_ino)
        # Entries and properties are made from a source handle that carries the source's id,
        # and only the library can give a handle an id, so the ones it gave are kept.
        self._sources: dict[int, int] = {}
        self._finalizer = weakref.finalize(self, _release, lib, handle, self._sources)

    @classmethod
    def create(cls, path: PathLike, app_name: str, app_version: str, time_zone: str = "",
               level: int = -1) -> LogFile:
        """Creates a new log file at `path`, where nothing may exist yet.

        `level` is the compression level of the entries: 0 stores them as they are, 1 to 9
        compress, -1 takes the default level.
        """
        lib = library()
        with _config(lib, app_name, app_version, time_zone, level) as config:
            handle = checked(lib, "KV_LogFile_Create", os.fsencode(path), config)
        return cls(lib, handle, path)

    @classmethod
    def open(cls, path: PathLike, read_only: bool = False) -> LogFile:
        """Opens the existing log file at `path`.

        With `read_only`, nothing is ever written to the file, and metadata, resources and
        bookmarks are refused too. Either way an empty file is refused as no log file.
        """
        lib = library()
        encoded = os.fsencode(path)
        if read_only:
            return cls(lib, checked(lib, "KVX_OpenReadOnly", encoded), path)
        if _is_empty(encoded):
            # The read-only open refuses an empty file in the library's words; should the file
            # have been filled meanwhile, it is opened as asked.
            lib.KV_LogFile_Destroy(checked(lib, "KVX_OpenReadOnly", encoded))
        return cls(lib, checked(lib, "KV_LogFile_Open", encoded), path)

    def close(self) -> None:
        """Closes the file. Closing again does nothing; records read from it stay usable."""
        self._finalizer()

    @property
    def closed(self) -> bool:
        """True once the file is closed."""
        return not self._finalizer.alive

    @property
    def path(self) -> str:
        """The path the file was created or opened with."""
        return self._path

    def __enter__(self) -> LogFile:
        self._live()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<LogFile {self._path!r}{' (closed)' if self.closed else ''}>"

    def _live(self) -> int:
        """The file's handle; raises ValueError once the file is closed."""
        if not self._finalizer.alive:
            raise ValueError(f"the log file {self._path!r} is closed")
        return self._handle

    # ---- Data sources ----------------------------------------------------------------------

    def add_source(self, name: str, type: int) -> Source:
        """Registers a data source of kind `type` (a number of the caller's) and returns it."""
        lib, file = self._lib, self._live()
        handle = lib.KV_LogDataSource_Create(fixed(type, 32, "source type"), encode(name))
        if not handle:
            raise MemoryError("the library could not make a data source")
        try:
            checked(lib, "KV_LogFile_AddDataSource", file, handle)
            source = Source._from_handle(lib, handle)
        except BaseException:
            lib.KV_LogDataSource_Destroy(handle)
            raise
        self._keep_source(handle)
        return source

    @property
    def sources(self) -> list[Source]:
        """The data sources of the file, by ascending id."""
        lib = self._lib
        return collect(lib, "KV_LogFile_GetDataSources", self._live(), family="KV_LogDataSource",
                       convert=partial(Source._from_handle, lib), has_error=True)

    def add_property(self, source: SourceRef, key: str, value: Value) -> None:
        """Attaches `key` with an int, float or str `value` to a source; keys may repeat."""
        lib, file = self._lib, self._live()
        with self._source_handle(source) as source_handle:
            record = make_value(lib, "KV_LogDataSourceProperty", value, source_handle,
                                encode(key))
            with owned(lib, record, "KV_LogDataSourceProperty"):
                checked(lib, "KV_LogFile_AddDataSourceProperty", file, record)

    def get_property(self, source: SourceRef, key: str) -> Value:
        """The value of a source's property `key` (the first, should it repeat)."""
        lib, file, out = self._lib, self._live(), c_void_p()
        with self._source_handle(source) as source_handle:
            checked(lib, "KV_LogFile_GetDataSourceProperty", file, source_handle, encode(key),
                    byref(out), kind=NotFoundError)
        with owned(lib, out.value, "KV_LogDataSourceProperty") as record:
            return read_value(lib, "KV_LogDataSourceProperty", record)

    def properties(self, source: SourceRef | None = None) -> list[Property]:
        """The properties of all sources, or of `source` alone, in the order of the file."""
        lib = self._lib
        found = collect(lib, "KV_LogFile_GetAllDataSourceProperties", self._live(),
                        family="KV_LogDataSourceProperty",
                        convert=partial(Property._from_handle, lib), has_error=True)
        if source is None:
            return found
        wanted = _source_id(source)
        return [item for item in found if item.source_id == wanted]

    def _keep_source(self, handle: int) -> None:
        source_id = number_of(self._lib.KV_LogDataSource_GetId, handle, c_int8)
        if source_id in self._sources:
            self._lib.KV_LogDataSource_Destroy(handle)
        else:
            self._sources[source_id] = handle

    @contextmanager
    def _source_handle(self, source: SourceRef) -> Iterator[int]:
        """A handle that carries the id of `source`, for one call."""
        source_id = _source_id(source)
        if source_id not in self._sources:
            collect(self._lib, "KV_LogFile_GetDataSources", self._live(),
                    family="KV_LogDataSource", convert=self._keep_source, has_error=True,
                    keep=True)
        if source_id in self._sources:
            yield self._sources[source_id]
            return
        # No source has this id. A handle that names none lets the library refuse the call in
        # its own words.
        with owned(self._lib, self._lib.KV_LogDataSource_Create(0, b""),
                   "KV_LogDataSource") as unregistered:
            yield unregistered

    # ---- Entries ---------------------------------------------------------------------------

    def log(self, source: SourceRef, type: int, data: bytes,
            timestamp: int | None = None) -> None:
        """Logs `data` from `source` under the data type `type`.

        `timestamp` is in milliseconds since the Unix epoch; the present time when omitted.
        """
        lib, file = self._lib, self._live()
        data = blob(data)
        with self._source_handle(source) as source_handle:
            entry = lib.KV_LogDataEntry_Create(source_handle, fixed(type, 32, "data type"),
                                               data, len(data))
        with owned(lib, entry, "KV_LogDataEntry"):
            if timestamp is not None:
                lib.KV_LogDataEntry_SetTimestamp(entry, fixed(timestamp, 64, "timestamp"))
            checked(lib, "KV_LogFile_LogData", file, entry)

    def log_many(self, entries: Iterable[Sequence[Any]] | None = None, *,
                 sources: Any = None, types: Any = None, payloads: Any = None,
                 timestamps: Any = None, offsets: Any = None) -> None:
        """Logs many entries in one transaction: all of them, or none when one fails, with the
        message that `log` gives for the first that fails.

        Give either `entries`, tuples of (source, type, data) or (source, type, data,
        timestamp), or columns of equal length: `sources` (records or ids), `types`,
        `payloads` (bytes each) and `timestamps` (omitted: the present time for all). With
        `offsets`, `payloads` is one buffer and entry i's bytes are
        payloads[offsets[i]:offsets[i + 1]], as `read_arrays` gives them. Columns may be
        lists, `array.array`s or NumPy arrays; those of the right width are used as they are.
        A timestamp left out or None is the present time.
        """
        lib, file = self._lib, self._live()
        now = time.time_ns() // 1_000_000
        if entries is not None:
            if any(column is not None for column in (sources, types, payloads, timestamps,
                                                       offsets)):
                raise TypeError("give log_many either entries or columns, not both")
            sources, types, payloads, timestamps = transpose(entries, now)
        elif sources is None or types is None or payloads is None:
            raise TypeError("log_many needs entries, or the columns sources, types and payloads")
        else:
            sources, types = _sequence(sources), _sequence(types)
            if offsets is None:
                payloads = _sequence(payloads)
            timestamps = [now] * len(types) if timestamps is None else _sequence(timestamps)
            if isinstance(timestamps, (list, tuple)) and None in timestamps:
                timestamps = [now if stamp is None else stamp for stamp in timestamps]
        Batch(sources, types, timestamps, payloads, offsets).log(lib, file)

    def read_entry(self, entry_id: int) -> Entry:
        """The entry `entry_id`; NotFoundError when there is none."""
        lib, out = self._lib, c_void_p()
        checked(lib, "KV_LogFile_ReadEntry", self._live(), fixed(entry_id, 32, "entry id"),
                byref(out), kind=NotFoundError)
        with owned(lib, out.value, "KV_LogDataEntry") as entry:
            return Entry(entry_id, *_entry_fields(lib, entry))

    def read_entries(self, first: int = -1, last: int = -1, types: Iterable[int] = (),
                     sources: Iterable[SourceRef] = (), source_types: Iterable[int] = (),
                     limit: int = -1) -> list[Entry]:
        """The entries with ids from `first` to `last` (both included), by ascending id.

        -1 for `first` or `last` stands for the file's first or last entry. Each of `types`
        (data types), `sources` and `source_types` narrows the selection when it is not empty.
        At most `limit` entries are read; -1 reads all. All entries are held in memory at once;
        `iter_entries` reads the same lazily.
        """
        limit = fixed(limit, 32, "limit")
        if limit < 0:
            return list(self.iter_entries(first, last, types, sources, source_types))
        chunk = max(1, min(limit, CHUNK_ROWS))
        return list(islice(self.iter_entries(first, last, types, sources, source_types,
                                              chunk=chunk), limit))

    def iter_entries(self, first: int = -1, last: int = -1, types: Iterable[int] = (),
                     sources: Iterable[SourceRef] = (), source_types: Iterable[int] = (),
                     chunk: int = CHUNK_ROWS) -> Iterator[Entry]:
        """The entries that `read_entries` selects, read as they are consumed.

        Each call into the library reads at most `chunk` entries and about 8 MiB of payload
        (one entry, if it is bigger), and a filtered call looks at no more than 16 times
        `chunk` ids, so memory stays bounded and a recorder in another process waits for one
        short read at a time. The range is fixed by this call: entries recorded later are not
        included. LogError when entries of the range cannot be read, after those before them.
        """
        columns = Columns(_chunk(chunk))
        selection = _selection(types, sources, source_types)
        bounds = self._bounds(fixed(first, 32, "entry id"), fixed(last, 32, "entry id"))
        if bounds is None:
            return iter(())
        # The entries of a chunk are handed on by `chain`, without a step of Python each.
        return chain.from_iterable(self._chunks(*bounds, selection, columns))

    def _chunks(self, first: int, last: int, selection: Selection,
                columns: Columns) -> Iterator[list[Entry]]:
        with self._filter(selection) as chosen:
            for filled in read_chunks(self._lib, self._live(), chosen, first, last, columns,
                                      bool(selection)):
                yield filled.entries()

    def read_arrays(self, first: int = -1, last: int = -1, types: Iterable[int] = (),
                    sources: Iterable[SourceRef] = (), source_types: Iterable[int] = (),
                    payloads: bool = True) -> EntryArrays:
        """The entries that `read_entries` selects as NumPy arrays, without a Python object per
        entry: `ids` (int32), `timestamps` (int64, ms), `source_ids` (int8), `types` (int32),
        `offsets` (uint64, one more than the entries) and `payloads` (uint8, every payload
        one after the other: entry i's are payloads[offsets[i]:offsets[i + 1]]).

        The selection is counted and measured first, so each array is allocated once at its
        size; then it is read in calls of at most 16384 entries and 16 MiB. With
        `payloads=False` no payload is read: `offsets` are zeros and `payloads` is empty.
        ImportError without NumPy.
        """
        selection = _selection(types, sources, source_types)
        bounds = self._bounds(fixed(first, 32, "entry id"), fixed(last, 32, "entry id"))
        with self._filter(selection) as chosen:
            return read_arrays(self._lib, self._live(), chosen, *(bounds or (1, 0)),
                               bool(selection), payloads)

    def to_pandas(self, first: int = -1, last: int = -1, types: Iterable[int] = (),
                  sources: Iterable[SourceRef] = (), source_types: Iterable[int] = (),
                  payloads: bool = True, tz: Any = "UTC") -> Any:
        """The entries that `read_entries` selects as a pandas DataFrame, a row per entry:
        `id`, `timestamp` (time zone aware, in `tz`), `source` (the source's name, a
        categorical), `source_id`, `type` and, unless `payloads=False`, `data` (bytes).
        ImportError without NumPy and pandas.
        """
        arrays = self.read_arrays(first, last, types, sources, source_types, payloads)
        return frame_of(arrays, {source.id: source.name for source in self.sources}, payloads,
                        tz)

    def follow(self, first: int | None = None, types: Iterable[int] = (),
               sources: Iterable[SourceRef] = (), source_types: Iterable[int] = (),
               interval: float = 0.1, idle_timeout: float | None = None,
               chunk: int = CHUNK_ROWS) -> Iterator[Entry]:
        """The entries that are recorded into the file from now on, as they arrive.

        Another process records; this one opened the file (read-only is enough:
        `LogFile.open(path, read_only=True)`). The entries come by ascending id, filtered as
        in `read_entries`: by default those recorded after this call, or from the entry
        `first` on when it is given, the ones already there first. Every `interval` seconds
        the file is asked for its last entry id, and new entries are read in chunks as in
        `iter_entries`. The iteration runs until the caller stops it, or until no entry has
        arrived for `idle_timeout` seconds when that is given. LogError when the file at the
        path is removed or replaced by another one: a new file, another file copied over it,
        a truncation, or ids that go back.
        """
        if interval < 0 or (idle_timeout is not None and idle_timeout < 0):
            raise ValueError("interval and idle_timeout cannot be negative")
        columns = Columns(_chunk(chunk))
        selection = _selection(types, sources, source_types)
        created = self._creation()
        start = (self.last_entry_id or 0) + 1 if first is None else fixed(first, 32, "entry id")
        return self._follow(start, selection, columns, interval, idle_timeout, created)

    def _follow(self, start: int, selection: Selection, columns: Columns, interval: float,
                idle_timeout: float | None, created: Value | None) -> Iterator[Entry]:
        quiet_since, seen = time.monotonic(), start - 1
        while True:
            self._check_identity(created)
            last = self._last_id_or_replaced()
            if last is not None and last < seen:
                raise self._replaced()
            if last is not None and last >= start:
                with self._filter(selection) as chosen:
                    for filled in read_chunks(self._lib, self._live(), chosen, start, last,
                                              columns, bool(selection)):
                        entries = filled.entries()
                        # What was read must come from the file that was followed.
                        self._check_identity(created)
                        yield from entries
                start, seen, quiet_since = last + 1, last, time.monotonic()
                continue
            if idle_timeout is not None and time.monotonic() - quiet_since >= idle_timeout:
                return
            time.sleep(interval)

    def _replaced(self) -> LogError:
        return LogError(f"The log file {self._path} has been replaced by another file.")

    def _last_id_or_replaced(self) -> int | None:
        try:
            return self.last_entry_id
        except LogError:  # a file that lost its tables was truncated or replaced
            raise self._replaced() from None

    def _creation(self) -> Value | None:
        """The creation time in the metadata of the file at the path, which tells one recording
        from another; None when there is none. It is read on a connection of its own: the
        library's may still hold pages of a file that another was copied over."""
        try:
            with closing(sqlite3.connect(Path(self._location).as_uri() + "?mode=ro",
                                         uri=True)) as connection:
                found = connection.execute("SELECT value FROM metadata WHERE key = ?",
                                           ("createdDateTime",)).fetchone()
        except sqlite3.Error:
            return None
        return None if found is None else found[0]

    def _check_identity(self, created: Value | None) -> None:
        """Raises LogError when the path no longer holds the recording that was opened: a
        removed file, another file, one truncated, or another recording copied over it."""
        try:
            now = os.stat(self._location)
            with open(self._location, "rb") as file:
                header = file.read(len(_DATABASE_MAGIC))
        except FileNotFoundError:
            raise LogError(f"The log file {self._path} has been removed.") from None
        if (now.st_dev, now.st_ino) != self._identity or header != _DATABASE_MAGIC \
                or self._creation() != created:
            raise self._replaced()

    def _bounds(self, first: int, last: int) -> tuple[int, int] | None:
        """The ids to read, narrowed to the file's; None when no entry can be in the range."""
        lowest, highest = self.first_entry_id, self.last_entry_id
        if lowest is None or highest is None:
            return None
        first = lowest if first == -1 else max(first, lowest)
        last = highest if last == -1 else min(last, highest)
        return (first, last) if first <= last else None

    def entry_index(self, types: Iterable[int] = (), sources: Iterable[SourceRef] = (),
                    source_types: Iterable[int] = ()) -> list[int]:
        """The ids of the entries that the filter selects (see `read_entries`), ascending."""
        lib, file = self._lib, self._live()
        with self._filter(_selection(types, sources, source_types)) as chosen:
            count, _ = measure(lib, file, chosen, -1, -1, payloads=False)
            columns = Columns(count, payloads=False)
            for _ in read_chunks(lib, file, chosen, -2**31, 2**31 - 1, columns, filtered=False):
                break
        return columns.ids[:columns.count].tolist()

    @property
    def entry_count(self) -> int:
        """The number of entries."""
        return self._number("KV_LogFile_GetEntryCount")

    @property
    def first_entry_id(self) -> int | None:
        """The lowest entry id, or None in a file without entries."""
        return self._end_id("KV_LogFile_GetFirstEntryId")

    @property
    def last_entry_id(self) -> int | None:
        """The highest entry id, or None in a file without entries."""
        return self._end_id("KV_LogFile_GetLastEntryId")

    def _number(self, function: str) -> int:
        number = c_int32()
        checked(self._lib, function, self._live(), byref(number))
        return number.value

    def _end_id(self, function: str) -> int | None:
        try:
            return self._number(function)
        except LogError:
            if self.entry_count == 0:
                return None
            raise

    @contextmanager
    def _filter(self, selection: Selection) -> Iterator[int]:
        lib = self._lib
        with owned(lib, lib.KV_LogEntryIndexFilter_Create(), "KV_LogEntryIndexFilter") as chosen:
            for data_type in sorted(selection.types):
                lib.KV_LogEntryIndexFilter_AddDataType(chosen, data_type)
            for source_id in sorted(selection.source_ids):
                lib.KV_LogEntryIndexFilter_AddDataSource(chosen, source_id)
            for source_type in sorted(selection.source_types):
                lib.KV_LogEntryIndexFilter_AddDataSourceType(chosen, source_type)
            yield chosen

    # ---- Metadata, resources, bookmarks ----------------------------------------------------

    @property
    def metadata(self) -> Metadata:
        """A read-only mapping of the metadata: key to int, float or str."""
        return Metadata(self._lib, self._live, self._location)

    def add_metadata(self, key: str, value: Value) -> None:
        """Adds metadata `key` with an int, float or str value; an existing key is refused."""
        lib, file = self._lib, self._live()
        with owned(lib, make_value(lib, "KV_LogMetadata", value, encode(key)),
                   "KV_LogMetadata") as record:
            self._add(file, "KV_LogFile_AddMetadata", record, key, self.metadata,
                      "metadata key")

    @property
    def resources(self) -> Resources:
        """A read-only mapping of the resources: name to bytes."""
        return Resources(self._lib, self._live, self._location)

    def add_resource(self, name: str, data: bytes) -> None:
        """Adds the resource `name`; an existing name is refused."""
        lib, file, data = self._lib, self._live(), blob(data)
        with owned(lib, lib.KV_LogResource_Create(encode(name), data, len(data)),
                   "KV_LogResource") as record:
            self._add(file, "KV_LogFile_AddResource", record, name, self.resources, "resource")

    def _add(self, file: int, function: str, record: int, name: str,
             existing: Metadata | Resources, what: str) -> None:
        try:
            checked(self._lib, function, file, record)
        except LogError as error:
            # The library refuses a name that exists without a message of its own; what it
            # reports then is an earlier failure or "No error".
            if name in existing:
                raise LogError(f"The {what} {name!r} exists already.") from error
            raise

    @property
    def bookmarks(self) -> list[Bookmark]:
        """The bookmarks of the file, in the order in which it stores them."""
        lib = self._lib
        return collect(lib, "KV_LogFile_GetBookmarks", self._live(), family="KV_LogBookmark",
                       convert=partial(Bookmark._from_handle, lib))

    def add_bookmark(self, entry_id: int, title: str, comment: str = "",
                     payload: bytes = b"") -> Bookmark:
        """Adds a bookmark on the existing entry `entry_id` and returns it."""
        bookmark = Bookmark(entry_id, title, comment, blob(payload))
        self._bookmark("KV_LogFile_AddBookmark", bookmark)
        return bookmark

    def update_bookmark(self, entry_id: int, title: str, comment: str = "",
                        payload: bytes = b"") -> Bookmark:
        """Replaces title, comment and payload of the bookmarks on `entry_id`."""
        bookmark = Bookmark(entry_id, title, comment, blob(payload))
        self._bookmark("KV_LogFile_UpdateBookmark", bookmark)
        return bookmark

    def remove_bookmark(self, entry_id: int) -> None:
        """Removes the bookmarks on `entry_id`."""
        self._bookmark("KV_LogFile_RemoveBookmark", Bookmark(entry_id, ""))

    def _bookmark(self, function: str, bookmark: Bookmark) -> None:
        lib, file = self._lib, self._live()
        record = lib.KV_LogBookmark_Create(fixed(bookmark.entry_id, 32, "entry id"),
                                           encode(bookmark.title), encode(bookmark.comment),
                                           bookmark.payload, len(bookmark.payload))
        with owned(lib, record, "KV_LogBookmark"):
            checked(lib, function, file, record)

    # ---- Slice and clone -------------------------------------------------------------------

    def slice(self, first: int, last: int, path: PathLike, app_name: str | None = None,
              app_version: str | None = None, level: int = -1) -> LogFile:
        """Writes the entries `first` to `last` (both existing) into a new file at `path`.

        The new file keeps metadata, resources, sources, properties and the bookmarks in the
        range; its entries are numbered from 1. `app_name` and `app_version` default to this
        file's. The returned file takes no new sources or entries.
        """
        return self._derive("KV_LogAlgorithms_Slice", path, app_name, app_version, level,
                            fixed(first, 32, "entry id"), fixed(last, 32, "entry id"))

    def clone(self, path: PathLike, app_name: str | None = None, app_version: str | None = None,
              level: int = -1) -> LogFile:
        """Writes all entries into a new file at `path`, as `slice` does.

        The returned file accepts new sources and entries.
        """
        return self._derive("KV_LogAlgorithms_Clone", path, app_name, app_version, level)

    def _derive(self, function: str, path: PathLike, app_name: str | None,
                app_version: str | None, level: int, *ids: int) -> LogFile:
        if not os.fspath(path):
            raise ValueError("the new file needs a path")
        lib, file = self._lib, self._live()
        name = app_name if app_name is not None else self._text_metadata("applicationName")
        version = (app_version if app_version is not None
                   else self._text_metadata("applicationVersion"))
        with _config(lib, name, version, "", level) as config:
            handle = checked(lib, function, file, *ids, os.fsencode(path), config)
        return LogFile(lib, handle, path)

    def _text_metadata(self, key: str) -> str:
        value = self.metadata.get(key, "")
        return value if isinstance(value, str) else ""
