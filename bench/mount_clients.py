"""What can make the storage a folder, each started with nothing kept from before, and ended again.

Own is `kestrowan mount`; davfs2 and `rclone mount` have the settings that make them fastest. Local
is the served folder itself, without anything in between.
"""

import contextlib
import grp
import json
import multiprocessing
import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

from command import ROOT

sys.path.insert(0, str(ROOT / "tests" / "mount"))
from hosting import cut, eventually, mount_entry  # noqa: E402

LIMIT = 600  # seconds after which nothing is waited for any more
TICKS = os.sysconf("SC_CLK_TCK")

DAVFS2 = """\
use_locks 0
precheck 0
delay_upload 0
cache_size 8192
gui_optimize 1
table_size 65536
buf_size 256
ask_auth 0
"""
RCLONE = ["--vfs-cache-mode", "full", "--vfs-write-back", "0s", "--transfers", "16",
          "--dir-cache-time", "72h", "--attr-timeout", "60s", "--vfs-fast-fingerprint",
          "--buffer-size", "32M"]


class Failed(Exception):
    """A measurement or a mount came to nothing; the text is for a person."""


class Local:
    name = "local"
    is_peer = False

    def __init__(self, server, directory):
        self.server = server
        self.bridge = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
        self.url = f"https://127.0.0.1:{self.bridge['port']}/"
        self.base = Path(directory) / self.name
        self.point = server.root

    @classmethod
    def obstacle(cls):
        """Why it cannot be measured here; None when it can."""
        return None

    def start(self):
        pass

    def stop(self):
        pass

    def abort(self):
        pass

    def processes(self):
        return []


class Mounted(Local):
    program = ""

    def __init__(self, server, directory):
        super().__init__(server, directory)
        self.point = self.base / "mount"
        self.cache = self.base / "cache"
        self.process = None

    @classmethod
    def obstacle(cls):
        return None if shutil.which(cls.program) else f"{cls.program} is not installed"

    def start(self):
        """Returns once it is mounted, with nothing in its cache."""
        shutil.rmtree(self.base, ignore_errors=True)
        self.point.mkdir(parents=True)
        self.base.chmod(0o755)
        self.cache.mkdir(mode=0o700)
        self.prepare()
        with open(self.base / "log", "wb") as log:
            self.process = subprocess.Popen(
                self.command(), env={**os.environ, **self.environment()}, stdin=subprocess.DEVNULL,
                stdout=log, stderr=log, start_new_session=True)
        with contextlib.suppress(AssertionError):
            eventually(lambda: mount_entry(self.point) or self.process.poll() not in (None, 0),
                       LIMIT)
        if not mount_entry(self.point):
            raise Failed(f"it does not mount: {(self.base / 'log').read_text()[-400:]}")

    def prepare(self):
        pass

    def environment(self):
        return {}

    def unmount(self):
        return ["fusermount3", "-u", "--", self.point]

    def stop(self):
        """An orderly end; one by force when that does not come."""
        if not self.process:
            return
        processes = self.processes()
        if mount_entry(self.point):
            with contextlib.suppress(subprocess.TimeoutExpired):
                subprocess.run(self.unmount(), check=False, capture_output=True, timeout=LIMIT)
        if mount_entry(self.point):
            print(f"{self.name} had to be unmounted by force", file=sys.stderr)
            self.abort()
            subprocess.run(["fusermount3", "-u", "-z", "--", self.point], check=False)
        try:
            eventually(lambda: self.process.poll() is not None
                       and not any(is_alive(each) for each in processes))
        except AssertionError:
            for each in processes:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(each, signal.SIGKILL)
            self.process.wait()

    def abort(self):
        if mount_entry(self.point):
            cut(self.point)

    def processes(self):
        return [self.process.pid, *children(self.process.pid)]


class Own(Mounted):
    name = "own"
    program = str(ROOT / "build/release/src/cli/kestrowan")

    def command(self):
        return [self.program, "mount", self.point]

    def environment(self):
        return {"KESTROWAN_CONTAINER": str(self.server.container),
                "XDG_STATE_HOME": str(self.cache), "XDG_RUNTIME_DIR": str(self.cache)}


