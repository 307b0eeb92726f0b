"""Programs that walk through all files make nothing be fetched."""

import os
import shutil
import subprocess

import pytest

from hosting import outcome

SMALL = b"some text of a picture"
LARGE = b"x" * ((1 << 20) + 1)


def idle():
    os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))


def peek(path, program="head", before=None):
    """Whether a program may read the beginning of a file."""
    read = subprocess.run([program, "-c16", path], capture_output=True, preexec_fn=before)
    assert read.returncode == 0 or b"Permission denied" in read.stderr, read.stderr
    return read.returncode == 0


@pytest.fixture
def named(tmp_path):
    """The same program under another name."""
    def copy(name):
        return shutil.copy(shutil.which("head"), tmp_path / name)
    return copy


def test_an_idle_program_reads_what_is_here_and_nothing_else(scene):
    scene.put("here.txt", SMALL)
    scene.put("there.txt", SMALL)
    assert (scene.home / "here.txt").read_bytes() == SMALL
    refused = scene.place.status()["refusedPrograms"]["count"]
    assert peek(scene.home / "here.txt", before=idle)
    assert not peek(scene.home / "there.txt", before=idle)
    assert scene.asked("GET") == [("GET", "/here.txt")]
    status = scene.place.status()["refusedPrograms"]
    assert status == {"count": refused + 1, "last": "head"}
    assert "the last one that wanted it is head" in scene.place.run("doctor").stdout.decode()
    assert peek(scene.home / "there.txt")


def test_an_idle_program_sees_names_and_attributes(scene):
    for number in range(20):
        scene.put(f"d/{number}.txt", SMALL)
    walk = subprocess.run(["find", scene.home, "-type", "f", "-size", "1"], capture_output=True,
                          preexec_fn=idle)
    assert len(walk.stdout.splitlines()) == 20
    assert scene.asked("GET") == []


@pytest.mark.parametrize("name", ["updatedb", "clamscan", "tracker-extract-3", "baloo_file"])
def test_a_program_is_known_by_its_name(scene, named, name):
    scene.put("a.txt", SMALL)
    assert not peek(scene.home / "a.txt", named(name))
    assert scene.asked("GET") == []
    # These copy files.
    assert peek(scene.home / "a.txt", named("thunar"))


@pytest.mark.parametrize("name", ["tumblerd", "gdk-pixbuf-thumbnailer"])
def test_a_thumbnailer_reads_small_files(scene, named, name):
    scene.put("small.png", SMALL)
    scene.put("large.png", LARGE)
    thumbnailer = named(name)
    assert peek(scene.home / "small.png", thumbnailer)
    assert not peek(scene.home / "large.png", thumbnailer)
    assert scene.asked("GET") == [("GET", "/small.png")]


def test_a_refused_program_may_write_anew(scene):
    scene.put("a.txt", SMALL)
    write = subprocess.run(["cp", "/dev/stdin", scene.home / "a.txt"], input=b"new",
                           preexec_fn=idle)
    assert write.returncode == 0
    assert outcome((scene.home / "a.txt").read_bytes) == b"new"
    scene.settle({"/a.txt": b"new"})
