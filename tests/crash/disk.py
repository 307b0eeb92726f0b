"""A disk whose power can fail.

The disk is a file: an ext4 file system on a loop device on it. What programs wrote and nobody
synced lies in the memory of the system and not in the file, so a copy of the file is what a power
failure at that moment leaves. What it does not show: a disk with a cache of its own, which loses
what was written and not flushed; here everything that reached the device is kept.
"""

import os
import shutil
import subprocess
from pathlib import Path

# Enough for a host to leave some of it free; the file has holes.
SIZE = "8G"


def obstacle():
    """Why there can be no such disk here; None when there can."""
    if os.geteuid() != 0:
        return "only root can mount a disk"
    for tool in ("losetup", "mkfs.ext4", "mount"):
        if not shutil.which(tool, path=os.environ["PATH"] + ":/usr/sbin:/sbin"):
            return f"{tool} is not installed"
    if subprocess.run(["losetup", "-f"], capture_output=True, check=False).returncode:
        return "there is no loop device"
    return None


def run(*command):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          check=False, timeout=60)
    if done.returncode:
        raise RuntimeError(f"{command}: {done.stderr}")
    return done.stdout.strip()


class Disk:
    def __init__(self, directory, image=None):
        self.directory = Path(directory)
        self.directory.mkdir()
        self.image = Path(image or self.directory / "disk")
        self.path = self.directory / "mounted"
        self.path.mkdir()
        if image is None:
            run("truncate", "-s", SIZE, self.image)
            run("mkfs.ext4", "-q", "-F", "-N", "8192", self.image)
        self.device = run("losetup", "-f", "--show", self.image)
        try:
            # The system writes to it when somebody syncs, and hardly by itself.
            run("mount", "-t", "ext4", "-o", "commit=3000,noinit_itable", self.device, self.path)
        finally:
            # Takes place when it is unmounted.
            run("losetup", "-d", self.device)
        # Unmounts when told to, and when the test has died.
        self.keeper = subprocess.Popen(["sh", "-c", 'read -r _; umount -l "$0"', self.path],
                                       stdin=subprocess.PIPE, start_new_session=True)

    def _writes(self):
        with open(f"/sys/block/{Path(self.device).name}/stat", encoding="ascii") as file:
            fields = file.read().split()
        return fields[4], fields[6], fields[8]

    def fail_power(self, directory):
        """Another disk, which has what this one would have after a power failure now."""
        directory = Path(directory)
        copy = directory.with_name(directory.name + ".disk")
        while True:
            before = self._writes()
            run("cp", "--sparse=always", self.image, copy)
            # A copy made while something was written is none of any moment.
            if self._writes() == before and before[2] == "0":
                return Disk(directory, copy)

    def remove(self):
        if self.keeper.stdin.closed:
            return
        self.keeper.stdin.close()
        self.keeper.wait(60)
