"""Changes on a disk that is full: a call that fails has changed nothing, and one that succeeded
holds.

A test that is expected to fail says what goes wrong; it fails the run as soon as it passes.
"""

import contextlib
import os
import resource

import pytest

from hosted import wait_for
from hosting import outcome
from own_disk import state_on_a_disk
from trees import read_tree

DISK = 24 << 20
CONTENTS = bytes(range(256)) * 512


@pytest.fixture
def small_disk(dav_place):
    """The state lies on a disk of its own, of 24 MiB."""
    with state_on_a_disk(dav_place, DISK) as place:
        yield place


def fill(place):
    """Takes all that is left of the disk."""
    with open(place.state_home / "filler", "ab", buffering=0) as file:
        for size in (1 << 20, 1 << 12):
            while isinstance(outcome(file.write, b"x" * size), int):
                pass


@contextlib.contextmanager
def nothing_can_be_written(place):
    """No file of the host's can grow meanwhile, not even by a byte within a block."""
    pid = place.mounts[-1].process.pid
    before = resource.prlimit(pid, resource.RLIMIT_FSIZE)
    resource.prlimit(pid, resource.RLIMIT_FSIZE, (0, before[1]))
    try:
        yield
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_FSIZE, before)


def make_room(place):
    (place.state_home / "filler").unlink()


@pytest.fixture
def home(dav, small_disk):
    dav.makeFolder("/Home/d")
    small_disk.mount("--drain", "0").ready()
    home = small_disk.point / "Home" / "d"
    assert os.listdir(home) == []
    return home


@pytest.mark.parametrize("size", [10, 0])
def test_a_file_that_cannot_be_cut_stays_whole(home, dav, small_disk, size):
    # While it is on its way a change works on a copy, for which there is no room.
    held = dav.fault("PUT", None, answer={"holdFor": "the end"}, times=1)
    (home / "file").write_bytes(CONTENTS)
    dav.waitFor(lambda: held.met)
    fill(small_disk)
    found = outcome(os.truncate, home / "file", size)
    expected = CONTENTS if found == "ENOSPC" else CONTENTS[:size]
    assert found in (None, "ENOSPC")
    assert (home / "file").read_bytes() == expected
    make_room(small_disk)
    dav.release("the end")
    small_disk.wait_synced()
    assert dav.tree("/Home/d") == read_tree(home) == {"/file": expected}


@pytest.mark.parametrize("end", ["kill", "go on"])
@pytest.mark.parametrize("is_sent, size", [(True, 10), (True, 0), (False, 10), (False, 0)])
def test_a_file_that_cannot_be_cut_for_lack_of_a_note_stays_whole(home, dav, small_disk, is_sent,
                                                                 size, end):
    if not is_sent:
        dav.fault("PUT", None, answer={"status": 503}, effect=False)
    (home / "file").write_bytes(CONTENTS)
    if is_sent:
        small_disk.wait_synced()
    with nothing_can_be_written(small_disk):
        found = outcome(os.truncate, home / "file", size)
        assert found is not None
        if end == "kill":
            small_disk.mounts[-1].kill()
    if end == "kill":
        small_disk.mount("--drain", "0").ready()
    dav.heal()
    assert (home / "file").read_bytes() == CONTENTS
    with open(home / "file", "ab") as file:
        file.write(b"and more")
    small_disk.wait_synced()
    assert dav.tree("/Home/d") == {"/file": CONTENTS + b"and more"}


def test_a_file_that_was_never_sent_stays_removed(home, dav, small_disk):
    dav.fault("PUT", None, answer={"status": 503}, effect=False)
    (home / "file").write_bytes(CONTENTS)
    (home / "other").write_bytes(CONTENTS)
    with nothing_can_be_written(small_disk):
        found = outcome(os.unlink, home / "file")
        expected = {"/other": CONTENTS, **({} if found is None else {"/file": CONTENTS})}
        assert read_tree(home) == expected
        small_disk.mounts[-1].kill()
    dav.heal()
    small_disk.mount("--drain", "0").ready()
    wait_for(lambda: os.path.isdir(home), "folder")
    assert read_tree(home) == expected
    small_disk.wait_synced()
    assert dav.tree("/Home/d") == expected


@pytest.mark.parametrize("end", ["kill", "end"])
def test_a_mount_begins_on_a_full_disk(home, dav, small_disk, end):
    dav.fault("PUT", None, answer={"status": 503}, effect=False)
    (home / "file").write_bytes(CONTENTS)
    getattr(small_disk.mounts[-1], end)()
    fill(small_disk)
    small_disk.mount("--drain", "0").ready()
    assert (home / "file").read_bytes() == CONTENTS
    dav.heal()
    make_room(small_disk)
    small_disk.wait_synced()
    assert dav.tree("/Home/d") == {"/file": CONTENTS}
