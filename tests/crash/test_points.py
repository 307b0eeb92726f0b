"""The host is killed when a request is in a certain place on its way."""

import os

import pytest

from hosted import wait_for
from trees import differences, read_tree

OLD = b"old contents"
NEW = b"new contents, a little longer"


@pytest.fixture
def home(dav, dav_place):
    """A mount with some things in it that have been listed and read."""
    dav.put("/Home/d/old.txt", OLD)
    dav.put("/Home/d/other.txt", b"other")
    dav.makeFolder("/Home/d/sub")
    dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    read_tree(home)
    return home


def overwrite(home):
    (home / "old.txt").write_bytes(NEW)


def create(home):
    (home / "new.txt").write_bytes(NEW)


def save(home):
    (home / "old.txt.tmp").write_bytes(NEW)
    os.replace(home / "old.txt.tmp", home / "old.txt")


def append(home):
    with open(home / "old.txt", "ab") as file:
        file.write(NEW)


def make_folder(home):
    (home / "made").mkdir()


def move(home):
    os.rename(home / "old.txt", home / "moved.txt")


def move_folder(home):
    os.rename(home / "sub", home / "moved")


def move_away(home):
    os.rename(home / "old.txt", home / "sub" / "moved.txt")


def remove(home):
    (home / "old.txt").unlink()


def remove_folder(home):
    (home / "sub").rmdir()


def move_and_overwrite(home):
    os.rename(home / "old.txt", home / "moved.txt")
    (home / "moved.txt").write_bytes(NEW)


# What is done, and the request in the middle of which the host dies.
CHANGES = [(create, "PUT"), (overwrite, "PUT"), (save, "PUT"), (append, "PUT"),
           (make_folder, "MKCOL"), (move, "MOVE"), (move_folder, "MOVE"), (move_away, "MOVE"),
           (remove, "DELETE"), (remove_folder, "DELETE"), (move_and_overwrite, "PUT")]


def named(value):
    return getattr(value, "__name__", value)


def after(change, tree):
    """What a change makes of a tree."""
    tree = dict(tree)
    old = tree.get("/old.txt")
    if change is create:
        tree["/new.txt"] = NEW
    elif change in (overwrite, save):
        tree["/old.txt"] = NEW
    elif change is append:
        tree["/old.txt"] = old + NEW
    elif change is make_folder:
        tree["/made"] = None
    elif change in (move, move_away, move_and_overwrite):
        del tree["/old.txt"]
        tree["/sub/moved.txt" if change is move_away else "/moved.txt"] = (
            NEW if change is move_and_overwrite else old)
    elif change is move_folder:
        del tree["/sub"]
        tree["/moved"] = None
    elif change is remove:
        del tree["/old.txt"]
    elif change is remove_folder:
        del tree["/sub"]
    return tree


def kill_during(home, dav, place, change, *fault, **members):
    """Makes a change, kills the host while the request of the fault has no answer, and mounts
    anew. Gives the tree as it must be."""
    expected = after(change, read_tree(home))
    fault = dav.fault(*fault, times=1, answer={"holdFor": "the end"}, **members)
    change(home)
    dav.waitFor(lambda: fault.met)
    if fault.effect:
        dav.waitFor(lambda: any(one["method"] == fault.method for one in dav.log))
    place.mounts[-1].kill()
    dav.heal()
    dav.release("the end")
    place.mount().ready()
    return expected


def check(home, dav, place, expected):
    assert differences(expected, read_tree(home)) == []
    place.wait_synced()
    assert differences(expected, dav.tree("/Home/d")) == []
    assert differences(expected, read_tree(home)) == []
    assert place.status()["conflicts"] == []


@pytest.mark.parametrize("change, method", CHANGES, ids=named)
def test_killed_when_the_request_took_effect_and_had_no_answer(home, dav, dav_place, change,
                                                               method):
    expected = kill_during(home, dav, dav_place, change, method, None)
    check(home, dav, dav_place, expected)


@pytest.mark.parametrize("change, method", [
    (create, "PUT"), (overwrite, "PUT"), (save, "PUT"), (append, "PUT"), (make_folder, "MKCOL"),
    (move_away, "MOVE"), (remove, "DELETE"), (move_and_overwrite, "PUT")], ids=named)
def test_killed_when_the_request_arrived_and_came_to_nothing(home, dav, dav_place, change, method):
    expected = kill_during(home, dav, dav_place, change, method, None, effect=False)
    check(home, dav, dav_place, expected)


