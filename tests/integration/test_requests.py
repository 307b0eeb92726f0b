"""What each operation sends, byte for byte, and what it reports of the answer."""

import base64
import hashlib
import re
from pathlib import Path

import pytest

from driver import COCOA, FILE_PROVIDER, ROOT, TRASH, WORKING_SET, error_of
from multistatus import multistatus, response, status

DATE = "Tue, 15 Nov 1994 08:12:31 GMT"
SECONDS = 784887151
FOLDER = response("/Home/Docs/", folder=True, etag='"d1"', modified=DATE)
FILE = response("/Home/Docs/a b.txt", size=12, etag='"abc"', modified=DATE)
ENTRY = multistatus(response("/Home/a.txt", size=12, etag='"abc"', modified=DATE))


def template(name, parent="/Home", **members):
    return {"filename": name, "parentItemIdentifier": parent, **members}


def existing(identifier, name, parent="/Home", **members):
    return {"itemIdentifier": identifier, **template(name, parent, **members)}


def body_file(scene, data, name="body"):
    path = scene.directory / name
    path.write_bytes(data)
    return str(path)


# ---- listings ----------------------------------------------------------------------------------


def test_listing_sends_one_propfind_with_a_slash_and_no_body(scene):
    scene.script(multistatus(FOLDER, FILE))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier="/Home/Docs")
    assert scene.raw(0) == scene.head("PROPFIND", "/Home/Docs/", "Depth: 1",
                                      "Content-Type: application/xml")
    assert len(scene.server.requests) == 1
    assert reply["error"] is None
    assert reply["synchronous"] is False
    assert reply["pages"] == 1
    assert reply["nextPage"] is None
    assert "progress" not in reply
    assert reply["items"] == [{
        "itemIdentifier": "/Home/Docs/a b.txt", "parentItemIdentifier": "/Home/Docs",
        "filename": "a b.txt", "contentType": "public.plain-text", "capabilities": 43,
        "documentSize": 12, "contentModificationDate": SECONDS,
        "itemVersion": {"contentVersion": f"abc|{SECONDS}|12",
                        "metadataVersion": f"abc|{SECONDS}|12"}}]


@pytest.mark.parametrize("identifier, target, listed", [
    (ROOT, "/", "/"), ("/", "/", "/"), ("/Home", "/Home/", "/Home/"), ("/Home", "/Home/", "/Home"),
    ("/Home///", "/Home/", "/Home/"),
    ("/a #%ü😀", "/a%20%23%25%C3%BC%F0%9F%98%80/", "/a #%ü😀/"),
    ("/u\u0308", "/u%CC%88/", "/u\u0308/")])
def test_listing_drops_the_folder_itself_and_nothing_else(scene, identifier, target, listed):
    child = listed.rstrip("/") + "/child"
    scene.script(multistatus(response(listed, folder=True), response(child, folder=True)))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=identifier)
    assert scene.asked() == [("PROPFIND", target)]
    assert [item["itemIdentifier"] for item in reply["items"]] == [child]
    assert reply["items"][0]["documentSize"] is None


def test_listing_keeps_the_servers_order_and_ignores_the_page(scene):
    names = ["z", "a", "m", "B"]
    scene.script(multistatus(*(response("/" + name, size=1) for name in names)))
    with scene.drive() as drive:
        for page in ("", "NSFileProviderInitialPageSortedByName", "never issued"):
            reply = drive.call("enumerateItems", identifier=ROOT, page=page)
            assert [item["filename"] for item in reply["items"]] == names
    assert len(scene.server.requests) == 3


def test_an_empty_folder_is_one_page_without_items(scene):
    scene.script(multistatus(response("/Empty/", folder=True)))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier="/Empty")
    assert (reply["items"], reply["pages"], reply["error"]) == ([], 1, None)


def test_a_successful_answer_that_is_no_xml_is_an_empty_folder(scene):
    scene.script({"status": 200, "body": "<!doctype html><p>Log in<br>here"})
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier="/Home")
    assert (reply["items"], reply["pages"], reply["error"]) == ([], 1, None)


@pytest.mark.parametrize("identifier", [WORKING_SET, TRASH])
def test_other_containers_list_the_root_and_keep_its_own_entry(scene, identifier):
    scene.script(multistatus(response("/", folder=True), response("/Home/", folder=True)))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=identifier)
    assert scene.asked() == [("PROPFIND", "/")]
    assert [item["itemIdentifier"] for item in reply["items"]] == [ROOT, "/Home"]


