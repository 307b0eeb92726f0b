"""Downloads that are cut, too short, too long, other than announced, or endless."""

import gzip
import os

import pytest

from hosted import wait_for
from hosting import outcome

CONTENTS = bytes(range(256)) * 400
TRIES = 3


def leftovers(scene):
    return os.listdir(scene.place.state / "temporary")


def test_a_download_that_is_cut_is_an_error_and_the_next_one_is_whole(scene):
    cases = {f"{cut}-{then}": {"cut": cut, "then": then}
             for cut in (0, 1, 50, 2000, 70000, 102000) for then in ("close", "drop", "rst")}
    for name in cases:
        scene.put(name, CONTENTS)
    os.listdir(scene.home)
    # Backwards, since those that follow may be fetched ahead.
    for name in sorted(cases, reverse=True):
        scene.fault("GET", name, answer=cases[name])
        assert outcome(open, scene.home / name, "rb") == "EIO", name
        assert scene.state(name) == "synced"
        scene.dav.heal()
        assert (scene.home / name).read_bytes() == CONTENTS, name
    assert leftovers(scene) == []
    scene.settle(scene.tree())


def replaced(body, **members):
    def answer(given):
        without = {name: value for name, value in given.items() if name != "bodyBase64"}
        return {**without, "body": body, **members}
    return answer


PAGE = "<!DOCTYPE html><html><body><p>Please log in<br></body></html>"
# Answers that succeed and are not what the listing announced.
WRONG = {
    "page": replaced(PAGE, headers=[["Content-Type", "text/html"]]),
    "empty": replaced(""),
    "no-content": replaced("", status=204),
    "length-too-short": {"length": 1000, "then": "close"},
    "cut-unseen": {"length": None, "headers": [["Connection", "close"]], "cut": 5000,
                   "then": "close"},
    "longer": lambda given: {**given, "bodyBase64": given["bodyBase64"][:-4] + "AAAAAAAA"},
    "part": {"status": 206, "length": 10, "then": "close",
             "headers": [["Content-Range", "bytes 0-9/102400"]]},
}


@pytest.mark.parametrize("case", WRONG)
def test_contents_of_another_size_than_announced_are_not_shown(scene, case):
    scene.put("a.bin", CONTENTS)
    os.listdir(scene.home)
    fault = scene.fault("GET", "a.bin", answer=WRONG[case])
    assert outcome(open, scene.home / "a.bin", "rb") == "EIO"
    assert TRIES <= fault.met <= 2 * TRIES
    assert os.stat(scene.home / "a.bin").st_size == len(CONTENTS)
    assert leftovers(scene) == []
    scene.dav.heal()
    assert (scene.home / "a.bin").read_bytes() == CONTENTS
    scene.settle({"/a.bin": CONTENTS})


def test_contents_of_another_size_once_are_fetched_again(scene):
    for case, answer in WRONG.items():
        scene.put(case, CONTENTS)
        scene.fault("GET", case, times=1, answer=answer)
    for case in WRONG:
        assert (scene.home / case).read_bytes() == CONTENTS
    scene.settle(scene.tree())


def test_bytes_beyond_the_announced_end_belong_to_no_file(scene):
    scene.put("a.bin", CONTENTS)
    scene.put("b.bin", CONTENTS)

    def more(given):
        return {**given, "length": len(CONTENTS),
                "bodyBase64": given["bodyBase64"][:-4] + "AAAA" * 5000}

    # The last bytes of the body are others, too, which nothing tells.
    scene.fault("GET", "a.bin", answer=more)
    read = (scene.home / "a.bin").read_bytes()
    assert len(read) == len(CONTENTS)
    assert read[:-3] == CONTENTS[:-3]
    assert (scene.home / "b.bin").read_bytes() == CONTENTS


