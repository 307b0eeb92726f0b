"""Work on a mount of a real server, and the commands that look after it."""

import contextlib
import errno
import fcntl
import hashlib
import json
import os
import pty
import shutil
import struct
import subprocess
import termios
import time
from pathlib import Path

import pytest

import driver
from hosted import DONE, FAILED, NOT_MOUNTED, PARTLY_FAILED, TIMED_OUT, USAGE, wait_for
from multistatus import multistatus, response
from scripted_server import ScriptedServer

CHUNK = bytes(range(256)) * 4096


@pytest.fixture
def mount(place, folder):
    """The test's folder, as the mount shows it."""
    place.mount().ready()
    return place.point / "Home" / folder.name


def test_ordinary_work_arrives_on_the_server(place, folder, mount):
    (mount / "notes.txt").write_text("one\n")
    with open(mount / "notes.txt", "a", encoding="ascii") as file:
        file.write("two\n")
    (mount / "deep" / "er").mkdir(parents=True)
    (mount / "deep" / "er" / "big.bin").write_bytes(CHUNK)
    (mount / "gone.txt").write_text("x")
    (mount / "gone.txt").unlink()
    os.rename(mount / "notes.txt", mount / "deep" / "renamed.txt")
    shutil.copytree(mount / "deep", mount / "copy")
    place.wait_synced()
    assert (folder / "deep" / "renamed.txt").read_text() == "one\ntwo\n"
    assert (folder / "deep" / "er" / "big.bin").read_bytes() == CHUNK
    assert (folder / "copy" / "er" / "big.bin").read_bytes() == CHUNK
    assert sorted(os.listdir(folder)) == ["copy", "deep"]


def test_a_save_by_renaming_replaces_the_file(place, folder, mount):
    (folder / "letter.txt").write_text("old")
    assert (mount / "letter.txt").read_text() == "old"
    (mount / ".letter.txt.new").write_text("new")
    os.replace(mount / ".letter.txt.new", mount / "letter.txt")
    place.wait_synced()
    assert (folder / "letter.txt").read_text() == "new"
    assert os.listdir(folder) == ["letter.txt"]


def test_what_the_server_protects_is_refused_at_once(place, mount):
    home = place.point / "Home"
    for path in (home / "Apps", home / ".hidden"):
        with pytest.raises(PermissionError):
            path.mkdir()
        with pytest.raises(PermissionError):
            path.write_text("x")
    assert place.status()["pending"]["count"] == 0


def test_work_goes_on_without_the_server_and_arrives_when_it_is_back(own_place, server):
    own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "report.txt").write_text("draft")
    (documents / "old.txt").write_text("old")
    own_place.wait_synced()

    server._control("stop")
    (documents / "report.txt").write_text("final")
    (documents / "Letters").mkdir()
    (documents / "Letters" / "mum.txt").write_text("dear mum")
    (documents / "old.txt").unlink()
    assert (documents / "report.txt").read_text() == "final"
    assert sorted(os.listdir(documents)) == ["Letters", "report.txt"]
    wait_for(lambda: own_place.status()["state"] != "online", "trouble with the server")
    assert own_place.status()["pending"]["count"] == 4
    shown = own_place.run("status").stdout.decode()
    assert "Server:    in reach" not in shown
    assert "To send:   4 changes" in shown and "Letters/mum.txt" in shown
    assert own_place.ask("wait", "--timeout", "0", code=TIMED_OUT)["pending"] == 4

    server._control("start", "--parent", str(os.getpid()))
    own_place.wait_synced()
    on_server = server.root / "Home" / "Documents"
    assert (on_server / "report.txt").read_text() == "final"
    assert (on_server / "Letters" / "mum.txt").read_text() == "dear mum"
    assert sorted(os.listdir(on_server)) == ["Letters", "report.txt"]
    assert own_place.status()["pending"] == {"count": 0, "bytes": 0, "items": []}


# ---- commands ------------------------------------------------------------------------------------


def test_status_counts_what_is_here(place, folder, mount):
    sizes = {"a": 1000, "b": 2000}
    for name, size in sizes.items():
        (folder / name).write_bytes(b"x" * size)
    assert {name: len((mount / name).read_bytes()) for name in sizes} == sizes
    status = place.status()
    assert status["state"] == "online"
    assert status["mountPoint"] == str(place.point)
    assert status["cache"] == {"files": 2, "bytes": 3000}
    assert status["items"] >= 4
    shown = place.run("status", mount).stdout.decode()
    assert "2 files, 2.9 KiB" in shown and "nothing" in shown


