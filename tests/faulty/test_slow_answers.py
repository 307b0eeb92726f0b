"""Every answer takes seconds. Small files do not wait for one another.

No time is measured: what counts is how many requests wait for their answers together.
"""

import concurrent.futures
import os

import pytest

from hosted import wait_for

FILES = 40
# At once, and in how many goes the number of connections has grown to that at the latest.
AT_ONCE = 10
GOES = FILES // AT_ONCE
# How long the server takes for an answer when fewer requests wait than should.
SLOW_SECONDS = 4
MOST = 24


@pytest.fixture
def home(dav, dav_place):
    for number in range(FILES):
        dav.put(f"/Home/d/{number:02}/file", b"%d" % number)
    dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    for folder in os.listdir(home):
        assert os.listdir(home / folder) == ["file"]
    return home


def read_all(home, dav, numbers):
    """Reads files at once; gives how many of them the server was asked for before it answered."""
    waiting = dav.fault("GET", None, answer={"holdFor": f"go {numbers[0]}"})
    with concurrent.futures.ThreadPoolExecutor(len(numbers)) as pool:
        found = {number: pool.submit((home / f"{number:02}" / "file").read_bytes)
                 for number in numbers}
        try:
            dav.waitFor(lambda: waiting.met >= len(numbers), SLOW_SECONDS)
        except TimeoutError:
            pass
        together, connections = waiting.met, len(dav.connections)
        dav.heal()
        dav.release(f"go {numbers[0]}")
        assert {number: one.result() for number, one in found.items()} == {
            number: b"%d" % number for number in numbers}
    return together, connections


def test_small_files_are_fetched_at_once(home, dav):
    goes = [range(go * AT_ONCE, (go + 1) * AT_ONCE) for go in range(GOES)]
    assert max(read_all(home, dav, numbers)[0] for numbers in goes) == AT_ONCE


def test_connections_are_not_more_than_the_most(home, dav):
    assert read_all(home, dav, range(FILES))[1] <= MOST


def test_a_server_that_lets_requests_wait_is_told_to_be_silent(home, dav, dav_place):
    dav.fault("GET", None, answer={"holdFor": "go"})
    assert dav_place.status()["silent"] is None
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        reading = pool.submit((home / "00" / "file").read_bytes)
        wait_for(lambda: dav_place.status()["silent"], "silence")
        assert dav_place.status()["state"] == "unanswered"
        assert "silent for" in dav_place.run("status").stdout.decode()
        dav.heal()
        dav.release("go")
        assert reading.result() == b"0"
    wait_for(lambda: dav_place.status()["silent"] is None, "answers")
    assert dav_place.status()["state"] == "online"
