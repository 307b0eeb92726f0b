"""A domain's state belongs to one storage: two servers, and commands that name the wrong one."""

import hashlib
import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

import driver
from hosted import BUSY, DONE, OTHER_STORAGE, USAGE, is_mounted, own_domain, wait_for
from real_server import RealServer

GROUP = "K9PLW2XT4R.group.com.kestrowan.app"


def fill(server, text):
    documents = server.root / "Home" / "Documents"
    documents.mkdir(parents=True, exist_ok=True)
    for name in ("kept", "renamed", "removed", "changed"):
        (documents / name).write_text(text)


@pytest.fixture(name="server")
def _server(server):
    fill(server, "the first's")
    return server


@pytest.fixture(name="second")
def _second(tmp_path, server):
    """Another storage than `server`, with other things of the same names."""
    with RealServer("apache", tmp_path / "second") as running:
        fill(running, "the second's")
        yield running


def requests(server):
    log = server.directory / "requests.log"
    return log.read_text(errors="replace").splitlines() if log.exists() else []


def texts(folder):
    return {path.name: path.read_text() for path in folder.iterdir()}


AT_SECOND = {name: "the second's" for name in ("kept", "renamed", "removed", "changed")}
CHANGED = {"kept": "the first's", "other name": "the first's", "changed": "written away",
           "new": "made away"}


def work_away(place, server, *options):
    """Mounts, and leaves changes behind that the server has not got."""
    mounted = place.mount("--drain", "0", *options).ready()
    documents = place.point / "Home" / "Documents"
    assert len(texts(documents)) == 4
    server.stop()
    os.rename(documents / "renamed", documents / "other name")
    os.remove(documents / "removed")
    (documents / "changed").write_text("written away")
    (documents / "new").write_text("made away")
    return mounted


def leave_changes(place, server, *options):
    assert work_away(place, server, *options).end() == DONE
    server.start()


def fingerprint(directory):
    """Everything in a state but for the lock, which says which process had it last."""
    return {path.relative_to(directory): path.is_file() and hashlib.sha256(path.read_bytes()).digest()
            for path in directory.rglob("*") if path.name not in ("lock", "log")}


def refusal(place, *arguments, **options):
    result = place.run("mount", *arguments, place.point, **options)
    assert result.returncode == OTHER_STORAGE, (result.returncode, result.stderr)
    assert not is_mounted(place.point)
    return result.stderr.decode()


def commands_in(text):
    """What a text advises to run, each as it stands on its line."""
    return re.findall(r"kestrowan (?:--container|mount|unmount|status|doctor).*", text)


def paste(place, command, env=None, cwd="/"):
    """Runs a command as it was printed, in a shell whose `kestrowan` is the program under test."""
    programs = place.directory / "programs"
    programs.mkdir(exist_ok=True)
    if not (programs / "kestrowan").exists():
        (programs / "kestrowan").symlink_to(driver.executable())
    return subprocess.run(
        ["bash", "-c", command], cwd=cwd, capture_output=True, timeout=120, check=False,
        env=driver.environment(place.container, {**place.environment(), **(env or {}), "PATH":
                                                 f"{programs}:{os.environ['PATH']}"}))


# ---- two storages --------------------------------------------------------------------------------


def test_a_domain_is_refused_to_another_container_and_nothing_is_touched(own_place, server, second):
    leave_changes(own_place, server, "--domain", "work")
    state = own_place.state_home / "kestrowan" / "work"
    before, asked = fingerprint(state), (requests(server), requests(second))
    other = own_place.with_container(second.container)

    said = refusal(other, "--domain", "work")
    assert f"made for:  {server.container}" in said
    assert f"asked for: {second.container}" in said
    assert "4 changes not sent yet" in said
    for path in ("other name", "removed", "changed", "new"):
        assert f"/Home/Documents/{path}\n" in said
    assert fingerprint(state) == before
    assert (requests(server), requests(second)) == asked
    assert texts(second.root / "Home" / "Documents") == AT_SECOND
    [error] = [json.loads(line)["error"] for line in other.run(
        "--json", "mount", "--domain", "work", other.point).stdout.decode().splitlines()]
    assert (error["domain"], error["code"]) == ("kestrowan", OTHER_STORAGE)

    own_place.mount("--domain", "work").ready()
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert texts(second.root / "Home" / "Documents") == AT_SECOND
    assert requests(second) == asked[1]


