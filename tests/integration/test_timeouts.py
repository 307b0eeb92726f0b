"""Servers that keep the program waiting: 60 seconds without a byte are too many, however long the
whole takes. All of it happens at the same time, in one minute and a half."""

import contextlib

from conftest import Scene
from driver import ROOT, URL, error_of
from multistatus import multistatus, response
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
