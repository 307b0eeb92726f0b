"""Large files that are read while they arrive, from a server that is slow, cut, or changed."""

import concurrent.futures
import contextlib
import hashlib
import os
import shutil
import signal
import subprocess
import sys
import time

import pytest

import hosted
from hosting import outcome

MIB = 1 << 20
PIECE = 64 * 1024
FILM = bytes(range(256)) * (8 * MIB // 256)
OTHER = FILM[::-1]
# A body goes out in pieces of that many bytes.
HEAD = 400


def slow(mib_per_second=4):
    return {"pace": [PIECE, PIECE / MIB / mib_per_second]}


def stalled(name, at=2 * MIB):
    return {"pauseAt": at, "pauseFor": name}


@pytest.fixture
def film(scene):
    scene.put("film", FILM)
    os.listdir(scene.home)
    return scene.home / "film"


@contextlib.contextmanager
def reading(path, flags=0):
    file = os.open(path, os.O_RDONLY | flags)
    try:
        yield file
    finally:
        os.close(file)


def exit_code(*arguments):
    done = subprocess.run(arguments, capture_output=True, timeout=50)
    print(done.stderr.decode())
    return done.returncode


def read_all(file):
    """What can be read, and the error's name at the end, or none."""
    pieces = []
    try:
        while piece := os.read(file, 3 * PIECE):
            pieces.append(piece)
    except OSError as error:
        return b"".join(pieces), error.errno
    return b"".join(pieces), None


def is_here(path):
    return os.getxattr(path, "user.kestrowan.downloaded") == b"yes"


def wait_until_here(path):
    hosted.wait_for(lambda: is_here(path) or None, "contents")


def gets(scene, name="film"):
    return scene.asked("GET").count(("GET", f"/{name}"))


def test_the_beginning_is_read_before_the_end_has_come(scene, film):
    scene.fault("GET", "film", answer=stalled("end", at=4 * MIB))
    with reading(film) as file:
        assert os.fstat(file).st_size == len(FILM)
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
        assert not is_here(film)
        scene.dav.release("end")
        assert read_all(file) == (FILM, None)
    wait_until_here(film)
    assert gets(scene) == 1


def test_fifty_cuts_give_a_prefix_and_an_error(scene):
    offsets = [len(FILM) * at // 50 + 137 * at % 4099 for at in range(50)]
    for at, offset in enumerate(offsets):
        scene.put(f"film{at}", FILM)
        scene.fault("GET", f"film{at}", answer={"cut": HEAD + offset})
    os.listdir(scene.home)
    target = scene.place.directory / "copy"

    for at, offset in enumerate(offsets):
        path = scene.home / f"film{at}"
        with contextlib.ExitStack() as stack:
            try:
                file = stack.enter_context(reading(path))
            except OSError as error:
                assert error.errno == 5
                continue
            contents, error = read_all(file)
            assert error == 5
            assert FILM.startswith(contents)
            assert len(contents) < len(FILM)
        if at % 5 == 0:
            assert exit_code("cp", path, target) != 0
            assert target.stat().st_size < len(FILM) if target.exists() else True
            target.unlink(missing_ok=True)
    scene.dav.heal()
    assert (scene.home / "film7").read_bytes() == FILM


def test_a_cut_is_continued(scene, film):
    for cut in (3 * MIB, 5 * MIB):
        scene.fault("GET", "film", times=1, answer={"cut": cut})
    with reading(film) as file:
        assert read_all(file) == (FILM, None)
    assert gets(scene) == 3


def test_a_change_in_mid_stream_is_all_old_or_an_error(scene, film):
    scene.fault("GET", "film", times=1, answer=stalled("whole"))
    with reading(film) as file:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
        scene.put("film", OTHER)
        scene.dav.release("whole")
        assert read_all(file) == (FILM, None)
        hosted.wait_for(lambda: film.read_bytes() == OTHER or None, "the new contents")
        os.lseek(file, 0, os.SEEK_SET)
        assert read_all(file) == (FILM, None)


def test_a_change_after_a_cut_is_an_error_for_good(scene, film):
    scene.fault("GET", "film", times=1, answer={**stalled("cut", at=MIB), "cut": 2 * MIB})
    with reading(film) as file:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
        scene.put("film", OTHER)
        scene.dav.release("cut")
        contents, error = read_all(file)
        assert error == 5
        assert FILM.startswith(contents)
        hosted.wait_for(lambda: film.read_bytes() == OTHER or None, "the new contents")
        assert outcome(os.pread, file, PIECE, 6 * MIB) == "EIO"


PROGRAMS = {
    "cat": ["sh", "-c", 'cat "$1" >"$2"', "sh"],
    "cp": ["cp"],
    "rsync": ["rsync", "-a"],
    "tar": ["sh", "-c", 'tar -C "$(dirname "$1")" -cf - "$(basename "$1")" | tar -xOf - >"$2"',
            "sh"],
    "dd": ["sh", "-c", 'dd if="$1" of="$2" bs=1M iflag=direct status=none', "sh"],
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_programs_copy_a_file_that_arrives(scene, film, name):
    if not shutil.which(name):
        pytest.skip(f"not installed: {name}")
    scene.fault("GET", "film", times=1, answer=slow())
    target = scene.place.directory / f"copied-{name}"
    assert exit_code(*PROGRAMS[name], film, target) == 0
    assert target.read_bytes() == FILM
    target.unlink()
    assert gets(scene) == 1


@pytest.mark.parametrize("name", PROGRAMS)
def test_programs_fail_on_a_file_that_is_cut(scene, film, name):
    if not shutil.which(name):
        pytest.skip(f"not installed: {name}")
    scene.fault("GET", "film", answer={"cut": 5 * MIB})
    target = scene.place.directory / f"cut-{name}"
    assert exit_code(*PROGRAMS[name], film, target) != 0 or name == "tar"
    assert not target.exists() or target.read_bytes() != FILM
    target.unlink(missing_ok=True)


def test_system_calls_that_copy(scene):
    film = scene.home / "film"
    for name in ("film", "second"):
        scene.put(name, FILM)
    os.listdir(scene.home)
    scene.fault("GET", "film", times=1, answer=slow(8))
    sent = scene.place.directory / "sent"
    with reading(film) as file, open(sent, "wb") as target:
        at = 0
        while count := os.sendfile(target.fileno(), file, at, MIB):
            at += count
    assert sent.read_bytes() == FILM
    sent.unlink()

    scene.fault("GET", "second", times=1, answer=slow(8))
    with reading(scene.home / "second") as file, open(scene.home / "copied", "wb") as target:
        at = 0
        while count := os.copy_file_range(file, target.fileno(), 16 * MIB, at, at):
            at += count
    assert (scene.home / "copied").read_bytes() == FILM


MAP = """import hashlib, mmap, os, sys
file = os.open(sys.argv[1], os.O_RDONLY)
mapped = mmap.mmap(file, 0, prot=mmap.PROT_READ)
print(mapped[:4].hex(), mapped[7 << 20:(7 << 20) + 4].hex(), hashlib.sha256(mapped).hexdigest())
"""


def test_a_mapping_waits_for_its_pages(scene, film):
    # Not in this process: a page that is waited for would keep the server from sending it.
    scene.fault("GET", "film", times=1, answer=slow(8))
    result = subprocess.run([sys.executable, "-c", MAP, film], capture_output=True, text=True,
                            timeout=50)
    assert result.stdout.split() == ["00010203", "00010203", hashlib.sha256(FILM).hexdigest()]


def test_a_mapping_of_what_will_not_come_is_a_bus_error(scene, film):
    scene.fault("GET", "film", answer={"cut": 5 * MIB})
    result = subprocess.run([sys.executable, "-c", MAP, film], capture_output=True, timeout=50)
    assert result.returncode in (-signal.SIGBUS, 1)


def test_data_is_sought_and_found(scene, film):
    scene.fault("GET", "film", times=1, answer=stalled("sought"))
    with reading(film) as file:
        assert os.lseek(file, 5 * MIB, os.SEEK_DATA) == 5 * MIB
        assert os.lseek(file, 5 * MIB, os.SEEK_HOLE) == len(FILM)
        assert outcome(os.lseek, file, len(FILM), os.SEEK_DATA) == "ENXIO"
        assert os.lseek(file, -1, os.SEEK_END) == len(FILM) - 1
        os.fsync(file)
        scene.dav.release("sought")


def test_twenty_four_stalled_readers_delay_nobody(scene):
    names = [f"stalled{number}" for number in range(24)]
    for name in names:
        scene.put(name, FILM)
        scene.fault("GET", name, answer=stalled("never"))
    scene.put("local", OTHER)
    scene.put("small", b"small")
    os.listdir(scene.home)
    assert (scene.home / "local").read_bytes() == OTHER
    readers = [subprocess.Popen(["cat", scene.home / name], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL) for name in names]
    try:
        scene.dav.waitFor(lambda: sum(gets(scene, name) for name in names) >= 8)
        subprocess.run(["sh", "-c", "echo 1 >/proc/sys/vm/drop_caches"], check=False)
        begin = time.monotonic()
        assert (scene.home / "local").read_bytes() == OTHER
        assert (scene.home / "small").read_bytes() == b"small"
        print(f"a local and a small file beside 24 stalled readers: "
              f"{time.monotonic() - begin:.3f} s")
        for reader in readers:
            assert reader.poll() is None
        readers[0].send_signal(signal.SIGINT)
        assert readers[0].wait(timeout=20) != 0
    finally:
        for reader in readers:
            reader.kill()
        for reader in readers:
            assert reader.wait(timeout=20) is not None
        scene.dav.release("never")


def test_a_read_that_waits_is_interrupted(scene, film):
    scene.fault("GET", "film", times=1, answer=stalled("interrupted"))
    code = ("import os, signal, sys\n"
            "class Woken(Exception): pass\n"
            "def wake(*_): raise Woken\n"
            "signal.signal(signal.SIGALRM, wake)\n"
            "file = os.open(sys.argv[1], os.O_RDONLY | os.O_DIRECT)\n"
            "signal.alarm(1)\n"
            "try:\n"
            "    os.preadv(file, [__import__('mmap').mmap(-1, 4096)], 7 << 20)\n"
            "except Woken:\n"
            "    print('woken')\n")
    result = subprocess.run([sys.executable, "-c", code, film], capture_output=True, text=True,
                            timeout=50)
    assert result.stdout == "woken\n", result.stderr
    scene.dav.release("interrupted")


def test_nothing_is_fetched_for_no_reader(scene, film):
    scene.fault("GET", "film", times=1, answer=slow(2))
    with reading(film) as file:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
    hosted.wait_for(lambda: scene.place.status()["fetching"] == 0 or None, "the end of the fetch")
    assert not is_here(film)
    assert scene.place.status()["held"] is None
    assert film.read_bytes() == FILM
    assert gets(scene) == 2


def test_a_second_reader_goes_on_with_the_stream(scene, film):
    scene.fault("GET", "film", times=1, answer=stalled("second", at=MIB))
    with reading(film) as file:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
    with reading(film) as file:
        scene.dav.release("second")
        assert read_all(file) == (FILM, None)
    assert gets(scene) == 1


def change_while_streaming(scene, film, change):
    """What a reader gets while something else happens to the file."""
    scene.fault("GET", "film", times=1, answer=stalled("changed"))
    with reading(film) as file:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            changed = pool.submit(change)
            with contextlib.suppress(concurrent.futures.TimeoutError):
                changed.result(timeout=0.5)
            scene.dav.release("changed")
            changed.result()
        os.lseek(file, 0, os.SEEK_SET)
        return read_all(file)


def test_a_file_that_is_removed_is_read_to_its_end(scene, film):
    assert change_while_streaming(scene, film, film.unlink) == (FILM, None)
    scene.settle(scene.tree())
    assert scene.read("film") is None


def test_a_file_that_is_renamed_is_read_to_its_end(scene, film):
    moved = scene.home / "moved"
    assert change_while_streaming(scene, film, lambda: film.rename(moved)) == (FILM, None)
    assert moved.read_bytes() == FILM
    scene.settle({"/moved": FILM})


def test_a_file_that_is_replaced_is_read_to_its_end(scene, film):
    new = scene.home / "new"
    new.write_bytes(b"new")
    assert change_while_streaming(scene, film, lambda: new.replace(film)) == (FILM, None)
    assert film.read_bytes() == b"new"
    scene.settle({"/film": b"new"})


def test_a_file_that_is_written_waits_for_the_whole(scene, film):
    def write():
        with open(film, "r+b") as file:
            file.write(b"changed")

    changed = b"changed" + FILM[7:]
    assert change_while_streaming(scene, film, write) == (changed, None)
    scene.settle({"/film": changed})


def test_a_file_that_is_emptied_is_empty(scene, film):
    assert change_while_streaming(scene, film, lambda: film.write_bytes(b"")) == (b"", None)
    scene.settle({"/film": b""})


def test_eviction_leaves_a_stream(scene, film):
    def evict():
        scene.place.run("evict", film)

    assert change_while_streaming(scene, film, evict) == (FILM, None)


def test_programs_are_fetched_whole(scene, film):
    os.chmod(film, 0o755)
    scene.fault("GET", "film", answer={"cut": 5 * MIB})
    assert outcome(os.open, film, os.O_RDONLY) == "EIO"


WRONG = {
    "longer": {"length": len(FILM) + 5, "then": "close"},
    "shorter": {"length": len(FILM) - 5},
    "no-length": {"length": None, "then": "close"},
    "no-tag": {"headers": []},
    "other-tag": {"headers": [["ETag", '"other"']]},
}


@pytest.mark.parametrize("case", WRONG)
def test_what_a_head_says_is_heeded(scene, film, case):
    scene.fault("GET", "film", times=1, answer=WRONG[case])
    assert film.read_bytes() == FILM


def test_the_end_of_a_mount_ends_reads(scene, film):
    scene.fault("GET", "film", answer=stalled("ending"))
    reader = subprocess.Popen(["cat", film], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    hosted.wait_for(lambda: gets(scene) or None, "the fetch")
    assert scene.place.run("unmount", "--force", scene.place.point).returncode in (0, 4)
    assert reader.wait(timeout=60) != 0
    scene.dav.release("ending")
    scene.place.mount().ready()
    scene.dav.heal()
    assert film.read_bytes() == FILM


def test_a_host_that_is_killed_leaves_nothing(scene, film):
    scene.fault("GET", "film", times=1, answer=stalled("killed"))
    reader = subprocess.Popen(["cat", film], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    hosted.wait_for(lambda: gets(scene) or None, "the fetch")
    scene.place.mounts[-1].kill()
    assert reader.wait(timeout=60) != 0
    scene.dav.release("killed")
    scene.place.mount().ready()
    assert film.read_bytes() == FILM
    hosted.wait_for(lambda: os.listdir(scene.place.state / "temporary") == [] or None, "its end")
