"""Making, renaming and removing files and folders."""

import ctypes
import os
import signal
import stat
import subprocess
import sys
import time

import pytest

from hosting import COCOA, FILE_PROVIDER, eventually, outcome

LIBC = ctypes.CDLL(None, use_errno=True)
AT_FDCWD = -100
NOREPLACE, EXCHANGE = 1, 2


def renameat2(old, new, flags):
    if LIBC.renameat2(AT_FDCWD, os.fsencode(old), AT_FDCWD, os.fsencode(new), flags) != 0:
        raise OSError(ctypes.get_errno(), "renameat2")


def both(mount, native, action):
    """What the action comes to on the mount and natively; the two must be the same."""
    results = [outcome(action, folder) for folder in (mount, native)]
    assert results[0] == results[1]
    return results[0]


# ---- making --------------------------------------------------------------------------------------


def test_made_folders_and_files_arrive(host, mount):
    os.makedirs(mount / "a" / "b" / "c")
    (mount / "a" / "b" / "c" / "file").write_text("text")
    host.wait()
    assert host.tree() == {"/a": None, "/a/b": None, "/a/b/c": None, "/a/b/c/file": b"text"}
    assert host.changes() == ["createItem /a folder", "createItem /a/b folder",
                              "createItem /a/b/c folder", "createItem /a/b/c/file 4"]


def test_making_what_is_there_fails_as_natively(host, mount, native):
    host.folder("/folder")
    host.write("/file", "x")
    (native / "folder").mkdir()
    (native / "file").write_text("x")
    for name in ("folder", "file", "file/below", "missing/below", "n" * 256):
        both(mount, native, lambda folder, name=name: os.mkdir(folder / name))


@pytest.mark.parametrize("name", [b"caf\xe9.txt", b"\xff", b"half \xc3", b"\xed\xa0\x80",
                                  b"\xc0\xaf", b".~lock.\xe9#", b"\xe9.part"])
def test_names_that_are_not_utf8_are_not_taken(host, mount, name):
    (mount / "file").write_text("x")
    (mount / "folder").mkdir()
    odd = os.path.join(os.fsencode(mount), name)
    assert outcome(os.open, odd, os.O_CREAT | os.O_WRONLY) == "EILSEQ"
    assert outcome(os.mknod, odd, stat.S_IFREG | 0o644) == "EILSEQ"
    assert outcome(os.mkdir, odd) == "EILSEQ"
    assert outcome(os.rename, os.fsencode(mount / "file"), odd) == "EILSEQ"
    assert outcome(os.rename, os.fsencode(mount / "folder"), odd) == "EILSEQ"
    for call in (os.stat, os.unlink, os.rmdir):
        assert outcome(call, odd) == "ENOENT"
    assert outcome(os.open, odd, os.O_RDONLY) == "ENOENT"
    assert outcome(os.rename, odd, os.fsencode(mount / "new")) == "ENOENT"
    host.wait()
    assert host.tree() == {"/file": b"x", "/folder": None}


def test_names_in_every_kind_of_utf8_are_taken(host, mount):
    names = ["caf\u00e9", "\u4f60\u597d", "\U0001f9ea", "\u007f", "\u200b", "\ufffd"]
    for name in names:
        (mount / name).write_text("x")
    host.wait()
    assert host.tree() == {"/" + name: b"x" for name in names}


def test_new_items_have_the_modes_that_were_asked_for(host, mount):
    before = os.umask(0o027)
    try:
        os.close(os.open(mount / "file", os.O_CREAT | os.O_WRONLY, 0o777))
        os.mkdir(mount / "folder", 0o777)
    finally:
        os.umask(before)
    assert stat.S_IMODE(os.stat(mount / "file").st_mode) == 0o750
    assert stat.S_IMODE(os.stat(mount / "folder").st_mode) == 0o750


def test_a_regular_node_is_a_file(host, mount):
    os.mknod(mount / "file", stat.S_IFREG | 0o644)
    assert os.stat(mount / "file").st_size == 0
    assert outcome(os.mknod, mount / "file", stat.S_IFREG | 0o644) == "EEXIST"
    host.wait()
    assert host.tree() == {"/file": b""}


