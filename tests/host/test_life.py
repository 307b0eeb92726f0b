"""How a mount begins and ends: readiness, signals, drains, unmounting."""

import errno
import json
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

import driver
from hosted import (BUSY, DONE, MOUNT_FAILED, NOT_MOUNTED, TIMED_OUT, USAGE, NotifySocket,
                    is_mounted, mode, wait_for)
from scripted_server import ScriptedServer


# ---- beginning -----------------------------------------------------------------------------------


def test_a_mount_becomes_ready_and_works(place, folder):
    (folder / "a.txt").write_bytes(b"from the server")
    mounted = place.mount().ready()
    assert is_mounted(place.point)
    assert (place.point / "Home" / folder.name / "a.txt").read_bytes() == b"from the server"
    assert mounted.end() == DONE
    assert not is_mounted(place.point)
    assert "STOPPING=1" in mounted.notify.read()
    assert mounted.process.stdout.read() == b""


def test_readiness_is_told_through_an_abstract_socket_too(place):
    notify = NotifySocket(f"@kestrowan-test-{os.getpid()}")
    mounted = place.mount(env={"NOTIFY_SOCKET": notify.name})
    wait_for(lambda: "READY=1" in notify.read() or mounted.process.poll() is not None, "readiness")
    assert "READY=1" in notify.words
    notify.close()


def test_state_is_for_the_user_alone(place):
    place.mount().ready()
    assert mode(place.state_home / "kestrowan") == 0o700
    assert mode(place.state) == 0o700
    for path in place.state.rglob("*"):
        assert mode(path) == (0o700 if path.is_dir() else 0o600), path
    assert mode(place.runtime / "kestrowan") == 0o700
    [socket] = place.sockets()
    assert mode(socket) == 0o600


def test_a_core_file_is_never_written(place):
    before = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (before[1], before[1]))
    try:
        mounted = place.mount().ready()
    finally:
        resource.setrlimit(resource.RLIMIT_CORE, before)
    with open(f"/proc/{mounted.process.pid}/limits", encoding="ascii") as limits:
        [line] = [line for line in limits if line.startswith("Max core file size")]
    assert line.split()[4:6] == ["0", "0"]


def test_the_mount_belongs_to_its_user_and_is_named(place):
    place.mount("--domain", "work").ready()
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        [line] = [line for line in table if line.split()[4] == str(place.point)]
    before, after = line.split(" - ")
    assert after.split()[:2] == ["fuse.kestrowan", "kestrowan:work"]
    assert {"nosuid", "nodev"} <= set(before.split()[5].split(","))
    assert f"user_id={os.getuid()}" in after


def test_noexec_keeps_programs_from_running(place, folder):
    (folder / "run").write_bytes(b"#!/bin/sh\nexit 7\n")
    program = place.point / "Home" / folder.name / "run"
    mounted = place.mount().ready()
    program.chmod(0o755)
    assert subprocess.run([program], check=False).returncode == 7
    assert mounted.end() == DONE
    place.mount("--noexec").ready()
    with pytest.raises(PermissionError):
        subprocess.run([program], check=False)


def test_two_domains_are_mounted_side_by_side(place, folder):
    other = place.directory / "other"
    place.mount().ready()
    place.mount("--domain", "second", point=other).ready()
    (place.point / "Home" / folder.name / "x").write_bytes(b"1")
    result = place.run("status")
    assert result.returncode == DONE
    assert result.stdout.decode().count("Mount: ") == 2
    watching = driver.start("--json", "status", "--watch", env=place.environment())
    lines = [json.loads(watching.stdout.readline()) for _ in range(4)]
    watching.terminate()
    watching.communicate(timeout=60)
    assert [line["domain"] for line in lines] == [place.domain, "second"] * 2
    result = place.run("retry")
    assert (result.returncode, result.stderr) == (DONE, b"")
    result = place.run("wait")
    assert result.returncode == USAGE and b"several mounts" in result.stderr
    assert place.run("wait", place.point).returncode == DONE
    assert place.ask("status", other)["domain"] == "second"
    wait_for(lambda: (other / "Home" / folder.name / "x").exists(), "file in the other mount")


def test_state_may_lie_elsewhere(place):
    state = place.directory / "elsewhere"
    place.mount("--state", state).ready()
    assert place.status()["stateDirectory"] == str(state)
    assert (state / "lock").exists()
    assert not place.state.exists()


@pytest.mark.parametrize("arguments", [
    [], ["--fsync=never", "x"], ["--close=now", "x"], ["--moves=maybe", "x"], ["--drain", "-1", "x"],
    ["--cache-limit", "much", "x"], ["--cache-limit", "0", "x"], ["--domain", "../x", "x"],
    ["--domain", "", "x"], ["x", "y"], ["--state"], [""]])
