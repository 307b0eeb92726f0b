#!/usr/bin/python3
"""Measures the mount beside a local folder and, with --peers, davfs2 and rclone, on one Apache.

    bench/mount.py [--peers] [--rounds N] [--entries N] [--many N] [--folders N] [--files N]
                   [--mebibytes N] [--idle SECONDS] [--kestrowan PATH]

Every client gets the same tree on the same server, in turn within each round. "Cold" is the first
access in a mount that was just made, with nothing kept from before; "warm" is the same once more;
"on the server" is the time from the start until the server's folder has all of it. The server's own
files are in memory throughout. The time of curl is what it takes to send the mount's requests once
more. Prints medians, and the mount's share of curl's time and of the best peer's. Needs /dev/fuse,
and root for davfs2. Build first: cmake --preset release && cmake --build --preset release --target
kestrowan. Exit code: 0 all was measured; 1 something failed.
"""

import argparse
import contextlib
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.dont_write_bytecode = True
from command import MEBIBYTE, RealServer  # noqa: E402
from mount_clients import (LIMIT, Davfs2, Failed, Local, Own, Rclone, guarded,  # noqa: E402
                           processor_seconds, resident)
from replay import Curl, Exchanges  # noqa: E402

SMALL = os.urandom(4096)
BLOCK = os.urandom(MEBIBYTE)
CLIENTS = (Local, Own, Curl, Davfs2, Rclone)
THREADS = 8
OPEN_FOLDERS = 10


def make_tree(top, arguments):
    for name, count, contents in (("entries", arguments.entries, b"x"),
                                  ("many", arguments.many, b"x"),
                                  ("files", arguments.files, SMALL)):
        (top / name).mkdir(parents=True)
        for number in range(count):
            (top / name / f"document {number:06}.txt").write_bytes(contents)
    for folder in range(arguments.folders):
        (top / "folders" / f"{folder:04}").mkdir(parents=True)
        for number in range(10):
            (top / "folders" / f"{folder:04}" / f"{number}.txt").write_bytes(b"x")
    write_big(top / "big", arguments.mebibytes)


def expect(found, wanted):
    if found != wanted:
        raise Failed(f"{found} instead of {wanted}")


def expect_lines(wanted, *command):
    done = subprocess.run(command, stdout=subprocess.PIPE, check=True,
                          env={**os.environ, "LC_ALL": "C"})
    expect(done.stdout.count(b"\n"), wanted)


def read_small(paths):
    for path in paths:
        with open(path, "rb", buffering=0) as file:
            expect(len(file.read(len(SMALL) * 2)), len(SMALL))


