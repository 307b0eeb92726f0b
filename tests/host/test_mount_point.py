"""Where a mount can be made, what the folder is like afterwards, and what a failure leaves: nothing."""

import os
import shutil
import signal
import subprocess

import pytest

import driver
from hosted import BUSY, DONE, MOUNT_FAILED, is_mounted, mode, wait_for


def test_a_mount_point_that_is_not_fit_is_refused_with_the_reason(place):
    full = place.directory / "full"
    full.mkdir()
    (full / "file").write_bytes(b"x")
    for point, words in ((full, "not empty"), (full / "file", "not a folder"),
                         (place.directory / "no" / "parent", "No such file"),
                         (place.state / "inside", "keeps its files"),
                         (place.state_home, "would hide"), ("/", "would hide")):
        mounted = place.mount(point=point)
        assert mounted.wait() == MOUNT_FAILED, mounted.lines
        assert mounted.has_said(words), (point, mounted.lines)
    mounted = place.mount(point="/proc")
    assert mounted.wait() == BUSY, mounted.lines
    assert mounted.has_said("another file system"), mounted.lines
    assert (full / "file").read_bytes() == b"x"
    assert not place.state_home.exists(), "nothing was made"
    assert not (place.directory / "no").exists()


def test_a_mount_that_cannot_be_made_leaves_nothing(place):
    """Without the right to mount, in a folder of the user's own and in one that is missing."""
    if os.geteuid() != 0 or not shutil.which("setpriv"):
        pytest.skip("only root can give the right up, and with setpriv")
    mine = place.directory / "mine"
    mine.mkdir()
    mine.chmod(0o755)
    for point in (mine, place.point):
        done = subprocess.run(["setpriv", "--bounding-set=-sys_admin", driver.executable(),
                               "--container", place.container, "mount", point],
                              capture_output=True, timeout=60, check=False,
                              env={**os.environ, **place.environment()})
        assert done.returncode == MOUNT_FAILED, (done.returncode, done.stderr)
        assert not place.state.exists()
    assert mode(mine) == 0o755
    assert not place.point.exists()


def test_a_failed_mount_leaves_the_state_of_earlier_ones(place, folder):
    mounted = place.mount().ready()
    assert mounted.end() == DONE
    full = place.directory / "full"
    full.mkdir()
    (full / "file").write_bytes(b"x")
    assert place.mount(point=full).wait() == MOUNT_FAILED
    assert (place.state / "replica.db").exists()


def test_the_folder_has_its_former_mode_after_the_mount(place):
    place.point.mkdir()
    place.point.chmod(0o751)
    for end in (lambda mounted: mounted.send(signal.SIGTERM),
                lambda mounted: place.run("unmount", place.point),
                lambda mounted: place.run("unmount", "--force", place.point),
                lambda mounted: subprocess.run(["fusermount3", "-u", "--", place.point])):
        mounted = place.mount().ready()
        end(mounted)
        assert mounted.wait() == DONE
        assert mode(place.point) == 0o751


def test_the_former_mode_comes_back_after_a_host_that_died(place):
    place.point.mkdir()
    place.point.chmod(0o755)
    place.mount().ready().kill()
    assert place.mount().ready().end() == DONE
    assert mode(place.point) == 0o755
    place.mount().ready().kill()
    assert place.run("unmount", place.point).returncode == DONE
    assert mode(place.point) == 0o755
    place.mount().ready().kill()
    assert place.mount("--domain", "second").ready().end() == DONE
    assert mode(place.point) == 0o755


def test_a_second_mount_on_the_same_state_is_told_what_to_do(place):
    place.mount().ready()
    second = place.mount(point=place.directory / "other")
    assert second.wait() == BUSY
    assert second.has_said(f"kestrowan unmount '{place.point}'"), second.lines
    assert second.has_said("--domain"), second.lines
    assert not (place.directory / "other").exists()


def test_state_on_what_another_mount_serves_is_warned_of(place, folder):
    place.mount().ready()
    state = place.point / "Home" / folder.name / "state"
    second = place.mount("--domain", "second", "--state", state, point=place.directory / "other")
    wait_for(lambda: second.has_said("another machine's disk") or second.process.poll() is not None,
             "warning")
    assert second.has_said("another machine's disk"), second.lines
    second.kill()
    subprocess.run(["fusermount3", "-u", "-z", "--", second.point], check=False,
                   capture_output=True)


def test_a_mount_point_in_use_is_refused(place):
    place.mount().ready()
    second = place.mount("--domain", "second")
    assert second.wait() == BUSY
    assert second.has_said(f"is mounted already; unmount it first: kestrowan unmount '{place.point}'")
    assert not (place.state_home / "kestrowan" / "second").exists()


def test_a_second_host_on_the_same_state_is_refused(place):
    first = place.mount().ready()
    second = place.mount(point=place.directory / "other")
    assert second.wait() == BUSY
    assert second.has_said(f"process {first.process.pid}"), second.lines
    assert first.process.poll() is None
    assert list(place.point.iterdir()) is not None


# ---- the program that mounts ---------------------------------------------------------------------


def test_a_program_of_the_path_never_mounts_or_unmounts(place, folder):
    fake = place.directory / "bin"
    fake.mkdir()
    marker = place.directory / "was-run"
    program = fake / "fusermount3"
    program.write_text(f"#!/bin/sh\necho \"$@\" >>'{marker}'\nexit 1\n")
    program.chmod(0o755)
    path = {"PATH": f"{fake}:{os.environ['PATH']}"}

    place.mount(env=path).ready()
    assert place.run("unmount", place.point, env=path).returncode == DONE
    assert not is_mounted(place.point)

    place.mount(env=path).ready()
    user = os.open(place.point / "Home" / folder.name, os.O_RDONLY | os.O_DIRECTORY)
    assert place.run("unmount", "--force", place.point, env=path).returncode == DONE
    os.close(user)
    assert not is_mounted(place.point)

    hanging = place.mount(env=path).ready()
    hanging.send(signal.SIGSTOP)
    assert place.run("unmount", "--force", place.point, env=path).returncode == DONE
    assert not is_mounted(place.point)
    hanging.kill()

    # What a host that died left is cleaned up by the next mount, and by unmount.
    place.mount(env=path).ready().kill()
    place.mount(env=path).ready().kill()
    assert is_mounted(place.point)
    assert place.run("unmount", place.point, env=path).returncode == DONE
    assert not is_mounted(place.point)

    place.mount(env=path).ready()
    findings = {finding["subject"]: finding
                for finding in place.ask("doctor", env=path)["findings"]}
    assert findings["fusermount3"]["text"] == "/usr/bin/fusermount3"
    assert not marker.exists(), marker.read_text()
