"""The operations against real servers, with what each of them cannot do said in its place."""

import hashlib
import os
import time
import unicodedata

import pytest

from driver import COCOA, FILE_PROVIDER, POSIX, ROOT, Drive, error_of, run
from real_server import RealServer, is_installed

SERVERS = ("apache", "rclone", "lighttpd", "nginx")
UNREACHABLE = (FILE_PROVIDER, -1004)
EXISTS = (COCOA, 516)

NAMES = ["plain.txt", "two words.txt", "#hash", "100%", "%41", "a?b", "a&b<c>d", "semi;colon",
         "quo\"te", "apo'strophe", "plus+equals=", "colon:", "back\\slash", "tilde~", "star*",
         "[brackets]", "{braces}", "(parentheses)", "comma,", "at@", "dollar$", "caret^", "pipe|",
         "`tick`", " leading", "trailing ", "dots...", "...", "no extension", "UPPER.TXT",
         "upper.txt", unicodedata.normalize("NFC", "übergröße.txt"),
         unicodedata.normalize("NFD", "übergröße.txt"), "日本語.txt", "עברית", "😀.png",
         "zero\u200bwidth", "-dash", "x" * 200]
CONTROLS = ["line\nfeed", "tab\there", "escape\x1b", "\x01"]


@pytest.fixture(scope="module", params=SERVERS)
def server(request, tmp_path_factory):
    if not is_installed(request.param):
        pytest.skip(f"{request.param} is not installed")
    with RealServer(request.param, tmp_path_factory.mktemp(request.param)) as running:
        yield running


class Place:
    """A folder of its own on a server, the folder as the server's disk has it, and a driver."""

    def __init__(self, server, drive, name, temporary):
        self.server = server
        self.drive = drive
        self.path = "/" + name
        self.folder = server.root / name
        self.temporary = temporary
        self.folder.mkdir()

    def is_(self, *names):
        return self.server.name in names

    def file(self, data, name="local"):
        path = self.temporary / name
        path.write_bytes(data)
        return str(path)

    def create(self, name, data=None, parent=None):
        members = {} if data is None else {"contents": self.file(data)}
        return self.drive.call("createItem", item={"filename": name, "parentItemIdentifier":
                                                   parent or self.path}, **members)

    def create_folder(self, name, parent=None):
        return self.drive.call("createItem", item={
            "filename": name, "parentItemIdentifier": parent or self.path,
            "contentType": "public.folder"})

    def modify(self, name, new_name, fields, parent=None, folder=False, data=None):
        item = {"itemIdentifier": f"{self.path}/{name}", "filename": new_name,
                "parentItemIdentifier": parent or self.path}
        if folder:
            item["contentType"] = "public.folder"
        members = {} if data is None else {"contents": self.file(data)}
        return self.drive.call("modifyItem", item=item, changedFields=fields, **members)

    def names(self, path=None):
        reply = self.drive.call("enumerateItems", identifier=path or self.path)
        assert reply["error"] is None, reply["error"]
        return sorted(item["filename"] for item in reply["items"])

    def fetch(self, name):
        reply = self.drive.call("fetchContents", identifier=f"{self.path}/{name}")
        assert reply["error"] is None, (name, reply["error"])
        with open(reply["url"], "rb") as file:
            return file.read()


@pytest.fixture
def place(server, tmp_path, request):
    temporary = tmp_path / "temporary"
    temporary.mkdir()
    name = "place" + hashlib.sha256(request.node.name.encode()).hexdigest()[:12]
    with Drive(server.container, env={"TMPDIR": str(temporary)}) as drive:
        made = Place(server, drive, name, temporary)
        deadline = time.monotonic() + 60
        while drive.call("item", identifier=made.path)["error"] is not None:
            assert time.monotonic() < deadline, "the server does not notice the new folder"
            time.sleep(0.05)
        yield made


def settle(place):
    """Waits until a server that remembers folders for a moment notices what changed behind it."""
    deadline = time.monotonic() + 60
    while place.is_("rclone") and len(place.names()) != len(os.listdir(place.folder)):
        assert time.monotonic() < deadline, "the server does not notice the changes"
        time.sleep(0.05)


# ---- what every server can do --------------------------------------------------------------------


def test_files_are_created_listed_fetched_replaced_and_deleted(place):
    first, second = b"first\0\xff" * 100, os.urandom(300000)
    assert place.create("a.bin", first)["error"] is None
    assert (place.folder / "a.bin").read_bytes() == first
    assert place.names() == ["a.bin"]
    assert place.fetch("a.bin") == first
    reply = place.modify("a.bin", "a.bin", ["contents"], data=second)
    assert reply["error"] is None
    assert reply["item"]["documentSize"] == len(second)
    assert (place.folder / "a.bin").read_bytes() == second
    assert place.fetch("a.bin") == second
    assert place.drive.call("deleteItem", identifier=f"{place.path}/a.bin")["error"] is None
    assert os.listdir(place.folder) == []
    assert place.names() == []


