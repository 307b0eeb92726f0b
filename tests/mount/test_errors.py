"""What programs get when the server fails."""

import os

import pytest

from hosting import COCOA, FILE_PROVIDER, POSIX, URL, eventually, outcome

UNREACHABLE = [URL, -1004]


def read(path):
    with open(path, "rb") as file:
        return file.read()


@pytest.mark.parametrize("error, expected", [
    ([FILE_PROVIDER, -1000], "EACCES"),
    ([FILE_PROVIDER, -1003], "EDQUOT"),
    ([FILE_PROVIDER, -1004], "EIO"),
    ([FILE_PROVIDER, -2005], "EIO"),
    ([POSIX, 1], "EPERM"),
    ([POSIX, 28], "ENOSPC"),
    ([POSIX, 107], "EIO"),
    ([POSIX, 11], "EIO"),
    ([COCOA, 257], "EACCES"),
    ([COCOA, 640], "ENOSPC"),
    ([URL, -1001], "ETIMEDOUT"),
    ([URL, -1003], "EHOSTUNREACH"),
    ([URL, -1004], "EHOSTUNREACH"),
    ([URL, -1005], "EIO"),
    ([URL, -1009], "EHOSTUNREACH"),
    ([URL, -999], "EACCES"),
    ([URL, -1202], "EACCES"),
    (["elsewhere", 3], "EIO"),
])
def test_a_fetch_that_fails_fails_the_opening(host, mount, error, expected):
    host.write("/file", "x")
    os.listdir(mount)
    host.fault(kind="fetchContents", effect="none", error=error)
    assert outcome(read, mount / "file") == expected


@pytest.mark.parametrize("error, expected", [
    ([FILE_PROVIDER, -1000], "EACCES"),
    ([URL, -1004], "EHOSTUNREACH"),
    ([URL, -1202], "EACCES"),
])
def test_a_folder_that_was_never_listed_gives_the_listings_error(host, mount, error, expected):
    host.folder("/folder")
    os.listdir(mount)
    host.fault(kind="enumerateItems", path="/folder", effect="none", error=error)
    assert outcome(os.listdir, mount / "folder") == expected
    assert outcome(os.stat, mount / "folder" / "x") == expected


def test_after_a_failure_everything_works_again(host, mount):
    host.write("/file", "x")
    os.listdir(mount)
    # As often as it is asked for.
    host.fault(kind="fetchContents", effect="none", error=[URL, -1005], times=3)
    assert outcome(read, mount / "file") == "EIO"
    assert read(mount / "file") == b"x"


def test_a_file_that_is_gone_is_missing_by_its_name(host, mount):
    host.write("/file", "x")
    os.listdir(mount)
    host.remove("/file")
    assert outcome(read, mount / "file") == "ENOENT"
    assert outcome(os.stat, mount / "file") == "ENOENT"


def test_what_was_seen_is_shown_while_the_server_is_away(host, mount):
    host.folder("/folder")
    host.write("/folder/here", "here")
    host.write("/folder/there", "there")
    assert read(mount / "folder" / "here") == b"here"
    host.down()
    assert eventually(lambda: outcome(read, mount / "folder" / "there") == "EHOSTUNREACH")
    assert sorted(os.listdir(mount / "folder")) == ["here", "there"]
    assert read(mount / "folder" / "here") == b"here"
    assert os.stat(mount / "folder" / "there").st_size == 5
    assert outcome(os.stat, mount / "folder" / "missing") == "ENOENT"


def test_work_goes_on_while_the_server_is_away(host, mount):
    host.folder("/folder")
    host.write("/folder/file", "old")
    read(mount / "folder" / "file")
    host.down()
    (mount / "folder" / "file").write_text("new")
    (mount / "folder" / "added").write_text("added")
    os.mkdir(mount / "folder" / "sub")
    os.rename(mount / "folder" / "added", mount / "folder" / "sub" / "moved")
    assert sorted(os.listdir(mount / "folder")) == ["file", "sub"]
    host.down(False)
    host.wait()
    assert host.tree() == {"/folder": None, "/folder/file": b"new", "/folder/sub": None,
                           "/folder/sub/moved": b"added"}


@pytest.mark.parametrize("error, expected", [
    ([POSIX, 1], "EPERM"),
    ([FILE_PROVIDER, -1000], None),
    ([COCOA, 514], "EINVAL"),
])
def test_a_refused_folder_is_not_there(host, mount, error, expected):
    os.listdir(mount)
    host.fault(kind="createItem", effect="none", error=error)
    result = outcome(os.mkdir, mount / "folder")
    assert result == expected
    assert os.path.isdir(mount / "folder") == (expected is None)


def test_a_refused_upload_is_told_to_who_closes_next(host, mount):
    host.fault(kind="createItem", effect="none", error=[POSIX, 1])
    file = os.open(mount / "file", os.O_CREAT | os.O_WRONLY)
    os.write(file, b"x")
    os.fsync(file)
    eventually(lambda: host.status()["pending"][0]["state"] == "refused")
    assert outcome(os.close, os.dup(file)) == "EPERM"
    assert outcome(os.close, file) is None
    assert eventually(
        lambda: os.getxattr(mount / "file", "user.kestrowan.state") == b"refused")


def test_a_reader_does_not_take_the_writers_error_away(host, mount):
    host.fault(kind="createItem", effect="none", error=[POSIX, 1])
    file = os.open(mount / "file", os.O_CREAT | os.O_WRONLY)
    os.write(file, b"x")
    os.fsync(file)
    eventually(lambda: host.status()["pending"][0]["state"] == "refused")
    assert read(mount / "file") == b"x"
    assert outcome(os.close, file) == "EPERM"


@pytest.mark.parametrize("error, expected", [
    ([POSIX, 1], "EPERM"),
    ([FILE_PROVIDER, -1003], "EDQUOT"),
])
def test_closing_can_wait_for_the_server(make_host, place, error, expected):
    host = make_host(closeWaits=True, watchdog=30).mount().connect()
    (place / "mount" / "file").write_text("x")
    assert host.read("/file") == b"x"
    host.fault(kind="modifyItem", effect="none", error=error)
    file = os.open(place / "mount" / "file", os.O_WRONLY)
    os.write(file, b"y")
    assert outcome(os.close, file) == expected


def test_synchronising_can_wait_for_the_server(make_host, place):
    host = make_host(fsyncWaits=True).mount().connect()
    with open(place / "mount" / "file", "wb", buffering=0) as file:
        file.write(b"x")
        os.fsync(file.fileno())
        assert host.read("/file") == b"x"


def test_without_a_provider_nothing_hangs(make_host, place):
    host = make_host().mount()
    assert outcome(os.stat, place / "mount") != "ENOTCONN"
    assert isinstance(outcome(os.listdir, place / "mount"), str)
    host.connect()
    host.write("/file", "x")
    assert eventually(lambda: outcome(os.listdir, place / "mount") == ["file"])
