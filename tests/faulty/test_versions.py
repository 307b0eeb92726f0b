"""A server whose versions say little: what changes there is seen, and not overwritten."""

import email.utils
import re

import pytest

from hosted import wait_for

EARLIER = 1_700_000_000
LATER = EARLIER + 60


def dated(seconds):
    return email.utils.formatdate(seconds, usegmt=True)


def saying(name, tag, date):
    """Answers that say this tag and this date of a file."""
    def change(given):
        def entry(match):
            text = match.group(0)
            if f"/{name}</D:href>" not in text:
                return text
            text = re.sub(r"<D:getetag>.*?</D:getetag>",
                          f"<D:getetag>{tag}</D:getetag>" if tag else "", text)
            return re.sub(r"<D:getlastmodified>.*?</D:getlastmodified>",
                          f"<D:getlastmodified>{dated(date)}</D:getlastmodified>" if date else "",
                          text)
        return {**given, "body": re.sub(r"<D:response>.*?</D:response>", entry, given["body"],
                                        flags=re.DOTALL)}
    return change


LONG = "x" * 300

# Tag and date before, tag and date after.
CHANGES = {
    "only-the-end-of-a-long-tag": ((f'"{LONG}1"', EARLIER), (f'"{LONG}2"', EARLIER)),
    "only-the-date-after-a-long-tag": ((f'"{LONG}"', EARLIER), (f'"{LONG}"', LATER)),
    "only-the-date-after-new": (('"new"', EARLIER), ('"new"', LATER)),
    "only-the-date-after-modified": (('"modified"', EARLIER), ('"modified"', LATER)),
    "only-the-date-after-downloaded": (('"downloaded"', EARLIER), ('"downloaded"', LATER)),
    "one-word-for-another": (('"new"', None), ('"root"', None)),
    "only-the-date": ((None, EARLIER), (None, LATER)),
}


@pytest.mark.parametrize("change", CHANGES)
def test_a_change_of_the_same_size_is_shown(scene, change):
    before, after = CHANGES[change]
    scene.put("a.txt", b"theirs 1")
    fault = scene.dav.fault("PROPFIND", re.compile(re.escape(scene.path)),
                            answer=saying("a.txt", *before))
    assert (scene.home / "a.txt").read_bytes() == b"theirs 1"
    scene.put("a.txt", b"theirs 2")
    fault.answer = saying("a.txt", *after)
    wait_for(lambda: (scene.home / "a.txt").read_bytes() == b"theirs 2", "new contents")


@pytest.mark.parametrize("change", CHANGES)
def test_a_change_of_the_same_size_is_not_overwritten(scene, change):
    before, after = CHANGES[change]
    scene.put("a.txt", b"theirs 1")
    fault = scene.dav.fault("PROPFIND", re.compile(re.escape(scene.path)),
                            answer=saying("a.txt", *before))
    assert (scene.home / "a.txt").read_bytes() == b"theirs 1"
    with open(scene.home / "a.txt", "r+b") as file:
        file.write(b"ours   2")
        scene.put("a.txt", b"theirs 2")
        fault.answer = saying("a.txt", *after)
    scene.place.wait_synced()
    assert scene.read("a.txt") == b"theirs 2"
    assert b"ours   2" in scene.tree().values()


@pytest.mark.parametrize("tag", ["x", LONG], ids=["short", "long"])
def test_a_weak_tag_that_becomes_strong_is_no_change(scene, tag):
    scene.put("a.txt", b"contents")
    fault = scene.dav.fault("PROPFIND", re.compile(re.escape(scene.path)),
                            answer=saying("a.txt", f'W/"{tag}"', EARLIER))
    assert (scene.home / "a.txt").read_bytes() == b"contents"
    fault.answer = saying("a.txt", f'"{tag}"', EARLIER)
    met = fault.met
    # The first listing may have been answered before.
    wait_for(lambda: (scene.home / "a.txt").read_bytes() and fault.met >= met + 2, "listings")
    assert scene.asked("GET") == [("GET", "/a.txt")]
