#!/usr/bin/python3
"""Measures the network layer against real servers on this machine.

    bench/network.py [--build DIR] [--server apache|rclone] [--count N] [--mebibytes N]

Prints the rate of small PROPFIND requests by number of connections beside that of h2load and of
`curl --parallel`, and the throughput of one large download and upload beside curl's. Each figure is
the best of three runs. Build first: cmake --preset bench && cmake --build --preset bench.
"""

import argparse
import base64
import json
import math
import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "support"))
from real_server import RealServer  # noqa: E402

RUNS = 3
CONNECTIONS = (1, 2, 4, 8, 16, 32, 64)
MEBIBYTE = 1024 * 1024


class Bench:
    def __init__(self, arguments, server, directory):
        self.arguments = arguments
        self.directory = Path(directory)
        self.root = server.root
        bridge = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
        self.base = f"https://127.0.0.1:{bridge['port']}"
        self.cert = self.directory / "pinned.pem"
        self.cert.write_text(bridge["certPEM"], encoding="ascii")
        secret = base64.b64encode(f"{bridge['user']}:{bridge['pass']}".encode()).decode()
        self.authorization = "Basic " + secret

    def own(self, mode, path, connections, last):
        program = Path(self.arguments.build) / "bench" / "bench_network"
        done = subprocess.run(
            [program, mode, self.base + path, self.cert, self.authorization, str(connections),
             str(last)], stdout=subprocess.PIPE, text=True, check=False,
            env={**os.environ, "TMPDIR": str(self.directory)})
        return json.loads(done.stdout)

    def ownRate(self, connections):
        runs = [self.own("requests", "/small", connections, self.arguments.count)
                for _ in range(RUNS)]
        best = min(runs, key=lambda run: run["seconds"])
        failures = sum(run["failures"] for run in runs)
        return best["requests"] / best["seconds"], best["kibibytes"], failures

    def h2load(self, connections, *options):
        def rate():
            done = subprocess.run(
                ["h2load", "-n", str(self.arguments.count), "-c", str(connections), "-t", "1",
                 "-H", ":method: PROPFIND", "-H", "Depth: 0",
                 "-H", "Authorization: " + self.authorization, *options, self.base + "/small"],
                capture_output=True, text=True, check=True)
            good = re.search(r"status codes: (\d+) 2xx", done.stdout)
            spoken = "http/1.1" if "--h1" in options else "h2"
            if (int(good[1]) < self.arguments.count
                    or f"Application protocol: {spoken}" not in done.stdout):
                return 0.0
            return float(re.search(r"([\d.]+) req/s", done.stdout)[1])
        return max(rate() for _ in range(RUNS))

    def curl(self, *arguments):
        """Seconds that curl takes, endless when a request fails."""
        start = time.monotonic()
        done = subprocess.run(
            ["curl", "-q", "-sf", "--no-progress-meter", "--http1.1", "--cacert", self.cert, "-k",
             "-H", "Authorization: " + self.authorization, *arguments],
            check=False, stdout=subprocess.DEVNULL)
        return time.monotonic() - start if done.returncode == 0 else math.inf

    def curlRate(self, connections):
        config = self.directory / "urls"
        config.write_text(f'url = "{self.base}/small"\noutput = "/dev/null"\n'
                          * self.arguments.count, encoding="ascii")
        seconds = min(self.curl("--parallel", "--parallel-immediate", "--parallel-max",
                                str(connections), "-X", "PROPFIND", "-H", "Depth: 0", "-K", config)
                      for _ in range(RUNS))
        return self.arguments.count / seconds

    def requests(self):
        (self.root / "small").write_text("x", encoding="ascii")
        print("connections   requests/s   h2load   curl --parallel   largest KiB   failures")
        for connections in CONNECTIONS:
            rate, memory, failures = self.ownRate(connections)
            print(f"{connections:11} {rate:12.0f} {self.h2load(connections, '--h1'):8.0f} "
                  f"{self.curlRate(connections):17.0f} {memory:13} {failures:10}", flush=True)
        for streams in (1, 16, 100):
            rate = self.h2load(1, "-m", str(streams))
            print(f"h2load with HTTP/2, 1 connection, {streams} streams: "
                  + (f"{rate:.0f} requests/s" if rate else "not spoken"), flush=True)

    def throughput(self):
        size = self.arguments.mebibytes * MEBIBYTE
        big = self.root / "big"
        with open(big, "wb") as file:
            block = os.urandom(MEBIBYTE)
            for _ in range(self.arguments.mebibytes):
                file.write(block)
        # A server may have a view of the folder that is a second old.
        while self.curl("-I", self.base + "/big") == math.inf:
            time.sleep(0.1)

        def show(name, own, curlSeconds):
            run = min(own, key=lambda each: each["seconds"])
            assert run["bytes"] == size
            mine, theirs = size / run["seconds"] / MEBIBYTE, size / curlSeconds / MEBIBYTE
            print(f"{name}: {mine:.0f} MiB/s, curl {theirs:.0f} MiB/s ({100 * mine / theirs:.0f} %),"
                  f" processor {run['processorSeconds']:.2f} s, largest {run['kibibytes']} KiB",
                  flush=True)

        down, up = [], []
        target = self.directory / "down"
        curlDown, curlUp = [], []
        for _ in range(RUNS):
            down.append(self.own("download", "/big", 1, 1))
            curlDown.append(self.curl("-o", target, self.base + "/big"))
            target.unlink()
            up.append(self.own("upload", "/up", 1, big))
            curlUp.append(self.curl("-T", big, self.base + "/up"))
        show("download", down, min(curlDown))
        show("upload", up, min(curlUp))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=ROOT / "build" / "bench")
    parser.add_argument("--server", default="apache", choices=("apache", "rclone"))
    parser.add_argument("--count", type=int, default=5000)
    parser.add_argument("--mebibytes", type=int, default=1024)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="bench-network-") as directory:
        with RealServer(arguments.server, Path(directory) / "server") as server:
            bench = Bench(arguments, server, directory)
            bench.requests()
            bench.throughput()


if __name__ == "__main__":
    main()
