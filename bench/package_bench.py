#!/usr/bin/env python3
"""The Python package against the C++ library and against plain Python sqlite3, in one run:
entries/s of read_arrays, to_pandas and iter_entries against readEntries (C++) and a row loop
of sqlite3 (with python3-zstandard's decompression for a compressed file), and of log_many
against logEntries, for entries of 64 B, 4 KiB and 1 MiB at levels 0 and -1; and the peak
memory of read_arrays against the payload bytes it read. Ratios are baseline time over
package time, of the wall clock and of processor time; a target is judged on the latter.

    /usr/bin/python3 bench/package_bench.py --library build-release/src/libkorvane-logging.so

The C++ side is build-release/bench/package-compare-bench, which times the same files and
entries. Each measure is the median of --rounds, the sides taking turns. Not a test: run it
on a quiet machine.
"""

from __future__ import annotations

import os
import sqlite3
import statistics
import subprocess
import time
import tracemalloc
from contextlib import closing
from pathlib import Path

import package_bench_options

# (payload size, entries) of each file; the 64 B file is the size of the issue's.
SIZES = [(64, 200_000), (4096, 20_000), (1 << 20, 100)]
LEVELS = [0, -1]
BATCH = 1000
# The targets, as ratios to the baseline in the same run: (operation, size, baseline).
TARGETS = {("read_arrays", 64, "C++ readEntries"): 0.8, ("iter_entries", 64, "sqlite3"): 1.0,
           ("log_many", 64, "C++ logEntries"): 0.8}


def payload(entry: int, size: int) -> bytes:
    """Byte j is (entry + 31 j) mod 251, as package-compare-bench makes it."""
    period = bytes((entry + 31 * j) % 251 for j in range(251))
    return (period * (size // 251 + 1))[:size]


def median_time(run, rounds: int) -> tuple[float, float]:
    """The medians of the wall-clock and the processor seconds of `rounds` runs of `run`."""
    times = []
    for _ in range(rounds):
        wall, processor = time.perf_counter(), time.process_time()
        run()
        times.append((time.perf_counter() - wall, time.process_time() - processor))
    return tuple(statistics.median(column) for column in zip(*times))


def cpp(options, *args: str) -> tuple[float, float]:
    """The medians of the wall-clock and processor seconds of package-compare-bench's rounds."""
    lines = subprocess.run([str(options.cpp), *args], check=True, capture_output=True,
                           text=True).stdout.split("\n")
    rounds = [tuple(map(float, line.split())) for line in lines if line]
    return tuple(statistics.median(column) for column in zip(*rounds))


def sqlite_rows(path: Path, level: int) -> None:
    """Every entry's fields and uncompressed payload, as a user of plain sqlite3 reads them."""
    with closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as database:
        rows = database.execute(
            "SELECT entryId, timestamp, type, dataSourceId, payload FROM data ORDER BY entryId")
        if level == 0:
            for _ in rows:
                pass
            return
        import zstandard

        decompress = zstandard.ZstdDecompressor().decompress
        for entry_id, timestamp, kind, source, data in rows:
            decompress(data)


def main() -> int:
    def add_options(parser):
        parser.add_argument("--rounds", type=int, default=3)
        parser.add_argument("--cpp", type=Path,
                            default=Path("build-release/bench/package-compare-bench"))
        parser.add_argument("--quick", action="store_true", help="a tenth of the entries")

    options = package_bench_options.parse(__doc__.split("\n\n")[0], "package-bench", add_options)
    import korvane_logging as kl

    try:
        import zstandard  # noqa: F401
    except ImportError:
        zstandard = None
    options.dir.mkdir(parents=True, exist_ok=True)
    print(f"{options.rounds} rounds, medians; load average {os.getloadavg()[0]:.2f}")
    print(f"{'entries':>14} {'level':>5} {'operation':<13} {'package e/s':>12} "
          f"{'baseline':<20} {'base e/s':>12} {'ratio':>6} {'cpu':>6} {'target':>6}")
    results = []

    def report(size, count, level, operation, times, baseline, base_times):
        (seconds, processor), (base_seconds, base_processor) = times, base_times
        ratio, cpu_ratio = base_seconds / seconds, base_processor / processor
        target = TARGETS.get((operation, size, baseline))
        # The target is judged on processor time, which other work on the machine disturbs
        # least; the wall-clock ratio is shown beside it.
        verdict = ("" if target is None
                   else f"{target:6.2f}{'  below' if cpu_ratio < target else ''}")
        unit = f"{size} B" if size < 1024 else f"{size >> 10} KiB" if size < 1 << 20 else "1 MiB"
        label = f"{count} x {unit}"
        print(f"{label:>14} {level:>5} {operation:<13} {count / seconds:12,.0f} "
              f"{baseline:<20} {count / base_seconds:12,.0f} {ratio:6.2f} {cpu_ratio:6.2f} "
              f"{verdict}", flush=True)
        results.append(target is not None and cpu_ratio < target)

    for size, count in SIZES:
        count = max(10, count // 10) if options.quick else count
        for level in LEVELS:
            path = options.dir / f"{size}-{level}.log"
            payloads = [payload(i, size) for i in range(count)]

            def write():
                path.unlink(missing_ok=True)
                with kl.LogFile.create(path, "package-bench", "1", level=level) as log:
                    log.add_source("source", 1)
                    wall, processor = time.perf_counter(), time.process_time()
                    for first in range(0, count, BATCH):
                        chunk = payloads[first:first + BATCH]
                        log.log_many(sources=[1] * len(chunk), types=[1] * len(chunk),
                                     payloads=chunk, timestamps=range(first, first + len(chunk)))
                    return time.perf_counter() - wall, time.process_time() - processor

            rounds = [write() for _ in range(options.rounds)]
            written = tuple(map(statistics.median, zip(*rounds)))
            cpp_written = cpp(options, "write", str(options.dir / "cpp.log"), str(count),
                              str(size), str(level), str(BATCH), str(options.rounds))
            report(size, count, level, "log_many", written, "C++ logEntries", cpp_written)
            del payloads

            read_all = cpp(options, "read", str(path), str(options.rounds))
            with kl.LogFile.open(path, read_only=True) as log:
                log.to_pandas(last=1)  # NumPy and pandas are imported before the clock runs
                every = [("read_arrays", log.read_arrays), ("to_pandas", log.to_pandas),
                         ("iter_entries", lambda: sum(1 for _ in log.iter_entries()))]
                for operation, run in every:
                    report(size, count, level, operation, median_time(run, options.rounds),
                           "C++ readEntries", read_all)
                if level == 0 or zstandard is not None:
                    baseline = "sqlite3" + (" + zstandard" if level else "")
                    rows = median_time(lambda: sqlite_rows(path, level), options.rounds)
                    report(size, count, level, "iter_entries",
                           median_time(lambda: sum(1 for _ in log.iter_entries()),
                                       options.rounds), baseline, rows)
                tracemalloc.start()
                arrays = log.read_arrays()
                peak = tracemalloc.get_traced_memory()[1]
                tracemalloc.stop()
                read = arrays.payloads.nbytes
                print(f"{'':>14} {level:>5} read_arrays peak memory {peak / max(read, 1):.2f} x "
                      f"the {read:,} payload bytes read (target 1.50)")
                del arrays
    if zstandard is None:
        print("python3-zstandard is missing: no sqlite3 baseline for compressed files")
    print(f"load average after: {os.getloadavg()[0]:.2f}; {sum(results)} below target")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
