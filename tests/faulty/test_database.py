"""A database that somebody has written in is not believed where that could do harm."""

import contextlib
import os
import sqlite3

import pytest

from hosted import wait_for
from trees import read_tree

OLD = b"old contents"
WRITING = ("DELETE", "PUT", "MOVE", "MKCOL")
OTHER_PLACES = [b"Home", b"https://127.0.0.1/Home/d/a.txt", b"/", b"/Home", b"/Home/d",
                b"/Home/d/../..", b"/Home/d/..", b"/Home/d/.", b"//Home/x", b"/Home//d/a.txt",
                b"/Home/d/a.txt/", b"/Home/d/./a.txt", b"/home/d/a.txt", b"/Home/e/other.txt",
                b"/Home/d/nul\0", b"NSFileProviderRootContainerItemIdentifier"]


def forge(place, statement, *values):
    """Changes rows of the database of a host that has ended. Says how many."""
    with contextlib.closing(sqlite3.connect(place.state / "replica.db")) as database, database:
        return database.execute(statement, values).rowcount


def kept(place):
    """What is in the history."""
    return place.history()


@pytest.mark.parametrize("identifier", OTHER_PLACES)
def test_an_item_of_another_place_is_never_asked_for(dav, dav_place, identifier):
    dav.put("/Home/d/a.txt", OLD)
    dav.put("/Home/d/b.txt", OLD)
    dav.put("/Home/e/other.txt", b"not to be touched")
    host = dav_place.mount().ready()
    folder = dav_place.point / "Home" / "d"
    read_tree(dav_place.point / "Home")
    before = dav.tree()
    dav.fault(None, None, answer={"status": 503}, effect=False)
    os.unlink(folder / "a.txt")
    (folder / "b.txt").write_bytes(b"new")
    host.kill()
    assert forge(dav_place, "UPDATE tree SET there_identifier = ? WHERE coalesce(there_name, here_name)"
                            " IN (?, ?)", identifier, b"a.txt", b"b.txt") == 2
    dav.log.clear()
    dav.heal()
    host = dav_place.mount().ready()
    host.wait_said("left out")
    wait_for(lambda: sorted(os.listdir(folder)) == ["a.txt", "b.txt"], "files")
    assert (folder / "b.txt").read_bytes() == OLD
    dav_place.wait_synced()
    assert dav.tree() == before
    assert b"new" in kept(dav_place)
    assert dav.asked(*WRITING) == []


@pytest.mark.parametrize("identifier", [b"/", b"/Home", b"/Home/d/../..", b"//Home/d/sub",
                                        b"/Home/e"])
def test_what_is_in_a_folder_of_another_place_is_never_asked_for(dav, dav_place, identifier):
    dav.put("/Home/d/sub/in/a.txt", OLD)
    dav.put("/Home/d/sub/b.txt", OLD)
    dav.put("/Home/e/in/a.txt", b"not to be touched")
    dav.put("/Home/e/b.txt", b"not to be touched")
    host = dav_place.mount().ready()
    sub = dav_place.point / "Home" / "d" / "sub"
    read_tree(dav_place.point / "Home")
    before = dav.tree()
    dav.fault(None, None, answer={"status": 503}, effect=False)
    os.unlink(sub / "in" / "a.txt")
    (sub / "b.txt").write_bytes(b"changed")
    (sub / "new.txt").write_bytes(b"made")
    host.kill()
    assert forge(dav_place, "UPDATE tree SET there_identifier = ? WHERE here_name = ?", identifier,
                 b"sub") == 1
    dav.log.clear()
    dav.heal()
    host = dav_place.mount().ready()
    host.wait_said("left out")
    wait_for(lambda: (sub / "in").exists() and os.listdir(sub / "in") == ["a.txt"], "files")
    assert read_tree(sub) == {"/in": None, "/in/a.txt": OLD, "/b.txt": OLD}
    dav_place.wait_synced()
    assert dav.tree() == before
    assert sorted(one for one in kept(dav_place) if one != OLD) == [b"changed", b"made"]
    assert dav.asked(*WRITING) == []


@pytest.mark.parametrize("change", [
    "there_identifier = CAST('/Home/d' AS BLOB)", "here_folder = NULL, here_name = NULL",
    "there_folder = NULL", "kind = 0"])
def test_a_root_that_is_another_item_is_not_believed(dav, dav_place, change):
    dav.put("/Home/d/a.txt", OLD)
    host = dav_place.mount().ready()
    read_tree(dav_place.point / "Home")
    host.kill()
    assert forge(dav_place, f"UPDATE tree SET {change} WHERE number = 1") == 1
    dav.log.clear()
    dav_place.mount().ready()
    assert os.listdir(dav_place.point) == ["Home"]
    assert read_tree(dav_place.point / "Home") == {"/d": None, "/d/a.txt": OLD}
    dav_place.wait_synced()
    assert dav.asked(*WRITING) == []
