#!/usr/bin/python3
"""Measures how long a program waits at most for an attribute of a file of this machine, while the
mount has a lot to do; and what many known entries cost in memory, and folders in use in time.

    bench/probe.py [--entries N] [--few N] [--history N] [--gibibytes N] [--idle SECONDS]
                   [--kestrowan PATH]

Two processes ask all the time, each for a file whose name is never sent: one reads its attributes
(statx, which the kernel must not answer), the other changes one (setxattr). Meanwhile a folder of
N entries is listed, and listed again; the server loses it; N files go from the history; a file of N
GiB is evicted; the database is compacted. Prints the longest wait of both in each of these. Needs
/dev/fuse. Build first: cmake --preset release && cmake --build --preset release --target kestrowan.
Exit code: 0 all was measured; 1 something failed.
"""

import argparse
import contextlib
import ctypes
import multiprocessing
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
from large_server import LargeServer  # noqa: E402
from mount_clients import LIMIT, Failed, Own, guarded, processor_seconds, resident  # noqa: E402

AT_FDCWD = -100
FORCE_SYNC = 0x2000
BASIC_STATS = 0x7FF
FOLDERS = 10
FOLDER_ENTRIES = 1000
MEBIBYTE = 1024 * 1024
GIBIBYTE = 1024 * MEBIBYTE
LOCAL = "~$probe"  # a name that is never sent


class Asker:
    """A process that does one thing again and again, and how long that took at most."""

    def __init__(self, path, ask):
        self.longest = multiprocessing.Value("d", 0.0)
        self.count = multiprocessing.Value("q", 0)
        self.process = multiprocessing.get_context("fork").Process(
            target=self.run, args=(os.fsencode(path), ask), daemon=True)
        self.process.start()

    def run(self, path, ask):
        while True:
            begun = time.monotonic()
            ask(path)
            took = time.monotonic() - begun
            with self.longest.get_lock():
                self.longest.value = max(self.longest.value, took)
                self.count.value += 1
            time.sleep(0.001)

    def begin(self):
        with self.longest.get_lock():
            self.longest.value, self.count.value = 0.0, 0

    def end(self):
        """(milliseconds, how many)."""
        with self.longest.get_lock():
            return self.longest.value * 1000, self.count.value


LIBC = ctypes.CDLL(None, use_errno=True)


def read_attributes(path):
    buffer = ctypes.create_string_buffer(256)
    if LIBC.statx(AT_FDCWD, path, FORCE_SYNC, BASIC_STATS, buffer) != 0:
        raise OSError(ctypes.get_errno(), "statx")


def change_attribute(path):
    os.setxattr(path, b"user.probe", str(time.monotonic()).encode())


