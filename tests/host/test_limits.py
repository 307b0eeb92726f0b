"""What the system limits, takes away or sends by accident ends no host, and stops no mount."""

import contextlib
import errno
import os
import resource
import shutil
import signal
import socket

import pytest

import hosted
from hosted import DONE, is_mounted, wait_for
from test_control import Client

# Enough for the host itself, and for some files of programs.
FEW = 200


def is_serving(place, mounted):
    """Asks everything that a host has to answer, and fails when it does not."""
    assert mounted.process.poll() is None, mounted.lines
    assert place.status()["state"] == "online"
    assert "Home" in os.listdir(place.point)


def files_of(folder, count):
    for number in range(count):
        (folder / f"{number}.txt").write_bytes(b"%d" % number)


class Open:
    """Files that a program keeps open, until it is refused one more."""

    def __init__(self):
        self.descriptors = []
        self.refusal = None

    def one(self, path, flags=os.O_RDONLY):
        try:
            self.descriptors.append(os.open(path, flags))
        except OSError as error:
            self.refusal = error.errno
        return self.refusal is None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for descriptor in self.descriptors:
            os.close(descriptor)
        self.descriptors = []


# ---- descriptors ---------------------------------------------------------------------------------


def test_a_program_that_opens_too_many_files_is_refused_and_everything_else_goes_on(place, folder):
    files_of(folder, FEW)
    mounted = place.mount(limits={resource.RLIMIT_NOFILE: (FEW, FEW)}).ready()
    here = place.point / "Home" / folder.name
    with Open() as opened:
        for number in range(FEW):
            if not opened.one(here / f"{number}.txt"):
                break
        assert opened.refusal in (errno.EMFILE, errno.ENFILE)
        assert opened.descriptors
        # A new file is refused as a whole.
        with pytest.raises(OSError) as refused:
            os.open(here / "new.txt", os.O_WRONLY | os.O_CREAT)
        assert refused.value.errno in (errno.EMFILE, errno.ENFILE)
        assert not (here / "new.txt").exists()
        # What is open already may be opened again.
        assert (here / "0.txt").read_bytes() == b"0"
        is_serving(place, mounted)
        assert len(os.listdir(here)) == FEW
        # Names are changed, and arrive.
        os.mkdir(here / "made")
        place.wait_synced()
        assert (folder / "made").is_dir()
    # The system tells the host of a close in its own time.
    wait_for(lambda: has_place_for((here / f"{FEW - 1}.txt").read_bytes), "place for another file")
    wait_for(lambda: has_place_for((here / "new.txt").write_bytes, b"new"), "place for a new file")
    place.wait_synced()
    assert (folder / "new.txt").read_bytes() == b"new"
    assert mounted.end() == DONE


def has_place_for(call, *arguments):
    try:
        call(*arguments)
        return True
    except OSError as error:
        assert error.errno in (errno.EMFILE, errno.ENFILE)
        return False


def test_files_that_are_kept_open_are_uploaded_while_no_more_can_be_opened(place, folder):
    mounted = place.mount(limits={resource.RLIMIT_NOFILE: (FEW, FEW)}).ready()
    here = place.point / "Home" / folder.name
    with Open() as opened:
        count = 0
        while opened.one(here / f"{count}.txt", os.O_RDWR | os.O_CREAT):
            os.write(opened.descriptors[-1], b"%d" % count)
            os.fsync(opened.descriptors[-1])
            count += 1
        assert opened.refusal in (errno.EMFILE, errno.ENFILE)
        place.wait_synced()
        assert len(list(folder.iterdir())) == count
        is_serving(place, mounted)
    assert mounted.end() == DONE


def test_the_limit_of_descriptors_is_raised_as_far_as_it_may_be(place, folder):
    files_of(folder, 400)
    mounted = place.mount(limits={resource.RLIMIT_NOFILE: (FEW, 4096)}).ready()
    with Open() as opened:
        for number in range(400):
            assert opened.one(place.point / "Home" / folder.name / f"{number}.txt"), opened.refusal
        is_serving(place, mounted)
    assert mounted.end() == DONE


# ---- clients of the control socket ---------------------------------------------------------------


def connected(path):
    """A connection, also when the host is slow to take it."""
    client = wait_for(lambda: try_to_connect(path), "connection")
    return client


def try_to_connect(path):
    client = Client.__new__(Client)
    client.socket = socket.socket(socket.AF_UNIX)
    client.socket.settimeout(hosted.SECONDS)
    folder = os.open(path.parent, os.O_PATH)
    try:
        client.socket.connect(f"/proc/self/fd/{folder}/{path.name}")
        return client
    except BlockingIOError:
        client.socket.close()
        return None
    finally:
        os.close(folder)


def test_two_hundred_clients_that_say_nothing_hold_up_no_command(place):
    mounted = place.mount().ready()
    [path] = place.sockets()
    silent = [connected(path) for _ in range(200)]
    is_serving(place, mounted)
    place.wait_synced()
    for client in silent:
        client.socket.close()
    assert place.run("unmount", place.point).returncode == DONE


