"""Writing, reading, annotating, deriving and following log files, and what fails how."""

import dataclasses
import gc
import itertools
import os
import shutil
import sqlite3
import sys
import threading
import time
from array import array
from contextlib import closing
from itertools import accumulate, islice
from types import SimpleNamespace

import pytest

import korvane_logging as kl
from korvane_logging._columns import CHUNK_BYTES, Columns

CAMERA_TYPE, LIDAR_TYPE, ENTRY_COUNT = 7, 9, 60


@pytest.fixture(params=[0, 6], ids=["stored", "compressed"])
def recording(tmp_path, request):
    """Every third entry is the lidar's; payloads hold NUL and high bytes, every fifth is empty."""
    entries, path = [], tmp_path / "recording.log"
    with kl.LogFile.create(path, "recorder", "2.1", "Europe/Oslo", level=request.param) as log:
        camera, lidar = log.add_source("camera", CAMERA_TYPE), log.add_source("lidar", LIDAR_TYPE)
        for i in range(ENTRY_COUNT):
            source = lidar if i % 3 == 0 else camera
            entries.append(kl.Entry(i + 1, source.id, i % 4, 1_700_000_000_000 + 25 * i,
                                    bytes((i * 7 + k) % 256 for k in range(i % 5 * 13))))
            log.log(source, entries[-1].type, entries[-1].data, timestamp=entries[-1].timestamp)
    return SimpleNamespace(path=path, camera=camera, lidar=lidar, entries=entries)


@pytest.fixture
def log(recording):
    with kl.LogFile.open(recording.path) as opened:
        yield opened


# (what fails, the library's message, whether it is a failed look-up and so a KeyError)
FAILURES = [
    (lambda t: kl.LogFile.open(t.tmp / "missing.log"), "Log file does not exist.", False),
    (lambda t: kl.LogFile.create(t.recording.path, "app", "1"),
     "Cannot create file as file already exists.", False),
    (lambda t: kl.LogFile.open(t.text), "This file is not in a supported log file format.", False),
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
    (lambda t: t.fresh.add_property(42, "key", 1), "Attempted to add a data source property "
     "for a data source that did not exist in the file.", False),
    (lambda t: t.opened.add_bookmark(999, "nowhere"), "Unknown internal error", False),
    (lambda t: t.opened.slice(2, 1, t.tmp / "slice.log"), "Failed to slice log file", False),
    (lambda t: t.opened.clone(t.recording.path), "Failed to clone log file", False),
    (lambda t: t.opened.read_entry(999), "The requested data entry does not exist.", True),
    (lambda t: t.opened.metadata["nothing"], "The requested metadata does not exist.", True),
    (lambda t: t.opened.resources["nothing"], "The requested resource does not exist.", True),
    (lambda t: t.opened.get_property(t.recording.camera, "nothing"),
     "The requested data source property does not exist.", True)]


@pytest.mark.parametrize("action, message, lookup", FAILURES, ids=[f[1] for f in FAILURES])
def test_failures_carry_the_library_message(log, recording, tmp_path, action, message, lookup):
    (tmp_path / "notes.txt").write_text("not a database, only some words of text\n" * 20)
    with kl.LogFile.create(tmp_path / "fresh.log", "app", "1") as fresh, \
            pytest.raises(kl.LogError) as failure:
        action(SimpleNamespace(recording=recording, tmp=tmp_path, opened=log, fresh=fresh,
                               text=tmp_path / "notes.txt"))
    assert (str(failure.value), failure.value.message, isinstance(failure.value, KeyError),
            log.entry_count) == (message, message, lookup, ENTRY_COUNT)
    assert not (tmp_path / "missing.log").exists() and not (tmp_path / "new.log").exists()


SELECTIONS = [{}, {"types": [1]}, {"types": [0, 3, 3]}, {"sources": ["lidar"]},
              {"sources": ["camera", "lidar"]}, {"source_types": [CAMERA_TYPE]},
              {"types": [2], "source_types": [LIDAR_TYPE]}, {"types": [99]}]