def test_wrong_usage_mounts_nothing(place, arguments):
    result = place.run("mount", *arguments, cwd=place.directory)
    assert result.returncode == USAGE, result.stderr
    assert result.stderr
    assert not place.state_home.exists()


def test_a_mount_without_a_place_for_its_state_fails_as_a_mount(place):
    result = place.run("mount", "x", cwd=place.directory,
                       env={"HOME": "", "XDG_STATE_HOME": "relative"})
    assert result.returncode == MOUNT_FAILED
    assert b"XDG_STATE_HOME" in result.stderr


# ---- in the background ---------------------------------------------------------------------------


def test_background_returns_when_the_mount_is_there(place, folder):
    (folder / "a.txt").write_bytes(b"x")
    result = place.run("mount", "--background", place.point)
    assert result.returncode == DONE, result.stderr
    assert os.listdir(place.point / "Home" / folder.name) == ["a.txt"]
    pid = place.status()["process"]
    assert os.getsid(pid) == pid
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert place.run("unmount", place.point).returncode == DONE
    assert not is_mounted(place.point)
    log = place.state / "log"
    assert mode(log) == 0o600
    lines = log.read_text(encoding="utf-8").splitlines()
    for line in lines:
        assert re.match(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d kestrowan: \S", line), line
    assert lines[0].endswith(f"kestrowan: mounted at {place.point}")
    assert lines[-1].endswith("kestrowan: unmounted; nothing is left to send")


def test_background_takes_relative_paths(place):
    result = place.run("mount", "--background", "--state", "own", "here", cwd=place.directory)
    assert result.returncode == DONE, result.stderr
    assert is_mounted(place.directory / "here")
    assert (place.directory / "own" / "lock").exists()


def test_background_reports_why_it_failed(place):
    place.point.mkdir()
    (place.point / "file").write_bytes(b"x")
    result = place.run("mount", "--background", place.point)
    assert result.returncode == MOUNT_FAILED
    assert b"not empty" in result.stderr
    assert place.run("status").returncode == NOT_MOUNTED


def test_background_leaves_the_terminal_alone(place):
    """Nothing keeps the streams of the command that started it open."""
    process = driver.start("mount", "--background", place.point, container=place.container,
                           env=place.environment())
    out, error = process.communicate(timeout=60)
    assert (process.returncode, out) == (DONE, b"")
    assert error.decode().splitlines() == [f"kestrowan: mounted at {place.point}"]


@pytest.fixture
def silent_place(make_place, tmp_path):
    """A place whose server accepts connections and says nothing."""
    with ScriptedServer({"mode": "silent"}) as server:
        container = tmp_path / "container"
        container.mkdir(mode=0o700)
        bridge = container / "fp-webdav.json"
        bridge.write_text(json.dumps({"port": server.port, "user": "u", "pass": "p",
                                      "certPEM": server.certPEM}), encoding="utf-8")
        bridge.chmod(0o600)
        yield make_place(container)


def test_readiness_does_not_wait_for_a_silent_server(silent_place):
    silent_place.mount().ready()
    assert is_mounted(silent_place.point)


@pytest.mark.parametrize("known", [False, True])
def test_a_server_that_is_not_there_is_told_of(make_place, server, tmp_path, known):
    """A new state knows nothing of the server, an old one what it saw last."""
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    shutil.copy(server.container / "fp-webdav.json", container)
    place = make_place(container)
    if known:
        mounted = place.mount().ready()
        assert os.listdir(place.point) == ["Home"]
        assert mounted.end() == DONE
    server._control("stop")
    mounted = place.mount().ready()
    status = place.status()
    assert status["state"] in ("unanswered", "offline")
    assert status["state"] == "offline" or status["unanswered"]
    shown = place.run("status").stdout.decode()
    assert "not reached yet" in shown or "not in reach" in shown
    assert mounted.has_said("the server is not reached yet") or (
        mounted.has_said("the server cannot be reached")), mounted.lines
    server._control("start", "--parent", str(os.getpid()))
    shutil.copy(server.container / "fp-webdav.json", container)
    wait_for(lambda: place.status()["state"] == "online", "server")


def test_who_gives_up_waiting_for_the_background_leaves_no_mount(silent_place):
    process = driver.start("mount", "--background", silent_place.point,
                           container=silent_place.container, env=silent_place.environment())
    wait_for(lambda: is_mounted(silent_place.point), "mount")
    process.kill()
    process.communicate(timeout=60)
    wait_for(lambda: not is_mounted(silent_place.point), "end of the mount")
    wait_for(lambda: silent_place.run("status").returncode == NOT_MOUNTED, "end of the host")


# ---- ending --------------------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_signal_lets_changes_be_sent_first(place, folder, number):
    mounted = place.mount().ready()
    for i in range(20):
        (place.point / "Home" / folder.name / f"{i}.txt").write_bytes(b"%d" % i)
    assert mounted.end(number) == DONE
    assert {path.name: path.read_bytes() for path in folder.iterdir()} == {
        f"{i}.txt": b"%d" % i for i in range(20)}
    assert mounted.has_said("nothing is left to send")


def test_what_could_not_be_sent_is_counted_and_sent_after_the_next_mount(own_place, server):
    mounted = own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    server._control("stop")
    (documents / "a.txt").write_bytes(b"kept")
    wait_for(lambda: own_place.status()["state"] != "online", "trouble with the server")
    assert mounted.end() == DONE
    assert mounted.has_said("1 change could not be sent"), mounted.lines

    server._control("start", "--parent", str(os.getpid()))
    own_place.mount().ready()
    own_place.wait_synced()
    assert (server.root / "Home" / "Documents" / "a.txt").read_bytes() == b"kept"


def test_no_drain_ends_at_once_and_loses_nothing(own_place, server):
    mounted = own_place.mount("--drain", "0").ready()
    documents = own_place.point / "Home" / "Documents"
    for i in range(50):
        (documents / f"{i}.txt").write_bytes(b"x" * 1000)
    assert mounted.end() == DONE
    own_place.mount().ready()
    own_place.wait_synced()
    assert len(list((server.root / "Home" / "Documents").iterdir())) == 50


def test_unmounting_waits_for_changes_to_be_sent(place, folder):
    mounted = place.mount().ready()
    (place.point / "Home" / folder.name / "a.txt").write_bytes(b"x")
    result = place.run("unmount", place.point)
    assert (result.returncode, result.stdout, result.stderr) == (DONE, b"", b"")
    assert (folder / "a.txt").read_bytes() == b"x"
    assert mounted.process.poll() == DONE, "the host outlives the command"


def test_unmounting_tells_what_is_left(own_place, server):
    own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    server._control("stop")
    (documents / "a.txt").write_bytes(b"kept")
    wait_for(lambda: own_place.status()["state"] != "online", "trouble with the server")
    assert own_place.ask("unmount", own_place.point) == {"left": 1}


def open_elsewhere(path):
    """A process that has the file open."""
    process = subprocess.Popen(["/bin/sh", "-c", 'exec 3<"$1"; echo; exec sleep 600', "sh", path],
                               stdout=subprocess.PIPE)
    process.stdout.readline()
    return process


@pytest.fixture
def user(place, folder):
    """A mount, and a process that uses it."""
    (folder / "a.txt").write_bytes(b"x")
    mounted = place.mount().ready()
    process = open_elsewhere(place.point / "Home" / folder.name / "a.txt")
    yield mounted, process
    process.kill()
    process.communicate()


def test_a_mount_in_use_is_not_unmounted_and_the_user_is_named(place, folder, user):
    mounted, process = user
    result = place.run("unmount", place.point)
    assert result.returncode == BUSY
    assert f"sleep ({process.pid}" in result.stderr.decode(), result.stderr
    assert str(mounted.process.pid) not in result.stderr.decode(), "the host itself is no user"
    (place.point / "Home" / folder.name / "b.txt").write_bytes(b"goes on")
    place.wait_synced()
    assert (folder / "b.txt").read_bytes() == b"goes on"
    process.kill()
    process.wait()
    assert place.run("unmount", place.point).returncode == DONE
    assert mounted.wait() == DONE


@pytest.fixture
def hanging(place, folder):
    """A host that has stopped, with a change that it has not sent."""
    mounted = place.mount().ready()
    mount = place.point / "Home" / folder.name
    (mount / "sent.txt").write_bytes(b"1")
    place.wait_synced()
    (mount / "left.txt").write_bytes(b"2")
    mounted.send(signal.SIGSTOP)
    yield mounted
    if mounted.process.poll() is None:
        mounted.send(signal.SIGCONT)


@pytest.mark.parametrize("json_wanted", [False, True])
def test_wait_keeps_its_limit_while_the_host_hangs(place, hanging, json_wanted):
    start = time.monotonic()
    result = place.run(*(["--json"] if json_wanted else []), "wait", "--timeout", "1")
    assert time.monotonic() - start < 30, "far from what a host is given otherwise"
    assert result.returncode == TIMED_OUT
    assert b"did not answer in time" in (result.stdout if json_wanted else result.stderr)


def test_force_takes_the_mount_of_a_host_that_hangs_away(place, folder, hanging):
    start = time.monotonic()
    result = place.run("unmount", "--force", place.point)
    assert time.monotonic() - start < 60
    assert result.returncode == DONE, result.stderr
    assert f"process {hanging.process.pid}" in result.stderr.decode()
    assert not is_mounted(place.point)
    hanging.send(signal.SIGCONT)
    assert hanging.wait() == DONE
    place.mount().ready()
    place.wait_synced()
    assert (folder / "left.txt").read_bytes() == b"2"


def test_force_unmounts_what_is_in_use(place, user):
    mounted, _ = user
    assert place.run("unmount", "--force", place.point).returncode == DONE
    assert mounted.wait() == DONE
    assert not is_mounted(place.point)


def test_after_one_signal_a_mount_in_use_waits_until_it_is_free(place, user):
    mounted, process = user
    mounted.send(signal.SIGTERM)
    mounted.wait_said(f"sleep ({process.pid}")
    assert is_mounted(place.point)
    assert place.status()["state"] == "stopping"
    process.kill()
    process.wait()
    assert mounted.wait() == DONE
    assert not is_mounted(place.point)


def test_after_a_signal_nothing_new_is_begun_and_what_was_begun_is_ended(place, folder):
    mounted = place.mount("--drain", "5").ready()
    mine = place.point / "Home" / folder.name
    with open(mine / "begun.tmp", "wb", buffering=0) as begun:
        begun.write(b"begun ")
        mounted.send(signal.SIGTERM)
        mounted.wait_said("in use by")
        for begin in (lambda: open(mine / "new", "xb"), (mine / "new").mkdir,
                      lambda: open(mine / "begun.tmp", "r+b")):
            with pytest.raises(OSError) as raised:
                begin()
            assert raised.value.errno == errno.EROFS
        begun.write(b"and ended")
        os.rename(mine / "begun.tmp", mine / "begun")
    assert mounted.wait() == DONE
    assert [(path.name, path.read_bytes()) for path in folder.iterdir()] == [
        ("begun", b"begun and ended")]


def test_an_unmount_while_a_signal_waits_for_users_is_told_who_they_are(place, user):
    mounted, process = user
    mounted.send(signal.SIGTERM)
    mounted.wait_said("in use by")
    result = place.run("unmount", place.point)
    assert result.returncode == BUSY
    assert f"sleep ({process.pid}" in result.stderr.decode(), result.stderr
    assert is_mounted(place.point)
    assert place.run("unmount", "--force", place.point).returncode == DONE
    assert mounted.wait() == DONE


def stop_command():
    """What the service manager runs to end the mount."""
    unit = Path(__file__).resolve().parents[2] / "packaging" / "kestrowan.service"
    [line] = [line for line in unit.read_text(encoding="utf-8").splitlines()
              if line.startswith("ExecStop=")]
    words = shlex.split(line.removeprefix("ExecStop=-").replace("$$", "$"))
    return [word.replace("/usr/bin/kestrowan", shlex.quote(driver.executable())) for word in words]


def test_the_service_ends_a_mount_in_use(place, folder, user):
    mounted, _ = user
    (place.point / "Home" / folder.name / "b.txt").write_bytes(b"sent before the end")
    done = subprocess.run(stop_command(), capture_output=True, timeout=60, check=False,
                          env={**os.environ, **place.environment(), "MOUNTPOINT": str(place.point)})
    assert done.returncode == 0, done.stderr
    assert mounted.wait() == DONE
    assert not is_mounted(place.point)
    assert (folder / "b.txt").read_bytes() == b"sent before the end"


def test_a_second_signal_unmounts_at_once(place, user):
    mounted, _ = user
    mounted.send(signal.SIGTERM)
    mounted.wait_said("in use by")
    mounted.send(signal.SIGTERM)
    assert mounted.wait() == DONE
    assert not is_mounted(place.point)


def test_unmounting_by_another_program_ends_the_host(place, folder):
    mounted = place.mount().ready()
    (place.point / "Home" / folder.name / "a.txt").write_bytes(b"x")
    subprocess.run(["fusermount3", "-u", "--", place.point], check=True)
    assert mounted.wait() == DONE
    assert (folder / "a.txt").read_bytes() == b"x", "what was written has been sent"
    assert mounted.has_said("by somebody else")


def test_a_place_that_is_no_mount_is_not_unmounted(place):
    result = place.run("unmount", place.directory)
    assert result.returncode == NOT_MOUNTED
    place.mount().ready()
    result = place.run("unmount", place.point / "Home")
    assert result.returncode == USAGE
    assert is_mounted(place.point)


def test_nothing_of_a_mount_stays_but_its_state(place):
    mounted = place.mount().ready()
    assert mounted.end() == DONE
    assert place.sockets() == []
    assert list((place.state_home / "kestrowan" / ".hosts").iterdir()) == []
    assert place.run("status").returncode == NOT_MOUNTED
