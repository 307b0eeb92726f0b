"""Running `kestrowan mount` and the commands that ask it, each test in directories of its own.

A mount that hangs does not hang the test: a watchdog kills the host after a while, and every access
to the mount then fails.
"""

import contextlib
import copy
import itertools
import json
import os
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import threading
import time
from pathlib import Path

import driver

SECONDS = 60
WATCHDOG_SECONDS = 180

(DONE, FAILED, USAGE, NOT_CONFIGURED, PARTLY_FAILED, UNWRITABLE, MOUNT_FAILED, NOT_MOUNTED,
 TIMED_OUT, BUSY, OTHER_STORAGE) = range(11)


def own_domain(container):
    """The domain of a container that is not the standard one."""
    path = os.fsencode(os.path.realpath(container))
    short = 0xcbf29ce484222325
    for byte in path:
        short = (short ^ byte) * 0x100000001b3 % 2**64
    part = re.sub(rb"[^A-Za-z0-9._-]", b"-", os.path.basename(path)[:40]).lstrip(b"-.")
    return f"{(part or b'storage').decode()}-{short:016x}"[:-8]


def obstacle():
    """Why nothing can be mounted here; None when it can."""
    if not os.path.exists("/dev/fuse"):
        return "there is no /dev/fuse"
    if not os.access("/dev/fuse", os.R_OK | os.W_OK):
        return "/dev/fuse may not be used"
    if not shutil.which("fusermount3"):
        return "fusermount3 is not installed"
    return None


def wait_for(condition, what, seconds=SECONDS):
    """Waits until `condition()` gives something true, and gives it."""
    deadline = time.monotonic() + seconds
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError(f"no {what} in {seconds} s")
        time.sleep(0.02)


def mode(path):
    """Permission bits."""
    return stat.S_IMODE(os.lstat(path).st_mode)


def is_mounted(path):
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as table:
        # Blanks and the like stand there as "\\040".
        points = [re.sub(r"\\([0-7]{3})", lambda found: chr(int(found[1], 8)), line.split()[4])
                  for line in table]
    return str(path) in points


class NotifySocket:
    """What a service manager would be told."""

    def __init__(self, name):
        self.name = str(name)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("\0" + self.name[1:] if self.name.startswith("@") else self.name)
        self.socket.settimeout(0.02)
        self.words = []

    def read(self):
        with contextlib.suppress(TimeoutError):
            while True:
                self.words += self.socket.recv(4096).decode().splitlines()
        return self.words

    def close(self):
        self.socket.close()


def limiting(limits):
    """What sets a new process's limits: {resource: (soft, hard)}."""
    def limit():
        for kind, values in limits.items():
            resource.setrlimit(kind, values)
    return limit


class Mounted:
    """One `kestrowan mount` in the foreground."""

    def __init__(self, place, *options, point=None, env=None, limits=None,
                 stderr=subprocess.PIPE):
        self.place = place
        self.point = Path(point or place.point)
        self.notify = NotifySocket(place.new_path("notify"))
        self.lines = []
        self.process = driver.start(
            "mount", *options, self.point, container=place.container, stdout=subprocess.PIPE,
            stderr=stderr, env={**place.environment(), "NOTIFY_SOCKET": self.notify.name, **(env or {})},
            preexec_fn=limiting(limits or {}))
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.watchdog = threading.Timer(WATCHDOG_SECONDS, self.process.kill)
        self.watchdog.daemon = True
        self.watchdog.start()

    def _read(self):
        for line in self.process.stderr or []:
            self.lines.append(line.decode("utf-8", "replace").rstrip("\n"))

    def has_said(self, text):
        return any(text in line for line in list(self.lines))

    def wait_said(self, text):
        wait_for(lambda: self.has_said(text) or self.process.poll() is not None,
                 f"line with {text!r} among {self.lines}")
        assert self.has_said(text), self.lines

    def ready(self):
        wait_for(lambda: "READY=1" in self.notify.read() or self.process.poll() is not None,
                 "readiness")
        assert "READY=1" in self.notify.words, (self.process.poll(), self.lines)
        return self

    def send(self, number):
        self.process.send_signal(number)

    def wait(self, seconds=SECONDS):
        """The exit code, once the process has ended."""
        code = self.process.wait(seconds)
        self.reader.join(seconds)
        return code

    def end(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait()

    def kill(self):
        self.process.kill()
        self.wait()

    def clean_up(self):
        self.watchdog.cancel()
        if self.process.poll() is None:
            self.kill()
        # For whoever reads why a test failed.
        print("\n".join(["what the host said:", *self.lines]))
        self.notify.close()
        self.process.stdout.close()
        if self.process.stderr:
            self.process.stderr.close()


class Place:
    """Where the hosts of one test keep everything, and where they are asked from."""

    def __init__(self, directory, container):
        self.directory = directory
        self.container = container
        self.point = directory / "mount"
        self.state_home = directory / "state"
        self.runtime = directory / "run"
        self.runtime.mkdir(mode=0o700)
        self.mounts = []
        self.numbers = itertools.count(1)

    def new_path(self, name):
        return self.directory / f"{name}{next(self.numbers)}"

    @property
    def domain(self):
        return own_domain(self.container)

    @property
    def state(self):
        """Of the domain that the container has by itself."""
        return self.state_home / "kestrowan" / self.domain

    def with_container(self, container):
        """The same place, whose commands are told of another container."""
        other = copy.copy(self)
        other.container = container
        return other

    def environment(self):
        return {"XDG_STATE_HOME": str(self.state_home), "XDG_RUNTIME_DIR": str(self.runtime)}

    def mount(self, *options, **members):
        mounted = Mounted(self, *options, **members)
        self.mounts.append(mounted)
        return mounted

    def run(self, *arguments, env=None, **options):
        return driver.run(*arguments, container=self.container,
                          env={**self.environment(), **(env or {})}, **options)

    def ask(self, *arguments, code=DONE, **options):
        """The JSON object that a command reports."""
        result = self.run("--json", *arguments, **options)
        assert result.returncode == code, (arguments, result.returncode, result.stdout,
                                           result.stderr)
        return json.loads(result.stdout)

    def status(self):
        return self.ask("status")

    def history(self):
        """The bytes of everything in the history, the latest first."""
        return [(self.state / "contents" / str(entry["id"])).read_bytes()
                for entry in self.ask("history", self.point)["entries"]]

    def wait_synced(self):
        assert self.ask("wait", "--timeout", str(SECONDS))["synced"] is True

    def sockets(self):
        return sorted((self.runtime / "kestrowan").glob("*.sock"))

    def clean_up(self):
        for mounted in reversed(self.mounts):
            mounted.clean_up()
        for entry in self.state_home.glob("kestrowan/.hosts/*.json"):
            with contextlib.suppress(OSError, ValueError):
                description = json.loads(entry.read_text(encoding="utf-8"))
                self._end(description)

    @staticmethod
    def _end(description):
        """Ends a host in the background, and what it mounted."""
        if is_mounted(description["mountPoint"]):
            subprocess.run(["fusermount3", "-u", "-z", "--", description["mountPoint"]],
                           capture_output=True, check=False)
        pid = description["process"]
        with contextlib.suppress(ProcessLookupError, FileNotFoundError):
            command = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
            if command[0] == os.fsencode(driver.executable()):
                os.kill(pid, signal.SIGKILL)
