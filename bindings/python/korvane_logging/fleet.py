"""Many log files at once, with Dask: one task per file, run by Dask's local scheduler or by the
workers of a `distributed.Client`.

A task opens its file with `LogFile` on the worker that runs it and sends back only what the
question needs, so a worker needs the library and the files at the same paths, and the client
never reads a file, and every file is opened read-only: nothing here changes what it reads.
`summarize` and `bookmarks` give pandas DataFrames; `entries` gives a lazy `dask.bag.Bag`,
whose partitions (one per file) stream their entries in chunks, or a lazy Dask DataFrame.
"""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator
from typing import Any, Union

try:
    import dask
    import dask.bag
    import dask.dataframe
    import pandas
    from dask.base import tokenize
    from dask.highlevelgraph import HighLevelGraph
except ImportError as missing:  # pragma: no cover - depends on the machine
    raise ImportError(
        "korvane_logging.fleet needs Dask and pandas ({}). On Debian: apt-get install "
        "python3-dask python3-distributed python3-pandas, and make a virtual environment with "
        "--system-site-packages to see them; elsewhere: pip install 'dask[bag]' distributed "
        "pandas".format(missing)) from missing

from ._columns import Columns, read_chunks
from ._reading import Selection
from .errors import LogError
from .logfile import LogFile

PathLike = Union[str, "os.PathLike[str]"]

SUMMARY_COLUMNS = ["path", "entries", "first_timestamp", "last_timestamp", "sources",
                   "bookmarks", "application", "application_version", "bytes", "file_size",
                   "error"]
BOOKMARK_COLUMNS = ["file", "entry_id", "timestamp", "title", "comment", "payload"]
ENTRY_FIELDS = ("file", "id", "timestamp", "source", "type", "data")
# Each row of the DataFrame form of `entries`, and its types.
FRAME_COLUMNS = {"file": "object", "id": "int32", "timestamp": "datetime64[ns, UTC]",
                 "source": "object", "source_id": "int8", "type": "int32", "data": "object"}

_WHOLE_NUMBERS = ["entries", "first_timestamp", "last_timestamp", "bookmarks", "bytes",
                  "file_size"]


def summarize(paths: Iterable[PathLike], client: Any = None) -> pandas.DataFrame:
    """One row per file, in the order of `paths`, each made by reading the whole file.

    Columns: `path`; `entries` (their number); `first_timestamp` and `last_timestamp` (the
    earliest and latest entry time, ms since the Unix epoch); `sources` (the names of the data
    sources, by id); `bookmarks` (their number); `application` and `application_version` (from
    the metadata); `bytes` (the payload bytes of all entries, as recorded, before compression);
    `file_size` (the bytes of the file's pages, which is its size after a clean close);
    `error`: None, or why the file could not be read, for a file that is not a log file (an
    empty one too), is damaged or is missing. A file that fails never stops the others.
    Without `client`, Dask's default scheduler runs the tasks (local processes for a bag).
    """
    rows = _compute(_paths(paths), _summary, client)
    frame = pandas.DataFrame.from_records(rows, columns=SUMMARY_COLUMNS)
    return frame.astype({column: "Int64" for column in _WHOLE_NUMBERS})


def bookmarks(paths: Iterable[PathLike], client: Any = None) -> pandas.DataFrame:
    """Every bookmark of every file: `file`, `entry_id`, `timestamp` (the time of the entry it
    marks), `title`, `comment`, `payload`, by file in the order of `paths`.

    Files that cannot be read have no rows; their messages are in `frame.attrs["errors"]`, a
    dict from path to message (and in the `error` column of `summarize`).
    """
    rows, errors = [], {}
    for path, found, error in _compute(_paths(paths), _bookmarks_of, client):
        rows.extend(found)
        if error is not None:
            errors[path] = error
    frame = pandas.DataFrame.from_records(rows, columns=BOOKMARK_COLUMNS)
    frame = frame.astype({"entry_id": "Int64", "timestamp": "Int64"})
    frame.attrs["errors"] = errors
    return frame


