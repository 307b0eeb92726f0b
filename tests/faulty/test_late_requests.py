"""Requests that arrive when nobody counts on them any more, and a server that is full.

A test that is expected to fail says what goes wrong; it fails the run as soon as it passes.
"""

import os
import re

import pytest

from hosted import wait_for
from hosting import outcome
from trees import read_tree

OLD = b"old contents"
FIRST = b"the first version"
SECOND = b"the second version, a little longer"


def write(path, contents):
    with open(path, "wb") as file:
        file.write(contents)


@pytest.fixture
def home(dav, dav_place):
    dav.put("/Home/d/doc.txt", OLD)
    dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    read_tree(home)
    return home


def send_first(home, dav, name):
    """Writes the first version. Its upload is under way, and the server does not do it yet."""
    fault = dav.fault("PUT", f"/Home/d/{name}", times=1, effect=False,
                      answer={"holdFor": "the end", "cut": 0, "then": "rst"})
    write(home / name, FIRST)
    dav.waitFor(lambda: any(one["method"] == "PUT" for one in dav.log) and fault.met)


def listed_thrice(dav, home):
    def listings():
        return dav.asked("PROPFIND").count(("PROPFIND", "/Home/d"))

    known = listings()
    wait_for(lambda: os.listdir(home) and listings() >= known + 3, "listings")


def lose_the_answer(dav, place, how):
    if how == "killed":
        place.mounts[-1].kill()
    dav.release("the end")
    if how == "killed":
        place.mount().ready()


@pytest.mark.parametrize("name", ["doc.txt", "new.txt"])
@pytest.mark.parametrize("how", ["killed", "cut"])
def test_an_upload_lands_after_a_later_one(home, dav, dav_place, name, how):
    send_first(home, dav, name)
    write(home / name, SECOND)
    lose_the_answer(dav, dav_place, how)
    dav_place.wait_synced()
    assert dav.read(f"/Home/d/{name}") == SECOND
    dav.put(f"/Home/d/{name}", FIRST)

    listed_thrice(dav, home)
    assert (home / name).read_bytes() == SECOND
    wait_for(lambda: os.listdir(home) and dav.read(f"/Home/d/{name}") == SECOND, "second version")
    dav_place.wait_synced()
    assert set(dav.tree("/Home/d")) == {"/doc.txt", f"/{name}"}
    assert (home / name).read_bytes() == SECOND


@pytest.mark.parametrize("how", ["killed", "cut"])
def test_an_upload_lands_after_its_file_was_renamed(home, dav, dav_place, how):
    send_first(home, dav, "new.txt")
    os.rename(home / "new.txt", home / "renamed.txt")
    write(home / "renamed.txt", SECOND)
    lose_the_answer(dav, dav_place, how)
    dav_place.wait_synced()
    expected = {"/doc.txt": OLD, "/renamed.txt": SECOND}
    assert dav.tree("/Home/d") == expected
    dav.put("/Home/d/new.txt", FIRST)
    listed_thrice(dav, home)
    assert sorted(os.listdir(home)) == ["doc.txt", "renamed.txt"]
    wait_for(lambda: os.listdir(home) and dav.tree("/Home/d") == expected, "one file")
    dav_place.wait_synced()
    assert read_tree(home) == expected


def test_what_is_replaced_stays_while_the_server_is_full(home, dav, dav_place):
    """A program saves by a rename while its new file is on its way already."""
    seen = []

    def refuse(answer):
        seen.append(dict(dav.files))
        return {**answer, "status": 507}

    first = dav.fault("PUT", "/Home/d/doc.tmp", times=1, effect=False,
                      answer={"holdFor": "full", "status": 507})
    write(home / "doc.tmp", SECOND)
    dav.waitFor(lambda: first.met)
    os.rename(home / "doc.tmp", home / "doc.txt")
    refused = dav.fault("PUT", re.compile("/Home/d/"), effect=False, answer=refuse)
    deleted = dav.fault("DELETE", None, answer=refuse)
    dav.release("full")
    wait_for(lambda: refused.met or deleted.met, "refusals")
    wait_for(lambda: outcome(os.getxattr, home / "doc.txt", "user.kestrowan.error") != "ENODATA",
             "an explanation")
    dav_place.ask("retry", home)
    wait_for(lambda: refused.met >= 2 or deleted.met, "refusals")
    assert deleted.met == 0
    assert all(OLD in files.values() for files in seen)
    dav.heal()
    dav_place.ask("retry", home)
    dav_place.wait_synced()
    assert dav.tree("/Home/d") == read_tree(home) == {"/doc.txt": SECOND}
