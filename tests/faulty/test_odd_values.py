"""Sizes and dates that no file can have."""

import os

import pytest

from hosting import outcome
from multistatus import TAIL, response

LARGEST = 1 << 60

# What a server says, and what is shown.
SIZES = {"-5": 0, "-9223372036854775808": 0, "9223372036854775807": LARGEST,
         "9223372036854775808": 0, "1152921504606846977": LARGEST, "1e5": 0, "": 0, "0x10": 0,
         "99999999999999999999999999": 0, "+7": 7}
EARLIEST, LATEST = -1 << 63, (1 << 63) - 1
DATES = {"Fri, 31 Dec 9999 23:59:59 GMT": LATEST, "Sat, 12 Apr 2262 00:00:00 GMT": LATEST,
         "Fri, 11 Apr 2262 00:00:00 GMT": 9223286400 * 10**9,
         "Sat, 01 Jan 0001 00:00:00 GMT": EARLIEST, "Thu, 01 Jan 99999 00:00:00 GMT": None,
         "Thu, 01 Jan 999999999999999 00:00:00 GMT": None,
         "Thu, 01 Jan -9999 00:00:00 GMT": None, "Thu, 01 Jan 1970 00:00:00 GMT": 0, "": 0}


@pytest.fixture
def listed(scene):
    """Has the folder listed with these entries, by their names; gives what is shown of each."""
    def listing(entries):
        more = "".join(response(f"{scene.path}/{name}", **members)
                       for name, members in entries.items())
        scene.fault("PROPFIND", depth="1", answer=lambda given: {
            **given, "body": given["body"][:-len(TAIL)] + more + TAIL})
        for name in entries:
            scene.dav.admit(f"{scene.path}/{name}")
        assert sorted(os.listdir(scene.home)) == sorted(entries)
        return {name: os.stat(scene.home / name) for name in entries}
    return listing


def test_sizes_are_from_none_to_the_largest(scene, listed):
    names = {f"file {number}": text for number, text in enumerate(SIZES)}
    shown = listed({name: {"size": text, "etag": '"x"'} for name, text in names.items()})
    assert {names[name]: status.st_size for name, status in shown.items()} == SIZES
    huge = next(name for name, text in names.items() if SIZES[text] == LARGEST)
    assert outcome(open, scene.home / huge, "rb") == "ENOSPC"
    scene.dav.heal()


def test_dates_are_those_that_programs_can_be_told(scene, listed):
    names = {f"file {number}": text for number, text in enumerate(DATES)}
    shown = listed({name: {"size": 1, "etag": '"x"', "modified": text}
                    for name, text in names.items()})
    for name, status in shown.items():
        expected = DATES[names[name]]
        if expected is None:
            assert EARLIEST <= status.st_mtime_ns <= LATEST, names[name]
        else:
            assert status.st_mtime_ns == expected, names[name]
    scene.dav.heal()