@pytest.mark.parametrize("change", [create, overwrite, save, make_folder, move_folder,
                                    move_and_overwrite], ids=named)
def test_killed_between_the_request_and_the_look_at_what_it_did(home, dav, dav_place, change):
    """The change has been answered, and the server is asked for the item's new state."""
    expected = after(change, read_tree(home))
    [target] = (expected.keys() - read_tree(home).keys()) or {"/old.txt"}
    dav.log.clear()
    fault = dav.fault("PROPFIND", "/Home/d" + target, depth="0", times=None,
                      answer={"holdFor": "the end"})
    change(home)
    # An upload begins with such a look too, to which the server must answer.
    if change in (overwrite, save):
        dav.waitFor(lambda: fault.met)
        dav.heal()
        dav.release("the end")
        dav.waitFor(lambda: dav.asked("PUT"))
        dav_place.mounts[-1].kill()
    else:
        dav.waitFor(lambda: fault.met)
        dav_place.mounts[-1].kill()
        dav.heal()
        dav.release("the end")
    dav_place.mount().ready()
    check(home, dav, dav_place, expected)


@pytest.mark.parametrize("change, method", [(create, "PUT"), (overwrite, "PUT")],
                         ids=named)
def test_killed_in_the_middle_of_a_body(home, dav, dav_place, change, method):
    expected = after(change, read_tree(home))
    fault = dav.fault(method, None, reading={"readBytes": 5}, times=1)
    change(home)
    dav.waitFor(lambda: fault.met)
    dav_place.mounts[-1].kill()
    dav_place.mount().ready()
    check(home, dav, dav_place, expected)


def test_killed_in_the_middle_of_a_download(home, dav, dav_place):
    contents = bytes(range(256)) * 4096
    dav.put("/Home/d/big.bin", contents)
    fault = dav.fault("GET", "/Home/d/big.bin", times=1,
                      answer={"pauseAt": len(contents) // 2, "pauseFor": "the end"})
    reader = os.fork()
    if reader == 0:
        try:
            wait_for(lambda: (home / "big.bin").exists(), "file")
            (home / "big.bin").read_bytes()
        finally:
            os._exit(0)
    dav.waitFor(lambda: fault.met)
    dav_place.mounts[-1].kill()
    os.waitpid(reader, 0)
    dav.release("the end")
    dav_place.mount().ready()
    assert (home / "big.bin").read_bytes() == contents
    # The bytes are read while they arrive; they are contents a moment later.
    wait_for(lambda: os.listdir(dav_place.state / "temporary") == [], "end of the download")


def test_killed_while_two_versions_are_on_their_way(home, dav, dav_place):
    """A save is sent, and another one made; the second is the one that stays."""
    fault = dav.fault("PUT", None, times=1, answer={"holdFor": "the end"})
    (home / "old.txt").write_bytes(b"first save")
    dav.waitFor(lambda: fault.met)
    (home / "old.txt").write_bytes(b"second save")
    dav_place.mounts[-1].kill()
    dav.heal()
    dav.release("the end")
    dav_place.mount().ready()
    assert (home / "old.txt").read_bytes() == b"second save"
    dav_place.wait_synced()
    assert dav.read("/Home/d/old.txt") == b"second save"
    assert dav_place.status()["conflicts"] == []


def test_killed_while_a_file_is_on_its_way_that_was_removed(home, dav, dav_place):
    for change in (create, overwrite):
        name = "new.txt" if change is create else "old.txt"
        fault = dav.fault("PUT", None, times=1, answer={"holdFor": change.__name__})
        change(home)
        dav.waitFor(lambda fault=fault: fault.met)
        (home / name).unlink()
        dav_place.mounts[-1].kill()
        dav.heal()
        dav.release(change.__name__)
        dav_place.mount().ready()
        assert name not in os.listdir(home)
        dav_place.wait_synced()
        assert dav.read("/Home/d/" + name) is None
        assert name not in os.listdir(home)


def test_killed_again_and_again_at_the_same_point(home, dav, dav_place):
    expected = after(overwrite, read_tree(home))
    for number in range(3):
        fault = dav.fault("PUT", None, times=1, answer={"holdFor": f"end {number}"},
                          effect=number == 2)
        if number == 0:
            overwrite(home)
        else:
            dav_place.mount().ready()
        dav.waitFor(lambda fault=fault: fault.met)
        dav_place.mounts[-1].kill()
        dav.heal()
        dav.release(f"end {number}")
    dav_place.mount().ready()
    check(home, dav, dav_place, expected)
