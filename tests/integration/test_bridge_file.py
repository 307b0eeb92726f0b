"""The bridge file: what is read, what is refused, and how the commands say it."""

import json
import os
import resource
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

from conftest import write_bridge
from driver import FILE_PROVIDER, ROOT, Drive, environment, error_of, executable, run, start
from multistatus import multistatus

UNCONFIGURED = "no WebDAV config in app group — host serve not up?"
NOT_CONFIGURED = 3
GOOD = {"port": 1, "user": "u", "pass": "p", "certPEM": "QUJD"}


def without(name):
    return {key: value for key, value in GOOD.items() if key != name}


BAD_TEXTS = {
    "empty": b"", "blank": b" \n\t", "cut": b'{"port": 1, "user": "u"', "array": b"[]",
    "null": b"null", "number": b"8443", "text": b'"port"', "no object inside": b'[{"port":1}]',
    "garbage": os.urandom(1000).replace(b"{", b"."), "two values": json.dumps(GOOD).encode() * 2,
    "single quotes": json.dumps(GOOD).replace('"', "'").encode(),
    "invalid UTF-8": json.dumps(GOOD).encode().replace(b'"u"', b'"\xff"'),
    "NUL": json.dumps(GOOD).encode() + b"\0",
    "deep": b'{"x":' + b"[" * 100000,
    "port text": json.dumps(dict(GOOD, port="1")).encode(),
    "port fraction": json.dumps(dict(GOOD, port=8443.5)).encode(),
    "port true": json.dumps(dict(GOOD, port=True)).encode(),
    "port null": json.dumps(dict(GOOD, port=None)).encode(),
    "port too large": json.dumps(dict(GOOD, port=2 ** 63)).encode(),
    "port list": json.dumps(dict(GOOD, port=[1])).encode(),
    "user number": json.dumps(dict(GOOD, user=1)).encode(),
    "pass null": json.dumps(dict(GOOD, **{"pass": None})).encode(),
    "certPEM object": json.dumps(dict(GOOD, certPEM={})).encode(),
    **{f"no {name}": json.dumps(without(name)).encode() for name in GOOD},
    "other case": json.dumps({key.upper(): value for key, value in GOOD.items()}).encode(),
}


def assert_unconfigured(container, env=None):
    with Drive(container, env=env) as drive:
        assert error_of(drive.call("enumerateItems", identifier=ROOT)) == (FILE_PROVIDER, -1000)
        assert drive.finish() == 0
        assert drive.log_lines(1) == [UNCONFIGURED]
        assert len(drive.lines) == 1


@pytest.mark.parametrize("name", BAD_TEXTS)
def test_a_file_of_the_wrong_form_is_no_configuration(unconfigured, name):
    (unconfigured / "fp-webdav.json").write_bytes(BAD_TEXTS[name])
    assert_unconfigured(unconfigured)
    result = run("ls", "/", container=unconfigured)
    assert result.returncode == NOT_CONFIGURED
    assert result.stdout == b""
    assert str(unconfigured / "fp-webdav.json").encode() in result.stderr


def test_a_missing_file_is_no_configuration(unconfigured):
    assert_unconfigured(unconfigured)
    for command in (["ls"], ["stat", "/a"], ["get", "/a", "-"], ["put", __file__, "/a"],
                    ["mkdir", "/a"], ["mv", "/a", "/b"], ["rm", "/a"], ["doctor"]):
        result = run(*command, container=unconfigured)
        assert result.returncode == NOT_CONFIGURED, command
    assert os.listdir(unconfigured) == []


def test_a_missing_container_is_not_made(tmp_path):
    container = tmp_path / "missing"
    assert_unconfigured(container)
    assert run("ls", container=container).returncode == NOT_CONFIGURED
    assert not container.exists()


def test_a_container_that_is_a_file_is_no_configuration(tmp_path):
    container = tmp_path / "file"
    container.write_text("{}")
    assert_unconfigured(container)


def test_a_directory_in_the_files_place_is_no_configuration(unconfigured):
    (unconfigured / "fp-webdav.json").mkdir()
    assert_unconfigured(unconfigured)
    assert run("ls", container=unconfigured).returncode == NOT_CONFIGURED


def test_a_pipe_in_the_files_place_does_not_hang(unconfigured):
    os.mkfifo(unconfigured / "fp-webdav.json")
    assert_unconfigured(unconfigured)
    assert run("ls", container=unconfigured).returncode == NOT_CONFIGURED
    assert run("doctor", container=unconfigured).returncode == NOT_CONFIGURED


def test_a_device_in_the_files_place_does_not_fill_the_memory(unconfigured):
    (unconfigured / "fp-webdav.json").symlink_to("/dev/zero")
    assert_unconfigured(unconfigured)