class Probe:
    def __init__(self, arguments, server, directory):
        self.arguments = arguments
        self.server = server
        self.own = Own(server, directory)
        self.askers = {}

    def __enter__(self):
        self.own.start()
        return self

    def begin(self):
        for name, ask in (("read", read_attributes), ("change", change_attribute)):
            path = self.own.point / (LOCAL + name)
            path.write_bytes(b"x")
            self.askers[name] = Asker(path, ask)

    def __exit__(self, *_):
        for asker in self.askers.values():
            asker.process.kill()
            asker.process.join()
        self.own.stop()

    def command(self, *words):
        done = subprocess.run([self.own.program, *words], env={**os.environ,
                              **self.own.environment()}, capture_output=True, timeout=LIMIT,
                              check=False)
        if done.returncode:
            raise Failed(f"{words}: {done.stderr.decode()}")
        return done.stdout.decode()

    def say(self, what, value):
        print(f"{what}: {value}", flush=True)

    @contextlib.contextmanager
    def waits(self, what):
        for asker in self.askers.values():
            asker.begin()
        begun = time.monotonic()
        yield
        took = time.monotonic() - begun
        found = ", ".join(f"{name} {longest:.1f} ms of {count}" for name, (longest, count) in
                          ((name, asker.end()) for name, asker in self.askers.items()))
        self.say(what, f"{found}, in {took:.1f} s")

    def memory(self, what):
        self.say(f"memory with {what}", f"{resident(self.own.processes()):.1f} MiB")

    def expect_entries(self, folder, count):
        def work():
            found = len(os.listdir(self.own.point / "Home" / folder))
            if found != count:
                raise Failed(f"{found} entries instead of {count}")
        guarded(self.own, work)

    def until(self, condition, what):
        end = time.monotonic() + LIMIT
        while not condition():
            if time.monotonic() > end:
                raise Failed(f"{what} does not come about")
            time.sleep(0.1)

    def idle(self):
        opened = []
        try:
            for number in range(FOLDERS):
                folder = self.own.point / "Home" / f"folder{number}"
                opened.append(os.open(folder, os.O_RDONLY | os.O_DIRECTORY))
                os.listdir(opened[-1])
            time.sleep(5)
            before = processor_seconds(self.own.processes())
            time.sleep(self.arguments.idle)
            used = processor_seconds(self.own.processes()) - before
        finally:
            for descriptor in opened:
                os.close(descriptor)
        self.say(f"idle with {FOLDERS} folders of {FOLDER_ENTRIES} in use",
                 f"{100 * used / self.arguments.idle:.2f} % of a processor")

    def large(self):
        count = self.arguments.entries
        with self.waits(f"a folder of {count} entries is listed"):
            self.expect_entries("large", count)
        self.memory(f"{count} entries")
        with self.waits("it is listed again"):
            time.sleep(self.arguments.again)
            self.expect_entries("large", count)
        self.memory(f"{count} entries, listed again")
        self.server.forget("/Home/large")
        database = self.database()
        before = database.stat().st_size
        with self.waits("the server loses it"):
            self.until(lambda: not (self.own.point / "Home" / "large").exists(), "its end")
        self.memory("none of them any more")
        with self.waits("the database is compacted"):
            self.until(lambda: database.stat().st_size < before / 2, "a small database")

    def database(self):
        return next(self.own.cache.rglob("replica.db"))

    def history(self):
        count = self.arguments.history
        folder = self.own.point / "~$history"
        folder.mkdir()
        for number in range(count):
            (folder / f"{number}").write_bytes(b"x")
        for number in range(count):
            (folder / f"{number}").unlink()
        with self.waits(f"{count} files go from the history"):
            self.command("history", "--clear", "--yes")
        with self.waits("and after that"):
            time.sleep(10)

    def evicted(self):
        path = self.own.point / "Home" / "big"
        guarded(self.own, lambda: path.read_bytes())
        contents = max((self.database().parent / "contents").iterdir(), key=lambda each:
                       each.stat().st_size)
        size = self.arguments.gibibytes * GIBIBYTE
        with open(contents, "r+b") as file:
            os.posix_fallocate(file.fileno(), 0, size)
        with self.waits(f"a file of {self.arguments.gibibytes} GiB is evicted"):
            self.command("evict", str(path))
        if contents.exists():
            raise Failed("it was not evicted")


@contextlib.contextmanager
def probe_of(arguments, directory, folders, files):
    """A mount of a server that has nothing else, which might be read ahead."""
    directory.mkdir()
    with LargeServer(directory, folders, files) as server:
        with Probe(arguments, server, directory) as probe:
            yield probe


def measure(arguments, directory):
    with probe_of(arguments, directory / "few", {"/Home/few": arguments.few}, {}) as probe:
        probe.expect_entries("few", arguments.few)
        probe.memory(f"{arguments.few} entries")
    folders = {f"/Home/folder{number}": FOLDER_ENTRIES for number in range(FOLDERS)}
    with probe_of(arguments, directory / "folders", folders, {}) as probe:
        probe.idle()
    with probe_of(arguments, directory / "large", {"/Home/large": arguments.entries},
                  {"/Home/big": b"x" * MEBIBYTE}) as probe:
        probe.begin()
        with probe.waits("nothing happens"):
            time.sleep(5)
        probe.evicted()
        probe.history()
        probe.large()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--entries", type=int, default=1_000_000)
    parser.add_argument("--few", type=int, default=50_000)
    parser.add_argument("--history", type=int, default=40_000)
    parser.add_argument("--gibibytes", type=int, default=10)
    parser.add_argument("--idle", type=int, default=120)
    parser.add_argument("--again", type=int, default=35)
    parser.add_argument("--kestrowan", default=Own.program)
    arguments = parser.parse_args()
    Own.program = arguments.kestrowan
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}", flush=True)
    with tempfile.TemporaryDirectory() as directory:
        try:
            measure(arguments, Path(directory))
        except (Failed, OSError) as failure:
            print(failure, file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
