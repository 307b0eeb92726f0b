"""Servers that answer garbage, nothing, too little, too much, or names meant to do harm."""

import json
import os
import pty
from pathlib import Path

import pytest

from driver import COCOA, FILE_PROVIDER, ROOT, URL, error_of, start
from multistatus import HEAD, TAIL, multistatus, response, status

LOST = (URL, -1005)
BAD_ANSWER = {(URL, -1011), (URL, -1017), LOST}

GARBAGE = {
    "no HTTP": "garbage\r\n\r\n", "binary": "\x00\x01\x02\x7f" * 100,
    "HTTP/0.9": "<html>hello</html>", "no status": "HTTP/1.1\r\n\r\n",
    "status of letters": "HTTP/1.1 abc OK\r\n\r\n", "negative length":
    "HTTP/1.1 207 OK\r\nContent-Length: -5\r\n\r\n",
    "length of letters": "HTTP/1.1 207 OK\r\nContent-Length: many\r\n\r\n",
    "bad chunk": "HTTP/1.1 207 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n0\r\n\r\n",
    "endless line": "HTTP/1.1 207 " + "x" * 400000,
    "endless headers": "HTTP/1.1 207 OK\r\n" + "X-Header: yyyyyyyyyyyyyyyyyyyyyyyy\r\n" * 40000,
}


@pytest.mark.parametrize("name", GARBAGE)
def test_garbage_is_an_error_and_the_program_goes_on(scene, name):
    scene.script({"raw": GARBAGE[name], "then": "close"}, status(204))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert error_of(reply) in BAD_ANSWER, reply["error"]
        assert drive.call("deleteItem", identifier="/a")["error"] is None


@pytest.mark.parametrize("then", ["close", "drop", "rst"])
@pytest.mark.parametrize("cut", [0, 1, 20, 60])
def test_an_answer_cut_in_its_head_is_a_lost_connection(scene, cut, then):
    scene.script(dict(multistatus(response("/a")), cut=cut, then=then))
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert error_of(reply) in BAD_ANSWER, reply["error"]
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"enumerate / failed: {text}"]
    assert len(scene.asked()) == 1


@pytest.mark.parametrize("then", ["close", "drop", "rst"])
@pytest.mark.parametrize("chunked", [False, True])
def test_a_body_shorter_than_announced_is_an_error(scene, chunked, then):
    answer = dict(multistatus(*(response(f"/{n}") for n in range(20))), chunked=chunked, cut=1000,
                  then=then)
    scene.script(answer)
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert error_of(reply) == LOST
        assert reply["items"] == []


@pytest.mark.parametrize("then", ["close", "drop", "rst"])
def test_a_download_cut_short_leaves_nothing(scene, then):
    scene.script({"fill": 1000000, "cut": 500000, "then": then})
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/a.bin")
        assert error_of(reply) == LOST
        assert reply["url"] is None
        assert reply["progress"] == {"totalUnitCount": 100, "completedUnitCount": 0}
    assert scene.leftovers() == []


def test_an_upload_cut_short_is_an_error(scene):
    body = scene.directory / "body"
    body.write_bytes(b"x" * (8 << 20))
    scene.script({"readBytes": 1 << 20, "cut": 0, "then": "rst"})
    with scene.drive() as drive:
        reply = drive.call("createItem", contents=str(body),
                           item={"filename": "a", "parentItemIdentifier": ROOT})
        assert error_of(reply) == LOST
    assert len(scene.asked()) == 1


def test_an_early_refusal_of_an_upload_is_heard(scene):
    body = scene.directory / "body"
    body.write_bytes(b"x" * (8 << 20))
    scene.script(status(401, readBody=False, then="drain"))
    with scene.drive() as drive:
        reply = drive.call("createItem", contents=str(body),
                           item={"filename": "a", "parentItemIdentifier": ROOT})
        assert error_of(reply) == (FILE_PROVIDER, -1000)


BROKEN = {
    "no length and no closing alert": {"length": None, "then": "drop"},
    "fewer bytes than announced": {"length": 1000, "then": "drop"},
    "a chunk too few": {"chunked": True, "cut": 110, "then": "close"},
    "an unknown coding": {"headers": [["Transfer-Encoding", "gzip"]]},
}


