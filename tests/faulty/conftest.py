"""A mount on a server that goes wrong, and a folder of the test's own on both sides."""

import concurrent.futures
import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from mounts import *  # noqa: E402, F403
from mounts import take_down, write_bridge  # noqa: E402

import hosted  # noqa: E402
from dav_server import DavServer  # noqa: E402
from hosting import outcome  # noqa: E402
from trees import differences, read_tree  # noqa: E402

FOLDERS = 40


class Scene:
    """The folder at `home` in the mount is `path` on the server."""

    def __init__(self, dav, place, number):
        self.dav = dav
        self.place = place
        self.path = f"/Home/t{number:02}"
        self.home = place.point / "Home" / f"t{number:02}"

    def put(self, name, contents):
        self.dav.put(f"{self.path}/{name}", contents)

    def read(self, name):
        return self.dav.read(f"{self.path}/{name}")

    def fault(self, method, name="", **members):
        """A fault for one thing in the folder, or for the folder itself."""
        return self.dav.fault(method, f"{self.path}/{name}".rstrip("/"), **members)

    def asked(self, *methods):
        """What was asked for in this folder, without the folder's path."""
        return [(method, path[len(self.path):]) for method, path in self.dav.asked(*methods)
                if path == self.path or path.startswith(self.path + "/")]

    def tree(self):
        return self.dav.tree(self.path)

    def state(self, name):
        return os.getxattr(self.home / name, "user.kestrowan.state").decode()

    def conflicts(self):
        return [one["path"] for one in self.place.status()["conflicts"]
                if one["path"].startswith(self.path + "/")]

    def keeps_showing(self, expected, *faults):
        """Waits until the faults were met and have come to the view, which never changes."""
        def met():
            assert read_tree(self.home) == expected
            return all(fault.met >= (fault.times or 1) for fault in faults)

        hosted.wait_for(met, "faults")
        # Who opens a file waits for the listing that is on its way.
        assert read_tree(self.home) == expected

    def settle(self, expected):
        """Ends the faults; what is expected must be on both sides then, and nothing else."""
        self.dav.heal()
        self.place.wait_synced()
        assert differences(expected, self.tree()) == []
        hosted.wait_for(lambda: outcome(read_tree, self.home) == expected, "agreement")

    def at_once(self, calls):
        """What calls that are made at the same time come to, by their names."""
        with concurrent.futures.ThreadPoolExecutor(len(calls)) as pool:
            begun = {name: pool.submit(outcome, *call) for name, call in calls.items()}
            return {name: done.result() for name, done in begun.items()}


@pytest.fixture(scope="module")
def shared(tmp_path_factory):
    """A server and a mount for all tests of a module, with a folder for each."""
    if reason := hosted.obstacle():
        pytest.skip(reason)
    directory = tmp_path_factory.mktemp("shared")
    with DavServer() as dav:
        for number in range(FOLDERS):
            dav.makeFolder(f"/Home/t{number:02}")
        place = hosted.Place(directory, write_bridge(directory / "container", dav))
        try:
            place.mount().ready()
            # What follows on a folder may be listed ahead, before the test has filled it.
            yield dav, place, iter(reversed(range(FOLDERS)))
        finally:
            place.clean_up()
            take_down(place.point)
    assert dav.eventsOf("serverError") == []


@pytest.fixture
def scene(shared):
    dav, place, numbers = shared
    yield Scene(dav, place, next(numbers))
    dav.heal()
    found = list(dav.violations)
    dav.violations.clear()
    assert found == []
