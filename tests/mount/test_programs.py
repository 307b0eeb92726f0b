"""Ordinary programs at work on a mount."""

import hashlib
import os
import shutil
import sqlite3
import subprocess
import tarfile

import pytest

from hosting import run

LONG = 300


@pytest.fixture
def host(make_host):
    return make_host(watchdog=600).mount().connect()


def needs(*programs):
    missing = [program for program in programs if not shutil.which(program)]
    return pytest.mark.skipif(bool(missing), reason=f"not installed: {', '.join(missing)}")


def tree(folder):
    """Every file's bytes and every folder below, by the path."""
    found = {}
    for path in sorted(folder.rglob("*")):
        name = str(path.relative_to(folder))
        found[name] = None if path.is_dir() else hashlib.sha256(path.read_bytes()).hexdigest()
    return found


def on_server(host):
    return {path[1:]: None if contents is None else hashlib.sha256(contents).hexdigest()
            for path, contents in host.tree().items()}


def make_sources(folder):
    """A few hundred files of many sizes."""
    for number in range(200):
        path = folder / f"d{number % 7}" / f"s{number % 3}" / f"file-{number}.txt"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(os.urandom(number * 37 % 9000))
        os.utime(path, ns=(1_600_000_000_123_456_789 + number, 1_600_000_000_123_456_789 + number))
    (folder / "d0" / "script").write_text("#!/bin/sh\n")
    os.chmod(folder / "d0" / "script", 0o755)


@needs("git")
def test_git(host, mount):
    environment = {**os.environ, "GIT_CONFIG_NOSYSTEM": "1", "HOME": "/nonexistent",
                   "GIT_AUTHOR_NAME": "A", "GIT_AUTHOR_EMAIL": "a@example.org",
                   "GIT_COMMITTER_NAME": "A", "GIT_COMMITTER_EMAIL": "a@example.org"}

    def git(*arguments, where=mount / "work"):
        return run("git", *arguments, cwd=where, env=environment, seconds=LONG)

    (mount / "work").mkdir()
    git("init", "-q", "-b", "main")
    make_sources(mount / "work")
    git("add", ".")
    git("commit", "-q", "-m", "first")
    assert git("status", "--porcelain") == b""
    (mount / "work" / "d1" / "new").write_text("new")
    git("mv", "d0/script", "d0/renamed")
    git("add", ".")
    git("commit", "-q", "-m", "second")
    git("gc", "-q")
    git("fsck", "--full")
    git("clone", "-q", str(mount / "work"), str(mount / "clone"), where=mount)
    assert git("log", "--format=%s", where=mount / "clone") == b"second\nfirst\n"
    git("checkout", "-q", "HEAD~1")
    assert (mount / "work" / "d0" / "script").exists()
    assert git("status", "--porcelain") == b""
    host.wait(LONG)
    assert on_server(host) == tree(mount)


@pytest.mark.parametrize("journal", ["delete", "truncate", "wal"])
def test_sqlite(host, mount, journal):
    def connect():
        return sqlite3.connect(mount / "data.sqlite", timeout=30)

    database = connect()
    assert database.execute(f"pragma journal_mode={journal}").fetchone() == (journal,)
    database.execute("create table t (id integer primary key, text text)")
    for round_ in range(20):
        with database:
            database.executemany("insert into t (text) values (?)",
                                 ((f"row {round_} {number}" * 20,) for number in range(100)))
    other = connect()
    assert other.execute("select count(*) from t").fetchone() == (2000,)
    with other:
        other.execute("delete from t where id % 2 = 0")
    other.close()
    with pytest.raises(sqlite3.IntegrityError), database:
        database.execute("insert into t (id, text) values (1, 'taken')")
    assert database.execute("select count(*) from t").fetchone() == (1000,)
    assert database.execute("pragma integrity_check").fetchone() == ("ok",)
    database.close()
    host.wait(LONG)
    (mount.parent / "copy.sqlite").write_bytes(host.read("/data.sqlite"))
    copy = sqlite3.connect(mount.parent / "copy.sqlite")
    assert copy.execute("pragma integrity_check").fetchone() == ("ok",)
    assert copy.execute("select count(*) from t").fetchone() == (1000,)
    copy.close()


@needs("rsync")
def test_rsync(host, mount, native):
    make_sources(native)
    run("rsync", "-a", f"{native}/", f"{mount}/copy/", seconds=LONG)
    assert tree(mount / "copy") == tree(native)
    assert run("rsync", "-a", "-n", "-i", f"{native}/", f"{mount}/copy/", seconds=LONG) == b""
    assert run("rsync", "-a", "-c", "-n", "-i", f"{native}/", f"{mount}/copy/", seconds=LONG) == b""
    host.wait(LONG)
    assert on_server(host) == {"copy": None,
                               **{f"copy/{name}": found for name, found in tree(native).items()}}
    run("rsync", "-a", "-n", "-i", f"{mount}/copy/", f"{native}/", seconds=LONG)
    (native / "d1" / "s1" / "file-1.txt").write_text("changed")
    run("rsync", "-a", "--delete", "--inplace", f"{native}/", f"{mount}/copy/", seconds=LONG)
    assert tree(mount / "copy") == tree(native)
    assert run("rsync", "-a", "-n", "-i", f"{native}/", f"{mount}/copy/", seconds=LONG) == b""