def test_a_link_to_nowhere_or_to_itself_is_no_configuration(unconfigured):
    bridge = unconfigured / "fp-webdav.json"
    bridge.symlink_to("fp-webdav.json")
    assert_unconfigured(unconfigured)
    bridge.unlink()
    bridge.symlink_to("/nowhere")
    assert_unconfigured(unconfigured)


def test_a_file_above_a_mebibyte_is_no_configuration(unconfigured):
    text = json.dumps(GOOD) + " " * (1 << 20)
    (unconfigured / "fp-webdav.json").write_text(text)
    assert_unconfigured(unconfigured)
    assert run("ls", container=unconfigured).returncode == NOT_CONFIGURED


def test_an_unreadable_file_is_no_configuration():
    with tempfile.TemporaryDirectory() as directory:
        container = Path(directory)
        container.chmod(0o755)
        bridge = container / "fp-webdav.json"
        bridge.write_text(json.dumps(GOOD))
        bridge.chmod(0)
        if os.geteuid() != 0:
            assert_unconfigured(container)
            return
        # Root reads everything: an ordinary user is put on, with a copy that it can reach.
        os.chown(container, 65534, 65534)
        os.chown(bridge, 65534, 65534)
        program = container / "kestrowan"
        shutil.copy(executable(), program)
        program.chmod(0o755)
        result = subprocess.run([program, "ls"], env=environment(container), cwd="/", user=65534,
                                group=65534, extra_groups=[], capture_output=True, timeout=120,
                                check=False)
        assert result.returncode == NOT_CONFIGURED
        assert b"fp-webdav.json" in result.stderr


# ---- whose it is ---------------------------------------------------------------------------------


def assert_refused(scene, path, reason):
    """No command uses the bridge file, and each says which place is at fault, and why."""
    scene.script(multistatus())
    with scene.drive() as drive:
        assert error_of(drive.call("enumerateItems", identifier=ROOT)) == (FILE_PROVIDER, -1000)
        assert drive.log_lines(1) == [UNCONFIGURED]
    for command in (["ls"], ["stat", "/a"], ["put", __file__, "/a"], ["rm", "/a"]):
        result = scene.run(*command)
        assert result.returncode == NOT_CONFIGURED, (command, result)
        assert f"{path}: " in result.stderr.decode() and reason in result.stderr.decode()
    result = scene.run("--json", "doctor")
    assert result.returncode == NOT_CONFIGURED
    problems = [finding["text"] for finding in json.loads(result.stdout)["findings"]
                if finding["verdict"] == "problem"]
    assert len(problems) == 1 and f"{path}: " in problems[0] and reason in problems[0]
    assert scene.asked() == []


@pytest.mark.parametrize("mode", [0o720, 0o702, 0o777])
def test_a_container_that_others_may_write_in_counts_as_none(scene, mode):
    scene.container.chmod(mode)
    assert_refused(scene, scene.container, "chmod go-w")


@pytest.mark.parametrize("mode", [0o620, 0o602, 0o666])
def test_a_bridge_file_that_others_may_write_is_not_read(scene, mode):
    bridge = scene.container / "fp-webdav.json"
    bridge.chmod(mode)
    assert_refused(scene, bridge, f"chmod go-w '{bridge}'")


def test_a_container_below_a_folder_that_others_may_write_in_counts_as_none(scene):
    scene.directory.chmod(0o770)
    assert_refused(scene, scene.directory, f"chmod go-w '{scene.directory}'")
    # As in /tmp: nobody can put anything in the container's place.
    scene.directory.chmod(0o1777)
    assert scene.run("ls").returncode == 0


def test_a_container_behind_another_users_link_counts_as_none(scene):
    if os.geteuid() != 0:
        pytest.skip("only root can give a link away")
    scene.script(multistatus())
    link = scene.directory / "link"
    link.symlink_to(scene.container)
    scene.directory.chmod(0o1777)
    assert run("ls", container=link).returncode == 0
    os.lchown(link, 65534, 65534)
    result = run("ls", container=link)
    assert result.returncode == NOT_CONFIGURED
    assert f"{link}: belongs to another user" in result.stderr.decode()


def test_a_bridge_file_that_is_a_link_is_not_read(scene):
    bridge = scene.container / "fp-webdav.json"
    bridge.rename(scene.directory / "real")
    bridge.symlink_to(scene.directory / "real")
    assert_refused(scene, bridge, "symbolic link")


@pytest.mark.parametrize("given", ["container", "file"])
def test_what_belongs_to_another_user_is_not_used(scene, given):
    if os.geteuid() != 0:
        pytest.skip("only root can give a file away")
    path = scene.container if given == "container" else scene.container / "fp-webdav.json"
    os.chown(path, 65534, 65534)
    assert_refused(scene, path, "belongs to another user")


