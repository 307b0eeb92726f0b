"""A WebDAV server of tests/servers/, started for a test and stopped after it."""

import json
import os
import subprocess
from pathlib import Path

SERVERS = Path(__file__).resolve().parents[1] / "servers"
EXECUTABLES = {"apache": "apache2", "lighttpd": "lighttpd", "nginx": "nginx", "rclone": "rclone"}


def is_installed(name):
    return any(os.access(os.path.join(directory, EXECUTABLES[name]), os.X_OK)
               for directory in ("/usr/sbin", "/usr/bin"))


class RealServer:
    def __init__(self, name, directory, *options):
        self.name = name
        self.directory = Path(directory)
        self.options = options

    def _control(self, command, *options):
        done = subprocess.run([SERVERS / self.name, command, self.directory, *options],
                              capture_output=True, text=True, timeout=120, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"{self.name} {command}: {done.stderr}")
        return done.stdout

    def __enter__(self):
        # The server ends with this process, should it not live to stop it.
        description = json.loads(self._control("start", "--parent", str(os.getpid()),
                                               *self.options))
        self.root = Path(description["root"])
        self.container = Path(description["container"])
        self.port = description["port"]
        return self

    def __exit__(self, *_):
        self._control("stop")
