"""Servers that hang, and programs that work on a mount meanwhile."""

import contextlib
import os
import signal
import subprocess
import threading
import time

from mounts import write_bridge
from real_server import process_fields
from trees import read_tree

# What an orderly end waits for changes to be sent.
DRAIN = 1


class StoppedServer:
    """Apache, all of whose processes can be stopped."""

    def __init__(self, apache):
        self.apache = apache
        self.container = apache.container
        self.top = apache.root / "Home" / "Documents"

    def put(self, path, contents):
        path = self.top / path
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(contents)

    def make_folder(self, path):
        (self.top / path).mkdir(parents=True)

    def tree(self):
        return read_tree(self.top)

    def hang(self):
        self.apache.freeze()

    def go_on(self):
        self.apache.thaw()


class SilentServer:
    """A server that takes connections and requests, and can leave all answers out."""

    def __init__(self, dav, container):
        self.dav = dav
        self.container = write_bridge(container, dav)
        dav.makeFolder("/Home/Documents")

    def put(self, path, contents):
        self.dav.put(f"/Home/Documents/{path}", contents)

    def make_folder(self, path):
        self.dav.makeFolder(f"/Home/Documents/{path}")

    def tree(self):
        return self.dav.tree("/Home/Documents")

    def hang(self):
        # What is asked for happens; nobody is told, not even when the silence ends.
        self.dav.fault(None, None, answer={"holdFor": "the end of the silence", "cut": 0})

    def go_on(self):
        self.dav.heal()
        self.dav.release("the end of the silence")


class Sleepers:
    """Looks all the time which programs are in uninterruptible sleep, and for how long without a
    break."""

    def __init__(self, processes):
        self.sessions = {process.pid: process.args[-1] for process in processes}
        self.since = {}
        self.longest = {}  # command: seconds
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self._watch, daemon=True)
        self.thread.start()

    def _watch(self):
        while not self.ended.wait(0.05):
            now = time.monotonic()
            found = set(self.now())
            self.since = {task: self.since.get(task, now) for task in found}
            for task, since in self.since.items():
                self.longest[task[1]] = max(now - since, self.longest.get(task[1], 0))

    def now(self):
        """(process, command) of the programs that are in such a sleep."""
        for process in os.listdir("/proc"):
            fields = process.isdigit() and process_fields(f"/proc/{process}/stat")
            if fields and fields[0] == "D" and int(fields[3]) in self.sessions:
                yield process, self.sessions[int(fields[3])]

    def end(self):
        """The longest such sleep of each command, in seconds."""
        self.ended.set()
        self.thread.join()
        return self.longest


# What programs do, and what is at which paths when they have succeeded; ... is nothing.
SAVE = "echo saved >listed/save.tmp && mv listed/save.tmp listed/save.txt"
# These have here what they need.
QUICK = {
    "ls cold": {},
    "ls -lR still": {},
    "df . && stat listed/known.txt": {},
    "cat listed/known.txt": {},
    "echo new >listed/new.txt": {"listed/new.txt": b"new\n"},
    "cp listed/known.txt listed/copied.txt": {"listed/copied.txt": b"known\n"},
    "echo more >>listed/append.txt": {"listed/append.txt": b"append\nmore\n"},
    SAVE: {"listed/save.txt": b"saved\n", "listed/save.tmp": ...},
    "sed -i s/sed/edited/ listed/sed.txt": {"listed/sed.txt": b"edited\n"},
    "touch -d 2001-02-03 listed/touched.txt && chmod +x listed/touched.txt": {},
    "cd repository && git status": {},
}
# These wait for the server's word for a while, or for one that does.
PATIENT = {
    "mkdir made && echo in >made/in.txt": {"made": None, "made/in.txt": b"in\n"},
    "mv moved/old.txt moved/renamed.txt": {"moved/old.txt": ..., "moved/renamed.txt": b"old\n"},
    "rm gone/removed.txt": {"gone/removed.txt": ...},
    "dd if=listed/known.txt of=synced.txt conv=fsync status=none": {"synced.txt": b"known\n"},
    "cd repository && git commit -q --allow-empty -m while": {},
}
# These cannot do without the server.
STUCK = {
    "exec cat cold/a.bin": {},
    'exec cp cold/b.bin "$OUT/b.bin"': {},
    "exec grep -r x cold": {},
    'exec tar cf "$OUT/all.tar" cold/c.bin listed': {},
    "exec ls far": {},
    "exec find far2 -type f": {},
}
PROGRAMS = QUICK | PATIENT | STUCK
KNOWN = {"listed/known.txt": b"known\n", "listed/append.txt": b"append\n",
         "listed/save.txt": b"save\n", "listed/sed.txt": b"sed\n", "listed/touched.txt": b"t\n",
         "moved/old.txt": b"old\n", "gone/removed.txt": b"removed\n",
         "moved/evicted.txt": b"can be fetched again\n"}
ENVIRONMENT = {"LC_ALL": "C", "GIT_AUTHOR_NAME": "a", "GIT_AUTHOR_EMAIL": "a@b",
               "GIT_COMMITTER_NAME": "a", "GIT_COMMITTER_EMAIL": "a@b",
               "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1",
               "GIT_OPTIONAL_LOCKS": "0"}


class Scene:
    """A mount: some folders have been listed and some files read, of others nothing is here."""

    def __init__(self, server, place):
        self.server = server
        self.place = place
        self.out = place.new_path("out")
        self.out.mkdir()
        self.processes = []
        for path, contents in KNOWN.items():
            server.put(path, contents)
        for name in ("cold/a.bin", "cold/b.bin", "cold/c.bin", "far/x.txt", "far2/y.txt"):
            server.put(name, b"x" * 5000)
        for number in range(50):
            server.put(f"listed/file{number}.txt", b"%d" % number)
            # In this folder no other program makes or renames anything.
            server.put(f"still/file{number}.txt", b"%d" % number)
        server.make_folder("repository")
        self.mounted = place.mount("--drain", str(DRAIN)).ready()
        self.home = place.point / "Home" / "Documents"
        for path in KNOWN:
            (self.home / path).read_bytes()
        self.run("ls -l listed cold still")
        self.run("cd repository && git init -q && echo 1 >a && git add a && git commit -qm first")
        place.wait_synced()
        self.run("cd repository && git status")

    def start(self, command):
        process = subprocess.Popen(["sh", "-c", command], cwd=self.home, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                   env={**os.environ, **ENVIRONMENT, "OUT": str(self.out)},
                                   start_new_session=True)
        self.processes.append(process)
        return process

    def run(self, command):
        process = self.start(command)
        assert process.wait(60) == 0, (command, process.stderr.read())

    def start_all(self):
        """Twenty-two programs; gives them by their commands."""
        return {command: self.start(command) for command in PROGRAMS}

    def clean_up(self):
        for process in self.processes:
            if process.poll() is None:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
        self.server.go_on()
        for process in self.processes:
            process.wait(60)
            process.stderr.close()
