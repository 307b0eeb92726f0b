"""What programs believe of the dates of files and folders."""

import ctypes
import os
import shutil
import subprocess
import time

import pytest

from hosting import eventually, run

THEN = 1_234_567_890_123_456_789


def dates(path):
    """When it was used, modified and changed."""
    status = os.stat(path)
    return status.st_atime_ns, status.st_mtime_ns, status.st_ctime_ns


def changed(path):
    return os.stat(path).st_ctime_ns


def modified(path):
    return os.stat(path).st_mtime_ns


def test_every_change_of_a_file_moves_the_date_of_change(host, mount):
    host.write("/file", "x")
    os.mkdir(mount / "folder")
    file = mount / "file"
    before = changed(file)

    def expect_later(action, at=file):
        nonlocal before
        action()
        after = changed(at)
        assert after > before
        before = after

    for _ in range(3):
        expect_later(lambda: file.write_text("y"))
        expect_later(lambda: os.truncate(file, 0))
        expect_later(lambda: os.chmod(file, 0o600))
        expect_later(lambda: os.utime(file, ns=(THEN, THEN)))
        expect_later(lambda: os.chown(file, os.getuid(), os.getgid()))
        expect_later(lambda: os.setxattr(file, "user.x", b"y"))
        expect_later(lambda: os.removexattr(file, "user.x"))
        expect_later(lambda: os.rename(file, mount / "folder" / "other"), mount / "folder" / "other")
        expect_later(lambda: os.rename(mount / "folder" / "other", file))


def test_the_date_of_change_stays_while_nothing_changes(host, mount):
    host.write("/file", "x")
    (mount / "ours").write_text("x")
    before = changed(mount / "file"), changed(mount / "ours")
    assert (mount / "file").read_text() == "x"
    host.wait()
    assert (changed(mount / "file"), changed(mount / "ours")) == before


def test_dates_survive_the_mount(make_host):
    host = make_host().mount().connect()
    mount = host.path
    host.write("/theirs", "x")
    host.folder("/folder")
    (mount / "ours").write_text("x")
    with open(mount / "ours", "a", encoding="ascii") as file:
        for _ in range(5):
            file.write("y")
            file.flush()
    (mount / "empty").touch()
    (mount / "folder" / "inside").write_text("x")
    subprocess.run(["touch", "-a", "-d", "2001-02-03 04:05:06.789", mount / "theirs"], check=True)
    os.chmod(mount / "theirs", 0o600)
    names = ("theirs", "ours", "empty", "folder", "folder/inside")
    host.wait()
    before = {name: dates(mount / name) for name in names}
    assert host.end() == 0
    make_host().mount()
    assert {name: dates(mount / name) for name in names} == before


@pytest.mark.skipif(not shutil.which("git"), reason="git is not installed")
def test_git_sees_a_change_that_keeps_size_and_date(host, mount):
    environment = {**os.environ, "GIT_CONFIG_NOSYSTEM": "1", "HOME": "/nonexistent",
                   "GIT_AUTHOR_NAME": "A", "GIT_AUTHOR_EMAIL": "a@example.org",
                   "GIT_COMMITTER_NAME": "A", "GIT_COMMITTER_EMAIL": "a@example.org"}

    def git(*arguments):
        return run("git", *arguments, cwd=mount / "work", env=environment)

    (mount / "work").mkdir()
    git("init", "-q")
    file = mount / "work" / "file"
    file.write_text("one\n")
    os.utime(file, ns=(THEN, THEN))
    git("add", "file")
    git("commit", "-qm", "first")
    assert git("status", "--porcelain") == b""
    # Git compares whole seconds.
    eventually(lambda: int(time.time()) > changed(file) // 1_000_000_000)
    file.write_text("two\n")
    os.utime(file, ns=(THEN, THEN))
    assert git("status", "--porcelain") == b" M file\n"


def test_the_date_of_a_folder_moves_at_once(host, mount):
    host.folder("/folder")
    folder = mount / "folder"
    before = modified(folder)

    def expect_later(action):
        nonlocal before
        action()
        after = modified(folder)
        assert after > before
        before = after

    for _ in range(3):
        expect_later(lambda: (folder / "file").touch())
        expect_later(lambda: os.rename(folder / "file", folder / "other"))
        expect_later(lambda: os.mkdir(folder / "inner"))
        expect_later(lambda: os.rename(folder / "other", mount / "outside"))
        expect_later(lambda: os.rename(mount / "outside", folder / "other"))
        expect_later(lambda: os.rmdir(folder / "inner"))
        expect_later(lambda: os.unlink(folder / "other"))


def test_the_date_of_a_folder_moves_with_what_a_listing_shows(make_host):
    host = make_host(freshTime=50, usableTime=100).mount().connect()
    folder = host.path / "folder"
    host.folder("/folder")
    host.write("/folder/old", "x")
    assert os.listdir(folder) == ["old"]
    before = modified(folder)
    host.write("/folder/new", "x")
    eventually(lambda: sorted(os.listdir(folder)) == ["new", "old"])
    assert eventually(lambda: modified(folder) > before)


def test_the_date_of_access_is_as_it_was_set(host, mount):
    host.write("/file", "x")
    os.mkdir(mount / "folder")
    for path in (mount / "file", mount / "folder"):
        before = modified(path)
        subprocess.run(["touch", "-a", "-d", "@1000.5", path], check=True)
        assert dates(path)[:2] == (1_000_500_000_000, before)
        os.utime(path, ns=(THEN, THEN + 1))
        assert dates(path)[:2] == (THEN, THEN + 1)
    # Reading is no use that is noted.
    assert (mount / "file").read_text() == "x"
    os.listdir(mount / "folder")
    assert dates(mount / "file")[0] == dates(mount / "folder")[0] == THEN


def test_the_date_of_access_that_nothing_set_is_that_of_the_contents(host, mount):
    host.write("/file", "x")
    assert dates(mount / "file")[0] == modified(mount / "file")
    (mount / "file").write_text("y")
    assert dates(mount / "file")[0] == modified(mount / "file")


def test_dates_that_are_left_out_stay(host, mount):
    (mount / "file").write_text("x")
    os.utime(mount / "file", ns=(THEN, THEN + 1))
    libc = ctypes.CDLL(None, use_errno=True)
    omitted = (1 << 30) - 2
    for first, second in ((omitted, 7), (7, omitted)):
        times = (ctypes.c_long * 4)(5, first, 5, second)
        assert libc.utimensat(-100, os.fsencode(mount / "file"), times, 0) == 0
    assert dates(mount / "file")[:2] == (5_000_000_007, 5_000_000_007)
