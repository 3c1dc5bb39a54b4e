"""Tests of the korvane-log command-line tool, run against the built binary.

Usage: korvane_log_test.py PATH-TO-KORVANE-LOG [unittest arguments]
Times are checked in UTC; CTest sets TZ=UTC, and so does this script when run by hand.
"""

import base64
import contextlib
import json
import os
import pty
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

TOOL = None
BASE_MS = 1_700_000_000_000  # 2023-11-14T22:13:20.000Z
SOURCES = {"imu": 1, "gnss": 2, "camera": 3}


def run(*args, stdin=None):
    return subprocess.run([TOOL, *map(str, args)], input=stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=60, check=False)


def sample_entries(count=60, seed=7):
    """Entries of three sources with payloads that hold every byte value, an empty payload and
    timestamps that are not in id order."""
    rng = random.Random(seed)
    entries = []
    for index in range(count):
        source = ["imu", "imu", "gnss", "camera"][index % 4]
        size = {"imu": 28, "gnss": 22, "camera": 3000}[source] + rng.randrange(5)
        payload = bytes(rng.randrange(256) for _ in range(size))
        entries.append({"source": source, "sourceType": SOURCES[source], "type": 10 + index % 3,
                        "timestamp": BASE_MS + index * 10 + (25 if index == 5 else 0),
                        "data": payload})
    entries[1]["data"] = bytes(range(256))
    if count > 4:
        entries[4]["data"] = b""
    return entries


def run_on_terminal(*args):
    """Runs the tool with a terminal as stdout; returns the exit code, what it printed there and
    what it printed on stderr."""
    main, secondary = pty.openpty()
    process = subprocess.Popen([TOOL, *map(str, args)], stdout=secondary,
                               stderr=subprocess.PIPE)
    os.close(secondary)
    output = b""
    try:
        while chunk := os.read(main, 4096):
            output += chunk
    except OSError:  # the terminal reports its end as an error once the tool has closed it
        pass
    finally:
        os.close(main)
    errors = process.communicate(timeout=60)[1]
    return process.returncode, output, errors


def json_lines(entries):
    lines = [json.dumps({**entry, "data": base64.b64encode(entry["data"]).decode()})
             for entry in entries]
    return ("\n".join(lines) + "\n").encode()


def entries_within(path, count, seconds):
    """The number of entries in the log file at `path` once it holds `count`, or after
    `seconds`; read from outside while another process writes it."""
    found = None
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline and found != count:
        try:
            with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as db:
                found = db.execute("SELECT COUNT(*) FROM data").fetchone()[0]
        except sqlite3.Error:  # not created yet, or locked for a moment
            pass
        time.sleep(0.01)
    return found


class ToolTest(unittest.TestCase):
    """Gives every test a folder of its own and helpers to run the tool in it."""

    def setUp(self):
        self.dir = Path(tempfile.mkdtemp(prefix="korvane-log-test-"))

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def ok(self, *args, stdin=None):
        result = run(*args, stdin=stdin)
        self.assertEqual(result.returncode, 0, result.stderr.decode())
        self.assertEqual(result.stderr, b"")
        return result.stdout

    def fails(self, code, *args, stdin=None):
        """Runs a command that must fail; returns its one line of stderr."""
        result = run(*args, stdin=stdin)
        self.assertEqual(result.returncode, code, (args, result.stderr))
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("korvane-log: "), lines[0])
        return lines[0]

    def recorded(self, entries, name="log.kvlog", *options):
        path = self.dir / name
        out = self.ok("record", path, *options, stdin=json_lines(entries)).decode()
        self.assertIn(f"recorded {len(entries)} entries", out)
        return path

    def info(self, path):
        return json.loads(self.ok("info", path, "--json"))

    def cat_ids(self, path, *options):
        out = self.ok("cat", path, "--format", "json", *options).decode()
        return [json.loads(line)["id"] for line in out.splitlines()]


