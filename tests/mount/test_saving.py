"""How editors save: as the system calls that they make, and what that costs."""

import os

import pytest

from hosting import eventually, outcome

OLD = b"old contents\n"
NEW = b"new contents, and longer\n"


def write(path, contents, flags=os.O_CREAT | os.O_WRONLY | os.O_TRUNC, mode=0o644, sync=True):
    descriptor = os.open(path, flags, mode)
    os.write(descriptor, contents)
    if sync:
        os.fsync(descriptor)
    os.close(descriptor)


def write_aside_and_rename(folder, name):
    """Most programs: a temporary file beside, synchronised, renamed over the target."""
    write(folder / f"{name}.tmp-12345", NEW)
    os.rename(folder / f"{name}.tmp-12345", folder / name)


def vim_with_backup(folder, name):
    """vim, "backupcopy=auto": tries a file 4913, moves the target aside, writes it anew."""
    write(folder / f".{name}.swp", b"b0VIM", os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o600)
    os.close(os.open(folder / "4913", os.O_CREAT | os.O_EXCL | os.O_WRONLY | os.O_NOFOLLOW, 0o100644))
    os.chown(folder / "4913", os.getuid(), os.getgid())
    os.unlink(folder / "4913")
    os.rename(folder / name, folder / f"{name}~")
    write(folder / name, NEW)
    os.chmod(folder / name, 0o644)
    os.unlink(folder / f"{name}~")
    os.unlink(folder / f".{name}.swp")


