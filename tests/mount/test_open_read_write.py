"""Opening, reading, writing and closing files."""

import ctypes
import mmap
import os
import subprocess
import sys
import threading

import pytest

from hosting import eventually, outcome

SEEK_DATA, SEEK_HOLE = 3, 4
KEEP_SIZE, PUNCH_HOLE, ZERO_RANGE = 1, 2, 16
LIBC = ctypes.CDLL(None, use_errno=True)


def fallocate(descriptor, mode, offset, length):
    if LIBC.fallocate(descriptor, mode, ctypes.c_int64(offset), ctypes.c_int64(length)) != 0:
        raise OSError(ctypes.get_errno(), "fallocate")


def test_a_file_is_fetched_when_it_is_opened_and_once(host, mount):
    contents = os.urandom(300_000)
    host.write("/file", contents)
    os.stat(mount / "file")
    assert host.calls("fetchContents") == []
    assert (mount / "file").read_bytes() == contents
    assert (mount / "file").read_bytes() == contents
    assert host.calls("fetchContents") == ["fetchContents /file"]


def test_every_part_can_be_read(host, mount):
    contents = os.urandom(1_000_003)
    host.write("/file", contents)
    with open(mount / "file", "rb", buffering=0) as file:
        for offset, length in ((0, 1), (4095, 2), (65536, 131072), (999_999, 100), (1_000_003, 10),
                               (2_000_000, 10)):
            assert os.pread(file.fileno(), length, offset) == contents[offset:offset + length]


def test_what_is_written_can_be_read_and_arrives(host, mount):
    contents = os.urandom(3_000_001)
    with open(mount / "file", "wb", buffering=0) as file:
        for offset in range(0, len(contents), 70_001):
            file.write(contents[offset:offset + 70_001])
        assert os.fstat(file.fileno()).st_size == len(contents)
        assert (mount / "file").read_bytes() == contents
    host.wait()
    assert host.read("/file") == contents
    assert host.changes() == [f"createItem /file {len(contents)}"]


def test_writing_within_a_file_keeps_the_rest(host, mount):
    host.write("/file", b"0123456789" * 1000)
    with open(mount / "file", "r+b", buffering=0) as file:
        os.pwrite(file.fileno(), b"abc", 5000)
        os.pwrite(file.fileno(), b"end", 10_010)
    expected = bytearray(b"0123456789" * 1000 + bytes(10) + b"end")
    expected[5000:5003] = b"abc"
    assert (mount / "file").read_bytes() == expected
    host.wait()
    assert host.read("/file") == expected


def test_appending_goes_to_the_end(host, mount):
    host.write("/log", "one\n")
    first = os.open(mount / "log", os.O_WRONLY | os.O_APPEND)
    second = os.open(mount / "log", os.O_WRONLY | os.O_APPEND)
    os.write(first, b"two\n")
    os.write(second, b"three\n")
    os.write(first, b"four\n")
    os.close(first)
    os.close(second)
    host.wait()
    assert host.read("/log") == b"one\ntwo\nthree\nfour\n"


def test_truncating_at_opening_fetches_nothing(host, mount):
    host.write("/file", "x" * 1000)
    (mount / "file").write_text("new")
    host.wait()
    assert host.read("/file") == b"new"
    assert host.calls("fetchContents") == []


def test_a_file_opened_only_to_read_can_be_truncated(host, mount, native):
    host.write("/file", "text")
    (native / "file").write_text("text")
    for folder in (mount, native):
        os.close(os.open(folder / "file", os.O_RDONLY | os.O_TRUNC))
        assert os.stat(folder / "file").st_size == 0


def test_the_end_of_a_file_is_where_it_was_cut(host, mount):
    host.write("/file", "0123456789")
    with open(mount / "file", "r+b", buffering=0) as file:
        file.truncate(4)
        assert os.pread(file.fileno(), 100, 0) == b"0123"
        file.truncate(8)
        assert os.pread(file.fileno(), 100, 0) == b"0123\0\0\0\0"
    os.truncate(mount / "file", 2)
    assert (mount / "file").read_bytes() == b"01"
    host.wait()
    assert host.read("/file") == b"01"


def test_an_open_file_survives_its_name(host, mount):
    host.write("/file", "contents")
    with open(mount / "file", "r+b", buffering=0) as file:
        os.unlink(mount / "file")
        assert not (mount / "file").exists()
        assert os.pread(file.fileno(), 100, 0) == b"contents"
        os.pwrite(file.fileno(), b"CONT", 0)
        os.ftruncate(file.fileno(), 6)
        assert os.fstat(file.fileno()).st_size == 6
        assert os.pread(file.fileno(), 100, 0) == b"CONTen"
        assert os.fstat(file.fileno()).st_ino != 0
    host.wait()
    assert host.tree() == {}
    assert host.changes() == ["deleteItem /file"]


def test_a_new_file_removed_before_it_was_closed_is_never_sent(host, mount):
    with open(mount / "file", "wb") as file:
        file.write(b"contents")
        file.flush()
        os.unlink(mount / "file")
    host.wait()
    assert host.changes() == []


