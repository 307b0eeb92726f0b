"""The power fails. Nothing that an fsync had acknowledged is missing afterwards, and what was never
synced is not taken for what it should be."""

import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

import disk
from acknowledged import Expected
from hosted import wait_for
from trees import differences, read_tree, wait_until_same

WORKER = Path(__file__).with_name("worker.py")
ROUNDS = int(os.environ.get("KFP_CRASH_ROUNDS") or 8)


class Machine:
    """A host on a disk of its own, in front of a server that goes on when the power fails."""

    def __init__(self, place, directory):
        self.place = place
        self.directory = directory
        self.disks = [disk.Disk(directory / "disk0")]
        self.home = place.point / "Home" / "Documents"

    @property
    def state(self):
        return self.disks[-1].path / "state"

    def start(self):
        self.place.mount("--state", self.state).ready()
        return self

    def fail_power(self):
        """Everything ends as it stands, and begins anew with what was on the disk."""
        self.disks.append(self.disks[-1].fail_power(self.directory / f"disk{len(self.disks)}"))
        self.place.mounts[-1].kill()
        self.disks[-2].remove()
        # The machine that starts is another one for the host, as far as it can tell.
        mark = self.state / "in-use"
        assert mark.read_text(encoding="ascii"), "a host that runs leaves a mark"
        mark.write_text("0f5c0c0e-0000-0000-0000-000000000000\n", encoding="ascii")
        return self

    def end(self):
        for mounted in self.place.mounts:
            mounted.clean_up()
        for one in self.disks:
            one.remove()


@pytest.fixture
def machine(apache_place, tmp_path):
    if reason := disk.obstacle():
        pytest.skip(reason)
    made = Machine(apache_place, tmp_path)
    yield made
    made.end()


def write(path, contents, synced=True):
    file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    os.write(file, contents)
    if synced:
        os.fsync(file)
    os.close(file)


def sync_folder(path):
    folder = os.open(path, os.O_RDONLY)
    os.fsync(folder)
    os.close(folder)


def on_server(apache):
    return read_tree(apache.root / "Home" / "Documents")


def test_synced_files_are_there(machine, apache):
    home = machine.start().home
    (home / "folder").mkdir()
    write(home / "folder" / "synced", b"synced")
    write(home / "folder" / "empty", b"")
    write(home / "large", bytes(range(256)) * 16384)
    machine.fail_power().start()
    assert read_tree(home) == {"/folder": None, "/folder/synced": b"synced", "/folder/empty": b"",
                               "/large": bytes(range(256)) * 16384}
    machine.place.wait_synced()
    assert differences(read_tree(home), on_server(apache)) == []
    assert machine.place.status()["conflicts"] == []


def test_files_synced_while_the_server_is_away_are_there(machine, apache):
    home = machine.start().home
    os.listdir(home)
    apache._control("stop")
    write(home / "a", b"first")
    write(home / "a.new", b"second")
    os.rename(home / "a.new", home / "a")
    sync_folder(home)
    write(home / "b", b"b")
    os.rename(home / "b", home / "c")
    sync_folder(home)
    machine.fail_power()
    apache._control("start", "--parent", str(os.getpid()))
    machine.start()
    expected = {"/a": b"second", "/c": b"b"}
    assert read_tree(home) == expected
    machine.place.wait_synced()
    assert on_server(apache) == expected


@pytest.mark.parametrize("through", ["the mount", "the disk"])
def test_a_save_that_was_not_synced_leaves_the_old_file_or_the_new_one(machine, apache, through):
    home = machine.start().home
    os.listdir(home)
    apache._control("stop")
    write(home / "a", b"first")
    sync_folder(home)
    write(home / "a.new", b"second", synced=False)
    os.rename(home / "a.new", home / "a")
    # Somebody else's fsync makes durable which files there are, and through the mount all names
    # in it; what is in files it leaves as it is.
    write((home if through == "the mount" else machine.disks[-1].path) / "beside", b"x")
    machine.fail_power()
    apache._control("start", "--parent", str(os.getpid()))
    machine.start()
    assert (home / "a").read_bytes() in (b"first", b"second")


