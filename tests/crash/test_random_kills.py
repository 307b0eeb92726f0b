"""The host is killed at random moments while programs work on the mount. Nothing that a call had
acknowledged is missing afterwards, and the server gets it all."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

from acknowledged import Expected
from hosted import wait_for
from trees import differences, read_tree

WORKER = Path(__file__).with_name("worker.py")
WORKERS = 3
ROUNDS = int(os.environ.get("KFP_CRASH_ROUNDS") or 4)


def acknowledged(logs):
    return sum(log.read_bytes().count(b'"end"') for log in logs if log.exists())


class Work:
    """Some workers, each with a folder and a log of its own."""

    def __init__(self, place, home, number, rng):
        self.folders = [home / f"w{index}" for index in range(WORKERS)]
        self.logs = [place.directory / f"log-{number}-{index}" for index in range(WORKERS)]
        self.processes = [
            subprocess.Popen([sys.executable, "-B", WORKER, folder, log, str(rng.randrange(1000))])
            for folder, log in zip(self.folders, self.logs)]

    def wait_for_steps(self, count):
        wait_for(lambda: acknowledged(self.logs) >= count or self.has_ended(), "work")
        assert not self.has_ended(), [log.read_text()[-300:] for log in self.logs]

    def has_ended(self):
        return any(process.poll() is not None for process in self.processes)

    def end(self):
        for process in self.processes:
            assert process.wait(60) == 0


def one_round(place, home, number, rng, expected):
    work = Work(place, home, number, rng)
    steps = rng.randrange(1, 150)
    work.wait_for_steps(steps)
    place.mounts[-1].kill()
    work.end()
    place.mount().ready()
    for folder, log, one in zip(work.folders, work.logs, expected):
        one.read(log)
        found = read_tree(folder)
        assert one.problems(found) == [], (number, folder, log.read_text()[-2000:])
        one.adopt(found)
    print(f"round {number}: killed after {steps} steps")


@pytest.fixture
def home(apache, apache_place):
    apache_place.mount().ready()
    home = apache_place.point / "Home" / "Documents"
    for index in range(WORKERS):
        (home / f"w{index}").mkdir()
    return home


def test_nothing_acknowledged_is_lost(apache, apache_place, home, rng):
    expected = [Expected() for _ in range(WORKERS)]
    on_server = apache.root / "Home" / "Documents"
    for number in range(ROUNDS):
        one_round(apache_place, home, number, rng, expected)
        if number % 2:
            apache_place.wait_synced()
            assert differences(read_tree(home), read_tree(on_server)) == []
            for index, one in enumerate(expected):
                assert one.problems(read_tree(home / f"w{index}")) == []
    assert apache_place.status()["conflicts"] == []


def test_kills_in_a_row_while_the_server_is_away(apache, apache_place, home, rng):
    expected = [Expected() for _ in range(WORKERS)]
    apache._control("stop")
    for number in range(2):
        one_round(apache_place, home, number, rng, expected)
    apache._control("start", "--parent", str(os.getpid()))
    apache_place.wait_synced()
    assert differences(read_tree(home), read_tree(apache.root / "Home" / "Documents")) == []
    for index, one in enumerate(expected):
        assert one.problems(read_tree(home / f"w{index}")) == []


def test_killed_as_soon_as_it_is_mounted(apache, apache_place, home, rng):
    """Also what is only half loaded, or half sent again, is not lost."""
    expected = [Expected() for _ in range(WORKERS)]
    one_round(apache_place, home, 0, rng, expected)
    for _ in range(5):
        apache_place.mounts[-1].kill()
        mounted = apache_place.mount()
        limit = rng.random() * 0.3
        try:
            wait_for(lambda mounted=mounted: mounted.process.poll() is not None, "end", limit)
        except AssertionError:
            mounted.kill()
        apache_place.mount().ready()
    for index, one in enumerate(expected):
        assert one.problems(read_tree(home / f"w{index}")) == []
    apache_place.wait_synced()
    assert differences(read_tree(home), read_tree(apache.root / "Home" / "Documents")) == []
