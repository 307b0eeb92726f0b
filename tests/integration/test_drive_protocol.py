"""The manners of `kestrowan drive`: lines, ids, order, and the end."""

import json

import pytest

from driver import ROOT, error_of
from multistatus import multistatus, response, status

NOT_A_REQUEST = ("kestrowan", 2)
# More requests than these at once wait for a connection.
CONNECTIONS = 24  # while answers are slow


@pytest.mark.parametrize("line", [
    b"", b"   ", b"{", b"[]", b"null", b"42", b'"item"', b'{"id":1}x', b"\xff\xfe", b"{'id':1}",
    b'{"id":1,"request":"item"', b"[" * 100000, b'{"a":' * 5000, b"\0"])
def test_a_line_that_is_no_request_is_answered_and_passed_over(scene, line):
    with scene.drive() as drive:
        drive.write(line + b"\n")
        reply = drive.reply(None)
        assert error_of(reply) == NOT_A_REQUEST
        assert reply["error"]["localizedDescription"]
        assert reply["synchronous"] is True
        assert drive.call("item", identifier=ROOT)["error"] is None
        assert drive.finish() == 0


@pytest.mark.parametrize("members", [
    {}, {"request": None}, {"request": 7}, {"request": "explode"}, {"request": "item"},
    {"request": "item", "identifier": 7}, {"request": "item", "identifier": None},
    {"request": "createItem"}, {"request": "createItem", "item": []},
    {"request": "createItem", "item": {"filename": "a"}},
    {"request": "createItem", "item": {"filename": 1, "parentItemIdentifier": ROOT}},
    {"request": "modifyItem", "item": {"filename": "a", "parentItemIdentifier": ROOT}},
    {"request": "modifyItem", "item": {"itemIdentifier": "/a", "filename": "a",
                                       "parentItemIdentifier": ROOT}, "changedFields": ["nothing"]},
    {"request": "modifyItem", "item": {"itemIdentifier": "/a", "filename": "a",
                                       "parentItemIdentifier": ROOT}, "changedFields": "filename"},
    {"request": "createItem", "contents": 5, "item": {"filename": "a",
                                                      "parentItemIdentifier": ROOT}},
    {"request": "deleteItem", "identifier": "/a", "options": ["sideways"]},
    {"request": "enumerateChanges", "identifier": ROOT}])
def test_a_request_of_the_wrong_form_is_refused_and_sends_nothing(scene, members):
    with scene.drive() as drive:
        drive.write(json.dumps({"id": "mine", **members}).encode() + b"\n")
        reply = drive.wait(lambda: drive.replies[0] if drive.replies else None, "a reply")
        assert reply["id"] == "mine"
        assert reply["synchronous"] is True
        assert error_of(reply) == NOT_A_REQUEST
        assert drive.finish() == 0
        assert len(drive.replies) == 1
        assert drive.lines == []
    assert scene.asked() == []


@pytest.mark.parametrize("identifier", [
    0, -1, 1.5, "", "text", "ü😀", None, True, [], [1, {"a": [None]}], {}, {"deep": {"er": 1}},
    9007199254740993, 2 ** 63 - 1, -2 ** 63])
def test_any_json_value_is_an_id(scene, identifier):
    with scene.drive() as drive:
        drive.write(json.dumps({"id": identifier, "request": "item",
                                "identifier": ROOT}).encode() + b"\n")
        reply = drive.reply(identifier)
        assert type(reply["id"]) is type(identifier)
        assert reply["error"] is None


def test_replies_come_as_they_are_completed(scene):
    scene.routes({"PROPFIND /slow": dict(multistatus(response("/slow")), holdFor="go"),
                  "PROPFIND /quick": multistatus(response("/quick"))})
    with scene.drive() as drive:
        slow = drive.send("item", identifier="/slow")
        scene.server.waitForRequests(1)
        quick = drive.send("item", identifier="/quick")
        assert drive.reply(quick)["item"]["itemIdentifier"] == "/quick"
        assert [reply["id"] for reply in drive.replies] == [quick]
        scene.server.release("go")
        assert drive.reply(slow)["item"]["itemIdentifier"] == "/slow"


def test_the_end_of_input_waits_for_what_is_running(scene):
    scene.script(dict(multistatus(response("/slow")), holdFor="go"))
    with scene.drive() as drive:
        slow = drive.send("item", identifier="/slow")
        scene.server.waitForRequests(1)
        drive.process.stdin.close()
        scene.server.release("go")
        assert drive.finish() == 0
        assert [reply["id"] for reply in drive.replies] == [slow]
        assert drive.replies[0]["error"] is None


def test_an_empty_input_ends_at_once(scene):
    with scene.drive() as drive:
        assert drive.finish() == 0
        assert (drive.replies, drive.lines) == ([], [])
    assert scene.server.eventsOf("connected") == []


def test_a_last_line_without_an_end_is_a_request_too(scene):
    with scene.drive() as drive:
        drive.write(json.dumps({"id": 1, "request": "item", "identifier": ROOT}).encode())
        assert drive.finish() == 0
        assert [error_of(reply) for reply in drive.replies] == [None]


def test_many_requests_are_each_answered_once(scene):
    scene.script(multistatus(response("/x", size=1)))
    with scene.drive() as drive:
        ids = [drive.send("item", identifier=f"/{number}") for number in range(300)]
        assert drive.finish() == 0
        assert sorted(reply["id"] for reply in drive.replies) == ids
        assert {error_of(reply) for reply in drive.replies} == {None}
    assert sorted(scene.asked()) == sorted(("PROPFIND", f"/{number}") for number in range(300))
    assert len(scene.server.eventsOf("connected")) <= CONNECTIONS


def test_invalidation_changes_nothing(scene):
    scene.script(status(204))
    with scene.drive() as drive:
        assert drive.call("invalidate") == {"id": 1, "error": None, "synchronous": True}
        assert drive.call("deleteItem", identifier="/a")["error"] is None
        assert drive.call("invalidate")["error"] is None
        assert drive.call("item", identifier=ROOT)["error"] is None


def test_nothing_is_asked_before_the_first_request(scene):
    with scene.drive() as drive:
        assert drive.call("item", identifier=ROOT)["error"] is None
        assert scene.server.eventsOf("connected") == []


def test_one_connection_serves_one_request_after_the_other(scene):
    scene.script(multistatus())
    with scene.drive() as drive:
        for _ in range(5):
            drive.call("enumerateItems", identifier=ROOT)
    assert len(scene.server.eventsOf("connected")) == 1
    assert len(scene.server.requests) == 5