def test_a_body_is_taken_as_it_is_whatever_it_says_of_its_encoding(scene):
    packed = gzip.compress(CONTENTS)
    scene.put("a.gz", packed)
    scene.fault("GET", "a.gz", answer={"headers": [["Content-Encoding", "gzip"]]})
    assert (scene.home / "a.gz").read_bytes() == packed
    asked = [one for one in scene.dav.log if one["method"] == "GET"]
    assert asked and all("accept-encoding" not in one["headers"] or
                         one["headers"]["accept-encoding"] == "identity" for one in asked)


def test_a_file_that_changes_while_it_is_fetched_is_fetched_again(scene):
    scene.put("a.txt", b"one")
    os.listdir(scene.home)

    def and_change(answer):
        scene.put("a.txt", b"two, which is longer")
        return answer

    scene.fault("GET", "a.txt", times=1, answer=and_change)
    assert (scene.home / "a.txt").read_bytes() == b"two, which is longer"
    scene.settle({"/a.txt": b"two, which is longer"})


def test_a_file_that_never_stops_changing_is_read_all_the_same(scene):
    """Each download is whole, though it is never the last version."""
    scene.put("log.txt", b"0\n")
    os.listdir(scene.home)
    lines = []

    def and_grow(answer):
        lines.append(len(lines) + 1)
        scene.put("log.txt", scene.read("log.txt") + b"%d\n" % lines[-1])
        return answer

    fault = scene.fault("GET", "log.txt", answer=and_grow)
    read = (scene.home / "log.txt").read_bytes()
    assert fault.met <= 2 * TRIES
    assert read == b"".join(b"%d\n" % number for number in range(read.count(b"\n")))
    scene.dav.heal()
    wait_for(lambda: (scene.home / "log.txt").read_bytes() == scene.read("log.txt"), "last version")
    scene.settle({"/log.txt": scene.read("log.txt")})


def test_a_file_without_an_announced_size_is_read_whole(scene):
    scene.put("a.bin", CONTENTS)
    scene.dav.fault("PROPFIND", None, answer=lambda given: {
        **given, "body": given["body"].replace(
            f"<D:getcontentlength>{len(CONTENTS)}</D:getcontentlength>", "")})
    assert os.stat(scene.home / "a.bin").st_size == 0
    assert (scene.home / "a.bin").read_bytes() == CONTENTS
    assert os.stat(scene.home / "a.bin").st_size == len(CONTENTS)


@pytest.mark.parametrize("size", ["-1", "-9223372036854775808", "99999999999999999999", "1e3", "x",
                                  "0x10", "9223372036854775807"])
def test_an_absurd_size_does_no_harm(scene, size):
    scene.put("a.bin", CONTENTS)
    scene.put("b.bin", CONTENTS)

    def forged(given):
        before, name, after = given["body"].partition("a.bin<")
        after = after.replace(f">{len(CONTENTS)}<", f">{size}<", 1)
        return {**given, "body": before + name + after}

    scene.dav.fault("PROPFIND", None, answer=forged)
    assert sorted(os.listdir(scene.home)) == ["a.bin", "b.bin"]
    shown = os.stat(scene.home / "a.bin").st_size
    assert 0 <= shown < 1 << 63
    wanted = (CONTENTS,) if shown in (0, len(CONTENTS)) else ("ENOSPC", "EIO")
    assert outcome(lambda: (scene.home / "a.bin").read_bytes()) in wanted
    assert (scene.home / "b.bin").read_bytes() == CONTENTS
    scene.settle({"/a.bin": CONTENTS, "/b.bin": CONTENTS})


def test_a_file_that_sends_far_more_than_announced_is_not_taken(scene):
    scene.put("a.bin", b"little")
    os.listdir(scene.home)
    scene.fault("GET", "a.bin", answer=lambda _: {"length": None, "fill": 8 << 20, "then": "close",
                                                  "headers": [["Connection", "close"]]})
    assert outcome(open, scene.home / "a.bin", "rb") == "EIO"
    assert leftovers(scene) == []
    scene.settle({"/a.bin": b"little"})
