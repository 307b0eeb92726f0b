"""Servers that keep the program waiting: 60 seconds without a byte are too many, however long the
whole takes. What takes so long happens at the same time, in one minute and a half. Direct commands
have an end besides."""

import contextlib
import json
import os

import pytest

from conftest import Scene
from driver import ROOT, URL, error_of
from multistatus import multistatus, response, status
from scripted_server import ScriptedServer

TIMED_OUT = (URL, -1001)


def test_silence_ends_a_request_and_slowness_does_not(tmp_path):
    listing = multistatus(response("/a"))
    scripts = {
        "silent before TLS": ("enumerateItems", {"mode": "silent"}),
        "silent before the answer": ("enumerateItems",
                                     {"responses": [dict(listing, holdFor="never")]}),
        "silent in the head": ("enumerateItems", {"responses": [
            dict(listing, pauseAt=10, pauseFor="never")]}),
        "silent in the body": ("fetchContents", {"responses": [
            {"fill": 100000, "pauseAt": 50000, "pauseFor": "never"}]}),
    }
    with contextlib.ExitStack() as stack:
        waiting = {}
        for name, (request, script) in scripts.items():
            (tmp_path / name).mkdir()
            scene = Scene(tmp_path / name, stack.enter_context(ScriptedServer(script)))
            drive = stack.enter_context(scene.drive())
            waiting[name] = (scene, drive, request, drive.send(request, identifier=ROOT))
        (tmp_path / "slow").mkdir()
        # One byte every 8 seconds, for longer than 60 seconds.
        slow = Scene(tmp_path / "slow", stack.enter_context(ScriptedServer(
            {"responses": [{"fill": 10, "dripSeconds": 8, "dripFrom": 44}, multistatus()]})))
        slow_drive = stack.enter_context(slow.drive())
        slow_id = slow_drive.send("fetchContents", identifier="/slow")

        for name, (scene, drive, request, number) in waiting.items():
            reply = drive.reply(number)
            assert error_of(reply) == TIMED_OUT, name
            text = reply["error"]["localizedDescription"]
            assert text == "The request timed out."
            verb = "fetch" if request == "fetchContents" else "enumerate"
            assert drive.log_lines(1) == [f"{verb} / failed: {text}"], name
            assert scene.leftovers() == [], name
            assert len(scene.asked()) <= 1, name
        reply = slow_drive.reply(slow_id)
        assert reply["error"] is None
        assert reply["item"]["documentSize"] == 10


# ---- direct commands -----------------------------------------------------------------------------

# A byte each tenth of a second, so that the connection is never silent.
DRIP = {"dripSeconds": 0.1}
FILE = multistatus(response("/a", size=12))


def drips(scene):
    scene.routes({"PROPFIND /": dict(multistatus(response("/b")), **DRIP),
                  "PROPFIND /drip": dict(multistatus(response("/drip")), **DRIP),
                  "GET /a": {"fill": 100000, "dripFrom": 50000, **DRIP},
                  "PUT /a": {"holdBodyFor": "never"}, "MKCOL /a": status(201, body="x" * 500, **DRIP),
                  "MOVE /a": {"holdFor": "never"}, "DELETE /a": {"holdFor": "never"}},
                 responses=[FILE])


def commands(scene):
    body = scene.directory / "body"
    with body.open("wb") as file:
        file.truncate(64 << 20)
    target = scene.directory / "target"
    return {"ls": ["/"], "stat": ["/drip"], "get": ["/a", target], "put": [body, "/a"],
            "mkdir": ["/a"], "mv": ["/a", "/b"], "rm": ["/a"]}


@pytest.mark.parametrize("name", ["ls", "stat", "get", "put", "mkdir", "mv", "rm"])
def test_a_command_ends_when_its_time_is_over(scene, name):
    drips(scene)
    arguments = commands(scene)[name]
    before = sorted(os.listdir(scene.directory))
    result = scene.run(name, "--timeout", "2", *arguments)
    assert result.returncode == 1
    assert result.stdout == b""
    text = result.stderr.decode()
    assert "the server did not answer in time (NSURLErrorDomain -1001: " in text
    assert "The request was given up after 2 s." in text
    assert sorted(os.listdir(scene.directory)) == before
    assert scene.leftovers() == []


def test_the_end_is_told_in_json(scene):
    drips(scene)
    result = scene.run("--json", "get", "--timeout=1", "/a", scene.directory / "target")
    assert result.returncode == 1
    assert result.stderr == b""
    error = json.loads(result.stdout)["error"]
    assert (error["domain"], error["code"]) == TIMED_OUT
    assert error["localizedDescription"] == "The request was given up after 1 s."


def test_what_ends_in_time_is_not_given_up(scene):
    scene.script({"fill": 3000000}, FILE)
    target = scene.directory / "target"
    assert scene.run("get", "--timeout", "600", "/a", target).returncode == 0
    assert target.stat().st_size == 3000000


@pytest.mark.parametrize("value", ["0", "-1", "x", "", "1.5", "99999999999999999999"])
def test_a_time_that_is_none_is_wrong_usage(scene, value):
    result = scene.run("ls", "--timeout", value)
    assert result.returncode == 2
    assert b"--timeout" in result.stderr
    assert scene.asked() == []