@pytest.mark.parametrize("arguments", [["drive"], ["ls"], ["doctor"]])
def test_the_password_stays_in_the_memory_of_every_command(scene, arguments):
    scene.script(dict(multistatus(), holdFor="more"))
    before = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (before[1], before[1]))
    try:
        process = start(*arguments, container=scene.container, env=scene.environment(),
                        stdin=subprocess.PIPE)
    finally:
        resource.setrlimit(resource.RLIMIT_CORE, before)
    if arguments == ["drive"]:
        process.stdin.write(b'{"id":1,"request":"enumerateItems","identifier":"/Home"}\n')
        process.stdin.flush()
    scene.server.waitForRequests(1)
    with open(f"/proc/{process.pid}/limits", encoding="ascii") as limits:
        [line] = [line for line in limits if line.startswith("Max core file size")]
    assert line.split()[4:6] == ["0", "0"]
    # What nobody may attach to belongs to root.
    assert os.stat(f"/proc/{process.pid}/mem").st_uid == 0
    scene.server.release("more")
    process.communicate(timeout=120)
    assert process.returncode == 0


@pytest.mark.parametrize("change", [
    lambda text: text, lambda text: "\ufeff" + text,
    lambda text: text.replace("{", '{"other": [1, {"port": "x"}], ', 1),
    lambda text: text.replace("{", "{\r\n\t ", 1)])
def test_members_in_any_order_and_others_besides_are_read(scene, change):
    bridge = scene.container / "fp-webdav.json"
    values = json.loads(bridge.read_text(encoding="utf-8"))
    for members in (values, dict(reversed(values.items()))):
        bridge.write_text(change(json.dumps(members)), encoding="utf-8")
        scene.script(multistatus())
        with scene.drive() as drive:
            assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


@pytest.mark.parametrize("form", ["{}.0", "{}e0", "{}0e-1", "{}.000"])
def test_a_whole_number_in_any_form_is_a_port(scene, form):
    bridge = scene.container / "fp-webdav.json"
    port = str(scene.server.port)
    text = bridge.read_text(encoding="utf-8")
    bridge.write_text(text.replace(f'"port": {port}', f'"port": {form.format(port)}'),
                      encoding="utf-8")
    scene.script(multistatus())
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


# ---- where the container is ----------------------------------------------------------------------


def test_the_option_comes_before_the_variable(scene, tmp_path):
    scene.script(multistatus())
    wrong = tmp_path / "wrong"
    wrong.mkdir()
    result = run("--container", scene.container, "ls", container=wrong)
    assert result.returncode == 0
    result = run("--container", wrong, "ls", container=scene.container)
    assert result.returncode == NOT_CONFIGURED


@pytest.mark.parametrize("variables, place", [
    ({"XDG_DATA_HOME": "{}/data"}, "data"), ({"HOME": "{}"}, ".local/share")])
def test_the_usual_places_are_looked_at(scene, tmp_path, variables, place):
    base = tmp_path / "base"
    usual = base / place / "K9PLW2XT4R.group.com.kestrowan.app"
    usual.parent.mkdir(parents=True)
    write_bridge(usual, scene.server.port, scene.server.certPEM)
    scene.script(multistatus())
    result = run("ls", env={name: value.format(base) for name, value in variables.items()})
    assert (result.returncode, result.stderr) == (0, b"")
    assert len(scene.asked()) == 1


def test_without_any_place_nothing_is_configured(tmp_path):
    result = run("ls", env={"HOME": str(tmp_path)})
    assert result.returncode == NOT_CONFIGURED
    assert os.listdir(tmp_path) == []


def test_doctor_says_what_is_wrong(scene):
    scene.script(multistatus())
    result = run("doctor", container=scene.container)
    assert result.returncode == 0, result
    (scene.container / "fp-webdav.json").chmod(0o644)
    result = run("doctor", container=scene.container)
    assert result.returncode == 0
    assert b"chmod 600" in result.stdout
    (scene.container / "fp-webdav.json").write_text("{}")
    result = run("doctor", container=scene.container)
    assert result.returncode == NOT_CONFIGURED
    assert str(scene.container).encode() in result.stdout


def test_doctor_reports_in_json(scene):
    scene.script(multistatus(), certificate="other")
    result = run("--json", "doctor", container=scene.container)
    assert result.returncode == 1
    report = json.loads(result.stdout)
    assert report["healthy"] is False
    problems = {finding["subject"] for finding in report["findings"]
                if finding["verdict"] == "problem"}
    assert problems == {"server"}


def test_no_secret_is_ever_shown(scene):
    from conftest import AUTHORIZATION, PASSWORD
    import base64
    secrets = [PASSWORD.encode(), AUTHORIZATION.split()[1].encode(),
               base64.b64encode(PASSWORD.encode())]
    scene.script({"status": 500})
    for command in (["doctor"], ["ls"], ["--verbose", "ls"], ["--json", "stat", "/a"],
                    ["--help"], ["--version"]):
        result = run(*command, container=scene.container, stderr=subprocess.STDOUT)
        for secret in secrets:
            assert secret not in result.stdout
