"""A WebDAV server of tests/servers/, started for a test and stopped after it."""

import json
import os
import signal
import subprocess
import time
from pathlib import Path

SERVERS = Path(__file__).resolve().parents[1] / "servers"
EXECUTABLES = {"apache": "apache2", "lighttpd": "lighttpd", "nginx": "nginx", "rclone": "rclone"}


def is_installed(name):
    return any(os.access(os.path.join(directory, EXECUTABLES[name]), os.X_OK)
               for directory in ("/usr/sbin", "/usr/bin"))


def process_fields(path):
    """The fields of a stat file of /proc from the state on; None when there is no such process."""
    try:
        text = Path(path).read_text(encoding="ascii", errors="replace")
    except (FileNotFoundError, ProcessLookupError):
        return None
    return text[text.rindex(")") + 2:].split()


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
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def start(self):
        """A server that was stopped has another port, password and certificate now."""
        # The server ends with this process, should it not live to stop it.
        description = json.loads(self._control("start", "--parent", str(os.getpid()),
                                               *self.options))
        self.root = Path(description["root"])
        self.container = Path(description["container"])
        self.port = description["port"]
        self.pid = description["pid"]

    def stop(self):
        self._control("stop")

    def freeze(self):
        """Stops all its processes where they are; its connections stay, and nobody answers."""
        os.killpg(self.pid, signal.SIGSTOP)
        deadline = time.monotonic() + 10
        while self._states() != {"T"}:
            assert time.monotonic() < deadline, self._states()
            time.sleep(0.01)

    def thaw(self):
        os.killpg(self.pid, signal.SIGCONT)

    def _states(self):
        processes = (process_fields(f"/proc/{entry}/stat") for entry in os.listdir("/proc")
                     if entry.isdigit())
        return {fields[0] for fields in processes if fields and int(fields[2]) == self.pid}
