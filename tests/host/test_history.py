"""The history of a mount, and the commands that show, restore and clear it."""

import contextlib
import os
import sqlite3

import pytest

from hosted import DONE, FAILED, NOT_MOUNTED, USAGE, wait_for

TEBIBYTE = 1 << 40


@pytest.fixture
def documents(own_place):
    own_place.mount().ready()
    return own_place.point / "Home" / "Documents"


def entries(place, *arguments):
    return place.ask("history", *arguments)["entries"]


def test_what_was_replaced_or_removed_can_be_restored(own_place, documents):
    (documents / "d").mkdir()
    (documents / "d" / "a.txt").write_text("first")
    own_place.wait_synced()
    (documents / "d" / "a.txt").write_text("second")
    own_place.wait_synced()
    (documents / "d" / "a.txt").unlink()
    (documents / "d").rmdir()
    own_place.wait_synced()

    found = entries(own_place, documents)
    assert [entry["path"] for entry in found] == ["/Home/Documents/d/a.txt"] * 2
    assert {entry["reason"] for entry in found} == {"replaced", "removed"}
    assert {entry["confirmed"] for entry in found} == {"once"}
    assert own_place.status()["history"]["files"] == 2
    assert sorted(own_place.history()) == [b"first", b"second"]

    first = next(entry["id"] for entry in found if entry["size"] == 5)
    result = own_place.run("restore", str(first))
    assert result.returncode == DONE, result.stderr
    assert os.fsencode(documents / "d" / "a.txt") in result.stdout
    assert (documents / "d" / "a.txt").read_text() == "first"
    again = own_place.ask("restore", str(first))
    assert again["path"] == "/Home/Documents/d/a (2).txt"
    own_place.wait_synced()


def test_a_file_is_restored_where_it_is_told_to(own_place, documents):
    (documents / "a.txt").write_text("first")
    own_place.wait_synced()
    (documents / "a.txt").unlink()
    own_place.wait_synced()
    number = str(entries(own_place, documents / "a.txt")[0]["id"])
    (documents / "d").mkdir()
    assert own_place.ask("restore", number, "--to", documents / "d")["path"].endswith("/d/a.txt")
    assert own_place.ask("restore", number, "--to", documents / "b")["path"].endswith("/b")
    assert (documents / "b").read_text() == "first"
    taken = own_place.run("restore", number, "--to", documents / "b")
    assert taken.returncode == FAILED
    assert b"already" in taken.stderr
    nowhere = own_place.run("restore", number, "--to", documents / "none" / "b")
    assert nowhere.returncode == FAILED
    assert own_place.run("restore", "987654321").returncode == FAILED
    assert own_place.run("restore", number, "--to", own_place.directory).returncode == NOT_MOUNTED


def test_the_table_is_for_people(own_place, documents):
    (documents / "a.txt").write_text("first")
    own_place.wait_synced()
    (documents / "a.txt").unlink()
    own_place.wait_synced()
    shown = own_place.run("history").stdout.decode()
    number = entries(own_place, documents)[0]["id"]
    row = next(line for line in shown.splitlines() if str(number) in line)
    assert "removed" in row and "5 B" in row and str(documents / "a.txt") in row
    assert "kestrowan restore" in shown
    assert "History:" in own_place.run("status").stdout.decode()


def test_the_history_is_cleared_only_when_that_is_confirmed(own_place, documents):
    for name in ("a.txt", "b.txt"):
        (documents / name).write_text("first")
        own_place.wait_synced()
        (documents / name).unlink()
    own_place.wait_synced()
    refused = own_place.run("history", "--clear", documents / "a.txt")
    assert refused.returncode == USAGE
    assert b"--yes" in refused.stderr
    assert own_place.status()["history"]["files"] == 2
    assert own_place.ask("history", "--clear", "--yes", "--older-than", "1")["cleared"] == 0
    assert own_place.ask("history", "--clear", "--yes", documents / "a.txt")["cleared"] == 1
    assert own_place.ask("history", "--clear", "--yes")["cleared"] == 1
    assert entries(own_place) == []
    assert own_place.run("history", "--older-than", "1").returncode == USAGE


def test_what_never_reached_the_server_stays_and_fills_the_history(own_place, server):
    own_place.mount("--history-limit", "1000").ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "a.txt").write_text("here")
    own_place.wait_synced()
    server._control("stop")
    try:
        (documents / "b.txt").write_bytes(b"x" * 1001)
        wait_for(lambda: own_place.status()["state"] != "online", "trouble with the server")
        (documents / "b.txt").unlink()
        wait_for(lambda: own_place.status()["history"]["full"], "a full history")
        with pytest.raises(OSError, match="No space left"):
            (documents / "c.txt").write_text("new")
        assert (documents / "a.txt").read_text() == "here"
        assert b"kestrowan history --clear" in own_place.run("status").stdout
        own_place.ask("history", "--clear", "--yes")
        (documents / "c.txt").write_text("new")
    finally:
        server._control("start", "--parent", str(os.getpid()))
    own_place.wait_synced()


def test_files_with_holes_count_as_what_they_take(own_place, server):
    """Also when a version of the program that counted their sizes has kept them."""
    mounted = own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    server._control("stop")
    try:
        for number in range(8):
            with open(documents / f"sparse {number}", "wb") as file:
                file.write(b"begin")
                file.truncate(TEBIBYTE)
            (documents / f"sparse {number}").unlink()
        for name in ("small", "as small"):
            kept = own_place.status()["history"]
            assert not kept["full"]
            assert kept["files"] == 8
            assert 0 < kept["bytes"] < TEBIBYTE
            assert [entry["size"] for entry in entries(own_place)] == [TEBIBYTE] * 8
            assert b"1.0 TiB" in own_place.run("history").stdout
            (documents / name).write_text("written")
            assert mounted.end() == DONE
            with contextlib.closing(sqlite3.connect(own_place.state / "replica.db")) as database:
                database.execute("ALTER TABLE history DROP COLUMN allocated")
                database.execute("PRAGMA user_version=100")
            mounted = own_place.mount().ready()
    finally:
        server._control("start", "--parent", str(os.getpid()))


def test_it_outlives_a_kill_and_takes_over_what_earlier_versions_kept(own_place):
    mounted = own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "a.txt").write_text("first")
    own_place.wait_synced()
    (documents / "a.txt").write_text("second")
    mounted.kill()
    former = own_place.state / "recovery"
    former.mkdir()
    (former / "2026-01-31T12-00-00Z report.txt").write_text("of before")
    own_place.mount().ready()
    assert not former.exists()
    assert {b"first", b"of before"} <= set(own_place.history())
    assert "report.txt" in [entry["path"] for entry in entries(own_place) if "path" in entry]