def test_without_a_domain_two_storages_share_nothing(own_place, server, second):
    leave_changes(own_place, server)
    other = own_place.with_container(second.container)
    mounted = other.mount().ready()
    documents = other.point / "Home" / "Documents"
    assert texts(documents) == AT_SECOND
    status = other.status()
    assert status["pending"]["count"] == 0
    assert status["domain"] == own_domain(second.container) != own_domain(server.container)
    assert mounted.end() == DONE
    assert all(line.split()[0] in ("PROPFIND", "GET", "OPTIONS", "HEAD") for line in requests(second))

    own_place.mount().ready()
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert texts(second.root / "Home" / "Documents") == AT_SECOND


def test_a_mount_with_state_elsewhere_is_bound_by_the_same_rule(own_place, server, second):
    state = own_place.directory / "elsewhere"
    leave_changes(own_place, server, "--state", state)
    other = own_place.with_container(second.container)
    said = refusal(other, "--state", state)
    assert "4 changes not sent yet" in said
    refusal(other, "--state", state, "--domain", "another-name")
    asked = requests(second)
    # The name is only what the state is called.
    own_place.mount("--state", state, "--domain", "another-name").ready()
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert requests(second) == asked


def test_one_domain_may_have_a_state_for_each_storage(own_place, server, second):
    """Where it is said where each lies."""
    own_place.mount("--domain", "work", "--state", own_place.directory / "one").ready()
    other = own_place.with_container(second.container)
    point = other.directory / "other"
    other.mount("--domain", "work", "--state", other.directory / "two", point=point).ready()
    assert texts(point / "Home" / "Documents") == AT_SECOND
    assert texts(own_place.point / "Home" / "Documents")["kept"] == "the first's"


def test_a_state_in_use_is_refused_to_another_container_as_well(own_place, second):
    own_place.mount("--domain", "work").ready()
    other = own_place.with_container(second.container)
    result = other.run("mount", "--domain", "work", other.directory / "other")
    assert result.returncode == OTHER_STORAGE, result.stderr
    assert b"in use by another host" in result.stderr
    assert not (other.directory / "other").exists()
    assert own_place.run("mount", "--domain", "work", other.directory / "other").returncode == BUSY


def test_a_container_is_the_same_by_whatever_path(own_place, server):
    leave_changes(own_place, server)
    link = own_place.directory / "link"
    link.symlink_to(server.container)
    for container, options in ((link, {}), (f"{server.container}/", {}),
                               (f"../{server.container.name}/.", {"cwd": server.container})):
        result = own_place.with_container("nowhere").run(
            "--container", container, "mount", "--background", own_place.point, **options)
        assert result.returncode == DONE, result.stderr
        status = own_place.status()
        assert status["domain"] == own_place.domain
        assert status["container"] == str(server.container)
        own_place.wait_synced()
        assert own_place.run("unmount", own_place.point).returncode == DONE
    assert texts(server.root / "Home" / "Documents") == CHANGED


def test_a_link_that_leads_elsewhere_takes_no_running_mount_along(own_place, server, second):
    """The container's own directory gives way to a link to another storage's."""
    container = own_place.directory / "container"
    shutil.copytree(server.container, container)
    place = own_place.with_container(container)
    work_away(place, server)
    shutil.rmtree(container)
    container.symlink_to(second.container)
    asked = requests(second)
    wait_for(lambda: "leads to another directory" in (place.status()["held"] or ""), "refusal")
    assert place.status()["pending"]["count"] == 4
    assert requests(second) == asked
    assert texts(second.root / "Home" / "Documents") == AT_SECOND


def test_status_and_doctor_say_which_container_a_mount_is_for(own_place, server):
    own_place.mount().ready()
    assert f"Container: {server.container}\n" in own_place.run("status").stdout.decode()
    assert own_place.status()["container"] == str(server.container)
    [mount] = [finding["text"] for finding in own_place.ask("doctor")["findings"]
               if finding["subject"] == "mount"]
    assert str(server.container) in mount and own_place.domain in mount


