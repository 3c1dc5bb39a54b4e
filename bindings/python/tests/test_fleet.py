"""Questions over a dozen files at once, on a local cluster of two worker processes."""

from __future__ import annotations

import os
from dataclasses import dataclass, field
from pathlib import Path

import pytest

import korvane_logging as kl

distributed = pytest.importorskip("distributed")
fleet = pytest.importorskip("korvane_logging.fleet")

SOURCE_NAMES = ["camera", "gnss", "lidar"]
SOURCE_TYPES = {"camera": 1, "gnss": 2, "lidar": 3}
NOT_A_LOG_FILE = "This file is not in a supported log file format."


@dataclass
class Written:
    """What the test wrote into one file."""

    path: str
    application: str
    version: str
    sources: list[str]
    entries: list[dict] = field(default_factory=list)
    bookmarks: list[dict] = field(default_factory=list)


def write_log(path: Path, index: int) -> Written:
    """File `index` has 5 * index entries over 1 to 3 sources, timestamps out of order, and
    index % 3 bookmarks."""
    written = Written(str(path), f"rig-{index % 2}", f"{index}.0",
                      SOURCE_NAMES[index % 3:] + SOURCE_NAMES[:index % 3][:index % 2])
    count = 5 * index
    with kl.LogFile.create(path, written.application, written.version, level=index % 2) as log:
        sources = [log.add_source(name, SOURCE_TYPES[name]) for name in written.sources]
        for j in range(count):
            source = sources[j % len(sources)]
            entry = {"file": written.path, "id": j + 1,
                     "timestamp": 10_000 * index + 10 * (j * 7 % count),
                     "source": source.name, "type": j % 3, "data": bytes([index, j]) * j}
            log.log(source, entry["type"], entry["data"], timestamp=entry["timestamp"])
            written.entries.append(entry)
        for k in range(index % 3):
            entry = written.entries[4 * k]
            log.add_bookmark(entry["id"], f"mark {k}", f"in file {index}", b"%d" % k)
            written.bookmarks.append({"file": written.path, "entry_id": entry["id"],
                                      "timestamp": entry["timestamp"], "title": f"mark {k}",
                                      "comment": f"in file {index}", "payload": b"%d" % k})
    return written


def damage(path: Path) -> None:
    """Zeroes two pages in the middle: the file opens, its entries cannot all be read."""
    with kl.LogFile.create(path, "rig-0", "1.0", level=0) as log:
        source = log.add_source("camera", 1)
        for j in range(200):
            log.log(source, 0, bytes([j]) * 300, timestamp=j)
    with open(path, "r+b") as file:
        # The header counts the pages; the file may have grown ahead of them.
        pages = int.from_bytes(file.read(32)[28:32], "big")
        middle = pages // 2 * 4096
        file.seek(middle)
        file.write(bytes(2 * 4096))


@dataclass
class Fleet:
    paths: list[str]
    logs: list[Written]
    foreign: str
    damaged: str


@pytest.fixture(scope="module")
def files(tmp_path_factory: pytest.TempPathFactory) -> Fleet:
    folder = tmp_path_factory.mktemp("fleet")
    logs = [write_log(folder / f"run-{index:02}.log", index) for index in range(10)]
    foreign, damaged = folder / "notes.txt", folder / "damaged.log"
    foreign.write_text("not a log file\n" * 100)
    damage(damaged)
    paths = [log.path for log in logs]
    paths[3:3] = [str(foreign)]
    paths[7:7] = [str(damaged)]
    return Fleet(paths, logs, str(foreign), str(damaged))


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0") as cluster, \
            distributed.Client(cluster, set_as_default=False) as connected:
        yield connected


def expected_summary(written: Written) -> dict:
    times = [entry["timestamp"] for entry in written.entries]
    return {"path": written.path, "entries": len(written.entries),
            "first_timestamp": min(times, default=None),
            "last_timestamp": max(times, default=None),
            "sources": written.sources, "bookmarks": len(written.bookmarks),
            "application": written.application, "application_version": written.version,
            "bytes": sum(len(entry["data"]) for entry in written.entries), "error": None}


def plain(row: dict) -> dict:
    """A row of a frame with pandas' missing values as None, for comparison."""
    return {key: None if value is kl.fleet.pandas.NA else value for key, value in row.items()}


@pytest.mark.parametrize("scheduler", ["cluster", "local"])
def test_summarize_gives_one_row_per_file(files, client, scheduler):
    frame = fleet.summarize(files.paths, client=client if scheduler == "cluster" else None)
    rows = {row["path"]: plain(row) for row in frame.to_dict("records")}
    assert list(frame["path"]) == files.paths
    for written in files.logs:
        row = rows[written.path]
        assert row.pop("file_size") == os.path.getsize(written.path)
        assert row == expected_summary(written)
    assert rows[files.foreign]["error"] == NOT_A_LOG_FILE
    assert rows[files.foreign]["entries"] is None
    assert rows[files.damaged]["error"]


SELECTIONS = [
    {},
    {"sources": ["gnss"]},
    {"sources": ["lidar", "camera"], "types": [1, 2]},
    {"source_types": [SOURCE_TYPES["camera"]], "types": [0]},
    {"sources": ["radar"]},
]


@pytest.mark.parametrize("selection", SELECTIONS)
def test_entries_selects_across_files(files, client, selection):
    bag = fleet.entries(files.paths, **selection, chunk=4, client=client)
    found = sorted(bag.compute(scheduler=client), key=lambda entry: (entry["file"], entry["id"]))
    wanted = [entry for written in files.logs for entry in written.entries
              if (not selection.get("sources") or entry["source"] in selection["sources"])
              and (not selection.get("types") or entry["type"] in selection["types"])
              and (not selection.get("source_types")
                   or SOURCE_TYPES[entry["source"]] in selection["source_types"])]
    from_damaged = [entry for entry in found if entry["file"] == files.damaged]
    assert [entry for entry in found if entry["file"] != files.damaged] == sorted(
        wanted, key=lambda entry: (entry["file"], entry["id"]))
    assert [entry["id"] for entry in from_damaged] == list(range(1, len(from_damaged) + 1))
    assert bag.pluck("data").map(len).sum().compute(scheduler=client) == sum(
        len(entry["data"]) for entry in found)


def test_bookmarks_come_with_their_file_and_entry_time(files, client):
    frame = fleet.bookmarks(files.paths, client=client)
    assert [plain(row) for row in frame.to_dict("records")] == [
        bookmark for written in files.logs for bookmark in written.bookmarks]
    assert frame.attrs["errors"][files.foreign] == NOT_A_LOG_FILE
