"""The direct commands: what they print, what they send, and how they end."""

import json
import resource
import subprocess

import pytest

from driver import COCOA, FILE_PROVIDER, POSIX, ROOT, start
from multistatus import multistatus, response, status

DONE, FAILED, USAGE, NOT_CONFIGURED, PARTLY_FAILED, UNWRITABLE = range(6)
DATE = "Tue, 15 Nov 1994 08:12:31 GMT"
FILE = response("/Home/a.txt", size=12, etag='"abc"', modified=DATE)
FOLDER = response("/Home/", folder=True)


def report(result):
    """The one JSON object that a command printed."""
    [line] = result.stdout.decode("utf-8").splitlines()
    return json.loads(line)


def error(result):
    assert result.stderr == b""
    value = report(result)["error"]
    assert set(value) == {"domain", "code", "localizedDescription", "userInfo", "status", "reason"}
    return value["domain"], value["code"]


# ---- usage ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [
    [], ["explode"], ["ls", "/a", "/b"], ["ls", "--wrong"], ["stat"], ["get"], ["put", "x"],
    ["mv", "/a"], ["mkdir"], ["rm"], ["--container"], ["rm", "-x", "/a"], ["drive", "extra"],
    ["rm", "/"], ["rm", "-r", "/"], ["rm", "-r", "//"], ["mkdir", "/"], ["mv", "/", "/a"],
    ["stat", "/a/../b"], ["ls", ".."], ["rm", "-r", "/a/."], ["put", __file__, "/a/.."]])
def test_wrong_usage_sends_nothing(scene, arguments):
    result = scene.run(*arguments)
    assert result.returncode == USAGE
    assert result.stdout == b""
    assert result.stderr
    assert scene.asked() == []


@pytest.mark.parametrize("arguments, what, where", [
    (["explode"], "explode: there is no such command", ""),
    (["--wrong"], "--wrong: there is no such option", ""), ([], "a command is missing", ""),
    (["ls", "--wrong"], "ls: The following argument was not expected: --wrong", "ls "),
    (["stat"], "stat: PATH is required", "stat "),
    (["mount", "--cache-limit", "0", "x"], '--cache-limit: "0" is no size above 0', "mount "),
    (["mount", "--streaming", "0", "x"], '--streaming: "0" is neither off nor a size', "mount "),
    (["mount", "--cache-limit", "-1G", "x"], '--cache-limit: "-1G" is no size above 0', "mount "),
    (["mount", "--cache-limit", "1X", "x"], '--cache-limit: "1X" is no size above 0', "mount ")])
def test_wrong_usage_is_named_with_its_command(scene, arguments, what, where):
    result = scene.run(*arguments)
    assert result.returncode == USAGE
    line, hint = result.stderr.decode().splitlines()
    assert line.startswith("kestrowan: ") and what in line and len(line) < 100
    assert hint == f'  see "kestrowan {where}--help"'


@pytest.mark.parametrize("arguments", [
    ["explode"], ["ls", "--wrong"], ["rm", "/"], ["evict", ""], ["mount", "--fsync=x", "x"]])
def test_wrong_usage_is_told_in_json_too(scene, arguments):
    result = scene.run("--json", *arguments)
    assert result.returncode == USAGE
    assert error(result) == ("kestrowan", USAGE)


@pytest.mark.parametrize("arguments", [["--help"], ["--version"], ["ls", "--help"]])
def test_help_that_cannot_be_written_is_an_error(scene, arguments):
    with open("/dev/full", "wb") as full:
        result = scene.run(*arguments, stdout=full)
    assert result.returncode == UNWRITABLE
    assert b"No space left" in result.stderr


@pytest.mark.parametrize("arguments", [
    ["--help"], ["--version"], *([command, "--help"] for command in (
        "ls", "stat", "get", "put", "mkdir", "mv", "rm", "drive", "doctor"))])
def test_help_is_given(scene, arguments):
    result = scene.run(*arguments)
    assert (result.returncode, result.stderr) == (DONE, b"")
    assert result.stdout
    if arguments[0] != "--version" and len(arguments) == 2:
        assert b"kestrowan " + arguments[0].encode() in result.stdout, "an example is shown"


# ---- ls and stat ---------------------------------------------------------------------------------


SIZES_AND_DATES = multistatus(
    FOLDER, response("/Home/z", size=2048, modified="Tue, 15 Nov 1994 08:12:32 GMT"),
    response("/Home/a b", size=5, modified="Tue, 15 Nov 1994 08:12:33 GMT"),
    response("/Home/m", size=3000, modified=DATE), response("/Home/ü/", folder=True))