def test_changes_are_always_refused_with_an_expired_anchor(scene):
    with scene.drive() as drive:
        for anchor in ("v3-1", "", "anything"):
            reply = drive.call("enumerateChanges", identifier=ROOT, anchor=anchor)
            assert error_of(reply) == (FILE_PROVIDER, -1002)
            assert reply["error"]["userInfo"] == {}
            assert reply["synchronous"] is True
        drive.finish()
        assert drive.lines == []
    assert scene.asked() == []


def test_the_anchor_names_half_a_minute(scene):
    import time
    with scene.drive() as drive:
        earliest = int(time.time()) // 30
        reply = drive.call("currentSyncAnchor", identifier="/anything")
        latest = int(time.time()) // 30
    assert reply["synchronous"] is True
    assert reply["anchor"] in {f"v3-{slot}" for slot in range(earliest, latest + 1)}
    assert scene.asked() == []


# ---- lookup ------------------------------------------------------------------------------------


def test_lookup_sends_one_propfind_of_depth_nothing(scene):
    scene.script(ENTRY)
    with scene.drive() as drive:
        reply = drive.call("item", identifier="/Home/a.txt")
    assert scene.raw(0) == scene.head("PROPFIND", "/Home/a.txt", "Depth: 0")
    assert reply["item"]["itemVersion"]["contentVersion"] == f"abc|{SECONDS}|12"
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}
    assert reply["synchronous"] is False


def test_lookup_of_the_root_asks_nobody(scene):
    with scene.drive() as drive:
        reply = drive.call("item", identifier=ROOT)
    assert scene.asked() == []
    assert reply["synchronous"] is True
    assert reply["item"] == {
        "itemIdentifier": ROOT, "parentItemIdentifier": ROOT, "filename": "Kestrowan",
        "contentType": "public.folder", "capabilities": 43, "documentSize": None,
        "contentModificationDate": None,
        "itemVersion": {"contentVersion": "root|0|0", "metadataVersion": "root|0|0"}}


def test_lookup_without_a_response_is_no_such_item(scene):
    scene.script(multistatus())
    with scene.drive() as drive:
        reply = drive.call("item", identifier="/Home/gone")
        assert error_of(reply) == (FILE_PROVIDER, -1005)
        assert reply["item"] is None
        drive.finish()
        assert drive.lines == []


@pytest.mark.parametrize("code, expected", [
    (401, -1000), (404, -1004), (403, -1004), (302, -1004), (304, -1004), (409, -1004),
    (412, -1004), (423, -1004), (500, -1004), (507, -1004), (300, -1004), (599, -1004)])
def test_lookup_passes_on_what_the_status_means_and_logs_nothing(scene, code, expected):
    scene.script(status(code, body="no"))
    with scene.drive() as drive:
        reply = drive.call("item", identifier="/Home/gone")
        assert error_of(reply) == (FILE_PROVIDER, expected)
        assert reply["error"]["userInfo"] == {}
        drive.finish()
        assert drive.lines == []
    assert len(scene.server.requests) == 1


@pytest.mark.parametrize("code", [200, 201, 204, 207, 226, 299])
def test_every_status_from_200_to_299_passes(scene, code):
    scene.script(status(code))
    with scene.drive() as drive:
        assert drive.call("deleteItem", identifier="/a")["error"] is None


# ---- fetch -------------------------------------------------------------------------------------


def test_fetch_downloads_then_looks_up(scene):
    data = bytes(range(256)) * 100
    scene.script({"bodyBase64": base64.b64encode(data).decode()}, ENTRY)
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/Home/a.txt")
    assert scene.raw(0) == scene.head("GET", "/Home/a.txt")
    assert scene.raw(1) == scene.head("PROPFIND", "/Home/a.txt", "Depth: 0")
    assert len(scene.server.requests) == 2
    file = Path(reply["url"])
    assert file.read_bytes() == data
    assert file.parent == scene.temporary
    assert re.fullmatch(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}-a\.txt", file.name)
    assert file.stat().st_mode & 0o777 == 0o600
    assert reply["progress"] == {"totalUnitCount": 100, "completedUnitCount": 100}
    # The size is the server's word, not the file's.
    assert reply["item"]["documentSize"] == 12
    assert reply["item"]["itemVersion"]["contentVersion"] == f"abc|{SECONDS}|12"
    assert scene.leftovers() == [file.name]


