"""What the tests of the host share: a server, and a place for its mounts."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
sys.path.insert(0, str(Path(__file__).resolve().parent))

import driver  # noqa: E402
import hosted  # noqa: E402
from real_server import RealServer, is_installed  # noqa: E402


def pytest_configure():
    driver.executable()


@pytest.fixture(autouse=True)
def _mountable():
    if reason := hosted.obstacle():
        pytest.skip(reason)


@pytest.fixture(scope="module")
def shared_server(tmp_path_factory):
    """A server that no test stops."""
    if not is_installed("apache"):
        pytest.skip("Apache is not installed")
    with RealServer("apache", tmp_path_factory.mktemp("server")) as server:
        yield server


@pytest.fixture
def folder(shared_server, request, tmp_path):
    """A folder of the test's own below /Home on the server's disk."""
    made = shared_server.root / "Home" / tmp_path.name
    made.mkdir(parents=True)
    return made


@pytest.fixture
def server(tmp_path):
    """A server of the test's own, which has /Home/Documents."""
    if not is_installed("apache"):
        pytest.skip("Apache is not installed")
    with RealServer("apache", tmp_path / "server") as running:
        (running.root / "Home" / "Documents").mkdir(parents=True)
        yield running


@pytest.fixture
def make_place(tmp_path):
    places = []

    def make(container, name="place"):
        directory = tmp_path / name
        directory.mkdir()
        places.append(hosted.Place(directory, container))
        return places[-1]

    yield make
    for place in places:
        place.clean_up()


@pytest.fixture
def place(make_place, shared_server):
    return make_place(shared_server.container)


@pytest.fixture
def own_place(make_place, server):
    return make_place(server.container)
