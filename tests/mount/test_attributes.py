"""Modes, times, owners, sizes, extended attributes and the space that is left."""

import ctypes
import errno
import os
import stat
import subprocess
import time

import pytest

from hosting import eventually, outcome


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


# ---- modes, times, owners ------------------------------------------------------------------------


def test_modes_are_kept_here(host, mount):
    host.write("/script", "#!/bin/sh\necho ran\n")
    os.chmod(mount / "script", 0o755)
    assert mode(mount / "script") == 0o755
    assert subprocess.run([mount / "script"], capture_output=True, check=True,
                          timeout=60).stdout == b"ran\n"
    os.chmod(mount / "script", 0o600)
    assert mode(mount / "script") == 0o600
    with open(mount / "script", "rb") as file:
        os.fchmod(file.fileno(), 0o700)
    assert mode(mount / "script") == 0o700
    host.wait()
    assert host.changes() == []


def test_the_bits_beyond_permissions_are_kept(host, mount, make_host):
    (mount / "file").write_text("x")
    os.mkdir(mount / "folder")
    for path in (mount / "file", mount / "folder"):
        for bits in (0o1755, 0o2755, 0o4755, 0o7777, 0o755):
            os.chmod(path, bits)
            assert mode(path) == bits
    os.chmod(mount / "folder", 0o3777)
    os.chmod(mount / "file", 0o6755)
    host.wait()
    assert host.end() == 0
    make_host().mount()
    assert (mode(mount / "folder"), mode(mount / "file")) == (0o3777, 0o6755)


def test_no_file_runs_as_somebody_else(host, mount):
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        options = [line.split()[5] for line in table if line.split()[4] == str(mount)]
    assert "nosuid" in options[0].split(",")


def test_contents_that_are_changed_lose_the_rights_to_run_as_somebody_else(host, mount):
    host.write("/theirs", "x")
    for change in (lambda path: path.write_text("y"),
                   lambda path: os.truncate(path, 1),
                   lambda path: os.close(os.open(path, os.O_WRONLY | os.O_TRUNC))):
        (mount / "file").write_text("xx")
        os.chmod(mount / "file", 0o7755)
        change(mount / "file")
        assert eventually(lambda: mode(mount / "file") == 0o1755)
    os.chmod(mount / "theirs", 0o6755)
    host.write("/theirs", "other")
    assert eventually(lambda: (mount / "theirs").read_text() == "other")
    assert eventually(lambda: mode(mount / "theirs") == 0o755)


def test_times_are_kept_to_the_nanosecond(host, mount):
    host.write("/file", "x")
    for time in (1_234_567_890_123_456_789, 0, -1_500_000_000, 4_000_000_000_000_000_001):
        os.utime(mount / "file", ns=(time, time))
        assert os.stat(mount / "file").st_mtime_ns == time
    host.wait()
    assert host.changes() == []


def test_times_of_folders_are_kept(host, mount):
    os.mkdir(mount / "folder")
    os.utime(mount / "folder", ns=(1_000_000_001, 2_000_000_002))
    assert os.stat(mount / "folder").st_mtime_ns == 2_000_000_002


def test_a_file_that_is_touched_is_as_new_as_the_clock(host, mount):
    host.write("/file", "x")
    os.utime(mount / "file", ns=(0, 0))
    os.utime(mount / "file")
    assert abs(os.stat(mount / "file").st_mtime - time.time()) < 30


def test_the_time_of_the_last_access_alone_changes_nothing(host, mount):
    host.write("/file", "x")
    os.utime(mount / "file", ns=(5, 7))
    subprocess.run(["touch", "-a", mount / "file"], check=True, timeout=60)
    assert os.stat(mount / "file").st_mtime_ns == 7


def test_writing_makes_a_file_newer(host, mount):
    host.write("/file", "x")
    os.utime(mount / "file", ns=(0, 0))
    with open(mount / "file", "a", encoding="ascii") as file:
        file.write("y")
    assert eventually(lambda: os.stat(mount / "file").st_mtime_ns > 0)


