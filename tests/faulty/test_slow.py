"""The server takes long for each answer."""

import concurrent.futures
import os
import re

FILES = 10


def test_small_files_that_are_read_at_once_do_not_wait_for_one_another(scene):
    names = [f"{number}.txt" for number in range(FILES)]
    for name in names:
        scene.put(name, name.encode())
    assert sorted(os.listdir(scene.home)) == names
    scene.dav.fault("GET", re.compile(re.escape(scene.path)), answer={"holdFor": "all"})
    with concurrent.futures.ThreadPoolExecutor(FILES) as pool:
        read = [pool.submit((scene.home / name).read_bytes) for name in names]
        try:
            # None has been answered when the last is asked for.
            scene.dav.waitFor(lambda: len(scene.asked("GET")) == FILES)
        finally:
            scene.dav.release("all")
        assert [one.result() for one in read] == [name.encode() for name in names]