@needs("tar")
def test_tar(host, mount, native):
    make_sources(native)
    run("tar", "-cf", native.parent / "all.tar", "-C", native, ".")
    (mount / "out").mkdir()
    run("tar", "-xpf", native.parent / "all.tar", "-C", mount / "out", seconds=LONG)
    assert tree(mount / "out") == tree(native)
    run("tar", "-df", native.parent / "all.tar", "-C", mount / "out", seconds=LONG)
    run("tar", "-cf", mount / "again.tar", "-C", mount / "out", ".", seconds=LONG)
    with tarfile.open(mount / "again.tar") as archive:
        assert len(archive.getmembers()) == len(list(native.rglob("*"))) + 1
    host.wait(LONG)
    assert on_server(host)["out/d0/script"] == tree(native)["d0/script"]


def test_cp_keeps_modes_and_times(host, mount, native):
    make_sources(native)
    run("cp", "-rp", native, mount / "copy", seconds=LONG)
    for path in native.rglob("*"):
        copy = mount / "copy" / path.relative_to(native)
        ours, theirs = os.stat(copy), os.stat(path)
        assert ours.st_mode == theirs.st_mode, path
        if path.is_file():
            assert ours.st_mtime_ns == theirs.st_mtime_ns, path
    run("cp", "-r", mount / "copy", mount / "second", seconds=LONG)
    run("diff", "-r", mount / "copy", mount / "second", seconds=LONG)
    run("cp", "-a", mount / "second", native.parent / "back", seconds=LONG)
    assert tree(native.parent / "back") == tree(native)


def test_sed_in_place(host, mount):
    host.write("/file", "one\ntwo\n")
    run("sed", "-i", "s/one/three/", mount / "file")
    assert (mount / "file").read_text() == "three\ntwo\n"
    host.wait()
    assert host.tree() == {"/file": b"three\ntwo\n"}
    assert host.changes() == ["modifyItem /file 10"]


def test_shell_redirections(host, mount):
    run("sh", "-c", "echo a > f; echo b >> f; cat < f > g; { echo c; echo d; } >> g; mv g h",
        cwd=mount)
    assert (mount / "h").read_text() == "a\nb\nc\nd\n"
    host.wait()
    assert host.tree() == {"/f": b"a\nb\n", "/h": b"a\nb\nc\nd\n"}


def test_mv_between_the_mount_and_elsewhere(host, mount, native):
    make_sources(native)
    before = tree(native)
    run("mv", native / "d1", mount / "d1", seconds=LONG)
    run("mv", mount / "d1", native / "d1", seconds=LONG)
    assert tree(native) == before
    host.wait(LONG)
    assert host.tree() == {}


@needs("fio")
@pytest.mark.parametrize("options", [
    ["--rw=randwrite", "--bs=4k"],
    ["--rw=randwrite", "--bs=1k-64k", "--ioengine=mmap"],
    ["--rw=write", "--bs=128k", "--fsync=8"],
    ["--rw=randrw", "--bs=8k", "--numjobs=4"],
], ids=lambda options: " ".join(options))
def test_fio_verifies_what_it_wrote(host, mount, options):
    run("fio", "--name=job", f"--directory={mount}", "--size=8m", "--verify=crc32c",
        "--do_verify=1", "--verify_fatal=1", "--verify_state_save=0", *options,
        cwd=mount.parent, seconds=LONG)
    host.wait(LONG)
    assert on_server(host) == tree(mount)


@needs("vim")
def test_vim_itself(host, mount):
    host.write("/file.txt", "one\n")
    subprocess.run(["vim", "-u", "NONE", "-N", "-es", "-c", "normal otwo", "-c", "wq",
                    str(mount / "file.txt")], check=True, timeout=60, stdin=subprocess.DEVNULL,
                   env={**os.environ, "TERM": "dumb"})
    assert (mount / "file.txt").read_text() == "one\ntwo\n"
    host.wait()
    assert host.tree() == {"/file.txt": b"one\ntwo\n"}
    assert host.changes() == ["modifyItem /file.txt 8"]


def test_find_and_grep_and_du(host, mount):
    make_sources(mount)
    (mount / "d3" / "needle.txt").write_text("a needle in it\n")
    assert run("grep", "-rl", "a needle", mount, seconds=LONG).split() == [
        os.fsencode(mount / "d3" / "needle.txt")]
    assert len(run("find", mount, "-type", "f", seconds=LONG).splitlines()) == 202
    run("du", "-s", mount, seconds=LONG)
    run("rm", "-rf", mount / "d3", mount / "d4", seconds=LONG)
    assert not (mount / "d3").exists()