def test_the_time_of_a_file_survives_its_sending(host, mount):
    (mount / "file").write_text("x")
    os.utime(mount / "file", ns=(1_111_111_111_111, 1_111_111_111_111))
    host.wait()
    assert os.stat(mount / "file").st_mtime_ns == 1_111_111_111_111
    assert host.changes() == ["createItem /file 1"]


def test_items_belong_to_who_mounted_and_stay_there(host, mount):
    host.write("/file", "x")
    status = os.stat(mount / "file")
    assert (status.st_uid, status.st_gid) == (os.getuid(), os.getgid())
    os.chown(mount / "file", os.getuid(), os.getgid())
    os.chown(mount / "file", -1, -1)
    if os.geteuid() == 0:
        assert outcome(os.chown, mount / "file", 12345, -1) == "EPERM"
        assert outcome(os.chown, mount / "file", -1, 12345) == "EPERM"
    status = os.stat(mount / "file")
    assert (status.st_uid, status.st_gid) == (os.getuid(), os.getgid())


def test_what_stat_says_of_sizes(host, mount):
    host.write("/file", "x" * 1000)
    host.folder("/folder")
    status = os.stat(mount / "file")
    assert (status.st_size, status.st_blocks, status.st_nlink) == (1000, 2, 1)
    assert os.stat(mount / "folder").st_nlink == 2


def test_contents_that_are_here_tell_the_space_that_they_take(host, mount):
    with open(mount / "sparse", "wb") as file:
        file.truncate(1 << 24)
        assert os.fstat(file.fileno()).st_blocks == 0
        file.seek(1 << 20)
        file.write(b"x" * 65536)
        file.flush()
        assert 128 <= os.fstat(file.fileno()).st_blocks < 1024
    assert os.stat(mount / "sparse").st_blocks < 1024
    # Natively so much is taken as is written.
    (mount / "full").write_bytes(b"x" * (1 << 20))
    assert eventually(lambda: os.stat(mount / "full").st_blocks >= 2048)


@pytest.mark.parametrize("command", [
    ["sh", "-c", "tar -cSf - -C \"$1\" file | tar -xSf - -C \"$2\"", "sh"],
    ["sh", "-c", "cp --sparse=auto \"$1/file\" \"$2/file\"", "sh"]], ids=["tar", "cp"])
def test_contents_that_are_not_here_are_no_holes(host, mount, native, command):
    contents = os.urandom(300_000)
    host.write("/file", contents)
    assert os.stat(mount / "file").st_blocks * 512 >= len(contents)
    subprocess.run([*command, mount, native], check=True, timeout=60)
    assert (native / "file").read_bytes() == contents


def test_sparse_contents_stay_sparse_for_tar(host, mount, native):
    with open(mount / "sparse", "wb") as file:
        file.seek(1 << 24)
        file.write(b"end")
    subprocess.run(["tar", "-cSf", native / "archive", "-C", mount, "sparse"], check=True,
                   timeout=60)
    assert os.stat(native / "archive").st_size < 1 << 20
    subprocess.run(["tar", "-xf", native / "archive", "-C", native], check=True, timeout=60)
    assert (native / "sparse").read_bytes() == (mount / "sparse").read_bytes()


# ---- links ---------------------------------------------------------------------------------------


def test_an_open_file_without_a_name_has_no_links(host, mount):
    host.write("/theirs", "x")
    (mount / "ours").write_text("x")
    for name in ("theirs", "ours"):
        for removed in (True, False):
            with open(mount / name, "rb") as file:
                assert os.fstat(file.fileno()).st_nlink == 1
                if removed:
                    os.unlink(mount / name)
                else:
                    (mount / "new").write_text("y")
                    os.rename(mount / "new", mount / name)
                assert os.fstat(file.fileno()).st_nlink == 0
            if removed:
                (mount / name).write_text("z")
            assert os.stat(mount / name).st_nlink == 1


