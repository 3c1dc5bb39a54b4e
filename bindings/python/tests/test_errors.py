"""Every failure reaches the caller as a LogError with the library's own message."""

from __future__ import annotations

import pytest
from conftest import record

import korvane_logging as kl


@pytest.fixture
def recording(tmp_path):
    """The messages do not depend on compression: one level is enough here."""
    return record(tmp_path / "recording.log", 6)

# (what fails, the library's message, whether it is a failed look-up)
FAILURES = [
    (lambda t: kl.LogFile.open(t.tmp / "missing.log"), "Log file does not exist.", False),
    (lambda t: kl.LogFile.create(t.recording.path, "app", "1"),
     "Cannot create file as file already exists.", False),
    (lambda t: kl.LogFile.create(t.tmp, "app", "1"),
     "Cannot create file as file already exists.", False),
    (lambda t: kl.LogFile.open(t.text_file), "This file is not in a supported log file format.",
     False),
    (lambda t: kl.LogFile.create(t.tmp / "new.log", "app", "1", level=10),
     "Invalid compression level, value must be in the range [0,9].", False),
    (lambda t: t.opened.add_source("late", 1),
     "Data sources cannot be added to pre-existing log files.", False),
    (lambda t: t.opened.add_property(t.recording.camera, "late", 1),
     "Data source properties cannot be added to pre-existing log files.", False),
    (lambda t: t.opened.log(t.recording.camera, 0, b"late"),
     "Data cannot be logged into pre-existing log files.", False),
    (lambda t: t.fresh.log(42, 0, b"nobody"),
     "Attempted to log data against a data source that did not exist in the file.", False),
    (lambda t: t.fresh.add_property(42, "key", 1),
     "Attempted to add a data source property for a data source that did not exist in the file.",
     False),
    (lambda t: t.opened.add_bookmark(999, "nowhere"), "Unknown internal error", False),
    (lambda t: t.opened.slice(2, 1, t.tmp / "slice.log"), "Failed to slice log file", False),
    (lambda t: t.opened.clone(t.recording.path), "Failed to clone log file", False),
    (lambda t: t.opened.read_entry(999), "The requested data entry does not exist.", True),
    (lambda t: t.opened.metadata["nothing"], "The requested metadata does not exist.", True),
    (lambda t: t.opened.resources["nothing"], "The requested resource does not exist.", True),
    (lambda t: t.opened.get_property(t.recording.camera, "nothing"),
     "The requested data source property does not exist.", True),
]


class Situation:
    """A recording opened again, a new writable file and a file that is no log file."""

    def __init__(self, recording, tmp):
        self.recording, self.tmp = recording, tmp
        self.opened = kl.LogFile.open(recording.path)
        self.fresh = kl.LogFile.create(tmp / "fresh.log", "app", "1")
        self.text_file = tmp / "notes.txt"
        self.text_file.write_text("not a database, only some words of text\n" * 20)


@pytest.mark.parametrize("action, message, lookup", FAILURES,
                         ids=[message for _, message, _ in FAILURES])
def test_failures_carry_the_library_message(recording, tmp_path, action, message, lookup):
    situation = Situation(recording, tmp_path)
    with situation.opened, situation.fresh:
        with pytest.raises(kl.LogError) as failure:
            action(situation)
        assert (str(failure.value), failure.value.message) == (message, message)
        assert isinstance(failure.value, KeyError) == lookup
        assert situation.opened.entry_count == len(recording.entries)
    assert not (tmp_path / "missing.log").exists() and not (tmp_path / "new.log").exists()