@pytest.mark.parametrize("flags, names", [
    ([], "a b|m|z|ü"), (["-1"], "a b|m|z|ü"), (["-r"], "ü|z|m|a b"), (["-t"], "a b|z|m|ü"),
    (["-S"], "m|z|a b|ü"), (["-S", "-r"], "ü|a b|z|m"), (["-tr"], "ü|m|z|a b")])
def test_ls_prints_names_in_the_order_that_is_asked_for(scene, flags, names):
    scene.script(SIZES_AND_DATES)
    result = scene.run("ls", *flags, "/Home")
    assert (result.returncode, result.stderr) == (DONE, b"")
    assert result.stdout.decode() == names.replace("|", "\n") + "\n"
    assert scene.asked() == [("PROPFIND", "/Home/")]


@pytest.mark.parametrize("path", [None, "/", "//", ""])
def test_ls_lists_the_root_when_nothing_else_is_said(scene, path):
    scene.script(multistatus(response("/Home/", folder=True)))
    result = scene.run("ls", *([] if path is None else [path]))
    assert result.stdout == b"Home\n"
    assert scene.asked() == [("PROPFIND", "/")]


def test_ls_long_shows_kind_capabilities_size_and_date(scene):
    scene.script(multistatus(FOLDER, FILE, response("/Home/d/", folder=True),
                             response("/Home/Apps/", folder=True)))
    result = scene.run("ls", "-l", "--utc", "/Home")
    lines = [line.split() for line in result.stdout.decode().splitlines()]
    assert lines == [["dr---", "-", "-", "Apps"],
                     ["-rwnx", "12", "1994-11-15", "08:12:31", "a.txt"], ["drwnx", "-", "-", "d"]]


def test_dates_are_those_of_this_machines_zone(scene):
    scene.script(multistatus(FOLDER, FILE))
    zone = {"TZ": "XYZ-05:30"}
    result = scene.run("ls", "-l", "/Home", env=zone)
    assert b"1994-11-15 13:42:31" in result.stdout
    scene.script(multistatus(FILE), multistatus(FILE))
    result = scene.run("stat", "/Home/a.txt", env=zone)
    assert b"1994-11-15 13:42:31 +0530" in result.stdout
    result = scene.run("stat", "--utc", "/Home/a.txt", env=zone)
    assert b"1994-11-15 08:12:31 +0000" in result.stdout


def test_ls_shows_sizes_in_short(scene):
    scene.script(SIZES_AND_DATES)
    result = scene.run("ls", "-lSh", "/Home")
    sizes = [line[5:20].strip() for line in result.stdout.decode().splitlines()]
    assert sizes == ["2.9 KiB", "2.0 KiB", "5 B", "-"]


def test_help_is_a_command_too(scene):
    assert scene.run("help").stdout == scene.run("--help").stdout
    assert scene.run("help", "ls").stdout == scene.run("ls", "--help").stdout
    for name in ("explode", "__describe"):
        result = scene.run("help", name)
        assert result.returncode == USAGE
        assert f"{name}: there is no such command".encode() in result.stderr


def test_ls_recursive_walks_the_tree(scene):
    scene.routes({
        "PROPFIND /": multistatus(response("/", folder=True), response("/b/", folder=True),
                                  response("/f")),
        "PROPFIND /b/": multistatus(response("/b/", folder=True), response("/b/c/", folder=True)),
        "PROPFIND /b/c/": multistatus(response("/b/c/", folder=True), response("/b/c/g"))})
    result = scene.run("ls", "-R")
    assert result.returncode == DONE
    assert result.stdout.decode() == "/:\nb\nf\n\n/b:\nc\n\n/b/c:\ng\n"


def test_ls_recursive_goes_on_after_a_failure_and_says_so(scene):
    scene.routes({
        "PROPFIND /": multistatus(response("/a/", folder=True), response("/b/", folder=True)),
        "PROPFIND /a/": status(403), "PROPFIND /b/": multistatus(response("/b/g"))})
    result = scene.run("ls", "-R")
    assert result.returncode == PARTLY_FAILED
    assert b"/b:\ng\n" in result.stdout
    assert b"/a: " in result.stderr