def test_evicted_files_come_back_when_they_are_read(place, folder, mount):
    (folder / "a.txt").write_text("a")
    (folder / "b.txt").write_text("bb")
    for name in ("a.txt", "b.txt"):
        (mount / name).read_text()
    result = place.run("evict", mount)
    assert result.returncode == DONE, result.stderr
    assert result.stdout == b"evicted 2 files, 3 B\n"
    assert place.status()["cache"]["files"] == 0
    assert (mount / "b.txt").read_text() == "bb"
    assert place.status()["cache"]["files"] == 1


def test_what_is_open_or_pinned_stays(place, folder, mount):
    names = ("open.txt", "pinned.txt", "other.txt")
    for name in names:
        (folder / name).write_text("x")
    for name in names:
        (mount / name).read_text()
    assert place.run("pin", mount / "pinned.txt").returncode == DONE
    with open(mount / "open.txt", encoding="ascii"):
        answer = place.ask("evict", mount, code=PARTLY_FAILED)
        assert (answer["evicted"], answer["open"], answer["pinned"]) == (1, 1, 1)
        result = place.run("evict", mount / "pinned.txt")
        assert result.returncode == FAILED
        assert b"1 pinned" in result.stdout
    assert place.run("unpin", mount / "pinned.txt").returncode == DONE
    assert place.run("evict", mount).returncode == DONE


def test_a_pinned_folder_is_fetched(place, folder, mount):
    (folder / "a.txt").write_text("a")
    assert os.listdir(mount) == ["a.txt"]
    assert place.status()["cache"]["files"] == 0
    result = place.run("pin", mount)
    assert (result.returncode, result.stdout) == (
        DONE, b"1 file stays here; 1 still to be fetched\n")
    wait_for(lambda: place.status()["cache"]["files"] == 1, "download")


def test_several_paths_are_worked_on_whatever_becomes_of_one(place, folder, mount):
    for name in ("a.txt", "b.txt"):
        (mount / name).write_text("x")
    place.wait_synced()
    result = place.run("pin", mount / "a.txt", mount / "missing", mount / "b.txt")
    assert result.returncode == PARTLY_FAILED
    assert result.stdout == b"1 file stays here\n" * 2
    assert b"missing: " in result.stderr
    assert place.run("unpin", mount / "a.txt", mount / "b.txt").returncode == DONE
    result = place.run("evict", mount / "a.txt", mount / "b.txt")
    assert (result.returncode, result.stdout) == (DONE, b"evicted 1 file, 1 B\n" * 2)


def test_paths_are_told_from_where_one_stands(place, folder, mount):
    (folder / "a.txt").write_text("a")
    link = place.directory / "link"
    link.symlink_to(place.point)
    for path, directory in (("a.txt", mount), ("./x/../a.txt", mount),
                            (f"{folder.name}/a.txt", mount.parent),
                            (link / "Home" / folder.name / "a.txt", place.directory)):
        (mount / "a.txt").read_text()
        answer = place.ask("evict", path, cwd=directory)
        assert answer["evicted"] == 1, (path, directory)


def test_any_name_can_be_spoken_of(place, folder, mount):
    for name in ("two words", "ü", "line\nfeed", "-dash", "100%"):
        (mount / name).write_text("x")
    place.wait_synced()
    for name in ("two words", "ü", "line\nfeed", "-dash", "100%"):
        assert place.ask("evict", mount / name)["evicted"] == 1, name
        assert (folder / name).read_text() == "x"


def test_a_path_that_is_not_there_or_not_in_a_mount_is_an_error(place, mount):
    result = place.run("evict", mount / "missing.txt")
    assert result.returncode == FAILED
    assert f"kestrowan: {mount}/missing.txt: ".encode() in result.stderr
    assert place.run("evict", "", cwd=mount).returncode == USAGE, "not the current folder"
    for command in ("evict", "pin", "unpin", "retry"):
        result = place.run(command, "/etc/hostname")
        assert result.returncode == NOT_MOUNTED
        assert str(place.point).encode() in result.stderr


@pytest.mark.parametrize("arguments", [
    ["status"], ["status", "--watch"], ["wait"], ["evict", "x"], ["pin", "x"], ["unpin", "x"],
    ["retry"], ["discard", "--yes", "x"], ["unmount", "x"]])
