"""Servers that are slow, silent or endless: what waits, for how long, and what does not."""

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from hosted import wait_for
from hosting import outcome
from multistatus import HEAD, TAIL, response
from trees import read_tree

OLD = b"old contents"
NEW = b"new contents, a little longer"
SLOTS = 8
# What is promised is less; the machine may be slow.
AT_ONCE = 5
LISTING_SECONDS = 3 + 12
VERDICT_SECONDS = 3 + 12
# Bytes. A listing of as many entries as are taken needs a third of that under a sanitizer.
MOST_MEMORY = 2 << 30


@pytest.fixture
def held(scene):
    """The name that held answers wait for; they go on when the test ends."""
    name = f"the end of {scene.path}"
    yield name
    scene.dav.heal()
    scene.dav.release(name)


def took(call, *arguments):
    begun = time.monotonic()
    call(*arguments)
    return time.monotonic() - begun


class Program:
    """A program that works on the mount, and may be interrupted."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([os.fspath(one) for one in arguments],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def interrupt(self):
        assert self.process.poll() is None
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=AT_ONCE)
        return self.process.returncode


def drips(answer):
    return {**answer, "dripSeconds": 0.3, "dripFrom": 300}


def test_a_listing_that_drips_is_not_waited_for_when_there_is_one(scene):
    scene.put("a.txt", OLD)
    assert os.listdir(scene.home) == ["a.txt"]
    fault = scene.fault("PROPFIND", depth="1", answer=drips)
    longest = 0

    def look():
        nonlocal longest
        longest = max(longest, took(os.listdir, scene.home))
        return fault.met

    wait_for(look, "listing")
    assert longest < LISTING_SECONDS
    assert os.listdir(scene.home) == ["a.txt"]
    assert took(os.stat, scene.home / "a.txt") < LISTING_SECONDS
    assert took(os.listdir, scene.home) < AT_ONCE
    scene.dav.disconnect()
    scene.settle({"/a.txt": OLD})


def test_who_waits_for_a_first_listing_can_be_interrupted(scene, held):
    scene.put("sub/a.txt", OLD)
    os.listdir(scene.home)
    fault = scene.fault("PROPFIND", "sub", depth="1", answer={"holdFor": held})
    program = Program("ls", scene.home / "sub")
    scene.dav.waitFor(lambda: fault.met)
    assert program.interrupt() == -signal.SIGINT


def test_who_waits_for_a_download_can_be_interrupted_and_it_goes_on(scene, held):
    contents = os.urandom(300_000)
    scene.put("big.bin", contents)
    os.listdir(scene.home)
    fault = scene.fault("GET", "big.bin", answer={"pauseAt": 150_000, "pauseFor": held})
    program = Program("cat", scene.home / "big.bin")
    scene.dav.waitFor(lambda: fault.met)
    assert program.interrupt() == -signal.SIGINT
    scene.dav.release(held)
    assert (scene.home / "big.bin").read_bytes() == contents
    assert fault.met == 1


def test_a_download_that_drips_is_read_whole(scene):
    contents = os.urandom(200)
    scene.put("slow.bin", contents)
    scene.fault("GET", "slow.bin", answer={"dripSeconds": 0.005})
    assert (scene.home / "slow.bin").read_bytes() == contents


def test_slow_requests_for_some_folders_do_not_stop_others(scene, held):
    """All that may run at once hang."""
    scene.put("known/a.txt", OLD)
    read_tree(scene.home / "known")
    for number in range(SLOTS + 2):
        scene.put(f"slow{number}/a.txt", OLD)
    wait_for(lambda: len(os.listdir(scene.home)) == SLOTS + 3, "folders")
    faults = [scene.fault("PROPFIND", f"slow{number}", depth="1", answer={"holdFor": held})
              for number in range(SLOTS + 2)]
    programs = [Program("ls", scene.home / f"slow{number}") for number in range(SLOTS + 2)]
    wait_for(lambda: sum(bool(fault.met) for fault in faults) >= SLOTS, "requests")
    assert took(read_tree, scene.home / "known") < LISTING_SECONDS
    assert took((scene.home / "known" / "new.txt").write_bytes, NEW) < LISTING_SECONDS
    assert [program.interrupt() for program in programs] == [-signal.SIGINT] * (SLOTS + 2)
    scene.dav.heal()
    scene.dav.release(held)
    expected = {"/known": None, "/known/a.txt": OLD, "/known/new.txt": NEW}
    for number in range(SLOTS + 2):
        expected |= {f"/slow{number}": None, f"/slow{number}/a.txt": OLD}
    scene.settle(expected)


def test_a_verdict_that_does_not_come_is_waited_for_three_seconds(scene, held):
    home = scene.home
    calls = {"MKCOL": lambda: os.mkdir(home / "MKCOL" / "made"),
             "MOVE": lambda: os.rename(home / "MOVE" / "a.txt", home / "MOVE" / "b.txt"),
             "DELETE": lambda: os.unlink(home / "DELETE" / "a.txt")}
    for method in calls:
        scene.put(f"{method}/a.txt", OLD)
    read_tree(scene.home)
    faults = [scene.dav.fault(method, None, times=1, answer={"holdFor": held}) for method in calls]
    begun = time.monotonic()
    assert scene.at_once({method: (call,) for method, call in calls.items()}) == {
        method: None for method in calls}
    assert time.monotonic() - begun < VERDICT_SECONDS
    assert all(fault.met for fault in faults)
    scene.dav.release(held)
    scene.settle({"/MKCOL": None, "/MKCOL/a.txt": OLD, "/MKCOL/made": None, "/MOVE": None,
                  "/MOVE/b.txt": OLD, "/DELETE": None})
    assert len(scene.asked(*calls)) == len(calls)


def test_a_very_long_listing_is_shown_whole(scene):
    count = 20_000
    scene.dav.makeFolder(f"{scene.path}/many")
    os.listdir(scene.home)
    each = response(f"{scene.path}/many/%d.txt", raw=True, size=1, etag='"x"')
    scene.fault("PROPFIND", "many", depth="1", answer=lambda _: {
        "status": 207, "chunked": True,
        "repeat": {"before": HEAD, "each": each, "count": count, "after": TAIL}})
    assert len(os.listdir(scene.home / "many")) == count


def peak(process):
    """The most memory that a process has used, in bytes."""
    [line] = [line for line in Path(f"/proc/{process}/status").read_text().splitlines()
              if line.startswith("VmHWM:")]
    return int(line.split()[1]) << 10


def test_a_listing_without_end_is_an_error_and_what_is_known_stays(scene):
    scene.put("known/a.txt", OLD)
    scene.put("unknown/a.txt", OLD)
    seen = read_tree(scene.home / "known")
    faults = {name: scene.fault("PROPFIND", name, depth="1", times=1, answer={
        "status": 207, "chunked": True, "chunkBytes": 1 << 20,
        "repeat": {"before": HEAD, "each": "<D:response><D:href>/%d</D:href></D:response>",
                   "count": 10**9}})
        for name in ("unknown", "known")}
    assert outcome(os.listdir, scene.home / "unknown") == "EIO"
    # The server sends until its connection ends.
    scene.dav.waitFor(lambda: faults["unknown"].refused)

    def known_was_refused():
        assert read_tree(scene.home / "known") == seen
        return faults["known"].refused

    wait_for(known_was_refused, "listing")
    assert read_tree(scene.home / "known") == seen
    # The next listing is answered.
    wait_for(lambda: scene.place.status()["state"] == "online", "answer")
    assert peak(scene.place.status()["process"]) < MOST_MEMORY
    scene.settle({"/known": None, "/known/a.txt": OLD, "/unknown": None, "/unknown/a.txt": OLD})


def deep(levels):
    return HEAD + "<D:x>" * levels + "</D:x>" * levels


def entities():
    levels = "".join(f'<!ENTITY e{n} "{f"&e{n - 1};" * 10}">' for n in range(1, 12))
    return (f'<?xml version="1.0"?><!DOCTYPE x [<!ENTITY e0 "boom">{levels}]>'
            '<D:multistatus xmlns:D="DAV:" D:x="&e11;">')


# What comes before the entries of a listing.
BOMBS = {
    "depth": lambda _: deep(50_000),
    "entities": lambda _: entities(),
    "external": lambda _: HEAD.replace(
        "\n", '\n<!DOCTYPE x SYSTEM "file:///etc/passwd" [<!ENTITY % p SYSTEM "file:///etc/passwd">'
        "%p;]>\n"),
    "text": lambda _: HEAD + "<D:x>" + "y" * 4_000_000 + "</D:x>",
    "tag": lambda scene: HEAD + response(f"{scene.path}/bomb/b.txt", etag="y" * 1_000_000),
    "date": lambda scene: HEAD + response(f"{scene.path}/bomb/b.txt",
                                          modified="Fri, 31 Dec 99999 23:59:59 GMT"),
    "early": lambda scene: HEAD + response(f"{scene.path}/bomb/b.txt",
                                           modified="Mon, 01 Jan -5000000 00:00:00 GMT"),
    "attribute": lambda _: HEAD.replace("xmlns:D", f'a="{"z" * 1_000_000}" xmlns:D'),
    "comment": lambda _: HEAD + "<!--" + "c" * 4_000_000 + "-->",
}


@pytest.mark.parametrize("kind", BOMBS)
def test_a_listing_made_to_do_harm_does_none(scene, kind):
    scene.put("bomb/a.txt", OLD)
    os.listdir(scene.home)
    scene.dav.admit(f"{scene.path}/bomb/b.txt")
    body = BOMBS[kind](scene)
    fault = scene.fault("PROPFIND", "bomb", depth="1", times=1, answer=lambda given: {
        **given, "body": body + given["body"][len(HEAD):]})
    shown = outcome(os.listdir, scene.home / "bomb")
    assert fault.met
    assert shown == "EIO" or set(shown) <= {"a.txt", "b.txt"}
    for name in shown if shown != "EIO" else ():
        assert isinstance(os.stat(scene.home / "bomb" / name).st_mtime, float)
    scene.settle({"/bomb": None, "/bomb/a.txt": OLD})


def test_headers_without_end_are_an_error(scene):
    scene.put("sub/a.txt", OLD)
    os.listdir(scene.home)
    scene.fault("PROPFIND", "sub", depth="1", times=1, answer={
        "headers": [["X-Header", "y" * 1000]] * 5000})
    assert outcome(os.listdir, scene.home / "sub") == "EIO"
    scene.settle({"/sub": None, "/sub/a.txt": OLD})


def test_another_server_on_the_port_is_told_nothing(scene):
    scene.put("known.txt", OLD)
    scene.put("unread.txt", OLD)
    assert (scene.home / "known.txt").read_bytes() == OLD
    scene.dav.replaceScript({"certificate": "other"})
    scene.dav.log.clear()
    scene.dav.disconnect()
    wait_for(lambda: outcome(open, scene.home / "unread.txt", "rb") == "EACCES", "refusal")
    assert (scene.home / "known.txt").read_bytes() == OLD
    (scene.home / "new.txt").write_bytes(NEW)
    wait_for(lambda: scene.place.status()["held"], "reason")
    assert scene.dav.log == []
    scene.dav.replaceScript({})
    scene.dav.disconnect()
    scene.settle({"/known.txt": OLD, "/unread.txt": OLD, "/new.txt": NEW})
