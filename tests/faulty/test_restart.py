"""The server goes away for a moment, and comes back on the same port."""

import os
import threading

FOLDERS = 60
AWAY_SECONDS = 0.5


def go_away_for_a_moment(dav):
    dav.goAway()
    timer = threading.Timer(AWAY_SECONDS, dav.comeBack)
    timer.start()
    return timer


def test_all_files_are_found_in_folders_that_were_never_listed(scene):
    for number in range(FOLDERS):
        scene.put(f"d{number:02}/a.txt", b"%d" % number)
    found = {}
    for number, name in enumerate(sorted(os.listdir(scene.home))):
        if number == FOLDERS // 3:
            back = go_away_for_a_moment(scene.dav)
        found[f"/{name}"] = None
        found |= {f"/{name}/{file}": b"%d" % number for file in os.listdir(scene.home / name)}
    back.join()
    assert found == scene.tree()


def test_a_file_that_is_not_here_is_waited_for(scene):
    scene.put("a.txt", b"contents")
    assert os.listdir(scene.home) == ["a.txt"]
    back = go_away_for_a_moment(scene.dav)
    scene.dav.disconnect()
    assert (scene.home / "a.txt").read_bytes() == b"contents"
    back.join()
