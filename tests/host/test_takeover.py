"""States that an earlier version of the program left are taken over whole.

tests/data/states/README.md says what lies in them. What must become of it is said here, and does
not come from the program.
"""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

import hosted
from dav_server import DavServer
from hosted import DONE, wait_for
from mounts import write_bridge
from trees import differences, read_tree

STATES = Path(__file__).resolve().parents[1] / "data" / "states"
WORK = "/Home/Work"
DATE_NS = 981173106_123456789
DATED = re.compile(r"\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ ")
# What takes the place of something of another kind may be taken for another client's.
CHANGED_KIND = re.compile(r"^(/becomes a (?:file|folder)) \(2\)")
CONFLICT = re.compile(r" \(conflict \d{4}-\d\d-\d\d \d{4} [^/)]*\)")

UNTOUCHED = {
    "keep.txt": "keep", "cloud.txt": "cloud", "mapped.txt": "mapped",
    "folder of old/inside.txt": "inside",
    "pinned.txt": "pinned", "attributes.txt": "attributes", "mode.txt": "mode",
    "date.txt": "date", "discarded.txt": "discarded", "target/there.txt": "there"}
CONTENTS = {
    "new.txt": "new", "new ☃ naïve.txt": "a name of many bytes", "n" * 255: "a long name",
    "empty.txt": "", "new with properties.txt": "#!/bin/sh\n",
    "changed.txt": "changed here", "appended.txt": "appended and more", "truncated.txt": "trunc",
    "emptied.txt": "", "both later.txt": "both later.txt from here",
    "removed there later.txt": "removed there later.txt from here",
    # Refused, once in a while or for good.
    "full.txt": "does not fit", "stale/waits.txt": "waits in a folder that went",
    "both.txt": "both.txt from there", "both (conflict).txt": "both.txt from here",
    "conflict waits.txt": "conflict waits.txt from there",
    "conflict waits (conflict).txt": "conflict waits.txt from here"}
NAMES = {
    "renamed here.txt": "renamed", "target/moved.txt": "moved",
    "target/moved cloud.txt": "moved cloud",
    "replaced.txt": "replaced here", "replaced by old.txt": "takes",
    "swap a.txt": "swap b", "swap b.txt": "swap a",
    "ring 1.txt": "ring 3", "ring 2.txt": "ring 1", "ring 3.txt": "ring 2",
    "edited and renamed here.txt": "edited here and renamed",
    "target/moved and edited.txt": "moved and edited here",
    "made again.txt": "made again here",
    "left.txt": "left for a new one", "left for a new one.txt": "the new one"}
FOLDERS = {
    "new folder/a.txt": "in a new folder", "new folder/in/deep/b.txt": "deep in a new folder",
    "new empty folder": None,
    "renamed folder here/in.txt": "in renamed folder",
    "renamed folder here/new.txt": "new in a renamed folder",
    "renamed folder here/sub/deep.txt": "deep and changed",
    "target/moved folder/in.txt": "in moved folder",
    "out again.txt": "moved into what goes",
    "becomes a folder/in.txt": "in what was a file", "becomes a file": "what was a folder"}
NOTHING_UNDER_WAY = {
    "flight/changed.txt": "flight changed", "flight/saved twice.txt": "flight saved twice",
    "flight/half.txt": "flight half", "flight/moved.txt": "flight moved",
    "flight/not moved.txt": "flight not moved", "flight/removed.txt": "flight removed",
    "flight/not removed.txt": "flight not removed", "flight/open.txt": "flight open"}
UNDER_WAY = {
    "flight/new.txt": "flight new", "flight/changed.txt": "flight changed here",
    "flight/saved twice.txt": "flight saved once and again", "flight/half.txt": "flight half here",
    "flight/folder/in.txt": "in a folder that was made",
    "flight/moved here.txt": "flight moved", "flight/moved too.txt": "flight not moved",
    "flight/open.txt": "flight open and not closed\n"}
STAYS_HERE = {f"/{name}": f"stays here: {name}".encode()
              for name in (".~lock.letter.odt#", ".letter.txt.swp", "fetched.bin.part")}
RECOVERED = {b"a discarded change", b"a discarded file"}
LARGE = {b"begin of large.bin": 600 << 20, b"begin of larger.bin": 400 << 20}


