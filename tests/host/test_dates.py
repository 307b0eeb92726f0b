"""What programs set of folders stays, so that a copy that keeps dates is in step with its source."""

import os
import shutil
import subprocess

import pytest

from hosted import mode, wait_for

LONG_AGO = 1_000_000_000_123_456_789
FOLDERS = ("", "one", "one/deep", "two", "empty")


@pytest.fixture
def source(tmp_path):
    """A tree with dates and modes of its own."""
    top = tmp_path / "source"
    for number, name in enumerate(FOLDERS):
        (top / name).mkdir()
        for file in range(0 if name == "empty" else 3):
            (top / name / f"file{file}.txt").write_text(f"{name} {file}\n")
            os.utime(top / name / f"file{file}.txt", ns=(LONG_AGO, LONG_AGO + number))
    (top / "one").chmod(0o700)
    (top / "one" / "file0.txt").chmod(0o755)
    for number, name in reversed(list(enumerate(FOLDERS))):
        os.utime(top / name, ns=(LONG_AGO, LONG_AGO + number * 1_000_000_000))
    return top


class Copy:
    """A folder of the mount, whose listings at the server are counted."""

    def __init__(self, place, server, folder):
        self.place = place
        self.server = server
        self.path = f"/Home/{folder.name}"
        self.home = place.point / "Home" / folder.name

    def listings(self, name):
        path = f"{self.path}/{name}".rstrip("/")
        lines = (self.server.directory / "requests.log").read_text(encoding="utf-8").splitlines()
        return sum(line.rstrip("/") == f"PROPFIND 207 {path}" for line in lines)

    def see_listings(self, names):
        """Returns when each folder has been listed since everything arrived, and that was shown."""
        self.place.wait_synced()
        before = {name: self.listings(name) for name in names}

        def listed(name):
            os.listdir(self.home / name)
            # The first may have begun before.
            return self.listings(name) >= before[name] + 2

        for name in names:
            wait_for(lambda name=name: listed(name), f"listing of {name}")


@pytest.fixture
def copy(place, shared_server, folder):
    place.mount().ready()
    return Copy(place, shared_server, folder)


def dates(top):
    return {name: os.stat(top / name).st_mtime_ns for name in FOLDERS}


def modes(top):
    return {name: mode(top / name) for name in FOLDERS}


def run(*arguments):
    done = subprocess.run([str(one) for one in arguments], capture_output=True, text=True,
                          timeout=120, check=False)
    assert done.returncode == 0, (arguments, done.stderr)
    return done.stdout


@pytest.mark.skipif(not shutil.which("rsync"), reason="rsync is not installed")
def test_a_second_rsync_changes_nothing(place, copy, source):
    target = copy.home / "copy"
    run("rsync", "-a", f"{source}/", f"{target}/")
    for _ in range(2):
        copy.see_listings(("", "copy", "copy/one"))
        assert dates(target) == dates(source)
        assert modes(target) == modes(source)
        assert run("rsync", "-ai", f"{source}/", f"{target}/") == ""
        place.mounts[-1].end()
        place.mount().ready()
        assert run("rsync", "-ai", f"{source}/", f"{target}/") == ""
    # What is new is all that a further run transfers.
    (source / "two" / "more.txt").write_text("more\n")
    os.utime(source / "two", ns=(LONG_AGO, LONG_AGO + 7))
    changed = run("rsync", "-ai", f"{source}/", f"{target}/").splitlines()
    assert sorted(line.split(" ", 1)[1] for line in changed) == ["two/", "two/more.txt"]
    copy.see_listings(("copy",))
    assert dates(target) == dates(source)
    assert run("rsync", "-ai", f"{source}/", f"{target}/") == ""


def test_a_copy_that_keeps_dates_keeps_those_of_folders(place, copy, source):
    target = copy.home / "copy"
    run("cp", "-a", source, target)
    copy.see_listings(("", "copy", "copy/one"))
    assert dates(target) == dates(source)
    assert modes(target) == modes(source)
    place.mounts[-1].end()
    place.mount().ready()
    assert dates(target) == dates(source)
    assert modes(target) == modes(source)


def test_what_another_client_makes_in_a_folder_makes_it_newer(copy, folder):
    (copy.home / "shared").mkdir()
    os.utime(copy.home / "shared", ns=(LONG_AGO, LONG_AGO))
    copy.see_listings(("",))
    assert os.stat(copy.home / "shared").st_mtime_ns == LONG_AGO
    (folder / "shared" / "theirs.txt").write_text("x")
    os.utime(folder / "shared", (1_500_000_000, 1_500_000_000))
    wait_for(lambda: os.listdir(copy.home) and
             os.stat(copy.home / "shared").st_mtime_ns == 1_500_000_000 * 10**9, "their date")


def test_what_is_made_in_a_folder_makes_it_newer(copy):
    (copy.home / "ours").mkdir()
    os.utime(copy.home / "ours", ns=(LONG_AGO, LONG_AGO))
    (copy.home / "ours" / "file.txt").write_text("x")
    assert os.stat(copy.home / "ours").st_mtime_ns > LONG_AGO
    copy.see_listings(("",))
    assert os.stat(copy.home / "ours").st_mtime_ns > LONG_AGO
