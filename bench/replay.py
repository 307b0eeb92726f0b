"""The requests that a mount sent, as Apache's log has them, and curl sending the very same again."""

import base64
import itertools
import os
import shutil
import subprocess
from collections import Counter
from typing import NamedTuple
from urllib.parse import quote, unquote, urlsplit

from command import MEBIBYTE
from mount_clients import LIMIT, Failed, Local, eventually

CHANGES = ("PUT", "MKCOL", "MOVE", "DELETE")


class Exchange(NamedTuple):
    """A request and the status that answered it. What a request did not have is "-"."""
    began: int  # microseconds, as is the next
    ended: int
    status: str
    method: str
    depth: str
    overwrite: str
    destination: str
    size: str  # of the request's body, in bytes
    path: str

    def what(self):
        """All but when."""
        return self[2:]

    def places(self):
        """What it is about."""
        paths = {self.path, unquote(urlsplit(self.destination).path)} - {"-"}
        return {path.rstrip("/") for path in paths}


class Exchanges:
    """What an Apache is asked, from its log."""

    def __init__(self, server):
        self.log = server.directory / "exchanges.log"

    def end(self):
        """A place in the log."""
        return self.log.stat().st_size

    def since(self, place):
        """In the order in which they began."""
        with open(self.log, "rb") as log:
            log.seek(place)
            lines = log.read().decode("ascii").splitlines()
        return sorted(Exchange(int(began), int(ended), *rest)
                      for began, ended, *rest in (line.split(" ", 8) for line in lines))


def in_turns(exchanges):
    """First the first of each place, then the second of each, so that a request comes long after
    the one that it needs."""
    turns = {}
    placed = []
    for exchange in exchanges:
        turn = 1 + max(turns.get(place, 0) for place in exchange.places())
        turns.update(dict.fromkeys(exchange.places(), turn))
        placed.append((turn, exchange))
    return [exchange for _, exchange in sorted(placed, key=lambda each: each[0])]


def at_once(exchanges):
    """How many were on their way at the same time, at most."""
    turns = sorted([(each.began, 1) for each in exchanges] +
                   [(each.ended, -1) for each in exchanges])
    return max(itertools.accumulate(turn for _, turn in turns))


def independent(exchanges):
    """So many in a row never change a place that another of them is about."""
    least = len(exchanges)
    before = {}  # by place: the last request about it, the last that changed it
    for number, exchange in enumerate(exchanges):
        for place in exchange.places():
            last, last_change = before.get(place, (None, None))
            needed = last if exchange.method in CHANGES else last_change
            if needed is not None:
                least = min(least, number - needed)
            before[place] = (number, number if exchange.method in CHANGES else last_change)
    return least


class Curl(Local):
    """One process, with as many connections as the mount used at once, which it keeps."""
    name = "curl"

    @classmethod
    def obstacle(cls):
        return None if shutil.which("curl") else "curl is not installed"

    def __init__(self, server, directory):
        super().__init__(server, directory)
        self.base.mkdir()
        self.files = self.base / "files"
        self.exchanges = Exchanges(server)
        secret = base64.b64encode(f"{self.bridge['user']}:{self.bridge['pass']}".encode()).decode()
        self.always = ["insecure", "http1.1", "path-as-is", "globoff", 'header = "Expect:"',
                       f'header = "Authorization: Basic {secret}"']

    def seconds(self, exchanges):
        """From the first request to the last answer, as the server sees them: without the start of
        curl and its first handshake. The server must be as it was before `exchanges`."""
        ordered = in_turns(exchanges)
        together = min(at_once(exchanges), independent(ordered))
        self.prepare(exchanges)
        config = self.base / "requests"
        config.write_text("\nnext\n".join(map(self.section, itertools.count(), ordered)),
                          encoding="ascii")
        before = self.exchanges.end()
        try:
            subprocess.run(["curl", "-q", "--no-progress-meter", "--parallel",
                            "--parallel-immediate", "--parallel-max", str(together), "-K", config],
                           check=True, timeout=LIMIT)
            eventually(lambda: len(self.exchanges.since(before)) == len(exchanges))
        except (subprocess.SubprocessError, AssertionError) as failure:
            raise Failed(f"not all was sent again: {failure}") from None
        found = self.exchanges.since(before)
        wanted, answered = (Counter(each.what() for each in sent) for sent in (exchanges, found))
        if wanted != answered:
            raise Failed(f"not the same again: {list(wanted - answered)[:1]} is missing, and "
                         f"{list(answered - wanted)[:1]} too much")
        return (max(each.ended for each in found) - found[0].began) / 1e6

    def section(self, number, exchange):
        """What the configuration says about one request."""
        lines = [*self.always, f'url = "{self.url}{quote(exchange.path.lstrip("/"))}"',
                 f'output = "{self.files / str(number)}"' if exchange.method == "GET"
                 else 'output = "/dev/null"']
        if exchange.method == "PUT":
            lines.append(f'upload-file = "{self.body(exchange.size)}"')
        elif exchange.method != "GET":
            lines.append(f'request = "{exchange.method}"')
        for name, value in (("Depth", exchange.depth), ("Overwrite", exchange.overwrite),
                            ("Destination", exchange.destination)):
            if value != "-":
                lines.append(f'header = "{name}: {value}"')
        if exchange.depth == "1":
            lines.append('header = "Content-Type: application/xml"')
        return "\n".join(lines)

    def body(self, size):
        """The file that is sent as a body of so many bytes."""
        return self.base / f"body of {size}"

    def prepare(self, exchanges):
        """What is sent is in memory, and nothing is there of what is received."""
        shutil.rmtree(self.files, ignore_errors=True)
        self.files.mkdir()
        for size in {exchange.size for exchange in exchanges if exchange.method == "PUT"}:
            if not self.body(size).exists():
                with open(self.body(size), "wb") as file:
                    for first in range(0, int(size), MEBIBYTE):
                        file.write(os.urandom(min(MEBIBYTE, int(size) - first)))
            subprocess.run(["cat", self.body(size)], check=True, stdout=subprocess.DEVNULL)
