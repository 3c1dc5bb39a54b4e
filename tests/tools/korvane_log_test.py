"""Tests of the korvane-log tool: korvane_log_test.py PATH-TO-KORVANE-LOG [unittest options]."""

import base64
import contextlib
import hashlib
import json
import os
import random
import shlex
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

SOURCES, HELP = {"imu": 1, "gnss": 2, "camera": 3}, " (see korvane-log --help)"
VERBS = ("info, cat, tail, play, slice, clone, meta, bookmarks, resources, thumbnail, record, "
         "check, recover, demo, view, report" + HELP)


def run(*args, stdin=b""):
    return subprocess.run([TOOL, *map(str, args)], input=stdin, capture_output=True, timeout=60)


def sample_entries(count=60, seed=7):
    """Entries of three sources, 10 ms apart from 2023-11-14T22:13:20Z on, but entry 6 comes
    25 ms late; entry 2 holds every byte value, entry 5 nothing, a camera's about 3 KB."""
    rng, kinds = random.Random(seed), [("imu", 28), ("imu", 28), ("gnss", 22), ("camera", 3000)]
    entries = [{"source": kinds[i % 4][0], "sourceType": SOURCES[kinds[i % 4][0]],
                "type": 10 + i % 3, "timestamp": 1_700_000_000_000 + i * 10 + 25 * (i == 5),
                "data": rng.randbytes(kinds[i % 4][1] + rng.randrange(5))} for i in range(count)]
    for entry, data in zip(entries[1:5:3], (bytes(range(256)), b"")):
        entry["data"] = data
    return entries


def json_lines(entries):
    return b"".join(json.dumps({**e, "data": base64.b64encode(e["data"]).decode()}).encode()
                    + b"\n" for e in entries)


def query(path, sql, *params, mode="ro"):
    with contextlib.closing(sqlite3.connect(f"file:{path}?mode={mode}", uri=True)) as db:
        return db.execute(sql, params).fetchall()


# Each `$ command` is run in turn; its output must be the lines that follow it.
ANNOTATIONS = """$ meta {p} set count -42 --int
added count = -42 (int)
$ meta {p} set ratio 2.5 --double
added ratio = 2.5 (double)
$ bookmarks {p} add 3 Brake "hard stop"
added bookmark on entry 3: Brake
$ bookmarks {p} update 3 Stop soft
updated bookmark on entry 3: Stop
$ slice {p} 2 3
{d}/log_2-3.kvlog
$ bookmarks {d}/log_2-3.kvlog
ENTRY  TIME                     SOURCE  TITLE  COMMENT
    2  2023-11-14 22:13:20.020  gnss    Stop   soft
$ bookmarks {p} remove 3
removed bookmark on entry 3
$ resources {p} add calibration {d}/blob.bin
added resource calibration (10.0 KiB)
$ thumbnail {p} set {d}/thumb.png
thumbnail set: PNG image, 3x2, 24 B
$ resources {p} get calibration -o {d}/copy.bin
$ clone {p} -o {d}/other.kvlog --level 0 --app viewer
{d}/other.kvlog
"""


def flip(data, at, count=1):
    data[at:at + count] = bytes(byte ^ 0x5A for byte in data[at:at + count])
    return data


def zero(data, at):
    data[at] = bytes(at.stop - at.start)
    return data


def leaf(path, table, fraction):  # the bytes of the leaf page of `table` `fraction` through them
    pages = query(path, "SELECT pageno, pgsize FROM dbstat WHERE name = ? AND pagetype = 'leaf' "
                        "ORDER BY pageno", table)
    number, size = pages[int(len(pages) * fraction)]
    return slice((number - 1) * size, number * size)


def flip_cells(path, data):  # flips what the rows of a page of entries say of themselves
    at = leaf(path, "data", 0.5).start
    return flip(data, at + int.from_bytes(data[at + 5:at + 7], "big"), 24)


def counted(data):  # the bytes of the pages that the header counts; a file grows ahead of them
    return int.from_bytes(data[28:32], "big") * int.from_bytes(data[16:18], "big")


