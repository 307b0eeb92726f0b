"""Requests that took effect without an answer, in part, in another way, or not at all though the
answer says so."""

import os

from hosted import wait_for
from hosting import outcome
from trees import read_tree

OLD = b"old contents"
NEW = b"new contents, a little longer"
LOST = {"rst": {"cut": 0, "then": "rst"}, "drop": {"cut": 5, "then": "drop"},
        "bad-gateway": {"status": 502}, "timeout": {"status": 504}}


def create(folder):
    (folder / "new").write_bytes(NEW)


def make(folder):
    (folder / "made").mkdir()


def rename(folder):
    os.rename(folder / "old", folder / "moved")


def rename_folder(folder):
    os.rename(folder / "sub", folder / "away")


def save(folder):
    (folder / "old.tmp").write_bytes(NEW)
    os.replace(folder / "old.tmp", folder / "old")


def unlink(folder):
    os.unlink(folder / "old")


def rmdir(folder):
    os.rmdir(folder / "empty")


FILLED = {"/old": OLD, "/sub": None, "/sub/a": OLD, "/empty": None}
# The request of each change, what it is about, what is looked at afterwards, and what changes.
CHANGES = {create: ("PUT", "new", "new", {"/new": NEW}),
           make: ("MKCOL", "made", "made", {"/made": None}),
           rename: ("MOVE", "old", "moved", {"/old": ..., "/moved": OLD}),
           rename_folder: ("MOVE", "sub", "away", {"/sub": ..., "/sub/a": ..., "/away": None,
                                                   "/away/a": OLD}),
           save: ("PUT", "old", None, {"/old": NEW}),
           unlink: ("DELETE", "old", None, {"/old": ...}),
           rmdir: ("DELETE", "empty", None, {"/empty": ...})}


class Changes:
    """Every change, in a folder of its own for each way to lose its answer."""

    def __init__(self, scene, ways):
        self.scene = scene
        self.calls, self.expected, self.requests = {}, {}, []
        for change, (method, name, _, made) in CHANGES.items():
            for way in ways:
                folder = f"{change.__name__}-{way}"
                scene.put(f"{folder}/old", OLD)
                scene.put(f"{folder}/sub/a", OLD)
                scene.dav.makeFolder(f"{scene.path}/{folder}/empty")
                self.calls[folder] = (change, scene.home / folder)
                self.requests.append((method, f"/{folder}/{name}"))
                tree = {"": None, **FILLED, **made}
                self.expected |= {f"/{folder}{path}": now for path, now in tree.items()
                                  if now is not ...}
        read_tree(scene.home)
        scene.dav.log.clear()

    def make(self):
        assert self.scene.at_once(self.calls) == dict.fromkeys(self.calls)

    def check(self):
        """Each was asked for once."""
        self.scene.settle(self.expected)
        assert sorted(self.scene.asked("PUT", "MKCOL", "MOVE", "DELETE")) == sorted(self.requests)
        assert self.scene.conflicts() == []


def kept(scene):
    """The bytes of everything that lies in the history."""
    return scene.place.history()


def test_changes_whose_answers_were_lost_are_made_once(scene):
    changes = Changes(scene, LOST)
    faults = [scene.fault(method, f"{change.__name__}-{way}/{name}", times=1, answer=answer)
              for change, (method, name, _, _) in CHANGES.items() for way, answer in LOST.items()]
    changes.make()
    wait_for(lambda: all(fault.met for fault in faults), "lost answers")
    changes.check()


def test_changes_that_cannot_be_looked_at_afterwards_are_made_once(scene):
    """The request succeeds, and the look at what it made fails."""
    ways = {"status": {"status": 500}, "cut": {"cut": 0, "then": "rst"}}
    changes = Changes(scene, ways)
    faults = [scene.fault("PROPFIND", f"{change.__name__}-{way}/{made}", depth="0", times=1,
                          answer=answer)
              for change, (_, _, made, _) in CHANGES.items() if made
              for way, answer in ways.items()]
    changes.make()
    wait_for(lambda: all(fault.met for fault in faults), "looks")
    changes.check()


def stored(scene, name, contents):
    """An answer before which the server has stored something else than it was sent."""
    def answer(_):
        scene.put(name, contents)
        return {"status": 204}
    return answer


def test_a_body_that_was_stored_in_part_loses_neither_side(scene):
    scene.put("old.txt", OLD)
    read_tree(scene.home)
    for name in ("old.txt", "new.txt"):
        def half(_, name=name):
            scene.put(name, name.encode() + NEW[:7])
            return {"cut": 0, "then": "rst"}

        scene.fault("PUT", name, times=1, effect=False, answer=half)
        (scene.home / name).write_bytes(name.encode() + NEW)
    wait_for(lambda: len(scene.asked("PUT")) >= 2, "uploads")
    scene.place.wait_synced()
    tree = scene.tree()
    for name in (b"old.txt", b"new.txt"):
        assert name + NEW in tree.values()
        assert name + NEW[:7] in tree.values()
    scene.settle(tree)