def test_ways_to_open_end_as_on_a_native_folder(host, mount, native):
    host.write("/file", "x")
    (native / "file").write_text("x")
    create = os.O_CREAT | os.O_RDWR
    for flags, name in ((os.O_RDONLY, "missing"), (create | os.O_EXCL, "file"), (create, "file"),
                        (os.O_RDWR | os.O_NOFOLLOW, "file"), (create, "missing/file"),
                        (create, "file/below"), (create, "n" * 256)):
        results = []
        for folder in (mount, native):
            result = outcome(os.open, folder / name, flags, 0o644)
            if isinstance(result, int):
                os.close(result)
                result = "opened"
            results.append(result)
        assert results[0] == results[1], (flags, name)


def test_descriptors_do_only_what_they_were_opened_for(host, mount):
    (mount / "file").write_text("x")
    reading = os.open(mount / "file", os.O_RDONLY)
    writing = os.open(mount / "file", os.O_WRONLY)
    assert outcome(os.write, reading, b"x") == "EBADF"
    assert outcome(os.read, writing, 1) == "EBADF"
    os.close(reading)
    os.close(writing)


def test_a_file_that_the_name_was_taken_for_meanwhile_is_opened(host, mount):
    os.listdir(mount)
    host.write("/file", "theirs")
    descriptor = os.open(mount / "file", os.O_CREAT | os.O_RDWR)
    contents = os.read(descriptor, 100)
    os.close(descriptor)
    host.wait()
    tree = host.tree()
    assert tree["/file"] == b"theirs"
    assert contents == b"theirs" or len(tree) == 2


def test_mapped_files_read_and_write(host, mount):
    host.write("/file", b"0123456789" * 1000)
    with open(mount / "file", "r+b") as file, mmap.mmap(file.fileno(), 0) as mapped:
        assert mapped[5000:5010] == b"0123456789"
        mapped[5000:5003] = b"abc"
        mapped.flush()
        assert os.pread(file.fileno(), 10, 5000) == b"abc3456789"
    host.wait()
    assert host.read("/file")[5000:5010] == b"abc3456789"


def test_holes_and_ranges(host, mount, native):
    results = []
    for folder in (mount, native):
        with open(folder / "file", "w+b", buffering=0) as file:
            descriptor = file.fileno()
            seen = []
            os.pwrite(descriptor, b"x" * 65536, 0)
            fallocate(descriptor, 0, 0, 1 << 20)
            seen.append(os.fstat(descriptor).st_size)
            fallocate(descriptor, KEEP_SIZE, 0, 2 << 20)
            seen.append(os.fstat(descriptor).st_size)
            seen.append(outcome(fallocate, descriptor, PUNCH_HOLE | KEEP_SIZE, 16384, 16384))
            seen.append(os.pread(descriptor, 65536, 0))
            os.ftruncate(descriptor, 0)
            os.ftruncate(descriptor, 4 << 20)
            os.pwrite(descriptor, b"x" * 4096, 1 << 20)
            seen.append(os.lseek(descriptor, 0, SEEK_DATA))
            seen.append(os.lseek(descriptor, 1 << 20, SEEK_HOLE))
            seen.append(outcome(os.lseek, descriptor, 2 << 20, SEEK_DATA))
            seen.append(outcome(os.lseek, descriptor, 5 << 20, SEEK_HOLE))
            results.append(seen)
    assert results[0] == results[1]


def test_ranges_are_copied_between_files(host, mount):
    contents = os.urandom(200_000)
    host.write("/from", contents)
    with open(mount / "from", "rb") as source, open(mount / "to", "w+b", buffering=0) as target:
        copied = 0
        while copied < 150_000:
            copied += os.copy_file_range(source.fileno(), target.fileno(), 150_000 - copied,
                                         1000 + copied, copied)
        assert os.pread(target.fileno(), 200_000, 0) == contents[1000:151_000]
    host.wait()
    assert host.read("/to") == contents[1000:151_000]


def test_ranges_are_copied_within_a_file(host, mount):
    host.write("/file", b"0123456789")
    with open(mount / "file", "r+b", buffering=0) as file:
        assert os.copy_file_range(file.fileno(), file.fileno(), 4, 0, 6) == 4
    assert (mount / "file").read_bytes() == b"0123450123"


def test_closing_twice_the_same_file_sends_it_once(host, mount):
    subprocess.run(["sh", "-c", f"exec 3>'{mount}/file'; echo a >&3; echo b >&3; (echo c >&3); exec 3>&-"],
                   check=True, timeout=60)
    host.wait()
    assert host.read("/file") == b"a\nb\nc\n"
    assert host.changes() == ["createItem /file 6"]


def test_an_empty_file_is_sent_as_one(host, mount):
    (mount / "empty").touch()
    host.wait()
    assert host.read("/empty") == b""
    assert host.changes() == ["createItem /empty 0"]


