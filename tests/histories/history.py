"""One history: what is done on both sides of a folder, and what must have become of it."""

import contextlib
import errno
import mmap
import os
import re

from patience import Interrupted, patience
from server_side import LARGE, UNIT, ServerSide
from trees import differences, read_tree, shown

# What a call may end with that had no effect.
REFUSALS = {errno.ENOENT, errno.EEXIST, errno.ENOTDIR, errno.EISDIR, errno.ENOTEMPTY, errno.EINVAL,
            errno.EHOSTUNREACH, errno.ETIMEDOUT, errno.ESTALE, errno.EBUSY, errno.EIO,
            errno.EACCES}
GIVEN_NAMES = re.compile(r"[a-e]( \(2\)| \(conflict \d{4}-\d\d-\d\d \d{4} [^/]*\))*( \(\d+\))?")
OLD = {"/a": b"an old file", "/d": None, "/d/a": b"another old file", "/d/b": b"a third old file",
       "/e": None}


class Unsure(Exception):
    """A call failed after another one of the same step had its effect."""


@contextlib.contextmanager
def underway():
    try:
        yield
    except OSError as error:
        raise Unsure from error


class History:
    def __init__(self, name, here, server, aside, one_sided):
        """`here` is its folder on the mount, `server` the same one on the server's disk."""
        self.name = name
        self.here = here
        self.server = ServerSide(name, server, aside)
        self.one_sided = one_sided
        self.tokens = 0
        self.tree = {}  # what the mount's side has done, were it alone
        self.given_up = set()  # numbers of the server's contents, which the mount's side removed
        self.lost = []  # contents that the mount's side itself replaced or removed
        self.unsure = set()
        self.problems_seen = []
        self.changes = 0  # how often files were changed through the mount
        self.peeks = []  # (file, what it began with, how often files had been changed)
        for at, contents in OLD.items():
            self.tree[at] = contents
            if contents is None:
                self.server.at(at).mkdir()
            else:
                self.server.at(at).write_bytes(contents)

    def take(self, step):
        at, to = step.at, step.to
        action = getattr(self, step.kind)
        if step.kind.startswith("server_"):
            with contextlib.suppress(OSError):
                action(at, to)
            return
        if step.kind in ("read", "look", "peek", "finish"):
            with contextlib.suppress(OSError, Interrupted), patience():
                action(at, to)
            return
        touched = [at, at + ".new"] if step.kind == "replace" else [at, to] if to else [at]
        seen = self.seen(to or at) if at != to else set()
        try:
            with patience():
                action(at, to)
        except (Interrupted, Unsure):
            self.forget(touched)
        except OSError as error:
            if error.errno not in REFUSALS:
                self.problems_seen.append(f"{step}: {error!r}")
            return
        if step.kind != "append":
            self.given_up |= seen

    def seen(self, at):
        """The numbers of the server's contents that the mount shows at a path."""
        try:
            with patience():
                return {os.lstat(self.at(at)).st_size // UNIT}
        except (FileNotFoundError, NotADirectoryError):
            return set()
        except (OSError, Interrupted):
            return self.server.written_at(at)

    def forget(self, touched):
        """What is at these paths is no longer known."""
        for one in touched:
            for below in [below for below in self.tree
                          if below == one or below.startswith(one + "/")]:
                self.lose(below)
                self.unsure.add(below)
                del self.tree[below]
            self.unsure.add(one)
        self.server.moved(touched[0], touched[-1])

    def lose(self, at):
        if self.tree.get(at) is not None:
            self.lost.append(self.tree[at])

    def at(self, path_below):
        return str(self.here) + path_below

    def token(self):
        self.tokens += 1
        return b"[%s %d]" % (self.name.encode(), self.tokens)

    # On the mount.

    def fill(self, at, mode, change):
        """Opens a file, has its contents changed, and notes what they are then."""
        self.changes += 1
        with open(self.at(at), mode, buffering=0) as file:
            with underway():
                before = file.read()
                self.lose(at)
                self.tree[at] = change(file, before)

    def write(self, at, _):
        def change(file, before):
            if before:
                self.problems_seen.append(f"{at} was not empty after it was emptied")
            token = self.token()
            file.write(token)
            return token
        self.fill(at, "w+b", change)

    def append(self, at, _):
        def change(file, before):
            token = self.token()
            file.write(token)
            return before + token
        self.fill(at, "r+b", change)

    def truncate(self, at, _):
        def change(file, before):
            file.truncate(len(before) // 2)
            return before[:len(before) // 2]
        self.fill(at, "r+b", change)

    def mapped(self, at, _):
        def change(file, before):
            if not before:
                return before
            token = self.token()[:len(before)]
            with mmap.mmap(file.fileno(), 0) as memory:
                memory[:len(token)] = token
                memory.flush()
            return token + before[len(token):]
        self.fill(at, "r+b", change)

    def replace(self, at, _):
        """As most editors save."""
        self.write(at + ".new", _)
        self.rename(at + ".new", at)

    def rename(self, at, to):
        os.rename(self.at(at), self.at(to))
        if at == to:
            return
        self.lose(to)
        self.tree.pop(to, None)
        for old in [old for old in self.tree if old == at or old.startswith(at + "/")]:
            self.tree[to + old[len(at):]] = self.tree.pop(old)
        for old in [old for old in self.unsure if old == at or old.startswith(at + "/")]:
            self.unsure.add(to + old[len(at):])
        self.server.moved(at, to)

    move_folder = rename

    def remove(self, at, _):
        os.unlink(self.at(at))
        self.lose(at)
        self.tree.pop(at, None)

    def make_folder(self, at, _):
        os.mkdir(self.at(at))
        self.tree[at] = None

    def remove_folder(self, at, _):
        os.rmdir(self.at(at))
        self.tree.pop(at, None)

    def read(self, at, _):
        with open(self.at(at), "rb") as file:
            found = file.read()
        if self.one_sided and not self.is_unsure(at) and found != self.tree.get(at):
            self.problems_seen.append(f"{at} had {shown(found)} when it was read, not "
                                      f"{shown(self.tree.get(at, b''))}")

    def peek(self, at, _):
        """Reads the beginning of a file, which stays open for now."""
        file = open(self.at(at), "rb", buffering=0)
        try:
            self.peeks.append((file, file.read(UNIT), self.changes))
        except BaseException:
            file.close()
            raise

    def finish(self, *_):
        """Reads on in what is open, to the end."""
        peeks, self.peeks = self.peeks, []
        for file, beginning, changes in peeks:
            contents, is_whole = beginning, False
            with file, contextlib.suppress(OSError):
                while piece := file.read(64 * UNIT):
                    contents += piece
                is_whole = True
            if changes == self.changes:
                self.check_read(contents, is_whole)

    def check_read(self, contents, is_whole):
        """What a program got of a large file that nothing here changed meanwhile."""
        for number in self.server.marks:
            expected = self.server.contents(number) if number > LARGE else b""
            if not expected or not contents.startswith(expected[:UNIT]):
                continue
            right = contents == expected if is_whole else expected.startswith(contents)
            if not right:
                self.problems_seen.append(f"{len(contents)} bytes were read of {len(expected)}, "
                                          f"{'to the end' if is_whole else 'then an error'}")

    def look(self, at, _):
        os.listdir(os.path.dirname(self.at(at)))

    # At the server.

    def server_write(self, at, _):
        self.server.write(at)

    def server_remove(self, at, _):
        self.server.remove(at)

    def server_film(self, at, _):
        self.server.write(at, LARGE)

    server_remove_folder = server_remove

    def server_rename(self, at, to):
        self.server.rename(at, to)

    server_move_folder = server_rename

    def server_make_folder(self, at, _):
        self.server.make_folder(at)

    # In the end.

    def is_unsure(self, at):
        return any(at == one or at.startswith(one + "/") for one in self.unsure)

    def trees(self):
        """(mount's, server's)."""
        at_server = {one: contents for one, contents in read_tree(self.server.top).items()
                     # What is left of an upload whose server was stopped; nobody is shown it.
                     if not one.rpartition("/")[2].startswith(".davfs.tmp")}
        return read_tree(self.here), at_server

    def problems(self, recovered, requests, prefix):
        """What is not as it must be, now that both sides are the same. `recovered` is what the
        history has; `prefix` what a request for its folder begins with."""
        tree, _ = self.trees()
        found = list(self.problems_seen)
        if self.one_sided:
            found += [line + "  (found / expected)" for line in differences(
                {one: tree[one] for one in tree if not self.is_unsure(one)},
                {one: self.tree[one] for one in self.tree if not self.is_unsure(one)})]
        kept = [contents for contents in tree.values() if contents] + recovered + self.server.known
        for at, contents in self.tree.items():
            if contents and contents not in self.lost and not any(contents in one for one in kept):
                found.append(f"lost what was written here, to {at}: {shown(contents)}")
        for number, mark in self.server.marks.items():
            if number not in self.given_up and not any(mark in one for one in kept) and (
                    not self.server.met_a_change(number, requests, prefix)):
                found.append(f"lost what was written at the server: {shown(mark)}, "
                             f"to {self.server.places[number]}")
        for one in tree:
            name = one.rpartition("/")[2].removesuffix(".new")
            if not GIVEN_NAMES.fullmatch(name):
                found.append(f"a name that nobody gave: {one}")
        return found
