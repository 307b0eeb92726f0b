"""Histories that once failed, step by step."""

import pytest

from steps import Step
from world import World

# What happens, in order; words alone are events.
HISTORIES = {
    "a file is removed at the server and renamed here, and its new name is taken at the server": [
        ("write", "/b"), "pause", ("server_remove", "/b"), ("rename", "/b", "/e/a"),
        ("server_rename", "/d/b", "/e/a"), "pause"],
}


def entry(step):
    return (None, Step(step)) if isinstance(step, str) else ((1, 0), Step(*step))


@pytest.mark.parametrize("steps", HISTORIES.values(), ids=HISTORIES.keys())
def test_a_history_that_once_failed(apache, apache_place, steps):
    world = World(apache, apache_place)
    assert world.play([entry(step) for step in steps]) == {}
