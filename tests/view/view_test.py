"""Tests of `korvane-log view` and `report`: its server over HTTP, and its page in headless
Chromium as a person would see it. view_test.py PATH-TO-KORVANE-LOG [unittest options]."""

import base64
import datetime
import http.client
import json
import os
import random
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import zlib
from pathlib import Path
from zoneinfo import ZoneInfo

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

T0 = 1_700_000_000_000  # 2023-11-14T22:13:20Z
ZONE = "Asia/Kolkata"   # +05:30: times on the page must be shown in it
GAP = (10_000, 14_000)  # imu delivers nothing in this stretch
HOSTILE = '<img src=x onerror="window.__pwned=1">'
BREAKOUT = '</script><script>window.__pwned=2</script>'


def png(width=4, height=3):
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data
                + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF))
    rows = b"".join(b"\0" + bytes([200, 40, 40] * width) for _ in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2,
                                                                 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def drive_entries():
    """imu at 200 Hz with a pause, gnss at 1 Hz, camera at 5 Hz with a PNG at 15 s; in time
    order, so that entry i gets id i + 1."""
    rng = random.Random(5)
    entries = [("imu", 1, 10, t, rng.randbytes(24)) for t in range(0, 30_000, 5)
               if not GAP[0] <= t < GAP[1]]
    entries += [("gnss", 2, 20, t, rng.randbytes(40)) for t in range(0, 30_000, 1000)]
    entries += [("camera", 3, 30, t, png() if t == 15_000 else rng.randbytes(100 + t % 200))
                for t in range(0, 30_000, 200)]
    entries.sort(key=lambda e: e[3])
    return [{"id": i + 1, "source": s, "sourceType": st, "type": ty, "timestamp": T0 + t,
             "data": d} for i, (s, st, ty, t, d) in enumerate(entries)]


def line(entry):
    return json.dumps({key: entry[key] for key in ("source", "sourceType", "type", "timestamp")}
                      | {"data": base64.b64encode(entry["data"]).decode()}).encode() + b"\n"


def tool(*args, stdin=b"", env=None):
    result = subprocess.run([TOOL, *map(str, args)], input=stdin, capture_output=True,
                            timeout=60, env=env)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


def must(*args, **kwargs):
    code, out, err = tool(*args, **kwargs)
    assert code == 0, f"korvane-log {args}: {err}"
    return out


def record(path, entries, zone=ZONE):
    must("record", path, stdin=b"".join(map(line, entries)), env=os.environ | {"TZ": zone})


class Server:
    """A running `korvane-log view`; its address is the first line it prints."""

    def __init__(self, path, *args):
        self.process = subprocess.Popen([TOOL, "view", str(path), "--no-open", *args],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.url = self.process.stdout.readline().decode().strip()
        assert self.url.startswith("http://"), self.process.stderr.read().decode()
        self.host, self.port = self.url[7:-1].rsplit(":", 1)
        while self.json("/api/live")["state"] == "counting":
            time.sleep(0.02)

    def get(self, path, method="GET", headers=None):
        connection = http.client.HTTPConnection(self.host, int(self.port), timeout=30)
        connection.request(method, path, headers=headers or {})
        try:
            response = connection.getresponse()
            return response.status, dict(response.getheaders()), response.read()
        finally:
            connection.close()

    def json(self, path):
        status, _, body = self.get(path)
        assert status == 200, (path, status, body)
        return json.loads(body)

    def stop(self):
        """Ends the server as Ctrl-C does; its exit code. A sanitizer's report fails the test."""
        self.process.send_signal(signal.SIGINT)
        code = self.process.wait(timeout=20)
        errors = self.process.stderr.read().decode(errors="replace")
        self.process.stdout.close()
        self.process.stderr.close()
        assert "Sanitizer" not in errors, errors
        return code


def browser():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                     "--disable-background-networking", "--disable-component-update",
                     "--disable-sync", "--no-first-run", "--window-size=1400,1200",
                     "--user-data-dir=" + tempfile.mkdtemp(dir=WORK)):
        options.add_argument(argument)
    options.binary_location = shutil.which("chromium")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)


def shown(ms):
    return datetime.datetime.fromtimestamp(ms / 1000, ZoneInfo(ZONE)).strftime(
        "%Y-%m-%d %H:%M:%S.") + f"{ms % 1000:03d}"


class ViewTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.entries = drive_entries()
        cls.drive = WORK / "drive.kvlog"
        record(cls.drive, cls.entries)
        cls.brake = next(e for e in cls.entries
                         if e["source"] == "imu" and e["timestamp"] == T0 + 5000)
        cls.frame = next(e for e in cls.entries if e["data"][:4] == b"\x89PNG")
        (WORK / "thumb.png").write_bytes(png(8, 6))
        (WORK / "calib.json").write_bytes(b'{"fx": 512}')
        for args in (("bookmarks", cls.drive, "add", cls.brake["id"], "Brake test", "hard stop"),
                     ("bookmarks", cls.drive, "add", cls.frame["id"], "Camera frame", "a PNG"),
                     ("meta", cls.drive, "set", "vehicle", "car 7"),
                     ("resources", cls.drive, "add", "calib.json", WORK / "calib.json"),
                     ("thumbnail", cls.drive, "set", WORK / "thumb.png")):
            must(*args)
        cls.server = Server(cls.drive)
        cls.browser = browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        assert cls.server.stop() == 0

    def counted(self, source=None, lo=-2**62, hi=2**62):
        return [e for e in self.entries if (source is None or e["source"] == source)
                and lo <= e["timestamp"] < hi]

    def open(self, url):
        self.browser.get(url)
        WebDriverWait(self.browser, 20).until(lambda b: b.execute_script(
            "const d = document.body.dataset;"
            "return d.state === 'ready' && d.drawnVersion === d.version"))
        return self.browser

    # What the page shows, read in one step: the page may redraw between two reads.
    def lanes(self):
        return [tuple(lane) for lane in self.browser.execute_script(
            "return [...document.querySelectorAll('.lane-label')].map(l => ["
            "l.querySelector('.lane-name').textContent,"
            "l.querySelector('.lane-count').textContent])")]

    def table(self, table_id):
        return self.browser.execute_script(
            "return [...document.querySelectorAll(`#${arguments[0]} tbody tr`)].map("
            "r => [...r.cells].map(c => c.textContent))", table_id)

    def test_answers_only_its_own_gets_on_loopback(self):
        server = self.server
        self.assertEqual(server.host, "127.0.0.1")
        status, headers, body = server.get("/")
        self.assertEqual((status, headers["Content-Type"]), (200, "text/html; charset=utf-8"))
        self.assertIn("script-src 'self'", headers["Content-Security-Policy"])
        self.assertIn(b'<script src="page.js">', body)
        for method, path, host, expected in [
                ("GET", "/etc/passwd", None, 404), ("GET", "/../../etc/passwd", None, 404),
                ("GET", "/api/summary/", None, 404), ("GET", str(self.drive), None, 404),
                ("POST", "/api/summary", None, 405), ("HEAD", "/", None, 405),
                ("PUT", "/view.css", None, 405), ("DELETE", "/", None, 405),
                ("GET", "/", "evil.example:" + server.port, 403),
                ("GET", "/", "127.0.0.1.evil.example:" + server.port, 403),
                ("GET", "/", "[::1]:" + server.port, 200),
                ("GET", "/", "localhost:" + server.port, 200),
                ("GET", "/api/bins?from=5&to=5&bins=3", None, 400),
                ("GET", "/api/bins?from=x&to=9&bins=3", None, 400),
                ("GET", "/api/entries?at=1&source=300", None, 400),
                ("GET", "/api/payload?id=999999", None, 404),
                ("GET", "/api/resource?name=nothing", None, 404)]:
            status, headers, _ = server.get(path, method, {"Host": host} if host else None)
            self.assertEqual(status, expected, (method, path, host))
            self.assertEqual(headers.get("X-Content-Type-Options"), "nosniff", path)
        outside = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            outside.connect(("10.255.255.255", 1))  # no packet is sent: only picks an address
            address = outside.getsockname()[0]
        except OSError:
            address = "127.0.0.1"
        finally:
            outside.close()
        if not address.startswith("127."):
            with self.assertRaises(OSError):
                socket.create_connection((address, int(server.port)), timeout=3).close()

    def test_serves_counts_entries_and_bytes_as_the_file_holds_them(self):
        summary = self.server.json("/api/summary")
        lanes = {s["name"]: (s["count"], s["gaps"], s["usualInterval"])
                 for s in summary["sources"]}
        imu = (len(self.counted("imu")), [[T0 + GAP[0] - 5, T0 + GAP[1]]], 5)
        self.assertEqual(lanes, {"imu": imu,
                                 "gnss": (30, [], 1000), "camera": (150, [], 200)})
        ids = {s["name"]: s["id"] for s in summary["sources"]}
        for lo, hi, bins in [(T0 - 5000, T0 + 35_000, 400), (T0 + 9_950, T0 + 10_050, 300),
                             (T0 + 14_990, T0 + 15_010, 7), (T0 + 2_001, T0 + 2_003, 50)]:
            answer = self.server.json(f"/api/bins?from={lo}&to={hi}&bins={bins}")
            self.assertLessEqual(answer["count"], bins)
            for source in answer["sources"]:
                name = next(n for n, i in ids.items() if i == source["id"])
                expected = [len(self.counted(name, answer["from"] + i * answer["width"],
                                             answer["from"] + (i + 1) * answer["width"]))
                            for i in range(answer["count"])]
                self.assertEqual(source["counts"], expected, (name, lo, hi, bins))
        for source, at in [("imu", T0 + 5000), ("imu", T0 + 12_000), (None, T0 + 15_000)]:
            query = f"/api/entries?at={at}&count=10" + (f"&source={ids[source]}" if source else "")
            got = [e["id"] for e in self.server.json(query)["entries"]]
            before = [e["id"] for e in self.counted(source) if e["timestamp"] < at][-5:]
            after = [e["id"] for e in self.counted(source) if e["timestamp"] >= at][:5]
            self.assertEqual(got, before + after, query)
        status, headers, body = self.server.get(f"/api/payload?id={self.frame['id']}")
        self.assertEqual((status, body), (200, self.frame["data"]))
        self.assertEqual(headers["Content-Type"], "application/octet-stream")
        self.assertIn("attachment", headers["Content-Disposition"])
        self.assertEqual(self.server.get("/api/resource?name=calib.json")[2], b'{"fx": 512}')
        self.assertEqual(self.server.get("/api/thumbnail")[1]["Content-Type"], "image/png")

    def test_page_shows_lanes_gaps_bookmarks_and_tables(self):
        page = self.open(self.server.url)
        self.assertEqual(self.lanes(), [("imu", f"{len(self.counted('imu')):,} entries"),
                                        ("gnss", "30 entries"), ("camera", "150 entries")])
        self.assertEqual(self.table("gaps-table"),
                         [["imu", shown(T0 + GAP[0] - 5), "4.005 s", shown(T0 + GAP[1]), "5 ms"]])
        self.assertEqual(self.table("bookmarks-table"),
                         [[str(self.brake["id"]), shown(T0 + 5000), "Brake test", "hard stop"],
                          [str(self.frame["id"]), shown(T0 + 15_000), "Camera frame", "a PNG"]])
        self.assertIn(["vehicle", "car 7", "string"], self.table("metadata-table"))
        self.assertIn(["currentTimeZone", ZONE, "string"], self.table("metadata-table"))
        self.assertEqual(self.table("resources-table")[0][:2], ["calib.json", "11 B"])
        thumbnail = page.find_element(By.CSS_SELECTOR, "#thumbnail img")
        self.assertEqual(page.execute_script("return arguments[0].naturalWidth", thumbnail), 8)
        # The bins drawn for the whole view hold every entry of every lane.
        drawn = page.execute_script(
            "return KV.timeline.bins.sources.map(s => s.counts.reduce((a, b) => a + b))")
        self.assertEqual(drawn, [len(self.counted(n)) for n in ("imu", "gnss", "camera")])
        # Hovering over a bookmark's marker tells its title and comment.
        lanes = page.find_element(By.ID, "lanes")
        view_from, view_to = (float(page.execute_script(f"return document.body.dataset.{k}"))
                              for k in ("viewFrom", "viewTo"))
        x = (T0 + 5000 - view_from) / (view_to - view_from) * lanes.size["width"]
        ActionChains(page).move_to_element_with_offset(
            lanes, int(x - lanes.size["width"] / 2), 30 - lanes.size["height"] // 2).perform()
        tooltip = page.find_element(By.ID, "tooltip")
        WebDriverWait(page, 5).until(lambda _: tooltip.is_displayed())
        self.assertEqual(tooltip.text.split("\n")[:2], ["Brake test", "hard stop"])
        # Zooming in with the wheel redraws the lanes from fresh bins of the narrower view.
        drawn_before = page.execute_script("return document.body.dataset.drawn")
        page.execute_script("const box = arguments[0].getBoundingClientRect();"
                            "arguments[0].dispatchEvent(new WheelEvent('wheel', {deltaY: -400,"
                            "clientX: box.left + 300, clientY: box.top + 10, bubbles: true}))",
                            lanes)
        WebDriverWait(page, 10).until(lambda b: b.execute_script(
            "return document.body.dataset.drawn") != drawn_before)
        view_from, view_to = (float(page.execute_script(f"return document.body.dataset.{k}"))
                              for k in ("viewFrom", "viewTo"))
        self.assertLess(view_to - view_from, 30_000 / 2)
        # Dragging the lanes pans by as much time as the pointer moved; dragging over the time
        # axis zooms to the span it covered.
        width, height = lanes.size["width"], lanes.size["height"]
        for start, end, y, expected in [
                (0.5, 0.25, 20, lambda f, t: (f + (t - f) / 4, t + (t - f) / 4)),
                (0.25, 0.75, height - 10, lambda f, t: (f + (t - f) / 4, f + (t - f) * 3 / 4))]:
            view = page.execute_script("return KV.timeline.view")
            ActionChains(page).move_to_element_with_offset(
                lanes, int(width * (start - 0.5)), y - height // 2).click_and_hold() \
                .move_by_offset(int(width * (end - start)), 0).release().perform()
            got = page.execute_script("return KV.timeline.view")
            for value, wanted in zip((got["from"], got["to"]), expected(view["from"], view["to"])):
                self.assertAlmostEqual(value, wanted, delta=(view["to"] - view["from"]) / 100)

    def test_chosen_entry_shows_its_payload(self):
        page = self.open(self.server.url)
        page.execute_script("KV.timeline.setView(arguments[0] - 2000, arguments[0] + 2000)",
                            self.frame["timestamp"])
        lanes = page.find_element(By.ID, "lanes")
        WebDriverWait(page, 10).until(lambda b: b.execute_script(
            "return document.body.dataset.viewFrom") == str(self.frame["timestamp"] - 2000))
        # The camera lane is the third: click it in the middle, where the PNG was recorded.
        ActionChains(page).move_to_element_with_offset(
            lanes, 0, 2 * 40 + 20 - lanes.size["height"] // 2).click().perform()
        WebDriverWait(page, 10).until(lambda b: len(self.table("entries-table")) > 0)
        rows = self.table("entries-table")
        self.assertTrue(all(row[2] == "camera" for row in rows), rows)
        chosen = next(r for r in page.find_elements(By.CSS_SELECTOR, "#entries-table tbody tr")
                      if r.text.startswith(str(self.frame["id"]) + " "))
        self.assertEqual(chosen.text.split(" ")[-2:], [f"{len(self.frame['data'])}", "B"])
        chosen.click()
        hex_view = page.find_element(By.ID, "payload-hex")
        WebDriverWait(page, 10).until(lambda _: hex_view.text)
        shown_bytes = bytes.fromhex("".join(l[10:59] for l in hex_view.text.split("\n")))
        self.assertEqual(shown_bytes, self.frame["data"])
        self.assertIn("PNG", page.find_element(By.ID, "payload-text").text)
        image = page.find_element(By.CSS_SELECTOR, "#payload-image img")
        WebDriverWait(page, 5).until(
            lambda b: b.execute_script("return arguments[0].naturalWidth", image) == 4)
        link = page.find_element(By.ID, "payload-download")
        self.assertTrue(link.get_attribute("href").endswith(f"api/payload?id={self.frame['id']}"))

    def test_page_follows_a_recording_in_another_process(self):
        live = WORK / "live.kvlog"
        recorder = subprocess.Popen([TOOL, "record", str(live)], stdin=subprocess.PIPE,
                                    stdout=subprocess.DEVNULL, env=os.environ | {"TZ": ZONE})
        entry = lambda source, t: line({"source": source, "sourceType": 1, "type": 1,
                                        "timestamp": T0 + t, "data": b"x" * 8})
        try:
            recorder.stdin.write(b"".join(entry("first", t) for t in range(0, 500, 10)))
            recorder.stdin.flush()
            deadline = time.monotonic() + 20
            while not (live.exists() and live.stat().st_size > 0) and time.monotonic() < deadline:
                time.sleep(0.05)
            server = Server(live)
            try:
                page = self.open(server.url)
                WebDriverWait(page, 10).until(lambda _: self.lanes() == [("first", "50 entries")])
                recorder.stdin.write(b"".join(entry(s, t) for t in range(500, 800, 10)
                                              for s in ("first", "second")))
                recorder.stdin.flush()
                WebDriverWait(page, 10).until(lambda _: self.lanes() == [
                    ("first", "80 entries"), ("second", "30 entries")])
                must("bookmarks", live, "add", 60, "Arrived live", "")
                WebDriverWait(page, 10).until(
                    lambda _: [r[2] for r in self.table("bookmarks-table")] == ["Arrived live"])
                self.assertTrue(page.find_element(By.ID, "live").is_displayed())
                recorder.stdin.close()
                recorder.wait(timeout=20)
                live.rename(WORK / "moved.kvlog")
                shutil.copyfile(WORK / "moved.kvlog", live)
                banner = page.find_element(By.ID, "banner")
                WebDriverWait(page, 10).until(lambda _: banner.is_displayed())
                self.assertEqual(banner.text, "The file was replaced by another file; the page "
                                              "shows it as it was.")
            finally:
                self.assertEqual(server.stop(), 0)
        finally:
            if not recorder.stdin.closed:
                recorder.stdin.close()
            recorder.wait(timeout=20)

    def test_text_of_a_hostile_file_is_shown_and_never_run(self):
        hostile = WORK / "hostile.kvlog"
        record(hostile, [{"source": HOSTILE, "sourceType": 1, "type": 1, "timestamp": T0 + t,
                          "data": b"<script>"} for t in (0, 10, 20)], zone=BREAKOUT)
        (WORK / "r.bin").write_bytes(b"1")
        svg = '"><svg onload=window.__pwned=3>'
        for args in (("meta", hostile, "set", HOSTILE, BREAKOUT),
                     ("bookmarks", hostile, "add", 2, BREAKOUT, HOSTILE),
                     ("resources", hostile, "add", svg, WORK / "r.bin")):
            must(*args)
        before = (hostile.read_bytes(), hostile.stat().st_mtime_ns)
        report = WORK / "hostile.html"
        must("report", hostile, "-o", report)
        server = Server(hostile)
        try:
            for url in (server.url, report.as_uri()):
                page = self.open(url)
                self.assertEqual([name for name, _ in self.lanes()], [HOSTILE], url)
                self.assertIn([HOSTILE, BREAKOUT, "string"], self.table("metadata-table"))
                self.assertEqual(self.table("bookmarks-table")[0][2:], [BREAKOUT, HOSTILE])
                if url == server.url:
                    self.assertEqual(self.table("resources-table")[0][0], svg)
                self.assertIsNone(page.execute_script("return window.__pwned"), url)
                planted = "svg, [onerror], [onload], img[src=x]"
                self.assertEqual(page.execute_script(
                    "return document.querySelectorAll(arguments[0]).length", planted), 0)
                self.assertEqual(len(page.find_elements(By.CSS_SELECTOR, "script:not([type])")), 3)
                refused = [m for m in page.get_log("browser")
                           if "Content Security Policy" in m["message"]]
                self.assertEqual(refused, [], url)
        finally:
            server.stop()
        # Neither reading nor serving wrote to the file.
        self.assertEqual((hostile.read_bytes(), hostile.stat().st_mtime_ns), before)
        self.assertEqual(sorted(p.name for p in WORK.glob("hostile.kvlog*")), ["hostile.kvlog"])

    def test_report_shows_the_same_timeline_offline(self):
        report = WORK / "drive.html"
        must("report", self.drive, "-o", report)
        code, _, err = tool("report", self.drive, "-o", report)
        self.assertEqual((code, err.strip()),
                         (1, f"korvane-log: {report}: exists already; will not overwrite it"))
        html = report.read_text()
        self.assertNotIn(" src=", html)
        self.assertNotIn(" href=\"view.css", html)
        page = self.open(report.as_uri())
        self.assertEqual(self.lanes(), [("imu", f"{len(self.counted('imu')):,} entries"),
                                        ("gnss", "30 entries"), ("camera", "150 entries")])
        self.assertEqual(self.table("gaps-table")[0][:3],
                         ["imu", shown(T0 + GAP[0] - 5), "4.005 s"])
        self.assertEqual([r[2] for r in self.table("bookmarks-table")],
                         ["Brake test", "Camera frame"])
        # Bins of the report, made in the page from its cells, count every entry of a view.
        for lo, hi in [(T0, T0 + 30_000), (T0 + 9_000, T0 + 15_500)]:
            page.execute_script("KV.timeline.setView(arguments[0], arguments[1])", lo, hi)
            WebDriverWait(page, 5).until(lambda b: b.execute_script(
                "return document.body.dataset.viewFrom") == str(lo))
            bins = page.execute_script("return KV.timeline.bins")
            for source, name in zip(bins["sources"], ("imu", "gnss", "camera")):
                expected = [len(self.counted(name, bins["from"] + i * bins["width"],
                                             bins["from"] + (i + 1) * bins["width"]))
                            for i in range(bins["count"])]
                self.assertEqual(source["counts"], expected, (name, lo, hi))
        thumbnail = page.find_element(By.CSS_SELECTOR, "#thumbnail img")
        self.assertEqual(page.execute_script("return arguments[0].naturalWidth", thumbnail), 8)

    def test_counts_entries_whose_timestamps_do_not_follow_their_ids(self):
        shuffled = [dict(e) for e in self.entries]
        random.Random(9).shuffle(shuffled)
        for i, entry in enumerate(shuffled):
            entry["id"] = i + 1
        path = WORK / "shuffled.kvlog"
        record(path, shuffled)
        server = Server(path)
        try:
            summary = server.json("/api/summary")
            self.assertEqual({s["name"]: (s["count"], s["gaps"]) for s in summary["sources"]},
                             {"imu": (len(self.counted("imu")), [[T0 + GAP[0] - 5, T0 + GAP[1]]]),
                              "gnss": (30, []), "camera": (150, [])})
            names = {s["id"]: s["name"] for s in summary["sources"]}
            for lo, hi, bins in [(T0, T0 + 30_000, 250), (T0 + 9_950, T0 + 10_050, 300),
                                 (T0 + 4_990, T0 + 5_011, 100)]:
                answer = server.json(f"/api/bins?from={lo}&to={hi}&bins={bins}")
                for source in answer["sources"]:
                    edges = [answer["from"] + i * answer["width"]
                             for i in range(answer["count"] + 1)]
                    expected = [sum(1 for e in shuffled if e["source"] == names[source["id"]]
                                    and a <= e["timestamp"] < b) for a, b in zip(edges, edges[1:])]
                    self.assertEqual(source["counts"], expected, (lo, hi, bins))
            at = T0 + 5_002
            in_time = sorted(shuffled, key=lambda e: (e["timestamp"], e["id"]))
            expected = ([e["id"] for e in in_time if e["timestamp"] < at][-6:]
                        + [e["id"] for e in in_time if e["timestamp"] >= at][:6])
            listed = server.json(f"/api/entries?at={at}&count=12")["entries"]
            self.assertEqual([e["id"] for e in listed], expected)
        finally:
            server.stop()

    def test_page_formats_times_sizes_and_images(self):
        page = self.open(self.server.url)
        run = lambda call, *args: page.execute_script(f"return KV.format.{call}", *args)
        for ms, text in [(850, "850 ms"), (6000, "6.000 s"), (123_250, "2 min 03 s"),
                         (3_723_000, "1 h 02 min"), (93_784_000, "1 d 02 h")]:
            self.assertEqual(run("duration(arguments[0])", ms), text)
        for size, text in [(512, "512 B"), (1536, "1.50 KiB"), (28_000_000, "26.7 MiB")]:
            self.assertEqual(run("size(arguments[0])", size), text)
        for ms in (T0, T0 + 86_399_999, -1):
            self.assertEqual(run("dateTime(arguments[0], arguments[1])", ms, ZONE), shown(ms))
        self.assertEqual(run("zone('Mars/Olympus')"), {"zone": "UTC", "known": False})
        # Hour ticks fall on whole hours of the file's zone, half an hour off UTC in this one.
        ticks = run("ticks(arguments[0], arguments[1], 3600000, arguments[2])",
                    T0, T0 + 5 * 3_600_000, ZONE)
        self.assertEqual(len(ticks), 5)
        self.assertTrue(all(shown(t).endswith(":00:00.000") for t in ticks), ticks)
        gray = b"P5\n# made by hand\n2 2\n255\n" + bytes([0, 64, 128, 255])
        color = b"P6 1 2 100 " + bytes([100, 0, 50, 0, 100, 0])
        for data, pixels in [(gray, [0, 0, 0, 255, 64, 64, 64, 255,
                                     128, 128, 128, 255, 255, 255, 255, 255]),
                             (color, [255, 0, 128, 255, 0, 255, 0, 255]),
                             (gray[:-1], None), (b"P5 2 2 0 " + bytes(4), None),
                             (b"P7 1 1 255 x", None)]:
            image = run("decodePnm(new Uint8Array(arguments[0]))", list(data))
            self.assertEqual(image and image["rgba"], pixels, data)
        for data, kind in [(png(), "image/png"), (b"\xff\xd8\xff\xe0", "image/jpeg"),
                           (b"GIF89a", "image/gif"), (b"RIFF\0\0\0\0WEBPVP8 ", "image/webp"),
                           (gray, "image/x-portable-anymap"), (b"<svg onload=x>", None),
                           (b"", None)]:
            self.assertEqual(run("imageType(new Uint8Array(arguments[0]))", list(data)), kind,
                             data)
        self.assertEqual(run("text(new Uint8Array(arguments[0]))",
                             list(b"a\tb\nc\x00\x1b[31m\xc3\xa9")),
                         "a\tb\nc\u00b7\u00b7[31m\u00e9")

    def test_downloads_survive_odd_names_and_a_browser_that_leaves(self):
        name = 'a "b"\r\nSet-Cookie: x=1/../c'
        odd = WORK / "odd.kvlog"
        record(odd, self.entries[:50])
        must("resources", odd, "add", name, WORK / "calib.json")
        server = Server(odd)
        try:
            status, headers, body = server.get("/api/resource?name=" + urllib.parse.quote(name))
            self.assertEqual((status, body), (200, b'{"fx": 512}'))
            self.assertRegex(headers["Content-Disposition"],
                             r'^attachment; filename="a__b___Set[\w.-]*c"$')
            self.assertNotIn("Set-Cookie", {key.title() for key in headers})
            # A browser that goes away in the middle of an answer leaves the server running.
            for _ in range(3):
                sock = socket.create_connection((server.host, int(server.port)))
                sock.sendall(b"GET /page.js HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
                sock.close()
            self.assertEqual(server.get("/api/live")[0], 200)
        finally:
            self.assertEqual(server.stop(), 0)

    def test_a_file_without_entries_draws_empty_lanes(self):
        empty = WORK / "empty.kvlog"
        record(empty, self.entries[:1])
        with sqlite3.connect(empty) as db:
            db.execute("DELETE FROM data")
            db.execute("INSERT INTO dataSources VALUES (9, 4, 'idle')")
        report = WORK / "empty.html"
        must("report", empty, "-o", report)
        server = Server(empty)
        try:
            for url in (server.url, report.as_uri()):
                self.open(url)
                self.assertEqual(self.lanes(), [("imu", "0 entries"), ("idle", "0 entries")], url)
                self.assertEqual(self.table("gaps-table"), [])
                self.assertIsNone(
                    self.browser.execute_script("return document.body.dataset.binsError"))
        finally:
            server.stop()

    def test_refuses_what_is_no_log_file(self):
        text = WORK / "notes.txt"
        text.write_text("not a log\n")
        for args, reason in [(("view", text, "--no-open"), "not a log file"),
                             (("view", self.drive, "--no-open", "--port", self.server.port),
                              "cannot listen: Address already in use"),
                             (("report", WORK / "missing.kvlog", "-o", WORK / "x.html"),
                              "no such file"),
                             (("view", WORK / "missing.kvlog"), "no such file")]:
            code, out, err = tool(*args)
            self.assertEqual((code, out), (1, ""), args)
            self.assertIn(reason, err)
        self.assertFalse((WORK / "x.html").exists())


if __name__ == "__main__":
    TOOL = sys.argv.pop(1)
    with tempfile.TemporaryDirectory() as folder:
        WORK = Path(folder)
        unittest.main()
