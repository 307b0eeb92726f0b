"""What a worker's log says must be there, and whether it is."""

import errno
import json

from trees import shown

# What calls on a mount end with whose host has died.
DEAD = {errno.ENOTCONN, errno.ECONNABORTED, errno.EIO, errno.ENODEV}


class Expected:
    """The tree that the steps so far make. Of the last one, when it was not acknowledged, every
    part may have happened."""

    def __init__(self):
        self.tree = {}
        self.uncertain = {}  # path: what may be there, None for a folder, ... for nothing
        self.steps = 0

    def read(self, log):
        """Takes the steps of a worker's log."""
        with open(log, encoding="utf-8") as lines:
            for line in lines:
                said = json.loads(line)
                if "begin" in said:
                    self.begin(*said["begin"])
                elif "end" in said:
                    self.uncertain = {}
                    self.take(*said["end"])
                    self.steps += 1
                elif "skipped" in said:
                    self.settle_skipped(*said["skipped"])
                else:
                    assert said["stopped"] in DEAD, said

    def take(self, kind, path, more=None):
        tree = self.tree
        if kind in ("write", "save"):
            tree[path] = more.encode()
            # What an earlier save left that did not come to its end has been used now.
            if kind == "save":
                tree.pop(path + ".tmp", None)
        elif kind == "append":
            tree[path] += more.encode()
        elif kind == "mkdir":
            tree[path] = None
        elif kind in ("unlink", "rmdir"):
            del tree[path]
        elif path != more:
            tree[more] = tree.pop(path)

    def settle_skipped(self, kind, path, _=None):
        """A step was refused: its folder, or what it is about, must be missing."""
        self.uncertain = {}
        if kind in ("write", "save") and not self.above(path):
            raise AssertionError(f"{kind} {path} was refused")

    def begin(self, kind, path, more=None):
        now = self.tree.get(path, ...)
        may = self.uncertain = {path: {now}}
        data = more.encode() if more else b""
        if kind == "write":
            may[path] |= {b"", data, *self.above(path)}
        elif kind == "save":
            may[path] |= {data}
            may[path + ".tmp"] = {..., b"", data, self.tree.get(path + ".tmp", ...)}
        elif kind == "append" and now is not ...:
            may[path] |= {now + data}
        elif kind == "mkdir":
            may[path] |= {None}
        elif kind in ("unlink", "rmdir"):
            may[path] |= {...}
        elif kind == "rename" and now is not ... and path != more:
            may[path] |= {...}
            may[more] = {self.tree.get(more, ...), now}

    def above(self, path):
        """Nothing, when the folder for it is missing."""
        folder = path.rpartition("/")[0]
        return set() if not folder or folder in self.tree else {...}

    def problems(self, found):
        """What is not as it must be."""
        lines = []
        for path in sorted(self.tree.keys() | found.keys() | self.uncertain.keys()):
            is_there = found.get(path, ...)
            allowed = self.uncertain.get(path, {self.tree.get(path, ...)})
            if is_there not in allowed:
                lines.append(f"{path}: {text(is_there)}, but expected "
                             + " or ".join(sorted(map(text, allowed))))
        return lines

    def adopt(self, found):
        """What was uncertain is known now."""
        self.tree = dict(found)
        self.uncertain = {}


def text(value):
    return "nothing" if value is ... else shown(value)
