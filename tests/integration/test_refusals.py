"""What is refused before any request, and what works without a server."""

import pytest

from driver import FILE_PROVIDER, POSIX, ROOT, Drive, error_of, text_of
from multistatus import multistatus, response, status

PROTECTED = ["/Home/Apps", "/Home/Containers/x", "/Home/Caches", "/Home/AppCache-Archive/a/b.txt",
             "/Home/Offloaded", "/Home/iOS-Backups", "/Home/Docker-Data", "/Home/Backups/1",
             "/Home/_pending-delete", "/Home/.hidden", "/Home/.Trash/a"]
FREE = ["/Home/apps", "/Home/Documents/Apps", "/Apps", "/home/Apps", "/Home/Apps2", "/Home/a.b"]
BAD_NAMES = ["", ".", "..", "a/b", "/", "a/", "/a"]
ODD_NAMES = ["...", ".hidden", "a:b", " ", "\t", "a\nb", "x" * 1000, "~", "a\\b"]
PERMISSION = "The operation couldn’t be completed. Operation not permitted"


def split(path):
    parent, _, name = path.rpartition("/")
    return {"filename": name, "parentItemIdentifier": parent or ROOT}


def assert_refused(reply, item=None):
    assert error_of(reply) == (POSIX, 1)
    assert text_of(reply) == PERMISSION
    assert reply["error"]["userInfo"] == {}
    assert reply["synchronous"] is True
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}
    assert reply.get("item") == item


def test_protected_folders_take_no_new_items(scene):
    with scene.drive() as drive:
        for path in PROTECTED:
            for kind in (None, "public.folder"):
                assert_refused(drive.call("createItem", item={**split(path), "contentType": kind}))
        drive.finish()
        assert drive.lines == []
    assert scene.asked() == []


def test_protected_items_are_not_deleted(scene):
    with scene.drive() as drive:
        for path in PROTECTED:
            assert_refused(drive.call("deleteItem", identifier=path))
            assert_refused(drive.call("deleteItem", identifier=path + "//"))
    assert scene.asked() == []


def test_nothing_moves_into_or_out_of_protected_folders(scene):
    with scene.drive() as drive:
        for path in PROTECTED:
            into = {"itemIdentifier": "/Home/free.txt", **split(path)}
            assert_refused(drive.call("modifyItem", item=into, changedFields=["filename"]))
            out = {"itemIdentifier": path, **split("/Home/free.txt")}
            assert_refused(drive.call("modifyItem", item=out, changedFields=["filename"]))
            # Nor does a change that would send nothing at all.
            assert_refused(drive.call("modifyItem", item={"itemIdentifier": path, **split(path)},
                                      changedFields=["tagData"]))
    assert scene.asked() == []


def test_protected_items_can_be_read(scene):
    scene.routes({"PROPFIND /Home/Apps/": multistatus(response("/Home/Apps/a", size=1)),
                  "PROPFIND /Home/Apps/a": multistatus(response("/Home/Apps/a", size=1)),
                  "GET /Home/Apps/a": {"body": "x"}})
    with scene.drive() as drive:
        [item] = drive.call("enumerateItems", identifier="/Home/Apps")["items"]
        assert item["capabilities"] == 1
        assert drive.call("item", identifier="/Home/Apps/a")["item"]["capabilities"] == 1
        assert drive.call("fetchContents", identifier="/Home/Apps/a")["error"] is None


def test_look_alikes_are_not_protected(scene):
    scene.script(status(204))
    with scene.drive() as drive:
        for path in FREE:
            assert drive.call("deleteItem", identifier=path)["error"] is None
    assert scene.asked() == [("DELETE", path) for path in FREE]


def test_invalid_names_are_refused(scene):
    with scene.drive() as drive:
        for name in BAD_NAMES:
            item = {"filename": name, "parentItemIdentifier": "/Docs"}
            assert_refused(drive.call("createItem", item=item))
            assert_refused(drive.call("modifyItem", changedFields=["filename"],
                                      item={"itemIdentifier": "/Docs/a", **item}))
        drive.finish()
        assert drive.lines == []
    assert scene.asked() == []