def test_ls_in_json_gives_whole_items(scene):
    scene.script(multistatus(FOLDER, FILE))
    result = scene.run("--json", "ls", "/Home")
    assert set(report(result)) == {"items"}
    [item] = report(result)["items"]
    assert item["itemIdentifier"] == "/Home/a.txt"
    assert item["itemVersion"] == {"contentVersion": "abc|784887151|12",
                                   "metadataVersion": "abc|784887151|12"}


def test_stat_shows_one_item(scene):
    scene.script(multistatus(FILE))
    result = scene.run("stat", "/Home/a.txt")
    assert result.returncode == DONE
    for text in (b"/Home/a.txt", b"public.plain-text", b"12 bytes", b"abc|784887151|12"):
        assert text in result.stdout
    result = scene.run("--json", "stat", "/Home/a.txt")
    assert set(report(result)) == {"item"}
    assert report(result)["item"]["filename"] == "a.txt"


def test_stat_of_the_root_asks_nobody(scene):
    result = scene.run("--json", "stat", "/")
    assert report(result)["item"]["itemIdentifier"] == ROOT
    assert scene.asked() == []


# ---- get and put ---------------------------------------------------------------------------------


def test_get_writes_the_file_it_is_told(scene):
    scene.script({"body": "data"}, multistatus(FILE))
    target = scene.directory / "target"
    target.write_text("before")
    result = scene.run("get", "/Home/a.txt", target)
    assert (result.returncode, result.stdout, result.stderr) == (DONE, b"", b"")
    assert target.read_text() == "data"
    assert scene.asked() == [("GET", "/Home/a.txt"), ("PROPFIND", "/Home/a.txt")]


@pytest.mark.parametrize("argument", [None, ".", "folder"])
def test_get_takes_the_servers_name_in_a_folder(scene, argument):
    scene.script({"body": "data"}, multistatus(FILE))
    (scene.directory / "folder").mkdir()
    result = scene.run("get", "/Home/a.txt", *([argument] if argument else []),
                       cwd=scene.directory)
    assert result.returncode == DONE, result
    folder = scene.directory / (argument if argument == "folder" else ".")
    assert (folder / "a.txt").read_text() == "data"


def test_get_writes_to_standard_output(scene):
    scene.script({"fill": 300000}, multistatus(FILE))
    result = scene.run("get", "/Home/a.txt", "-")
    assert result.returncode == DONE
    assert result.stdout == (bytes(range(256)) * 1172)[:300000]
    assert scene.leftovers() == []


def test_a_failed_get_keeps_the_old_file(scene):
    target = scene.directory / "target"
    target.write_text("before")
    for answer in (status(404), {"fill": 10000, "cut": 5000}):
        scene.script(answer)
        before = sorted(path.name for path in scene.directory.iterdir())
        assert scene.run("get", "/a", target).returncode == FAILED
        assert target.read_text() == "before"
        assert sorted(path.name for path in scene.directory.iterdir()) == before


def test_a_get_that_finds_no_room_names_the_local_file(scene):
    scene.script({"fill": 300000}, multistatus(FILE))
    target = scene.directory / "target"
    result = scene.run("get", "/Home/a.txt", target, preexec_fn=lambda: resource.setrlimit(
        resource.RLIMIT_FSIZE, (1000, 1000)))
    assert result.returncode == FAILED, result
    assert f"kestrowan: {target}: the local file could not be written".encode() in result.stderr
    assert not target.exists()


def test_put_sends_a_file_under_the_name_it_is_told(scene):
    body = scene.directory / "body.bin"
    body.write_bytes(b"\0\1\2")
    scene.script(status(201), multistatus(FILE))
    result = scene.run("put", body, "/Home/a.txt")
    assert (result.returncode, result.stdout, result.stderr) == (DONE, b"", b"")
    assert scene.raw(0).endswith(b"\r\n\r\n\0\1\2")
    scene.run("put", body, "/Home/")
    assert scene.asked() == [("PUT", "/Home/a.txt"), ("PROPFIND", "/Home/a.txt"),
                             ("PUT", "/Home/body.bin"), ("PROPFIND", "/Home/body.bin")]


def test_put_of_what_is_no_file_sends_nothing(scene):
    for path in (scene.directory / "missing", scene.directory):
        result = scene.run("put", path, "/a")
        assert result.returncode == FAILED
        assert f"kestrowan: {path}: the local file is".encode() in result.stderr
    assert scene.asked() == []


# ---- mkdir, mv, rm -------------------------------------------------------------------------------


