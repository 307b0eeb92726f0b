"""What somebody else does in the server's folder, and what is known of it afterwards."""

import ctypes
import errno
import os
import time
from pathlib import Path

LIBC = ctypes.CDLL(None, use_errno=True)
AT_FDCWD = -100
NOREPLACE = 1
EXCHANGE = 2

# Contents written here are so many bytes long times their number: the size tells which they are.
UNIT = 1000
# The numbers of large ones, of two megabytes, begin there.
LARGE = 2000
# New and removed files may be sent so long after the last look at their folder, and a request takes
# a while.
WINDOW = (-1, 4)


def rename(old, new, flags):
    if LIBC.renameat2(AT_FDCWD, os.fsencode(old), AT_FDCWD, os.fsencode(new), flags):
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), str(old))


def contents_below(path):
    """The bytes of a file, or of all files in a folder."""
    if path.is_dir():
        return [one.read_bytes() for one in path.rglob("*") if one.is_file()]
    return [path.read_bytes()]


class ServerSide:
    """One history's folder on the server's disk."""

    def __init__(self, name, top, aside):
        self.name = name
        self.top = top
        # What is removed or replaced goes there, so that nothing that was here is unknown.
        self.aside = aside
        aside.mkdir()
        top.mkdir()
        self.moves = 0
        self.count = 0
        self.marks = {}  # number: what the contents begin with
        self.places = {}  # number: [(path, when)]
        self.known = []  # contents that have been here

    def at(self, path):
        return self.top / path.lstrip("/")

    def _away(self):
        self.moves += 1
        return self.aside / str(self.moves)

    def contents(self, number):
        return self._mark(number).ljust(UNIT * number, b".")

    def _mark(self, number):
        return b"<%s %d>" % (self.name.encode(), number)

    def write(self, path, first=0):
        self.count += 1
        number = first + self.count
        new = self._away()
        new.write_bytes(self.contents(number))
        target = self.at(path)
        if target.is_dir():
            raise IsADirectoryError(errno.EISDIR, "a folder", str(target))
        try:
            rename(new, target, EXCHANGE)
            self.known += contents_below(new)
        except FileNotFoundError:
            rename(new, target, NOREPLACE)
        self.marks[number] = self._mark(number)
        self.places[number] = [(path, time.time())]

    def remove(self, path):
        away = self._away()
        rename(self.at(path), away, NOREPLACE)
        self.known += contents_below(away)

    def rename(self, old, new):
        rename(self.at(old), self.at(new), NOREPLACE)
        self.known += contents_below(self.at(new))
        self.moved(old, new)

    def make_folder(self, path):
        self.at(path).mkdir()

    def moved(self, old, new):
        """Somebody moved something, on this side or the other."""
        for places in self.places.values():
            places += [(new + path[len(old):], time.time()) for path, _ in list(places)
                       if path == old or path.startswith(old + "/")]

    def written_at(self, path):
        """The numbers of the contents that may be there."""
        return {number for number, places in self.places.items()
                if any(place == path for place, _ in places)}

    def met_a_change(self, number, requests, prefix):
        """Whether a request changed the place just when the contents came there: nobody can have
        seen them."""
        for place, when in self.places[number]:
            for at, path in requests:
                if WINDOW[0] <= at - when <= WINDOW[1] and (
                        (prefix + place + "/").startswith(path.rstrip("/") + "/")):
                    return True
        return False


def changes_asked_for(directory):
    """(time, path) of the requests to a server that change something."""
    found = []
    log = Path(directory) / "times.log"
    for line in log.read_text(encoding="utf-8", errors="replace").splitlines():
        at, method, path = line.split(" ", 2)
        if method in ("PUT", "DELETE", "MOVE"):
            found.append((int(at) / 1e6, path))
    return found