def test_contents_that_the_server_stores_with_another_size_are_kept(scene):
    """Somebody wrote in between, or the server changed what it was sent."""
    scene.put("old.txt", OLD)
    read_tree(scene.home)
    for name in ("old.txt", "new.txt"):
        scene.fault("PUT", name, times=1, effect=False,
                    answer=stored(scene, name, b"of the server"))
        (scene.home / name).write_bytes(name.encode() + NEW)
    scene.place.wait_synced()
    tree = scene.tree()
    for name in ("old.txt", "new.txt"):
        assert tree[f"/{name}"] == b"of the server"
        assert name.encode() + NEW in [*tree.values(), *kept(scene)]
    scene.settle(tree)


def test_a_server_that_changes_all_it_is_sent_does_not_get_copies_without_end(scene):
    scene.put("old.txt", OLD)
    read_tree(scene.home)

    def longer(answer):
        request = scene.dav.log[-1]
        scene.dav.put(request["path"], bytes(request["body"]) + b"\n")
        return answer

    fault = scene.dav.fault("PUT", None, answer=longer)
    (scene.home / "old.txt").write_bytes(NEW)
    scene.dav.waitFor(lambda: fault.met)
    scene.place.wait_synced()
    assert scene.tree()["/old.txt"] == NEW + b"\n"
    assert fault.met <= 2
    scene.settle(scene.tree())


def test_a_tag_that_turns_strong_is_no_change(scene):
    """Some servers give a weak tag in the first second after a write."""
    scene.put("a.txt", OLD)
    weak = scene.dav.fault("PROPFIND", None, answer=lambda given: {
        **given, "body": given["body"].replace('<D:getetag>"', '<D:getetag>W/"')})
    (scene.home / "a.txt").write_bytes(NEW)
    scene.place.wait_synced()
    assert weak.met
    scene.dav.heal()
    scene.dav.log.clear()
    wait_for(lambda: (scene.home / "a.txt").read_bytes() == NEW and
             ("PROPFIND", "") in scene.asked("PROPFIND"), "listing")
    (scene.home / "a.txt").write_bytes(OLD)
    scene.settle({"/a.txt": OLD})
    assert not scene.asked("GET")
    assert scene.conflicts() == []


def test_moves_that_are_refused_with_success_are_made_later(scene):
    scene.put("files/a.txt", OLD)
    scene.put("folders/sub/a.txt", OLD)
    read_tree(scene.home)
    faults = [scene.fault("MOVE", name, times=2, effect=False, answer={"status": 207})
              for name in ("files/a.txt", "folders/sub")]
    assert scene.at_once({
        "file": (os.rename, scene.home / "files" / "a.txt", scene.home / "files" / "b.txt"),
        "folder": (os.rename, scene.home / "folders" / "sub", scene.home / "folders" / "moved"),
    }) == {"file": None, "folder": None}
    scene.dav.waitFor(lambda: all(fault.met == 2 for fault in faults))
    scene.settle({"/files": None, "/files/b.txt": OLD, "/folders": None, "/folders/moved": None,
                  "/folders/moved/a.txt": OLD})


def test_a_removal_that_failed_in_part_with_success_shows_what_is_left(scene):
    for name in ("a", "b"):
        scene.dav.makeFolder(f"{scene.path}/{name}")
    assert sorted(os.listdir(scene.home)) == ["a", "b"]
    scene.put("c.txt", OLD)
    fault = scene.fault("DELETE", "a", times=1, effect=False, answer={"status": 207})
    assert outcome(os.rmdir, scene.home / "a") is None
    assert fault.met
    scene.settle({"/a": None, "/b": None, "/c.txt": OLD})


def test_new_contents_that_the_server_did_not_keep_are_kept_here(scene):
    """The server says that it has stored the file and does not have it."""
    scene.put("a.txt", OLD)
    read_tree(scene.home)
    scene.fault("PUT", "new.txt", times=1, effect=False, answer={"status": 201})
    (scene.home / "new.txt").write_bytes(b"nowhere else than here")
    scene.place.wait_synced()
    wait_for(lambda: b"nowhere else than here" in [*kept(scene), *scene.tree().values()]
             or (scene.home / "new.txt").exists(), "contents")
    scene.settle(scene.tree())
    assert b"nowhere else than here" in [*kept(scene), *scene.tree().values()]