def expected(entries, first=-1, last=-1, types=(), sources=(), source_types=(), limit=-1):
    kept = [e for e in entries if (first == -1 or e.id >= first) and (last == -1 or e.id <= last)
            and (not types or e.type in types)
            and (not sources or ("camera", "lidar")[e.source_id - 1] in sources)
            and (not source_types or (CAMERA_TYPE, LIDAR_TYPE)[e.source_id - 1] in source_types)]
    return kept if limit == -1 else kept[:limit]


def named(log, selection):
    names = selection.get("sources", [])
    return {**selection, "sources": [s for s in log.sources if s.name in names]}


@pytest.mark.parametrize("selection", SELECTIONS)
def test_reads_give_what_was_logged(log, recording, selection):
    entries = recording.entries
    for window in [{}, {"first": 10, "last": 20}, {"first": 55}, {"last": 1}, {"limit": 4},
                   {"first": 7, "last": 40, "limit": 3}, {"limit": 0}]:
        assert log.read_entries(**named(log, selection), **window) == expected(
            entries, **selection, **window), window
    assert [e.id for e in expected(entries, **selection)] == log.entry_index(
        **named(log, selection))
    assert ([log.read_entry(i) for i in (1, 31, 60)], log.entry_count, log.first_entry_id,
            log.last_entry_id, [(s.name, s.type) for s in log.sources]) == (
                [entries[i - 1] for i in (1, 31, 60)], 60, 1, 60, [("camera", 7), ("lidar", 9)])


# Ids missing from a file (written elsewhere) are simply not there to read.
@pytest.mark.parametrize("missing", [(), (1, 8, 9, 10, 11, 12, 13, 14, 15, 33, ENTRY_COUNT)])
def test_iteration_reads_a_few_entries_at_a_time(recording, missing, tmp_path, monkeypatch):
    shutil.copy(recording.path, tmp_path / "copy.log")
    with closing(sqlite3.connect(tmp_path / "copy.log")) as database, database:
        database.executemany("DELETE FROM data WHERE entryId = ?", [(i,) for i in missing])
    kept, sizes = [e for e in recording.entries if e.id not in missing], []
    chunk = Columns.entries
    monkeypatch.setattr(Columns, "entries", lambda self: sizes.append(self.count) or chunk(self))
    with kl.LogFile.open(tmp_path / "copy.log") as log:
        for selection, size in itertools.product(SELECTIONS, (1, 7)):  # a filter looks at
            assert list(log.iter_entries(first=3, chunk=size, **named(  # 16 ids per entry
                log, selection))) == expected(kept, first=3, **selection)
    assert max(sizes) == 7


