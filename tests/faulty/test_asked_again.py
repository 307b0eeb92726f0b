"""What can be asked twice is asked twice, before a program gets an error for it."""

import os

import pytest

from trees import read_tree

CONTENTS = bytes(range(256)) * 2048


@pytest.fixture
def home(dav, dav_place):
    dav.put("/Home/d/sub/file", CONTENTS)
    dav_place.mount().ready()
    home = dav_place.point / "Home" / "d"
    assert os.listdir(home) == ["sub"]
    return home


@pytest.mark.parametrize("answer", [{"status": 500}, {"status": 503}, {"cut": 0, "then": "rst"},
                                    {"cut": 40}], ids=["500", "503", "reset", "cut"])
def test_a_listing_that_fails_once_is_no_error(home, dav, answer):
    failed = dav.fault("PROPFIND", "/Home/d/sub", depth="1", times=1, answer=answer)
    assert os.listdir(home / "sub") == ["file"]
    assert failed.met == 1


@pytest.mark.parametrize("answer", [{"status": 500}, {"cut": 0, "then": "rst"},
                                    {"cut": len(CONTENTS) // 2}], ids=["500", "reset", "cut"])
def test_a_download_that_fails_once_is_no_error(home, dav, answer):
    failed = dav.fault("GET", "/Home/d/sub/file", times=1, answer=answer)
    assert (home / "sub" / "file").read_bytes() == CONTENTS
    assert failed.met == 1


def test_a_change_that_fails_is_not_sent_again_blindly(home, dav, dav_place):
    """Its effect is looked for first."""
    dav.fault("MOVE", None, times=1, answer={"cut": 0, "then": "rst"})
    os.rename(home / "sub" / "file", home / "moved")
    dav_place.wait_synced()
    assert len(dav.asked("MOVE")) == 1
    assert read_tree(home) == dav.tree("/Home/d") == {"/sub": None, "/moved": CONTENTS}