@pytest.mark.parametrize("answer", [status(404), multistatus(), {"cut": 0}])
def test_fetch_outlives_a_failed_lookup(scene, answer):
    scene.script({"body": "hello"}, answer)
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/Home/a.txt")
        assert reply["error"] is None
        assert reply["item"]["itemVersion"]["contentVersion"] == "downloaded|0|5"
        assert reply["item"]["documentSize"] == 5
        assert reply["item"]["contentModificationDate"] is None
        drive.finish()
        assert drive.lines == []


def test_fetched_files_of_one_name_do_not_meet(scene):
    scene.routes({"GET /A/x.txt": {"body": "a"}, "GET /B/x.txt": {"body": "b"}},
                 responses=[multistatus()])
    with scene.drive() as drive:
        first = drive.send("fetchContents", identifier="/A/x.txt")
        second = drive.send("fetchContents", identifier="/B/x.txt")
        files = [Path(drive.reply(number)["url"]) for number in (first, second)]
    assert [file.read_text() for file in files] == ["a", "b"]
    assert all(file.name.endswith("-x.txt") for file in files)


def test_an_empty_file_is_fetched(scene):
    scene.script({"body": ""}, multistatus())
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/empty")
    assert Path(reply["url"]).read_bytes() == b""
    assert reply["item"]["itemVersion"]["contentVersion"] == "downloaded|0|0"


def test_a_long_name_keeps_its_end(scene):
    name = "n" * 250 + ".txt"
    scene.script({"body": "long"}, multistatus())
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/" + name)
    file = Path(reply["url"])
    assert file.read_bytes() == b"long"
    assert file.name.endswith("nnn.txt")
    assert re.match(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}-n", file.name)
    assert reply["item"]["filename"] == name


def test_a_failed_fetch_is_logged_and_leaves_nothing(scene):
    scene.script(status(404, body="x" * 10000))
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/Home/a.txt")
        assert error_of(reply) == (FILE_PROVIDER, -1004)
        assert (reply["url"], reply["item"]) == (None, None)
        assert reply["progress"] == {"totalUnitCount": 100, "completedUnitCount": 0}
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"fetch /Home/a.txt failed: {text}"]
    assert scene.leftovers() == []
    assert len(scene.server.requests) == 1


# ---- creation ----------------------------------------------------------------------------------


def test_a_file_is_put_and_then_looked_up(scene):
    data = b"line\r\n\0\xff" * 1000
    scene.script(status(201), ENTRY)
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("a.txt"),
                           contents=body_file(scene, data))
    assert scene.raw(0) == scene.head("PUT", "/Home/a.txt", f"Content-Length: {len(data)}") + data
    assert scene.raw(1) == scene.head("PROPFIND", "/Home/a.txt", "Depth: 0")
    assert reply["error"] is None
    assert reply["item"]["itemIdentifier"] == "/Home/a.txt"
    assert reply["item"]["itemVersion"]["contentVersion"] == f"abc|{SECONDS}|12"
    assert reply["remainingFields"] == []
    assert reply["shouldFetchContent"] is False
    assert reply["synchronous"] is False
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}


def test_a_file_without_contents_is_put_empty(scene):
    scene.script(status(201), multistatus())
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("new", parent=ROOT))
    assert scene.raw(0) == scene.head("PUT", "/new", "Content-Length: 0")
    assert reply["item"]["itemVersion"]["contentVersion"] == "new|0|0"
    assert reply["item"]["documentSize"] == 0
    assert reply["item"]["contentModificationDate"] is None
    # The empty file that was sent stays behind in the temporary directory.
    [left] = scene.leftovers()
    assert re.fullmatch(r"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}", left)
    assert (scene.temporary / left).stat().st_size == 0


def test_a_large_file_is_put_whole(scene):
    data = hashlib.sha256(b"seed").digest() * (3 << 17)
    scene.script(status(201), multistatus())
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("large"), contents=body_file(scene, data))
    assert reply["error"] is None
    [put, _] = scene.server.requests
    assert put["bodyLength"] == len(data)
    assert put["bodySHA256"] == hashlib.sha256(data).hexdigest()


