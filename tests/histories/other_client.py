"""The server's other client: changes files on the server's disk, and knows what it took away."""

import errno
import os
import time

from program import FILES, FOLDERS, TOKEN
from server_side import EXCHANGE, NOREPLACE, contents_below, rename

KINDS = {"write": 6, "remove": 2, "rename": 2, "move_folder": 1, "make_folder": 1}


class OtherClient:
    def __init__(self, top, aside, rng):
        self.top = top
        self.aside = aside
        aside.mkdir()
        self.rng = rng
        self.count = 0
        self.moves = 0
        self.written = {}  # token: [(path, when it was surely not there yet, when it surely was)]
        self.known = set()  # tokens that were at the server when this client took them away

    def step(self):
        kind = self.rng.choices(list(KINDS), list(KINDS.values()))[0]
        at, to = self.rng.sample(FOLDERS if kind.endswith("folder") else FILES, 2)
        try:
            getattr(self, kind)(at, to)
        except OSError as error:
            assert error.errno in (errno.ENOENT, errno.EEXIST, errno.ENOTDIR, errno.EISDIR,
                                   errno.ENOTEMPTY), error

    def at(self, path):
        return self.top / path[1:]

    def away(self):
        self.moves += 1
        return self.aside / str(self.moves)

    def took(self, path):
        for contents in contents_below(path):
            self.known |= set(TOKEN.findall(contents))

    def write(self, at, _):
        self.count += 1
        token = b"<there.%d>" % self.count
        new = self.away()
        new.write_bytes(token + b"." * self.rng.choice((0, 3, 800, 50_000)))
        if self.at(at).is_dir():
            return
        before = time.time()
        try:
            rename(new, self.at(at), EXCHANGE)
            self.took(new)
        except FileNotFoundError:
            rename(new, self.at(at), NOREPLACE)
        self.written[token] = [(at, before, time.time())]

    def remove(self, at, _):
        if self.at(at).is_dir():
            return
        away = self.away()
        rename(self.at(at), away, NOREPLACE)
        self.took(away)

    def rename(self, at, to):
        if self.at(at).is_dir():
            return
        before = time.time()
        rename(self.at(at), self.at(to), NOREPLACE)
        self.moved(at, to, before)

    def make_folder(self, at, _):
        os.mkdir(self.at(at))

    def move_folder(self, at, to):
        before = time.time()
        rename(self.at(at), self.at(to), NOREPLACE)
        self.moved(at, to, before)

    def moved(self, at, to, before):
        for places in self.written.values():
            places += [(to + path[len(at):], before, time.time()) for path, _, _ in list(places)
                       if path == at or path.startswith(at + "/")]