def entries(paths: Iterable[PathLike], *, types: Iterable[int] | None = None,
            sources: Iterable[str | int] | None = None,
            source_types: Iterable[int] | None = None, client: Any = None,
            chunk: int = 1000, frame: bool = False, payloads: bool = True) -> Any:
    """The selected entries of all files, as a lazy Dask bag of dicts with the keys `file`,
    `id`, `timestamp`, `source` (its name), `type` and `data` (bytes); with `frame`, as a lazy
    Dask DataFrame.

    `types` (data types), `sources` (names, or ids) and `source_types` narrow the selection
    as `LogFile.read_entries` does; None or an empty list selects all. A bag has one partition
    per file, and a partition reads its file in chunks of `chunk` entries as it is consumed,
    so a reduction such as `.count()`, `.pluck("data").map(len).sum()` or `.foldby(...)` runs
    over files of any size in little memory. A file that cannot be read contributes the
    entries read before the failure, none if it cannot be opened: `summarize` tells which
    files failed.

    The DataFrame has one partition per file, read whole through `LogFile.to_pandas` when it
    is computed, with the columns `file`, `id`, `timestamp` (datetime, UTC), `source` (name),
    `source_id`, `type` and, unless `payloads=False`, `data` (bytes). A file that cannot be
    read whole contributes no rows. Without payloads a partition holds 26 bytes an entry
    plus pandas' own, which suits questions such as entries per source per minute:
    `frame.groupby(["source", frame.timestamp.dt.floor("min")]).size()`.

    The result is computed where `.compute()` sends it: the default Client if there is one, or
    `.compute(scheduler=client)`. When `client` is given, its workers are asked once here
    whether they can load the library, so that a worker without it fails now, not mid-job.
    """
    selection = (_numbers(types), _names(sources), _numbers(source_types))
    if client is not None:
        client.run(_load_library)
    paths = _paths(paths)
    if frame:
        meta = _empty_frame(payloads)
        if not paths:
            return dask.dataframe.from_pandas(meta, npartitions=1)
        return dask.dataframe.from_map(_frame_of, paths, args=(selection, payloads), meta=meta,
                                       label="korvane-entries",
                                       token=tokenize(paths, selection, payloads))
    name = "korvane-entries-" + tokenize(paths, selection, chunk)
    # Each partition is the list of its file's entries; Dask's bag optimisation removes the
    # list where the next step consumes the entries one by one, so they stream in chunks.
    graph = {(name, index): (list, (_entries_of, path, selection, chunk))
             for index, path in enumerate(paths)}
    return dask.bag.Bag(HighLevelGraph.from_collections(name, graph), name, len(paths))


def _paths(paths: Iterable[PathLike]) -> list[str]:
    return [os.fsdecode(path) for path in paths]


def _numbers(values: Iterable[int] | None) -> tuple[int, ...] | None:
    return None if values is None else tuple(values)


def _names(values: Iterable[str | int] | None) -> tuple[str | int, ...] | None:
    if values is None:
        return None
    if isinstance(values, str):
        raise TypeError("sources is a list of names or ids, not one name")
    return tuple(values)


def _compute(paths: list[str], task: Any, client: Any) -> list[Any]:
    """`task` of each path, run as one task per file."""
    if not paths:
        return []
    bag = dask.bag.from_sequence(paths, npartitions=len(paths)).map(task)
    return bag.compute() if client is None else bag.compute(scheduler=client)


def _load_library() -> None:
    from ._library import library

    library()


def _failure(error: Exception) -> str:
    return error.message if isinstance(error, LogError) else f"{type(error).__name__}: {error}"


def _file_size(path: str) -> int:
    """The bytes of the pages that the database header counts, or the size on disk when the
    header's count is not to be trusted (SQLite then goes by the size too)."""
    with open(path, "rb") as file:
        header = file.read(100)
    page_size = int.from_bytes(header[16:18], "big") if len(header) == 100 else 0
    pages = int.from_bytes(header[28:32], "big") if len(header) == 100 else 0
    if page_size == 1:
        page_size = 65536
    if pages == 0 or header[92:96] != header[24:28]:
        return os.path.getsize(path)
    return pages * page_size