def test_a_folder_is_made_and_its_contents_are_ignored(scene):
    scene.script(status(201), multistatus(response("/Home/New", size=4096, etag='"f"')))
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("New", contentType="public.folder"),
                           contents=body_file(scene, b"ignored"))
    assert scene.raw(0) == scene.head("MKCOL", "/Home/New")
    assert scene.raw(1) == scene.head("PROPFIND", "/Home/New", "Depth: 0")
    # A folder, whatever the server says of it.
    assert reply["item"]["contentType"] == "public.folder"
    assert reply["item"]["documentSize"] is None
    assert reply["item"]["itemVersion"]["contentVersion"] == "f|0|4096"


@pytest.mark.parametrize("kind", ["public.directory", "com.apple.package", "public.data", None])
def test_whatever_is_not_exactly_the_folder_type_is_put(scene, kind):
    scene.script(status(201), multistatus(response("/Home/x", folder=True)))
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("x", contentType=kind))
    assert scene.asked() == [("PUT", "/Home/x"), ("PROPFIND", "/Home/x")]
    assert reply["item"]["contentType"] == "public.data"


@pytest.mark.parametrize("answers, requests", [
    ([status(409)], 1), ([status(201), status(404)], 2), ([status(201), status(401)], 2)])
def test_a_failed_creation_is_logged(scene, answers, requests):
    scene.script(*answers)
    with scene.drive() as drive:
        reply = drive.call("createItem", item=template("New", contentType="public.folder"))
        assert error_of(reply) == (FILE_PROVIDER, -1000 if answers[-1]["status"] == 401 else -1004)
        assert reply["item"] is None
        assert (reply["remainingFields"], reply["shouldFetchContent"]) == ([], False)
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"createItem /Home/New failed: {text}"]
    assert len(scene.server.requests) == requests


# ---- modification ------------------------------------------------------------------------------


def test_a_rename_is_a_move_with_an_absolute_destination(scene):
    scene.script(status(201), ENTRY)
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b #ü.txt"),
                           changedFields=["filename"])
    destination = f"https://127.0.0.1:{scene.server.port}/Home/b%20%23%C3%BC.txt"
    assert scene.raw(0) == scene.head("MOVE", "/Home/a.txt", f"Destination: {destination}",
                                      "Overwrite: F")
    assert scene.raw(1) == scene.head("PROPFIND", "/Home/b%20%23%C3%BC.txt", "Depth: 0")
    assert reply["item"]["itemIdentifier"] == "/Home/b #ü.txt"
    assert (reply["remainingFields"], reply["shouldFetchContent"]) == ([], False)
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}


def test_a_rename_with_contents_moves_then_puts_then_looks_up(scene):
    scene.script(status(201), status(204), multistatus())
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b.txt", parent="/Docs"),
                           changedFields=["parentItemIdentifier", "filename", "contents"],
                           contents=body_file(scene, b"new"))
    assert scene.asked() == [("MOVE", "/Home/a.txt"), ("PUT", "/Docs/b.txt"),
                             ("PROPFIND", "/Docs/b.txt")]
    assert scene.raw(1) == scene.head("PUT", "/Docs/b.txt", "Content-Length: 3") + b"new"
    assert reply["item"]["itemIdentifier"] == "/Docs/b.txt"
    assert reply["item"]["itemVersion"]["contentVersion"] == "modified|0|0"


@pytest.mark.parametrize("fields, contents, requests", [
    (["contentModificationDate"], False, ["PROPFIND"]),
    (["tagData", "lastUsedDate", "favoriteRank", "creationDate", "fileSystemFlags",
      "extendedAttributes", "typeAndCreator"], True, ["PROPFIND"]),
    ([], True, ["PROPFIND"]),
    (["contents"], True, ["PUT", "PROPFIND"]),
    (["contents"], False, ["PROPFIND"]),
    (["filename", "parentItemIdentifier"], False, ["PROPFIND"])])
def test_only_what_changed_is_sent(scene, fields, contents, requests):
    answers = {"PUT": status(204), "PROPFIND": ENTRY}
    scene.script(*(answers[method] for method in requests))
    members = {"contents": body_file(scene, b"new")} if contents else {}
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "a.txt"),
                           changedFields=fields,
                           baseVersion={"contentVersion": "stale", "metadataVersion": "stale"},
                           **members)
    assert reply["error"] is None
    assert scene.asked() == [(method, "/Home/a.txt") for method in requests]