def tree_of(*parts):
    """A tree as read_tree gives it, of texts by their paths."""
    tree = {}
    for path, text in (entry for part in parts for entry in part.items()):
        for above in Path("/" + path).parents:
            tree[str(above)] = None
        tree["/" + path] = None if text is None else text.encode()
    del tree["/"]
    return tree


WANTED = {"stopped": tree_of(UNTOUCHED, CONTENTS, NAMES, FOLDERS, NOTHING_UNDER_WAY),
          "killed": tree_of(UNTOUCHED, CONTENTS, NAMES, FOLDERS, UNDER_WAY)}


def without_dates(tree):
    return {CHANGED_KIND.sub(r"\1", CONFLICT.sub(" (conflict)", path)): contents
            for path, contents in tree.items()}


class Takeover:
    def __init__(self, name, dav, place, same_run):
        self.name = name
        self.dav = dav
        self.place = place
        self.top = place.point / "Home" / "Work"
        unpacked = place.directory / "unpacked"
        unpacked.mkdir()
        subprocess.run(["tar", "--extract", "--no-same-owner", "--file", STATES / f"{name}.tar.gz",
                        "--directory", unpacked], check=True)
        dav.restore(json.loads((unpacked / "server.json").read_text(encoding="utf-8")))
        place.state.parent.mkdir(mode=0o700, parents=True)
        (unpacked / "state").rename(place.state)
        self._adopt(same_run)

    def _adopt(self, same_run):
        """The state as if it had been left here, and just now."""
        for path in [self.place.state, *self.place.state.rglob("*")]:
            path.chmod(0o700 if path.is_dir() else 0o600)
        for note in (self.place.state / "container", self.place.state / "mount-point"):
            if note.exists():
                note.write_text(note.read_text().replace("/place", str(self.place.directory)))
        mark = self.place.state / "in-use"
        assert mark.exists() == (self.name == "killed")
        if same_run:
            mark.write_bytes(Path("/proc/sys/kernel/random/boot_id").read_bytes())
        today = hosted.time.strftime("%Y-%m-%dT%H-%M-%SZ ", hosted.time.gmtime())
        for path in (self.place.state / "recovery").iterdir():
            path.rename(path.with_name(DATED.sub(today, path.name)))

    def mount(self):
        self.place.mount().ready()

    def at_server(self):
        return without_dates(self.dav.tree(WORK))

    def settle(self, wanted):
        """Everything arrives, also what has to be asked for once more, and stays like that."""
        wait_for(lambda: os.path.isdir(self.top), "folder")
        def arrived():
            self.place.run("retry")
            self.place.run("wait", "--timeout", "5")
            return without_dates(read_tree(self.top)) == {**wanted, **STAYS_HERE}
        try:
            wait_for(arrived, "agreement")
        except AssertionError:
            assert differences(wanted, self.at_server()) == []
            assert differences({**wanted, **STAYS_HERE}, without_dates(read_tree(self.top))) == []
            raise
        self.place.wait_synced()
        assert differences(wanted, self.at_server()) == []
        assert differences({**wanted, **STAYS_HERE}, without_dates(read_tree(self.top))) == []
        assert self.place.status()["pending"]["count"] == 0

    def check_properties(self):
        """What is kept here alone."""
        for name in ("attributes.txt", "folder of old", "new with properties.txt"):
            assert os.getxattr(self.top / name, "user.note") == b"kept here", name
        assert hosted.mode(self.top / "mode.txt") == 0o700
        assert hosted.mode(self.top / "new with properties.txt") == 0o755
        for name in ("date.txt", "folder of old", "new with properties.txt"):
            assert os.stat(self.top / name).st_mtime_ns == DATE_NS, name
        assert os.getxattr(self.top / "pinned.txt", "user.kestrowan.pinned") == b"yes"
        assert os.getxattr(self.top / "keep.txt", "user.kestrowan.pinned") == b"no"
        for name in STAYS_HERE:
            state = os.getxattr(str(self.top) + name, "user.kestrowan.state")
            assert state == b"local-only", name

    def kept(self):
        """The beginnings and sizes of all files that lie in the state."""
        found = {}
        for path in self.place.state.rglob("*"):
            if path.is_file():
                with open(path, "rb") as file:
                    found.setdefault(file.read(32).rstrip(b"\0"), set()).add(path.stat().st_size)
        return found

    def check_recovered(self, *more):
        kept = self.kept()
        for contents in [*RECOVERED, *more]:
            assert len(contents) in kept.get(contents, ()), contents
        for beginning, size in LARGE.items():
            assert size in kept.get(beginning, ()), beginning


