"""The disk fills while a file arrives that is read already."""

import os
import subprocess

import pytest

from hosted import wait_for
from hosting import outcome
from own_disk import state_on_a_disk
from trees import read_tree

MIB = 1 << 20
PIECE = 64 * 1024
FILM = bytes(range(256)) * (8 * MIB // 256)


def resize(place, size):
    subprocess.run(["mount", "-o", f"remount,size={size}", place.state_home], check=True)


@pytest.fixture
def shrinking_disk(dav_place):
    """The state lies on a disk of its own, which is large at first."""
    with state_on_a_disk(dav_place, "4g") as place:
        yield place


def leave_room(place, room):
    """Nothing more than so many bytes fits on the disk."""
    disk = os.statvfs(place.state_home)
    resize(place, (disk.f_blocks - disk.f_bfree) * disk.f_frsize + room)


def read_all(file):
    contents = b""
    while (piece := outcome(os.read, file, 3 * PIECE)) and isinstance(piece, bytes):
        contents += piece
    return contents, piece


# The first is met by the writing, the second by a look at the disk beforehand.
@pytest.mark.parametrize("arrived", [MIB, 6 * MIB])
def test_what_does_not_fit_is_an_error_and_takes_no_room(dav, shrinking_disk, arrived):
    place = shrinking_disk
    dav.put("/Home/d/film", FILM)
    place.mount().ready()
    film = place.point / "Home" / "d" / "film"
    os.listdir(film.parent)
    dav.fault("GET", "/Home/d/film", times=1, answer={"pauseAt": arrived, "pauseFor": "full"})
    file = os.open(film, os.O_RDONLY)
    try:
        assert os.pread(file, PIECE, 0) == FILM[:PIECE]
        leave_room(place, MIB // 2)
        dav.release("full")
        contents, error = read_all(file)
        assert error in ("EIO", "ENOSPC")
        assert FILM.startswith(contents) and len(contents) < len(FILM)
        assert outcome(os.pread, file, PIECE, len(FILM) - PIECE) == error
        # What had arrived is given up though the file is still open.
        wait_for(lambda: read_tree(place.state / "temporary") == {} or None, "room")
        assert outcome(open, film, "rb") == "ENOSPC"
    finally:
        os.close(file)
    target = place.directory / "copy"
    assert subprocess.run(["cp", film, target], capture_output=True).returncode != 0
    assert not target.exists() or target.stat().st_size < len(FILM)
    target.unlink(missing_ok=True)
    resize(place, "4g")
    assert film.read_bytes() == FILM
    assert dav.asked("GET") == [("GET", "/Home/d/film")] * 2
    said = [line for line in place.mounts[-1].lines if "broke off" in line]
    assert len(said) == 1 and "film" in said[0] and "cannot write file" in said[0]
