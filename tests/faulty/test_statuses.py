"""The server answers requests with a status that says no."""

import os
import time

from hosted import wait_for
from hosting import outcome
from trees import read_tree

# The protocol of providers has one error for all of these.
REFUSALS = (403, 404, 409, 423, 500, 503, 507)
# Those that say no for good to a change, and what its call gets.
DENIALS = {400: "EINVAL", 403: "EACCES", 405: "EPERM", 409: "EPERM", 414: "ENAMETOOLONG",
           422: "EINVAL", 423: "EBUSY", 451: "EACCES", 507: "EDQUOT"}
# Those that may mean anything.
FAILURES = (404, 429, 500, 503)
# What reading gets.
READING = {403: "EACCES", 423: "EBUSY"}
OLD = b"old contents"
NEW = b"new contents, a little longer"
# Three seconds are promised; the machine may be slow.
VERDICT_SECONDS = 20


def refuse_all(scene, method, name, statuses=REFUSALS, **members):
    return {status: scene.fault(method, name.format(status), answer={"status": status},
                                effect=False, **members) for status in statuses}


def reading_errors():
    return {status: READING.get(status, "EIO") for status in REFUSALS}


def test_a_listing_that_is_refused_is_an_error_while_the_folder_is_there(scene):
    for status in REFUSALS:
        scene.put(f"s{status}/a.txt", OLD)
    faults = refuse_all(scene, "PROPFIND", "s{}", depth="1")
    found = scene.at_once({status: (os.listdir, scene.home / f"s{status}") for status in REFUSALS})
    assert found == reading_errors()
    assert all(fault.met for fault in faults.values())
    scene.dav.heal()
    assert read_tree(scene.home) == scene.tree()


def test_a_folder_that_is_gone_is_missing(scene):
    scene.put("sub/a.txt", OLD)
    assert os.listdir(scene.home) == ["sub"]
    scene.dav.remove(f"{scene.path}/sub")
    assert outcome(os.listdir, scene.home / "sub") == "ENOENT"
    assert os.listdir(scene.home) == []


def test_a_folder_that_was_listed_stays_as_it_was_while_its_listing_is_refused(scene):
    for status in REFUSALS:
        scene.put(f"s{status}/a.txt", OLD)
    seen = read_tree(scene.home)
    faults = refuse_all(scene, "PROPFIND", "s{}", depth="1")
    scene.keeps_showing(seen, *faults.values())
    scene.settle(seen)


def test_one_listing_or_download_that_the_server_fails_at_is_no_error(scene):
    scene.put("sub/a.txt", OLD)
    faults = [scene.fault(method, name, answer={"status": 500}, effect=False, times=1, **members)
              for method, name, members in (("PROPFIND", "sub", {"depth": "1"}),
                                            ("GET", "sub/a.txt", {}))]
    assert os.listdir(scene.home / "sub") == ["a.txt"]
    assert (scene.home / "sub" / "a.txt").read_bytes() == OLD
    assert all(fault.met for fault in faults)


def test_a_download_that_is_refused_three_times_fails_the_opening(scene):
    for status in REFUSALS:
        scene.put(f"{status}.txt", b"%d" % status)
    faults = refuse_all(scene, "GET", "{}.txt")
    found = scene.at_once({status: (open, scene.home / f"{status}.txt", "rb")
                           for status in REFUSALS})
    assert found == reading_errors()
    # Three for the opening, and three ahead of it when the folder is being walked through.
    assert all(3 <= fault.met <= 6 for fault in faults.values())
    assert sorted(os.listdir(scene.home)) == [f"{status}.txt" for status in REFUSALS]
    scene.settle(scene.tree())


def test_a_file_that_is_gone_is_missing_when_it_is_opened(scene):
    scene.put("a.txt", OLD)
    assert os.listdir(scene.home) == ["a.txt"]
    scene.dav.remove(f"{scene.path}/a.txt")
    assert outcome(open, scene.home / "a.txt", "rb") == "ENOENT"
    assert os.listdir(scene.home) == []


