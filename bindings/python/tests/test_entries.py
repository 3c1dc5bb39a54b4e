"""Recording from two sources and reading the entries back, whole and filtered."""

from __future__ import annotations

import shutil
import sqlite3
import time
from contextlib import closing

import pytest
from conftest import CAMERA_TYPE, ENTRY_COUNT, LIDAR_TYPE, Recording, record

import korvane_logging as kl


@pytest.fixture(scope="module", params=[0, 6], ids=["stored", "compressed"])
def recording(tmp_path_factory: pytest.TempPathFactory, request) -> Recording:
    """One recording for the whole module: these tests only read it."""
    return record(tmp_path_factory.mktemp("entries") / "recording.log", request.param)


@pytest.fixture(scope="module")
def log(recording: Recording):
    with kl.LogFile.open(recording.path) as opened:
        yield opened


def expected(recording: Recording, first: int = -1, last: int = -1, types=(), sources=(),
             source_types=(), limit: int = -1) -> list[kl.Entry]:
    """What a read should give, worked out from the entries as they were logged."""
    kinds = {recording.camera.id: CAMERA_TYPE, recording.lidar.id: LIDAR_TYPE}
    names = {"camera": recording.camera.id, "lidar": recording.lidar.id}
    selected = [entry for entry in recording.entries
                if (first == -1 or entry.id >= first) and (last == -1 or entry.id <= last)
                and (not types or entry.type in types)
                and (not sources or entry.source_id in {names[name] for name in sources})
                and (not source_types or kinds[entry.source_id] in source_types)]
    return selected if limit == -1 else selected[:limit]


SELECTIONS = [
    {},
    {"types": [1]},
    {"types": [0, 3, 3]},
    {"sources": ["lidar"]},
    {"sources": ["camera", "lidar"]},
    {"source_types": [CAMERA_TYPE]},
    {"types": [2], "source_types": [LIDAR_TYPE]},
    {"types": [99]},
]
RANGES = [{}, {"first": 10, "last": 20}, {"first": 55}, {"last": 1}, {"limit": 4},
          {"first": 7, "last": 40, "limit": 3}, {"limit": 0}]


def with_sources(recording: Recording, selection: dict) -> dict:
    sources = {"camera": recording.camera, "lidar": recording.lidar}
    return {**selection, "sources": [sources[name] for name in selection.get("sources", ())]}


@pytest.mark.parametrize("window", RANGES)
@pytest.mark.parametrize("selection", SELECTIONS)
def test_read_entries_matches_what_was_logged(log, recording, selection, window):
    entries = log.read_entries(**with_sources(recording, selection), **window)
    assert entries == expected(recording, **selection, **window)


def count_entries_per_read(monkeypatch: pytest.MonkeyPatch, log: kl.LogFile) -> list[int]:
    """Spies on the library's ReadEntries: the number of entries each call delivers."""
    counts: list[int] = []
    read = log._lib.KV_LogFile_ReadEntries

    def spy(file, first, last, selection, limit, callback, user_data):
        counts.append(0)

        def counted(data, handle):
            counts[-1] += 1
            callback(data, handle)

        relay = type(callback)(counted)
        return read(file, first, last, selection, limit, relay, user_data)

    monkeypatch.setattr(log._lib, "KV_LogFile_ReadEntries", spy)
    return counts


@pytest.mark.parametrize("missing", [(), (1, 8, 9, 10, 11, 12, 13, 14, 15, 33, ENTRY_COUNT)],
                         ids=["whole", "with-gaps"])
@pytest.mark.parametrize("selection", SELECTIONS)
def test_iteration_reads_a_few_entries_per_call(recording, selection, missing, tmp_path,
                                                monkeypatch):
    # Ids missing from a file (written elsewhere) make the reader consult the index.
    path = tmp_path / "copy.log"
    shutil.copy(recording.path, path)
    with closing(sqlite3.connect(path)) as database, database:
        database.executemany("DELETE FROM data WHERE entryId = ?", [(i,) for i in missing])
    kept = Recording(path, recording.camera, recording.lidar,
                     [entry for entry in recording.entries if entry.id not in missing])
    with kl.LogFile.open(path) as log:
        counts = count_entries_per_read(monkeypatch, log)
        entries = list(log.iter_entries(first=3, chunk=7, **with_sources(kept, selection)))
    assert entries == expected(kept, first=3, **selection)
    assert max(counts, default=0) <= 7


@pytest.mark.parametrize("selection", SELECTIONS)
def test_entry_index_lists_the_selected_ids(log, recording, selection):
    ids = [entry.id for entry in expected(recording, **selection)]
    assert log.entry_index(**with_sources(recording, selection)) == ids


@pytest.mark.parametrize("entry_id", [1, 2, 31, ENTRY_COUNT])
def test_read_entry_gives_the_logged_entry(log, recording, entry_id):
    assert log.read_entry(entry_id) == recording.entries[entry_id - 1]


def test_sources_and_counts(log, recording):
    assert log.sources == [recording.camera, recording.lidar]
    assert (recording.camera.name, recording.camera.type) == ("camera", CAMERA_TYPE)
    counts = (log.entry_count, log.first_entry_id, log.last_entry_id)
    assert counts == (ENTRY_COUNT, 1, ENTRY_COUNT)


def test_a_file_without_entries_reads_as_empty(tmp_path):
    with kl.LogFile.create(tmp_path / "empty.log", "app", "1") as log:
        assert (log.entry_count, log.first_entry_id, log.last_entry_id) == (0, None, None)
        assert (log.read_entries(), log.entry_index(), log.sources, log.properties()) == (
            [], [], [], [])


def test_an_entry_without_timestamp_is_stamped_now(tmp_path):
    with kl.LogFile.create(tmp_path / "now.log", "app", "1") as log:
        before = int(time.time() * 1000)
        log.log(log.add_source("clock", 1), 0, b"tick")
        after = int(time.time() * 1000)
        assert before <= log.read_entry(1).timestamp <= after