def test_mkdir_makes_a_folder(scene):
    scene.script(status(201), multistatus(response("/New/", folder=True)))
    result = scene.run("--json", "mkdir", "/New")
    assert report(result)["item"]["contentType"] == "public.folder"
    assert scene.asked() == [("MKCOL", "/New"), ("PROPFIND", "/New")]


def folder_at(path):
    return multistatus(response(path + "/", folder=True))


def test_mkdir_makes_each_of_several_folders(scene):
    scene.routes({"MKCOL /a": status(201), "MKCOL /b": status(403), "MKCOL /c": status(201),
                  **{f"PROPFIND /{name}": folder_at(f"/{name}") for name in "abc"}})
    result = scene.run("mkdir", "/a", "/b", "/c")
    assert result.returncode == PARTLY_FAILED
    assert result.stderr.startswith(b"kestrowan: /b: ")
    made = [target for method, target in scene.asked() if method == "MKCOL"]
    assert made == ["/a", "/b", "/c"]


def test_mkdir_makes_the_folders_above_too(scene):
    gone = status(404)
    scene.script(status(409), gone, gone,  # /a/b, nothing there, nor its folder
                 status(201), folder_at("/a"), status(201), folder_at("/a/b"))
    result = scene.run("--json", "mkdir", "-p", "/a/b")
    assert result.returncode == DONE, result.stdout
    assert report(result)["item"]["itemIdentifier"] == "/a/b"
    assert [each for each in scene.asked() if each[0] == "MKCOL"] == [
        ("MKCOL", "/a/b"), ("MKCOL", "/a"), ("MKCOL", "/a/b")]


@pytest.mark.parametrize("there, code", [
    (folder_at("/a"), DONE), (multistatus(response("/a")), FAILED)])
def test_mkdir_with_parents_takes_a_folder_that_is_there(scene, there, code):
    scene.script(status(405), there, there)
    assert scene.run("mkdir", "-p", "/a").returncode == code
    scene.script(status(405), there, there)
    assert scene.run("mkdir", "/a").returncode == FAILED


@pytest.mark.parametrize("to, target", [("/Home/b.txt", "/Home/b.txt"), ("/Docs/", "/Docs/a.txt"),
                                        ("/", "/a.txt")])
def test_mv_moves(scene, to, target):
    scene.script(multistatus(FILE), status(201), multistatus(FILE))
    result = scene.run("mv", "/Home/a.txt", to)
    assert (result.returncode, result.stderr) == (DONE, b"")
    assert scene.asked() == [("PROPFIND", "/Home/a.txt"), ("MOVE", "/Home/a.txt"),
                             ("PROPFIND", target)]
    assert f"Destination: https://127.0.0.1:{scene.server.port}{target}\r\n".encode() in scene.raw(1)


def test_mv_does_not_overwrite(scene):
    scene.script(multistatus(FILE), status(412))
    result = scene.run("--json", "mv", "/Home/a.txt", "/Home/b.txt")
    assert result.returncode == FAILED
    assert error(result) == (COCOA, 516)
    assert report(result)["path"] == "/Home/b.txt"
    scene.script(multistatus(FILE), status(412))
    result = scene.run("mv", "/Home/a.txt", "/Home/b.txt")
    assert b"kestrowan: /Home/b.txt: already there (412 to MOVE, " in result.stderr


def test_rm_removes_a_file_and_asks_before_a_folder(scene):
    scene.script(multistatus(FILE), status(204))
    assert scene.run("rm", "/Home/a.txt").returncode == DONE
    assert scene.asked()[-1] == ("DELETE", "/Home/a.txt")
    scene.script(multistatus(response("/Home/d/", folder=True)), status(204))
    result = scene.run("rm", "/Home/d")
    assert result.returncode == USAGE
    assert b"-r" in result.stderr
    scene.script(multistatus(response("/Home/d/", folder=True)), status(204))
    assert scene.run("rm", "-r", "/Home/d").returncode == DONE
    assert [method for method, _ in scene.asked()].count("DELETE") == 2


def test_rm_removes_each_of_several(scene):
    scene.routes({"PROPFIND /Home/a": multistatus(response("/Home/a")), "DELETE /Home/a": status(204),
                  "PROPFIND /Home/d": folder_at("/Home/d"), "PROPFIND /Home/gone": status(404),
                  "PROPFIND /Home/z": multistatus(response("/Home/z")), "DELETE /Home/z": status(204)})
    result = scene.run("rm", "/Home/a", "/Home/d", "/Home/gone", "/Home/z")
    assert result.returncode == PARTLY_FAILED
    assert b"/Home/d: is a folder" in result.stderr and b"/Home/gone: not there" in result.stderr
    deleted = [target for method, target in scene.asked() if method == "DELETE"]
    assert deleted == ["/Home/a", "/Home/z"]