def test_a_chunk_of_big_entries_holds_what_fits_in_its_bytes(tmp_path, monkeypatch):
    chunks, chunk = [], Columns.entries
    monkeypatch.setattr(Columns, "entries", lambda self: chunks.append(
        (self.count, self.struct.payload_size)) or chunk(self))
    sizes = [n * CHUNK_BYTES // 16 for n in range(1, 20)] + [CHUNK_BYTES + 1] * 2
    with kl.LogFile.create(tmp_path / "big.log", "app", "1", level=0) as log:
        source = log.add_source("s", 1)
        log.log_many([(source, 0, bytes([size % 251]) * size) for size in sizes])
        assert [(len(e.data), e.data[:1]) for e in log.iter_entries(first=2)] == [
            (size, bytes([size % 251])) for size in sizes[1:]]
    # The room grows to CHUNK_BYTES; only an entry bigger than that has a call of its own.
    assert all(size <= CHUNK_BYTES or count == 1 for count, size in chunks)
    assert max(count for count, _ in chunks) > 1 and len(chunks) < len(sizes)


VALUES = [0, -5, 2**63 - 1, -2**63, 2**40, 3.0, -0.25, "", "12", "grüße", "tab\tand\nline"]


def test_an_empty_file_and_annotations_come_back_as_given(tmp_path):
    image = bytes(range(256)) * 40
    with kl.LogFile.create(tmp_path / "fresh.log", "app", "1.0", "UTC") as log:
        assert (log.entry_count, log.first_entry_id, log.last_entry_id, log.read_entries(),
                log.entry_index(), log.sources) == (0, None, None, [], [], [])
        gps, imu = log.add_source("gps", 3), log.add_source("imu", 4)
        before = int(time.time() * 1000)  # an entry without timestamp is stamped now
        log.log(gps, 0, b"tick")
        assert before <= log.read_entry(1).timestamp <= int(time.time() * 1000)
        for number, value in enumerate(VALUES):
            log.add_metadata(f"mine{number}", value)
            log.add_property(gps, f"setting{number}", value)
        for value in [2**63, -2**63 - 1, b"bytes", None, [1]]:  # refused before the call
            with pytest.raises((OverflowError, TypeError)):
                log.add_metadata("bad", value)
        log.add_property(imu, "axes", "xyz"), log.add_property(gps, "setting0", 20)
        with pytest.raises(kl.LogError, match="^The metadata key 'mine0' exists already.$"):
            log.add_metadata("mine0", "lee")
        assert log.properties(imu.id) == [kl.Property(imu.id, "axes", "xyz")]
        log.add_resource("thumbnail", image), log.add_resource("calibration", b"\x00\x01\x00")
        with pytest.raises(kl.LogError, match="^The resource 'calibration' exists already.$"):
            log.add_resource("calibration", b"other")
        log.add_bookmark(1, "one", "look here", b"\xff\x00")
        assert log.bookmarks == [kl.Bookmark(1, "one", "look here", b"\xff\x00")]
        log.add_bookmark(1, "two"), log.update_bookmark(1, "renamed", "", b"new")
        assert log.bookmarks == [kl.Bookmark(1, "renamed", "", b"new")] * 2
        log.remove_bookmark(1)
    with kl.LogFile.open(tmp_path / "fresh.log") as again:
        assert (len(again.metadata), again.metadata.get("bad", 0), again.properties()[-1],
                again.get_property(gps, "setting0"), dict(again.resources), again.bookmarks) == (
                    17, 0, kl.Property(gps.id, "setting0", 20), 0,
                    {"thumbnail": image, "calibration": b"\x00\x01\x00"}, [])
        for number, value in enumerate(VALUES):
            for read in (again.metadata[f"mine{number}"],
                         again.get_property(gps, f"setting{number}")):
                assert (type(read), read) == (type(value), value)


@pytest.mark.parametrize("first, last", [(1, 60), (10, 35), (35, 35)])
def test_slice_renumbers_the_range_and_keeps_the_rest(log, recording, tmp_path, first, last):
    log.add_bookmark(35, "mark", "", b"\0\1")
    with log.slice(first, last, tmp_path / "slice.log", level=0) as part:
        assert (part.read_entries(), part.bookmarks, part.metadata["compressionLevel"],
                part.metadata["applicationName"]) == ([dataclasses.replace(e, id=n) for n, e in
                    enumerate(recording.entries[first - 1:last], 1)], [kl.Bookmark(
                        36 - first, "mark", "", b"\0\1")], 0, "recorder")


def test_clone_takes_new_entries_and_archives_the_old_identity(log, recording, tmp_path):
    with log.clone(tmp_path / "clone.log", app_name="converter", app_version="3") as copy:
        copy.log(recording.lidar, 5, b"appended", timestamp=1)
        assert copy.read_entries() == recording.entries + [kl.Entry(61, 2, 5, 1, b"appended")]
        assert (copy.metadata["applicationName"], copy.metadata["oldApplicationName"],
                copy.metadata["oldApplicationVersion"]) == ("converter", "recorder", "2.1")


def descriptors_and_memory():
    with open("/proc/self/statm") as statm:
        resident = int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    return len(os.listdir("/proc/self/fd")), resident


def test_closing_frees_descriptors_and_the_library_path_comes_before_the_environment(
        recording, monkeypatch):
    before = descriptors_and_memory()[0]
    with pytest.raises(RuntimeError), kl.LogFile.open(recording.path) as log:
        entry, bookmarks = log.read_entry(2), log.bookmarks
        raise RuntimeError("leaves the block")
    assert (log.closed, descriptors_and_memory()[0], entry, bookmarks) == (
        True, before, recording.entries[1], [])
    log.close()
    with pytest.raises(ValueError, match="closed"):
        log.read_entry(2)
    built = os.environ["KORVANE_LOGGING_LIBRARY"]
    monkeypatch.setenv("KORVANE_LOGGING_LIBRARY", "/nonexistent/libkorvane-logging.so")
    with pytest.raises(OSError, match="nonexistent"):
        kl.load()
    kl.load(built)
    with kl.LogFile.open(recording.path) as log:
        assert log.read_entry(2) == entry


def test_repeated_use_does_not_grow_memory_or_descriptors(tmp_path):
    big = bytes(range(256)) * 64
    for number in range(35):  # each round uses everything that hands out handles
        if number == 5:  # after a warm-up
            gc.collect()
            descriptors, memory = descriptors_and_memory()
        dropped = kl.LogFile.create(tmp_path / f"{number}.log", "app", "1")  # never closed
        dropped.log(dropped.add_source("s", 1), 1, b"kept")
        with kl.LogFile.create(tmp_path / f"{number}-round.log", "app", "1", level=1) as log:
            a, b = log.add_source("a", 1), log.add_source("b", 2)
            for index in range(40):
                log.log((a, b)[index % 2], index % 3, big)
            log.add_property(a, "k", 1.5), log.add_metadata("round", number)
            log.add_resource("blob", big * 4), log.add_bookmark(5, "five", "comment", big)
            with pytest.raises(kl.NotFoundError):
                log.read_entry(999)
            with log.slice(2, 30, tmp_path / f"{number}-slice.log") as part:
                assert (len(log.read_entries(types=[1])), log.entry_index(sources=[b])[0],
                        dict(log.metadata)["round"], len(dict(log.resources)), len(log.bookmarks),
                        len(log.properties()), len(part.read_entries())) == (
                            13, 2, number, 1, 1, 1, 29)
    gc.collect()
    now = descriptors_and_memory()  # a leaked handle per entry read would add over 20 MB
    with kl.LogFile.open(tmp_path / "0.log") as first:  # closed whole by its finalizer
        assert (now[0], now[1] - memory < 12 << 20, first.read_entry(1).data) == (
            descriptors, True, b"kept")


def test_follow_sees_every_new_entry_in_order(tmp_path):
    path = tmp_path / "live.log"
    with kl.LogFile.create(path, "recorder", "1", level=1) as writer:
        sources = [writer.add_source("even", 1), writer.add_source("odd", 2)]

        def write(ids):  # entry i (id i + 1) is of type i % 3, from "even" or "odd" by its parity
            for i in ids:
                writer.log(sources[i % 2], i % 3, b"entry %d" % i, timestamp=1000 + i)

        write(range(20))
        with kl.LogFile.open(path, read_only=True) as log:
            fresh = log.follow(interval=0.002, idle_timeout=60)
            odd = log.follow(first=1, source_types=[2], interval=0.002, idle_timeout=60)
            (recorder := threading.Thread(target=write, args=(range(20, 320),))).start()
            seen, seen_odd = list(islice(fresh, 300)), list(islice(odd, 160))
            recorder.join()
            assert list(log.follow(idle_timeout=0)) == []
    assert [(e.id, e.data) for e in seen] == [(i + 1, b"entry %d" % i) for i in range(20, 320)]
    assert [(e.id, e.type) for e in seen_odd] == [(i + 1, i % 3) for i in range(1, 320, 2)]


def cut_back(path, _other):
    with closing(sqlite3.connect(path)) as database, database:
        database.execute("DELETE FROM data WHERE entryId > 30")


# How the followed file goes: each ends the following with LogError, and no entry of another
# file is ever delivered.
REPLACEMENTS = {"removed": (lambda path, other: os.remove(path), "removed"),
                "a new file": (lambda path, other: os.replace(other, path), "replaced"),
                "a copy over it": (lambda path, other: shutil.copyfile(other, path), "replaced"),
                "a truncation": (lambda path, other: os.truncate(path, 0), "replaced"),
                "ids that go back": (cut_back, "replaced")}


@pytest.mark.parametrize("replace, outcome", REPLACEMENTS.values(), ids=REPLACEMENTS.keys())
def test_follow_ends_when_the_file_is_replaced(tmp_path, replace, outcome):
    paths = [tmp_path / "followed.log", tmp_path / "other.log"]
    for path, count in zip(paths, (50, 63)):
        time.sleep(0.002)  # the files' creation times differ
        with kl.LogFile.create(path, "recorder", "1", level=0) as log:
            log.log_many([(log.add_source("s", 1), 0, b"%s %d" % (path.name.encode(), i), i)
                          for i in range(count)])
    with kl.LogFile.open(paths[0], read_only=True) as log:
        following = log.follow(first=1, interval=0.001)
        assert [e.data for e in islice(following, 50)] == [b"followed.log %d" % i
                                                           for i in range(50)]
        replace(paths[0], paths[1])
        with pytest.raises(kl.LogError, match=f"^The log file .* has been {outcome}"):
            next(following)


@pytest.mark.parametrize("level", [0, 3])
def test_log_many_writes_what_log_writes(tmp_path, level):
    rows = [(1 + i % 2, i % 5 - 2, bytes([i % 256]) * (i % 7), 10**12 + 3 * i) for i in range(300)]
    paths = [tmp_path / f"{form}.log" for form in ("one by one", "entries", "columns", "arrays")]
    for path in paths:
        with kl.LogFile.create(path, "app", "1", level=level) as log:
            sources = [log.add_source("a", 1), log.add_source("b", 2)]
            if path.stem == "one by one":
                for source, kind, data, stamp in rows:
                    log.log(source, kind, data, timestamp=stamp)
            elif path.stem == "entries":  # records, and no timestamp for the first 100
                log.log_many((sources[r[0] - 1], *r[1:3]) + ((r[3],) if i >= 100 else ())
                             for i, r in enumerate(rows))
            else:
                columns = [list(column) for column in zip(*rows)]
                if path.stem == "arrays":  # one buffer and its offsets
                    columns = [array("b", columns[0]), array("i", columns[1]),
                               b"".join(columns[2]), array("q", columns[3])]
                else:  # and no timestamp for the first 100
                    columns[3][:100] = [None] * 100
                    offsets = array("Q", [0] + list(accumulate(map(len, (r[2] for r in rows)))))
                log.log_many(sources=columns[0], types=columns[1], payloads=columns[2],
                             timestamps=columns[3],
                             **({"offsets": offsets} if path.stem == "arrays" else {}))
    with kl.LogFile.open(paths[0]) as one_by_one:
        logged = one_by_one.read_entries()
    for path in paths[1:]:
        with kl.LogFile.open(path) as log:
            entries = log.read_entries()
        if path.stem != "arrays":
            assert all(time.time() * 1000 - e.timestamp < 60_000 for e in entries[:100])
            entries[:100] = [e._replace(timestamp=w.timestamp)
                             for e, w in zip(entries[:100], logged)]
        assert entries == logged, path.stem


def test_log_many_writes_all_or_nothing(tmp_path):
    with kl.LogFile.create(tmp_path / "batch.log", "app", "1") as log:
        source = log.add_source("s", 1)
        log.log(source, 0, b"first")
        with pytest.raises(kl.LogError) as alone:
            log.log(7, 0, b"nobody")
        for bad in [[(source, 0, b"ok")] * 50 + [(7, 0, b"nobody")] + [(source, 0, b"ok")] * 50,
                    {"sources": [1, 1, 7], "types": [0] * 3, "payloads": [b"a"] * 3}]:
            with pytest.raises(kl.LogError) as failed:
                log.log_many(bad) if isinstance(bad, list) else log.log_many(**bad)
            assert (str(failed.value), log.entry_count) == (str(alone.value), 1)
        log.log_many([(source, 1, b"next")])
        assert [e.id for e in log.read_entries()] == [1, 2]
        for wrong, error in [({"sources": [1], "types": [0, 0], "payloads": [b"", b""]},
                              ValueError), ({"sources": [1], "types": [0]}, TypeError),
                             ({"sources": [200], "types": [0], "payloads": [b""]},
                              OverflowError)]:
            with pytest.raises(error):
                log.log_many(**wrong)
        with pytest.raises(TypeError):
            log.log_many([(source, 0, b"x")], types=[0])


@pytest.mark.parametrize("selection", SELECTIONS)
def test_arrays_and_frames_give_what_was_logged(log, recording, selection):
    numpy = pytest.importorskip("numpy", reason="read_arrays needs NumPy (python3-numpy)")
    pytest.importorskip("pandas", reason="to_pandas needs pandas (python3-pandas)")
    wanted = expected(recording.entries, first=2, last=50, **selection)
    arrays = log.read_arrays(first=2, last=50, **named(log, selection))
    assert [kl.Entry(*fields) for fields in zip(
        arrays.ids.tolist(), arrays.source_ids.tolist(), arrays.types.tolist(),
        arrays.timestamps.tolist(), map(arrays.payload, range(len(arrays.ids))))] == wanted
    assert (arrays.payloads.nbytes, arrays.ids.dtype, arrays.offsets.dtype) == (
        sum(len(e.data) for e in wanted), numpy.int32, numpy.uint64)
    frame = log.to_pandas(first=2, last=50, tz="Europe/Oslo", **named(log, selection))
    assert (str(frame.timestamp.dt.tz), list(frame.data), list(frame.source)) == (
        "Europe/Oslo", [e.data for e in wanted],
        [("camera", "lidar")[e.source_id - 1] for e in wanted])
    assert (frame.timestamp.astype("int64") // 10**6).tolist() == [e.timestamp for e in wanted]
    bare = log.to_pandas(first=2, last=50, payloads=False, **named(log, selection))
    assert ("data" in bare, bare.id.tolist()) == (False, [e.id for e in wanted])


# A frame cut short fails at its header; one whose compressed block holds zeros behind the
# frame and block headers (10 bytes here), in decoding.
DAMAGES = {"cut short": lambda frame: frame[:-1],
           "zeros inside": lambda frame: frame[:10] + bytes(len(frame) - 10)}


@pytest.mark.parametrize("damage", DAMAGES.values(), ids=DAMAGES.keys())
def test_a_damaged_payload_fails_the_read_after_the_entries_before_it(tmp_path, damage):
    path = tmp_path / "damaged.log"
    with kl.LogFile.create(path, "app", "1", level=3) as log:
        log.log_many([(log.add_source("s", 1), 0, b"%05d, " % i * 500, i) for i in range(30)])
    with closing(sqlite3.connect(path)) as database, database:
        frame = database.execute("SELECT payload FROM data WHERE entryId = 12").fetchone()[0]
        database.execute("UPDATE data SET payload = ? WHERE entryId = 12", (damage(frame),))
    with kl.LogFile.open(path, read_only=True) as log:
        read = []
        with pytest.raises(kl.LogError, match="^Compressed payload is damaged: "):
            read.extend(log.iter_entries(chunk=5))
        assert [e.data for e in read] == [b"%05d, " % i * 500 for i in range(11)]


def test_columns_without_numpy_name_the_package_to_install(log, monkeypatch):
    monkeypatch.setitem(sys.modules, "numpy", None)  # an import of it fails
    with pytest.raises(ImportError, match="apt-get install python3-numpy"):
        log.read_arrays()
    assert len(log.read_entries(last=2)) == 2  # the rest goes on without it


def test_open_refuses_an_empty_file_and_read_only_writes_nothing(recording, tmp_path):
    (tmp_path / "empty.log").touch()
    for read_only in (False, True):
        with pytest.raises(kl.LogError, match="^This file is not in a supported log file "):
            kl.LogFile.open(tmp_path / "empty.log", read_only=read_only)
    assert (tmp_path / "empty.log").stat().st_size == 0
    before = recording.path.read_bytes()
    with kl.LogFile.open(recording.path, read_only=True) as log:
        with pytest.raises(kl.LogError, match="^The log file is open for reading only.$"):
            log.add_bookmark(1, "no")
        assert log.read_entries(last=3) == recording.entries[:3]
    assert recording.path.read_bytes() == before
