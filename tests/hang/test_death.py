"""The host dies, and programs that wait for it are told.

A test that is expected to fail says what goes wrong; it fails the run as soon as it passes.
"""

import os
import threading
import time

import pytest

import hosting
from hosted import wait_for
from hosting import outcome
from real_server import process_fields

# A program that is told at all is told at once.
PATIENCE = 10


def uninterruptible(process):
    """The threads of a process that wait in the kernel for what no signal ends."""
    found = set()
    for task in os.listdir(f"/proc/{process.pid}/task"):
        fields = process_fields(f"/proc/{process.pid}/task/{task}/stat")
        if fields and fields[0] == "D":
            found.add(task)
    return found


def stays_uninterruptible(process):
    """Not only while the disk is slow."""
    threads = uninterruptible(process)
    for _ in range(20):
        time.sleep(0.01)
        threads &= uninterruptible(process)
    return threads


@pytest.mark.xfail(strict=True, reason="the thread that tells the kernel of news cannot be killed "
                                       "while a program renames in the folder, and the program "
                                       "waits for an answer of that host: both for ever")
def test_a_host_dies_while_it_tells_of_news_and_a_program_renames(dav, dav_place):
    for name in ("known.txt", "other.txt", "moved.txt"):
        dav.put(f"/Home/d/{name}", b"contents")
    mounted = dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    for name in os.listdir(home):
        assert (home / name).read_bytes() == b"contents"
    move = dav.fault("MOVE", None, answer={"holdFor": "the end"})
    told = []
    program = threading.Thread(
        target=lambda: told.append(outcome(os.rename, home / "moved.txt", home / "here.txt")),
        daemon=True)
    try:
        dav.put("/Home/d/other.txt", b"other contents")
        program.start()
        dav.waitFor(lambda: move.met)

        # Opening asks for a listing, which shows that another file has changed.
        while not told and not stays_uninterruptible(mounted.process):
            (home / "known.txt").read_bytes()
        assert not told, "the program did not wait for its verdict"
        mounted.process.kill()
        wait_for(lambda: told, "end of the program", PATIENCE)
        wait_for(lambda: mounted.process.poll() is not None, "end of the host", PATIENCE)
    finally:
        hosting.cut(dav_place.point)
        dav.release("the end")
        program.join(60)