@pytest.mark.parametrize("how", BROKEN)
def test_the_status_counts_where_the_body_is_ignored(scene, how):
    broken = {"body": "0123456789" * 20, **BROKEN[how]}
    rename = {"item": {"itemIdentifier": "/a", "filename": "b", "parentItemIdentifier": ROOT},
              "changedFields": ["filename"]}
    scene.routes({"DELETE /a": status(404, **broken), "MOVE /a": status(412, **broken),
                  "MKCOL /new": status(201, **broken), "PUT /file": status(201, **broken)},
                 responses=[multistatus(response("/made"))])
    body = scene.directory / "body"
    body.write_bytes(b"contents")
    with scene.drive() as drive:
        assert error_of(drive.call("deleteItem", identifier="/a")) == (FILE_PROVIDER, -1004)
        assert error_of(drive.call("modifyItem", **rename)) == (COCOA, 516)
        folder = {"filename": "new", "parentItemIdentifier": ROOT, "contentType": "public.folder"}
        assert drive.call("createItem", item=folder)["error"] is None
        file = {"filename": "file", "parentItemIdentifier": ROOT}
        assert drive.call("createItem", item=file, contents=str(body))["error"] is None


@pytest.mark.parametrize("how", BROKEN)
def test_a_broken_body_that_is_used_is_an_error_whatever_the_status(scene, how):
    broken = {"body": "0123456789" * 20, **BROKEN[how]}
    scene.script(*(status(code, **broken) for code in (207, 404, 207, 404)))
    with scene.drive() as drive:
        for request in ("enumerateItems", "enumerateItems", "fetchContents", "fetchContents"):
            assert error_of(drive.call(request, identifier="/a")) in BAD_ANSWER
    assert scene.leftovers() == []


@pytest.mark.parametrize("coding", ["identity", "gzip", "unknown", "gzip, chunked", ""])
def test_a_file_of_another_coding_than_chunked_is_not_taken_for_whole(scene, coding):
    target = scene.directory / "target"
    scene.script({"raw": f"HTTP/1.1 200 OK\r\nTransfer-Encoding: {coding}\r\n"
                         "Content-Length: 1000\r\n\r\n0123456789", "then": "close"})
    result = scene.run("get", "/a", target)
    assert result.returncode == 1
    assert b"NSURLErrorDomain -1017" in result.stderr
    assert not target.exists()


def test_interim_answers_are_passed_over(scene):
    scene.script(dict(multistatus(response("/a")), interim=[100, 102, 103]))
    with scene.drive() as drive:
        assert len(drive.call("enumerateItems", identifier=ROOT)["items"]) == 1


# ---- bodies --------------------------------------------------------------------------------------


@pytest.mark.parametrize("tail", ["", "<D:response><D:href>/c", "</D:wrong>", "&undefined;", "\x01"])
def test_what_was_whole_before_an_ill_formed_place_is_kept(scene, tail):
    body = HEAD + response("/a") + response("/b") + tail
    scene.script({"status": 207, "body": body})
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
    assert reply["error"] is None
    assert [item["itemIdentifier"] for item in reply["items"]] == ["/a", "/b"]


def test_a_bomb_of_entities_does_no_harm(scene):
    levels = "".join(f'<!ENTITY e{n} "{f"&e{n - 1};" * 10}">' for n in range(1, 12))
    body = (f'<?xml version="1.0"?><!DOCTYPE x [<!ENTITY e0 "boom">{levels}]>'
            f'<D:multistatus xmlns:D="DAV:">{response("/a")}<D:response><D:href>/&e11;</D:href>'
            "</D:response></D:multistatus>")
    scene.script({"status": 207, "body": body})
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
    assert reply["error"] is None
    assert reply["items"][0]["itemIdentifier"] == "/a"
    assert all(len(item["itemIdentifier"]) < 100 for item in reply["items"])