def test_clients_that_say_half_of_something_hold_up_no_command(place):
    mounted = place.mount().ready()
    [path] = place.sockets()
    halting = [connected(path) for _ in range(100)]
    for client in halting:
        with contextlib.suppress(OSError):
            client.socket.sendall(b'{"request":"sta')
    is_serving(place, mounted)
    for client in halting:
        client.socket.close()
    assert mounted.end() == DONE


def test_commands_that_wait_leave_place_for_those_that_do_not(own_place, server):
    place = own_place
    mounted = place.mount().ready()
    assert os.listdir(place.point / "Home" / "Documents") == []
    server.stop()
    (place.point / "Home" / "Documents" / "new.txt").write_bytes(b"x")
    [path] = place.sockets()
    waiting = [connected(path) for _ in range(60)]
    for client in waiting:
        client.socket.sendall(b'{"request":"wait"}\n')
    assert place.status()["pending"]["count"] == 1
    assert place.run("unmount", "--force", place.point).returncode == DONE
    for client in waiting:
        client.socket.close()
    assert mounted.wait() == DONE


# ---- what is taken away beneath the host ---------------------------------------------------------


def replaced_by_a_link(path):
    path.rename(path.with_name("away"))
    path.symlink_to("/")


def replaced_by_a_file(path):
    shutil.rmtree(path)
    path.write_bytes(b"")


@pytest.mark.parametrize("take", [shutil.rmtree, replaced_by_a_link, replaced_by_a_file])
def test_contents_that_cannot_be_read_end_nothing(place, take):
    mounted = place.mount().ready()
    take(place.state / "contents")
    is_serving(place, mounted)
    assert place.run("unmount", "--force", place.point).returncode == DONE
    assert mounted.wait() == DONE
    assert not is_mounted(place.point)


def test_a_state_directory_that_is_removed_ends_nothing(place, folder):
    (folder / "a.txt").write_bytes(b"a")
    mounted = place.mount().ready()
    shutil.rmtree(place.state)
    assert mounted.process.poll() is None
    assert folder.name in os.listdir(place.point / "Home")
    with pytest.raises(OSError):
        (place.point / "Home" / folder.name / "new.txt").write_bytes(b"new")
    is_serving(place, mounted)
    mounted.end()
    assert not is_mounted(place.point)


def test_a_log_that_nobody_reads_stops_no_mount(place, folder):
    (folder / "a.txt").write_bytes(b"a")
    reading, writing = os.pipe()
    filled = os.dup(writing)
    os.set_blocking(filled, False)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(filled, b"x" * 4096)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(filled, b"x")
    os.set_blocking(filled, True)
    mounted = place.mount(stderr=writing).ready()
    os.close(writing)
    assert (place.point / "Home" / folder.name / "a.txt").read_bytes() == b"a"
    is_serving(place, mounted)
    assert mounted.end() == DONE
    os.close(filled)
    os.close(reading)


# ---- limits of files and signals -----------------------------------------------------------------


def test_a_limit_of_the_size_of_files_is_an_error_of_the_call(place, folder):
    limit = 1 << 20
    (folder / "large.bin").write_bytes(b"x" * (2 * limit))
    mounted = place.mount(limits={resource.RLIMIT_FSIZE: (limit, limit)}).ready()
    here = place.point / "Home" / folder.name
    with pytest.raises(OSError) as refused:
        with open(here / "new.bin", "wb", buffering=0) as file:
            for _ in range(3):
                file.write(b"x" * limit)
    assert refused.value.errno == errno.EFBIG
    with pytest.raises(OSError):
        (here / "large.bin").read_bytes()
    is_serving(place, mounted)
    assert (here / "new.bin").stat().st_size == limit
    place.wait_synced()
    assert (folder / "new.bin").stat().st_size == limit
    assert mounted.end() == DONE


HARMLESS = [signal.SIGPIPE, signal.SIGXFSZ, signal.SIGXCPU, signal.SIGUSR1, signal.SIGUSR2,
            signal.SIGALRM, signal.SIGVTALRM, signal.SIGPROF, signal.SIGIO, signal.SIGPWR,
            signal.SIGSTKFLT, signal.SIGTTIN, signal.SIGTTOU, signal.SIGRTMIN, signal.SIGRTMAX]


def test_signals_by_accident_end_nothing(place):
    mounted = place.mount().ready()
    for number in HARMLESS:
        mounted.send(number)
    is_serving(place, mounted)
    assert mounted.end() == DONE


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT])
def test_signals_that_are_to_end_a_host_end_it_in_order(place, number):
    mounted = place.mount().ready()
    assert mounted.end(number) == DONE
    assert not is_mounted(place.point)
    assert mounted.has_said("nothing is left to send")
