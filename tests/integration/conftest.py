"""What the integration tests share: a container, a scripted server, and the program."""

import base64
import json
import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from driver import Drive, executable, run  # noqa: E402
from scripted_server import ScriptedServer  # noqa: E402

USER = "kes"
PASSWORD = "se:cret ü%"
AUTHORIZATION = "Basic " + base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()


def pytest_configure():
    executable()


def write_bridge(container, port, certificate, user=USER, password=PASSWORD):
    container.mkdir(mode=0o700, exist_ok=True)
    bridge = container / "fp-webdav.json"
    bridge.write_text(json.dumps({"port": port, "user": user, "pass": password,
                                  "certPEM": certificate}), encoding="utf-8")
    bridge.chmod(0o600)
    return container


class Scene:
    """A scripted server, a container that leads to it, and a temporary directory of its own."""

    def __init__(self, directory, server):
        self.server = server
        self.directory = directory
        self.temporary = directory / "temporary"
        self.temporary.mkdir()
        self.container = write_bridge(directory / "container", server.port, server.certPEM)

    def script(self, *responses, **members):
        """Replaces the script: answers in order, the last one repeated."""
        self.server.replaceScript(dict(members, responses=list(responses)))

    def routes(self, routes, **members):
        members.setdefault("responses", [{"status": 599}])
        self.server.replaceScript(dict(members, routes=routes))

    def environment(self, extra=None):
        return {"TMPDIR": str(self.temporary), **(extra or {})}

    def drive(self, env=None):
        return Drive(self.container, env=self.environment(env))

    def run(self, *arguments, env=None, **options):
        return run(*arguments, container=self.container, env=self.environment(env), **options)

    def asked(self):
        """(method, target) of every request so far, in order."""
        return [(request["method"], request["target"]) for request in self.server.requests]

    def raw(self, number):
        """The bytes of a request, the first one being 0."""
        return base64.b64decode(self.server.requests[number]["raw"])

    def head(self, method, target, *headers):
        """The bytes of a request's head as the program sends it."""
        lines = [f"{method} {target} HTTP/1.1", f"Host: 127.0.0.1:{self.server.port}",
                 *REQUEST_HEADERS, *headers]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("utf-8")

    def leftovers(self):
        return sorted(os.listdir(self.temporary))


# What every request carries besides its own headers.
REQUEST_HEADERS = ("Accept: */*", f"Authorization: {AUTHORIZATION}")


@pytest.fixture
def scene(tmp_path):
    with ScriptedServer() as server:
        yield Scene(tmp_path, server)


@pytest.fixture
def unconfigured(tmp_path):
    """A container directory without a bridge file."""
    container = tmp_path / "container"
    container.mkdir()
    return container
