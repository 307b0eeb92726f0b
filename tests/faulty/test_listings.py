"""Listings that are cut, short, or none at all."""

import os
import time

import pytest

from hosted import wait_for
from hosting import outcome
from multistatus import HEAD, TAIL, response
from trees import read_tree

OLD = b"old contents"
NEW = b"new contents, a little longer"
FILES = 12


def with_body(body, **members):
    return {"status": 207, "headers": [["Content-Type", "application/xml"]], "body": body,
            **members}


def entries(answer):
    """The listing's response elements, of which the first is the folder's own."""
    body = answer["body"][len(HEAD):-len(TAIL)]
    return [piece + "</D:response>" for piece in body.split("</D:response>")[:-1]]


def shortened(count, tail=TAIL):
    return lambda answer: with_body(HEAD + "".join(entries(answer)[:count + 1]) + tail)


def cut_unseen(answer):
    """Nothing announces how long it is, so nobody notices that it ends early."""
    return {**answer, "length": None, "headers": [*answer["headers"], ["Connection", "close"]],
            "cut": 1200, "then": "close"}


# Answers that succeed and are not the whole listing.
SHORT = {
    "third": shortened(FILES // 3),
    "one": shortened(1),
    "nothing": shortened(0),
    "less-than-nothing": shortened(-1),
    "torn": shortened(3, "<D:response><D:href>/Ho"),
    "ill-formed": shortened(3, "</wrong>"),
    "cut": cut_unseen,
    "page": {"status": 200, "headers": [["Content-Type", "text/html"]],
             "body": "<!DOCTYPE html><html><body><p>Please log in<br></body></html>"},
    "empty": {"status": 200, "headers": [], "body": ""},
    "no-content": {"status": 204, "headers": [], "body": ""},
    "spaces": with_body(" " * 1000),
    "json": {"status": 200, "headers": [], "body": '{"error": "busy"}'},
    "binary": with_body("\x00\x01\x02" * 1000),
    "other-xml": with_body('<?xml version="1.0"?><error xmlns="DAV:"/>'),
}


# Listings of ten files and "there.txt", of an announced length, whose XML is not all there.
PARTIAL = {
    "early": shortened(2, "<D:response><D:href>/Ho"),
    "late": shortened(8, "<D:response><D:href>/Ho"),
    "long": lambda answer: with_body("".join([
        HEAD, *entries(answer)[:4], response("/Home/" + "x" * 70_000), *entries(answer)[5:-1],
        TAIL])),
}
PARTLY = "a listing did not come whole and removes nothing"
WHOLE = "the listing came whole again"


def partial_folders(scene):
    """Those in the test's folder that status names."""
    paths = [one["path"] for one in scene.place.status()["partialFolders"]]
    return sorted(path[len(scene.path) + 1:] for path in paths if path.startswith(scene.path))


def said(scene, text):
    """How often the host's log says that of the test's folders."""
    return {kind: sum(text in line and f"{scene.path}/{kind}" in line
                      for line in scene.place.mounts[0].lines) for kind in PARTIAL}


# The first test: the host's log leaves lines out when many are alike within a minute.
def test_a_listing_whose_xml_is_not_whole_removes_nothing_and_allows_no_new_file(scene):
    for kind in PARTIAL:
        for number in range(10):
            scene.put(f"{kind}/{number}.txt", OLD)
    expected = read_tree(scene.home)
    assert expected == scene.tree()
    faults = [scene.fault("PROPFIND", kind, depth="1", answer=answer)
              for kind, answer in PARTIAL.items()]
    for kind in PARTIAL:
        scene.put(f"{kind}/there.txt", OLD)

    def all_partial():
        assert read_tree(scene.home) == expected
        return partial_folders(scene) == sorted(PARTIAL)

    wait_for(all_partial, "word of the folders")
    made = [f"{kind}/{name}" for kind in PARTIAL for name in ("new.txt", "there.txt")]
    for path in made:
        (scene.home / path).write_bytes(NEW)
        expected[f"/{path}"] = NEW
    wait_for(lambda: {scene.state(path) for path in made} == {"retrying"}, "refusals")
    before = [fault.met for fault in faults]

    def asked_again():
        assert read_tree(scene.home) == expected
        return all(fault.met > count for fault, count in zip(faults, before))

    wait_for(asked_again, "listings")
    assert partial_folders(scene) == sorted(PARTIAL)
    assert said(scene, PARTLY) == dict.fromkeys(PARTIAL, 1)
    assert f"as of {scene.path}/" in scene.place.run("doctor").stdout.decode()
    assert scene.asked("PUT", "DELETE", "MOVE") == []
    for kind in PARTIAL:
        expected[f"/{kind}/there.txt"] = OLD
        expected[f"/{kind}/there (2).txt"] = NEW
    scene.settle(expected)
    wait_for(lambda: partial_folders(scene) == [], "whole listings")
    assert said(scene, PARTLY) == said(scene, WHOLE) == dict.fromkeys(PARTIAL, 1)


def cut_listings(scene, name, times):
    """Folders whose listings are cut at one place or another, so many times; none is listed yet."""
    cases = {f"{name}-{cut}-{then}": {"cut": cut, "then": then}
             for cut in (0, 1, 100, 400, 1000, 2500) for then in ("close", "drop", "rst")}
    for case, answer in cases.items():
        for number in range(8):
            scene.put(f"{case}/{number}.txt", OLD)
        scene.fault("PROPFIND", case, depth="1", times=times, answer=answer)
    os.listdir(scene.home)
    # Backwards, since those that follow may be listed ahead.
    return sorted(cases, reverse=True)


def test_a_listing_that_is_cut_is_asked_for_again(scene):
    for case in cut_listings(scene, "once", 1):
        assert len(os.listdir(scene.home / case)) == 8, case
    scene.settle(scene.tree())


def test_a_listing_that_is_always_cut_is_an_error_and_the_next_one_is_whole(scene):
    cases = cut_listings(scene, "always", None)
    for case in cases:
        assert outcome(os.listdir, scene.home / case) == "EIO", case
    scene.dav.heal()
    for case in cases:
        assert len(os.listdir(scene.home / case)) == 8, case
    scene.settle(scene.tree())


def test_a_listing_that_is_cut_removes_nothing(scene):
    for number in range(8):
        scene.put(f"{number}.txt", OLD)
    seen = read_tree(scene.home)
    assert len(seen) == 8
    fault = scene.fault("PROPFIND", depth="1", times=2, answer={"cut": 1500, "then": "close"})
    scene.keeps_showing(seen, fault)
    scene.settle(seen)


def test_a_listing_that_suddenly_lacks_most_removes_nothing(scene):
    for case in SHORT:
        for number in range(FILES):
            scene.put(f"{case}/{number:02}.txt", OLD)
    names = [f"{number:02}.txt" for number in range(FILES)]
    for case in SHORT:
        assert sorted(os.listdir(scene.home / case)) == names
        # One file is here, one is changed and cannot be sent.
        assert (scene.home / case / "10.txt").read_bytes() == OLD
        (scene.home / case / "11.txt").write_bytes(NEW)
    scene.dav.fault("PUT", None, answer={"status": 503}, effect=False)
    faults = [scene.fault("PROPFIND", case, depth="1", answer=answer)
              for case, answer in SHORT.items()]

    def all_met():
        assert [case for case in SHORT if sorted(os.listdir(scene.home / case)) != names] == []
        return all(fault.met for fault in faults)

    wait_for(all_met, "listings")
    assert all_met()
    expected = {path: NEW if path.endswith("11.txt") else now
                for path, now in scene.tree().items()}
    assert read_tree(scene.home) == expected
    scene.settle(expected)
    assert scene.conflicts() == []
    assert not [path for method, path in scene.asked("DELETE", "MOVE")]


def test_an_answer_that_is_no_listing_makes_an_empty_folder_only_for_a_while(scene):
    """A folder that was never listed has nothing to be compared with."""
    for case in SHORT:
        for number in range(FILES):
            scene.put(f"{case}/{number:02}.txt", OLD)
        scene.fault("PROPFIND", case, depth="1", times=1, answer=SHORT[case])
    shown = set()
    for case in sorted(SHORT, reverse=True):
        assert len(os.listdir(scene.home / case)) < FILES
        # A listing that did not come whole is asked for again before something is made.
        (scene.home / case / "new.txt").write_bytes(NEW)
        if "11.txt" in os.listdir(scene.home / case):
            shown.add(case)
        else:
            # What this listing left out is there all the same.
            (scene.home / case / "11.txt").write_bytes(NEW)
    assert "nothing" not in shown
    scene.place.wait_synced()
    tree = scene.tree()
    for case in SHORT:
        assert tree[f"/{case}/new.txt"] == NEW
        assert tree[f"/{case}/11.txt"] == OLD
        assert (tree.get(f"/{case}/11 (2).txt") == NEW) == (case not in shown)
    scene.settle(tree)


def test_what_of_a_listing_could_be_read_is_shown(scene):
    shown = {"early": 2, "late": 8, "long": 9}
    for kind in PARTIAL:
        for number in range(11):
            scene.put(f"{kind}/{number:02}.txt", OLD)
        scene.fault("PROPFIND", kind, depth="1", times=1, answer=PARTIAL[kind])
    for kind in sorted(PARTIAL, reverse=True):
        assert len(os.listdir(scene.home / kind)) == shown[kind], kind
    scene.settle(scene.tree())


def test_a_file_that_another_client_has_just_made_is_opened_at_the_first_try(scene):
    scene.put("a.txt", OLD)
    listed = time.monotonic()
    assert os.listdir(scene.home) == ["a.txt"]
    # As old as a listing may be that is still believed of what is there.
    wait_for(lambda: time.monotonic() > listed + 5, "age of the listing")
    scene.put("b.txt", NEW)
    assert (scene.home / "b.txt").read_bytes() == NEW
    assert outcome((scene.home / "c.txt").read_bytes) == "ENOENT"


@pytest.mark.parametrize("size", [3, 30], ids=["shorter", "longer"])
def test_what_is_appended_goes_behind_what_another_client_has_just_written(scene, size):
    """The kernel knows the size of before, and does not ask for another one when it appends."""
    scene.put("a.txt", b"a" * 10)
    listed = time.monotonic()
    assert os.stat(scene.home / "a.txt").st_size == 10
    wait_for(lambda: time.monotonic() > listed + 5, "age of the listing")
    scene.put("a.txt", b"b" * size)
    # What `open` makes asks for the size.
    file = os.open(scene.home / "a.txt", os.O_WRONLY | os.O_APPEND)
    os.write(file, b"-one")
    os.write(file, b"-two")
    os.close(file)
    expected = b"b" * size + b"-one-two"
    assert (scene.home / "a.txt").read_bytes() == expected
    scene.settle({"/a.txt": expected})


def test_what_a_small_folder_lacks_once_stays_when_it_is_here(scene):
    scene.put("a.txt", OLD)
    scene.put("b.txt", OLD)
    seen = read_tree(scene.home)
    assert set(seen) == {"/a.txt", "/b.txt"}
    fault = scene.fault("PROPFIND", depth="1", times=1, answer=shortened(0))
    scene.keeps_showing(seen, fault)
    scene.settle({"/a.txt": OLD, "/b.txt": OLD})


def test_what_keeps_missing_leaves_the_view_and_its_contents_are_kept(scene):
    scene.put("a.txt", b"only here since")
    scene.put("changed.txt", OLD)
    assert set(read_tree(scene.home)) == {"/a.txt", "/changed.txt"}
    scene.dav.fault("PUT", None, answer={"status": 503}, effect=False)
    (scene.home / "changed.txt").write_bytes(NEW)
    scene.dav.remove(f"{scene.path}/a.txt")
    scene.dav.remove(f"{scene.path}/changed.txt")
    wait_for(lambda: os.listdir(scene.home) == ["changed.txt"], "removal")
    assert b"only here since" in scene.place.history()
    scene.settle({"/changed.txt": NEW})


def test_a_folder_is_not_removed_on_the_word_of_one_bad_listing(scene):
    for case in SHORT:
        scene.put(f"{case}/a.txt", OLD)
    os.listdir(scene.home)
    before = scene.tree()
    for case in sorted(SHORT, reverse=True):
        scene.fault("PROPFIND", case, depth="1", times=1, answer=(
            {"cut": 1, "then": "rst"} if case in ("one", "third", "cut") else SHORT[case]))
        outcome(os.listdir, scene.home / case)
        assert outcome(os.rmdir, scene.home / case) == "ENOTEMPTY", case
    assert not scene.asked("DELETE")
    scene.settle(before)
