"""What the mount tests share: a mount, and a native folder to compare it with."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

import hosting  # noqa: E402


def pytest_configure():
    hosting.program()


@pytest.fixture(autouse=True)
def _mountable():
    if reason := hosting.obstacle():
        pytest.skip(reason)


@pytest.fixture
def place(tmp_path):
    """Where things lie: a folder to mount at, one for the replica's state."""
    (tmp_path / "mount").mkdir()
    return tmp_path


@pytest.fixture
def make_host(place):
    """Makes hosts at the same place, with other options; they end with the test."""
    hosts = []

    def make(state="state", **options):
        hosts.append(hosting.Host(place / "mount", place / state, **options))
        return hosts[-1]

    yield make
    # Whoever still works below the mount point would keep it busy.
    codes = [host.end() for host in reversed(hosts)]
    assert set(codes) <= {0, -9}, codes


@pytest.fixture
def host(make_host):
    """A mount with an empty server behind it."""
    return make_host().mount().connect()


@pytest.fixture
def mount(host):
    """The folder that is the mount."""
    return host.path


@pytest.fixture
def native(place):
    """An empty folder of the system's own."""
    folder = place / "native"
    folder.mkdir()
    return folder