def test_contents_that_were_replaced_stay_when_the_power_fails(machine, apache):
    home = machine.start().home
    os.listdir(home)
    apache._control("stop")
    contents = machine.state / "contents"
    before = set(os.listdir(contents))
    write(home / "a", b"first")
    sync_folder(home)
    replaced, = set(os.listdir(contents)) - before
    write(home / "a.new", b"second", synced=False)
    os.rename(home / "a.new", home / "a")
    assert replaced in os.listdir(contents), "the history keeps them"
    # The file system remembers what was done until now.
    write(machine.disks[-1].path / "beside", b"x")
    machine.fail_power()
    apache._control("start", "--parent", str(os.getpid()))
    machine.start()
    assert (home / "a").read_bytes() in (b"first", b"second")
    assert replaced in os.listdir(machine.state / "contents")


def test_what_was_fetched_is_not_trusted(machine, apache):
    contents = bytes(range(256)) * 4096
    (apache.root / "Home" / "Documents" / "fetched").write_bytes(contents)
    home = machine.start().home
    assert (home / "fetched").read_bytes() == contents
    write(home / "other", b"its fsync makes every row durable")
    machine.fail_power()
    stored = [path.read_bytes() for path in (machine.state / "contents").iterdir()]
    assert contents not in stored, "this disk loses nothing, so the test would show nothing"
    machine.start()
    assert (home / "fetched").read_bytes() == contents
    assert (home / "other").read_bytes() == b"its fsync makes every row durable"


def test_what_was_sent_is_not_trusted(machine, apache):
    contents = bytes(range(256)) * 4096
    home = machine.start().home
    write(home / "sent", contents, synced=False)
    machine.place.wait_synced()
    write(home / "other", b"its fsync makes every row durable")
    machine.fail_power().start()
    assert (home / "sent").read_bytes() == contents
    machine.place.wait_synced()
    assert on_server(apache)["/sent"] == contents
    assert machine.place.status()["conflicts"] == []


def test_an_upload_that_the_disk_forgot_is_no_conflict(machine, apache):
    (apache.root / "Home" / "Documents" / "a").write_bytes(b"from the server")
    home = machine.start().home
    write(home / "a", b"written here")
    machine.place.wait_synced()
    machine.fail_power().start()
    machine.place.wait_synced()
    assert on_server(apache) == {"/a": b"written here"} == read_tree(home)
    assert machine.place.status()["conflicts"] == []


def test_an_orderly_end_leaves_what_can_be_trusted(machine, apache):
    (apache.root / "Home" / "Documents" / "a").write_bytes(b"from the server")
    home = machine.start().home
    (home / "a").read_bytes()
    assert machine.place.mounts[-1].end() == 0
    assert (machine.state / "in-use").read_bytes().isspace()
    machine.disks.append(machine.disks[-1].fail_power(machine.directory / "disk1"))
    machine.start()
    assert machine.place.status()["cache"]["files"] == 1
    assert (home / "a").read_bytes() == b"from the server"


def test_nothing_synced_is_lost_whenever_the_power_fails(machine, apache, rng):
    folder = machine.start().home / "w"
    folder.mkdir()
    sync_folder(folder.parent)
    expected = Expected()
    for number in range(ROUNDS):
        log = machine.directory / f"log{number}"
        worker = subprocess.Popen([sys.executable, "-B", WORKER, folder, log,
                                   str(rng.randrange(1000)), "fsync"])
        steps = rng.randrange(1, 60)
        wait_for(lambda log=log, steps=steps: log.exists()
                 and log.read_bytes().count(b'"end"') >= steps, "work")
        # What it is told from now on, it is told after the failure.
        worker.send_signal(signal.SIGSTOP)
        copy = machine.disks[-1].fail_power(machine.directory / f"disk{len(machine.disks)}")
        acknowledged = log.read_bytes()
        machine.disks.append(copy)
        worker.kill()
        worker.wait()
        machine.place.mounts[-1].kill()
        machine.disks[-2].remove()
        (machine.state / "in-use").write_text("another\n", encoding="ascii")
        machine.start()
        log.write_bytes(acknowledged)
        expected.read(log)
        found = read_tree(folder)
        assert expected.problems(found) == [], (number, acknowledged[-2000:])
        expected.adopt(found)
        print(f"round {number}: the power failed after {steps} steps")
    machine.place.wait_synced()
    # A move that was acknowledged to nobody may have come about at the server alone.
    wait_until_same(machine.home, apache.root / "Home" / "Documents")
