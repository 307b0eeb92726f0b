"""The bridge file and its directory: what appears, changes or is unsafe while a mount runs."""

import json
import os
import shutil
import socket

import pytest

from hosted import DONE, FAILED, NOT_CONFIGURED, TIMED_OUT, wait_for
from real_server import RealServer


def names(folder):
    """The names in a folder; nothing while it cannot be listed."""
    try:
        return sorted(os.listdir(folder))
    except OSError:
        return None


def bring(server, container):
    """Puts a server's bridge file in place as the host application does: by a rename."""
    new = container / "new"
    shutil.copy(server.container / "fp-webdav.json", new)
    os.replace(new, container / "fp-webdav.json")


def test_a_mount_comes_up_without_a_container_and_heals_when_it_appears(make_place, server):
    container = server.directory / "later"
    place = make_place(container)
    place.mount().ready()
    assert names(place.point) in ([], None)
    assert place.status()["state"] != "online"
    container.mkdir(mode=0o700)
    bring(server, container)
    wait_for(lambda: names(place.point) == ["Home"], "tree of the server")
    assert place.status()["state"] == "online"


def test_a_bridge_file_that_appears_later_is_taken_at_once(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    place = make_place(container)
    place.mount().ready()
    assert place.status()["state"] == "held"
    bring(server, container)
    wait_for(lambda: place.status()["state"] == "online", "server")
    assert names(place.point) == ["Home"]


def test_a_new_port_password_and_certificate_heal_the_mount(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    place = make_place(container)
    place.mount().ready()
    documents = place.point / "Home" / "Documents"
    (documents / "a.txt").write_bytes(b"first")
    place.wait_synced()
    before = json.loads((container / "fp-webdav.json").read_text(encoding="utf-8"))

    with RealServer("apache", tmp_path / "second", "--root", str(server.root)) as second:
        server._control("stop")
        (documents / "a.txt").write_bytes(b"second")
        bring(second, container)
        after = json.loads((container / "fp-webdav.json").read_text(encoding="utf-8"))
        for member in ("port", "pass", "certPEM"):
            assert before[member] != after[member]
        place.wait_synced()
        assert (server.root / "Home" / "Documents" / "a.txt").read_bytes() == b"second"


@pytest.mark.parametrize("member, value", [("pass", "wrong"), ("certPEM", None), ("port", None)])
def test_a_wrong_bridge_file_holds_everything_until_a_right_one_comes(
        make_place, server, tmp_path, member, value):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    config = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
    if member == "certPEM":
        with RealServer("apache", tmp_path / "other") as other:
            value = json.loads((other.container / "fp-webdav.json").read_text())["certPEM"]
    elif member == "port":
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            value = closed.getsockname()[1]
    bridge = container / "fp-webdav.json"
    bridge.write_text(json.dumps({**config, member: value}), encoding="utf-8")
    bridge.chmod(0o600)
    place = make_place(container)
    mounted = place.mount().ready()
    wait_for(lambda: names(place.point) is None and place.status()["state"] in ("held", "offline"),
             "trouble")
    bring(server, container)
    wait_for(lambda: place.status()["state"] == "online", "server")
    assert names(place.point) == ["Home"]
    assert config["pass"] not in "\n".join(mounted.lines)


def test_another_program_on_the_port_is_told_of(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    config = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
    with RealServer("apache", tmp_path / "other") as other:
        config["certPEM"] = json.loads((other.container / "fp-webdav.json").read_text())["certPEM"]
    bridge = container / "fp-webdav.json"
    bridge.write_text(json.dumps(config), encoding="utf-8")
    bridge.chmod(0o600)
    place = make_place(container)
    mounted = place.mount().ready()
    words = f"another program answers on port {config['port']}: its certificate is not the one in " \
            "the bridge file"
    wait_for(lambda: place.status()["state"] == "held", "distrust")
    status = place.status()
    assert (status["held"], status["heldReason"]) == (words, "certificate")
    assert words in place.run("status").stdout.decode()
    mounted.wait_said(words)
    assert words in place.run("doctor").stdout.decode()
    result = place.run("ls")
    assert words in result.stderr.decode()
    assert place.ask("ls", code=FAILED)["error"]["reason"] == "certificate"


def test_what_is_wrong_with_the_bridge_file_is_said_and_the_file_named(make_place, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bridge = container / "fp-webdav.json"
    for contents, words in ((None, "check that the host application is running"),
                            ("{}", "is not a JSON object with")):
        if contents is not None:
            bridge.write_text(contents, encoding="utf-8")
            bridge.chmod(0o600)
        place = make_place(container, f"place{contents}")
        mounted = place.mount().ready()
        status = place.status()
        assert status["state"] == "held"
        shown = place.run("status").stdout.decode()
        for text in (status["held"], shown, "\n".join(mounted.lines)):
            assert str(bridge) in text and words in text, text
            assert "authenticate" not in text
            assert "\\n" not in text, "several lines on one"
        assert mounted.end() == DONE


def test_half_a_bridge_file_is_read_again_when_it_is_whole(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    place = make_place(container)
    place.mount().ready()
    text = (server.container / "fp-webdav.json").read_bytes()
    bridge = container / "fp-webdav.json"
    with open(bridge, "wb", buffering=0) as file:
        os.fchmod(file.fileno(), 0o600)
        file.write(text[:len(text) // 2])
        wait_for(lambda: place.status()["state"] == "held", "verdict on half a file")
        file.write(text[len(text) // 2:])
    wait_for(lambda: place.status()["state"] == "online", "server")


def test_a_container_that_others_may_write_in_is_treated_as_none(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    container.chmod(0o777)
    place = make_place(container)
    mounted = place.mount().ready()
    status = place.status()
    assert status["state"] == "held"
    assert any("chmod go-w" in warning for warning in status["warnings"])
    assert mounted.has_said("chmod go-w")
    container.chmod(0o700)
    wait_for(lambda: place.status()["state"] == "online", "server")
    assert place.status()["warnings"] == []


def listen():
    """A port on which a stranger listens, without waiting for connections."""
    stranger = socket.socket()
    stranger.bind(("127.0.0.1", 0))
    stranger.listen()
    stranger.setblocking(False)
    return stranger


def bridge_file(container, **members):
    """Rewrites the bridge file in place, as a user who may only write can do it."""
    path = container / "fp-webdav.json"
    config = json.loads(path.read_text(encoding="utf-8"))
    path.write_text(json.dumps({**config, **members}), encoding="utf-8")
    return path


def assert_held_and_said(place, mounted, path):
    """The mount is held, and status, log and doctor name the part at fault and say what to do."""
    wait_for(lambda: place.status()["state"] == "held", "hold")
    status = place.status()
    doctor = place.ask("doctor", code=NOT_CONFIGURED)
    problems = " ".join(finding["text"] for finding in doctor["findings"]
                        if finding["verdict"] == "problem")
    mounted.wait_said(f"{path}: others may write")
    for text in (status["held"], " ".join(status["warnings"]), problems,
                 place.run("status").stdout.decode(), "\n".join(mounted.lines)):
        assert f"{path}: others may write" in text, text
        assert f"chmod go-w '{path}'" in text, text


@pytest.mark.parametrize("mode", [0o620, 0o602])
def test_a_bridge_file_that_others_may_write_is_not_used(make_place, server, tmp_path, mode):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    with listen() as stranger:
        path = bridge_file(container, port=stranger.getsockname()[1])
        path.chmod(mode)
        place = make_place(container)
        mounted = place.mount().ready()
        assert_held_and_said(place, mounted, path)
        with pytest.raises(BlockingIOError):
            stranger.accept()
    bring(server, container)
    wait_for(lambda: place.status()["state"] == "online", "server")


def test_a_mount_does_not_follow_a_bridge_file_that_another_user_rewrote(
        make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    place = make_place(container)
    mounted = place.mount().ready()
    documents = place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    with listen() as stranger:
        path = container / "fp-webdav.json"
        path.chmod(0o666)
        bridge_file(container, port=stranger.getsockname()[1])
        assert_held_and_said(place, mounted, path)
        (documents / "secret.txt").write_bytes(b"not for strangers")
        # As soon as it may be used again it is, so that nothing was on its way meanwhile.
        bring(server, container)
        place.wait_synced()
        with pytest.raises(BlockingIOError):
            stranger.accept()
    assert (server.root / "Home" / "Documents" / "secret.txt").read_bytes() == b"not for strangers"


def test_a_held_mount_sends_nothing_to_the_server_it_knew(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    place = make_place(container)
    mounted = place.mount().ready()
    documents = place.point / "Home" / "Documents"
    assert os.listdir(documents) == []
    path = container / "fp-webdav.json"
    path.chmod(0o666)
    assert_held_and_said(place, mounted, path)
    (documents / "a.txt").write_bytes(b"kept here")
    assert place.run("retry").returncode == DONE
    waited = place.ask("wait", "--timeout", "1", code=TIMED_OUT)
    assert waited["synced"] is False
    assert os.listdir(server.root / "Home" / "Documents") == []
    path.chmod(0o600)
    place.wait_synced()
    assert (server.root / "Home" / "Documents" / "a.txt").read_bytes() == b"kept here"


def test_a_folder_above_the_container_that_others_may_write_in_holds_the_mount(
        make_place, server, tmp_path):
    above = tmp_path / "above"
    container = above / "container"
    container.mkdir(mode=0o700, parents=True)
    bring(server, container)
    place = make_place(container)
    mounted = place.mount().ready()
    assert place.status()["state"] == "online"
    above.chmod(0o777)
    assert_held_and_said(place, mounted, above)
    above.chmod(0o1777)
    wait_for(lambda: place.status()["state"] == "online", "server")


def test_a_bridge_file_that_others_may_read_is_used_and_warned_of(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    bring(server, container)
    (container / "fp-webdav.json").chmod(0o644)
    place = make_place(container)
    mounted = place.mount().ready()
    status = place.status()
    assert status["state"] == "online"
    assert any("chmod 600" in warning for warning in status["warnings"])
    assert mounted.has_said("chmod 600")


def test_a_bridge_file_that_is_a_link_is_not_used(make_place, server, tmp_path):
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    (container / "fp-webdav.json").symlink_to(server.container / "fp-webdav.json")
    place = make_place(container)
    place.mount().ready()
    status = place.status()
    assert status["state"] == "held"
    assert any("symbolic link" in warning for warning in status["warnings"])


def test_secrets_are_in_no_output_and_no_file_of_the_host(own_place, server):
    config = json.loads((server.container / "fp-webdav.json").read_text(encoding="utf-8"))
    mounted = own_place.mount(env={"SSLKEYLOGFILE": str(own_place.directory / "keys")}).ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "a.txt").write_bytes(b"x")
    own_place.wait_synced()
    server._control("stop")
    (documents / "b.txt").write_bytes(b"x")
    shown = own_place.run("--json", "status").stdout + own_place.run("status").stdout
    with open(f"/proc/{mounted.process.pid}/cmdline", "rb") as command:
        shown += command.read()
    with open(f"/proc/{mounted.process.pid}/environ", "rb") as environment:
        shown += environment.read()
    assert mounted.end() == DONE
    shown += "\n".join(mounted.lines).encode()
    for path in own_place.state_home.rglob("*"):
        if path.is_file():
            shown += path.read_bytes()
    assert config["pass"].encode() not in shown
    assert not (own_place.directory / "keys").exists()


def test_the_extensions_log_is_shown_when_asked_for(make_place, tmp_path):
    place = make_place(tmp_path / "missing")
    quiet = place.mount().ready()
    assert not quiet.has_said("no WebDAV config")
    assert quiet.end() == DONE
    loud = place.mount("--verbose").ready()
    assert loud.has_said("kestrowan: extension: no WebDAV config in app group")
