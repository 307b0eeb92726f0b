"""Conflicts at a mount of a real server: the commands that show and resolve them."""

import json

import pytest

from hosted import DONE, FAILED, PARTLY_FAILED, USAGE, wait_for


@pytest.fixture
def mount(place, folder):
    """The test's folder, as the mount shows it."""
    place.mount().ready()
    return place.point / "Home" / folder.name


def make_conflict(place, folder, mount, name):
    """A file of which both sides have changed; gives the path of the version from here."""
    (folder / name).write_text("common")
    wait_for((mount / name).exists, "file")
    with open(mount / name, "r+b") as file:
        file.write(b"mine, longer")
        (folder / name).write_text("theirs")
    place.wait_synced()
    [copy] = [each for each in mount.iterdir()
              if each.name.startswith(name + " (conflict ")]
    return copy


def conflicts(place):
    result = place.run("--json", "conflicts")
    assert result.returncode == DONE, result.stderr
    return [json.loads(line) for line in result.stdout.splitlines()]


def test_conflicts_are_listed_until_they_are_resolved(place, folder, mount):
    assert place.run("conflicts").stdout == b"no conflicts\n"
    copy = make_conflict(place, folder, mount, "letter")
    assert place.run("conflicts").stdout.decode() == f"mine:   {copy}\ntheirs: {mount}/letter\n"
    top = str(place.point)
    assert conflicts(place) == [{"path": str(copy).removeprefix(top),
                                 "theirs": str(mount / "letter").removeprefix(top),
                                 "mountPoint": top}]
    assert place.run("conflicts", "keep-both", copy).stdout == b"both stay\n"
    assert conflicts(place) == []
    assert (mount / "letter").read_text() == "theirs"
    assert copy.read_text() == "mine, longer"


@pytest.mark.parametrize("action, stays, goes", [
    ("keep-mine", "mine, longer", b"theirs"), ("keep-theirs", "theirs", b"mine, longer")])
def test_one_version_stays_and_the_other_one_is_in_the_history(place, folder, mount, action, stays,
                                                                goes):
    copy = make_conflict(place, folder, mount, "letter")
    assert (mount / "letter").read_text() == "theirs"
    result = place.run("conflicts", action, copy)
    assert (result.returncode, result.stderr) == (DONE, b"")
    assert result.stdout.decode() == f"{mount}/letter stays; the other version is in the history\n"
    place.wait_synced()
    assert (folder / "letter").read_text() == stays
    assert [each.name for each in folder.iterdir()] == ["letter"]
    entries = place.ask("history", mount)["entries"]
    place.run("restore", str(entries[0]["id"]), "--to", mount / "other")
    assert (mount / "other").read_bytes() == goes


def test_several_are_resolved_at_once_whatever_becomes_of_one(place, folder, mount):
    copies = [make_conflict(place, folder, mount, name) for name in ("a", "b")]
    (mount / "plain").write_text("x")
    result = place.run("conflicts", "keep-theirs", copies[0], mount / "plain", mount / "b")
    assert result.returncode == PARTLY_FAILED
    assert f"{mount}/plain: there is no conflict about it".encode() in result.stderr
    assert conflicts(place) == []
    place.wait_synced()
    assert sorted(each.name for each in folder.iterdir()) == ["a", "b", "plain"]


def test_what_is_no_conflict_or_no_action_is_an_error(place, mount):
    assert place.run("conflicts", "keep-mine", mount).returncode == FAILED
    assert place.run("conflicts", "keep-mine").returncode == USAGE
    assert place.run("conflicts", "keep-all", mount).returncode == USAGE
