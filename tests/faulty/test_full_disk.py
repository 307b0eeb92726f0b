"""The disk under the replica is full."""

import os

import pytest

from hosted import wait_for
from hosting import outcome
from own_disk import state_on_a_disk
from trees import read_tree

OLD = b"old contents"
DISK = 24 << 20


@pytest.fixture
def small_disk(dav_place):
    """The state lies on a disk of its own, on which nothing fits beside what must stay free."""
    with state_on_a_disk(dav_place, DISK) as place:
        yield place


def test_what_does_not_fit_is_refused_and_what_was_acknowledged_arrives(dav, small_disk):
    dav.put("/Home/d/there.txt", OLD)
    small_disk.mount().ready()
    home = small_disk.point / "Home" / "d"
    assert os.listdir(home) == ["there.txt"]
    assert outcome(open, home / "there.txt", "rb") == "ENOSPC"
    assert dav.asked("GET") == []
    dav.fault("PUT", None, answer={"status": 503}, effect=False)
    (home / "small.txt").write_bytes(b"small")
    file = os.open(home / "large.bin", os.O_WRONLY | os.O_CREAT)
    written = 0
    while isinstance(count := outcome(os.write, file, b"x" * (1 << 20)), int):
        written += count
        assert written <= DISK
    assert count == "ENOSPC"
    outcome(os.close, file)
    # Names still change, so that room can be made.
    os.mkdir(home / "made")
    os.unlink(home / "large.bin")
    dav.heal()
    small_disk.wait_synced()
    expected = {"/there.txt": OLD, "/small.txt": b"small", "/made": None}
    assert dav.tree("/Home/d") == expected
    wait_for(lambda: sorted(os.listdir(home)) == sorted(path[1:] for path in expected), "names")
    assert (home / "small.txt").read_bytes() == b"small"
    assert read_tree(small_disk.state / "temporary") == {}
