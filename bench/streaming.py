#!/usr/bin/python3
"""What a peek at large files costs that are not here: time, and bytes that the server sends.

    bench/streaming.py [--kestrowan PATH] [--streaming SIZE|off]

The server is tests/support/dav_server.py: slow, and in the same process, so throughput is not
measured here (bench/mount.py does that).
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1] / "tests"
for folder in ("support", "host", "mount", "integration"):
    sys.path.insert(0, str(TESTS / folder))

MIB = 1 << 20
PEEK = "import sys; f = open(sys.argv[1], 'rb', buffering=0); f.read(65536)"


PIECE = 65536


class Counted:
    """Counts what connections have handed to the system, socket buffers included."""

    def __init__(self, connection):
        self.sent = 0
        send = connection.send
        connection.send = lambda own, pieces, answer: send(own, self.counted(pieces), answer)

    def counted(self, pieces):
        for piece in pieces:
            for at in range(0, len(piece), PIECE):
                part = piece[at:at + PIECE]
                yield part
                self.sent += len(part)


def contents(mebibytes):
    return bytes(range(256)) * (mebibytes * MIB // 256)


def is_here(path):
    return os.getxattr(path, "user.kestrowan.downloaded") == b"yes"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrowan",
                        default=str(TESTS.parent / "build/release/src/cli/kestrowan"))
    parser.add_argument("--streaming", default="1M", help="the mount's option")
    arguments = parser.parse_args()
    os.environ["KESTROWAN"] = arguments.kestrowan

    import hosted
    from dav_server import DavConnection, DavServer
    from mounts import take_down, write_bridge

    counted = Counted(DavConnection)
    directory = Path(tempfile.mkdtemp(prefix="kestrowan-streaming-"))
    with DavServer() as dav:
        place = hosted.Place(directory, write_bridge(directory / "container", dav))
        dav.put("/Home/slow/film", contents(300))
        photo = b"\xff\xd8\xff\xe0\x00\x10JFIF\x00" + contents(8)[11:]
        for number in range(20):
            dav.put(f"/Home/photos/photo{number:02}.jpg", photo)
        try:
            place.mount(f"--streaming={arguments.streaming}").ready()
            home = place.point / "Home"

            photos = home / "photos"
            names = [photos / name for name in sorted(os.listdir(photos))]
            before = counted.sent
            begin = time.monotonic()
            subprocess.run(["file", "-P", "bytes=65536", *names], check=True,
                           stdout=subprocess.DEVNULL)
            took = time.monotonic() - begin
            hosted.wait_for(lambda: place.status()["fetching"] == 0 or None, "the end of fetches")
            print(f"file, which reads 64 KiB, on 20 of 8 MiB: {took:.2f} s, "
                  f"{(counted.sent - before) / MIB:.1f} MiB sent, "
                  f"{sum(map(is_here, names))} here afterwards")

            os.listdir(home / "slow")
            # Made piece by piece: the server would take seconds to prepare the whole body.
            dav.fault("GET", "/Home/slow/film", effect=False,
                      answer={"status": 200, "fill": 300 * MIB, "pace": [PIECE, 1 / 16]})
            begin = time.monotonic()
            subprocess.run([sys.executable, "-c", PEEK, home / "slow" / "film"], check=True)
            print(f"64 KiB of 300 MiB at 1 MiB/s: {time.monotonic() - begin:.3f} s")
        finally:
            place.clean_up()
            take_down(place.point)
            shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    main()