def test_links_devices_and_pipes_are_refused(host, mount):
    (mount / "file").write_text("x")
    assert outcome(os.symlink, "file", mount / "link") == "EPERM"
    assert outcome(os.link, mount / "file", mount / "link") == "EPERM"
    assert outcome(os.mkfifo, mount / "pipe") == "EPERM"
    assert outcome(os.mknod, mount / "socket", stat.S_IFSOCK | 0o600) == "EPERM"
    if os.geteuid() == 0:
        assert outcome(os.mknod, mount / "null", stat.S_IFCHR | 0o600, os.makedev(1, 3)) == "EPERM"
    assert os.listdir(mount) == ["file"]


def test_temporary_files_without_a_name_are_not_supported(host, mount):
    assert outcome(os.open, mount, os.O_TMPFILE | os.O_RDWR, 0o600) == "ENOTSUP"


# ---- removing ------------------------------------------------------------------------------------


def test_removing_fails_as_natively(host, mount, native):
    host.folder("/empty")
    host.folder("/full")
    host.write("/full/x", "x")
    host.write("/file", "x")
    for name in ("empty", "full"):
        (native / name).mkdir()
    (native / "full" / "x").write_text("x")
    (native / "file").write_text("x")
    for name in ("missing", "empty", "full", "file/below"):
        both(mount, native, lambda folder, name=name: os.unlink(folder / name))
    for name in ("missing", "full", "file", "empty/.", "full/.."):
        both(mount, native, lambda folder, name=name: os.rmdir(f"{folder}/{name}"))
    for name, call in (("empty", os.rmdir), ("file", os.unlink)):
        both(mount, native, lambda folder, name=name, call=call: call(folder / name))
    host.wait()
    assert host.tree() == {"/full": None, "/full/x": b"x"}


def test_a_folder_that_others_filled_is_not_removed(host, mount):
    host.folder("/folder")
    assert os.listdir(mount / "folder") == []
    host.write("/folder/theirs", "x")
    assert outcome(os.rmdir, mount / "folder") == "ENOTEMPTY"
    assert eventually(lambda: os.listdir(mount / "folder")) == ["theirs"]
    assert host.read("/folder/theirs") == b"x"


def test_a_whole_tree_is_removed(host, mount):
    for folder in ("a", "a/b", "a/b/c"):
        host.folder("/" + folder)
        for number in range(20):
            host.write(f"/{folder}/{number}", "x")
    subprocess.run(["rm", "-r", str(mount / "a")], check=True, timeout=60)
    assert os.listdir(mount) == []
    host.wait()
    assert host.tree() == {}


def test_what_the_provider_will_not_delete_comes_back(host, mount):
    host.write("/file", "x")
    host.fault(kind="deleteItem", effect="none", error=[FILE_PROVIDER, -1006])
    assert outcome(os.unlink, mount / "file") == "EPERM"
    assert (mount / "file").read_text() == "x"


# ---- renaming ------------------------------------------------------------------------------------


def test_a_file_is_renamed_and_keeps_its_inode(host, mount):
    host.write("/old", "text")
    before = os.stat(mount / "old")
    os.rename(mount / "old", mount / "new")
    after = os.stat(mount / "new")
    assert after.st_ino == before.st_ino
    assert outcome(os.stat, mount / "old") == "ENOENT"
    assert (mount / "new").read_text() == "text"
    host.wait()
    assert host.tree() == {"/new": b"text"}
    assert host.changes() == ["modifyItem /old -> /new"]


def test_a_file_is_moved_to_another_folder(host, mount):
    host.folder("/from")
    host.folder("/to")
    host.write("/from/file", "text")
    os.rename(mount / "from" / "file", mount / "to" / "renamed")
    host.wait()
    assert host.tree() == {"/from": None, "/to": None, "/to/renamed": b"text"}
    assert host.changes() == ["modifyItem /from/file -> /to/renamed"]


