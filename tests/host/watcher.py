"""Watches paths with inotify, and writes what it hears: a JSON list for each event."""

import ctypes
import json
import os
import struct
import sys

KINDS = {0x4: "ATTRIB", 0x40: "MOVED_FROM", 0x80: "MOVED_TO", 0x100: "CREATE", 0x200: "DELETE",
         0x400: "DELETE_SELF", 0x800: "MOVE_SELF", 0x4000: "OVERFLOW"}
IS_FOLDER = 0x40000000
WANTED = 0x4 | 0x40 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800


def main():
    library = ctypes.CDLL(None, use_errno=True)
    descriptor = library.inotify_init1(os.O_CLOEXEC)
    paths = {}
    for path in sys.argv[1:]:
        number = library.inotify_add_watch(descriptor, os.fsencode(path), WANTED)
        if number < 0:
            sys.exit(f"{path}: {os.strerror(ctypes.get_errno())}")
        paths[number] = path
    print("ready", flush=True)
    while True:
        data = os.read(descriptor, 1 << 16)
        while data:
            number, mask, _, length = struct.unpack_from("iIII", data)
            name = os.fsdecode(data[16:16 + length].rstrip(b"\0"))
            data = data[16 + length:]
            for bit, kind in KINDS.items():
                if mask & bit:
                    shown = name + "/" if mask & IS_FOLDER and name else name
                    print(json.dumps([paths.get(number, ""), kind, shown]), flush=True)


main()
