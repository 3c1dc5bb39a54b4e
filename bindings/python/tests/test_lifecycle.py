"""Closing, the finalizer, loading the library, and no growth of memory or descriptors."""

from __future__ import annotations

import gc
import os

import pytest

import korvane_logging as kl


def open_descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def resident_bytes() -> int:
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def test_with_block_closes_the_file_and_records_outlive_it(recording):
    before = open_descriptors()
    with pytest.raises(RuntimeError), kl.LogFile.open(recording.path) as log:
        entry, bookmarks = log.read_entry(2), log.bookmarks
        raise RuntimeError("leaves the block")
    assert log.closed and open_descriptors() == before
    assert (entry, bookmarks) == (recording.entries[1], [])
    log.close()
    with pytest.raises(ValueError, match="closed"):
        log.read_entry(2)


def test_a_dropped_file_is_closed_by_its_finalizer(tmp_path):
    before = open_descriptors()
    log = kl.LogFile.create(tmp_path / "dropped.log", "app", "1")
    log.log(log.add_source("s", 1), 1, b"kept")
    assert open_descriptors() > before
    del log
    gc.collect()
    assert open_descriptors() == before
    with kl.LogFile.open(tmp_path / "dropped.log") as again:
        assert again.read_entry(1).data == b"kept"


def test_an_explicit_path_comes_before_the_environment(monkeypatch, recording):
    built = os.environ["KORVANE_LOGGING_LIBRARY"]
    monkeypatch.setenv("KORVANE_LOGGING_LIBRARY", "/nonexistent/libkorvane-logging.so")
    try:
        with pytest.raises(OSError, match="nonexistent"):
            kl.load()
        kl.load(built)
        with kl.LogFile.open(recording.path) as log:
            assert log.entry_count == len(recording.entries)
    finally:
        kl.load(built)


def cycle(directory, round_number: int) -> None:
    """One round of everything that hands out handles, on a file of its own."""
    big = bytes(range(256)) * 64
    path = directory / f"round{round_number}.log"
    with kl.LogFile.create(path, "app", "1", level=1) as log:
        sources = [log.add_source("a", 1), log.add_source("b", 2)]
        log.add_property(sources[0], "k", 1.5)
        for index in range(40):
            log.log(sources[index % 2], index % 3, big)
        log.add_metadata("round", round_number)
        log.add_resource("blob", big * 4)
        log.add_bookmark(5, "five", "comment", big)
        assert len(log.read_entries(types=[1])) == 13
        assert log.entry_index(sources=[sources[1]])[0] == 2
        dict(log.metadata), dict(log.resources), log.bookmarks, log.properties(), log.sources
        with pytest.raises(kl.NotFoundError):
            log.read_entry(999)
        with log.slice(2, 30, directory / f"slice{round_number}.log") as part:
            assert len(part.read_entries()) == 29
    for written in directory.glob(f"*{round_number}.log"):
        written.unlink()


def test_repeated_use_does_not_grow_memory_or_descriptors(tmp_path):
    for round_number in range(5):
        cycle(tmp_path, round_number)
    gc.collect()
    descriptors, memory = open_descriptors(), resident_bytes()
    for round_number in range(5, 35):
        cycle(tmp_path, round_number)
    gc.collect()
    assert open_descriptors() == descriptors
    # A leaked handle per entry read would add over 20 MB here.
    assert resident_bytes() - memory < 12 * 1024 * 1024