def test_files_named_by_entities_are_not_read(scene):
    secret = scene.directory / "secret"
    secret.write_text("secret words")
    body = (f'<?xml version="1.0"?><!DOCTYPE x [<!ENTITY s SYSTEM "file://{secret}">]>'
            '<D:multistatus xmlns:D="DAV:"><D:response><D:href>/a&s;</D:href></D:response>'
            "</D:multistatus>")
    scene.script({"status": 207, "body": body})
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
    assert "secret words" not in json.dumps(reply)


def test_a_million_responses_arrive(scene):
    count = 1_000_000
    scene.script({"status": 207, "repeat": {
        "before": HEAD, "each": "<D:response><D:href>/f%d</D:href></D:response>", "count": count,
        "after": TAIL}})
    process = start("ls", container=scene.container)
    lines = [line.rstrip(b"\n") for line in process.stdout]
    assert process.wait() == 0, process.stderr.read()
    assert len(lines) == count
    assert lines[0] == b"f0"
    assert lines[-1] == b"f999999"
    process.stderr.close()
    process.stdout.close()


def test_a_listing_of_any_length_is_read(scene):
    count = 30000
    filler = "<x:y xmlns:x='z'>" + "x" * 950 + "</x:y>"
    each = "<D:response><D:href>/f%d</D:href>" + filler * 11 + "</D:response>"
    assert count * len(each) > 280 << 20
    scene.script({"status": 207, "chunked": True, "repeat": {
        "before": HEAD, "each": each, "count": count, "after": TAIL}})
    process = start("ls", "--timeout", "600", container=scene.container)
    lines = [line.rstrip(b"\n") for line in process.stdout]
    assert process.wait() == 0, process.stderr.read()
    assert len(lines) == count
    assert b"f29999" in lines
    process.stderr.close()
    process.stdout.close()


def test_a_response_of_deep_nesting_does_no_harm(scene):
    depth = 200000
    scene.script({"status": 207, "body": HEAD + response("/a") + "<x>" * depth + "</x>" * depth +
                  TAIL})
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert reply["error"] is None
        assert reply["items"][0]["itemIdentifier"] == "/a"


# ---- names ---------------------------------------------------------------------------------------

EVIL = ["/Home/../../etc/passwd", "/Home/..", "/Home/.", "//", "/Home/a%2Fb", "/Home/a%00b",
        "/Home/a%0Ab", "/Home/%1B%5D0;owned%07%1B%5B31m", "/Home/%E2%80%AEgnp.exe",
        "https://127.0.0.1/Home/a", "relative", "/Home/%zz", "/Home/%FF", "/Home/-rf", "/Home/~",
        "/Home/" + "n" * 5000, "/" + "d/" * 5000, "opaquelocktoken:1234"]


def evil_listing():
    return multistatus(*(response(href, size=1, raw=True) for href in EVIL))


def test_harmful_names_are_reported_and_touch_nothing(scene):
    scene.script(evil_listing())
    with scene.drive() as drive:
        items = drive.call("enumerateItems", identifier="/Home")["items"]
    # The list rule compares paths; each of these is another path than the folder's own.
    assert len(items) == len(EVIL)
    names = {item["filename"] for item in items}
    assert {"passwd", "..", "a\nb", "a\0b", "-rf", "%zz", "%FF"} <= names
    assert scene.leftovers() == []
    assert scene.asked() == [("PROPFIND", "/Home/")]


@pytest.mark.parametrize("href", ["/a/../../../etc/x", "/..", "/.", "//x", "/a\nb", "/~", "/-rf"])
def test_a_fetch_never_leaves_the_temporary_directory(scene, href):
    scene.script({"body": "data"}, multistatus())
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier=href)
    assert reply["error"] is None
    file = Path(reply["url"])
    assert file.resolve().parent == scene.temporary.resolve()
    assert file.read_bytes() == b"data"


def test_a_recursive_listing_does_not_run_in_circles(scene):
    loop = multistatus(response("/a/", folder=True), response("/", folder=True),
                       response("/Home/", folder=True), response("/elsewhere/x/", folder=True),
                       response("https://127.0.0.1/y/", folder=True, raw=True))
    scene.routes({"PROPFIND /": loop}, responses=[multistatus(response("/", folder=True))])
    result = scene.run("ls", "-R")
    assert result.returncode == 0
    assert sorted(scene.asked()) == [("PROPFIND", "/"), ("PROPFIND", "/Home/"), ("PROPFIND", "/a/")]


