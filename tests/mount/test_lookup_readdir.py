"""Looking names up, and reading folders."""

import ctypes
import errno
import os
import stat
import subprocess

import pytest

from hosting import eventually, outcome, run


def names(folder):
    return sorted(os.listdir(folder))


def test_what_the_server_has_is_there(host, mount):
    host.write("/a.txt", "abc")
    host.folder("/folder")
    host.write("/folder/b", "defgh")
    assert names(mount) == ["a.txt", "folder"]
    assert names(mount / "folder") == ["b"]
    assert stat.S_ISREG(os.stat(mount / "a.txt").st_mode)
    assert stat.S_ISDIR(os.stat(mount / "folder").st_mode)
    assert os.stat(mount / "folder" / "b").st_size == 5


def test_a_lookup_asks_for_the_parents_listing_and_nothing_else(host, mount):
    host.folder("/folder")
    for number in range(20):
        host.write(f"/folder/{number}", "x")
    host.clear_calls()
    for number in range(20):
        os.stat(mount / "folder" / str(number))
    assert host.calls() == ["enumerateItems /", "enumerateItems /folder"]


def test_ls_with_attributes_is_one_listing(host, mount):
    host.folder("/folder")
    for number in range(300):
        host.write(f"/folder/{number:03}", "x" * number)
    os.listdir(mount)
    host.clear_calls()
    listed = run("ls", "-ln", mount / "folder").decode().splitlines()
    assert len(listed) == 301
    assert {line.split()[-1]: int(line.split()[4]) for line in listed[1:]} == {
        f"{number:03}": number for number in range(300)}
    assert host.calls() == ["enumerateItems /folder"]


def test_missing_names_are_missing(host, mount, native):
    host.write("/file", "x")
    (native / "file").write_text("x")
    for name in ("missing", "missing/below", "file/below", "n" * 256, "n" * 1025, "file/"):
        assert outcome(os.stat, f"{mount}/{name}") == outcome(os.stat, f"{native}/{name}"), name


def test_a_name_of_255_bytes_is_found(host, mount):
    name = "ü" * 127 + "x"
    host.write("/" + name, "x")
    assert os.listdir(mount) == [name]
    assert os.stat(mount / name).st_size == 1


def test_inode_numbers_are_the_same_everywhere(host, mount):
    host.folder("/folder")
    host.write("/folder/file", "x")
    listed = {entry.name: entry.inode() for entry in os.scandir(mount / "folder")}
    looked_up = os.stat(mount / "folder" / "file").st_ino
    with open(mount / "folder" / "file", "rb") as file:
        opened = os.fstat(file.fileno()).st_ino
    assert listed == {"file": looked_up}
    assert opened == looked_up
    assert os.stat(mount).st_ino == 1


def test_entries_tell_their_kind(host, mount):
    host.folder("/folder")
    host.write("/file", "x")
    kinds = {entry.name: (entry.is_dir(follow_symlinks=False), entry.is_file(follow_symlinks=False))
             for entry in os.scandir(mount)}
    assert kinds == {"folder": (True, False), "file": (False, True)}


class Dirent(ctypes.Structure):
    _fields_ = [("d_ino", ctypes.c_uint64), ("d_off", ctypes.c_int64),
                ("d_reclen", ctypes.c_ushort), ("d_type", ctypes.c_ubyte),
                ("d_name", ctypes.c_char * 256)]


class Folder:
    """A folder as C programs read it, with its positions."""

    def __init__(self, path):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.opendir.restype = ctypes.c_void_p
        self.libc.readdir64.restype = ctypes.POINTER(Dirent)
        self.libc.telldir.restype = ctypes.c_long
        self.stream = ctypes.c_void_p(self.libc.opendir(os.fsencode(path)))
        assert self.stream.value

    def __enter__(self):
        return self

    def __exit__(self, *ignored):
        self.libc.closedir(self.stream)

    def next(self):
        entry = self.libc.readdir64(self.stream)
        return entry.contents.d_name.decode() if entry else None

    def rest(self):
        return list(iter(self.next, None))

    def tell(self):
        return self.libc.telldir(self.stream)

    def seek(self, position):
        self.libc.seekdir(self.stream, ctypes.c_long(position))

    def rewind(self):
        self.libc.rewinddir(self.stream)


def test_an_open_folder_stays_as_it_was(host, mount):
    for number in range(50):
        host.write(f"/{number:02}", "x")
    with Folder(mount) as folder:
        first = [folder.next() for _ in range(3)]
        (mount / "new").write_text("x")
        for number in range(25):
            os.unlink(mount / f"{number:02}")
        rest = folder.rest()
    seen = first + rest
    assert len(seen) == len(set(seen))
    assert {f"{number:02}" for number in range(25, 50)} <= set(seen)