def test_rm_by_force_takes_what_is_not_there_as_removed(scene):
    scene.script(status(404))
    assert scene.run("rm", "/gone").returncode == FAILED
    scene.script(status(404))
    result = scene.run("rm", "-f", "/gone")
    assert (result.returncode, result.stderr) == (DONE, b"")
    scene.script(status(500))
    assert scene.run("rm", "-f", "/gone").returncode == FAILED


@pytest.mark.parametrize("arguments", [
    ["mkdir", "/Home/Apps/x"], ["put", __file__, "/Home/.hidden/x"],
    ["mv", "/Home/Apps", "/Home/x"], ["mv", "/Home/a.txt", "/Home/Caches/a.txt"],
    ["rm", "-r", "/Home/Backups"]])
def test_protected_folders_refuse_and_nothing_is_changed(scene, arguments):
    scene.script(multistatus(FILE))
    result = scene.run("--json", *arguments)
    assert result.returncode == FAILED
    assert error(result) == (POSIX, 1)
    assert all(method == "PROPFIND" for method, _ in scene.asked())


def test_what_may_not_be_deleted_is_not(scene):
    scene.script(multistatus(FOLDER))
    assert error(scene.run("--json", "rm", "-r", "/Home")) == (POSIX, 1)
    assert error(scene.run("--json", "mv", "/Home", "/House")) == (POSIX, 1)
    assert all(method == "PROPFIND" for method, _ in scene.asked())


@pytest.mark.parametrize("identifier", ["https://127.0.0.1/x", "opaquelocktoken:1"])
def test_an_answer_with_another_path_does_not_delete_the_root(scene, identifier):
    scene.script(multistatus(response(identifier, raw=True)), status(204))
    scene.run("rm", "-r", "/Home/x")
    assert ("DELETE", "/") not in scene.asked()


# ---- failures ------------------------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [
    ["ls", "/Home"], ["stat", "/Home/a"], ["get", "/Home/a", "-"], ["put", __file__, "/Home/a"],
    ["mkdir", "/Home/a"], ["mv", "/Home/a", "/Home/b"], ["rm", "/Home/a"]])
@pytest.mark.parametrize("code, expected", [(401, -1000), (404, -1004), (500, -1004)])
def test_a_refused_request_is_told_in_words_or_json(scene, arguments, code, expected):
    scene.script(status(code))
    result = scene.run("--json", *arguments)
    assert result.returncode == FAILED
    assert error(result) == (FILE_PROVIDER, expected)
    result = scene.run(*arguments)
    assert (result.returncode, result.stdout) == (FAILED, b"")
    assert f"{FILE_PROVIDER} {expected}".encode() in result.stderr
    assert b"/Home" in result.stderr


HERE = multistatus(response("/Home/d/", folder=True))
A_FILE = multistatus(response("/Home/d", size=3))
ABOVE = multistatus(response("/Home/", folder=True))


@pytest.mark.parametrize("arguments, answers, reason, text", [
    (["ls", "/Home/d"], [status(404)], "missing", "not there (404 to PROPFIND, "),
    (["stat", "/Home/d"], [status(404)], "missing", "not there (404 to PROPFIND, "),
    (["rm", "/Home/d"], [status(404)], "missing", "not there (404 to PROPFIND, "),
    (["get", "/Home/d", "-"], [status(404)], "missing", "not there (404 to GET, "),
    (["get", "/Home/d", "-"], [status(403), HERE], "is-folder", "is a folder; list it with ls"),
    (["get", "/Home/d", "-"], [status(403), A_FILE], "forbidden",
     "the server forbids it (403 to GET, "),
    (["put", __file__, "/Home/d"], [status(405), HERE], "is-folder", "is a folder; to put the file"),
    (["put", __file__, "/Home/d"], [status(507), A_FILE], "full",
     "no room at the server (507 to PUT, "),
    (["put", __file__, "/Home/d"], [status(409), status(404), status(404)], "no-folder",
     "its folder /Home is not there (409 to PUT, "),
    (["mkdir", "/Home/d"], [status(405), HERE], "exists", "already there (405 to MKCOL, "),
    (["mkdir", "/Home/d"], [status(405), A_FILE], "exists", "already there, and a file"),
    (["mkdir", "/Home/d"], [status(409), status(404), A_FILE], "no-folder",
     "/Home is a file, not a folder"),
    (["mkdir", "/Home/d"], [status(403), status(404), ABOVE], "forbidden",
     "the server forbids it (403 to MKCOL, "),
    (["mv", "/Home/a", "/Home/d"], [A_FILE, status(412), HERE], "exists",
     "already there, and a folder; to move into it, end the path in \"/\" (412 to MOVE, "),
    (["rm", "/Home/d"], [A_FILE, status(423)], "locked", "locked at the server (423 to DELETE, "),
    (["ls", "/Home/d"], [status(503)], "unavailable", "the server cannot do it at present"),
])
def test_what_the_server_answered_and_what_a_look_shows_explain_a_failure(scene, arguments, answers,
                                                                         reason, text):
    scene.script(*answers)
    result = scene.run("--json", *arguments)
    assert result.returncode == FAILED
    error(result)
    value = report(result)
    no = next(one["status"] for one in answers if one.get("status", 200) >= 400)
    assert (value["error"]["reason"], value["error"]["status"]) == (reason, no)
    assert value["path"] == "/Home/d"
    scene.script(*answers)
    result = scene.run(*arguments)
    assert f"kestrowan: /Home/d: {text}".encode() in result.stderr
    assert b"remove" not in result.stderr


