"""What programs that watch folders of a mount hear of changes at the server.

A watcher is a process of its own, which watches with inotify. Changes are made on the server's disk;
the mount lists a watched folder by itself, and sooner when a program asks for what is in it.
"""

import ctypes
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

import hosted
from hosted import wait_for

WATCHER = Path(__file__).resolve().parent / "watcher.py"
#: Until the mount has found out that a folder is watched.
NOTICE_SECONDS = 30


class Watcher:
    """A process that watches folders and files, and what it has heard of each."""

    def __init__(self, *paths):
        self.process = subprocess.Popen([sys.executable, "-B", WATCHER, *map(str, paths)],
                                        stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        assert self.process.stdout.readline() == b"ready\n"
        os.set_blocking(self.process.stdout.fileno(), False)
        self.rest = b""
        self.events = []

    def heard(self):
        """All events so far, as (path, kind, name)."""
        while data := self.process.stdout.read():
            *lines, self.rest = (self.rest + data).split(b"\n")
            self.events += [tuple(json.loads(line)) for line in lines]
        return self.events

    def names(self):
        """The same as (kind, name), without attributes."""
        return [(kind, name) for _, kind, name in self.heard() if kind != "ATTRIB"]

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


@pytest.fixture
def watch():
    watchers = []

    def begin(*paths):
        watchers.append(Watcher(*paths))
        return watchers[-1]

    yield begin
    for watcher in watchers:
        watcher.close()


def caller_of(mounted):
    """The process that makes the calls; None when there is none."""
    for number in filter(str.isdigit, os.listdir("/proc")):
        try:
            words = Path(f"/proc/{number}/cmdline").read_bytes()
            status = Path(f"/proc/{number}/status").read_text()
        except OSError:
            continue
        if b"internal-event-calls" in words and f"\nPPid:\t{mounted.process.pid}\n" in status:
            return int(number)
    return None


class Folder:
    """A folder that is watched, at the server and in the mount."""

    def __init__(self, place, folder):
        self.there = folder
        self.here = place.point / "Home" / folder.name
        self.numbers = iter(range(1, 1000))

    def look(self):
        """Has the mount list the folder, unless it has just done so."""
        os.listdir(self.here)

    def await_names(self, watcher, names, seconds=60):
        """Waits until the watcher has heard of these, as (kind, name) in any order."""
        def has_heard():
            self.look()
            return set(names) <= set(watcher.names())
        try:
            wait_for(has_heard, "events", seconds)
        except AssertionError:
            raise AssertionError(f"wanted {names}, heard {watcher.heard()}") from None

    def put(self, name, contents):
        """No listing shows the file half written."""
        written = self.there.with_name(self.there.name + "-written")
        written.write_text(contents)
        os.rename(written, self.there / name)

    def await_rest(self, watcher):
        """Returns when a listing has shown again what is there now, once it was no longer young."""
        for _ in range(2):
            name = f"rest{next(self.numbers)}"
            self.put(name, "x")
            self.await_names(watcher, [("MOVED_TO", name)])

    def begin(self, watcher):
        """Returns when the mount tells the watcher of changes, and forgets what it heard."""
        deadline = time.monotonic() + NOTICE_SECONDS
        while True:
            name = f"probe{next(self.numbers)}"
            (self.there / name).write_text("x")
            def is_heard():
                self.look()
                return ("MOVED_TO", name) in watcher.names()
            try:
                wait_for(is_heard, "event", 6)
            except AssertionError:
                assert time.monotonic() < deadline, watcher.heard()
                continue
            for each in self.there.glob("probe*"):
                each.unlink()
            self.await_names(watcher, [("DELETE", name)])
            watcher.events.clear()
            return watcher


@pytest.fixture
def mounted(place):
    return place.mount().ready()


@pytest.fixture
def watched(place, folder, mounted):
    made = Folder(place, folder)
    made.look()
    return made


def test_what_changes_at_the_server_is_heard_by_name(watched, watch):
    (watched.there / "replaced.txt").write_text("old")
    (watched.there / "removed.txt").write_text("old")
    (watched.there / "removed").mkdir()
    watcher = watched.begin(watch(watched.here))
    (watched.there / "new.txt").write_text("new")
    (watched.there / "made").mkdir()
    (watched.there / "replaced.txt").write_text("newer")
    (watched.there / "removed.txt").unlink()
    (watched.there / "removed").rmdir()
    wanted = [("MOVED_TO", "new.txt"), ("CREATE", "made/"), ("MOVED_TO", "replaced.txt"),
              ("DELETE", "removed.txt"), ("DELETE", "removed/")]
    watched.await_names(watcher, wanted)
    assert sorted(watcher.names()) == sorted(wanted)
    # File managers take what is moved over a name that they show for gone, until it is touched.
    wait_for(lambda: [kind for _, kind, name in watcher.heard() if name == "replaced.txt"]
             == ["MOVED_TO", "ATTRIB"], "attributes of the replaced file")
    assert sorted(os.listdir(watched.here)) == ["made", "new.txt", "replaced.txt"]
    assert (watched.here / "new.txt").read_text() == "new"
    assert (watched.here / "replaced.txt").read_text() == "newer"
    (watched.here / "made" / "in.txt").write_text("in")
    assert not (watched.here / "removed.txt").exists()


def test_a_file_that_becomes_a_folder_is_heard_as_both(watched, watch):
    (watched.there / "turns").write_text("a file")
    watcher = watched.begin(watch(watched.here))
    (watched.there / "turns").unlink()
    (watched.there / "turns").mkdir()
    watched.await_names(watcher, [("DELETE", "turns"), ("CREATE", "turns/")])
    assert watcher.names() == [("DELETE", "turns"), ("CREATE", "turns/")]
    assert (watched.here / "turns").is_dir()


def test_a_watched_folder_is_listed_by_itself(watched, watch):
    watcher = watched.begin(watch(watched.here))
    (watched.there / "new.txt").write_text("new")
    wait_for(lambda: ("MOVED_TO", "new.txt") in watcher.names(), "event without a program", 90)


def test_what_programs_do_is_heard_once(place, watched, watch):
    watcher = watched.begin(watch(watched.here))
    (watched.here / "made.txt").write_text("one")
    (watched.here / "made").mkdir()
    os.rename(watched.here / "made.txt", watched.here / "moved.txt")
    (watched.here / "gone.txt").write_text("x")
    place.wait_synced()
    (watched.here / "gone.txt").unlink()
    (watched.here / "made").rmdir()
    place.wait_synced()
    (watched.there / "last.txt").write_text("x")
    watched.await_names(watcher, [("MOVED_TO", "last.txt")])
    assert watcher.names() == [
        ("CREATE", "made.txt"), ("CREATE", "made/"), ("MOVED_FROM", "made.txt"),
        ("MOVED_TO", "moved.txt"), ("CREATE", "gone.txt"), ("DELETE", "gone.txt"),
        ("DELETE", "made/"), ("MOVED_TO", "last.txt")]


def test_a_program_that_watches_a_file_hears_that_it_is_replaced(watched, watch):
    (watched.there / "log.txt").write_text("one")
    watched.look()
    folder_watcher = watched.begin(watch(watched.here))
    watcher = watch(watched.here / "log.txt")
    (watched.there / "log.txt").write_text("one and two")
    watched.await_names(folder_watcher, [("MOVED_TO", "log.txt")])
    # Contents that were never fetched are replaced in the same file, which is then moved into place.
    wait_for(lambda: {"DELETE_SELF", "MOVE_SELF"} & {kind for _, kind, _ in watcher.heard()},
             "event of the file")


def test_a_thousand_new_files_are_one_change_of_the_folder(watched, watch):
    watcher = watched.begin(watch(watched.here))
    staging = watched.there.with_name(watched.there.name + "-staging")
    staging.mkdir()
    for number in range(1000):
        (staging / f"{number}.txt").write_text("x")
    # One listing shows either all of them or none.
    os.rename(watched.there, watched.there.with_name(watched.there.name + "-old"))
    os.rename(staging, watched.there)
    wait_for(lambda: watched.look() or len(os.listdir(watched.here)) == 1000, "files")
    wait_for(lambda: (str(watched.here), "ATTRIB", "") in watcher.heard(), "event")
    (watched.there / "last.txt").write_text("x")
    watched.await_names(watcher, [("MOVED_TO", "last.txt")])
    told = [(kind, name) for _, kind, name in watcher.heard()]
    assert told.count(("ATTRIB", "")) == 1
    assert [event for event in told if event[1]] == [("MOVED_TO", "last.txt")]


def test_every_watcher_hears_everything_once(watched, watch):
    deep = watched.there / "deep"
    deep.mkdir()
    wait_for(lambda: watched.look() or (watched.here / "deep").is_dir(), "folder")
    os.listdir(watched.here / "deep")
    watchers = [watch(watched.here, watched.here / "deep") for _ in range(8)]
    watched.begin(watchers[0])
    wanted = []
    for number in range(20):
        for folder in ("", "deep"):
            watched.put(Path(folder) / f"{number}.txt", "x")
            wanted.append((str(watched.here / folder), "MOVED_TO", f"{number}.txt"))

    def files(watcher):
        return sorted(event for event in watcher.heard()
                      if event[1] == "MOVED_TO" and event[2].endswith(".txt"))

    def have_heard():
        watched.look()
        os.listdir(watched.here / "deep")
        return all(len(files(each)) >= len(wanted) for each in watchers)
    wait_for(have_heard, "events")
    os.listdir(watched.here / "deep")
    watched.await_rest(watchers[0])
    assert [files(each) for each in watchers] == [sorted(wanted)] * len(watchers)


def attributes(watcher, name):
    """How often it was heard that the name has other attributes."""
    return [(kind, each) for _, kind, each in watcher.heard()].count(("ATTRIB", name))


def test_what_commands_change_is_heard(place, watched, watch):
    watcher = watched.begin(watch(watched.here))
    file = watched.here / "a.txt"
    heard = 0

    def await_attribute(count=1):
        nonlocal heard
        heard += count
        wait_for(lambda: attributes(watcher, "a.txt") == heard, "event of attributes")

    file.write_text("first")
    place.wait_synced()
    await_attribute()
    assert os.getxattr(file, "user.kestrowan.state") == b"synced"
    assert place.ask("evict", file)["evicted"] == 1
    await_attribute()
    place.run("pin", file)
    wait_for(lambda: os.getxattr(file, "user.kestrowan.downloaded") == b"yes", "contents")
    # It is pinned, and its contents come.
    await_attribute(2)
    place.run("unpin", file)
    await_attribute()
    file.write_text("second")
    place.wait_synced()
    [entry] = place.ask("history", file)["entries"]
    place.ask("restore", str(entry["id"]), "--to", watched.here / "b.txt")
    wait_for(lambda: ("MOVED_TO", "b.txt") in watcher.names(), "event of what is restored")
    place.wait_synced()
    watched.await_rest(watcher)
    names = [event for event in watcher.names() if not event[1].startswith("rest")]
    assert names == [("CREATE", "a.txt"), ("MOVED_TO", "b.txt")]
    assert (watched.there / "b.txt").read_text() == "first"


def test_the_status_says_how_many_folders_are_watched(place, watched, watch):
    status = place.status()
    assert (status["events"], status["watchedFolders"]) == ("on", 0)
    assert "0 folders are watched" in place.run("status").stdout.decode()
    (watched.there / "in.txt").write_text("x")
    wait_for(lambda: watched.look() or (watched.here / "in.txt").exists(), "file")
    watcher = watch(watched.here, watched.here.parent, watched.here / "in.txt")
    # That of the file is counted once.
    wait_for(lambda: place.status()["watchedFolders"] == 2, "watched folders")
    assert "2 folders are watched" in place.run("status").stdout.decode()
    watcher.close()
    wait_for(lambda: place.status()["watchedFolders"] == 0, "end of the watches")


def test_a_caller_that_cannot_be_had_is_said(place, mounted):
    assert "hear nothing" not in place.run("doctor").stdout.decode()
    end = time.monotonic() + hosted.SECONDS
    # The pauses grow, and the command finds one.
    while "hear nothing" not in place.run("doctor").stdout.decode():
        assert time.monotonic() < end
        if caller := caller_of(mounted):
            os.kill(caller, signal.SIGKILL)
    wait_for(lambda: place.status()["events"] == "on", "process")
    assert caller_of(mounted)


def test_a_caller_that_is_killed_is_replaced(mounted, watched, watch):
    watcher = watched.begin(watch(watched.here))
    first = wait_for(lambda: caller_of(mounted), "process")
    os.kill(first, signal.SIGKILL)
    wait_for(lambda: caller_of(mounted) not in (None, first), "new process")
    (watched.there / "new.txt").write_text("new")
    watched.await_names(watcher, [("MOVED_TO", "new.txt")])


def test_a_caller_that_is_stopped_hangs_nothing(place, mounted, watched, watch):
    watcher = watched.begin(watch(watched.here))
    caller = wait_for(lambda: caller_of(mounted), "process")
    os.kill(caller, signal.SIGSTOP)
    (watched.there / "new.txt").write_text("new")
    wait_for(lambda: watched.look() or (watched.here / "new.txt").exists(), "file")
    assert (watched.here / "new.txt").read_text() == "new"
    (watched.here / "own.txt").write_text("own")
    place.wait_synced()
    assert (watched.there / "own.txt").read_text() == "own"
    assert ("CREATE", "own.txt") in watcher.names()
    # After a while another takes its place.
    wait_for(lambda: caller_of(mounted) not in (None, caller), "new process")
    (watched.there / "newer.txt").write_text("newer")
    watched.await_names(watcher, [("MOVED_TO", "newer.txt")])


@pytest.mark.parametrize("number", [signal.SIGSTOP, signal.SIGKILL])
def test_a_mount_ends_whatever_its_caller_does(place, mounted, watched, watch, number):
    watcher = watched.begin(watch(watched.here))
    caller = wait_for(lambda: caller_of(mounted), "process")
    os.kill(caller, number)
    (watched.there / "new.txt").write_text("new")
    wait_for(lambda: watched.look() or (watched.here / "new.txt").exists(), "file")
    watcher.close()
    place.run("unmount", place.point)
    assert mounted.wait() == 0
    assert not hosted.is_mounted(place.point)
    wait_for(lambda: not Path(f"/proc/{caller}").exists(), "end of the process")


def test_the_caller_has_nothing_that_it_does_not_need(mounted, watched, watch):
    watched.begin(watch(watched.here))
    caller = wait_for(lambda: caller_of(mounted), "process")
    # A sanitizer writes its own there; the host's variables are not among them.
    assert b"KESTROWAN" not in Path(f"/proc/{caller}/environ").read_bytes()
    links = {name: os.readlink(f"/proc/{caller}/fd/{name}") for name in os.listdir(f"/proc/{caller}/fd")}
    assert sorted(links) == ["0", "1", "2"]
    assert links["0"].startswith("socket:")
    assert links["1"] == links["2"] == "/dev/null"
    status = Path(f"/proc/{caller}/status").read_text()
    assert "NoNewPrivs:\t1" in status
    assert "Seccomp:\t2" in status
    assert os.getsid(caller) == caller


def lines_of(command, folder):
    """What a program that watches says of the files in `folder`; a function that gives all so far."""
    if not shutil.which(command[0]):
        pytest.skip(f"{command[0]} is not installed")
    process = subprocess.Popen([*command, folder], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, text=True, bufsize=1,
                               env={**os.environ, "LC_ALL": "C.UTF-8"})
    os.set_blocking(process.stdout.fileno(), False)
    lines = []

    def said():
        while line := process.stdout.readline():
            lines.append(line.rstrip("\n"))
        return lines
    said.process = process
    return said


@pytest.mark.parametrize(("command", "words"), [
    (["inotifywait", "-m", "-q", "--format", "%e %f"],
     {"MOVED_TO new.txt", "CREATE,ISDIR made", "MOVED_TO replaced.txt", "DELETE removed.txt",
      "DELETE,ISDIR removed"}),
    (["gio", "monitor", "-d"],
     {"new.txt: moved in", "made: created", "replaced.txt: moved in", "removed.txt: deleted",
      "removed: deleted"})], ids=["inotifywait", "gio"])
def test_programs_that_users_have_hear_it(watched, watch, command, words):
    (watched.there / "replaced.txt").write_text("old")
    (watched.there / "removed.txt").write_text("old")
    (watched.there / "removed").mkdir()
    said = lines_of(command, watched.here)
    try:
        watched.begin(watch(watched.here))
        watched.put("new.txt", "new")
        (watched.there / "made").mkdir()
        watched.put("replaced.txt", "newer")
        (watched.there / "removed.txt").unlink()
        (watched.there / "removed").rmdir()

        def has_said():
            watched.look()
            return all(any(word in line for line in said()) for word in words)
        try:
            wait_for(has_said, "lines")
        except AssertionError:
            raise AssertionError(f"wanted {words}, said {said()}") from None
    finally:
        said.process.kill()
        said.process.wait()
        said.process.stdout.close()


def test_without_events_nothing_is_told(place, folder, watch):
    mounted = place.mount("--events", "off").ready()
    watched = Folder(place, folder)
    watched.look()
    watcher = watch(watched.here)
    assert caller_of(mounted) is None
    assert place.status()["events"] == "off"
    assert "Watching:  off" in place.run("status").stdout.decode()
    (watched.there / "new.txt").write_text("new")
    wait_for(lambda: watched.look() or (watched.here / "new.txt").exists(), "file")
    (watched.here / "own.txt").write_text("own")
    wait_for(lambda: ("CREATE", "own.txt") in watcher.names(), "event of a program's own")
    assert [event for event in watcher.names() if event[1] != "own.txt"] == []


class Tree:
    """What a watched folder has at the server, which becomes something else all at once."""

    def __init__(self, folder):
        self.folder = folder
        #: Contents by name; None for a folder.
        self.now = {}

    def become(self, wanted):
        """One listing shows the former names, or the new ones."""
        staging = self.folder.with_name(self.folder.name + "-staging")
        staging.mkdir()
        for each in self.folder.iterdir():
            if each.name not in self.now:
                os.link(each, staging / each.name)
        for name, contents in wanted.items():
            if contents is None:
                (staging / name).mkdir()
            elif self.now.get(name) == contents:
                os.link(self.folder / name, staging / name)
            else:
                (staging / name).write_text(contents)
        exchange(self.folder, staging)
        shutil.rmtree(staging)
        self.now = wanted


def exchange(one, other):
    here, flag = -100, 2  # AT_FDCWD, RENAME_EXCHANGE
    library = ctypes.CDLL(None, use_errno=True)
    if library.renameat2(here, os.fsencode(one), here, os.fsencode(other), flag) != 0:
        raise OSError(ctypes.get_errno(), "renameat2")


def events_between(before, now):
    """What is heard, in any order, when these names become those."""
    events = []
    for name in sorted(before | now):
        was, becomes = before.get(name, ""), now.get(name, "")
        if was == becomes:
            continue
        if name in before and (name not in now or None in (was, becomes)):
            events.append(("DELETE", name + "/" if was is None else name))
        if name in now:
            events.append(("CREATE", name + "/") if becomes is None else ("MOVED_TO", name))
    return sorted(events)


def changed_by_chance(chance, before):
    now = dict(before)
    for name in chance.sample("abcdefghijklm", chance.randrange(1, 12)):
        drawn = chance.random()
        if drawn < 0.3:
            now.pop(name, None)
        elif drawn < 0.5:
            now[name] = None
        else:
            # Of one length, so that the size says nothing.
            now[name] = f"{chance.randrange(10**9):09}"
    return now


def seeded():
    seed = int(os.environ.get("KFP_SEED", random.randrange(1 << 32)))
    print("KFP_SEED", seed)
    return random.Random(seed)


def test_by_chance_each_name_that_changes_is_heard_once_and_no_other(place, watched, watch):
    chance = seeded()
    watcher = watched.begin(watch(watched.here))
    tree = Tree(watched.there)
    for turn in range(8):
        before = tree.now
        tree.become(changed_by_chance(chance, before))
        own = watched.here / f"own{turn}"
        own.write_text("by a program")
        place.wait_synced()
        watched.await_rest(watcher)
        own.unlink()
        place.wait_synced()
        for name, contents in tree.now.items():
            if contents is not None and chance.random() < 0.5:
                assert (watched.here / name).read_text() == contents
        heard = [event for event in watcher.names() if not event[1].startswith("rest")]
        assert sorted(heard) == sorted(
            [*events_between(before, tree.now), ("CREATE", own.name), ("DELETE", own.name)])
        watcher.events.clear()


def followed(names, events):
    """What is in a folder that held `names`, by what was heard of it since."""
    names = set(names)
    for kind, name in events:
        if kind in ("CREATE", "MOVED_TO"):
            # Contents that are replaced are heard in the same way.
            names.add(name)
        elif kind in ("DELETE", "MOVED_FROM"):
            names.discard(name)
    return names


def listed(folder):
    return {each.name + ("/" if each.is_dir() else "") for each in folder.iterdir()}


def test_by_chance_names_that_are_heard_are_names_that_changed(place, watched, watch):
    chance = seeded()
    watcher = watched.begin(watch(watched.here))
    for _ in range(8):
        for _ in range(chance.randrange(1, 8)):
            name = chance.choice("abcdefgh")
            side = chance.choice([watched.there, watched.there, watched.here])
            path = side / name
            try:
                if path.is_dir():
                    path.rmdir()
                elif path.exists() and chance.random() < 0.5:
                    path.unlink()
                elif not path.exists() and chance.random() < 0.3:
                    path.mkdir()
                else:
                    path.write_text(str(chance.random()))
            except OSError:
                # The other side was there first.
                pass
        place.wait_synced()
        # What both sides have is known when the last of the changes was heard.
        marker = f"marker{chance.random()}"
        (watched.there / marker).write_text("x")
        watched.await_names(watcher, [("MOVED_TO", marker)])
    def agrees():
        watched.look()
        return followed([], watcher.names()) == listed(watched.here) == listed(watched.there)
    try:
        wait_for(agrees, "agreement", 30)
    except AssertionError:
        assert (followed([], watcher.names()), listed(watched.here)) == (
            listed(watched.there), listed(watched.there)), watcher.heard()