def test_positions_of_a_folder_are_stable(host, mount):
    for number in range(500):
        host.write(f"/{number:03}", "x")
    with Folder(mount) as folder:
        positions = {}
        position = folder.tell()
        while (name := folder.next()) is not None:
            positions[name] = position
            position = folder.tell()
        assert len(positions) == 502
        for name in ("499", "000", "250", "..", "."):
            folder.seek(positions[name])
            assert folder.next() == name


def test_a_rewound_folder_shows_what_is_there_now(host, mount):
    host.write("/old", "x")
    with Folder(mount) as folder:
        assert set(folder.rest()) == {".", "..", "old"}
        (mount / "new").write_text("x")
        os.unlink(mount / "old")
        folder.rewind()
        assert set(folder.rest()) == {".", "..", "new"}


def test_a_folder_that_is_rewound_before_it_is_read_shows_what_is_there_now(host, mount):
    host.write("/old", "x")
    assert os.listdir(mount) == ["old"]
    with Folder(mount) as folder:
        (mount / "new").write_text("x")
        os.unlink(mount / "old")
        folder.rewind()
        assert set(folder.rest()) == {".", "..", "new"}


def test_dots_lead_to_the_folder_and_the_one_above(host, mount):
    host.folder("/a")
    host.folder("/a/b")
    assert os.stat(mount / "a" / "b" / "..").st_ino == os.stat(mount / "a").st_ino
    assert os.stat(mount / "a" / "b" / ".").st_ino == os.stat(mount / "a" / "b").st_ino
    with Folder(mount / "a" / "b") as folder:
        assert set(folder.rest()) == {".", ".."}


def test_a_removed_folder_that_is_open_lists_nothing_new(host, mount):
    os.mkdir(mount / "folder")
    descriptor = os.open(mount / "folder", os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.rmdir(mount / "folder")
        assert outcome(os.open, "file", os.O_CREAT | os.O_WRONLY, dir_fd=descriptor) in (
            "ENOENT", "ESTALE")
    finally:
        os.close(descriptor)
    assert os.listdir(mount) == []


def test_a_folder_of_many_entries_is_read_whole(host, mount):
    host.folder("/many")
    for number in range(5000):
        host.write(f"/many/entry-{number:05}", "x")
    assert names(mount / "many") == [f"entry-{number:05}" for number in range(5000)]
    assert len(run("find", mount / "many", "-type", "f", "-size", "1c").splitlines()) == 5000


def test_a_folder_is_no_file_and_a_file_no_folder(host, mount, native):
    host.folder("/folder")
    host.write("/file", "x")
    (native / "folder").mkdir()
    (native / "file").write_text("x")
    for flags, name in ((os.O_WRONLY, "folder"), (os.O_RDONLY | os.O_DIRECTORY, "file"),
                        (os.O_RDWR | os.O_TRUNC, "folder"), (os.O_CREAT | os.O_RDWR, "folder")):
        assert (outcome(os.open, mount / name, flags) == outcome(os.open, native / name, flags)
                ), (flags, name)
    assert outcome(os.listdir, mount / "file") == "ENOTDIR"


def test_many_read_a_folder_at_once(host, mount):
    for number in range(200):
        host.write(f"/{number:03}", "x")
    readers = [subprocess.Popen(["sh", "-c", f"for i in 1 2 3 4 5; do ls -l '{mount}' | wc -l; done"],
                                stdout=subprocess.PIPE) for _ in range(8)]
    for reader in readers:
        assert reader.communicate(timeout=60)[0].split() == [b"201"] * 5


def test_the_kernel_forgets_what_is_not_used(host, mount):
    for number in range(100):
        host.write(f"/{number}", "x")
    before = {name: os.stat(mount / name).st_ino for name in os.listdir(mount)}
    if os.geteuid() != 0:
        pytest.skip("only root can empty the kernel's caches")
    with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as control:
        control.write("2")
    assert {name: os.stat(mount / name).st_ino for name in os.listdir(mount)} == before


def test_a_listing_that_waits_can_be_interrupted(host, mount):
    host.fault(kind="enumerateItems", hangs=True)
    reader = subprocess.Popen(["ls", str(mount)], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    eventually(lambda: host.do("running")["running"] > 0)
    reader.terminate()
    assert reader.wait(30) == -15
    host.do("clearFaults")
    assert eventually(lambda: host.do("release")["released"])


def test_errno_of_a_name_in_a_file(host, mount):
    host.write("/file", "x")
    with pytest.raises(OSError) as refused:
        os.stat(mount / "file" / "x")
    assert refused.value.errno == errno.ENOTDIR
