#!/usr/bin/python3
"""Measures the command and its driver beside curl, on one Apache on this machine, in turn.

    bench/command.py [--kestrowan PATH] [--rounds N] [--entries N] [--mebibytes N]

Prints medians and the ratios of one run. Build first: cmake --preset release && cmake --build
--preset release --target kestrowan.
"""

import argparse
import base64
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "support"))
from real_server import RealServer  # noqa: E402

LOOKUPS = 2000
CONNECTIONS = 8  # as many as the program uses
MEBIBYTE = 1024 * 1024


class Bench:
    def __init__(self, arguments, server, directory):
        self.arguments = arguments
        self.directory = Path(directory)
        self.root = server.root
        self.environment = {**os.environ, "KESTROWAN_CONTAINER": str(server.container),
                            "TMPDIR": directory}
        bridge = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
        self.base = f"https://127.0.0.1:{bridge['port']}"
        secret = base64.b64encode(f"{bridge['user']}:{bridge['pass']}".encode()).decode()
        self.curl = ["curl", "-q", "-skf", "--no-progress-meter", "--http1.1",
                     "-H", "Authorization: Basic " + secret]

    def timed(self, command):
        """(seconds, largest resident size in KiB) of a whole process."""
        start = time.monotonic()
        child = subprocess.Popen(list(map(os.fspath, command)), env=self.environment,
                                 stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        child.returncode = os.waitstatus_to_exitcode(status)
        if child.returncode != 0:
            raise RuntimeError(f"{command} ended with {child.returncode}")
        return time.monotonic() - start, usage.ru_maxrss

    def drive(self, requests):
        """Seconds from the first request to the last reply, of a driver that is already up."""
        driver = subprocess.Popen([self.arguments.kestrowan, "drive"], env=self.environment,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        driver.stdin.write(b'{"request":"invalidate"}\n')
        driver.stdin.flush()
        driver.stdout.readline()
        lines = b"".join(json.dumps(request).encode() + b"\n" for request in requests)
        start = time.monotonic()
        driver.stdin.write(lines)
        driver.stdin.close()
        replies = [driver.stdout.readline() for _ in requests]
        seconds = time.monotonic() - start
        driver.wait()
        if not all(b'"error":null' in reply for reply in replies):
            raise RuntimeError("a request failed")
        return seconds

    def compare(self, what, own, theirs, note=""):
        mine = statistics.median(own)
        other = statistics.median(theirs)
        print(f"{what}: {mine:.4f} s ({min(own):.4f} to {max(own):.4f}), curl {other:.4f} s "
              f"({min(theirs):.4f} to {max(theirs):.4f}), ratio {mine / other:.2f}{note}",
              flush=True)

    def listing(self):
        folder = self.root / "many"
        folder.mkdir()
        for number in range(self.arguments.entries):
            (folder / f"file {number}.txt").write_text("x")
        own, theirs = [], []
        for _ in range(self.arguments.rounds):
            theirs.append(self.timed([*self.curl, "-X", "PROPFIND", "-H", "Depth: 1",
                                      "-o", self.directory / "body", self.base + "/many/"])[0])
            own.append(self.drive([{"id": 1, "request": "enumerateItems",
                                    "identifier": "/many"}]))
        self.compare(f"listing of {self.arguments.entries} entries through the driver", own, theirs)

    def lookups(self):
        (self.root / "small").write_text("x")
        config = self.directory / "urls"
        config.write_text(f'url = "{self.base}/small"\noutput = "/dev/null"\n' * LOOKUPS)
        own, theirs = [], []
        for _ in range(self.arguments.rounds):
            theirs.append(self.timed([*self.curl, "--parallel", "--parallel-immediate",
                                      "--parallel-max", str(CONNECTIONS), "-X", "PROPFIND",
                                      "-H", "Depth: 0", "-K", config])[0])
            own.append(self.drive([{"id": number, "request": "item", "identifier": "/small"}
                                   for number in range(LOOKUPS)]))
        self.compare(f"{LOOKUPS} lookups at once through the driver", own, theirs,
                     f" (request rate {statistics.median(theirs) / statistics.median(own):.2f} of "
                     "curl's)")

    def settleDisk(self):
        """Neither client has to wait for what the other has left to be written or removed."""
        (self.directory / "down").unlink(missing_ok=True)
        (self.root / "up").unlink(missing_ok=True)
        os.sync()

    def files(self):
        big = self.root / "big"
        block = os.urandom(MEBIBYTE)
        with open(big, "wb") as file:
            for _ in range(self.arguments.mebibytes):
                file.write(block)
        for name, own, other in (
                ("download", ["get", "/big", self.directory / "down"],
                 ["-o", self.directory / "down", self.base + "/big"]),
                ("upload", ["put", big, "/up"], ["-T", big, self.base + "/up"])):
            mine, theirs, sizes = [], [], []
            for _ in range(max(5, self.arguments.rounds // 2)):
                self.settleDisk()
                theirs.append(self.timed([*self.curl, *other])[0])
                self.settleDisk()
                seconds, size = self.timed([self.arguments.kestrowan, *own])
                mine.append(seconds)
                sizes.append(size)
            self.compare(f"{name} of {self.arguments.mebibytes} MiB", mine, theirs,
                         f", largest resident size {max(sizes)} KiB")

    def smallListing(self):
        own, theirs = [], []
        (self.root / "few").mkdir()
        for number in range(10):
            (self.root / "few" / str(number)).write_text("x")
        for _ in range(self.arguments.rounds * 3):
            theirs.append(self.timed([*self.curl, "-X", "PROPFIND", "-H", "Depth: 1",
                                      self.base + "/few/"])[0])
            own.append(self.timed([self.arguments.kestrowan, "ls", "/few"])[0])
        self.compare("kestrowan ls of 10 entries, whole process", own, theirs)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrowan", default=ROOT / "build/release/src/cli/kestrowan")
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--entries", type=int, default=10000)
    parser.add_argument("--mebibytes", type=int, default=1024)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="bench-command-") as directory:
        with RealServer("apache", Path(directory) / "server") as server:
            bench = Bench(arguments, server, directory)
            bench.smallListing()
            bench.listing()
            bench.lookups()
            bench.files()


if __name__ == "__main__":
    main()