def test_a_changed_name_alone_in_another_folder_still_moves(scene):
    # Either field asks for the move, and the target is made of both.
    scene.script(status(201), ENTRY)
    with scene.drive() as drive:
        drive.call("modifyItem", item=existing("/Home/a.txt", "a.txt", parent=ROOT),
                   changedFields=["parentItemIdentifier"])
    assert scene.asked() == [("MOVE", "/Home/a.txt"), ("PROPFIND", "/a.txt")]


def test_another_name_without_the_changed_field_does_not_move(scene):
    scene.script(ENTRY)
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b.txt"),
                           changedFields=["contentModificationDate"])
    assert scene.asked() == [("PROPFIND", "/Home/a.txt")]
    assert reply["item"]["itemIdentifier"] == "/Home/a.txt"


def test_folders_never_upload(scene):
    scene.script(multistatus())
    with scene.drive() as drive:
        reply = drive.call("modifyItem", changedFields=["contents"],
                           item=existing("/Home/d", "d", contentType="public.folder"),
                           contents=body_file(scene, b"new"))
    assert scene.asked() == [("PROPFIND", "/Home/d")]
    assert reply["item"]["contentType"] == "public.folder"


@pytest.mark.parametrize("code, expected", [
    (412, (COCOA, 516)), (403, (FILE_PROVIDER, -1004)), (409, (FILE_PROVIDER, -1004)),
    (401, (FILE_PROVIDER, -1000)), (308, (FILE_PROVIDER, -1004))])
def test_a_refused_move_sends_nothing_more(scene, code, expected):
    scene.script(status(code))
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b.txt"),
                           changedFields=["filename", "contents"],
                           contents=body_file(scene, b"new"))
        assert error_of(reply) == expected
        assert reply["error"]["userInfo"] == {}
        assert reply["item"] is None
        text = reply["error"]["localizedDescription"]
        [line] = drive.log_lines(1)
        assert re.fullmatch(r"modifyItem /Home/[ab]\.txt failed: " + re.escape(text), line)
    assert scene.asked() == [("MOVE", "/Home/a.txt")]


def test_the_refusal_to_overwrite_has_its_own_words(scene):
    scene.script(status(412))
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b.txt"),
                           changedFields=["filename"])
    assert (reply["error"]["localizedDescription"] ==
            "The file couldn’t be saved because a file with the same name already exists.")


def test_a_move_is_not_undone_when_the_upload_fails(scene):
    scene.script(status(201), status(507))
    with scene.drive() as drive:
        reply = drive.call("modifyItem", item=existing("/Home/a.txt", "b.txt"),
                           changedFields=["filename", "contents"],
                           contents=body_file(scene, b"new"))
    assert error_of(reply) == (FILE_PROVIDER, -1004)
    assert scene.asked() == [("MOVE", "/Home/a.txt"), ("PUT", "/Home/b.txt")]


# ---- deletion ----------------------------------------------------------------------------------


@pytest.mark.parametrize("members", [
    {}, {"options": ["recursive"]},
    {"baseVersion": {"contentVersion": "stale", "metadataVersion": "stale"}}])
def test_deletion_is_one_request_whatever_the_options(scene, members):
    scene.script(status(204))
    with scene.drive() as drive:
        reply = drive.call("deleteItem", identifier="/Home/Docs", **members)
    assert scene.raw(0) == scene.head("DELETE", "/Home/Docs")
    assert len(scene.server.requests) == 1
    assert reply["error"] is None
    assert reply["synchronous"] is False
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}


def test_a_failed_deletion_is_logged(scene):
    scene.script(status(423))
    with scene.drive() as drive:
        reply = drive.call("deleteItem", identifier="/Home/Docs/")
        assert error_of(reply) == (FILE_PROVIDER, -1004)
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"deleteItem /Home/Docs failed: {text}"]


# ---- logs --------------------------------------------------------------------------------------


def test_a_failed_listing_is_logged_with_its_path(scene):
    scene.script(status(500))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier="/Home/")
        assert error_of(reply) == (FILE_PROVIDER, -1004)
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"enumerate /Home failed: {text}"]


def test_control_characters_in_a_path_cannot_forge_a_log_line(scene):
    scene.script(status(500))
    with scene.drive() as drive:
        drive.call("deleteItem", identifier="/a\n[x] error: forged\x1b[31m")
        drive.finish()
        [line] = drive.log_lines(1)
    assert line.startswith("deleteItem /a")
    assert "\x1b" not in line
    assert " failed: " in line
