"""A recorded log file with two sources, and the entries it is expected to hold."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import pytest

import korvane_logging as kl

CAMERA_TYPE, LIDAR_TYPE = 7, 9
ENTRY_COUNT = 60


def payload(index: int) -> bytes:
    """Bytes of varying length, NUL and high bytes among them; empty for every fifth entry."""
    return bytes((index * 7 + k) % 256 for k in range(index % 5 * 13))


@dataclass
class Recording:
    path: Path
    camera: kl.Source
    lidar: kl.Source
    entries: list[kl.Entry]


def record(path: Path, level: int) -> Recording:
    """Writes the file at compression `level`; every third entry is the lidar's."""
    entries = []
    with kl.LogFile.create(path, "recorder", "2.1", "Europe/Oslo", level=level) as log:
        camera = log.add_source("camera", CAMERA_TYPE)
        lidar = log.add_source("lidar", LIDAR_TYPE)
        for index in range(ENTRY_COUNT):
            source = lidar if index % 3 == 0 else camera
            entry = kl.Entry(index + 1, source.id, index % 4, 1_700_000_000_000 + 25 * index,
                             payload(index))
            log.log(source, entry.type, entry.data, timestamp=entry.timestamp)
            entries.append(entry)
    return Recording(path, camera, lidar, entries)


@pytest.fixture(params=[0, 6], ids=["stored", "compressed"])
def recording(tmp_path: Path, request: pytest.FixtureRequest) -> Recording:
    """A recording of its own for each test, stored or compressed."""
    return record(tmp_path / "recording.log", request.param)


@pytest.fixture
def log(recording: Recording):
    """The recording, opened again."""
    with kl.LogFile.open(recording.path) as opened:
        yield opened