def test_the_links_of_a_folder_count_the_folders_in_it(host, mount):
    host.folder("/theirs")
    host.folder("/theirs/inner")
    host.write("/theirs/file", "x")
    os.mkdir(mount / "ours")

    def links(name):
        return os.stat(mount / name).st_nlink

    os.listdir(mount / "theirs")
    assert eventually(lambda: links("theirs") == 3)
    for number in range(3):
        assert links("ours") == 2 + number
        os.mkdir(mount / "ours" / str(number))
    (mount / "ours" / "file").touch()
    assert links("ours") == 5
    os.rename(mount / "ours" / "0", mount / "theirs" / "0")
    assert (links("ours"), links("theirs")) == (4, 4)
    os.rename(mount / "ours" / "1", mount / "ours" / "2")
    assert links("ours") == 3
    os.rmdir(mount / "ours" / "2")
    assert links("ours") == 2
    opened = os.open(mount / "ours", os.O_RDONLY)
    try:
        os.unlink(mount / "ours" / "file")
        os.rmdir(mount / "ours")
        assert os.fstat(opened).st_nlink == 0
    finally:
        os.close(opened)


def test_find_goes_into_folders_that_were_never_listed(host, mount):
    for path in ("/a", "/a/b", "/a/b/c"):
        host.folder(path)
    for path in ("/a/x", "/a/b/y", "/a/b/c/z"):
        host.write(path, "1")
    found = subprocess.run(["find", ".", "-type", "f"], cwd=mount, check=True, timeout=60,
                           stdout=subprocess.PIPE).stdout
    assert sorted(found.split()) == [b"./a/b/c/z", b"./a/b/y", b"./a/x"]


def test_truncating_a_file_that_is_not_here_fetches_what_is_kept(host, mount):
    host.write("/kept", "0123456789")
    host.write("/emptied", "0123456789")
    os.truncate(mount / "kept", 4)
    os.truncate(mount / "emptied", 0)
    assert host.calls("fetchContents") == ["fetchContents /kept"]
    host.wait()
    assert host.tree() == {"/kept": b"0123", "/emptied": b""}


def test_a_negative_size_is_refused(host, mount, native):
    (mount / "file").write_text("x")
    (native / "file").write_text("x")
    for size in (-1, 1 << 62):
        assert (outcome(os.truncate, mount / "file", size)
                == outcome(os.truncate, native / "file", size)) or size > 0


# ---- extended attributes -------------------------------------------------------------------------


def test_user_attributes_are_kept_here(host, mount):
    host.write("/file", "x")
    file = mount / "file"
    os.setxattr(file, "user.comment", b"a\0b")
    os.setxattr(file, "user.empty", b"")
    assert os.getxattr(file, "user.comment") == b"a\0b"
    assert os.getxattr(file, "user.empty") == b""
    assert sorted(os.listxattr(file)) == ["user.comment", "user.empty"]
    os.removexattr(file, "user.comment")
    assert os.listxattr(file) == ["user.empty"]
    host.wait()
    assert host.changes() == []


def test_attributes_fail_as_natively(host, mount, native):
    (mount / "file").write_text("x")
    (native / "file").write_text("x")
    if outcome(os.setxattr, native / "file", "user.probe", b"x") == "ENOTSUP":
        pytest.skip("the native file system has no user attributes")
    os.setxattr(mount / "file", "user.probe", b"x")
    for action in (lambda path: os.getxattr(path, "user.missing"),
                   lambda path: os.removexattr(path, "user.missing"),
                   lambda path: os.setxattr(path, "user.probe", b"y", os.XATTR_CREATE),
                   lambda path: os.setxattr(path, "user.missing", b"y", os.XATTR_REPLACE),
                   lambda path: os.setxattr(path, "user.probe", b"y", os.XATTR_REPLACE),
                   lambda path: os.getxattr(path, "user.probe"),
                   lambda path: os.getxattr(path, "security.missing")):
        assert outcome(action, mount / "file") == outcome(action, native / "file")


def test_attributes_of_other_kinds_are_refused(host, mount):
    (mount / "file").write_text("x")
    assert outcome(os.setxattr, mount / "file", "security.capability", b"x" * 20) is not None
    assert outcome(os.setxattr, mount / "file", "trusted.x", b"x") in ("ENOTSUP", "EPERM")
    assert outcome(os.getxattr, mount / "file", "security.ima") == "ENODATA"
    assert os.listxattr(mount / "file") == []