def save_everywhere(scene, statuses):
    """Changes a file and makes one for each status, with which both are answered. What is to be
    here then, and the faults."""
    expected = {}
    for status in statuses:
        scene.put(f"{status}.txt", OLD)
        expected |= {f"/{status}.txt": OLD + NEW, f"/new{status}.txt": NEW}
    os.listdir(scene.home)
    faults = [*refuse_all(scene, "PUT", "{}.txt", statuses).values(),
              *refuse_all(scene, "PUT", "new{}.txt", statuses).values()]
    for status in statuses:
        with open(scene.home / f"{status}.txt", "ab") as file:
            file.write(NEW)
        (scene.home / f"new{status}.txt").write_bytes(NEW)
    wait_for(lambda: all(fault.met for fault in faults), "refused uploads")
    return expected, faults


def test_contents_that_the_server_fails_at_stay_here_and_arrive_later(scene):
    statuses = (*FAILURES, 423)
    expected, _ = save_everywhere(scene, statuses)
    assert read_tree(scene.home) == expected
    assert scene.tree() == {f"/{status}.txt": OLD for status in statuses}
    wait_for(lambda: {scene.state(path[1:]) for path in expected} <= {"retrying", "sending"},
             "failure in the state")
    assert scene.place.ask("wait", "--timeout", "0", code=8)["synced"] is False
    scene.settle(expected)
    assert scene.conflicts() == []


def test_contents_that_are_refused_for_good_stay_here_and_are_not_sent_again(scene):
    statuses = sorted(DENIALS.keys() - {423, 507})
    expected, faults = save_everywhere(scene, statuses)
    wait_for(lambda: {scene.state(path[1:]) for path in expected} == {"refused"}, "refusals")
    asked = [fault.met for fault in faults]
    assert read_tree(scene.home) == expected
    assert scene.tree() == {f"/{status}.txt": OLD for status in statuses}
    for status in statuses:
        error = os.getxattr(scene.home / f"new{status}.txt", "user.kestrowan.error").decode()
        assert error.endswith(f"({status} to PUT)")
    for path in expected:
        scene.place.ask("retry", scene.home / path[1:])
    wait_for(lambda: all(fault.met > met for fault, met in zip(faults, asked, strict=True)),
             "another attempt")
    wait_for(lambda: {scene.state(path[1:]) for path in expected} == {"refused"}, "refusals")
    scene.dav.heal()
    for path in expected:
        scene.place.ask("retry", scene.home / path[1:])
    scene.settle(expected)
    assert scene.conflicts() == []


def test_contents_for_which_the_server_has_no_room_stay_here_and_arrive_later(scene):
    expected, faults = save_everywhere(scene, [507])
    wait_for(lambda: {scene.state(path[1:]) for path in expected} == {"retrying"}, "refusals")
    assert os.getxattr(scene.home / "507.txt", "user.kestrowan.error") == \
        b"no room at the server (507 to PUT)"
    scene.dav.heal()
    scene.place.ask("retry", scene.home)
    scene.settle(expected)


def change(kind, folder):
    if kind == "mkdir":
        os.mkdir(folder / "made")
    elif kind == "rename":
        os.rename(folder / "old", folder / "moved")
    elif kind == "rename-folder":
        os.rename(folder / "sub", folder / "away")
    elif kind == "unlink":
        os.unlink(folder / "old")
    else:
        os.rmdir(folder / "empty")


# The request of each change, and what it makes of a folder.
CHANGES = {"mkdir": ("MKCOL", "made", {"/made": None}),
           "rename": ("MOVE", "old", {"/old": ..., "/moved": OLD}),
           "rename-folder": ("MOVE", "sub", {"/sub": ..., "/sub/a": ..., "/away": None,
                                             "/away/a": OLD}),
           "unlink": ("DELETE", "old", {"/old": ...}),
           "rmdir": ("DELETE", "empty", {"/empty": ...})}


def change_everywhere(scene, statuses):
    """Makes each change once for each status, with which it is answered, and says what their calls
    came to: all that was here before, what is to be here after the changes, the faults, the
    outcomes."""
    # In one folder the system makes one change after the other.
    places = {f"{kind}-{status}": kind for kind in CHANGES for status in statuses}
    for place in places:
        scene.put(f"{place}/old", OLD)
        scene.put(f"{place}/sub/a", OLD)
        scene.dav.makeFolder(f"{scene.path}/{place}/empty")
    before = read_tree(scene.home)
    after, faults = dict(before), []
    for kind, (method, name, made) in CHANGES.items():
        faults += refuse_all(scene, method, f"{kind}-{{}}/{name}", statuses).values()
        for status in statuses:
            after |= {f"/{kind}-{status}{path}": now for path, now in made.items()}
    after = {path: now for path, now in after.items() if now is not ...}
    begun = time.monotonic()
    found = scene.at_once({place: (change, kind, scene.home / place)
                           for place, kind in places.items()})
    assert time.monotonic() - begun < VERDICT_SECONDS
    return before, after, faults, found