def die_in_a_write(path, data):  # a writer dies in a transaction whose pages spilled to the file
    journal = Path(f"{path}-journal")
    with contextlib.closing(sqlite3.connect(path, isolation_level=None)) as db:
        db.executescript("PRAGMA cache_size = 2; BEGIN; UPDATE data SET timestamp = timestamp + 1")
        data, left = path.read_bytes(), journal.read_bytes()
    journal.write_bytes(left)
    return data


def insert(path, *timestamps):  # entries that a writer other than the tool adds in one commit
    with contextlib.closing(sqlite3.connect(path)) as db, db:
        db.executemany("INSERT INTO data (timestamp, type, dataSourceId, length, payload) "
                       "VALUES (?, 1, 1, 1, x'2a')", [(t,) for t in timestamps])


def header_past_end(path):  # what a writer that dies in the middle of a write can leave
    with open(path, "r+b") as file:
        file.seek(28), file.write((path.stat().st_size // 512 + 9).to_bytes(4, "big"))


REPLACED = "was replaced by another file while it was followed"
# How the file that tail follows goes (`other`: another recording, `older`: a copy of the followed
# one before its last entry), tail's options, and what tail says then.
REPLACEMENTS = [
    (lambda path, other, older: os.replace(shutil.copy(other, f"{path}.new"), path), "", REPLACED),
    (lambda path, other, older: shutil.copyfile(other, path), "", REPLACED),
    # Its ids go back; the last entry printed is still there.
    (lambda path, other, older: shutil.copyfile(older, path), "--source gnss", REPLACED),
    # Copies of it that went on otherwise, with other counts in the header or the same ones.
    (lambda p, other, older: (insert(older, 7), insert(older, 8), shutil.copyfile(older, p)), "",
     REPLACED),
    (lambda path, other, older: (insert(older, 7, 8), shutil.copyfile(older, path)), "", REPLACED),
    (lambda path, other, older: os.truncate(path, 0), "", REPLACED),
    (lambda path, other, older: os.truncate(path, counted(path.read_bytes()) // 2), "", REPLACED),
    (lambda path, other, older: header_past_end(path), "",
     "cannot be read any more; 'korvane-log check' tells what it holds")]


LOST = "\n  data: {lost} of 1 to 200 cannot be read: {ids}\n"
CUT = "\n  data: its last pages cannot be read; entries after id {last} are lost\n"
PAGES = "".join(f"\n  {table}: some of its pages cannot be read" for table in ("metadata",
                                                                             "dataSources")) + "\n"
DAMAGES = [  # damage, levels, what check says, what recover says after its first line
    (flip_cells, "05", ["integrity_check: ", LOST], LOST),
    (lambda p, d: zero(d, leaf(p, "data", 1 / 3)), "05", ["integrity_check: ", LOST], LOST),
    (lambda p, d: d[:counted(d) * 3 // 5 + 100], "05", ["the file ends inside page ", CUT], CUT),
    # A page count past the end is what a kill most often leaves.
    (lambda path, data: data[:28] + (int.from_bytes(data[28:32], "big") + 9).to_bytes(4, "big")
     + data[32:counted(data)], "05", ["\n  header: its header counts "], "\n"),
    # The size that a compressed payload records: SQLite sees nothing wrong, zstd does.
    (lambda p, d: flip(d, d.index(query(p, "SELECT payload FROM data WHERE entryId = 50")[0][0])
                       + 5), "5", ["\n  data: 1 entry does not decode (ids 50)\n"], LOST),
    (die_in_a_write, "0", ["\n  journal: {path}-journal holds an unfinished write"], "\n"),
    (lambda p, d: zero(zero(d, leaf(p, "dataSources", 0)), leaf(p, "metadata", 0)), "5",
     ["integrity_check: ", PAGES], PAGES + "".join(f'  dataSources: source {n} was lost; its '
     f'entries are under the stand-in "recovered #{n}"\n' for n in (1, 2, 3)))]


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.dir = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def ok(self, *args, stdin=b""):
        result = run(*args, stdin=stdin)
        self.assertEqual((result.returncode, result.stderr), (0, b""), args)
        return result.stdout

    def fails(self, code, *args, stdin=b""):
        result = run(*args, stdin=stdin)
        self.assertEqual(result.returncode, code, (args, result.stderr))
        self.assertRegex(result.stderr.decode(), "^korvane-log: [^\n]*\n$")
        return result.stderr.decode()[len("korvane-log: "):-1]

    def start(self, *args, **pipes):  # killed, its pipes closed, when the test ends
        process = subprocess.Popen([TOOL, *map(str, args)], **pipes)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        return process

    def recorded(self, entries, name="log.kvlog", *options):
        self.ok("record", self.dir / name, *options, stdin=json_lines(entries))
        return self.dir / name

    def info(self, path):
        return json.loads(self.ok("info", path, "--json"))

    def cat(self, path, *opts):
        return list(map(json.loads, self.ok("cat", path, "--format", "json", *opts).splitlines()))

    def test_info_and_cat_give_back_what_was_recorded_at_every_level(self):
        # More entries than the tool reads in one batch, so that batches meet inside ranges.
        entries = sample_entries(count=150)
        stamps = [e["timestamp"] for e in entries]
        mine = {name: [e for e in entries if e["source"] == name] for name in SOURCES}
        for level in ("0", "-1", "9"):
            path, copy = self.recorded(entries, f"{level}.kvlog", "--level", level, "--app", "rig",
                                       "--app-version", "2.1"), self.dir / level
            info = self.info(path)
            with open(path, "r+b") as grown:  # room that a killed writer leaves past the pages
                grown.truncate(counted(path.read_bytes()) + (3 << 20))
            self.assertEqual([info[k] for k in (
                "compressionLevel", "entryCount", "firstEntryId", "lastEntryId", "firstTimestamp",
                "lastTimestamp", "spanMs", "payloadBytes", "fileSize")] + [
                info["metadata"][k] for k in ("applicationName", "applicationVersion")], [
                int(level), 150, 1, 150, min(stamps), max(stamps), max(stamps) - min(stamps),
                sum(len(e["data"]) for e in entries), counted(path.read_bytes()), "rig", "2.1"])
            self.assertEqual([self.info(path)[k] for k in ("fileSize", "reservedBytes")],
                             [info["fileSize"], path.stat().st_size - info["fileSize"]])
            self.assertEqual([(s["name"], s["type"], s["entryCount"], s["payloadBytes"])
                              for s in info["dataSources"]], [
                (name, kind, len(mine[name]), sum(len(e["data"]) for e in mine[name]))
                for name, kind in SOURCES.items()])
            self.assertEqual([base64.b64decode(e["data"]) for e in self.cat(path)],
                             [e["data"] for e in entries])
            self.assertEqual(self.ok("cat", path, "--source", "camera", "--format", "raw"),
                             b"".join(e["data"] for e in entries if e["source"] == "camera"))
            self.ok("record", copy, stdin=self.ok("cat", path, "--format", "json"))
            self.assertEqual(*[self.ok("cat", p, "--format", "json") for p in (path, copy)])
        lines = self.ok("info", path).decode().splitlines()
        self.assertRegex(lines[0], rf"^File +{path} \(\d+\.\d KiB, and 3\.00 MiB reserved for "
                                   r"writing\)$")
        rows = lines[-3:]  # the sources, with their rates
        self.assertEqual([row.split()[4] for row in rows], [
            f"{(len(m) - 1) * 1000 / (m[-1]['timestamp'] - m[0]['timestamp']):.1f}"
            for m in mine.values()])
        for options, wanted in [
                ("", {}), ("--type 11", {"type": {11}}), ("--source gnss", {"sourceType": {2}}),
                ("--type 10 --type 12", {"type": {10, 12}}), ("--source 3", {"sourceType": {3}}),
                ("--source-type 1", {"sourceType": {1}}), ("--from 50", {"id": range(50, 151)}),
                ("--from 60 --to 140 --source imu", {"id": range(60, 141), "sourceType": {1}}),
                ("--source imu --type 10 --to 30", {"sourceType": {1}, "type": {10},
                                                    "id": range(31)})]:
            expected = [i for i, e in enumerate(entries, start=1)
                        if all({**e, "id": i}[key] in values for key, values in wanted.items())]
            for limit in ("", " --limit 3"):
                self.assertEqual([e["id"] for e in self.cat(path, *(options + limit).split())],
                                 expected[:3] if limit else expected, options + limit)

    def test_record_takes_defaults_and_writes_each_line_while_the_input_stays_open(self):
        path = self.dir / "live.kvlog"
        process = self.start("record", path, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        for count, line in enumerate(['"a", "timestamp": 1, "data": "AQ=="',
                                      '"b", "sourceType": 7, "timestamp": 2, "data": ""',
                                      '"a", "type": 3, "timestamp": 3, "data": "AgM="'], start=1):
            process.stdin.write(b'{"source": %s}\n' % line.encode())
            process.stdin.flush()
            found, deadline = None, time.monotonic() + 10  # generous: the tool waits 50 ms
            while found != count and time.monotonic() < deadline:
                with contextlib.suppress(sqlite3.Error):  # not there yet, or locked
                    found = query(path, "SELECT COUNT(*) FROM data")[0][0]
                time.sleep(0.01)
            self.assertEqual((found, process.poll()), (count, None))
        self.assertEqual(process.communicate(timeout=60)[0],
                         f"recorded 3 entries from 2 sources into {path}\n".encode())
        self.assertEqual([(e["source"], e["sourceId"], e["sourceType"], e["type"], e["data"])
                          for e in self.cat(path)],
                         [("a", 1, 0, 0, "AQ=="), ("b", 2, 7, 0, ""), ("a", 1, 0, 3, "AgM=")])

    def test_annotations_slices_and_clones(self):
        path = self.recorded(sample_entries(count=4), "log.kvlog", "--level", "5")
        blob, png = bytes(range(256)) * 40, b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\3\0\0\0\2"
        (self.dir / "blob.bin").write_bytes(blob)
        (self.dir / "thumb.png").write_bytes(png)
        for block in ANNOTATIONS.format(p=path, d=self.dir).split("$ ")[1:]:
            command, _, output = block.partition("\n")
            self.assertEqual(self.ok(*shlex.split(command)).decode(), output, command)
        self.assertEqual([self.ok("resources", path, "get", "calibration"),
                          (self.dir / "copy.bin").read_bytes(), self.ok("thumbnail", path, "get")],
                         [blob, blob, png])
        self.assertEqual(self.cat(self.dir / "log_2-3.kvlog"),
                         [{**e, "id": e["id"] - 1} for e in self.cat(path)[1:3]])
        info, copy = self.info(path), self.info(self.dir / "other.kvlog")
        self.assertEqual((info["bookmarkCount"], copy["compressionLevel"], *map(
                          copy["metadata"].get, ("applicationName", "oldApplicationName"))),
                         (0, 0, "viewer", "korvane-log"))

    def test_play_delivers_frames_in_order(self):
        entries = sample_entries(count=24)
        path, numbered = self.recorded(entries), list(enumerate(entries, start=1))
        for options, expected in [
                ("", list(range(1, 25))), ("--seek 20", [21, 22, 23, 24]),
                ("--source-type 2 --source-type 3",
                 [i for i, e in numbered if e["source"] in ("gnss", "camera")]),
                # Entry 6 is 35 ms after entry 5; entry 7 goes back in time and adds nothing.
                ("--duration 35", [1, 2, 3, 4]), ("--duration 75", list(range(1, 8))),
                ("--duration 80 --timing ms", list(range(1, 8)))]:
            lines = self.ok("play", path, "--max-gap", "0", *options.split()).decode().splitlines()
            first = 20 if "seek" in options else 0
            self.assertEqual([(int(r[0]), int(r[1]), r[5]) for r in map(str.split, lines[1:-1])],
                             [(first + n, i, entries[i - 1]["source"])
                              for n, i in enumerate(expected)], options)
            self.assertTrue(lines[-1].startswith(f"played {len(expected)} frames"), lines[-1])

    def test_tail_follows_a_recording_until_the_file_is_removed(self):
        path, entries, tails = self.dir / "live.kvlog", sample_entries(40), {}
        recorder = self.start("record", path, "--level", "0", stdin=subprocess.PIPE,
                              stdout=subprocess.DEVNULL)
        tail = lambda *options: self.start("tail", path, "--format", "json", *options,  # noqa
                                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for line in json_lines(entries).splitlines(keepends=True):
            recorder.stdin.write(line)
            recorder.stdin.flush()
            while not tails and (not path.exists() or path.stat().st_size == 0):
                time.sleep(0.01)
            tails = tails or {"imu": tail("--source", "imu")}
            time.sleep(0.005)
        recorder.stdin.close()
        self.assertEqual(recorder.wait(timeout=60), 0)
        tails.update((n, tail("-n", n)) for n in ("3", "50", "0"))
        time.sleep(1)  # ample time for each tail to take the last id as its start
        with contextlib.closing(sqlite3.connect(path)) as db, db:  # a writer other than the tool
            db.execute("INSERT INTO data (timestamp, type, dataSourceId, length, payload) "
                       "VALUES (1, 1, 1, 1, x'2a')")
        for key, ids in (("3", [38, 39, 40, 41]), ("0", [41]), ("50", list(range(1, 42))),
                         ("imu", [i for i in range(1, 42) if i % 4 in (1, 2)])):  # and the new one
            self.assertEqual([json.loads(tails[key].stdout.readline())["id"] for _ in ids], ids)
        tails.pop("50").send_signal(signal.SIGINT)
        path.unlink()
        for follower in tails.values():
            self.assertEqual((follower.communicate(timeout=60), follower.returncode), ((b"", (
                f"korvane-log: {path}: was removed while it was followed\n").encode()), 1))

    def test_tail_ends_when_its_file_is_replaced_however_that_was_done(self):
        other = self.recorded(sample_entries(count=63, seed=8), "other.kvlog", "--level", "0")
        for number, (replace, options, says) in enumerate(REPLACEMENTS):
            path = self.recorded(sample_entries(count=30), f"{number}.kvlog", "--level", "0")
            older = shutil.copy(path, self.dir / f"{number}-older.kvlog")
            insert(path, 1)
            tail = self.start("tail", path, "--format", "json", *options.split(),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            ids = range(3, 31, 4) if options else range(1, 32)  # gnss: every fourth from 3
            self.assertEqual([json.loads(tail.stdout.readline())["id"] for _ in ids], list(ids))
            replace(path, other, older)
            self.assertEqual((tail.communicate(timeout=60), tail.returncode),
                             ((b"", f"korvane-log: {path}: {says}\n".encode()), 1), number)

    def test_reading_verbs_leave_every_file_as_it_was(self):
        p = self.recorded(sample_entries(count=200), "log.kvlog", "--level", "0")
        self.ok("resources", p, "add", "notes", p)
        self.ok("thumbnail", p, "set", p)
        self.ok("bookmarks", p, "add", 2, "mark")
        files = {name: shutil.copy(p, self.dir / name) for name in ("wal.kvlog", "journal.kvlog")}
        query(files["wal.kvlog"], "PRAGMA journal_mode = WAL", mode="rw")  # writers undo it
        files["journal.kvlog"].write_bytes(die_in_a_write(files["journal.kvlog"], b""))
        files.setdefault("empty.kvlog", self.dir / "empty.kvlog").touch()
        refused = {"journal.kvlog": "{}: a write to it did not finish, and {}-journal would undo "
                   "it; 'korvane-log check' reads it as it stands",
                   "empty.kvlog": "{}: not a log file (empty or not a regular file)"}
        state = lambda file: (hashlib.sha256(file.read_bytes()).digest(),  # noqa: E731
                              file.stat().st_mtime_ns)
        for verb in ("info {}", "cat {}", "tail {} -n 1", "play {} --seek 195", "check {}",
                     "meta {}", "bookmarks {}", "resources {}", "resources {} get notes -o {}",
                     "thumbnail {}", "thumbnail {} get -o {}", "slice {} 1 2 -o {}",
                     "clone {} -o {}"):
            for name, path in files.items():
                before = {f: state(f) for f in (path, Path(f"{path}-journal")) if f.exists()}
                process = self.start(*verb.format(path, f"{path}.{verb[:5]}").split(),
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                code, says = (1, refused[name].format(path, path)) if name in refused else (0, "")
                if verb == "check {}" and name == "journal.kvlog":  # check tells it on stdout
                    says = ""
                if verb.startswith("tail") and code == 0:
                    process.stdout.readline()
                    process.send_signal(signal.SIGINT)
                err = process.communicate(timeout=60)[1].decode()
                self.assertEqual((process.returncode, err.removeprefix("korvane-log: ").strip()),
                                 (code, says), (verb, name))
                self.assertEqual({f: state(f) for f in before}, before, (verb, name))

    def test_bad_files_and_arguments_give_one_line_and_change_nothing(self):
        p, bare = self.recorded(sample_entries(count=4)), self.recorded([], "bare.kvlog")
        self.ok("meta", p, "set", "vehicle", "car 1")
        self.ok("resources", p, "add", "notes", p)
        self.ok("thumbnail", p, "set", p)
        (self.dir / "legacy.log").write_bytes(bytes([0x44, 0x33, 0x22, 0x11]) + bytes(60))
        query(self.dir / "foreign.db", "CREATE TABLE readings (value REAL)", mode="rwc")
        (self.dir / "notes.txt").write_text("some notes\n"), (self.dir / "empty.kvlog").touch()
        files, new = {path: path.read_bytes() for path in self.dir.iterdir()}, self.dir / "new"
        bad = {"missing": "no such file", ".": "is a directory, not a log file",
               "empty.kvlog": "not a log file (empty or not a regular file)",
               "notes.txt": "not a log file", "foreign.db": "not a log file",
               "legacy.log": "a legacy log file of the older format, which cannot be read"}
        rows = [(2, "", "a verb is needed: " + VERBS), (2, "info", "FILE is required" + HELP),
                (2, "frobnicate", "unknown verb 'frobnicate'; the verbs are " + VERBS),
                (2, "--bogus", "unknown option '--bogus'; options follow the verb" + HELP),
                (2, f"cat {p} --limit x", "--limit: 'x' is not a number at least 0" + HELP),
                (2, f"play {p} --speed 0", "--speed: '0' is not a number above 0" + HELP),
                (2, f"record {new} --level 10", "--level: Value 10 not in range -1 to 9" + HELP),
                (2, f"recover {p} {new} --level -2", "--level: Value -2 not in range -1 to 9"
                 + HELP),
                (2, f"slice {p} 3 2", "FIRST 3 comes after LAST 2"),
                (2, f"meta {p} set k x1 --int", "VALUE: 'x1' is not a valid int"),
                (1, f"meta {p} set vehicle car2",
                 f"{p}: metadata key 'vehicle' exists already, and keys cannot be changed"),
                (1, f"resources {p} add notes {p}",
                 f"{p}: resource 'notes' exists already, and resources cannot be replaced"),
                (1, f"resources {p} add other {new}", f"{new}: no such file"),
                (1, f"resources {p} get nope", f"{p}: no resource named 'nope'"),
                (1, f"thumbnail {bare} get", f"{bare}: has no thumbnail"),
                (1, f"bookmarks {p} add 99 title", f"{p}: no entry 99 to bookmark"),
                (1, f"bookmarks {p} remove 2", f"{p}: no bookmark on entry 2"),
                (1, f"cat {p} --source lidar", f"{p}: no data source named or numbered 'lidar'"),
                (1, f"play {p} --source-type 9", f"{p}: no data source of type 9"),
                (1, f"play {p} --seek 4", f"{p}: cannot seek to frame 4: the frames are 0 to 3"),
                (1, f"slice {p} 0 2", f"{p}: no entry with id 0 (its ids run from 1 to 4)"),
                (1, f"slice {bare} 1 1", f"{bare}: has no entries to slice"),
                *[(1, args, f"{bare}: exists already; will not overwrite it") for args in (
                    f"record {bare}", f"slice {p} 1 2 -o {bare}", f"clone {p} -o {bare}",
                    f"recover {p} {bare}", f"resources {p} get notes -o {bare}",
                    f"thumbnail {p} get -o {bare}")],
                *[(1, verb.format(self.dir / name, new), f"{self.dir / name}: {reason}")
                  for name, reason in bad.items() for verb in (
                      "info {}", "cat {}", "tail {}", "play {}", "meta {}", "bookmarks {}",
                      "resources {}", "thumbnail {}", "check {}", "slice {} 1 2 -o {}",
                      "clone {} -o {}", "recover {} {}")]]
        for code, args, message in rows:
            self.assertEqual(self.fails(code, *args.split()), message)
        for line, why in {
                '[1]': "not a JSON object", '{"timestamp": 5}': '"source" must be a string',
                '{"source": "a", "timestamp": 5, "data": "A==="}': '"data" is not base64',
                '{"source": "a", "type": 4294967296, "timestamp": 5, "data": ""}':
                '"type" is out of range'}.items():
            good = b'{"source": "a", "timestamp": 5, "data": "AAEC"}\n\n'
            self.assertEqual(self.fails(1, "record", new, stdin=good + line.encode()),
                             f"stdin line 3: {why} ({new} not written)")
        self.assertEqual({path: path.read_bytes() for path in self.dir.iterdir()}, files)
        self.assertEqual([self.info(bare)[k] for k in ("entryCount", "firstEntryId", "spanMs")]
                         + [self.ok("play", bare)], [0, -1, 0, b"no frames to play\n"])

    def test_damage_is_reported_and_everything_readable_is_saved(self):
        (self.dir / "notes").write_bytes(b"calibrated on the test bench\n" * 20)
        for level in "05":
            source = self.recorded(sample_entries(count=200), f"{level}.kvlog", "--level", level)
            for entry_id in (3, 190):
                self.ok("bookmarks", source, "add", entry_id, f"m{entry_id}")
            self.ok("resources", source, "add", "notes", self.dir / "notes")
        original, out = self.cat(source), self.dir / "whole.kvlog"
        self.assertEqual((self.ok("check", source), self.ok("recover", source, out)), (
            f"{source}: ok, 200 entries, 3 data sources, 1 resource, 2 bookmarks\n".encode(),
            f"saved 200 entries into {out}\n".encode()))
        self.assertEqual(*[{**self.info(p), "file": 0, "fileSize": 0} for p in (source, out)])
        for number, (damage, levels, says, reports) in enumerate(DAMAGES):
            for level in levels:
                path, out = self.dir / f"{number}-{level}.kvlog", self.dir / f"{number}-{level}"
                path.write_bytes((self.dir / f"{level}.kvlog").read_bytes())
                path.write_bytes(damage(path, bytearray(path.read_bytes())))
                files = {p: p.read_bytes() for p in self.dir.glob(f"{path.name}*")}
                check, report = run("check", path), self.ok("recover", path, out).decode()
                saved = self.cat(out)
                times = {e["timestamp"] for e in saved}
                gone = [e["id"] for e in original if e["timestamp"] not in times]
                values = {"path": path, "last": min(gone, default=1) - 1,
                          "lost": f"{len(gone)} id{'s' if len(gone) > 1 else ''}",
                          "ids": "-".join(map(str, sorted({gone[0], gone[-1]} if gone else [])))}
                self.assertEqual(({p: p.read_bytes() for p in files}, run("check", out).returncode,
                                  check.returncode, check.stderr), (files, 0, 1, b""))
                for fragment in [f"{path}: damaged; {len(saved)} entries can be read\n", *says]:
                    self.assertIn(fragment.format(**values), check.stdout.decode())
                marks = [m for m in (3, 190) if m not in gone]
                self.assertEqual(report, f"saved {len(saved)} entries into {out}" + reports.format(
                    **values) + "  bookmarks: 1 bookmark dropped with the entries they marked\n"
                    * (2 - len(marks)))
                names = {n: f"recovered #{n}" for n in (1, 2, 3)} if "stand-in" in report else {}
                self.assertEqual([(e["source"], e["timestamp"], e["data"]) for e in saved], [
                    (names.get(e["sourceId"], e["source"]), e["timestamp"], e["data"])
                    for e in original if e["id"] not in gone])
                self.assertEqual([line.split()[2:3] + line.split()[-1:]
                                  for line in self.ok("bookmarks", out).decode().splitlines()[1:]],
                                 [[original[m - 1]["time"][11:23], f"m{m}"] for m in marks])
                self.assertEqual(self.ok("resources", out, "get", "notes"),
                                 (self.dir / "notes").read_bytes())


if __name__ == "__main__":
    TOOL = os.path.abspath(sys.argv.pop(1))
    os.environ["TZ"] = "UTC"
    unittest.main()