def test_moves_between_folders_can_be_left_to_the_program(make_host, place):
    host = make_host(refuseMovesBetweenFolders=True).mount().connect()
    host.folder("/from")
    host.folder("/to")
    host.write("/from/file", "text")
    mount = place / "mount"
    assert outcome(os.rename, mount / "from/file", mount / "to/file") == "EXDEV"
    os.rename(mount / "from/file", mount / "from/other")
    subprocess.run(["mv", mount / "from/other", mount / "to/file"], check=True, timeout=60)
    host.wait()
    assert host.tree() == {"/from": None, "/to": None, "/to/file": b"text"}


def test_a_folder_is_renamed_with_all_that_is_in_it(host, mount):
    host.folder("/old")
    host.folder("/old/sub")
    host.write("/old/sub/file", "text")
    with open(mount / "old" / "sub" / "file", "rb") as file:
        inode = os.fstat(file.fileno()).st_ino
        os.rename(mount / "old", mount / "new")
        assert os.stat(mount / "new" / "sub" / "file").st_ino == inode
        assert file.read() == b"text"
    (mount / "new" / "sub" / "more").write_text("more")
    host.wait()
    assert host.tree() == {"/new": None, "/new/sub": None, "/new/sub/file": b"text",
                           "/new/sub/more": b"more"}


def test_renaming_over_a_file_replaces_its_contents(host, mount):
    host.write("/source", "new contents")
    host.write("/target", "old")
    inode = os.stat(mount / "source").st_ino
    with open(mount / "target", "rb") as old:
        os.rename(mount / "source", mount / "target")
        assert old.read() == b"old"
    # The kernel believes so without asking.
    assert os.stat(mount / "target").st_ino == inode
    assert [entry.inode() for entry in os.scandir(mount)] == [inode]
    assert (mount / "target").read_text() == "new contents"
    assert sorted(os.listdir(mount)) == ["target"]
    host.wait()
    assert host.tree() == {"/target": b"new contents"}


def test_an_open_source_goes_on_after_it_replaced_a_file(host, mount):
    host.write("/target", "old")
    with open(mount / "source", "w+b", buffering=0) as file:
        file.write(b"first")
        os.rename(mount / "source", mount / "target")
        assert (mount / "target").read_bytes() == b"first"
        file.write(b" second")
        assert (mount / "target").read_bytes() == b"first second"
        assert os.fstat(file.fileno()).st_size == 12
    host.wait()
    assert host.tree() == {"/target": b"first second"}


def test_the_replaced_name_shows_the_new_size_at_once(host, mount):
    host.write("/target", "old")
    for number in range(20):
        (mount / "source").write_text("x" * (number + 10))
        os.rename(mount / "source", mount / "target")
        assert os.stat(mount / "target").st_size == number + 10
        assert (mount / "target").read_text() == "x" * (number + 10)


def test_renaming_fails_as_natively(host, mount, native):
    for folder in ("folder", "full", "full/sub"):
        host.folder("/" + folder)
        (native / folder).mkdir()
    for file in ("file", "full/x"):
        host.write("/" + file, "x")
        (native / file).write_text("x")
    for old, new in (("missing", "new"), ("file", "folder"), ("folder", "file"),
                     ("folder", "full"), ("full", "full/sub/below"), ("full", "full"),
                     ("file", "file"), ("file", "missing/x"), ("file", "n" * 256),
                     ("file", "file/x"), ("full/sub", "full")):
        both(mount, native,
             lambda folder, old=old, new=new: os.rename(folder / old, folder / new))
    assert sorted(os.listdir(mount)) == ["file", "folder", "full"]


def test_a_folder_replaces_an_empty_one(host, mount):
    host.folder("/source")
    host.write("/source/file", "x")
    host.folder("/target")
    os.rename(mount / "source", mount / "target")
    assert (mount / "target" / "file").read_text() == "x"
    host.wait()
    assert host.tree() == {"/target": None, "/target/file": b"x"}


def test_renaming_without_replacing(host, mount):
    host.write("/a", "a")
    host.write("/b", "b")
    assert outcome(renameat2, mount / "a", mount / "b", NOREPLACE) == "EEXIST"
    renameat2(mount / "a", mount / "c", NOREPLACE)
    host.wait()
    assert host.tree() == {"/c": b"a", "/b": b"b"}


