"""A storage that stops answering, and a mount of it at which programs work."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from mounts import *  # noqa: E402, F403

import hanging  # noqa: E402


@pytest.fixture
def stopped_server(apache):
    server = hanging.StoppedServer(apache)
    yield server
    # A stopped process would not end either.
    server.go_on()


@pytest.fixture
def silent_server(dav, tmp_path):
    server = hanging.SilentServer(dav, tmp_path / "container")
    yield server
    server.go_on()


@pytest.fixture(params=["stopped_server", "silent_server"])
def server(request):
    """A server that can be made to hang: one stops as a whole, the other one's connections are
    taken, and its requests read, and no answer ever comes."""
    return request.getfixturevalue(request.param)


@pytest.fixture
def scene(server, make_place):
    scene = hanging.Scene(server, make_place(server.container))
    yield scene
    scene.clean_up()
