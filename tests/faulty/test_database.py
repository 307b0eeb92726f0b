"""A database that somebody has written in is not believed where that could do harm."""

import os
import sqlite3

import pytest

from hosted import wait_for
from trees import read_tree

OLD = b"old contents"


@pytest.mark.parametrize("identifier", [b"", b"Home", b"https://127.0.0.1/Home/d/a.txt"])
def test_an_item_without_a_path_is_never_asked_for(dav, dav_place, identifier):
    dav.put("/Home/d/a.txt", OLD)
    dav.put("/Home/d/b.txt", OLD)
    host = dav_place.mount().ready()
    folder = dav_place.point / "Home" / "d"
    read_tree(folder)
    dav.fault(None, None, answer={"status": 503}, effect=False)
    os.unlink(folder / "a.txt")
    (folder / "b.txt").write_bytes(b"new")
    host.kill()
    with sqlite3.connect(dav_place.state / "replica.db") as database:
        changed = database.execute("UPDATE items SET base_identifier = ? WHERE name IN (?, ?)",
                                   (identifier, b"a.txt", b"b.txt")).rowcount
    database.close()
    assert changed == 2
    dav.log.clear()
    dav.heal()
    dav_place.mount().ready()
    wait_for(lambda: sorted(os.listdir(folder)) == ["a.txt", "b.txt"], "files")
    dav_place.wait_synced()
    assert dav.read("/Home/d/a.txt") == OLD
    kept = [path.read_bytes() for path in (dav_place.state / "recovery").rglob("*")
            if path.is_file()]
    assert b"new" in [*kept, *dav.tree().values()]
    assert dav.asked("DELETE") == []
