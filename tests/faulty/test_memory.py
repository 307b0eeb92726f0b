"""A host that gets no memory for what is large."""

import os
import re
import subprocess

import pytest

import driver
from hosted import DONE, wait_for

# A list of so many entries takes pieces of more than two MiB; nothing of a small folder does.
ENTRIES = 140_000
LARGEST_MIB = 2


def refusing():
    """What makes the host's allocator refuse large pieces, as a limit of memory would."""
    libraries = subprocess.run(["ldd", driver.executable()], check=True, capture_output=True,
                               text=True).stdout
    if "libasan.so" not in libraries:
        pytest.skip("only an allocator that is built in for tests refuses large pieces")
    [library] = re.findall(r"libstdc\+\+\.so\S* => (\S+)", libraries)
    # The allocator's own operator `new` ends the program where this one throws.
    return {"LD_PRELOAD": library,
            "ASAN_OPTIONS": ":".join([os.environ.get("ASAN_OPTIONS", "detect_leaks=0"),
                                      "verify_asan_link_order=0", "allocator_may_return_null=1",
                                      f"max_allocation_size_mb={LARGEST_MIB}"])}


def test_a_listing_that_memory_does_not_suffice_for_is_an_error_and_the_host_goes_on(dav,
                                                                                     dav_place):
    place = dav_place
    for number in range(ENTRIES):
        dav.put(f"/Home/large/{number}", b"")
    dav.put("/Home/small/a.txt", b"a")
    mounted = place.mount(env=refusing()).ready()
    home = place.point / "Home"
    with pytest.raises(OSError):
        os.listdir(home / "large")
    wait_for(lambda: mounted.has_said("cannot be listed") or mounted.process.poll() is not None,
             "line in the log")
    assert mounted.process.poll() is None, mounted.lines
    assert (home / "small" / "a.txt").read_bytes() == b"a"
    (home / "small" / "b.txt").write_bytes(b"b")
    place.wait_synced()
    assert dav.read("/Home/small/b.txt") == b"b"
    assert place.status()["state"] == "online"
    assert mounted.end() == DONE