def test_names_are_not_exchanged(host, mount):
    host.write("/a", "a")
    host.write("/b", "b")
    assert outcome(renameat2, mount / "a", mount / "b", EXCHANGE) == "EINVAL"
    assert (mount / "a").read_text() == "a"


def test_a_name_that_was_taken_on_the_server_meanwhile(host, mount):
    host.write("/a", "a")
    os.listdir(mount)
    host.fault(kind="modifyItem", effect="none", error=[COCOA, 516])
    assert outcome(renameat2, mount / "a", mount / "b", NOREPLACE) == "EEXIST"
    host.do("clearFaults")
    assert (mount / "a").read_text() == "a"


# ---- permissions ---------------------------------------------------------------------------------


@pytest.fixture
def protected(make_host, place):
    host = make_host(readOnly=["/fixed", "/fixed/file", "/file"]).mount().connect()
    host.folder("/fixed")
    host.write("/fixed/file", "x")
    host.write("/file", "x")
    return place / "mount"


def test_what_can_only_be_read_looks_so(protected):
    assert stat.S_IMODE(os.stat(protected / "fixed").st_mode) == 0o555
    assert stat.S_IMODE(os.stat(protected / "file").st_mode) == 0o444
    assert stat.S_IMODE(os.stat(protected).st_mode) == 0o755
    assert os.stat(protected / "file").st_uid == os.getuid()


def test_what_can_only_be_read_is_not_changed(protected):
    assert (protected / "file").read_text() == "x"
    assert outcome(os.open, protected / "file", os.O_WRONLY) == "EACCES"
    assert outcome(os.truncate, protected / "file", 0) == "EACCES"
    assert outcome(os.open, protected / "fixed/new", os.O_CREAT | os.O_WRONLY) == "EACCES"
    assert outcome(os.mkdir, protected / "fixed/new") == "EACCES"
    for name in ("file", "fixed/file"):
        assert outcome(os.unlink, protected / name) in ("EPERM", "EACCES")
        assert outcome(os.rename, protected / name, protected / "new") in ("EPERM", "EACCES")
    assert outcome(os.rmdir, protected / "fixed") in ("EPERM", "ENOTEMPTY")
    assert outcome(os.rename, protected / "fixed", protected / "new") == "EPERM"
    assert sorted(os.listdir(protected)) == ["file", "fixed"]


# ---- signals -------------------------------------------------------------------------------------


def test_a_program_that_handles_signals_is_not_told_that_its_folder_was_not_made(host, mount):
    os.listdir(mount)
    host.do("latency", milliseconds=700)
    script = ("import os,signal,sys; signal.signal(signal.SIGALRM, lambda *a: None);"
              "signal.setitimer(signal.ITIMER_REAL, 0.1, 0.1);"
              "import ctypes; libc = ctypes.CDLL(None, use_errno=True);"
              "made = libc.mkdir(os.fsencode(sys.argv[1]), 0o755), ctypes.get_errno();"
              # At its end the interpreter gives signals up, and the next one would kill it.
              "signal.setitimer(signal.ITIMER_REAL, 0);"
              "print(*made)")
    done = subprocess.run([sys.executable, "-c", script, str(mount / "folder")], capture_output=True,
                          timeout=60, check=True)
    assert done.stdout.split() == [b"0", b"0"]
    assert os.path.isdir(mount / "folder")


def test_a_program_that_is_killed_need_not_wait_for_a_verdict(make_host, place):
    host = make_host(verdictWait=30_000).mount().connect()
    mount = place / "mount"
    os.listdir(mount)
    host.fault(kind="createItem", hangs=True)
    maker = subprocess.Popen(["mkdir", str(mount / "folder")])
    eventually(lambda: host.calls("createItem"))
    begun = time.monotonic()
    maker.send_signal(signal.SIGKILL)
    assert maker.wait(60) == -9
    assert time.monotonic() - begun < 25
    host.do("clearFaults")
    assert eventually(lambda: host.do("release")["released"])
    host.wait()
    assert host.tree() == {"/folder": None}