@pytest.fixture(name="take")
def _take(tmp_path, make_place):
    with DavServer() as dav:
        place = make_place(tmp_path / "place" / "container")
        write_bridge(place.container, dav)
        yield lambda name, same_run: Takeover(name, dav, place, same_run)
        place.clean_up()
        # What the test has no need of any more is large.
        shutil.rmtree(place.state, ignore_errors=True)
    assert dav.violations == []
    assert dav.eventsOf("serverError") == []


# The machine may have stopped together with the program.
LEFT = pytest.mark.parametrize("name, same_run", [("stopped", False), ("killed", True),
                                                  ("killed", False)])


@LEFT
def test_everything_that_waited_arrives(take, name, same_run):
    takeover = take(name, same_run)
    takeover.mount()
    takeover.settle(WANTED[name])
    takeover.check_properties()
    takeover.check_recovered()
    asked = takeover.dav.asked("PUT", "MKCOL", "MOVE", "DELETE")
    # What had its effect is not done again.
    for method, path in (("PUT", "flight/new.txt"), ("PUT", "flight/changed.txt"),
                         ("MKCOL", "flight/folder"), ("MOVE", "flight/moved.txt"),
                         ("DELETE", "flight/removed.txt")):
        assert (method, f"{WORK}/{path}") not in asked


@pytest.mark.parametrize("name", ["stopped", "killed"])
def test_what_was_downloaded_is_not_fetched_again(take, name):
    takeover = take(name, name == "killed")
    takeover.mount()
    for path in ("keep.txt", "folder of old/inside.txt", "pinned.txt"):
        assert (takeover.top / path).read_text(encoding="utf-8") == UNTOUCHED[path]
        assert ("GET", f"{WORK}/{path}") not in takeover.dav.asked("GET")


def test_what_was_taken_over_is_taken_over_once(take):
    takeover = take("killed", True)
    takeover.mount()
    takeover.settle(WANTED["killed"])
    assert takeover.place.mounts[-1].end() == DONE
    takeover.dav.log.clear()
    takeover.mount()
    takeover.settle(WANTED["killed"])
    takeover.check_properties()
    takeover.check_recovered()
    assert takeover.dav.asked("PUT", "MKCOL", "MOVE", "DELETE") == []


def test_a_second_death_loses_nothing(take):
    takeover = take("killed", True)
    held = takeover.dav.fault("PUT", None, answer={"holdFor": "the end"})
    takeover.mount()
    wait_for(lambda: held.met, "upload")
    takeover.place.mounts[-1].kill()
    takeover.dav.heal()
    takeover.dav.release("the end")
    takeover.mount()
    takeover.settle(WANTED["killed"])
    takeover.check_properties()
    takeover.check_recovered()


def change_at_server(dav):
    """What another client did while no program ran here; gives what is to be seen of it."""
    def put(name, text):
        dav.put(f"{WORK}/{name}", text.encode())
    put("both later.txt", "both later.txt from there")
    dav.remove(f"{WORK}/removed there later.txt")
    put("changed there later.txt", "changed there")
    put("removed cloud.txt", "changed while it was removed")
    put("gone/new there.txt", "came into what goes")
    put("new.txt", "another new one")
    put("renamed.txt", "changed while it was renamed")
    put("moved folder/new there.txt", "came into what is moved")
    put("keep.txt", "kept and changed there")
    dav.remove(f"{WORK}/folder of old/inside.txt")
    return tree_of({
        "both later.txt": "both later.txt from there",
        "both later (conflict).txt": "both later.txt from here",
        "changed there later.txt": "changed there",
        "removed cloud.txt": "changed while it was removed",
        "gone/new there.txt": "came into what goes",
        "new.txt": "another new one", "new (2).txt": "new",
        "renamed here.txt": "changed while it was renamed",
        "target/moved folder/new there.txt": "came into what is moved",
        "keep.txt": "kept and changed there"})


@LEFT
def test_what_changed_at_the_server_meanwhile_is_not_lost_either(take, name, same_run):
    takeover = take(name, same_run)
    wanted = {**WANTED[name], **change_at_server(takeover.dav)}
    del wanted["/folder of old/inside.txt"]
    takeover.mount()
    takeover.settle(wanted)
    takeover.check_recovered(*([b"inside"] if name == "stopped" or same_run else []))
