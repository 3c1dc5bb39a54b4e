"""The page of `korvane-log view` on a large recording, measured in headless Chromium.

view_bench.py BUILD_DIR [--entries N] [--live-seconds S]

Records N entries of 64 B over four sources at 1 kHz each (10 million by default) into
BUILD_DIR/view-bench/recording.kvlog unless a file of that size is there, then prints:
- the time from starting `korvane-log view` to a drawn timeline in the browser, and from opening
  the page once the server has counted the entries;
- the time to redraw after a zoom, from the wheel event to the drawing of the new bins, for views
  of the whole recording down to a tenth of a second;
- logData times of a recorder in another process at 1 kHz into a copy of the file, alone, while
  the page follows it, and from the start of `view` on, while it counts the entries; and how soon
  the page shows the recorder's last entry.
"""

import argparse
import json
import os
import shutil
import signal
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait


def browser(folder):
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                     "--disable-background-networking", "--disable-component-update",
                     "--disable-sync", "--no-first-run", "--window-size=1400,1000",
                     "--user-data-dir=" + tempfile.mkdtemp(dir=folder)):
        options.add_argument(argument)
    options.binary_location = shutil.which("chromium")
    return webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)


def entries_in(path):
    try:
        with sqlite3.connect(f"file:{path}?mode=ro", uri=True) as db:
            return db.execute("SELECT count(*) FROM data").fetchone()[0]
    except sqlite3.Error:
        return -1


def drawn(page, after):
    """Waits until the page has drawn bins for the first time after drawing number `after`;
    with `after` 0, until it has drawn the timeline of the whole file once it is counted."""
    ready = ("const d = document.body.dataset; return d.state === 'ready'"
             " && d.drawnVersion === d.version && +d.drawn > arguments[0]")
    WebDriverWait(page, 300, poll_frequency=0.01).until(lambda b: b.execute_script(ready, after))
    return int(page.execute_script("return document.body.dataset.drawn"))


def zoom_ms(page, factor_exponent):
    """Zooms by one wheel event at the middle of the lanes; the ms from the event to the drawing
    of the new view's bins."""
    before = int(page.execute_script("return document.body.dataset.drawn"))
    start = page.execute_script(
        "const lanes = document.getElementById('lanes');"
        "const box = lanes.getBoundingClientRect();"
        "const t0 = performance.now();"
        "lanes.dispatchEvent(new WheelEvent('wheel', {deltaY: arguments[0], bubbles: true,"
        " clientX: box.left + box.width / 2, clientY: box.top + 10})); return t0;",
        factor_exponent)
    drawn(page, before)
    return float(page.execute_script("return document.body.dataset.drawnAt")) - start


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--entries", type=int, default=10_000_000)
    parser.add_argument("--live-seconds", type=float, default=10)
    args = parser.parse_args()
    build = Path(args.build).resolve()
    tool = build / "tools/korvane-log/korvane-log"
    recorder = build / "bench/view/view-bench-recorder"
    folder = build / "view-bench"
    folder.mkdir(exist_ok=True)
    recording = folder / "recording.kvlog"

    if entries_in(recording) != args.entries:
        recording.unlink(missing_ok=True)
        print(f"recording {args.entries:,} entries of 64 B into {recording} ...", flush=True)
        made = json.loads(subprocess.run([recorder, "fill", recording, str(args.entries)],
                                         check=True, capture_output=True).stdout)
        print(f"  {made['seconds']:.1f} s, {recording.stat().st_size / 2**20:.0f} MiB")
    count = entries_in(recording)
    print(f"{count:,} entries, {recording.stat().st_size / 2**20:.0f} MiB; "
          f"load average {os.getloadavg()[0]:.1f}")

    page = browser(folder)
    server = None
    try:
        page.get("about:blank")
        started = time.monotonic()
        server = subprocess.Popen([tool, "view", recording, "--no-open"], stdout=subprocess.PIPE)
        url = server.stdout.readline().decode().strip()
        page.get(url)
        drawn(page, 0)
        first = time.monotonic() - started
        page.refresh()
        drawn(page, 0)
        reopened = float(page.execute_script("return document.body.dataset.drawnAt"))
        print(f"timeline drawn {first:.2f} s after starting view (counting included); "
              f"{reopened / 1000:.2f} s after opening the page once counted")

        print("redraw after one zoom of the wheel (ms, 5 runs): view span, median, max")
        page.execute_script("KV.timeline.showAll()")
        drawn(page, int(page.execute_script("return document.body.dataset.drawn")) - 1)
        while True:
            span = page.execute_script("return KV.timeline.view.to - KV.timeline.view.from")
            times = []
            for _ in range(5):
                times.append(zoom_ms(page, -1150))   # in by e^2.3, about 10 times
                times.append(zoom_ms(page, 1150))    # and out again
            print(f"  {span / 1000:>10.1f} s  {statistics.median(times):7.1f} {max(times):7.1f}")
            if span < 200:
                break
            zoom_ms(page, -1150)

        server.send_signal(signal.SIGINT)
        server.wait()
        server = None
        page.get("about:blank")
        # The recorder appends to a copy, so that the recording keeps its size for the next run.
        live = folder / "live.kvlog"
        shutil.copyfile(recording, live)
        print(f"recorder at 1 kHz, logData of 64 B appended to the same file, "
              f"{args.live_seconds:.0f} s (ms): p50, p99, max")
        for case in ("alone", "while the page follows", "while view counts, then"):
            if server:
                server.send_signal(signal.SIGINT)
                server.wait()
            if case != "alone":
                server = subprocess.Popen([tool, "view", live, "--no-open"],
                                          stdout=subprocess.PIPE)
                page.get(server.stdout.readline().decode().strip())
                if case == "while the page follows":
                    drawn(page, 0)
            result = json.loads(subprocess.run(
                [recorder, "live", live, str(args.live_seconds)], check=True,
                capture_output=True).stdout)
            ended = time.monotonic()
            line = (f"  {case:<24} {result['p50']:7.3f} {result['p99']:7.3f} "
                    f"{result['max']:7.1f}   failed {result['failed']}")
            if server:
                with sqlite3.connect(f"file:{live}?mode=ro", uri=True) as db:
                    first = db.execute("SELECT count(*) FROM data WHERE dataSourceId = "
                                       "(SELECT min(dataSourceId) FROM dataSources)").fetchone()[0]
                WebDriverWait(page, 60, poll_frequency=0.02).until(lambda b: b.execute_script(
                    "return document.querySelector('.lane-count').textContent") ==
                    f"{first:,} entries")
                line += f"; the page showed the last entry {time.monotonic() - ended:.2f} s later"
            print(line, flush=True)
    finally:
        if server:
            server.send_signal(signal.SIGINT)
            server.wait()
        page.quit()
        (folder / "live.kvlog").unlink(missing_ok=True)


if __name__ == "__main__":
    sys.exit(main())