def test_an_empty_file_makes_the_round(place):
    reply = place.create("empty")
    assert reply["error"] is None
    assert reply["item"]["documentSize"] == 0
    assert (place.folder / "empty").stat().st_size == 0
    assert place.fetch("empty") == b""


def test_files_are_renamed_with_new_contents(place):
    place.create("a", b"old")
    reply = place.modify("a", "b c", ["filename", "contents"], data=b"new")
    assert reply["error"] is None
    assert reply["item"]["itemIdentifier"] == f"{place.path}/b c"
    assert os.listdir(place.folder) == ["b c"]
    assert (place.folder / "b c").read_bytes() == b"new"


def test_a_move_never_replaces_a_file(place):
    place.create("a", b"a")
    place.create("b", b"b")
    assert error_of(place.modify("a", "b", ["filename"])) == EXISTS
    assert (place.folder / "a").read_bytes() == b"a"
    assert (place.folder / "b").read_bytes() == b"b"


def test_the_item_is_the_same_from_every_request(place):
    (place.folder / "a.txt").write_bytes(b"hello")
    os.utime(place.folder / "a.txt", (1700000000, 1700000000))
    settle(place)
    identifier = f"{place.path}/a.txt"
    [listed] = place.drive.call("enumerateItems", identifier=place.path)["items"]
    looked_up = place.drive.call("item", identifier=identifier)["item"]
    fetched = place.drive.call("fetchContents", identifier=identifier)["item"]
    assert listed == looked_up == fetched
    assert listed["contentType"] == "public.plain-text"
    assert listed["documentSize"] == 5
    assert listed["contentModificationDate"] == 1700000000
    assert listed["itemVersion"]["contentVersion"].endswith("|1700000000|5")


def test_missing_items_are_refused(place):
    missing = f"{place.path}/missing"
    for reply in (place.drive.call("item", identifier=missing),
                  place.drive.call("fetchContents", identifier=missing),
                  place.drive.call("enumerateItems", identifier=missing),
                  place.drive.call("deleteItem", identifier=missing),
                  place.modify("missing", "other", ["filename"])):
        assert error_of(reply) == UNREACHABLE


def test_a_file_in_a_missing_folder_is_refused(place):
    assert error_of(place.create("a", b"x", parent=place.path + "/missing")) == UNREACHABLE
    assert not (place.folder / "missing").exists()


def test_a_wrong_password_is_told_as_such(place, tmp_path):
    import json
    values = json.loads((place.server.container / "fp-webdav.json").read_text())
    container = tmp_path / "container"
    container.mkdir()
    (container / "fp-webdav.json").write_text(json.dumps(dict(values, **{"pass": "wrong"})))
    with Drive(container) as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert error_of(reply) == (FILE_PROVIDER, -1000)
    assert run("ls", container=container).returncode == 1


def test_protected_folders_are_left_alone(place):
    home = place.server.root / "Home"
    (home / "Apps").mkdir(parents=True, exist_ok=True)
    for reply in (place.create("x", b"x", parent="/Home/Apps"),
                  place.create_folder("x", parent="/Home/Apps"),
                  place.drive.call("deleteItem", identifier="/Home/Apps")):
        assert error_of(reply) == (POSIX, 1)
    assert os.listdir(home / "Apps") == []


def test_many_files_are_listed_at_once(place):
    names = sorted(f"file {number}.txt" for number in range(2000))
    for name in names:
        (place.folder / name).touch()
    settle(place)
    assert place.names() == names


def test_many_requests_at_once(place):
    data = {f"f{number}": os.urandom(20000) for number in range(40)}
    for name, content in data.items():
        (place.folder / name).write_bytes(content)
    settle(place)
    ids = {name: place.drive.send("fetchContents", identifier=f"{place.path}/{name}")
           for name in data}
    for name, number in ids.items():
        with open(place.drive.reply(number)["url"], "rb") as file:
            assert file.read() == data[name]


def test_a_large_file_makes_the_round(place):
    data = os.urandom(1 << 20) * 24
    assert place.create("large.bin", data)["error"] is None
    digest = hashlib.sha256(data).hexdigest()
    assert hashlib.sha256((place.folder / "large.bin").read_bytes()).hexdigest() == digest
    assert hashlib.sha256(place.fetch("large.bin")).hexdigest() == digest


# ---- names ---------------------------------------------------------------------------------------


def test_odd_names_make_the_round(place):
    for name in NAMES:
        data = name.encode("utf-8")
        assert place.create(name, data)["error"] is None, name
        assert (place.folder / name).read_bytes() == data, name
    # nginx leaves out what begins with a full stop.
    shown = [name for name in NAMES if not (place.is_("nginx") and name.startswith("."))]
    assert place.names() == sorted(shown)
    for name in NAMES:
        assert place.fetch(name) == name.encode("utf-8")
        assert place.modify(name, name + "'", ["filename"])["error"] is None, name
        assert place.drive.call("deleteItem",
                                identifier=f"{place.path}/{name}'")["error"] is None, name
    assert os.listdir(place.folder) == []


