#!/usr/bin/python3
"""Checks which layer includes which, and where headers of other projects appear."""

import re
import sys
from pathlib import PurePosixPath

sys.dont_write_bytecode = True
from sources import ROOT, cpp_files, includes, report  # noqa: E402

# What each layer may include besides itself.
REACH = {
    "platform": set(),
    "bridge": {"platform"},
    "webdav": {"bridge", "platform"},
    "items": {"webdav", "bridge", "platform"},
    "extension": {"items", "webdav", "bridge", "platform"},
    "async": {"platform"},
    "replica": {"async", "platform"},
    "mount": {"replica", "async", "platform"},
    "host": {"mount", "replica", "async", "extension", "items", "webdav", "bridge", "platform"},
    "cli": {"host", "mount", "replica", "async", "extension", "items", "webdav", "bridge",
            "platform"},
    "macos": {"extension", "items", "webdav", "bridge", "platform"},
}
# Rooms of a layer that have arrows of their own: the folders and headers that each may include
# besides itself.
ROOMS = {
    "replica/model": {"platform"},
    "replica/plan": {"replica/model", "platform"},
    "replica/store": {"replica/model", "replica/remote", "replica/Log.h", "replica/Records.h",
                      "async", "platform"},
    "replica/remote": {"async", "platform"},
    "replica/pull": {"replica/model", "replica/plan", "replica/store", "replica/remote",
                     "replica/Caller.h", "replica/Log.h", "replica/NameRules.h",
                     "replica/Options.h", "async", "platform"},
    "replica/push": {"replica/pull", "replica/model", "replica/plan", "replica/store",
                     "replica/remote", "replica/Log.h", "replica/Options.h", "async", "platform"},
    "replica/calls": {"replica/push", "replica/pull", "replica/plan", "replica/model",
                      "replica/store", "replica/remote", "replica/CommandCalls.h",
                      "replica/FileCalls.h", "replica/FilePlaces.h", "replica/Log.h",
                      "replica/NameParts.h", "replica/NameRules.h", "replica/Options.h",
                      "async", "platform"},
}
# The module's logger is a leaf that these layers include too.
LOGGER = "extension/fpLog.h"
LOGGING = {"webdav", "items"}

# Headers of other projects, and the one folder in which each may appear.
THIRD_PARTY = (
    (re.compile(r"(curl|openssl|unicode|nlohmann|libxml|spdlog|fmt)/|syslog\.h$"
                r"|systemd/"),
     "platform/linux"),
    (re.compile(r"sqlite3(ext)?\.h$"), "replica/store"),
    (re.compile(r"fuse3?/|fuse(_lowlevel|_common|_opt|_log)?\.h$"), "mount"),
    (re.compile(r"CLI/"), "cli"),
)
SYSTEM = re.compile(
    r"(sys|linux|netinet|arpa|net|bits)/|[a-z_]+$"
    r"|(dirent|dlfcn|errno|fcntl|fnmatch|ftw|getopt|grp|langinfo|limits|locale|malloc|mntent|poll"
    r"|pthread|pwd|sched|semaphore|signal|spawn|stdint|stdio|stdlib|strings?|termios|time|unistd|utime|wchar)\.h$")
# The shell of the app extension is written for another platform, whose own headers it needs.
FOREIGN_LAYERS = {"macos"}


def lies_in(header, folder):
    return PurePosixPath(header).is_relative_to(folder)


def room_problem(folder, header):
    """Why a file of a room must not include a header of ours; None when it may."""
    for room, reach in ROOMS.items():
        if lies_in(folder, room) and not any(lies_in(header, home) for home in reach | {room}):
            return f'{room}/ must not include "{header}"'
    return None


def check(path, text, exists):
    """Problems of one file. `path` is relative to src/; `exists` tells whether a header is ours."""
    layer = path.parts[0]
    folder = path.parent.as_posix()
    problems = []
    if layer not in REACH:
        return [f"src/{path}: the folder '{layer}' is no known layer"]
    for line, header, angled in includes(text):
        where = f"src/{path}:{line}: "
        if angled:
            for pattern, home in THIRD_PARTY:
                if pattern.match(header):
                    if folder != home and not folder.startswith(home + "/"):
                        problems.append(f"{where}<{header}> belongs only in src/{home}/")
                    break
            else:
                if layer not in FOREIGN_LAYERS and not SYSTEM.match(header):
                    problems.append(f"{where}<{header}> is neither a system header nor an allowed "
                                    "header of another project")
            continue
        target = PurePosixPath(header).parts[0]
        if not exists(header):
            problems.append(f'{where}"{header}" is not below src/')
        elif target != layer and target not in REACH[layer]:
            if not (header == LOGGER and layer in LOGGING):
                problems.append(f'{where}{layer}/ must not include "{header}"')
        elif problem := room_problem(folder, header):
            problems.append(where + problem)
    return problems


def main():
    source = ROOT / "src"
    problems = []
    for path in cpp_files(("src",)):
        problems += check(PurePosixPath(path.relative_to(source).as_posix()),
                          path.read_text(encoding="utf-8"),
                          lambda header: (source / header).is_file())
    return report(problems)


if __name__ == "__main__":
    sys.exit(main())
