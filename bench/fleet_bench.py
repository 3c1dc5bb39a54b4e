#!/usr/bin/env python3
"""Times korvane_logging.fleet over many files on a local Dask cluster of one and of two worker
processes: `summarize` of every file, and `entries` of one source with their bytes counted.

Run it with an interpreter that has Dask (Debian's /usr/bin/python3 with python3-dask and
python3-distributed), on a quiet machine, from the top of the source tree:

    /usr/bin/python3 bench/fleet_bench.py --library build-release/src/libkorvane-logging.so

The files are written once into --dir and kept for the next run. The two clusters run side by
side and take turns, so that a change of load touches both; the load average is printed with
each figure. Not a test: it asserts only that every file was read.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
import time
from pathlib import Path

import package_bench_options

SOURCES = [("camera", 1, 160), ("gnss", 2, 48), ("imu", 3, 32), ("lidar", 4, 160)]
"""Name, source type and payload bytes of each source; entries take turns among them."""


def write_files(folder: Path, files: int, entries: int) -> list[str]:
    """`files` log files of `entries` entries each; kept files of the same shape are reused."""
    import korvane_logging as kl

    folder.mkdir(parents=True, exist_ok=True)
    shape = folder / f"complete-{files}x{entries}"
    paths = [str(folder / f"run-{index:04}.log") for index in range(files)]
    if shape.exists():
        return paths
    for stale in folder.glob("*"):
        stale.unlink()
    for index, path in enumerate(paths):
        with kl.LogFile.create(path, "fleet-bench", f"{index % 5}.0", level=1) as log:
            sources = [log.add_source(name, kind) for name, kind, _ in SOURCES]
            for j in range(entries):
                source, (_, _, size) = sources[j % 4], SOURCES[j % 4]
                log.log(source, j % 3, (b"%08d" % j) * (size // 8), timestamp=1_700_000_000_000
                        + 10 * j)
            log.add_bookmark(entries // 2, "half way")
    shape.touch()
    return paths


def peak_memory(**_: object) -> int:
    """The peak resident memory of this worker process, in KiB."""
    import resource

    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss


def main() -> int:
    def add_options(parser: argparse.ArgumentParser) -> None:
        parser.add_argument("--files", type=int, default=200)
        parser.add_argument("--entries", type=int, default=10_000)
        parser.add_argument("--repeat", type=int, default=3)

    options = package_bench_options.parse(__doc__.split("\n\n")[0], "fleet-bench",
                                          add_options)
    from distributed import Client, LocalCluster

    from korvane_logging import fleet

    started = time.perf_counter()
    paths = write_files(options.dir, options.files, options.entries)
    print(f"{len(paths)} files of {options.entries} entries in {options.dir} "
          f"({time.perf_counter() - started:.1f} s to make or find)")

    clusters = {workers: LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                      dashboard_address=":0") for workers in (1, 2)}
    clients = {workers: Client(cluster, set_as_default=False)
               for workers, cluster in clusters.items()}
    summaries: dict[int, list[float]] = {1: [], 2: []}
    reads: dict[int, list[float]] = {1: [], 2: []}
    loads: list[float] = []
    counted = 0
    try:
        for client in clients.values():  # workers import the package and load the library
            fleet.summarize(paths[:4], client=client)
        for _ in range(options.repeat):
            for workers, client in clients.items():
                loads.append(os.getloadavg()[0])
                began = time.perf_counter()
                frame = fleet.summarize(paths, client=client)
                summaries[workers].append(time.perf_counter() - began)
                assert frame["error"].isna().all() and frame["entries"].sum() == (
                    options.files * options.entries)
                began = time.perf_counter()
                bag = fleet.entries(paths, sources=["gnss"], client=client)
                counted = bag.pluck("data").map(len).sum().compute(scheduler=client)
                reads[workers].append(time.perf_counter() - began)
                loads.append(os.getloadavg()[0])
        memory = {workers: max(client.run(peak_memory).values())
                  for workers, client in clients.items()}
    finally:
        for workers in clients:
            clients[workers].close()
            clusters[workers].close()

    total = options.files * options.entries
    assert counted == total // 4 * SOURCES[1][2]
    print(f"load average (1 min) during the runs: {min(loads):.2f} to {max(loads):.2f}")
    print(f"{'workers':>7} {'summarize s':>12} {'entries/s':>11} {'gnss entries s':>15} "
          f"{'gnss MB/s':>10} {'peak worker RSS MiB':>20}")
    for workers in (1, 2):
        summary, read = statistics.median(summaries[workers]), statistics.median(reads[workers])
        print(f"{workers:>7} {summary:>12.2f} {total / summary:>11.0f} {read:>15.2f} "
              f"{counted / read / 1e6:>10.1f} {memory[workers] / 1024:>20.0f}")
    print(f"gnss: {total // 4} entries, {counted} bytes counted")
    print(f"two workers against one: summarize x"
          f"{statistics.median(summaries[1]) / statistics.median(summaries[2]):.2f}, "
          f"entries x{statistics.median(reads[1]) / statistics.median(reads[2]):.2f} "
          f"(medians of {options.repeat})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