class Davfs2(Mounted):
    name = "davfs2"
    program = "mount.davfs"
    is_peer = True

    @classmethod
    def obstacle(cls):
        return super().obstacle() or (None if os.geteuid() == 0 else "only root may start it")

    def prepare(self):
        # It insists on these rights.
        os.chown(self.cache, 0, grp.getgrnam("davfs2").gr_gid)
        self.cache.chmod(0o775)
        write(self.base / "secrets",
              f'{self.url} "{self.bridge["user"]}" "{self.bridge["pass"]}"\n')
        write(self.base / "cert.pem", self.bridge["certPEM"], 0o644)
        write(self.base / "conf", f"secrets {self.base / 'secrets'}\ncache_dir {self.cache}\n"
              f"trust_server_cert {self.base / 'cert.pem'}\n{DAVFS2}")

    def command(self):
        return ["mount", "-t", "davfs", "-o", f"conf={self.base / 'conf'},rw", self.url, self.point]

    def unmount(self):
        return ["umount", self.point]

    def processes(self):
        return [int(entry.name) for entry in Path("/proc").iterdir() if entry.name.isdigit()
                and words(entry)[0].endswith(b"/mount.davfs")
                and os.fsencode(self.point) in words(entry)]


class Rclone(Mounted):
    name = "rclone"
    program = "rclone"
    is_peer = True

    def prepare(self):
        obscured = subprocess.run(["rclone", "obscure", "-"], input=self.bridge["pass"], text=True,
                                  stdout=subprocess.PIPE, check=True).stdout
        write(self.base / "cert.pem", self.bridge["certPEM"])
        write(self.base / "conf", f"[server]\ntype = webdav\nurl = {self.url}\nvendor = other\n"
              f"user = {self.bridge['user']}\npass = {obscured}")

    def command(self):
        return ["rclone", "mount", "server:", self.point, "--config", self.base / "conf",
                "--ca-cert", self.base / "cert.pem", "--cache-dir", self.cache, *RCLONE]


def write(path, text, mode=0o600):
    path.touch(mode)
    path.write_text(text, encoding="utf-8")


def words(process):
    """A process's command line; an empty word when the process is gone."""
    try:
        return (process / "cmdline").read_bytes().split(b"\0")
    except OSError:
        return [b""]


def children(process):
    found = []
    with contextlib.suppress(OSError):
        for task in Path(f"/proc/{process}/task").iterdir():
            for child in map(int, (task / "children").read_text().split()):
                found += [child, *children(child)]
    return found


def is_alive(process):
    try:
        return Path(f"/proc/{process}/stat").read_text().rpartition(") ")[2][0] != "Z"
    except OSError:
        return False


def resident(processes):
    """The memory that processes have, in MiB: of the first one all that is resident, of each other
    one what it shares with none, since the program and its libraries are there once."""
    kibibytes = 0
    for number, process in enumerate(processes):
        wanted = ("Private_Clean:", "Private_Dirty:") if number else ("Rss:",)
        for line in Path(f"/proc/{process}/smaps_rollup").read_text().splitlines():
            if line.startswith(wanted):
                kibibytes += int(line.split()[1])
    return kibibytes / 1024


def processor_seconds(processes):
    ticks = 0
    for process in processes:
        fields = Path(f"/proc/{process}/stat").read_text().rpartition(") ")[2].split()
        ticks += int(fields[11]) + int(fields[12])
    return ticks / TICKS


def guarded(client, work):
    """When `work()` began and ended, in a process of its own: one that hangs on a mount must not
    take this one along."""
    receiver, sender = multiprocessing.Pipe(duplex=False)

    def run():
        begun = time.monotonic()
        work()
        sender.send((begun, time.monotonic()))

    child = multiprocessing.get_context("fork").Process(target=run)
    child.start()
    sender.close()
    try:
        if not receiver.poll(LIMIT):
            client.abort()
            child.kill()
            raise Failed(f"no end after {LIMIT} s")
        return receiver.recv()
    except EOFError:
        raise Failed("what is said above") from None
    finally:
        child.join()