def test_a_reader_sends_nothing(host, mount):
    host.write("/file", "x")
    (mount / "file").read_bytes()
    with open(mount / "file", "r+b"):
        pass
    host.wait()
    assert host.changes() == []


def test_synchronising_succeeds_without_a_server(host, mount):
    os.listdir(mount)
    host.down()
    with open(mount / "file", "wb") as file:
        file.write(b"x")
        file.flush()
        os.fsync(file.fileno())
        os.fdatasync(file.fileno())
    folder = os.open(mount, os.O_RDONLY)
    os.fsync(folder)
    os.close(folder)
    host.down(False)
    host.wait()
    assert host.read("/file") == b"x"


def test_a_fetch_that_waits_can_be_interrupted(host, mount):
    host.write("/file", "x")
    host.fault(kind="fetchContents", hangs=True)
    reader = subprocess.Popen(["cat", str(mount / "file")], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    eventually(lambda: host.calls("fetchContents"))
    reader.kill()
    assert reader.wait(30) == -9
    host.do("clearFaults")
    assert eventually(lambda: host.do("release")["released"])
    assert (mount / "file").read_bytes() == b"x"
    # What the reader would have opened is not kept open for it.
    assert eventually(lambda: host.do("evict", path="/file")["evicted"] == 1)


ALARMED = """
import os, signal, sys
signal.signal(signal.SIGALRM, lambda *ignored: None)
for name in sorted(os.listdir(sys.argv[1])):
    signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
    with open(f"{sys.argv[1]}/{name}", "rb") as file:
        contents = file.read()
    signal.setitimer(signal.ITIMER_REAL, 0)
    assert contents == name.encode(), name
print("read")
"""


def test_signals_at_any_moment_spoil_nothing(host, mount):
    for number in range(150):
        host.write(f"/{number}", str(number))
    os.listdir(mount)
    host.do("latency", milliseconds=2)
    readers = [subprocess.Popen([sys.executable, "-c", ALARMED, str(mount)], stdout=subprocess.PIPE)
               for _ in range(3)]
    for reader in readers:
        assert reader.communicate(timeout=100)[0] == b"read\n"
    host.do("latency", milliseconds=0)
    assert eventually(lambda: host.do("evict", path="/")["evicted"] >= 0)
    assert len(os.listdir(mount)) == 150


def test_many_fetches_that_hang_stop_nobody_else(host, mount):
    for number in range(40):
        host.write(f"/slow-{number}", "x")
    (mount / "fast").write_text("here")
    host.wait()
    host.fault(kind="fetchContents", hangs=True)
    readers = [subprocess.Popen(["cat", str(mount / f"slow-{number}")], stdout=subprocess.PIPE)
               for number in range(40)]
    eventually(lambda: host.calls("fetchContents"))
    assert (mount / "fast").read_text() == "here"
    assert len(os.listdir(mount)) == 41
    (mount / "fast").write_text("changed")
    host.do("clearFaults")
    eventually(lambda: host.do("release") and all(reader.poll() is not None for reader in readers))
    assert [reader.communicate()[0] for reader in readers] == [b"x"] * 40


def test_many_write_at_once(host, mount):
    def work(number):
        for round_ in range(20):
            path = mount / f"{number}-{round_ % 4}"
            path.write_bytes(bytes([number]) * (round_ * 1000 + 1))
            assert path.read_bytes() == bytes([number]) * (round_ * 1000 + 1)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    host.wait()
    assert host.tree() == {f"/{number}-{rest}": bytes([number]) * ((16 + rest) * 1000 + 1)
                           for number in range(8) for rest in range(4)}


@pytest.mark.parametrize("request_number", [0x5401, 0x80086601])
def test_devices_questions_are_refused(host, mount, request_number):
    (mount / "file").write_text("x")
    with open(mount / "file", "rb") as file:
        LIBC.ioctl(file.fileno(), ctypes.c_ulong(request_number), ctypes.create_string_buffer(256))
        assert ctypes.get_errno() == 25


def test_locks_work_within_the_mount(host, mount):
    (mount / "file").write_text("x")
    held = "import fcntl,sys; f=open(sys.argv[1],'r+b'); fcntl.{}; print('locked')"
    for call in ("flock(f, fcntl.LOCK_EX | fcntl.LOCK_NB)", "lockf(f, fcntl.LOCK_EX | fcntl.LOCK_NB)"):
        script = held.format(call)
        first = subprocess.Popen([sys.executable, "-c", script + "; sys.stdout.flush(); sys.stdin.read()",
                                  str(mount / "file")], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert first.stdout.readline() == b"locked\n"
        second = subprocess.run([sys.executable, "-c", script, str(mount / "file")], check=False,
                                capture_output=True, timeout=60)
        assert b"BlockingIOError" in second.stderr
        first.communicate()
        third = subprocess.run([sys.executable, "-c", script, str(mount / "file")], check=True,
                               capture_output=True, timeout=60)
        assert third.stdout == b"locked\n"
