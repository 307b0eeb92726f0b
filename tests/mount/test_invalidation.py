"""Changes on the server become visible, and what is open stays as it was."""

import mmap
import os
import subprocess

import pytest

from hosting import eventually, outcome

# Listings grow old at once, so that every look asks the server anew.
RESTLESS = {"freshTime": 0, "usableTime": 0}


@pytest.fixture
def host(make_host):
    return make_host(**RESTLESS).mount().connect()


def test_new_names_appear(host, mount):
    assert os.listdir(mount) == []
    host.write("/file", "x")
    host.folder("/folder")
    assert eventually(lambda: sorted(os.listdir(mount)) == ["file", "folder"])
    assert eventually(lambda: (mount / "file").read_text() == "x")


def test_a_name_that_was_missing_is_found_once_it_is_there(host, mount):
    assert outcome(os.stat, mount / "file") == "ENOENT"
    host.write("/file", "x")
    assert eventually(lambda: (mount / "file").exists())


def test_removed_names_disappear(host, mount):
    host.write("/file", "x")
    host.folder("/folder")
    assert sorted(os.listdir(mount)) == ["file", "folder"]
    os.stat(mount / "file")
    host.remove("/file")
    host.remove("/folder")
    assert eventually(lambda: not (mount / "file").exists())
    assert eventually(lambda: os.listdir(mount) == [])


def test_new_contents_are_seen_by_who_opens_next(host, mount):
    host.write("/file", "old")
    assert (mount / "file").read_text() == "old"
    host.write("/file", "new contents")
    assert eventually(lambda: (mount / "file").read_text() == "new contents")
    assert os.stat(mount / "file").st_size == 12


def test_new_contents_of_the_same_size_are_seen(host, mount):
    host.write("/file", "aaaa")
    assert (mount / "file").read_text() == "aaaa"
    host.write("/file", "bbbb")
    assert eventually(lambda: (mount / "file").read_text() == "bbbb")


def test_an_open_file_keeps_its_bytes(host, mount):
    old = os.urandom(200_000)
    new = os.urandom(300_000)
    host.write("/file", old)
    with open(mount / "file", "rb", buffering=0) as file:
        assert os.pread(file.fileno(), 1000, 0) == old[:1000]
        host.write("/file", new)
        assert eventually(lambda: (mount / "file").read_bytes() == new)
        assert os.pread(file.fileno(), 300_000, 0) == old
        assert os.fstat(file.fileno()).st_size == len(old)
        assert (mount / "file").read_bytes() == new


def test_a_mapped_file_keeps_its_bytes(host, mount):
    old = os.urandom(100_000)
    new = os.urandom(100_000)
    host.write("/file", old)
    with open(mount / "file", "rb") as file, mmap.mmap(file.fileno(), 0,
                                                       prot=mmap.PROT_READ) as mapped:
        assert mapped[:5000] == old[:5000]
        host.write("/file", new)
        assert eventually(lambda: (mount / "file").read_bytes() == new)
        assert mapped[:] == old


def test_an_open_file_outlives_its_removal_on_the_server(host, mount):
    host.write("/file", "contents")
    host.write("/other", "x")
    with open(mount / "file", "rb", buffering=0) as file:
        host.remove("/file")
        assert eventually(lambda: not (mount / "file").exists())
        assert file.read() == b"contents"
        assert os.fstat(file.fileno()).st_size == 8


def test_a_size_that_a_fetch_finds_out_is_known_to_the_reader(host, mount):
    host.write("/file", "x" * 10)
    assert os.stat(mount / "file").st_size == 10
    # The contents grow behind the listing's back.
    host.fault(kind="enumerateItems", effect="none", error=["NSURLErrorDomain", -1005])
    host.write("/file", "y" * 100_000)
    result = outcome(lambda: (mount / "file").read_bytes())
    host.do("clearFaults")
    if isinstance(result, bytes):
        assert result == b"y" * 100_000
    assert eventually(lambda: (mount / "file").read_bytes() == b"y" * 100_000)


