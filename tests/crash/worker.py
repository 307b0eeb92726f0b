"""Changes files below a folder at random, and tells of each step.

    worker.py FOLDER LOG SEED [fsync]

LOG gets a line before each step, {"begin": step}, and one after it, {"end": step}, each written
before anything else happens; the last line is {"stopped": errno, "step": step} when the folder
stopped working. A step is a list: an operation, a path below the folder, and for some a text or a
second path. With "fsync" every step ends with the fsync that makes it durable.
"""

import json
import os
import random
import sys

NAMES = ("a", "b", "c", "d", "e")
FOLDERS = ("", "/x", "/y", "/x/z")


class Worker:
    def __init__(self, top, log, seed, synced):
        self.top = top
        self.log = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
        self.rng = random.Random(seed)
        self.synced = synced
        self.seed = seed
        self.count = 0

    def tell(self, **line):
        os.write(self.log, (json.dumps(line) + "\n").encode())

    def token(self):
        self.count += 1
        text = f"<{self.seed}.{self.count}>"
        return text * self.rng.choice((1, 1, 1, 20, 3000))

    def path(self):
        return self.rng.choice(FOLDERS) + "/" + self.rng.choice(NAMES)

    def run(self):
        while True:
            step = self.choose()
            self.tell(begin=step)
            try:
                done = self.take(*step)
            except OSError as error:
                self.tell(stopped=error.errno, step=step)
                return
            if done:
                self.tell(end=step)
            else:
                self.tell(skipped=step)

    def choose(self):
        kind = self.rng.choices(("write", "save", "append", "unlink", "rename", "mkdir", "rmdir"),
                                (6, 5, 4, 3, 3, 2, 1))[0]
        if kind in ("mkdir", "rmdir"):
            return [kind, self.rng.choice(FOLDERS[1:])]
        if kind in ("unlink",):
            return [kind, self.path()]
        if kind == "rename":
            return [kind, self.path(), self.path()]
        return [kind, self.path(), self.token()]

    def take(self, kind, path, more=None):
        """False when the tree is not such that the step can be taken."""
        try:
            getattr(self, kind)(self.top + path, more)
        except (FileNotFoundError, FileExistsError, NotADirectoryError, IsADirectoryError):
            return False
        except OSError as error:
            if error.errno == 39:  # ENOTEMPTY
                return False
            raise
        return True

    def sync_folder(self, path):
        if not self.synced:
            return
        folder = os.open(os.path.dirname(path), os.O_RDONLY)
        try:
            os.fsync(folder)
        finally:
            os.close(folder)

    def fill(self, path, text, flags):
        file = os.open(path, os.O_WRONLY | flags, 0o644)
        try:
            data = text.encode()
            assert os.write(file, data) == len(data)
            if self.synced or self.rng.random() < 0.3:
                os.fsync(file)
        finally:
            os.close(file)

    def write(self, path, text):
        self.fill(path, text, os.O_CREAT | os.O_TRUNC)
        self.sync_folder(path)

    def append(self, path, text):
        self.fill(path, text, os.O_APPEND)

    def save(self, path, text):
        self.fill(path + ".tmp", text, os.O_CREAT | os.O_TRUNC)
        os.rename(path + ".tmp", path)
        self.sync_folder(path)

    def unlink(self, path, _):
        os.unlink(path)
        self.sync_folder(path)

    def rename(self, path, more):
        os.rename(path, self.top + more)
        self.sync_folder(path)
        self.sync_folder(self.top + more)

    def mkdir(self, path, _):
        os.mkdir(path)
        self.sync_folder(path)

    def rmdir(self, path, _):
        os.rmdir(path)
        self.sync_folder(path)


if __name__ == "__main__":
    Worker(sys.argv[1], sys.argv[2], sys.argv[3], "fsync" in sys.argv[4:]).run()