# ---- a storage that has moved --------------------------------------------------------------------


def test_what_waits_follows_a_storage_that_moved(own_place, server):
    leave_changes(own_place, server, "--domain", "work")
    container = own_place.directory / "its new place"
    shutil.move(server.container, container)
    place = own_place.with_container(container)
    said = refusal(place, "--background", "--domain", "work")
    move = [command for command in commands_in(said) if "--move-here" in command]
    assert len(move) == 1

    result = paste(place, move[0])
    assert result.returncode == DONE, result.stderr
    assert b"4 changes not sent yet" in result.stderr
    place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert place.run("unmount", place.point).returncode == DONE
    # From then on it is the container's, and no longer the former one's.
    place.mount().ready()
    assert place.status()["domain"] == "work"
    server.container = container


def test_a_move_must_name_a_state_that_there_is(own_place, server, second):
    leave_changes(own_place, server, "--domain", "work")
    other = own_place.with_container(second.container)
    for options in (["--move-here"], ["--move-here", "--domain", "nothing"],
                    ["--move-here", "--state", other.directory / "nothing"]):
        said = refusal(other, *options)
        assert f"work, made for {server.container}" in said
    assert sorted(path.name for path in (other.state_home / "kestrowan").iterdir()
                  if not path.name.startswith(".")) == ["work"]
    assert not (other.directory / "nothing").exists()


# ---- states of earlier versions ------------------------------------------------------------------


def as_of_an_earlier_version(state):
    """Earlier versions noted no container, and called every domain "default"."""
    (state / "container").unlink()
    state.rename(state.parent / "default")


def standard(place, container):
    """The environment in which `container` is the standard one."""
    home = place.directory / "data"
    home.mkdir(exist_ok=True)
    if not (home / GROUP).is_symlink():
        (home / GROUP).symlink_to(container)
    return {"XDG_DATA_HOME": str(home)}


def test_the_standard_container_goes_on_with_the_state_of_an_earlier_version(own_place, server):
    leave_changes(own_place, server)
    as_of_an_earlier_version(own_place.state)
    place = own_place.with_container(None)
    place.mount(env=standard(place, server.container)).ready()
    place.wait_synced()
    assert place.status()["domain"] == "default"
    assert place.status()["container"] == str(server.container)
    assert texts(server.root / "Home" / "Documents") == CHANGED


def test_another_container_asks_before_it_forgets_what_an_earlier_version_left(
        own_place, server, second):
    leave_changes(own_place, server)
    as_of_an_earlier_version(own_place.state)
    old = own_place.state_home / "kestrowan" / "default"
    before, asked = fingerprint(old), (requests(server), requests(second))
    other = own_place.with_container(second.container)

    said = refusal(other, "--background")
    assert "4 changes not sent yet" in said and str(old) in said
    assert fingerprint(old) == before
    anew, adopt = commands_in(said)
    assert "--domain default" in adopt and "--move-here" in adopt
    assert not other.state.exists()
    assert (requests(server), requests(second)) == asked

    # One way on: a state of its own, after which nothing is asked any more.
    result = paste(other, anew)
    assert result.returncode == DONE, result.stderr
    assert other.status()["pending"]["count"] == 0
    assert texts(other.point / "Home" / "Documents") == AT_SECOND
    assert other.run("unmount", other.point).returncode == DONE
    assert other.mount().ready().end() == DONE
    # The other way on, for the storage that it was made for.
    [adopt] = [command for command in commands_in(refusal(own_place, "--background"))
               if "--move-here" in command]
    result = paste(own_place, adopt)
    assert result.returncode == DONE, result.stderr
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert texts(second.root / "Home" / "Documents") == AT_SECOND
    assert own_place.run("unmount", own_place.point).returncode == DONE
    own_place.mount().ready()
    assert own_place.status()["domain"] == "default"


def test_nothing_is_asked_about_an_earlier_versions_state_with_nothing_in_it(
        own_place, server, second):
    mounted = own_place.mount().ready()
    own_place.wait_synced()
    assert mounted.end() == DONE
    as_of_an_earlier_version(own_place.state)
    other = own_place.with_container(second.container)
    other.mount().ready()
    assert other.status()["domain"] == own_domain(second.container)