def test_without_an_answer_there_is_no_status(scene):
    scene.script({"cut": 0})
    value = report(scene.run("--json", "ls", "/Home"))["error"]
    assert (value["status"], value["reason"]) == (None, "connection-lost")
    value = report(scene.run("--json", "ls", "--wrong"))["error"]
    assert (value["status"], value["reason"]) == (None, "usage")


def test_the_text_of_an_answer_is_not_shown(scene):
    scene.script(status(403, body="\x1b[31mowned"))
    result = scene.run("mkdir", "/Home/d")
    assert b"403 to MKCOL" in result.stderr
    assert b"owned" not in result.stderr + result.stdout


def test_requests_are_traced_on_demand(scene):
    scene.script(multistatus(FILE, response("/Home/b\x1b", size=1)), status(403))
    assert b"http: " not in scene.run("ls", "/Home").stderr
    scene.script(multistatus(FILE), status(403))
    lines = scene.run("--trace", "http", "rm", "/Home/a\x1b").stderr.decode().splitlines()
    assert lines[0].startswith("kestrowan: http: PROPFIND /Home/a\\u001B: 207, 0 bytes sent, ")
    assert lines[1].startswith("kestrowan: http: DELETE /Home/a\\u001B: 403, 0 bytes sent, ")
    assert scene.run("--trace", "all", "ls").returncode == USAGE


def test_the_extensions_log_is_shown_on_demand(scene):
    scene.script(status(500))
    log = b"[com.kestrowan.app.FileProvider:ext] error: enumerate /Home failed: "
    assert log not in scene.run("ls", "/Home").stderr
    assert log in scene.run("--verbose", "ls", "/Home").stderr


def test_a_local_file_that_cannot_be_written_is_told_in_json_too(scene):
    result = scene.run("--json", "get", "/a", scene.directory / "missing" / "a")
    assert result.returncode == UNWRITABLE
    assert report(result)["error"]["code"] == UNWRITABLE
    assert b"No such file" in result.stderr


@pytest.mark.parametrize("arguments", [["ls", "-l"], ["--json", "ls"], ["get", "/a", "-"],
                                       ["stat", "/"], ["doctor"]])
def test_a_full_output_is_an_error(scene, arguments):
    scene.script(multistatus(*(response(f"/{n}") for n in range(1000))))
    with open("/dev/full", "wb") as full:
        result = scene.run(*arguments, stdout=full)
    assert result.returncode == UNWRITABLE
    assert b"No space left" in result.stderr
    assert scene.leftovers() == []


def test_a_reader_that_goes_away_ends_the_command(scene):
    scene.script({"fill": 20 << 20}, multistatus())
    process = start("get", "/a", "-", container=scene.container, env=scene.environment())
    process.stdout.read(1000)
    process.stdout.close()
    assert process.wait(120) == UNWRITABLE
    assert process.stderr.read() == b""
    process.stderr.close()
    assert scene.leftovers() == []


def test_a_closed_standard_output_is_an_error(scene):
    scene.script(multistatus(response("/a")))
    result = scene.run("ls", preexec_fn=lambda: __import__("os").close(1),
                       stderr=subprocess.PIPE, stdout=None)
    assert result.returncode == UNWRITABLE