def _totals(log: LogFile) -> tuple[int, int | None, int | None]:
    """The payload bytes, earliest and latest time of every entry, each entry read whole."""
    payload, earliest, latest = 0, None, None
    bounds = log._bounds(-1, -1)
    if bounds is None:
        return payload, earliest, latest
    with log._filter(Selection.of((), (), ())) as everything:
        for columns in read_chunks(log._lib, log._live(), everything, *bounds,
                                   Columns(1000), filtered=False):
            times = columns.timestamps[:columns.count]
            payload += columns.struct.payload_size
            earliest = min(times) if earliest is None else min(earliest, min(times))
            latest = max(times) if latest is None else max(latest, max(times))
    return payload, earliest, latest


def _summary(path: str) -> dict[str, Any]:
    row: dict[str, Any] = dict.fromkeys(SUMMARY_COLUMNS)
    row["path"] = path
    try:
        with LogFile.open(path, read_only=True) as log:
            metadata = log.metadata
            row.update(entries=log.entry_count, sources=[source.name for source in log.sources],
                       bookmarks=len(log.bookmarks),
                       application=metadata.get("applicationName"),
                       application_version=metadata.get("applicationVersion"),
                       file_size=_file_size(path))
            payload, earliest, latest = _totals(log)
            row.update(bytes=payload, first_timestamp=earliest, last_timestamp=latest)
    except Exception as error:  # one file's failure is its row's, never the job's
        row["error"] = _failure(error)
    return row


def _bookmarks_of(path: str) -> tuple[str, list[dict[str, Any]], str | None]:
    found: list[dict[str, Any]] = []
    try:
        with LogFile.open(path, read_only=True) as log:
            for bookmark in log.bookmarks:
                found.append({"file": path, "entry_id": bookmark.entry_id,
                              "timestamp": log.read_entry(bookmark.entry_id).timestamp,
                              "title": bookmark.title, "comment": bookmark.comment,
                              "payload": bookmark.payload})
    except Exception as error:  # reported beside the rows, never raised into the job
        return path, found, _failure(error)
    return path, found, None


def _wanted_sources(log: LogFile, sources: Any) -> tuple[dict[int, str], list[int] | None]:
    """The file's source names by id, and the ids that `sources` (names or ids) selects:
    None when it selects none of them."""
    names = {source.id: source.name for source in log.sources}
    wanted = [source_id for source_id, name in names.items()
              if name in sources or source_id in sources] if sources else []
    return names, (None if sources and not wanted else wanted)


def _entries_of(path: str, selection: tuple[Any, Any, Any], chunk: int) -> Iterator[dict]:
    types, sources, source_types = selection
    try:
        with LogFile.open(path, read_only=True) as log:
            names, wanted = _wanted_sources(log, sources)
            if wanted is None:
                return  # none of the named sources is in this file
            for entry in log.iter_entries(types=types or (), sources=wanted,
                                          source_types=source_types or (), chunk=chunk):
                yield {"file": path, "id": entry.id, "timestamp": entry.timestamp,
                       "source": names.get(entry.source_id), "type": entry.type,
                       "data": entry.data}
    except Exception:  # a file that fails ends its own partition, never the job
        return


def _empty_frame(payloads: bool) -> pandas.DataFrame:
    return pandas.DataFrame({name: pandas.Series(dtype=kind) for name, kind in
                             FRAME_COLUMNS.items() if payloads or name != "data"})


def _frame_of(path: str, selection: tuple[Any, Any, Any], payloads: bool) -> pandas.DataFrame:
    types, sources, source_types = selection
    try:
        with LogFile.open(path, read_only=True) as log:
            names, wanted = _wanted_sources(log, sources)
            if wanted is None:
                return _empty_frame(payloads)
            frame = log.to_pandas(types=types or (), sources=wanted,
                                  source_types=source_types or (), payloads=payloads)
    except Exception:  # a file that fails has no rows, never fails the job
        return _empty_frame(payloads)
    frame.insert(0, "file", path)
    # Categories of names differ from file to file; plain names concatenate.
    frame["source"] = frame["source"].astype(object)
    return frame