def on_a_terminal(scene, *arguments):
    """What a command writes to a terminal."""
    terminal, other = pty.openpty()
    try:
        process = start(*arguments, container=scene.container, env=scene.environment(),
                        stdout=other, stderr=other)
    finally:
        os.close(other)
    seen = b""
    while True:
        try:
            piece = os.read(terminal, 65536)
        except OSError:  # how the end of a terminal looks
            break
        if not piece:
            break
        seen += piece
    os.close(terminal)
    return process.wait(60), seen


@pytest.mark.parametrize("command", [["ls", "/Home"], ["ls", "-l", "/Home"], ["ls", "-R", "/Home"]])
def test_names_are_escaped_on_a_terminal(scene, command):
    scene.script(evil_listing())
    code, seen = on_a_terminal(scene, *command)
    assert code in (0, 4)
    text = seen.replace(b"\r\x1b[K", b"")  # the line that shows the progress
    assert b"\x1b" not in text and b"\x07" not in text and b"\0" not in text
    assert "\u202e".encode() not in text
    assert b"owned" in text


def test_errors_are_escaped_on_a_terminal(scene):
    scene.script(status(404))
    code, seen = on_a_terminal(scene, "stat", "/\x1b]0;owned\x07")
    assert code == 1
    assert b"\x1b" not in seen and b"\x07" not in seen


def test_names_are_raw_in_a_pipe(scene):
    scene.script(multistatus(response("/a\x1b[31m"), response("/ü")))
    result = scene.run("ls")
    assert result.stdout == b"a\x1b[31m\n\xc3\xbc\n"


# ---- sizes ---------------------------------------------------------------------------------------


def test_a_large_download_does_not_fill_the_memory(scene):
    size = 200 << 20
    scene.script({"fill": size}, multistatus())
    # A sanitizer keeps freed memory for a while; it may keep little here.
    options = os.environ.get("ASAN_OPTIONS", "")
    with scene.drive(env={"ASAN_OPTIONS": options + ":quarantine_size_mb=8"}) as drive:
        reply = drive.call("fetchContents", identifier="/large")
        file = Path(reply["url"])
        assert file.stat().st_size == size
        with file.open("rb") as stream:
            block = bytes(range(256)) * 4096
            while piece := stream.read(len(block)):
                assert piece == block[:len(piece)]
        peak = int(next(line for line in Path(f"/proc/{drive.process.pid}/status").read_text()
                        .splitlines() if line.startswith("VmHWM")).split()[1])
        assert peak * 1024 < size
        file.unlink()


def test_lengths_beyond_all_bounds(scene):
    lengths = {str(2 ** 63 - 1): 2 ** 63 - 1, str(-2 ** 63): -2 ** 63, str(2 ** 63): 0,
               "9" * 100: 0, "+7": 7, "-3": -3, "": 0, "1e3": 0, "0x10": 0, "007": 7}
    scene.script(multistatus(*(response(f"/{n}", size=text)
                               for n, text in enumerate(lengths))))
    with scene.drive() as drive:
        items = drive.call("enumerateItems", identifier=ROOT)["items"]
    assert [item["documentSize"] for item in items] == list(lengths.values())


def test_dates_beyond_all_bounds(scene):
    dates = ["Fri, 31 Dec 9999 23:59:59 GMT", "Mon, 01 Jan 99999999999 00:00:00 GMT",
             "Mon, 01 Jan 0001 00:00:00 GMT", "yesterday", "", "2024-01-01T00:00:00Z"]
    scene.script(multistatus(*(response(f"/{n}", modified=date)
                               for n, date in enumerate(dates))))
    with scene.drive() as drive:
        items = drive.call("enumerateItems", identifier=ROOT)["items"]
        assert drive.finish() == 0
    assert len(items) == len(dates)
    assert items[0]["contentModificationDate"] == 253402300799
    assert [item["contentModificationDate"] for item in items[3:]] == [None] * 3
