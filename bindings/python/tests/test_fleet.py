"""Questions over a dozen files at once, on a local cluster of two worker processes."""

import os
import sqlite3
from contextlib import closing

import pytest

import korvane_logging as kl

distributed = pytest.importorskip("distributed")
fleet = pytest.importorskip("korvane_logging.fleet")
TYPES = {"camera": 1, "gnss": 2, "lidar": 3}
NOT_A_LOG_FILE = "This file is not in a supported log file format."


def write_log(path, index):
    """File `index` (5 * index entries, timestamps out of order; file 9 holds more payload
    than a first chunk of columns) as the fleet's rows give it."""
    names, count = list(TYPES)[index % 3:] + list(TYPES)[:index % 3][:index % 2], 5 * index
    entries = [{"file": str(path), "id": j + 1, "timestamp": 10_000 * index + 10 * (j * 7 % count),
                "source": names[j % len(names)], "type": j % 3, "data": bytes([index, j]) * j * 40}
               for j in range(count)]
    marks = [{"file": str(path), "entry_id": 4 * k + 1, "timestamp": entries[4 * k]["timestamp"],
              "title": f"mark {k}", "comment": f"in file {index}", "payload": b"%d" % k}
             for k in range(index % 3)]
    with kl.LogFile.create(path, f"rig-{index % 2}", f"{index}.0", level=index % 2) as log:
        sources = {name: log.add_source(name, TYPES[name]) for name in names}
        for e in entries:
            log.log(sources[e["source"]], e["type"], e["data"], timestamp=e["timestamp"])
        for m in marks:
            log.add_bookmark(m["entry_id"], m["title"], m["comment"], m["payload"])
    times = [e["timestamp"] for e in entries]
    return {"path": str(path), "entries": count, "first_timestamp": min(times, default=None),
            "last_timestamp": max(times, default=None), "sources": names, "bookmarks": len(marks),
            "application": f"rig-{index % 2}", "application_version": f"{index}.0",
            "bytes": sum(len(e["data"]) for e in entries), "error": None}, entries, marks


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """Ten log files, with a text file at 3, at 7 a log file whose middle pages are zeroed and
    an empty file at the end."""
    folder = tmp_path_factory.mktemp("fleet")
    logs = [write_log(folder / f"run-{index:02}.log", index) for index in range(10)]
    (folder / "notes.txt").write_text("not a log file\n" * 100)
    with kl.LogFile.create(folder / "damaged.log", "rig-0", "1.0", level=0) as log:
        log.add_source("camera", 1)
        for j in range(200):
            log.log(1, 0, bytes([j]) * 300)
    with open(folder / "damaged.log", "r+b") as file:  # the file may have grown ahead of its pages
        file.seek(int.from_bytes(file.read(32)[28:32], "big") // 2 * 4096)
        file.write(bytes(2 * 4096))
    paths = [summary["path"] for summary, _, _ in logs]
    paths[3:3], paths[7:7] = [str(folder / "notes.txt")], [str(folder / "damaged.log")]
    (folder / "empty.log").touch()
    return paths + [str(folder / "empty.log")], logs


@pytest.fixture(scope="module")
def client():
    with distributed.Client(n_workers=2, threads_per_worker=1, processes=True,
                            dashboard_address=":0", set_as_default=False) as connected:
        yield connected


@pytest.mark.parametrize("scheduler", ["cluster", "local"])
def test_summarize_and_bookmarks_give_a_row_per_file_and_bookmark(files, client, scheduler):
    (paths, logs), client = files, client if scheduler == "cluster" else None
    rows = [{k: None if v is fleet.pandas.NA else v for k, v in row.items()}
            for frame in (fleet.summarize(paths, client), fleet.bookmarks(paths, client))
            for row in frame.to_dict("records")]
    foreign, damaged, empty = rows.pop(3), rows.pop(6), rows.pop(10)
    assert (foreign, bool(damaged["error"]), empty["error"]) == (
        {**dict.fromkeys(foreign), "path": paths[3], "error": NOT_A_LOG_FILE}, True,
        NOT_A_LOG_FILE)
    assert [row.pop("file_size") for row in rows[:10]] == list(map(page_bytes, (
        summary["path"] for summary, *_ in logs)))
    assert rows == [summary for summary, *_ in logs] + [m for *_, marks in logs for m in marks]
    assert fleet.bookmarks(paths, client).attrs["errors"][paths[3]] == NOT_A_LOG_FILE
    assert os.path.getsize(paths[-1]) == 0  # still empty: nothing was written to it


def page_bytes(path):
    with closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as database:
        return (database.execute("PRAGMA page_count").fetchone()[0]
                * database.execute("PRAGMA page_size").fetchone()[0])


@pytest.mark.parametrize("selection", [{}, {"sources": ["gnss"]}, {"sources": ["radar"]}, {
    "sources": ["lidar", "camera"], "types": [1, 2]}, {"source_types": [1], "types": [0]}])
def test_entries_selects_across_files(files, client, selection):
    (paths, logs), by_id = files, lambda entry: (entry["file"], entry["id"])
    bag = fleet.entries(paths, **selection, chunk=4, client=client)
    found = sorted(bag.compute(scheduler=client), key=by_id)
    assert [e for e in found if e["file"] != paths[7]] == sorted([
        e for _, entries, _ in logs for e in entries
        if e["source"] in selection.get("sources", [e["source"]])
        and e["type"] in selection.get("types", [e["type"]])
        and TYPES[e["source"]] in selection.get("source_types", [TYPES[e["source"]]])], key=by_id)
    damaged = [e["id"] for e in found if e["file"] == paths[7]]
    assert damaged == list(range(1, len(damaged) + 1))


def test_entries_as_a_frame_answer_dataframe_questions(files, client):
    (paths, logs) = files
    frame = fleet.entries(paths, sources=["gnss", "lidar"], frame=True)
    rows = frame.compute(scheduler=client)
    wanted = [e for _, entries, _ in logs for e in entries if e["source"] in ("gnss", "lidar")]
    assert frame.npartitions == len(paths)
    assert sorted(zip(rows.file, rows.id, rows.source, rows.type, rows.data,
                      rows.timestamp.astype("int64") // 10**6)) == sorted(
        (e["file"], e["id"], e["source"], e["type"], e["data"], e["timestamp"]) for e in wanted)
    bare = fleet.entries(paths, frame=True, payloads=False)
    per_minute = bare.groupby(["source", bare.timestamp.dt.floor("min")]).size()
    counts = per_minute.compute(scheduler=client)
    every = [e for _, entries, _ in logs for e in entries]
    assert counts.sum() == len(every) and "data" not in bare.columns
    assert dict(counts.groupby(level=0).sum()) == {
        name: sum(e["source"] == name for e in every) for name in TYPES}