def test_without_a_mount_every_command_says_so(place, arguments):
    result = place.run(*arguments)
    assert result.returncode == NOT_MOUNTED
    assert b"mount" in result.stderr
    assert "mount" in place.ask(*arguments, code=NOT_MOUNTED)["error"]["localizedDescription"]


def test_discarded_changes_go_to_the_history(own_place, server):
    own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "a.txt").write_text("server's")
    own_place.wait_synced()
    server._control("stop")
    (documents / "a.txt").write_text("mine")
    (documents / "new.txt").write_text("new")
    wait_for(lambda: own_place.status()["state"] != "online", "trouble with the server")
    assert own_place.status()["pending"]["count"] == 2

    result = own_place.run("discard", documents)
    assert result.returncode == USAGE
    assert b"--yes" in result.stderr
    assert own_place.status()["pending"]["count"] == 2

    result = own_place.run("discard", "--yes", documents)
    assert result.returncode == DONE, result.stderr
    assert b"2 items" in result.stdout
    assert own_place.status()["pending"]["count"] == 0
    assert {b"mine", b"new"} <= set(own_place.history())
    assert own_place.status()["history"]["unconfirmed"]["files"] == 2

    server._control("start", "--parent", str(os.getpid()))
    wait_for(lambda: own_place.status()["state"] == "online", "server")
    wait_for(lambda: os.listdir(documents) == ["a.txt"], "server's state")
    assert (documents / "a.txt").read_text() == "server's"


def test_wait_without_time_asks_whether_everything_is_sent(place, folder, mount):
    (mount / "a.txt").write_bytes(b"x")
    place.wait_synced()
    assert place.ask("wait", "--timeout", "0")["synced"] is True
    assert place.run("wait", "--timeout", "0").returncode == DONE
    with open(mount / "a.txt", "wb") as file:
        file.write(b"y")
        file.flush()
        assert place.ask("wait", "--timeout", "0", code=TIMED_OUT)["pending"] == 1


def test_wait_gives_up_in_time_and_says_what_is_left(own_place, server):
    own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    server._control("stop")
    (documents / "a.txt").write_text("x")
    result = own_place.run("wait", "--timeout", "1")
    assert result.returncode == TIMED_OUT
    assert b"1 change waiting" in result.stderr


def test_wait_ends_when_the_host_does(own_place, server):
    mounted = own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    server._control("stop")
    (documents / "a.txt").write_text("x")
    waiting = driver.start("wait", env=own_place.environment())
    assert mounted.end() == DONE
    waiting.communicate(timeout=60)
    assert waiting.returncode == NOT_MOUNTED


def test_doctor_knows_the_mount(place, mount):
    findings = {finding["subject"]: finding for finding in place.ask("doctor")["findings"]}
    assert findings["/dev/fuse"]["verdict"] == "ok"
    assert findings["fusermount3"]["verdict"] == "ok"
    assert str(place.point) in findings["mount"]["text"]
    assert "online" in findings["mount"]["text"]


# ---- transfers -----------------------------------------------------------------------------------


def test_status_shows_how_far_a_download_is(make_place, tmp_path):
    size, half = 1_000_000, 500_000
    file = response("/Home/big #1.bin", size=size, etag='"1"')
    script = {"routes": {
        "PROPFIND /": multistatus(response("/", folder=True), response("/Home/", folder=True)),
        "PROPFIND /Home/": multistatus(response("/Home/", folder=True), file),
        "PROPFIND /Home/big%20%231.bin": multistatus(file),
        "GET /Home/big%20%231.bin": {"fill": size, "pauseAt": half, "pauseFor": "more"}},
        "responses": [{"status": 500}]}
    with ScriptedServer(script) as server:
        container = tmp_path / "container"
        container.mkdir(mode=0o700)
        bridge = container / "fp-webdav.json"
        bridge.write_text(json.dumps({"port": server.port, "user": "u", "pass": "hidden word",
                                      "certPEM": server.certPEM}), encoding="utf-8")
        bridge.chmod(0o600)
        place = make_place(container)
        place.mount().ready()
        reader = subprocess.Popen(["cat", place.point / "Home" / "big #1.bin"],
                                  stdout=subprocess.PIPE)

        def transfer():
            found = place.status()["transfers"]
            return found[0] if found and found[0]["received"] > 0 else None

        shown = wait_for(transfer, "transfer under way")
        assert shown["path"] == "/Home/big #1.bin"
        assert shown["method"] == "GET"
        assert shown["expectedToReceive"] == size
        assert 0 < shown["received"] <= half
        text = place.run("status").stdout.decode()
        assert "fetching" in text and "% of 976.6 KiB" in text and "/Home/big #1.bin" in text
        assert "hidden" not in text + json.dumps(shown)
        server.release("more")
        assert len(reader.communicate(timeout=60)[0]) == size
        wait_for(lambda: place.status()["transfers"] == [], "end of the transfer")