def test_a_named_domain_of_an_earlier_version_asks(own_place, server):
    leave_changes(own_place, server, "--domain", "work")
    state = own_place.state_home / "kestrowan" / "work"
    for damage in (lambda note: note.unlink(), lambda note: note.write_bytes(b'{"conta')):
        damage(state / "container")
        said = refusal(own_place, "--domain", "work", "--background")
        assert "does not say which container" in said and "4 changes not sent yet" in said
    [adopt] = [command for command in commands_in(said) if "--move-here" in command]
    assert paste(own_place, adopt).returncode == DONE
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED


# ---- advice --------------------------------------------------------------------------------------


@pytest.mark.parametrize("options", [[], ["--domain", "work"], ["--state", "it's here"]])
def test_what_is_advised_after_a_crash_mounts_the_right_storage(own_place, server, second, options):
    options = [own_place.directory / option if option == "it's here" else option
               for option in options]
    own_place.point = own_place.directory / "it's a \"mount\""
    mounted = work_away(own_place, server, "--background", *options)
    # The half in the foreground ends, the host goes on.
    assert mounted.wait() == DONE
    host = own_place.status()["process"]
    os.kill(host, 9)
    wait_for(lambda: not Path(f"/proc/{host}").exists(), "end of the host")
    server.start()

    other = own_place.with_container(second.container)
    asked = requests(second)
    [command] = commands_in(other.run("status").stderr.decode())
    result = paste(other, command)
    assert result.returncode == DONE, (command, result.stderr)
    own_place.wait_synced()
    assert own_place.status()["container"] == str(server.container)
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert texts(second.root / "Home" / "Documents") == AT_SECOND
    assert requests(second) == asked
    assert own_place.run("unmount", own_place.point).returncode == DONE


def test_advice_has_the_options_of_the_mount(own_place):
    options = ["--cache-limit=20000000", "--streaming=off", "--fsync=server", "--close=wait", "--moves=refuse",
               "--events=off", "--no-local-names", "--noexec", "--no-index", "--drain=3"]
    own_place.mount(*options).ready().kill()
    [command] = commands_in(own_place.run("status").stderr.decode())
    assert command == (f"kestrowan --container '{own_place.container}' mount --domain "
                       f"{own_place.domain} {' '.join(options)} '{own_place.point}'")


def test_what_unmount_advises_sends_the_rest_to_the_right_storage(own_place, server, second):
    work_away(own_place, server, "--background")
    wait_for(lambda: own_place.mounts[-1].process.poll() == DONE, "end of the foreground")
    result = own_place.run("unmount", own_place.point)
    assert result.returncode == DONE
    [command] = commands_in(result.stderr.decode())
    server.start()
    assert paste(own_place.with_container(second.container), command).returncode == DONE
    own_place.wait_synced()
    assert texts(server.root / "Home" / "Documents") == CHANGED
    assert texts(second.root / "Home" / "Documents") == AT_SECOND


def test_a_mount_is_not_taken_for_one_that_died_there_before(own_place, second):
    own_place.mount("--domain", "first").ready().kill()
    other = own_place.with_container(second.container)
    mounted = other.mount("--domain", "second").ready()
    (other.point / "Home" / "Documents" / "new").write_text("x")
    result = other.run("unmount", other.point)
    assert (result.returncode, result.stderr) == (DONE, b"")
    assert mounted.wait() == DONE
    assert (second.root / "Home" / "Documents" / "new").read_text() == "x"

    own_place.mount("--domain", "first").ready().kill()
    other.mount("--domain", "second").ready().kill()
    [command] = commands_in(other.run("status").stderr.decode())
    assert f"--container '{second.container}' mount --domain second" in command


def test_a_domain_that_is_no_name_is_wrong_usage_with_every_container(own_place):
    for options in (["--domain", "../x"], ["--domain", ""], ["--move-here", "--domain", "a/b"]):
        assert own_place.run("mount", *options, own_place.point).returncode == USAGE