def test_there_are_no_labels(host, mount):
    """`ls -l` asks every file for one, unless it hears that there are none at all."""
    if os.path.exists("/sys/fs/selinux/enforce"):
        pytest.skip("the kernel itself labels files here")
    (mount / "file").write_text("x")
    assert outcome(os.getxattr, mount / "file", "security.selinux") == "ENOTSUP"


def test_attributes_together_have_a_limit(host, mount):
    (mount / "file").write_text("x")
    os.setxattr(mount / "file", "user.large", b"x" * 60_000)
    assert outcome(os.setxattr, mount / "file", "user.more", b"x" * 60_000) == "ENOSPC"
    assert os.listxattr(mount / "file") == ["user.large"]


def test_a_buffer_that_is_too_small_is_told(host, mount):
    (mount / "file").write_text("x")
    os.setxattr(mount / "file", "user.name", b"0123456789")
    libc = ctypes.CDLL(None, use_errno=True)
    path = os.fsencode(mount / "file")
    buffer = ctypes.create_string_buffer(64)
    assert libc.getxattr(path, b"user.name", None, 0) == 10
    assert libc.getxattr(path, b"user.name", buffer, 9) == -1
    assert ctypes.get_errno() == errno.ERANGE
    assert libc.getxattr(path, b"user.name", buffer, 10) == 10
    assert libc.listxattr(path, None, 0) == len(b"user.name\0")
    assert libc.listxattr(path, buffer, 5) == -1
    assert ctypes.get_errno() == errno.ERANGE


def test_folders_have_attributes_too(host, mount):
    os.mkdir(mount / "folder")
    os.setxattr(mount / "folder", "user.x", b"y")
    assert os.getxattr(mount / "folder", "user.x") == b"y"


def attribute(path, name):
    return os.getxattr(path, "user.kestrowan." + name)


def test_where_an_item_stands_can_be_read(host, mount):
    host.write("/report.txt", "x")
    host.folder("/folder")
    assert attribute(mount / "report.txt", "identifier") == b"/report.txt"
    assert attribute(mount / "report.txt", "state") == b"synced"
    assert attribute(mount / "report.txt", "type") == b"public.plain-text"
    assert attribute(mount / "report.txt", "version") != b""
    assert attribute(mount / "report.txt", "downloaded") == b"no"
    assert attribute(mount / "folder", "type") == b"public.folder"
    (mount / "report.txt").read_bytes()
    assert attribute(mount / "report.txt", "downloaded") == b"yes"
    assert attribute(mount, "state") == b"synced"


def test_what_is_still_to_be_sent_can_be_read(host, mount):
    os.listdir(mount)
    host.down()
    (mount / "file").write_text("x")
    assert attribute(mount / "file", "state") in (b"waiting", b"retrying")
    assert attribute(mount / "file", "changes") == b"create"
    assert outcome(attribute, mount / "file", "identifier") == "ENODATA"
    host.down(False)
    host.wait()
    assert attribute(mount / "file", "state") == b"synced"
    assert outcome(attribute, mount / "file", "changes") == "ENODATA"


def test_where_an_item_stands_cannot_be_written(host, mount):
    host.write("/file", "x")
    assert outcome(os.setxattr, mount / "file", "user.kestrowan.state", b"x") == "EPERM"
    assert outcome(os.removexattr, mount / "file", "user.kestrowan.state") == "EPERM"
    assert outcome(attribute, mount / "file", "unknown") == "ENODATA"
    assert os.listxattr(mount / "file") == []


# ---- space ---------------------------------------------------------------------------------------


def test_the_space_is_that_of_the_disk_underneath(host, mount, place):
    def free(path):
        status = os.statvfs(path)
        return status.f_bavail * status.f_frsize

    ours = os.statvfs(mount)
    disk = os.statvfs(place / "state")
    assert ours.f_blocks * ours.f_frsize == pytest.approx(disk.f_blocks * disk.f_frsize, rel=0.01)
    assert ours.f_namemax == 255
    # Other programs use the disk at the same time.
    assert eventually(lambda: free(place / "state") == free(mount) == free(place / "state"))