# ---- status --watch ------------------------------------------------------------------------------


def test_a_watched_status_is_one_object_after_another(place, mount):
    process = driver.start("--json", "status", "--watch", env=place.environment())
    lines = [process.stdout.readline() for _ in range(2)]
    process.terminate()
    process.communicate(timeout=60)
    assert all(b'"state":"online"' in line for line in lines)


def test_a_watched_status_is_redrawn_on_a_terminal(place, mount):
    ours, theirs = pty.openpty()
    fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 30, 100, 0, 0))
    process = driver.start("status", "--watch", env=place.environment(), stdout=theirs,
                           stderr=theirs)
    os.close(theirs)
    shown = b""
    deadline = time.monotonic() + 60
    while shown.count(b"\x1b[H") < 2 and time.monotonic() < deadline:
        with contextlib.suppress(OSError):
            shown += os.read(ours, 65536)
    process.terminate()
    process.wait(60)
    os.close(ours)
    assert shown.count(b"\x1b[H") >= 2
    assert b"in reach\x1b[K" in shown, "a line takes the rest of the old one away"
    assert b"\x1b[J" in shown and b"\x1b[2J" not in shown, "it is never empty in between"


# ---- settings ------------------------------------------------------------------------------------


def test_moves_between_folders_can_be_refused(place, folder):
    place.mount("--moves=refuse").ready()
    mount = place.point / "Home" / folder.name
    (mount / "a").mkdir()
    (mount / "b").mkdir()
    (mount / "a" / "x").write_text("x")
    place.wait_synced()
    with pytest.raises(OSError) as caught:
        os.rename(mount / "a" / "x", mount / "b" / "x")
    assert caught.value.errno == errno.EXDEV
    os.rename(mount / "a" / "x", mount / "a" / "y")


def test_close_can_wait_for_the_server(place, folder):
    place.mount("--close=wait").ready()
    (place.point / "Home" / folder.name / "a.txt").write_text("x")
    assert (folder / "a.txt").read_text() == "x"


def test_fsync_can_wait_for_the_server(place, folder):
    place.mount("--fsync=server").ready()
    with open(place.point / "Home" / folder.name / "a.txt", "wb") as file:
        file.write(b"x")
        file.flush()
        os.fsync(file.fileno())
        assert (folder / "a.txt").read_bytes() == b"x"


def test_names_of_swap_files_stay_here_unless_told_otherwise(place, folder):
    mounted = place.mount().ready()
    mount = place.point / "Home" / folder.name
    (mount / ".a.swp").write_text("x")
    (mount / "a").write_text("x")
    place.wait_synced()
    assert os.listdir(folder) == ["a"]
    assert mounted.end() == DONE
    place.mount("--no-local-names", "--domain", "other").ready()
    (mount / ".b.swp").write_text("x")
    place.wait_synced()
    assert sorted(os.listdir(folder)) == [".b.swp", "a"]


def test_the_cache_keeps_to_its_limit(place, folder):
    digests = {}
    for i in range(4):
        data = os.urandom(300000)
        (folder / f"{i}").write_bytes(data)
        digests[f"{i}"] = hashlib.sha256(data).digest()
    place.mount("--cache-limit", "1M").ready()
    mount = place.point / "Home" / folder.name
    for name, digest in digests.items():
        assert hashlib.sha256((mount / name).read_bytes()).digest() == digest
    assert place.status()["cache"]["files"] == 4, "young files are kept a while"


def test_an_archive_written_to_the_mount_arrives_whole(place, folder, mount):
    source = Path(__file__).resolve().parents[1] / "support"
    subprocess.run(["tar", "-C", source, "-cf", mount / "a.tar", "."], check=True)
    place.wait_synced()
    listed = subprocess.run(["tar", "-df", folder / "a.tar", "-C", source], check=True,
                            capture_output=True)
    assert listed.stdout == b""
