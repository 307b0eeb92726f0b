"""Programs that are made to wear file systems out, at work on a mount."""

import os
import subprocess

import pytest

from hosting import run
from test_programs import LONG, needs, on_server, tree

SECONDS = 3
AT_MOST = 120

# What is run at once: by stressor how many workers, how many operations, and options.
NAMES = {
    "access": (1, 200),
    "chdir": (1, 5, "--chdir-dirs", 64),
    "dentry": (1, 200, "--dentries", 50),
    "dir": (2, 100, "--dir-dirs", 64),
    "dirdeep": (1, 40, "--dirdeep-dirs", 2, "--dirdeep-inodes", 60),
    "dirmany": (1, 20),
    "dnotify": (1, 10),
    "fstat": (1, 100),
    "getdent": (1, 100),
    "handle": (1, 100),
    "mknod": (1, 50),
    "rename": (2, 200),
    "touch": (2, 100),
}
CONTENTS = {
    "aio": (1, 100),
    "fallocate": (1, 5, "--fallocate-bytes", "1m"),
    "hdd": (2, 100, "--hdd-bytes", "1m"),
    "iomix": (1, 50, "--iomix-bytes", "1m"),
    "ioprio": (1, 10),
    "open": (1, 100, "--open-max", 100),
    "readahead": (1, 50, "--readahead-bytes", "1m"),
    "revio": (1, 50, "--revio-bytes", "1m"),
    "seek": (1, 100, "--seek-size", "1m", "--seek-punch"),
    "sync-file": (1, 10, "--sync-file-bytes", "1m"),
}
ATTRIBUTES_AND_LOCKS = {
    "chattr": (1, 10),
    "chmod": (1, 20),
    "chown": (1, 50),
    "dup": (1, 100),
    "fanotify": (1, 50),
    "fcntl": (1, 50),
    "file-ioctl": (1, 50),
    "flock": (2, 100),
    "lease": (1, 50),
    "locka": (2, 50),
    "lockf": (2, 50),
    "lockofd": (2, 50),
    "utime": (1, 50),
}
# These have their number of operations only after a long time.
FOR_A_WHILE = {
    "fpunch": (1, 1000),
    "xattr": (1, 1000),
}
# These rely on their files' being removed, or make some that are terabytes long.
LEAVING_NOTHING = {
    "copy-file": (1, 5),
    "filename": (1, 5),
    "fsize": (1, 5),
    "inotify": (1, 3),
}
# What the mount refuses by design: why, and what the stressor says of it.
REFUSED = {
    "link": ("an item has one name", "link calls not allowed"),
    "symlink": ("the storage has files and folders only", "link calls not allowed"),
    "fiemap": ("no place on a disk is the mount's to tell", "FS_IOC_FIEMAP not supported"),
    "verity": ("the kernel keeps no checksums for it", "verity is not supported"),
}
# Stressors of the same class that this is not for.
NOT_RUN = {
    "bind-mount": "mounts the system's root over and over",
    "binderfs": "another file system",
    "eventfd": "has no files",
    "inode-flags": "asks only for what test_devices_questions_are_refused shows to be refused, "
                   "and counts nothing until it succeeds",
    "io": "writes back every disk of the machine",
    "procfs": "another file system",
}


def stress(mount, stressors, *options, seconds=AT_MOST):
    """Runs stressors at once; gives how many operations each did, and everything that was said."""
    report = mount.parent / "report"
    arguments = []
    for name, (workers, operations, *more) in stressors.items():
        arguments += [f"--{name}", workers, f"--{name}-ops", operations, *more]
    said = run("stress-ng", "--temp-path", mount, "--timeout", str(seconds), "--verify",
               "--metrics", "--yaml", report, *options, *map(str, arguments), cwd=mount.parent,
               seconds=LONG)
    counted = {}
    for line in report.read_text().splitlines():
        key, _, value = line.strip(" -").partition(": ")
        if key == "stressor":
            stressor = value
        elif key == "bogo-ops":
            counted[stressor] = int(value)
    return counted, said.decode()


def assert_unharmed(host, mount):
    """The mount still answers, the server has all of it, and nothing is left to be done."""
    (mount / "after").write_text("all is well")
    os.rename(mount / "after", mount / "renamed")
    assert (mount / "renamed").read_text() == "all is well"
    assert (mount / "before" / "file").read_text() == "was there before"
    host.wait(LONG)
    assert on_server(host) == tree(mount)
    assert host.status()["pending"] == []
    assert host.status()["conflicts"] == []
    os.unlink(mount / "renamed")


@pytest.fixture
def host(make_host):
    made = make_host(watchdog=600).mount().connect()
    made.folder("/before")
    made.write("/before/file", "was there before")
    return made


@needs("dbench")
@pytest.mark.parametrize("clients, options", [(4, []), (2, ["--sync-dir"])])
def test_dbench(host, mount, clients, options):
    said = run("dbench", "--directory", mount, "--timelimit", str(SECONDS), "--target-rate", "6",
               "--skip-cleanup", *options, str(clients), cwd=mount.parent, seconds=LONG).decode()
    assert f"{clients} clients" in said
    assert not [line for line in said.splitlines()
                if ("failed" in line and "semaphore" not in line) or "ERROR" in line]
    assert len(list((mount / "clients").iterdir())) == clients
    assert_unharmed(host, mount)


@needs("stress-ng")
@pytest.mark.parametrize("stressors", [NAMES, CONTENTS, ATTRIBUTES_AND_LOCKS],
                         ids=["names", "contents", "attributes and locks"])
def test_stressors_whose_files_stay(host, mount, stressors):
    counted, said = stress(mount, stressors, "--keep-files")
    assert "fail:" not in said and "skipping" not in said, said
    assert all(counted[name] for name in stressors), said
    assert len(list(mount.iterdir())) > len(stressors) // 2
    assert_unharmed(host, mount)


@needs("stress-ng")
def test_stressors_that_take_their_time(host, mount):
    _, said = stress(mount, FOR_A_WHILE, "--keep-files", seconds=SECONDS)
    assert "fail:" not in said and "skipping" not in said, said
    assert len(list(mount.iterdir())) == len(FOR_A_WHILE) + 1
    assert_unharmed(host, mount)


@needs("stress-ng")
def test_stressors_that_leave_nothing(host, mount):
    counted, said = stress(mount, LEAVING_NOTHING)
    assert "fail:" not in said and "skipping" not in said, said
    assert all(counted[name] for name in LEAVING_NOTHING), said
    assert [path.name for path in mount.iterdir()] == ["before"]
    assert_unharmed(host, mount)


@needs("stress-ng")
@pytest.mark.parametrize("stressor", REFUSED)
def test_what_is_refused_by_design(host, mount, stressor):
    done = subprocess.run(["stress-ng", "--temp-path", mount, "--timeout", str(AT_MOST),
                           f"--{stressor}", "1", f"--{stressor}-ops", "5"], check=False,
                          cwd=mount.parent, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, timeout=LONG)
    assert REFUSED[stressor][1] in done.stdout
    assert [path.name for path in mount.iterdir()] == ["before"]
    assert_unharmed(host, mount)


@needs("stress-ng")
def test_no_stressor_of_file_systems_is_forgotten():
    done = subprocess.run(["stress-ng", "--class", "filesystem?"], check=False, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
    listed = set(done.stdout.partition("stressors:")[2].split())
    assert "rename" in listed
    known = [NAMES, CONTENTS, ATTRIBUTES_AND_LOCKS, FOR_A_WHILE, LEAVING_NOTHING, REFUSED,
             NOT_RUN]
    assert listed - {name for table in known for name in table} == set()