def read_in_threads(paths):
    failures = []

    def share(first):
        try:
            read_small(paths[first::THREADS])
        except (Failed, OSError) as failure:
            failures.append(failure)

    threads = [threading.Thread(target=share, args=(first,)) for first in range(THREADS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    expect(failures, [])


def read_big(path, mebibytes):
    with open(path, "rb", buffering=0) as file:
        total = 0
        while piece := file.read(MEBIBYTE):
            total += len(piece)
    expect(total, mebibytes * MEBIBYTE)


def write_big(path, mebibytes):
    with open(path, "wb", buffering=0) as file:
        for _ in range(mebibytes):
            expect(file.write(BLOCK), len(BLOCK))


def each(action, *lists):
    for arguments in zip(*lists):
        action(*arguments)


def sizes(folder):
    """The sizes of files, None for folders, by name, as they lie on the server now."""
    found = {}
    with contextlib.suppress(FileNotFoundError), os.scandir(folder) as entries:
        for entry in entries:
            with contextlib.suppress(FileNotFoundError):
                found[entry.name] = None if entry.is_dir() else entry.stat().st_size
    return found


def on_server(row):
    """The row for when all of a row's work has arrived."""
    return f"{row}, on the server"


def wait_for(condition, otherwise):
    """Looks rarely enough to leave the processors to those who are measured."""
    deadline = time.monotonic() + LIMIT
    while True:
        begun = time.monotonic()
        if condition():
            return
        if begun > deadline:
            raise Failed(otherwise)
        time.sleep(max(0.01, 4 * (time.monotonic() - begun)))


class Bench:
    def __init__(self, arguments, server):
        self.arguments = arguments
        self.tree = server.root / "Home" / "tree"
        self.work = server.root / "Home" / "work"
        self.exchanges = Exchanges(server)
        self.values = {}    # by row, by client: what was measured
        self.requests = {}  # by row: how many the mount sent
        self.sent = {}      # by group, by row: what the mount sent in the last round
        self.group = ""
        self.failures = 0
        self.client = None
        make_tree(self.tree, arguments)

    @contextlib.contextmanager
    def mounted(self):
        """The tree and an empty folder to work in, in a mount that was just made."""
        shutil.rmtree(self.work, ignore_errors=True)
        self.work.mkdir()
        os.sync()
        if os.geteuid() == 0:
            Path("/proc/sys/vm/drop_caches").write_text("3\n", encoding="ascii")
        subprocess.run(["find", self.tree, "-type", "f", "-exec", "cat", "{}", "+"], check=True,
                       stdout=subprocess.DEVNULL)
        try:
            self.client.start()
            yield self.client.point / "Home" / "tree", self.client.point / "Home" / "work"
        finally:
            self.client.stop()

    def note(self, row, value):
        self.values.setdefault(row, {}).setdefault(self.client.name, []).append(value)

    def timed(self, row, work, *arguments, arrived=None):
        before = self.exchanges.end()
        begun, ended = guarded(self.client, lambda: work(*arguments))
        self.note(row, ended - begun)
        if arrived:
            wait_for(arrived, f"{row}: never on the server")
            self.note(on_server(row), time.monotonic() - begun)
        if isinstance(self.client, Own):
            sent = self.exchanges.since(before)
            self.requests.setdefault(row, []).append(len(sent))
            self.sent.setdefault(self.group, {})[row] = sent

    # ---- what is measured ------------------------------------------------------------------------

    def listings(self):
        count = self.arguments.entries
        with self.mounted() as (tree, _):
            listing = (expect_lines, count + 1, "ls", "-l", tree / "entries")
            names = [tree / "entries" / f"document {number:06}.txt" for number in range(count)]
            self.timed(f"ls -l of {count}, cold", *listing)
            self.timed(f"ls -l of {count}, warm", *listing)
            self.timed(f"stat of {count}, warm", each, os.stat, names)

    def memory(self):
        count = self.arguments.many
        with self.mounted() as (tree, _):
            self.timed(f"ls -l of {count}, cold", expect_lines, count + 1,
                       "ls", "-l", tree / "many")
            if processes := self.client.processes():
                self.note("MiB of memory after that", resident(processes))

    def idle(self):
        """Once is enough: what is measured is a mean over a long time."""
        row = f"% of a core, {OPEN_FOLDERS} folders open"
        if self.client.name in self.values.get(row, {}) or self.client.name == "local":
            return
        with self.mounted() as (tree, _), contextlib.ExitStack() as opened:
            # Programs of their own hold the folders, so that a mount that hangs does not hang this.
            for number in range(min(OPEN_FOLDERS, self.arguments.folders)):
                holder = subprocess.Popen(
                    ["sh", "-c", 'cd "$1" && ls -f >/dev/null && read -r end', "sh",
                     tree / "folders" / f"{number:04}"], stdin=subprocess.PIPE)
                opened.callback(holder.wait, LIMIT)
                opened.callback(holder.stdin.close)
            time.sleep(1)
            processes = self.client.processes()
            before, begun = processor_seconds(processes), time.monotonic()
            time.sleep(self.arguments.idle)
            used = processor_seconds(processes) - before
            self.note(row, 100 * used / (time.monotonic() - begun))

    def folders(self):
        count = self.arguments.folders
        with self.mounted() as (tree, _):
            for state in ("cold", "warm"):
                self.timed(f"find over {count} folders of 10, {state}", expect_lines, count * 10,
                           "find", tree / "folders", "-type", "f")

    def files(self):
        count = self.arguments.files
        for how, work, states in (("one by one", read_small, ("cold", "warm")),
                                  (f"{THREADS} threads", read_in_threads, ("cold",))):
            with self.mounted() as (tree, _):
                names = [tree / "files" / f"document {number:06}.txt" for number in range(count)]
                for state in states:
                    self.timed(f"read {count} files of 4 KiB {how}, {state}", work, names)

    def big(self):
        mebibytes = self.arguments.mebibytes
        with self.mounted() as (tree, _):
            for state in ("cold", "warm"):
                self.timed(f"read {mebibytes} MiB, {state}", read_big, tree / "big", mebibytes)
        with self.mounted() as (_, work):
            self.timed(f"write {mebibytes} MiB", write_big, work / "big", mebibytes,
                       arrived=lambda: sizes(self.work).get("big") == mebibytes * MEBIBYTE)

    def changes(self):
        count = self.arguments.files
        some = max(1, count // 5)
        names = [f"{number:05}" for number in range(count)]
        renamed = [f"renamed {name}" for name in names[:some]] + names[some:]
        made = {f"folder {number}": None for number in range(some)}
        with self.mounted() as (_, work):
            self.timed(f"create {count} files of 4 KiB", each,
                       lambda name: (work / name).write_bytes(SMALL), names,
                       arrived=lambda: sizes(self.work) == dict.fromkeys(names, len(SMALL)))
            self.timed(f"rename {some}", each, lambda old, new: (work / old).rename(work / new),
                       names[:some], renamed,
                       arrived=lambda: sizes(self.work).keys() == set(renamed))
            self.timed(f"mkdir {some}", each, lambda name: (work / name).mkdir(), made,
                       arrived=lambda: made.items() <= sizes(self.work).items())
            self.timed(f"delete {count}", each, lambda name: (work / name).unlink(), renamed,
                       arrived=lambda: sizes(self.work) == made)

    def again(self):
        """Has what the mount sent in the group sent once more, from the same state on."""
        if self.group not in self.sent:
            return
        with self.mounted():
            for row, sent in self.sent[self.group].items():
                if sent:
                    seconds = self.client.seconds(sent)
                    self.note(row, seconds)
                    if on_server(row) in self.values:
                        self.note(on_server(row), seconds)

    def measure(self, client):
        """What a failure leaves out is missing in the table."""
        self.client = client
        for group in (self.listings, self.memory, self.folders, self.files, self.big, self.changes,
                      self.idle):
            self.group = group.__name__
            try:
                if isinstance(client, Curl):
                    self.again()
                else:
                    group()
            except (Failed, OSError) as failure:
                self.failures += 1
                print(f"{client.name}: {failure}", file=sys.stderr)

    # ---- the table -------------------------------------------------------------------------------

    def show(self, clients):
        names = [client.name for client in clients]
        peers = [client.name for client in clients if client.is_peer]
        heads = [*names, "own / curl", *["own / best peer"] * bool(peers), "own requests"]
        print(f"\n{'seconds, medians':44}" + "".join(f"{head:>16}" for head in heads))
        for row, values in self.values.items():
            medians = {name: statistics.median(found) for name, found in values.items()}
            cells = [f"{medians[name]:.3f}" if name in medians else "-" for name in names]
            cells.append(share(medians, ["curl"]))
            if peers:
                cells.append(share(medians, peers))
            asked = self.requests.get(row)
            cells.append(f"{statistics.median(asked):.0f}" if asked else "")
            print(f"{row:44}" + "".join(f"{cell:>16}" for cell in cells))


def share(medians, others):
    """The mount's time by that of the best of the others, for the table."""
    best = min((medians[name] for name in others if name in medians), default=0)
    return f"{medians['own'] / best:.2f}" if best and "own" in medians else "-"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrowan", default=Own.program)
    parser.add_argument("--peers", action="store_true", help="davfs2 and rclone as well")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--entries", type=int, default=10000, help="in the folder to be listed")
    parser.add_argument("--many", type=int, default=50000, help="in the folder for the memory")
    parser.add_argument("--folders", type=int, default=1000)
    parser.add_argument("--files", type=int, default=1000)
    parser.add_argument("--mebibytes", type=int, default=512)
    parser.add_argument("--idle", type=float, default=60, help="seconds")
    arguments = parser.parse_args()
    Own.program = os.path.abspath(arguments.kestrowan)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    chosen = []
    for client in CLIENTS:
        if client.is_peer and not arguments.peers:
            continue
        if obstacle := client.obstacle():
            print(f"without {client.name}: {obstacle}", file=sys.stderr)
            if client is Own:
                sys.exit(1)
        else:
            chosen.append(client)

    with tempfile.TemporaryDirectory(prefix="bench-mount-") as directory:
        os.chmod(directory, 0o711)  # davfs2 serves as a user of its own
        with RealServer("apache", Path(directory) / "server") as server:
            bench = Bench(arguments, server)
            clients = [client(server, directory) for client in chosen]
            print(f"{len(os.sched_getaffinity(0))} processors, which clients and server share; "
                  f"load {os.getloadavg()[0]:.1f}", flush=True)
            for number in range(arguments.rounds):
                for client in clients:
                    print(f"round {number + 1}: {client.name}", file=sys.stderr, flush=True)
                    bench.measure(client)
            bench.show(clients)
    sys.exit(1 if bench.failures else 0)


if __name__ == "__main__":
    main()
