"""A program that works on a folder together with others like it, and tells of each step.

    program.py TOP LOCKS LOG NAME SEED

It ends when there is a file "end" in LOCKS. Every text that it writes is a token of its own. Before
a step that replaces or removes something it reads that, and its log says which tokens it saw:

    {"begin": KIND, "at": PATH, "to": PATH, "saw": [...], "token": ...}   before anything happens
    {"end": "done"}  or  {"end": "failed", "errno": ...}      a failed step may have happened

with the times of both, and that at which it began to look at what it replaces or removes.

The programs agree on who works on a name by locks in LOCKS, as programs on one machine do that do
not want to overwrite each other; of the server's other client they know nothing.
"""

import contextlib
import errno
import fcntl
import json
import os
import random
import re
import sys
import time

from patience import Interrupted, patience
from server_side import NOREPLACE, rename

TOKEN = re.compile(rb"<[a-z]+\d*\.\d+>")
FILES = ("/a", "/b", "/c", "/x/a", "/x/b", "/y/a")
FOLDERS = ("/x", "/y")
KINDS = {"write": 5, "save": 8, "append": 6, "rename": 5, "swap": 2, "remove": 4, "read": 4,
         "make_folder": 2, "move_folder": 1, "remove_folder": 1}
# There is nothing of the name, or something of another kind.
NOT_SUCH = {errno.ENOENT, errno.ENOTDIR, errno.EISDIR, errno.EEXIST, errno.ENOTEMPTY}
# The host has died, or the mount is not there yet.
AWAY = {errno.ENOTCONN, errno.ECONNABORTED, errno.ENODEV}


class Program:
    def __init__(self, top, locks, log, name, seed):
        self.top = top
        self.locks = locks
        self.log = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
        self.name = name
        self.rng = random.Random(seed)
        self.count = 0

    def tell(self, **line):
        os.write(self.log, (json.dumps(line) + "\n").encode())

    def run(self):
        while not os.path.exists(f"{self.locks}/end"):
            kind = self.rng.choices(list(KINDS), list(KINDS.values()))[0]
            places = FOLDERS if kind.endswith("folder") else FILES
            at, to = self.rng.sample(places, 2)
            self.step(kind, at, to)
            time.sleep(self.rng.choice((0, 0, 0.01, 0.1)))

    def step(self, kind, at, to):
        with self.locked("tree", fcntl.LOCK_EX if kind.endswith("folder") else fcntl.LOCK_SH):
            with contextlib.ExitStack() as held:
                for name in sorted({at, to}):
                    held.enter_context(self.locked(name.replace("/", "_"), fcntl.LOCK_EX))
                self.begun = False
                self.looked = time.time()
                try:
                    with patience():
                        getattr(self, kind)(at, to)
                    result = {"end": "done"}
                except Interrupted:
                    result = {"end": "failed", "errno": 0}
                except OSError as error:
                    result = {"end": "failed", "errno": error.errno}
                if self.begun:
                    self.tell(**result, time=time.time())
        if result.get("errno") in AWAY:
            time.sleep(0.1)

    @contextlib.contextmanager
    def locked(self, name, how):
        file = os.open(f"{self.locks}/{name}", os.O_RDWR | os.O_CREAT, 0o600)
        try:
            fcntl.flock(file, how)
            yield
        finally:
            os.close(file)

    def begin(self, kind, at, saw=(), token=None, to=""):
        self.tell(begin=kind, at=at, to=to, looked=self.looked, time=time.time(),
                  saw=[one.decode() for one in saw], token=token and token.decode())
        self.begun = True

    def token(self):
        self.count += 1
        return b"<%s.%d>" % (self.name.encode(), self.count)

    def content(self, token):
        return token + b"." * self.rng.choice((0, 0, 7, 500, 70_000))

    def seen(self, at):
        """The tokens in a file, and its inode; None for that when there is no file."""
        while True:
            self.looked = time.time()
            try:
                with open(self.top + at, "rb") as file:
                    tokens = TOKEN.findall(file.read())
                    inode = os.fstat(file.fileno()).st_ino
                    if os.stat(self.top + at).st_ino == inode:
                        return tokens, inode
            except OSError as error:
                if error.errno in NOT_SUCH:
                    return [], None
                raise

    def put(self, path, flags, content):
        with contextlib.closing(Opened(path, os.O_WRONLY | flags)) as file:
            file.write(content, is_synced=self.rng.random() < 0.2)

    def move(self, at, to, inode=None):
        """Replaces what was seen under the new name, and nothing that came there since."""
        flags = NOREPLACE if inode is None else 0
        rename(self.top + at, self.top + to, flags)

    def write(self, at, _):
        token = self.token()
        saw, inode = self.seen(at)
        self.begin("write", at, saw, token)
        if inode is None:
            self.put(self.top + at, os.O_CREAT | os.O_EXCL, self.content(token))
            return
        with contextlib.closing(Opened(self.top + at, os.O_WRONLY)) as file:
            if file.inode == inode:
                os.ftruncate(file.number, 0)
                file.write(self.content(token), is_synced=False)
            else:
                raise OSError(errno.ESTALE, "another file has come")

    def save(self, at, _):
        """As most editors do."""
        token = self.token()
        new = f"{at}.{self.name}"
        saw_new, _ = self.seen(new)
        saw, inode = self.seen(at)
        self.begin("save", at, saw + saw_new, token)
        self.put(self.top + new, os.O_CREAT | os.O_TRUNC, self.content(token))
        self.move(new, at, inode)

    def append(self, at, _):
        token = self.token()
        self.begin("append", at, (), token)
        self.put(self.top + at, os.O_APPEND, self.content(token))

    def rename(self, at, to):
        saw, inode = self.seen(to)
        self.begin("rename", at, saw, to=to)
        self.move(at, to, inode)

    def swap(self, at, to):
        """By way of a third name, which the first of the two keeps when the second is missing."""
        aside = f"{at}.{self.name}"
        saw, inode = self.seen(aside)
        self.begin("swap", at, saw, to=to)
        self.move(at, aside, inode)
        self.move(to, at)
        self.move(aside, to)

    def remove(self, at, _):
        saw, inode = self.seen(at)
        if inode is not None:
            self.begin("remove", at, saw)
            os.unlink(self.top + at)

    def read(self, at, _):
        self.seen(at)

    def make_folder(self, at, _):
        os.mkdir(self.top + at)

    def move_folder(self, at, to):
        # Only an empty one is replaced.
        os.rename(self.top + at, self.top + to)

    def remove_folder(self, at, _):
        for name in os.listdir(self.top + at):
            self.remove(f"{at}/{name}", "")
            if self.begun:
                self.tell(end="done", time=time.time())
                self.begun = False
        os.rmdir(self.top + at)


class Opened:
    def __init__(self, path, flags):
        self.number = os.open(path, flags, 0o644)
        self.inode = os.fstat(self.number).st_ino

    def write(self, content, is_synced):
        while content:
            content = content[os.write(self.number, content):]
        if is_synced:
            os.fsync(self.number)

    def close(self):
        # Also an error of closing is told.
        os.close(self.number)


if __name__ == "__main__":
    Program(*sys.argv[1:]).run()
