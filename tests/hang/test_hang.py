"""The server takes connections and does not answer, while twenty-two programs are at work."""

import os
import signal
import time

import pytest

from hanging import DRAIN, PATIENT, PROGRAMS, QUICK, STUCK, Sleepers
from hosted import BUSY, DONE, TIMED_OUT, is_mounted, wait_for
from trees import differences, read_tree

# What a command takes besides its limit, on a machine that is busy.
SLACK = 10
# One that changes names waits three seconds for the server's word, and the system makes others who
# need the same folder wait for it.
LONGEST_WAIT = 3

# Catch a signal that asks them to end, and remove files then, which are changes of names again.
TIDY = {command for command in PROGRAMS if "git commit" in command}


class Watch:
    """How long something takes."""

    def __enter__(self):
        self.began = time.monotonic()
        return self

    def __exit__(self, *_):
        self.seconds = time.monotonic() - self.began


def have_ended(programs, commands):
    return all(programs[command].poll() is not None for command in commands)


def start_all(scene):
    """The programs, once those that need nothing of the server are through."""
    scene.server.hang()
    programs = scene.start_all()
    wait_for(lambda: have_ended(programs, QUICK), "end of those that need no server")
    wait_for(lambda: scene.place.status()["fetching"] >= 3, "programs that wait for contents")
    return programs


def signal_all(programs, number):
    for process in programs.values():
        if process.poll() is None:
            os.killpg(process.pid, number)


def check_acknowledged(scene, programs, commands=PROGRAMS):
    """What programs were told that they had done is on both sides, which are the same."""
    expected = {}
    for command in commands:
        if programs[command].returncode == 0:
            expected |= {f"/{path}": contents for path, contents in PROGRAMS[command].items()}
    assert expected
    scene.place.wait_synced()
    found = read_tree(scene.home)
    assert {path: found.get(path, ...) for path in expected} == expected
    assert differences(found, scene.server.tree()) == []
    assert scene.place.status()["conflicts"] == []
    scene.run("cd repository && git fsck --strict && git log | grep -q while")


def test_programs_go_on_and_what_they_did_arrives(scene):
    began = time.monotonic()
    programs = start_all(scene)
    sleepers = Sleepers(programs.values())
    while not have_ended(programs, PATIENT):
        with Watch() as listing:
            assert len(os.listdir(scene.home / "still")) == 50
        assert listing.seconds < 1
        with Watch() as looking:
            scene.run("ls -l still")
        assert looking.seconds < 1
        assert time.monotonic() - began < len(PATIENT) * LONGEST_WAIT + SLACK
    slept = sleepers.end()
    assert all(seconds < 2 * LONGEST_WAIT + 1 for seconds in slept.values()), slept
    assert not any(sleepers.now()), "nobody waits for a lock any more"
    failed = {command: programs[command].stderr.read() for command in QUICK | PATIENT
              if programs[command].returncode}
    assert failed == {}
    assert not any(programs[command].poll() is not None for command in STUCK)

    scene.server.go_on()
    wait_for(lambda: have_ended(programs, STUCK), "end of all programs")
    check_acknowledged(scene, programs, QUICK | PATIENT)


@pytest.mark.parametrize("server, number", [
    ("stopped_server", signal.SIGINT), ("silent_server", signal.SIGKILL)], indirect=["server"])
def test_every_program_can_be_interrupted(scene, number):
    programs = start_all(scene)
    with Watch() as ending:
        signal_all(programs, number)
        wait_for(lambda: have_ended(programs, PROGRAMS.keys() - TIDY), "end of the programs")
    assert ending.seconds < 2
    assert {programs[command].returncode for command in STUCK} == {-number}
    wait_for(lambda: have_ended(programs, TIDY), "end of the others", LONGEST_WAIT + 2)
    scene.run("ls -l listed && cat listed/known.txt")


def test_commands_about_the_mount_answer(scene):
    programs = start_all(scene)
    with Watch() as asking:
        status = scene.place.status()
    assert asking.seconds < SLACK
    assert status["pending"]["count"] > 0 and status["fetching"] > 0
    with Watch() as waiting:
        result = scene.place.run("wait", "--timeout", "1")
    assert result.returncode == TIMED_OUT
    assert 1 <= waiting.seconds < 1 + SLACK
    with Watch() as evicting:
        answer = scene.place.ask("evict", scene.home / "moved" / "evicted.txt")
    assert answer["evicted"] == 1
    assert evicting.seconds < SLACK
    assert not any(programs[command].poll() is not None for command in STUCK)


@pytest.mark.parametrize("server", ["stopped_server"], indirect=True)
def test_only_the_first_change_of_a_name_waits(scene):
    """Who removes a thousand files does not wait a thousand times."""
    scene.server.hang()
    with Watch() as removing:
        scene.run("rm listed/file?.txt && mkdir made && rmdir made && mv listed renamed")
    assert removing.seconds < LONGEST_WAIT + 2
    assert not (scene.home / "listed").exists()


@pytest.mark.parametrize("server", ["stopped_server"], indirect=True)
def test_replacing_a_file_by_one_that_is_not_here_keeps_nobody_waiting_for_long(scene):
    scene.server.hang()
    moving = scene.start("mv cold/a.bin cold/b.bin")
    with Watch() as listing:
        wait_for(lambda: moving.poll() is not None, "end of the move")
        scene.run("ls -l cold")
    assert listing.seconds < 2 * LONGEST_WAIT + 2
    assert b"timed out" in moving.stderr.read()


@pytest.mark.parametrize("server", ["stopped_server"], indirect=True)
def test_removing_a_folder_of_which_nothing_is_known_keeps_nobody_waiting_for_long(scene):
    scene.server.hang()
    removing = scene.start("rmdir far")
    with Watch() as listing:
        wait_for(lambda: removing.poll() is not None, "end of the removal")
        scene.run("ls -l")
    assert listing.seconds < LONGEST_WAIT + 2
    assert b"timed out" in removing.stderr.read()


@pytest.mark.parametrize("server", ["stopped_server"], indirect=True)
def test_a_mount_that_is_in_use_is_taken_away_with_force_alone(scene):
    programs = start_all(scene)
    with Watch() as refusing:
        assert scene.place.run("unmount", scene.place.point).returncode == BUSY
    assert refusing.seconds < DRAIN + SLACK
    with Watch() as ending:
        assert scene.place.run("unmount", "--force", scene.place.point).returncode == DONE
        assert scene.mounted.wait() == DONE
    assert ending.seconds < SLACK
    wait_for(lambda: have_ended(programs, PROGRAMS), "end of all programs")
    assert all(programs[command].returncode for command in STUCK)


@pytest.mark.parametrize("server, how", [
    ("stopped_server", "unmount"), ("silent_server", "signal")], indirect=["server"])
def test_an_orderly_end_keeps_to_its_limit_and_loses_nothing(scene, how):
    programs = start_all(scene)
    wait_for(lambda: have_ended(programs, PATIENT), "end of those that can end")
    signal_all(programs, signal.SIGKILL)
    wait_for(lambda: have_ended(programs, PROGRAMS), "end of all programs")
    with Watch() as ending:
        if how == "unmount":
            left = scene.place.ask("unmount", scene.place.point)["left"]
            assert left > 0
            assert scene.mounted.wait() == DONE
        else:
            assert scene.mounted.end() == DONE
            assert scene.mounted.has_said("could not be sent")
    assert ending.seconds < DRAIN + SLACK
    assert not is_mounted(scene.place.point)

    scene.server.go_on()
    scene.place.mount().ready()
    check_acknowledged(scene, programs)
