"""Listings that name other places, impossible names, or the same name twice."""

import os

from hosting import outcome
from multistatus import TAIL, response
from trees import read_tree

OLD = b"old contents"
SIZE = 5


def adding(*entries):
    """Answers with more entries than there are."""
    return lambda given: {**given, "body": given["body"][:-len(TAIL)] + "".join(entries) + TAIL}


def entry(href, **members):
    return response(href, raw=True, **{"size": SIZE, "etag": '"x"', **members})


def hrefs_of_others(scene):
    """What no entry of the folder may be called."""
    return [f"{scene.path}/..", f"{scene.path}/../", f"{scene.path}/.", f"{scene.path}/sub/inner",
            f"{scene.path}/../outside", f"{scene.path}/..%2foutside", f"{scene.path}/%2e%2e",
            f"{scene.path}/%2e%2e/%2e%2e/etc/passwd", f"{scene.path}/a%2Fb", f"{scene.path}/%2F",
            f"{scene.path}/nul%00", f"{scene.path}/%00", f"{scene.path}/" + "x" * 256,
            f"{scene.path}/" + "%C3%A4" * 128, "/", "//", "/Home", "/Home/", "/Home/outside",
            "outside", "./outside", "../outside", "*", "?", "#", " ", "%", "%2e",
            "https://127.0.0.1/Home/outside", "https://example.com" + scene.path + "/remote",
            "//example.com" + scene.path + "/remote", "file:///etc/passwd",
            "opaquelocktoken:e71d4fae-5dec-22d6-fea5-00a0c91e6be4", "urn:uuid:1", "mailto:a@b",
            "javascript:alert(1)", scene.path[1:] + "/relative", "\\..\\..\\outside",
            f"{scene.path}2/outside", f"{scene.path}/sub//inner", f"{scene.path}/./a"]


def test_entries_of_other_places_are_not_shown_and_never_asked_for(scene):
    scene.put("a.txt", OLD)
    scene.put("sub/inner", OLD)
    scene.dav.put("/Home/outside", b"not to be touched")
    before = dict(scene.dav.files)
    entries = [entry(href, folder=folder) for href in hrefs_of_others(scene)
               for folder in (False, True)]
    scene.fault("PROPFIND", depth="1", answer=adding(*entries))
    assert sorted(os.listdir(scene.home)) == ["a.txt", "sub"]
    assert scene.place.status()["refusedEntries"] >= len(entries) // 2
    for path in ("..%2foutside", "%2e%2e", "a%2Fb", "nul", "remote", "relative", "outside",
                 "x" * 255, "opaquelocktoken:e71d4fae-5dec-22d6-fea5-00a0c91e6be4"):
        assert outcome(os.unlink, scene.home / path) == "ENOENT", path
        assert outcome(os.rmdir, scene.home / path) == "ENOENT", path
        assert outcome(open, scene.home / path, "rb") == "ENOENT", path
    assert read_tree(scene.home) == {"/a.txt": OLD, "/sub": None, "/sub/inner": OLD}
    # Whatever else is done goes on in its place.
    (scene.home / "a.txt").write_bytes(b"new")
    os.rename(scene.home / "sub" / "inner", scene.home / "inner")
    os.rmdir(scene.home / "sub")
    scene.settle({"/a.txt": b"new", "/inner": OLD})
    assert {path: now for path, now in scene.dav.files.items()
            if not path.startswith(scene.path + "/")} == {
                path: now for path, now in before.items()
                if not path.startswith(scene.path + "/")}
    assert ("DELETE", "/") not in scene.dav.asked() and ("PUT", "/") not in scene.dav.asked()


def test_the_root_and_what_lies_in_it_stay(scene):
    home = scene.place.point / "Home"
    scene.dav.log.clear()
    assert outcome(os.rmdir, home) == "ENOTEMPTY"
    assert outcome(os.unlink, home) == "EISDIR"
    assert outcome(os.rename, home, scene.place.point / "Away") == "EPERM"
    assert outcome(os.rmdir, scene.place.point) == "EBUSY"
    assert scene.dav.asked("DELETE", "MOVE") == []
    assert os.listdir(scene.place.point) == ["Home"]


def test_a_folder_whose_entries_are_all_of_other_places_is_not_removed(scene):
    scene.dav.makeFolder(f"{scene.path}/sub")
    scene.fault("PROPFIND", "sub", depth="1", answer=adding(entry("/Home/elsewhere")))
    assert os.listdir(scene.home / "sub") == []
    assert outcome(os.rmdir, scene.home / "sub") == "ENOTEMPTY"
    assert not scene.asked("DELETE")
    scene.settle({"/sub": None})


def test_a_lock_token_in_an_entry_proves_nothing_about_the_file(scene):
    """The last href of a response counts, and some servers write lock tokens there."""
    for name in ("a.txt", "b.txt", "c.txt"):
        scene.put(name, OLD)
    assert sorted(read_tree(scene.home)) == ["/a.txt", "/b.txt", "/c.txt"]
    (scene.home / "b.txt").write_bytes(b"changed")
    expected = {"/a.txt": OLD, "/b.txt": b"changed", "/c.txt": OLD}

    def locked(given):
        body = given["body"].replace(
            "b.txt</D:href>", "b.txt</D:href><D:lockdiscovery><D:activelock><D:locktoken><D:href>"
            "opaquelocktoken:1</D:href></D:locktoken></D:activelock></D:lockdiscovery>")
        return {**given, "body": body}

    scene.keeps_showing(expected, scene.fault("PROPFIND", depth="1", times=2, answer=locked))
    scene.settle(expected)


