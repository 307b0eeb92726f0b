"""Mounts of the command that go through bad times: fixtures, and the end of everything.

For conftest.py files: `from mounts import *`. How hosts are run is told in tests/host/hosted.py.
"""

import contextlib
import json
import os
import random
import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS / "host"), str(TESTS / "mount")]

import driver  # noqa: E402
import hosted  # noqa: E402
import hosting  # noqa: E402
from dav_server import DavServer  # noqa: E402
from real_server import RealServer, is_installed  # noqa: E402

__all__ = ["pytest_configure", "_mountable", "make_place", "apache", "apache_place", "dav", "dav_place", "rng"]


def pytest_configure():
    driver.executable()


@pytest.fixture(autouse=True, name="mountable")
def _mountable():
    if reason := hosted.obstacle():
        pytest.skip(reason)


def take_down(point):
    """Whatever is mounted there goes, if need be by cutting the kernel's connection."""
    if not hosted.is_mounted(point):
        return
    with contextlib.suppress(subprocess.TimeoutExpired):
        subprocess.run(["fusermount3", "-u", "--", str(point)], capture_output=True, check=False,
                       timeout=10)
    if hosted.is_mounted(point):
        hosting.cut(point)
        subprocess.run(["fusermount3", "-u", "-z", "--", str(point)], capture_output=True,
                       check=False, timeout=30)


@pytest.fixture
def make_place(tmp_path, mountable):
    """Makes places for hosts; everything that they mounted goes with the test."""
    places = []

    def make(container, name="place"):
        directory = tmp_path / name
        directory.mkdir()
        places.append(hosted.Place(directory, container))
        return places[-1]

    yield make
    for place in places:
        place.clean_up()
        take_down(place.point)
        for mounted in place.mounts:
            take_down(mounted.point)


@pytest.fixture
def apache(tmp_path, mountable):
    """A real server of the test's own, which has /Home/Documents."""
    if not is_installed("apache"):
        pytest.skip("Apache is not installed")
    with RealServer("apache", tmp_path / "server") as server:
        (server.root / "Home" / "Documents").mkdir(parents=True)
        yield server


@pytest.fixture
def apache_place(make_place, apache):
    return make_place(apache.container)


@pytest.fixture
def dav(mountable):
    """A server that goes wrong as the test says. It must never have been asked for what no
    listing properly contained."""
    with DavServer() as server:
        yield server
    assert server.violations == []
    assert server.eventsOf("serverError") == []


def write_bridge(container, server):
    container.mkdir(mode=0o700, exist_ok=True)
    written = container / "fp-webdav.json.new"
    written.write_text(json.dumps({"port": server.port, "user": "kes", "pass": "secret",
                                   "certPEM": server.certPEM}), encoding="utf-8")
    written.chmod(0o600)
    written.rename(container / "fp-webdav.json")
    return container


@pytest.fixture
def dav_place(make_place, dav, tmp_path):
    return make_place(write_bridge(tmp_path / "container", dav))


@pytest.fixture
def rng():
    """Chance, whose seed is printed; KFP_SEED names one."""
    seed = int(os.environ.get("KFP_SEED") or random.randrange(1 << 32))
    print(f"KFP_SEED={seed}")
    return random.Random(seed)