class RecordAndInfoTest(ToolTest):
    def test_info_counts_what_was_recorded_at_every_level(self):
        entries = sample_entries(count=150)
        for level in ("0", "-1", "9"):
            with self.subTest(level=level):
                path = self.recorded(entries, f"level{level}.kvlog", "--level", level,
                                     "--app", "rig", "--app-version", "2.1")
                info = self.info(path)
                self.assertEqual(info["compressionLevel"], int(level))
                self.assertEqual((info["entryCount"], info["firstEntryId"], info["lastEntryId"]),
                                 (len(entries), 1, len(entries)))
                stamps = [entry["timestamp"] for entry in entries]
                self.assertEqual(info["firstTimestamp"], min(stamps))
                self.assertEqual(info["lastTimestamp"], max(stamps))
                self.assertEqual(info["spanMs"], max(stamps) - min(stamps))
                self.assertEqual(info["payloadBytes"], sum(len(e["data"]) for e in entries))
                self.assertEqual(info["fileSize"], path.stat().st_size)
                self.assertEqual(info["metadata"]["applicationName"], "rig")
                self.assertEqual(info["metadata"]["applicationVersion"], "2.1")
                for source in info["dataSources"]:
                    mine = [e for e in entries if e["source"] == source["name"]]
                    self.assertEqual(source["type"], SOURCES[source["name"]])
                    self.assertEqual(source["entryCount"], len(mine))
                    self.assertEqual(source["payloadBytes"], sum(len(e["data"]) for e in mine))
                self.assertEqual(len(info["dataSources"]), len(SOURCES))

    def test_info_reads_well(self):
        entries = sample_entries(count=8)
        path = self.recorded(entries)
        out = self.ok("info", path).decode()
        self.assertIn("Entries      8, ids 1 to 8\n", out)
        self.assertIn("Time         2023-11-14T22:13:20.000+00:00 to "
                      "2023-11-14T22:13:20.075+00:00 (75 ms)\n", out)
        rows = {line.split()[1]: line.split() for line in out.splitlines()
                if line.startswith("   ") and len(line.split()) > 3}
        self.assertEqual(rows["imu"][:4], ["1", "imu", "1", "4"])
        self.assertEqual(rows["camera"][:4], ["3", "camera", "3", "2"])

    def test_record_takes_defaults_and_registers_each_source_once(self):
        lines = b"\n".join([b'{"source": "a", "timestamp": 1, "data": "AQ=="}',
                            b'{"source": "b", "sourceType": 7, "timestamp": 2, "data": ""}',
                            b'{"source": "a", "type": 3, "timestamp": 3, "data": "AgM="}'])
        path = self.dir / "defaults.kvlog"
        self.ok("record", path, stdin=lines)
        entries = [json.loads(line) for line in self.ok("cat", path, "--format", "json")
                   .splitlines()]
        self.assertEqual([(e["source"], e["sourceId"], e["sourceType"], e["type"], e["data"])
                          for e in entries],
                         [("a", 1, 0, 0, "AQ=="), ("b", 2, 7, 0, ""), ("a", 1, 0, 3, "AgM=")])

    def test_record_writes_each_line_while_the_input_stays_open(self):
        path = self.dir / "live.kvlog"
        process = subprocess.Popen([TOOL, "record", str(path)], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            for count, entry in enumerate(sample_entries(count=2), start=1):
                process.stdin.write(json_lines([entry]))
                process.stdin.flush()
                self.assertEqual(entries_within(path, count, seconds=10), count)
                self.assertIsNone(process.poll(), "the input is still open")
            out, err = process.communicate(timeout=60)
        finally:
            if process.poll() is None:
                process.kill()
                process.communicate()
        self.assertEqual(process.returncode, 0, err)
        self.assertEqual(out, f"recorded 2 entries from 1 sources into {path}\n".encode())

    def test_json_output_parses_with_json_tool_and_jq(self):
        path = self.recorded(sample_entries(count=12))
        outputs = [(self.ok("info", path, "--json"), []),
                   (self.ok("cat", path, "--format", "json"), ["--json-lines"])]
        for output, flags in outputs:
            checked = subprocess.run([sys.executable, "-m", "json.tool", *flags], input=output,
                                     capture_output=True, check=False)
            self.assertEqual(checked.returncode, 0, checked.stderr)
            if shutil.which("jq"):
                checked = subprocess.run(["jq", "-e", "."], input=output, capture_output=True,
                                         check=False)
                self.assertEqual(checked.returncode, 0, checked.stderr)


class EmptyLogTest(ToolTest):
    def test_a_log_without_entries_is_shown_and_refused_where_it_must_be(self):
        path = self.dir / "empty.kvlog"
        self.assertEqual(self.ok("record", path, stdin=b"\n"),
                         f"recorded 0 entries from 0 sources into {path}\n".encode())
        info = self.info(path)
        self.assertEqual((info["entryCount"], info["firstEntryId"], info["spanMs"]), (0, -1, 0))
        self.assertEqual((info["dataSources"], info["payloadBytes"]), ([], 0))
        self.assertIn("Entries      none\n", self.ok("info", path).decode())
        self.assertEqual(self.ok("cat", path).decode().split(), ["ID", "TIME", "SOURCE", "TYPE",
                                                                 "SIZE"])
        self.assertEqual(self.ok("play", path), b"no frames to play\n")
        self.assertIn("has no entries to slice", self.fails(1, "slice", path, "1", "1"))
        self.ok("meta", path, "set", "note", "kept")
        copy = self.dir / "copy.kvlog"
        self.ok("clone", path, "-o", copy)
        self.assertEqual(self.info(copy)["entryCount"], 0)
        self.assertEqual(self.info(copy)["metadata"]["note"], "kept")


class CatTest(ToolTest):
    def test_raw_gives_back_the_exact_bytes_logged(self):
        entries = sample_entries(count=30)
        for level in ("0", "9"):
            path = self.recorded(entries, f"raw{level}.kvlog", "--level", level)
            for entry_id, entry in enumerate(entries, start=1):
                with self.subTest(level=level, entry=entry_id):
                    raw = self.ok("cat", path, "--from", entry_id, "--to", entry_id,
                                  "--format", "raw")
                    self.assertEqual(raw, entry["data"])
            cameras = b"".join(e["data"] for e in entries if e["source"] == "camera")
            self.assertEqual(self.ok("cat", path, "--source", "camera", "--format", "raw"),
                             cameras)

    def test_filters_select_the_right_entries(self):
        # More entries than the tool reads in one batch, so that batches meet inside ranges.
        entries = sample_entries(count=150)
        path = self.recorded(entries)
        numbered = list(enumerate(entries, start=1))
        rows = [
            ([], lambda i, e: True),
            (["--type", "11"], lambda i, e: e["type"] == 11),
            (["--type", "10", "--type", "12"], lambda i, e: e["type"] in (10, 12)),
            (["--source", "gnss"], lambda i, e: e["source"] == "gnss"),
            (["--source", "3"], lambda i, e: e["source"] == "camera"),
            (["--source-type", "1"], lambda i, e: e["source"] == "imu"),
            (["--from", "10", "--to", "20"], lambda i, e: 10 <= i <= 20),
            (["--from", "50"], lambda i, e: i >= 50),
            (["--from", "60", "--to", "140", "--source", "imu"],
             lambda i, e: 60 <= i <= 140 and e["source"] == "imu"),
            (["--source", "imu", "--type", "10", "--to", "30"],
             lambda i, e: e["source"] == "imu" and e["type"] == 10 and i <= 30),
        ]
        for options, selects in rows:
            with self.subTest(options=options):
                expected = [i for i, e in numbered if selects(i, e)]
                self.assertEqual(self.cat_ids(path, *options), expected)
                self.assertEqual(self.cat_ids(path, *options, "--limit", "3"), expected[:3])

    def test_json_lines_record_into_an_identical_log(self):
        entries = sample_entries()
        path = self.recorded(entries)
        lines = self.ok("cat", path, "--format", "json")
        first = json.loads(lines.splitlines()[0])
        self.assertEqual((first["source"], first["sourceType"], first["time"]),
                         ("imu", 1, "2023-11-14T22:13:20.000+00:00"))
        copy = self.dir / "copy.kvlog"
        self.ok("record", copy, stdin=lines)
        self.assertEqual(self.ok("cat", copy, "--format", "json"), lines)

    def test_table_and_hex_dump(self):
        entries = sample_entries(count=4)
        entries[1]["data"] = b"AB\x00\xffhello, world!\x7f"
        path = self.recorded(entries)
        table = self.ok("cat", path).decode().splitlines()
        self.assertEqual(table[0].split(), ["ID", "TIME", "SOURCE", "TYPE", "SIZE"])
        self.assertEqual(table[2].split(), ["2", "2023-11-14", "22:13:20.010", "imu", "11",
                                            "18", "B"])
        self.assertEqual(len(table), 5)
        dump = self.ok("cat", path, "--from", "2", "--to", "2", "--format", "hex").decode()
        self.assertIn("00000000  41 42 00 ff 68 65 6c 6c  6f 2c 20 77 6f 72 6c 64  "
                      "|AB..hello, world|", dump)
        self.assertIn("00000010  21 7f", dump)


class TailTest(ToolTest):
    """tail shows a recording as it grows, whoever writes it, and ends when the file goes."""

    def test_tail_follows_a_recording_until_the_file_is_removed(self):
        path = self.dir / "live.kvlog"
        entries = sample_entries(40)
        lines = json_lines(entries).splitlines(keepends=True)
        recorder = subprocess.Popen([TOOL, "record", path], stdin=subprocess.PIPE,
                                    stdout=subprocess.DEVNULL)
        recorder.stdin.write(lines[0])
        recorder.stdin.flush()
        while not path.exists() or path.stat().st_size == 0:
            time.sleep(0.01)
        tail = subprocess.Popen([TOOL, "tail", path, "--format", "json", "--source", "imu"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for line in lines[1:]:
            recorder.stdin.write(line)
            recorder.stdin.flush()
            time.sleep(0.005)
        recorder.stdin.close()
        self.assertEqual(recorder.wait(timeout=60), 0)
        expected = [index + 1 for index, entry in enumerate(entries) if entry["source"] == "imu"]
        seen = [json.loads(tail.stdout.readline())["id"] for _ in expected]
        self.assertEqual(seen, expected)

        path.unlink()
        self.assertEqual(tail.wait(timeout=60), 1)
        self.assertEqual(tail.stdout.read(), b"")
        self.assertEqual(tail.stderr.read().decode(),
                         f"korvane-log: {path}: was removed while it was followed\n")

    def test_tail_begins_with_the_last_entries_asked_for(self):
        path = self.recorded(sample_entries(12), "log.kvlog", "--level", "0")
        # With -n 0 only new entries show: one written here, by a writer other than the tool.
        append = ("INSERT INTO data (timestamp, type, dataSourceId, length, payload) "
                  "VALUES (1, 1, 1, 1, x'2a')")
        for lines, ids in (("3", [10, 11, 12]), ("50", list(range(1, 13))), ("0", [13])):
            with self.subTest(lines=lines):
                tail = subprocess.Popen([TOOL, "tail", path, "-n", lines, "--format", "json"],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                if lines == "0":
                    time.sleep(1)  # ample time for tail to take the last id as its start
                    with contextlib.closing(sqlite3.connect(path)) as db, db:
                        db.execute(append)
                seen = [json.loads(tail.stdout.readline())["id"] for _ in ids]
                tail.send_signal(signal.SIGINT)
                self.assertEqual(tail.wait(timeout=60), 0)
                self.assertEqual(seen + [json.loads(line)["id"] for line in tail.stdout], ids)


class ErrorTest(ToolTest):
    def bad_files(self):
        legacy = self.dir / "legacy.log"
        legacy.write_bytes(bytes([0x44, 0x33, 0x22, 0x11]) + b"\x00" * 60)
        foreign = self.dir / "foreign.db"
        with sqlite3.connect(foreign) as db:
            db.execute("CREATE TABLE readings (value REAL)")
        db.close()
        text = self.dir / "notes.txt"
        text.write_text("just some notes\n")
        empty = self.dir / "empty.kvlog"
        empty.write_bytes(b"")
        return [(self.dir / "missing.kvlog", "no such file"), (self.dir, "is a directory"),
                (empty, "not a log file"), (text, "not a log file"),
                (foreign, "not a log file"), (legacy, "legacy log file")]

    def test_bad_files_give_one_line_and_stay_as_they_were(self):
        out = self.dir / "out.kvlog"
        extra = {"slice": ["1", "2"], "recover": [out]}
        for path, reason in self.bad_files():
            before = path.read_bytes() if path.is_file() else None
            for verb in ("info", "cat", "play", "meta", "bookmarks", "slice", "check", "recover"):
                with self.subTest(file=path.name, verb=verb):
                    line = self.fails(1, verb, path, *extra.get(verb, []))
                    self.assertIn(f": {path}: ", line)
                    self.assertIn(reason, line)
            self.assertEqual(path.read_bytes() if path.is_file() else None, before)
        self.assertFalse((self.dir / "missing.kvlog").exists())
        self.assertFalse(out.exists())

    def test_bad_arguments_exit_with_2(self):
        path = self.recorded(sample_entries(count=4))
        rows = [([], "a verb is needed"), (["frobnicate"], "unknown verb 'frobnicate'"),
                (["--bogus"], "unknown option"), (["info"], "FILE is required"),
                (["cat", path, "--limit", "x"], "--limit"),
                (["cat", path, "--format", "xml"], "--format"),
                (["play", path, "--speed", "0"], "--speed"),
                (["play", path, "--timing", "fast"], "--timing"),
                (["record", self.dir / "new.kvlog", "--level", "12"], "--level"),
                (["slice", path, "3", "2"], "FIRST 3 comes after LAST 2"),
                (["meta", path, "set", "k", "x1", "--int"], "'x1' is not a valid int"),
                (["meta", path, "set", "k", "1", "--int", "--double"], "excludes"),
                (["recover", path], "OUT is required"),
                (["recover", path, self.dir / "new.kvlog", "--level", "-2"], "--level"),
                (["info", path, "extra"], "extra")]
        for args, fragment in rows:
            with self.subTest(args=args):
                self.assertIn(fragment, self.fails(2, *args))
        self.assertFalse((self.dir / "new.kvlog").exists())

    def test_existing_outputs_are_never_overwritten(self):
        path = self.recorded(sample_entries(count=4))
        self.ok("resources", path, "add", "notes", path)
        self.ok("thumbnail", path, "set", path)
        taken = self.dir / "taken.bin"
        taken.write_bytes(b"keep me")
        for args in (["record", taken], ["slice", path, "1", "2", "-o", taken],
                     ["clone", path, "-o", taken], ["recover", path, taken],
                     ["resources", path, "get", "notes", "-o", taken],
                     ["thumbnail", path, "get", "-o", taken]):
            with self.subTest(verb=args[0]):
                line = self.fails(1, *args, stdin=b"")
                self.assertIn(f"{taken}: exists already", line)
                self.assertEqual(taken.read_bytes(), b"keep me")

    def test_refused_changes_say_why(self):
        path = self.recorded(sample_entries(count=4))
        self.ok("meta", path, "set", "vehicle", "car 1")
        self.ok("resources", path, "add", "notes", path)
        rows = [(["meta", path, "set", "vehicle", "car 2"], "'vehicle' exists already"),
                (["bookmarks", path, "add", "99", "title"], "no entry 99"),
                (["bookmarks", path, "update", "2", "title"], "no bookmark on entry 2"),
                (["bookmarks", path, "remove", "2"], "no bookmark on entry 2"),
                (["resources", path, "add", "notes", path], "'notes' exists already"),
                (["resources", path, "add", "other", self.dir / "nope"], "nope: no such file"),
                (["resources", path, "get", "nope"], "no resource named 'nope'"),
                (["thumbnail", path, "get"], "has no thumbnail"),
                (["cat", path, "--source", "lidar"], "no data source named or numbered 'lidar'"),
                (["play", path, "--source-type", "9"], "no data source of type 9"),
                (["play", path, "--seek", "4"], "frames are 0 to 3"),
                (["slice", path, "0", "2"], "no entry with id 0 (its ids run from 1 to 4)")]
        for args, fragment in rows:
            with self.subTest(args=args[0:3]):
                self.assertIn(fragment, self.fails(1, *args))
        self.assertEqual(self.info(path)["metadata"]["vehicle"], "car 1")

    def test_record_refuses_bad_lines_and_leaves_no_file(self):
        good = json.dumps({"source": "a", "sourceType": 1, "type": 2, "timestamp": 5,
                           "data": "AAEC"})
        rows = [("{not json", "not valid JSON"), ("[1, 2]", "not a JSON object"),
                ('{"sourceType": 1, "timestamp": 5, "data": ""}', '"source" must be a string'),
                ('{"source": "a", "sourceType": 1, "data": ""}', '"timestamp" must be a whole'),
                ('{"source": "a", "sourceType": 1, "timestamp": 5, "data": "A==="}',
                 '"data" is not base64'),
                ('{"source": "a", "sourceType": 2, "timestamp": 5, "data": ""}',
                 "source 'a' was first seen with sourceType 1"),
                ('{"source": "a", "sourceType": 1, "type": 4294967296, "timestamp": 5, '
                 '"data": ""}', '"type" is out of range')]
        for line, fragment in rows:
            with self.subTest(line=line):
                # The one line of the failure goes to stderr; the terminal check is elsewhere.
                out = self.dir / "out.kvlog"
                message = self.fails(1, "record", out, stdin=f"{good}\n\n{line}\n".encode())
                self.assertIn(f"stdin line 3: {fragment}", message)
                self.assertFalse(out.exists())

    def test_raw_bytes_are_not_written_to_a_terminal(self):
        path = self.recorded(sample_entries(count=4))
        for args in (["cat", path, "--format", "raw"], ["resources", path, "get", "thumbnail"]):
            if args[0] == "resources":
                self.ok("thumbnail", path, "set", path)
            code, output, errors = run_on_terminal(*args)
            self.assertEqual((code, output), (1, b""))
            self.assertIn(b"stdout: is a terminal", errors)


class AnnotationTest(ToolTest):
    def test_metadata_keeps_its_kinds(self):
        path = self.recorded(sample_entries(count=4))
        self.ok("meta", path, "set", "count", "-42", "--int")
        self.ok("meta", path, "set", "ratio", "2.5", "--double")
        self.ok("meta", path, "set", "label", "12")
        self.assertEqual({k: v for k, v in self.info(path)["metadata"].items()
                          if k in ("count", "ratio", "label")},
                         {"count": -42, "ratio": 2.5, "label": "12"})
        listing = {line.split()[0]: line.split()[1:] for line in
                   self.ok("meta", path).decode().splitlines()[1:]}
        self.assertEqual(listing["count"], ["int", "-42"])
        self.assertEqual(listing["ratio"], ["double", "2.5"])
        self.assertEqual(listing["label"], ["string", "12"])
        self.assertEqual(listing["createdDateTime"][0], "int")

    def test_bookmarks_are_added_updated_and_removed(self):
        path = self.recorded(sample_entries(count=6))
        self.ok("bookmarks", path, "add", "5", "Brake", "hard stop")
        self.ok("bookmarks", path, "add", "2", "Start")
        rows = self.ok("bookmarks", path).decode().splitlines()
        self.assertEqual(rows[1].split(), ["2", "2023-11-14", "22:13:20.010", "imu", "Start"])
        self.assertEqual(rows[2].split()[:5], ["5", "2023-11-14", "22:13:20.040", "imu", "Brake"])
        self.ok("bookmarks", path, "update", "5", "Stop", "soft")
        self.assertIn("Stop", self.ok("bookmarks", path).decode().splitlines()[2])
        self.ok("bookmarks", path, "remove", "5")
        self.ok("bookmarks", path, "remove", "2")
        self.assertEqual(self.ok("bookmarks", path), b"no bookmarks\n")
        self.assertEqual(self.info(path)["bookmarkCount"], 0)

    def test_resources_and_thumbnail_round_trip(self):
        path = self.recorded(sample_entries(count=4), "log.kvlog", "--level", "5")
        blob = self.dir / "blob.bin"
        blob.write_bytes(bytes(range(256)) * 40)
        png = self.dir / "thumb.png"
        png.write_bytes(b"\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR\x00\x00\x00\x03\x00\x00\x00\x02")
        self.ok("resources", path, "add", "calibration", blob)
        self.ok("thumbnail", path, "set", png)
        self.assertEqual(self.ok("resources", path, "get", "calibration"), blob.read_bytes())
        self.ok("resources", path, "get", "calibration", "-o", self.dir / "copy.bin")
        self.assertEqual((self.dir / "copy.bin").read_bytes(), blob.read_bytes())
        self.assertEqual(self.ok("thumbnail", path, "get"), png.read_bytes())
        self.assertEqual(self.ok("thumbnail", path), b"thumbnail: PNG image, 3x2, 24 B\n")
        listing = self.ok("resources", path).decode()
        self.assertIn("calibration  10.0 KiB", listing)
        self.assertEqual({r["name"]: r["size"] for r in self.info(path)["resources"]},
                         {"calibration": 10240, "thumbnail": 24})


class SliceAndCloneTest(ToolTest):
    def test_slice_renumbers_entries_and_keeps_bookmarks_in_range(self):
        entries = sample_entries(count=12)
        path = self.recorded(entries)
        for entry_id in (3, 5, 8, 11):
            self.ok("bookmarks", path, "add", entry_id, f"mark {entry_id}")
        out = self.dir / "part.kvlog"
        self.assertEqual(self.ok("slice", path, "4", "9", "-o", out), f"{out}\n".encode())
        info = self.info(out)
        self.assertEqual((info["entryCount"], info["bookmarkCount"]), (6, 2))
        for new_id, old in enumerate(entries[3:9], start=1):
            self.assertEqual(self.ok("cat", out, "--from", new_id, "--to", new_id,
                                     "--format", "raw"), old["data"])
        marks = [line.split()[0] for line in self.ok("bookmarks", out).decode().splitlines()[1:]]
        self.assertEqual(marks, ["2", "5"])
        default = self.ok("slice", path, "2", "3").decode().strip()
        self.assertEqual(default, str(self.dir / "log_2-3.kvlog"))
        self.assertEqual(self.info(default)["entryCount"], 2)

    def test_clone_takes_a_new_level_and_identity(self):
        entries = sample_entries(count=10)
        path = self.recorded(entries, "log.kvlog", "--app", "rig", "--level", "9")
        default = self.dir / "log_clone.kvlog"
        self.assertEqual(self.ok("clone", path).decode().strip(), str(default))
        kept = self.info(default)
        self.assertEqual((kept["compressionLevel"], kept["metadata"]["applicationName"]),
                         (9, "rig"))
        self.assertNotIn("oldApplicationName", kept["metadata"])
        out = self.dir / "plain.kvlog"
        self.ok("clone", path, "-o", out, "--level", "0", "--app", "viewer")
        info = self.info(out)
        self.assertEqual(info["compressionLevel"], 0)
        self.assertEqual(info["metadata"]["applicationName"], "viewer")
        self.assertEqual(info["metadata"]["oldApplicationName"], "rig")
        self.assertEqual(self.ok("cat", out, "--format", "json"),
                         self.ok("cat", path, "--format", "json"))


class PlayTest(ToolTest):
    def frames(self, *args):
        """Frame number, entry id and source of each frame line, and the summary."""
        output = self.ok("play", *args)
        self.assertNotIn(b"\x1b", output)  # no terminal, no line drawing
        lines = output.decode().splitlines()
        self.assertEqual(lines[0].split()[:3], ["FRAME", "ENTRY", "TIME"])
        rows = [line.split() for line in lines[1:-1]]
        return [(int(r[0]), int(r[1]), r[5]) for r in rows], lines[-1]

    def test_frames_are_delivered_in_order(self):
        entries = sample_entries(count=24)
        path = self.recorded(entries)
        numbered = list(enumerate(entries, start=1))
        gnss = [i for i, e in numbered if e["source"] == "gnss"]
        rows = [([], list(range(1, 25))),
                (["--source-type", "2"], gnss),
                (["--source-type", "2", "--source-type", "3"],
                 [i for i, e in numbered if e["source"] in ("gnss", "camera")]),
                (["--seek", "20"], [21, 22, 23, 24]),
                # Entry 6 is 35 ms after entry 5; entry 7 goes back in time and adds nothing.
                (["--duration", "35"], [1, 2, 3, 4]),
                (["--duration", "80"], [1, 2, 3, 4, 5, 6, 7]),
                (["--duration", "80", "--timing", "ms"], [1, 2, 3, 4, 5, 6, 7])]
        for options, expected in rows:
            with self.subTest(options=options):
                frames, summary = self.frames(path, "--max-gap", "0", *options)
                self.assertEqual([entry for _, entry, _ in frames], expected)
                first = int(options[1]) if options[:1] == ["--seek"] else 0
                self.assertEqual([f for f, _, _ in frames],
                                 list(range(first, first + len(expected))))
                sources = {entries[entry - 1]["source"] for entry in expected}
                self.assertEqual({source for _, _, source in frames}, sources)
                self.assertTrue(summary.startswith(f"played {len(expected)} frames"), summary)

    def test_a_terminal_sees_a_live_position_line(self):
        path = self.recorded(sample_entries(count=8))
        code, output, errors = run_on_terminal("play", path, "--max-gap", "0")
        self.assertEqual((code, errors), (0, b""))
        text = output.decode()
        self.assertIn("\r\x1b[2K\u25b6 00:00.020 / 00:00.070  frame 2 of 8", text)
        # Each frame line replaces the position line and stays; the summary ends the output.
        lines = [line.rsplit("\x1b[2K", 1)[-1] for line in text.split("\r\n") if line]
        self.assertEqual([int(line.split()[0]) for line in lines[1:-1]], list(range(8)))
        self.assertTrue(lines[-1].startswith("played 8 frames"), lines[-1])

    def test_ctrl_c_stops_looped_playback_cleanly(self):
        path = self.recorded(sample_entries(count=8))
        process = subprocess.Popen([TOOL, "play", str(path), "--loop", "--max-gap", "5"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            header = process.stdout.readline()
            self.assertIn(b"FRAME", header)
            # Two passes over the frames show that looping went on until the signal came.
            for _ in range(16):
                process.stdout.readline()
            process.send_signal(signal.SIGINT)
            rest, errors = process.communicate(timeout=20)
        finally:
            process.kill()
        self.assertEqual(process.returncode, 0, errors)
        self.assertEqual(errors, b"")
        self.assertTrue(rest.decode().splitlines()[-1].startswith("stopped by Ctrl-C: "))


class DemoTest(ToolTest):
    def test_demo_records_plays_and_slices(self):
        folder = self.dir / "demo"
        out = self.ok("demo", folder).decode()
        for command in ("$ korvane-log info", "$ korvane-log play", "$ korvane-log slice",
                        "$ korvane-log bookmarks"):
            self.assertIn(command, out)
        drive = self.info(folder / "drive.kvlog")
        rates = {s["name"]: s["entryCount"] * 1000 / drive["spanMs"] for s in drive["dataSources"]}
        self.assertEqual({name: round(rate) for name, rate in rates.items()},
                         {"imu": 200, "gnss": 10, "front-camera": 30})
        self.assertEqual(drive["bookmarkCount"], 2)
        part = self.info(folder / "drive-bookmarked.kvlog")
        self.assertEqual(part["bookmarkCount"], 2)
        self.assertLess(part["entryCount"], drive["entryCount"])
        self.assertIn("played", out)
        self.assertEqual(self.ok("thumbnail", folder / "drive.kvlog"),
                         b"thumbnail: PGM image, 96x64, 6.01 KiB\n")
        line = self.fails(1, "demo", folder)
        self.assertIn("drive.kvlog: exists already", line)


def pages_of(path, table):
    """The numbers of the leaf pages of `table`, in file order."""
    with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as db:
        return [number for (number,) in db.execute(
            "SELECT pageno FROM dbstat WHERE name = ? AND pagetype = 'leaf' ORDER BY pageno",
            (table,))]


def page_size(data):
    size = int.from_bytes(data[16:18], "big")
    return 65536 if size == 1 else size


def zero_page(number):
    def damage(data):
        size = page_size(data)
        data[(number - 1) * size:number * size] = bytes(size)
        return data
    return damage


def flip_bytes(offset, count):
    def damage(data):
        for index in range(offset, offset + count):
            data[index] ^= 0x5A
        return data
    return damage


def flip_first_cell(number, count):
    """Flips bytes at the start of the cells of page `number`: what a row says of itself."""
    def damage(data):
        start = (number - 1) * page_size(data)
        cells = start + int.from_bytes(data[start + 5:start + 7], "big")
        return flip_bytes(cells, count)(data)
    return damage


def database_size(data):
    """The bytes of the pages that the header counts; writers grow a file ahead of them."""
    return int.from_bytes(data[28:32], "big") * page_size(data)


def count_more_pages(more):
    """A header that counts `more` pages past the end of the file."""
    def damage(data):
        count = int.from_bytes(data[28:32], "big")
        del data[database_size(data):]
        data[28:32] = (count + more).to_bytes(4, "big")
        return data
    return damage


class CheckAndRecoverTest(ToolTest):
    """check reads a file without changing it; recover saves what can be read of a damaged file
    into a new one, which must pass check, and leaves the damaged file as it was."""

    def damaged(self, source, name, *damages):
        data = bytearray(source.read_bytes())
        for damage in damages:
            data = damage(data)
        path = self.dir / name
        path.write_bytes(bytes(data))
        return path

    def check(self, path):
        before = path.read_bytes()
        result = run("check", path)
        self.assertEqual(result.stderr, b"")
        self.assertEqual(path.read_bytes(), before)
        return result.returncode, result.stdout.decode()

    def recover(self, path, *options):
        before = path.read_bytes()
        out = self.dir / f"{path.stem}-recovered.kvlog"
        report = self.ok("recover", path, out, *options).decode()
        self.assertEqual(path.read_bytes(), before)
        self.assertTrue(report.startswith("saved "), report)
        code, text = self.check(out)
        self.assertEqual(code, 0, text)
        return out, report

    def entries(self, path):
        """The entries as cat gives them, without their ids, which recovery renumbers."""
        lines = self.ok("cat", path, "--format", "json").splitlines()
        return [{k: v for k, v in json.loads(line).items() if k != "id"} for line in lines]

    def bookmark_rows(self, path):
        """Time, source and title of each bookmark: what survives renumbering."""
        listing = self.ok("bookmarks", path).decode().splitlines()
        return [line.split()[1:5] for line in listing[1:] if line != "no bookmarks"]

    def annotated(self, name, level, count=200):
        path = self.recorded(sample_entries(count=count), name, "--level", level)
        for entry_id in (3, count - 10):
            self.ok("bookmarks", path, "add", entry_id, f"mark{entry_id}")
        notes = self.dir / "notes.txt"
        notes.write_bytes(b"calibrated on the test bench\n" * 20)
        self.ok("resources", path, "add", "notes", notes)
        return path

    def test_a_genuine_file_checks_ok_and_recovers_whole(self):
        self.ok("demo", self.dir / "demo")
        path = self.dir / "demo" / "drive.kvlog"
        info = self.info(path)
        self.assertEqual(self.check(path), (0, (
            f"{path}: ok, {info['entryCount']} entries, {len(info['dataSources'])} data "
            f"sources, {len(info['resources'])} resources, {info['bookmarkCount']} bookmarks\n")))
        out, report = self.recover(path)
        self.assertEqual(report, f"saved {info['entryCount']} entries into {out}\n")
        copy = self.info(out)
        for key in ("file", "fileSize"):
            del info[key], copy[key]
        self.assertEqual(copy, info)
        self.assertEqual(self.ok("cat", out, "--format", "json"),
                         self.ok("cat", path, "--format", "json"))
        for verb in (["bookmarks"], ["meta"], ["resources", "get", "calibration.json"]):
            self.assertEqual(self.ok(verb[0], out, *verb[1:]), self.ok(verb[0], path, *verb[1:]))

        other, _ = self.recover(out, "--level", "0", "--app", "viewer", "--app-version", "9")
        changed = self.info(other)
        self.assertEqual((changed["compressionLevel"], changed["metadata"]["applicationName"],
                          changed["metadata"]["oldApplicationName"],
                          changed["metadata"]["oldApplicationVersion"]),
                         (0, "viewer", "korvane-log demo", "1.0.0"))
        self.assertEqual(self.entries(other), self.entries(path))

    def test_damage_is_reported_and_everything_readable_is_saved(self):
        for level in ("0", "5"):
            source = self.annotated(f"log{level}.kvlog", level)
            original = self.entries(source)
            marks = self.bookmark_rows(source)
            leaves = pages_of(source, "data")
            rows = [
                # damage, what check says, whether the ids lost are known
                ("flipped", flip_first_cell(leaves[len(leaves) // 2], 24), "integrity_check: ",
                 True),
                ("zeroed", zero_page(leaves[len(leaves) // 3]), "integrity_check: ", True),
                ("truncated", lambda data: data[:database_size(data) * 3 // 5 + 100],
                 "the file ends inside page ", False),
                ("counted past the end", count_more_pages(9), "header: its header counts ",
                 True),
            ]
            for name, damage, says, lossKnown in rows:
                with self.subTest(level=level, damage=name):
                    path = self.damaged(source, f"{name} {level}.kvlog", damage)
                    code, text = self.check(path)
                    self.assertEqual(code, 1, text)
                    self.assertIn(says, text)
                    out, report = self.recover(path)
                    saved = self.entries(out)
                    times = {entry["timestamp"] for entry in saved}
                    self.assertEqual(saved, [e for e in original if e["timestamp"] in times])
                    self.assertTrue(report.startswith(f"saved {len(saved)} entries"), report)
                    lost = len(original) - len(saved)
                    if lossKnown and lost > 0:
                        self.assertRegex(report, f"data: {lost} ids? of 1 to {len(original)} "
                                                 "cannot be read")
                        self.assertIn(f"{len(saved)} entries can be read", text)
                    if not lossKnown:
                        self.assertIn("data: its last pages cannot be read", report)
                    # Bookmarks follow their entries to their new ids, or go with them.
                    kept = [m for m in marks if any(e["time"].replace("T", " ").startswith(
                        " ".join(m[:2])) for e in saved)]
                    self.assertEqual(self.bookmark_rows(out), kept)
                    if len(kept) < len(marks):
                        self.assertIn(f"bookmarks: {len(marks) - len(kept)} bookmark", report)
                    self.assertEqual(self.ok("resources", out, "get", "notes"),
                                     self.ok("resources", source, "get", "notes"))
            # A page count past the end is what a kill most often leaves: the library refuses
            # such a file, though every row is intact.
            self.assertIn("not a log file", self.fails(1, "info", self.dir /
                                                       f"counted past the end {level}.kvlog"))
            self.assertEqual(self.entries(self.dir / f"counted past the end {level}-recovered"
                                                     ".kvlog"), original)

    def test_a_payload_that_does_not_decode_is_skipped(self):
        source = self.annotated("log.kvlog", "5")
        with contextlib.closing(sqlite3.connect(source)) as db:
            (stored,) = db.execute("SELECT payload FROM data WHERE entryId = 50").fetchone()
        data = source.read_bytes()
        self.assertEqual(data.count(stored), 1)
        # The size that a compressed payload records: SQLite sees nothing wrong, zstd does.
        path = self.damaged(source, "payload.kvlog", flip_bytes(data.index(stored) + 5, 1))
        code, text = self.check(path)
        self.assertEqual(code, 1, text)
        self.assertIn("data: 1 entry does not decode (ids 50)", text)
        self.assertNotIn("integrity_check", text)
        _, report = self.recover(path)
        self.assertEqual(report.splitlines()[:2], [
            f"saved 199 entries into {self.dir / 'payload-recovered.kvlog'}",
            "  data: 1 id of 1 to 200 cannot be read: 50"])

    def test_an_unfinished_write_is_undone_on_the_copy(self):
        source = self.annotated("log.kvlog", "0")
        original = self.entries(source)
        path = self.dir / "unfinished.kvlog"
        path.write_bytes(source.read_bytes())
        # A writer that dies inside a transaction whose pages spilled into the file leaves its
        # rollback journal behind.
        writer = subprocess.run([sys.executable, "-c", (
            "import os, sqlite3, sys\n"
            "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
            "db.execute('PRAGMA cache_size = 2')\n"
            "db.execute('BEGIN')\n"
            "db.execute('UPDATE data SET timestamp = timestamp + 1')\n"
            "os._exit(0)\n"), path], check=True)
        self.assertEqual(writer.returncode, 0)
        journal = Path(f"{path}-journal")
        before = journal.read_bytes()
        code, text = self.check(path)
        self.assertEqual(code, 1, text)
        self.assertIn(f"journal: {journal} holds an unfinished write", text)
        out, report = self.recover(path)
        self.assertEqual(report, f"saved {len(original)} entries into {out}\n")
        self.assertEqual(self.entries(out), original)
        self.assertEqual(journal.read_bytes(), before)

    def test_lost_sources_and_metadata_are_stood_in_for(self):
        source = self.annotated("log.kvlog", "5")
        path = self.damaged(source, "lost.kvlog", zero_page(pages_of(source, "dataSources")[0]),
                            zero_page(pages_of(source, "metadata")[0]))
        code, text = self.check(path)
        self.assertEqual(code, 1, text)
        for table in ("dataSources", "metadata"):
            self.assertIn(f"{table}: some of its pages cannot be read", text)
        out, report = self.recover(path)
        # Without the metadata, each payload tells whether it is compressed.
        original = self.entries(source)
        saved = self.entries(out)
        self.assertEqual([e["data"] for e in saved], [e["data"] for e in original])
        names = {e["source"] for e in saved}
        self.assertEqual(names, {f"recovered #{number}" for number in SOURCES.values()})
        self.assertIn('dataSources: source 1 was lost; its entries are under the stand-in '
                      '"recovered #1"', report)
        info = self.info(out)
        self.assertEqual((info["compressionLevel"], info["metadata"]["applicationName"]),
                         (-1, "korvane-log"))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    TOOL = os.path.abspath(sys.argv.pop(1))
    os.environ["TZ"] = "UTC"
    unittest.main()