def vim_in_place(folder, name):
    """vim, "backupcopy=yes": copies the target aside and overwrites it."""
    write(folder / f".{name}.swp", b"b0VIM", os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o600)
    old = (folder / name).read_bytes()
    write(folder / f"{name}~", old, os.O_CREAT | os.O_EXCL | os.O_WRONLY)
    write(folder / name, NEW, os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
    os.unlink(folder / f"{name}~")
    os.unlink(folder / f".{name}.swp")


def gedit(folder, name):
    """GIO's replacing: a temporary file of its own name, rights and times, renamed over."""
    status = os.stat(folder / name)
    aside = folder / ".goutputstream-ABCDEF"
    descriptor = os.open(aside, os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o644)
    os.fchown(descriptor, status.st_uid, status.st_gid)
    os.fchmod(descriptor, status.st_mode & 0o7777)
    os.write(descriptor, NEW)
    os.fsync(descriptor)
    os.rename(aside, folder / name)
    os.close(descriptor)


def libre_office(folder, name):
    """A lock file, a temporary file in the same folder, and a rename."""
    lock = folder / f".~lock.{name}#"
    write(lock, b",user,host,;", os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o644, sync=False)
    aside = folder / "lu12345abc.tmp"
    write(aside, NEW, os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o600)
    os.chmod(aside, 0o644)
    os.rename(aside, folder / name)
    os.unlink(lock)


def vs_code(folder, name):
    """In place: truncated, written, synchronised."""
    descriptor = os.open(folder / name, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
    os.write(descriptor, NEW)
    os.fdatasync(descriptor)
    os.close(descriptor)


WAYS = [write_aside_and_rename, vim_with_backup, vim_in_place, gedit, libre_office, vs_code]


def costs(save):
    """The provider's calls for a save, or for several in a burst."""
    if save is vim_with_backup:
        # The target is moved aside and back again in other contents, which is not atomic anywhere.
        return ["modifyItem /text.txt -> /text.txt~", "deleteItem /text.txt~",
                f"createItem /text.txt {len(NEW)}"]
    return [f"modifyItem /text.txt {len(NEW)}"]


@pytest.mark.parametrize("save", WAYS, ids=lambda way: way.__name__)
def test_a_save_costs_one_upload(host, mount, save):
    host.write("/text.txt", OLD)
    assert (mount / "text.txt").read_bytes() == OLD
    host.clear_calls()
    save(mount, "text.txt")
    assert (mount / "text.txt").read_bytes() == NEW
    host.wait()
    assert host.tree() == {"/text.txt": NEW}
    assert host.changes() == costs(save)


@pytest.mark.parametrize("save", WAYS, ids=lambda way: way.__name__)
def test_a_first_save_makes_the_file_with_one_upload(host, mount, save):
    os.listdir(mount)
    (mount / "text.txt").touch()
    save(mount, "text.txt")
    host.wait()
    assert host.tree() == {"/text.txt": NEW}
    assert host.changes()[-1].endswith(f" {len(NEW)}")
    assert len(host.changes()) <= 2


@pytest.mark.parametrize("save", WAYS, ids=lambda way: way.__name__)
def test_many_saves_in_a_burst_are_one_upload(make_host, place, save):
    host = make_host(sendDelay=1500).mount().connect()
    mount = place / "mount"
    host.write("/text.txt", OLD)
    assert (mount / "text.txt").read_bytes() == OLD
    for _ in range(10):
        save(mount, "text.txt")
    host.wait()
    assert host.tree() == {"/text.txt": NEW}
    assert host.changes() == costs(save)


@pytest.mark.parametrize("save", WAYS, ids=lambda way: way.__name__)
def test_a_save_without_a_server_is_kept_and_sent_later(host, mount, save):
    host.write("/text.txt", OLD)
    assert (mount / "text.txt").read_bytes() == OLD
    host.down()
    save(mount, "text.txt")
    assert (mount / "text.txt").read_bytes() == NEW
    host.down(False)
    host.wait()
    assert host.tree() == {"/text.txt": NEW}


@pytest.mark.parametrize("save", [write_aside_and_rename, gedit, libre_office],
                         ids=lambda way: way.__name__)
def test_the_target_of_an_atomic_save_never_disappears(host, mount, save):
    """Another program looks at the file all the while, here and on the server."""
    host.write("/text.txt", OLD)
    assert (mount / "text.txt").read_bytes() == OLD
    seen = set()
    reading, writing = os.pipe()
    watcher = os.fork()
    if watcher == 0:
        code = 1
        try:
            os.close(writing)
            os.set_blocking(reading, False)
            while outcome(os.read, reading, 1) == "EAGAIN":
                seen.add((mount / "text.txt").read_bytes())
            code = 0 if seen <= {OLD, NEW} else 2
        finally:
            os._exit(code)
    os.close(reading)
    for _ in range(30):
        save(mount, "text.txt")
        assert host.read("/text.txt") in (OLD, NEW)
    host.wait()
    os.close(writing)
    assert os.waitstatus_to_exitcode(os.waitpid(watcher, 0)[1]) == 0
    assert host.tree() == {"/text.txt": NEW}


def test_a_lock_file_is_never_sent(host, mount):
    write(mount / ".~lock.text.odt#", b"lock")
    assert (mount / ".~lock.text.odt#").read_bytes() == b"lock"
    host.wait()
    assert host.changes() == []
    assert os.getxattr(mount / ".~lock.text.odt#", "user.kestrowan.state") == b"local-only"
    os.unlink(mount / ".~lock.text.odt#")
    host.wait()
    assert host.changes() == []


def test_a_temporary_file_under_its_final_name_is_sent(host, mount):
    write(mount / "film.mkv.part", b"x" * 1000)
    host.wait()
    assert host.changes() == []
    os.rename(mount / "film.mkv.part", mount / "film.mkv")
    host.wait()
    assert host.tree() == {"/film.mkv": b"x" * 1000}
    assert host.changes() == ["createItem /film.mkv 1000"]


def test_trash_folders_are_refused(host, mount):
    assert outcome(os.mkdir, mount / ".Trash-1000") == "EPERM"
    assert outcome(os.mkdir, mount / ".Trash") == "EPERM"
    assert os.listdir(mount) == []


def test_the_time_of_a_saved_file_does_not_jump(host, mount):
    host.write("/text.txt", OLD)
    write_aside_and_rename(mount, "text.txt")
    saved = os.stat(mount / "text.txt").st_mtime_ns
    host.wait()
    os.listdir(mount)
    assert eventually(lambda: os.stat(mount / "text.txt").st_mtime_ns == saved)