def test_the_kernel_drops_what_changed_however_long_it_would_keep_it(make_host, place):
    host = make_host(cacheTime=3_600_000, **RESTLESS).mount().connect()
    mount = place / "mount"
    host.write("/changed", "old")
    host.write("/removed", "x")
    assert (mount / "changed").read_text() == "old"
    assert os.stat(mount / "removed").st_size == 1
    host.write("/changed", "new contents")
    host.remove("/removed")
    # Looking at the folder is what finds the changes out.
    assert eventually(lambda: os.listdir(mount) == ["changed"])
    assert eventually(lambda: os.stat(mount / "changed").st_size == 12)
    assert (mount / "changed").read_text() == "new contents"
    assert eventually(lambda: outcome(os.stat, mount / "removed") == "ENOENT")


def test_a_replaced_file_is_seen_however_long_the_kernel_would_keep_it(make_host, place):
    host = make_host(cacheTime=3_600_000).mount().connect()
    mount = place / "mount"
    host.write("/target", "old")
    assert os.stat(mount / "target").st_size == 3
    (mount / "source").write_text("new contents")
    os.rename(mount / "source", mount / "target")
    assert (mount / "target").read_text() == "new contents"
    host.wait()
    with open(mount / "target", "a", encoding="ascii") as file:
        file.write(" and more")
    assert (mount / "target").read_text() == "new contents and more"
    assert os.stat(mount / "target").st_size == 21


def test_a_file_becomes_a_folder(host, mount):
    host.write("/name", "x")
    assert (mount / "name").read_text() == "x"
    host.remove("/name")
    host.folder("/name")
    host.write("/name/file", "y")
    assert eventually(lambda: (mount / "name").is_dir())
    assert (mount / "name" / "file").read_text() == "y"


def test_a_program_stays_in_its_folder(host, mount):
    """Names that change around a folder take nobody's working directory away."""
    host.folder("/folder")
    host.write("/folder/file", "x")
    shell = subprocess.Popen(["sh"], cwd=mount / "folder", stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE)
    for number in range(3):
        host.write(f"/other-{number}", "x")
        eventually(lambda number=number: (mount / f"other-{number}").exists())
        shell.stdin.write(b"/bin/pwd; cat file; echo\n")
        shell.stdin.flush()
        assert shell.stdout.readline().strip() == os.fsencode(mount / "folder")
        assert shell.stdout.readline() == b"x\n"
    shell.communicate(timeout=60)


def test_pages_are_kept_while_the_contents_are_the_same(host, mount, place):
    contents = os.urandom(100_000)
    host.write("/file", contents)
    assert (mount / "file").read_bytes() == contents

    def resident():
        listed = subprocess.run(["fincore", "-b", "-n", "-o", "RES", mount / "file"],
                                capture_output=True, timeout=60, check=True)
        return int(listed.stdout)

    assert resident() >= 100_000
    with open(mount / "file", "rb"):
        assert resident() >= 100_000


def test_local_changes_survive_news_from_the_server(host, mount):
    host.folder("/folder")
    host.write("/folder/theirs", "x")
    (mount / "folder" / "ours").write_text("ours")
    for number in range(5):
        host.write(f"/folder/{number}", "x")
        assert eventually(lambda number=number: (mount / "folder" / str(number)).exists())
        assert (mount / "folder" / "ours").read_text() == "ours"
    host.wait()
    assert host.read("/folder/ours") == b"ours"


def test_both_sides_of_a_conflict_are_kept(host, mount):
    host.write("/file.txt", "common")
    with open(mount / "file.txt", "r+b") as file:
        file.write(b"ours..")
        host.write("/file.txt", "theirs")
    host.wait()
    tree = host.tree()
    assert tree["/file.txt"] == b"theirs"
    assert sorted(tree.values()) == [b"ours..", b"theirs"]
    conflict, = (path for path in tree if path != "/file.txt")
    assert conflict.startswith("/file (conflict ") and conflict.endswith(".txt")
    assert eventually(lambda: (mount / "file.txt").read_text() == "theirs")
    assert (mount / conflict[1:]).read_text() == "ours.."