def test_odd_names_pass(scene):
    scene.script(status(204))
    with scene.drive() as drive:
        for name in ODD_NAMES:
            reply = drive.call("createItem", item={"filename": name, "parentItemIdentifier": ROOT})
            assert reply["error"] is None, name
            assert reply["item"]["filename"] == name
    assert len(scene.asked()) == 2 * len(ODD_NAMES)


def test_capabilities_follow_the_place(scene):
    scene.script(multistatus(
        response("/Home/", folder=True), response("/readme.txt"), response("/Home/d/", folder=True),
        response("/Home/Apps/", folder=True), response("/Home/.x", folder=True)))
    with scene.drive() as drive:
        items = drive.call("enumerateItems", identifier="/elsewhere")["items"]
    assert {item["itemIdentifier"]: item["capabilities"] for item in items} == {
        "/Home": 3, "/readme.txt": 43, "/Home/d": 43, "/Home/Apps": 1, "/Home/.x": 1}


# ---- without a configuration ---------------------------------------------------------------------


@pytest.fixture
def idle(unconfigured):
    with Drive(unconfigured) as drive:
        yield drive
        drive.finish()
        assert drive.log_lines(1) == ["no WebDAV config in app group — host serve not up?"]
        assert len(drive.lines) == 1


def assert_unauthenticated(reply):
    assert error_of(reply) == (FILE_PROVIDER, -1000)
    assert reply["error"]["userInfo"] == {}
    assert reply["synchronous"] is True


def test_without_a_configuration_the_root_is_still_there(idle):
    reply = idle.call("item", identifier=ROOT)
    assert reply["item"]["filename"] == "Kestrowan"
    assert reply["item"]["itemVersion"]["contentVersion"] == "root|0|0"
    assert reply["synchronous"] is True


def test_without_a_configuration_listings_fail(idle):
    reply = idle.call("enumerateItems", identifier=ROOT)
    assert_unauthenticated(reply)
    assert (reply["items"], reply["pages"]) == ([], 0)
    assert_unauthenticated(idle.call("enumerateItems", identifier="/Home/Apps"))


def test_without_a_configuration_changes_and_anchors_answer_as_ever(idle):
    reply = idle.call("enumerateChanges", identifier=ROOT, anchor="v3-0")
    assert error_of(reply) == (FILE_PROVIDER, -1002)
    assert idle.call("currentSyncAnchor", identifier=ROOT)["anchor"].startswith("v3-")


def test_without_a_configuration_every_operation_fails_first_of_all(idle):
    # The missing configuration comes before the name and the protection are looked at.
    assert_unauthenticated(idle.call("item", identifier="/Home"))
    reply = idle.call("fetchContents", identifier="/Home/a")
    assert_unauthenticated(reply)
    assert reply["progress"] == {"totalUnitCount": 0, "completedUnitCount": 0}
    assert (reply["url"], reply["item"]) == (None, None)
    reply = idle.call("createItem", item={"filename": "..", "parentItemIdentifier": "/Home/Apps"})
    assert_unauthenticated(reply)
    assert reply["item"] is None
    assert_unauthenticated(idle.call("deleteItem", identifier="/Home/Apps"))


def test_without_a_configuration_a_modification_gives_the_item_back(idle):
    item = {"itemIdentifier": "/Home/Apps/x", "filename": "a/b", "parentItemIdentifier": "/Home/y",
            "contentType": "public.folder"}
    reply = idle.call("modifyItem", item=item, changedFields=["filename"])
    assert_unauthenticated(reply)
    assert {name: reply["item"][name] for name in item} == item
    assert (reply["remainingFields"], reply["shouldFetchContent"]) == ([], False)