def test_an_owners_address_that_is_another_files_does_not_replace_that(scene):
    scene.put("a.txt", b"the contents of a")
    scene.put("b.txt", b"b")
    body = "b.txt</D:href>"
    scene.fault("PROPFIND", depth="1", answer=lambda given: {**given, "body": given["body"].replace(
        body, body + f"<D:owner><D:href>{scene.path}/a.txt</D:href></D:owner>")})
    assert os.listdir(scene.home) == ["a.txt"]
    assert os.stat(scene.home / "a.txt").st_size == len(b"the contents of a")
    assert (scene.home / "a.txt").read_bytes() == b"the contents of a"
    scene.settle({"/a.txt": b"the contents of a", "/b.txt": b"b"})


def test_of_two_entries_with_one_name_the_first_counts(scene):
    scene.put("a.txt", OLD)
    scene.fault("PROPFIND", depth="1", answer=adding(
        entry(f"{scene.path}/a.txt", size=99), entry(f"{scene.path}/a.txt", folder=True),
        entry(f"{scene.path}/%61.txt"), entry(f"{scene.path}/a.txt/")))
    assert os.listdir(scene.home) == ["a.txt"]
    assert os.stat(scene.home / "a.txt").st_size == len(OLD)
    assert (scene.home / "a.txt").read_bytes() == OLD
    scene.settle({"/a.txt": OLD})


def test_odd_names_are_files_like_others(scene):
    names = ["with space", "%41", "100%", "a;b", "a?b", "a#b", "new\nline", "\x1b[31mred", "\x7f",
             "tab\t", " leading", "trailing ", "dot.", "...", "-rf", "*", "con", "a:b", "a\\b",
             "https:", "~", "&amp;", "<b>", "'\"", "e\u0301", "\u202etxt.exe", "\U0001f600",
             "x" * 255, "opaquelocktoken:1"]
    for name in names:
        # Control characters have no place in XML, but in the escapes of a URL they do.
        scene.put(name, name.encode())
    assert sorted(os.listdir(scene.home)) == sorted(names)
    for name in names:
        assert (scene.home / name).read_bytes() == name.encode()
        (scene.home / name).write_bytes(b"changed " + name.encode())
    scene.settle({"/" + name: b"changed " + name.encode() for name in names})
    for line in scene.place.mounts[-1].lines:
        assert "\x1b" not in line


def test_names_that_are_no_utf8_stay_on_the_server(scene):
    """The extension cannot decode their escapes, so it knows them by their escapes, which would
    be escaped once more in a request."""
    scene.put("a.txt", OLD)
    scene.put("inv\udcff\udcfealid", b"bytes")
    scene.put("late\udce4n", b"bytes")
    before = scene.tree()
    for name in sorted(os.listdir(scene.home)):
        scene.dav.admit(f"{scene.path}/{name}")
        if name != "a.txt":
            assert outcome(lambda name=name: (scene.home / name).read_bytes()) == "EIO", name
    (scene.home / "a.txt").write_bytes(b"new")
    scene.place.wait_synced()
    assert scene.tree() == {**before, "/a.txt": b"new"}


def test_names_in_the_log_are_one_harmless_line(scene):
    name = "evil\n[com.kestrowan] error: forged \x1b]0;title\x07"
    scene.put(name, OLD)
    scene.fault("GET", name, answer=lambda _: {"status": 200, "body": "too short"})
    assert outcome(open, scene.home / name, "rb") == "EIO"
    host = scene.place.mounts[-1]
    host.wait_said("another size than announced")
    assert any("forged" in line and "another size" in line for line in host.lines)
    assert not any(line.startswith("[com.kestrowan] error: forged") for line in host.lines)
    assert not any("\x1b" in line or "\x07" in line for line in host.lines)
    scene.settle({"/" + name: OLD})


def test_a_redirect_is_an_error_and_not_followed(scene):
    scene.put("a.txt", OLD)
    scene.put("secret.txt", b"of another")
    scene.put("sub/b.txt", OLD)
    os.listdir(scene.home)
    for status in (301, 302, 303, 307, 308):
        # As often as it is asked for.
        scene.fault("GET", "a.txt", times=3, effect=False, answer={
            "status": status, "headers": [["Location", f"{scene.path}/secret.txt"]]})
        assert outcome(open, scene.home / "a.txt", "rb") == "EIO"
    scene.fault("PROPFIND", "sub", depth="1", times=3, effect=False, answer={
        "status": 302, "headers": [["Location", f"{scene.path}/"]]})
    assert outcome(os.listdir, scene.home / "sub") == "EIO"
    fault = scene.fault("PUT", "new.txt", times=1, effect=False, answer={
        "status": 307, "headers": [["Location", f"{scene.path}/secret.txt"]]})
    (scene.home / "new.txt").write_bytes(b"new")
    scene.dav.waitFor(lambda: fault.met)
    assert scene.read("secret.txt") == b"of another"
    assert ("GET", "/secret.txt") not in scene.asked()
    scene.settle({"/a.txt": OLD, "/secret.txt": b"of another", "/sub": None, "/sub/b.txt": OLD,
                  "/new.txt": b"new"})
