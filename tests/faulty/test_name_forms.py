"""A server that changes the Unicode form of the names that it is given, as some file systems do."""

import os
import unicodedata

import pytest

from hosted import wait_for
from trees import read_tree

COMPOSED = "caf\u00e9"
DECOMPOSED = "cafe\u0301"
CHANGES = ("PUT", "MKCOL", "MOVE", "DELETE")


@pytest.fixture
def home(dav, dav_place):
    dav.formed = lambda path: unicodedata.normalize("NFD", path)
    dav.makeFolder("/Home/d")
    dav_place.mount("--drain", "0").ready()
    home = dav_place.point / "Home" / "d"
    assert os.listdir(home) == []
    return home


def test_the_name_that_a_program_gave_stays(home, dav, dav_place):
    (home / COMPOSED).write_bytes(b"one")
    dav_place.wait_synced()
    asked = len(dav.asked(*CHANGES))
    dav.put("/Home/d/other", b"other")
    wait_for(lambda: "other" in os.listdir(home), "listing")
    assert sorted(os.listdir(home)) == [COMPOSED, "other"]
    (home / DECOMPOSED).write_bytes(b"two")
    dav_place.wait_synced()
    assert read_tree(home) == {f"/{COMPOSED}": b"two", "/other": b"other"}
    assert dav.tree("/Home/d") == {f"/{DECOMPOSED}": b"two", "/other": b"other"}
    assert len(dav.asked(*CHANGES)) == asked + 1


def test_a_folder_of_such_a_name_works_in_later_mounts(home, dav, dav_place):
    (home / COMPOSED).mkdir()
    (home / COMPOSED / COMPOSED).write_bytes(b"one")
    dav_place.wait_synced()
    # A listing shows what became of the name.
    dav.put("/Home/d/other", b"other")
    wait_for(lambda: "other" in os.listdir(home), "listing")
    dav_place.mounts[-1].kill()
    dav_place.mount("--drain", "0").ready()
    dav.put(f"/Home/d/{DECOMPOSED}/theirs", b"theirs")
    wait_for(lambda: "theirs" in os.listdir(home / COMPOSED), "listing")
    assert read_tree(home) == {f"/{COMPOSED}": None, f"/{COMPOSED}/{COMPOSED}": b"one",
                               f"/{COMPOSED}/theirs": b"theirs", "/other": b"other"}
    os.rename(home / COMPOSED, home / "plain")
    (home / "plain" / DECOMPOSED).unlink()
    dav_place.wait_synced()
    assert dav.tree("/Home/d") == {"/plain": None, "/plain/theirs": b"theirs",
                                    "/other": b"other"}
