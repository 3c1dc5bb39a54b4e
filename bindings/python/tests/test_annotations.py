"""Metadata, source properties, resources and bookmarks."""

from __future__ import annotations

import pytest

import korvane_logging as kl

CREATION_KEYS = ["createdDateTime", "applicationName", "applicationVersion", "currentTimeZone",
                 "logVersion", "compressionLevel"]
VALUES = [0, -5, 2**63 - 1, -2**63, 2**40, 3.0, -0.25, "", "12", "grüße", "tab\tand\nline"]


@pytest.fixture
def fresh(tmp_path):
    with kl.LogFile.create(tmp_path / "fresh.log", "app", "1.0", "UTC") as log:
        log.add_source("gps", 3)
        yield log


@pytest.mark.parametrize("value", VALUES, ids=repr)
def test_metadata_and_properties_come_back_with_value_and_type(fresh, value):
    source = fresh.sources[0]
    fresh.add_metadata("mine", value)
    fresh.add_property(source, "setting", value)
    with kl.LogFile.open(fresh.path) as again:
        for read in (again.metadata["mine"], again.get_property(source, "setting")):
            assert (type(read), read) == (type(value), value)


def test_metadata_is_a_read_only_mapping(fresh):
    fresh.add_metadata("operator", "kim")
    fresh.add_metadata("runs", 3)
    assert list(fresh.metadata) == CREATION_KEYS + ["operator", "runs"]
    assert len(fresh.metadata) == 8
    assert fresh.metadata["applicationName"] == "app"
    assert fresh.metadata["logVersion"] == 4
    assert "missing" not in fresh.metadata and fresh.metadata.get("missing", 0) == 0
    with pytest.raises(TypeError):
        fresh.metadata["operator"] = "lee"
    with pytest.raises(kl.LogError, match="^The metadata key 'operator' exists already.$"):
        fresh.add_metadata("operator", "lee")
    assert fresh.metadata["operator"] == "kim"


@pytest.mark.parametrize("value", [2**63, -2**63 - 1, b"bytes", None, [1]], ids=repr)
def test_values_that_do_not_fit_are_refused_before_the_call(fresh, value):
    with pytest.raises((OverflowError, TypeError)):
        fresh.add_metadata("bad", value)
    assert "bad" not in fresh.metadata


def test_properties_of_all_and_of_one_source(fresh):
    gps = fresh.sources[0]
    imu = fresh.add_source("imu", 4)
    fresh.add_property(gps, "rate", 10)
    fresh.add_property(imu, "axes", "xyz")
    fresh.add_property(gps, "rate", 20)
    axes = kl.Property(imu.id, "axes", "xyz")
    assert fresh.properties() == [kl.Property(gps.id, "rate", 10), axes,
                                  kl.Property(gps.id, "rate", 20)]
    assert fresh.properties(imu.id) == [axes]
    assert fresh.get_property(gps, "rate") == 10


def test_resources_are_kept_byte_for_byte(log):
    image = bytes(range(256)) * 40
    log.add_resource("thumbnail", image)
    log.add_resource("calibration", b"\x00\x01\x00")
    with pytest.raises(kl.LogError, match="^The resource 'calibration' exists already.$"):
        log.add_resource("calibration", b"other")
    assert dict(log.resources) == {"thumbnail": image, "calibration": b"\x00\x01\x00"}


def test_bookmarks_are_added_updated_and_removed(log):
    log.add_bookmark(3, "three")
    log.add_bookmark(9, "nine", "look here", b"\xff\x00")
    log.add_bookmark(9, "nine again")
    assert log.bookmarks == [kl.Bookmark(3, "three"),
                             kl.Bookmark(9, "nine", "look here", b"\xff\x00"),
                             kl.Bookmark(9, "nine again")]
    log.update_bookmark(9, "renamed", "both rows", b"new")
    log.remove_bookmark(3)
    log.update_bookmark(40, "no bookmark here")
    assert log.bookmarks == [kl.Bookmark(9, "renamed", "both rows", b"new")] * 2
    log.remove_bookmark(9)
    assert log.bookmarks == []