def test_control_characters_in_names(place):
    for name in CONTROLS:
        (place.folder / name).write_bytes(name.encode())
    settle(place)
    if place.is_("rclone"):
        # It shows symbols in their place, under which they can be fetched.
        assert place.names() == sorted("".join(
            chr(0x2400 + ord(c)) if c < " " else c for c in name) for name in CONTROLS)
        return
    if place.is_("nginx"):
        # It writes them as they are, which ends the listing there, without an error.
        assert set(place.names()) <= set(CONTROLS)
        return
    assert place.names() == sorted(CONTROLS)
    # lighttpd lists them, and refuses them in a request.
    for name in CONTROLS if place.is_("apache") else ():
        assert place.fetch(name) == name.encode()


def test_names_that_are_no_utf8_do_no_harm(place):
    with open(os.fsencode(place.folder) + b"/bad\xff", "wb") as file:
        file.write(b"x")
    (place.folder / "good").write_bytes(b"y")
    settle(place)
    names = place.names()
    if place.is_("nginx"):
        assert set(names) <= {"good"}
        return
    assert "good" in names
    assert len(names) == 2


# ---- folders -------------------------------------------------------------------------------------


def test_folders_are_created_and_listed(place):
    reply = place.create_folder("new folder")
    if place.is_("nginx"):
        # It wants a slash at the end, which is never sent.
        assert error_of(reply) == UNREACHABLE
        assert os.listdir(place.folder) == []
        return
    assert reply["error"] is None
    assert reply["item"]["contentType"] == "public.folder"
    assert (place.folder / "new folder").is_dir()
    assert place.names() == ["new folder"]
    again = place.create_folder("new folder")
    # rclone is content with a folder that is there.
    assert error_of(again) == (None if place.is_("rclone") else UNREACHABLE)


def test_folders_are_renamed_with_all_that_is_in_them(place):
    (place.folder / "d" / "inner").mkdir(parents=True)
    (place.folder / "d" / "inner" / "f").write_bytes(b"x")
    settle(place)
    reply = place.modify("d", "e", ["filename"], folder=True)
    if place.is_("nginx", "lighttpd"):
        # Both want a slash at the end; lighttpd answers with a redirect, which is not followed.
        assert error_of(reply) == UNREACHABLE
        assert os.listdir(place.folder) == ["d"]
        return
    assert reply["error"] is None
    assert os.listdir(place.folder) == ["e"]
    assert (place.folder / "e" / "inner" / "f").read_bytes() == b"x"
    assert place.names(place.path + "/e/inner") == ["f"]


def test_folders_are_deleted_with_all_that_is_in_them(place):
    (place.folder / "d" / "inner").mkdir(parents=True)
    (place.folder / "d" / "inner" / "f").write_bytes(b"x")
    settle(place)
    reply = place.drive.call("deleteItem", identifier=f"{place.path}/d")
    if place.is_("nginx"):
        assert error_of(reply) == UNREACHABLE
        assert os.listdir(place.folder) == ["d"]
        return
    assert reply["error"] is None
    assert os.listdir(place.folder) == []


def test_files_move_between_folders(place):
    (place.folder / "d").mkdir()
    settle(place)
    place.create("a", b"x")
    reply = place.modify("a", "a", ["parentItemIdentifier"], parent=place.path + "/d")
    assert reply["error"] is None
    assert reply["item"]["parentItemIdentifier"] == place.path + "/d"
    assert (place.folder / "d" / "a").read_bytes() == b"x"
    assert not (place.folder / "a").exists()


def test_a_move_onto_a_folder(place):
    (place.folder / "d").mkdir()
    settle(place)
    place.create("a", b"x")
    reply = place.modify("a", "d", ["filename"])
    if place.is_("lighttpd"):
        # It puts the file inside, although overwriting is refused, and calls that done.
        assert reply["error"] is None
        assert (place.folder / "d" / "a").read_bytes() == b"x"
        return
    assert error_of(reply) in (EXISTS, UNREACHABLE) if place.is_("nginx") else EXISTS
    assert (place.folder / "a").read_bytes() == b"x"


def test_a_listing_of_a_file(place):
    place.create("a", b"x")
    reply = place.drive.call("enumerateItems", identifier=f"{place.path}/a")
    if place.is_("apache", "lighttpd"):
        assert error_of(reply) == UNREACHABLE
    else:
        # They list the file itself, which is left out as every folder's own entry is.
        assert (reply["error"], reply["items"]) == (None, [])


def test_versions_tell_edits_of_one_size_apart(place):
    def version():
        return place.drive.call("item", identifier=f"{place.path}/a")["item"]["itemVersion"]

    (place.folder / "a").write_bytes(b"one")
    os.utime(place.folder / "a", (1600000000, 1600000000))
    settle(place)
    first = version()
    (place.folder / "a").write_bytes(b"two")
    os.utime(place.folder / "a", (1600000001, 1600000001))
    deadline = time.monotonic() + 60
    while version() == first:
        assert time.monotonic() < deadline, "the edit does not show"
        time.sleep(0.05)


def test_doctor_is_content(server):
    result = run("doctor", container=server.container)
    assert result.returncode == 0, result.stdout
