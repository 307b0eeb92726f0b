"""A disk of its own for the state of a mount."""

import contextlib
import subprocess

import pytest


@contextlib.contextmanager
def state_on_a_disk(place, size):
    """The state of `place` lies on a disk of that size, as mount takes it; else the test skips."""
    state = place.state_home
    state.mkdir(mode=0o700)
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=0700", "own", state],
                             capture_output=True, check=False)
    if mounted.returncode:
        pytest.skip("no disk can be mounted here")
    yield place
    place.clean_up()
    subprocess.run(["umount", "-l", state], check=True)
