"""Following a log file while a recorder in another process writes it."""

from __future__ import annotations

import os
import subprocess
import sys
from itertools import islice

import pytest

import korvane_logging as kl

# Logs `old` entries, says "ready", waits for a line, then logs `new` more. Entry i (counting
# from 0, so its id is i + 1) comes from "even" (type 1) or "odd" (type 2) by its parity.
RECORDER = r"""
import sys
import korvane_logging as kl
path, old, new = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
with kl.LogFile.create(path, "recorder", "1", level=1) as log:
    sources = [log.add_source("even", 1), log.add_source("odd", 2)]
    for i in range(old + new):
        if i == old:
            print("ready", flush=True)
            sys.stdin.readline()
        log.log(sources[i % 2], i % 3, b"entry %d" % i, timestamp=1000 + i)
"""
OLD, NEW = 20, 300


def test_follow_sees_every_new_entry_in_order(tmp_path):
    path = tmp_path / "live.log"
    recorder = subprocess.Popen([sys.executable, "-c", RECORDER, str(path), str(OLD), str(NEW)],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert recorder.stdout.readline() == "ready\n"
        with kl.LogFile.open(path) as log:
            new = log.follow(interval=0.002, idle_timeout=60)
            odd = log.follow(first=1, source_types=[2], interval=0.002, idle_timeout=60)
            recorder.stdin.write("go\n")
            recorder.stdin.flush()
            seen = list(islice(new, NEW))
            seen_odd = list(islice(odd, (OLD + NEW) // 2))
            assert recorder.wait(timeout=60) == 0
            assert list(log.follow(idle_timeout=0)) == []
            (tmp_path / "other").write_bytes(b"another file")
            os.replace(tmp_path / "other", path)
            with pytest.raises(kl.LogError, match="replaced"):
                next(new)
    finally:
        recorder.kill()
        recorder.wait()
    assert [(entry.id, entry.data) for entry in seen] == [
        (i + 1, b"entry %d" % i) for i in range(OLD, OLD + NEW)]
    assert [(entry.id, entry.type) for entry in seen_odd] == [
        (i + 1, i % 3) for i in range(1, OLD + NEW, 2)]
