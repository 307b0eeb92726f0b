"""Files that only the mount shows, so that indexers leave it alone."""

import os
import subprocess

import pytest

from hosted import wait_for
from hosting import outcome

NAMES = [".nomedia", ".trackerignore"]


@pytest.fixture
def root(dav, dav_place):
    dav.put("/Home/d/a.txt", b"text")
    dav_place.mount("--no-index").ready()
    return dav_place.point


def test_markers_are_empty_and_read_only(root):
    for name in NAMES:
        marker = root / name
        assert marker.read_bytes() == b""
        status = marker.stat()
        assert (status.st_size, status.st_mode, status.st_uid) == (0, 0o100444, os.getuid())
        assert [entry.inode() for entry in os.scandir(root) if entry.name == name] == [status.st_ino]
        assert os.listxattr(marker) == []
        assert outcome(os.getxattr, marker, "user.any") == "ENODATA"
        assert outcome(os.setxattr, marker, "user.any", b"x") == "EPERM"
        for flags in (os.O_WRONLY, os.O_RDWR, os.O_WRONLY | os.O_TRUNC, os.O_RDONLY | os.O_TRUNC):
            assert outcome(os.open, marker, flags) == "EACCES"
        assert outcome(os.chmod, marker, 0o644) == "EPERM"
        assert outcome(os.utime, marker) == "EPERM"
        assert outcome(os.truncate, marker, 5) in ("EACCES", "EPERM")
        file = os.open(marker, os.O_RDONLY | os.O_DIRECT)
        try:
            assert os.read(file, 4096) == b""
            assert outcome(os.lseek, file, 0, os.SEEK_DATA) == "ENXIO"
            os.fsync(file)
        finally:
            os.close(file)


def test_markers_can_be_neither_removed_nor_renamed(dav, root):
    for name in NAMES:
        assert outcome(os.unlink, root / name) in ("EPERM", "EACCES")
        assert outcome(os.rename, root / name, root / "other") in ("EPERM", "EACCES")
        assert outcome(os.rename, root / name, root / "Home" / "other") in ("EPERM", "EACCES")
        assert outcome(os.rmdir, root / name) in ("ENOTDIR", "EACCES")
    assert dav.asked("DELETE", "MOVE", "PUT") == []
    assert sorted(os.listdir(root)) == [*NAMES, "Home"]


def test_markers_stand_in_the_root_alone_and_are_never_sent(dav, dav_place, root):
    assert sorted(os.listdir(root)) == [*NAMES, "Home"]
    assert os.listdir(root / "Home") == ["d"]
    assert os.listdir(root / "Home" / "d") == ["a.txt"]
    copy = dav_place.directory / "copy"
    assert subprocess.run(["cp", "-r", root, copy]).returncode == 0
    assert sorted(os.listdir(copy)) == [*NAMES, "Home"]
    # A name that is a marker's in the root is like any other elsewhere.
    (root / "Home" / "d" / ".nomedia").write_bytes(b"mine")
    dav_place.wait_synced()
    assert dav.tree("/Home/d") == {"/a.txt": b"text", "/.nomedia": b"mine"}
    assert dav.read("/.nomedia") is None
    assert dav_place.status()["pending"]["items"] == []


def test_a_name_of_the_storage_is_shown_instead(dav, root):
    assert (root / ".nomedia").read_bytes() == b""
    dav.put("/.nomedia", b"the storage's")
    wait_for(lambda: (root / ".nomedia").read_bytes() == b"the storage's" or None, "contents")
    assert sorted(os.listdir(root)) == [*NAMES, "Home"]
    assert dav.asked("GET") == [("GET", "/.nomedia")]
    dav.remove("/.nomedia")
    wait_for(lambda: (root / ".nomedia").stat().st_size == 0 or None, "the marker")
    assert sorted(os.listdir(root)) == [*NAMES, "Home"]


def test_there_are_none_unless_they_are_wanted(dav, dav_place):
    dav_place.mount().ready()
    assert os.listdir(dav_place.point) == ["Home"]
    assert outcome((dav_place.point / ".nomedia").read_bytes) == "ENOENT"
