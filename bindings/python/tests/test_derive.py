"""Slicing and cloning into new log files."""

from __future__ import annotations

import dataclasses

import pytest

import korvane_logging as kl


@pytest.mark.parametrize("first, last", [(1, 60), (10, 20), (35, 35)])
def test_slice_renumbers_the_range_and_keeps_the_rest(log, recording, tmp_path, first, last):
    marked = range(7, 61, 7)
    for entry_id in marked:
        log.add_bookmark(entry_id, f"mark {entry_id}", "", bytes([entry_id, 0]))
    with log.slice(first, last, tmp_path / "slice.log", level=0) as part:
        renumbered = [dataclasses.replace(entry, id=number)
                      for number, entry in enumerate(recording.entries[first - 1:last], 1)]
        assert part.read_entries() == renumbered
        assert part.bookmarks == [
            kl.Bookmark(entry_id - first + 1, f"mark {entry_id}", "", bytes([entry_id, 0]))
            for entry_id in marked if first <= entry_id <= last]
        assert part.sources == log.sources
        assert part.metadata["compressionLevel"] == 0
        assert part.metadata["applicationName"] == "recorder"
        assert "oldApplicationName" not in part.metadata
        with pytest.raises(kl.LogError, match="^Data cannot be logged into pre-existing"):
            part.log(recording.camera, 0, b"refused")


def test_clone_takes_new_entries_and_archives_the_old_identity(log, recording, tmp_path):
    with log.clone(tmp_path / "clone.log", app_name="converter", app_version="3") as copy:
        copy.log(recording.lidar, 5, b"appended", timestamp=1)
        assert copy.read_entries()[:-1] == recording.entries
        assert copy.read_entry(len(recording.entries) + 1) == kl.Entry(
            len(recording.entries) + 1, recording.lidar.id, 5, 1, b"appended")
        assert (copy.metadata["applicationName"], copy.metadata["oldApplicationName"],
                copy.metadata["oldApplicationVersion"]) == ("converter", "recorder", "2.1")
    assert log.entry_count == len(recording.entries)


@pytest.mark.parametrize("first, last", [(20, 10), (0, 5), (1, 61), (-1, 5)])
def test_slice_refuses_a_range_that_does_not_name_entries(log, tmp_path, first, last):
    with pytest.raises(kl.LogError) as failure:
        log.slice(first, last, tmp_path / "refused.log")
    assert failure.value.message == "Failed to slice log file"
    assert not (tmp_path / "refused.log").exists()
    assert log.read_entry(1).id == 1
