#!/usr/bin/env python3
"""How long the Python package keeps the library busy in one call when it reads a big file:
one call over the whole file (what a single KV_LogFile_ReadEntries does) against the chunks of
`iter_entries`, and the index statement that a filtered read starts with. The library holds a
read lock on the file for at most the length of one call, which is what a recorder in another
process may have to wait.

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
        for j in range(entries):
            log.log(sources[j % 4], 0, (b"%08d" % j) * 8, timestamp=j)
    done.touch()


def timed_calls(log, function: str) -> list[float]:
    """Replaces a library function of `log` by one that records how long each call takes."""
    durations: list[float] = []
    real = getattr(log._lib, function)

    def timed(*args):
        began = time.perf_counter()
        try:
            return real(*args)
        finally:
            durations.append(time.perf_counter() - began)

    setattr(log._lib, function, timed)
    return durations


def main() -> int:
    options = package_bench_options.parse(
        __doc__.split("\n\n")[0], "chunked-read-bench",
        lambda parser: parser.add_argument("--entries", type=int, default=1_000_000))
    import korvane_logging as kl
    from korvane_logging._reading import Selection

    path = options.dir / "big.log"
    write_file(path, options.entries)
    print(f"{options.entries} entries of 64 B in {path}, load average "
          f"{os.getloadavg()[0]:.2f}")
    with kl.LogFile.open(path) as log:
        whole = timed_calls(log, "KV_LogFile_ReadEntries")
        count = len(log._read_fields(1, options.entries, Selection.of((), (), ())))
        assert count == options.entries
        chunks = timed_calls(log, "KV_LogFile_ReadEntries")
        assert sum(1 for _ in log.iter_entries()) == options.entries
        chunks = list(chunks)  # the filtered read below adds calls of its own
        index = timed_calls(log, "KV_LogFile_GetEntryIndex")
        assert sum(1 for _ in log.iter_entries(sources=[1], chunk=1000)) == options.entries // 4
    print(f"one call over all entries:        {whole[0] * 1e3:9.1f} ms")
    print(f"iter_entries, {len(chunks)} calls: median {statistics.median(chunks) * 1e3:6.2f} ms, "
          f"longest {max(chunks) * 1e3:6.2f} ms")
    print(f"index of one source of four:      {index[0] * 1e3:9.1f} ms")
    print(f"load average after: {os.getloadavg()[0]:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
