#!/usr/bin/env python3
"""How long the Python package keeps the library busy in one call when it reads a big file:
the calls of `read_arrays` (up to 16384 entries each), of `iter_entries` (up to 1000) and of
a filtered `iter_entries` (one source of four). The library holds a read lock on the file for
at most the length of one call, which is what a recorder in another process may have to
wait.

    /usr/bin/python3 bench/chunked_read_bench.py --library build-release/src/libkorvane-logging.so

The file (--entries of 64 bytes over four sources) is written once into --dir and kept.
Not a test: run it on a quiet machine.
"""

from __future__ import annotations

import os
import statistics
import sys
import time
from pathlib import Path

import package_bench_options


def write_file(path: Path, entries: int) -> None:
    import korvane_logging as kl

    done = path.with_suffix(f".complete-{entries}")
    if done.exists():
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    with kl.LogFile.create(path, "chunked-read-bench", "1", level=0) as log:
        sources = [log.add_source(name, kind) for kind, name in enumerate("abcd")]
        for first in range(0, entries, 10_000):
            log.log_many((sources[j % 4], 0, (b"%08d" % j) * 8, j)
                         for j in range(first, min(entries, first + 10_000)))
    done.touch()


def timed_calls(log, function: str) -> list[float]:
    """Replaces a library function of `log` by one that records how long each call takes."""
    durations: list[float] = []
    real = getattr(log._lib, function)
    real = getattr(real, "real", real)  # time afresh what an earlier call timed

    def timed(*args):
        began = time.perf_counter()
        try:
            return real(*args)
        finally:
            durations.append(time.perf_counter() - began)

    timed.real = real
    setattr(log._lib, function, timed)
    return durations


def main() -> int:
    options = package_bench_options.parse(
        __doc__.split("\n\n")[0], "chunked-read-bench",
        lambda parser: parser.add_argument("--entries", type=int, default=1_000_000))
    import korvane_logging as kl

    path = options.dir / "big.log"
    write_file(path, options.entries)
    print(f"{options.entries} entries of 64 B in {path}, load average "
          f"{os.getloadavg()[0]:.2f}")
    with kl.LogFile.open(path, read_only=True) as log:
        arrays = timed_calls(log, "KVX_ReadColumns")
        assert len(log.read_arrays().ids) == options.entries
        chunks = timed_calls(log, "KVX_ReadColumns")
        assert sum(1 for _ in log.iter_entries()) == options.entries
        filtered = timed_calls(log, "KVX_ReadColumns")
        assert sum(1 for _ in log.iter_entries(sources=[1])) == options.entries // 4
    for name, calls in [("read_arrays", arrays), ("iter_entries", chunks),
                        ("iter_entries, one source of four", filtered)]:
        print(f"{name}, {len(calls)} calls: median {statistics.median(calls) * 1e3:6.2f} ms, "
              f"longest {max(calls) * 1e3:6.2f} ms")
    print(f"load average after: {os.getloadavg()[0]:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