def test_changes_of_names_that_the_server_fails_at_stay_here_and_are_made_later(scene):
    before, after, faults, found = change_everywhere(scene, FAILURES)
    assert set(found.values()) == {None}
    assert all(fault.met for fault in faults)
    assert read_tree(scene.home) == after
    assert scene.tree() == before
    scene.settle(after)


def test_changes_of_names_that_are_refused_for_good_fail_and_are_undone(scene):
    before, _, faults, found = change_everywhere(scene, DENIALS)
    assert found == {f"{kind}-{status}": error for kind in CHANGES
                     for status, error in DENIALS.items()}
    assert read_tree(scene.home) == before
    assert scene.tree() == before
    # Where others changed something beside it a look may not have told, and it was asked for again.
    asked = [fault.met for fault in faults]
    assert all(1 <= met <= 3 for met in asked)
    scene.settle(before)
    assert [fault.met for fault in faults] == asked


def test_a_folder_that_another_client_made_is_the_same_folder(scene):
    assert os.listdir(scene.home) == []
    scene.dav.makeFolder(f"{scene.path}/made")
    os.mkdir(scene.home / "made")
    assert ("MKCOL", "/made") in scene.asked("MKCOL")
    scene.settle({"/made": None})


def test_wrong_credentials_hold_everything_and_lose_nothing(scene):
    scene.put("known.txt", OLD)
    scene.put("unread.txt", OLD)
    assert (scene.home / "known.txt").read_bytes() == OLD
    fault = scene.dav.fault(None, None, answer={"status": 401}, effect=False)
    wait_for(lambda: outcome(open, scene.home / "unread.txt", "rb") == "EACCES", "refusal")
    assert fault.met
    assert scene.place.status()["held"]
    assert (scene.home / "known.txt").read_bytes() == OLD
    (scene.home / "new.txt").write_bytes(NEW)
    (scene.home / "made").mkdir()
    os.rename(scene.home / "known.txt", scene.home / "moved.txt")
    assert scene.tree() == {"/known.txt": OLD, "/unread.txt": OLD}
    scene.settle({"/new.txt": NEW, "/made": None, "/moved.txt": OLD, "/unread.txt": OLD})
    assert scene.place.status()["held"] is None


def test_changes_that_are_not_authorised_wait_until_they_are(scene):
    scene.put("a.txt", OLD)
    scene.put("b.txt", OLD)
    scene.put("c.txt", OLD)
    before = read_tree(scene.home)
    faults = [scene.dav.fault(method, None, answer={"status": 401}, effect=False)
              for method in ("PUT", "MKCOL", "MOVE", "DELETE")]
    (scene.home / "a.txt").write_bytes(NEW)
    (scene.home / "made").mkdir()
    os.rename(scene.home / "b.txt", scene.home / "moved.txt")
    os.unlink(scene.home / "c.txt")
    scene.dav.waitFor(lambda: any(fault.met for fault in faults))
    assert scene.tree() == before
    scene.settle({"/a.txt": NEW, "/made": None, "/moved.txt": OLD})


def test_a_server_that_fails_at_everything_counts_as_out_of_reach(scene):
    scene.put("known.txt", OLD)
    scene.put("unread.txt", OLD)
    assert (scene.home / "known.txt").read_bytes() == OLD
    scene.dav.fault(None, None, answer={"status": 503}, effect=False)
    assert outcome(open, scene.home / "unread.txt", "rb") == "EHOSTUNREACH"
    assert (scene.home / "known.txt").read_bytes() == OLD
    (scene.home / "known.txt").write_bytes(NEW)
    (scene.home / "made").mkdir()
    assert scene.tree() == {"/known.txt": OLD, "/unread.txt": OLD}
    scene.settle({"/known.txt": NEW, "/made": None, "/unread.txt": OLD})
