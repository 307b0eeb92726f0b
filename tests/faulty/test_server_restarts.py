"""The server is away for a moment while programs work."""

import os
import threading

import pytest

from trees import read_tree

FOLDERS = 60
FILES = 5


@pytest.fixture
def home(dav, dav_place):
    for folder in range(FOLDERS):
        for file in range(FILES):
            dav.put(f"/Home/d/{folder:02}/{file}", b"contents")
    dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    assert len(os.listdir(home)) == FOLDERS
    return home


def walk(home, at, begin):
    """Calls `begin` before the folder of that number; gives how many files were found."""
    found = 0
    for number, folder in enumerate(sorted(os.listdir(home))):
        if number == at:
            begin()
        found += len(os.listdir(home / folder))
    return found


def restart(dav):
    """Away for a second and a half, as a server is that is started anew."""
    dav.goAway()
    threading.Timer(1.5, dav.comeBack).start()


@pytest.mark.parametrize("at", [1, FOLDERS // 2])
def test_folders_that_were_never_listed_are_waited_for(home, dav, at):
    assert walk(home, at, lambda: restart(dav)) == FOLDERS * FILES


def test_files_are_waited_for(home, dav):
    assert walk(home, -1, None) == FOLDERS * FILES
    restart(dav)
    dav.disconnect()
    assert read_tree(home) == dav.tree("/Home/d")


def test_a_server_that_is_back_is_noticed_by_the_first_call(home, dav):
    """However long it was away, nothing but a call finds out."""
    dav.goAway()
    for folder in range(5):
        try:
            os.listdir(home / f"{folder:02}")
        except OSError:
            pass
    dav.comeBack()
    assert walk(home, -1, None) == FOLDERS * FILES
