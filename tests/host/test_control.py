"""The control socket, as other programs see it."""

import json
import os
import socket
import subprocess
import sys

import pytest

from hosted import DONE, FAILED, MOUNT_FAILED, is_mounted, mode

PATIENCE = 60


class Client:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        # An address is short, whatever the path is.
        folder = os.open(path.parent, os.O_PATH)
        self.socket.connect(f"/proc/self/fd/{folder}/{path.name}")
        os.close(folder)

    def ask(self, data):
        try:
            self.socket.sendall(data)
        except OSError:
            pass
        answer = b""
        try:
            while piece := self.socket.recv(65536):
                answer += piece
        except ConnectionResetError:
            pass
        self.socket.close()
        return answer


def ask(path, request):
    return json.loads(Client(path).ask(json.dumps(request).encode() + b"\n"))


@pytest.fixture
def control(place):
    place.mount().ready()
    [path] = place.sockets()
    return path


def test_a_request_is_a_line_and_so_is_its_answer(place, control):
    answer = Client(control).ask(b'{"request":"status"}\n')
    assert answer.endswith(b"\n") and answer.count(b"\n") == 1
    assert json.loads(answer)["mountPoint"] == str(place.point)


def test_what_is_no_request_is_answered_with_an_error(place, control):
    for data in (b"\n", b"garbage\n", b"[]\n", b"null\n", b"\xff\xfe\x00\n",
                 b'{"request":"explode"}\n', b'{"request":["status"]}\n', b'{"request":"evict"}\n',
                 b'{"request":"evict","path":7}\n', b'{"request":"evict","path":"../../etc"}\n',
                 b'{"request":"discard","path":"/Home"}\n', b'{"request":"wait","limit":"x"}\n',
                 b"[" * 60000 + b"\n", b'{"request":"' + b"x" * 70000 + b'"}\n'):
        error = json.loads(Client(control).ask(data))["error"]
        assert error["domain"] == "NSPOSIXErrorDomain", data[:80]
        assert error["text"], data[:80]
    assert place.status()["state"] == "online"


def test_megabytes_without_an_end_do_no_harm(place, control):
    Client(control).ask(b"x" * (8 << 20))
    assert place.status()["state"] == "online"


def test_clients_that_say_nothing_hold_nobody_up(place, control):
    silent = [Client(control) for _ in range(20)]
    assert place.status()["state"] == "online"
    for client in silent:
        client.socket.close()


def test_a_client_that_goes_before_its_answer_does_no_harm(place, control):
    for _ in range(20):
        client = Client(control)
        client.socket.sendall(b'{"request":"status"}\n')
        client.socket.close()
    assert place.status()["state"] == "online"


def test_another_user_is_not_served(place, control):
    if os.geteuid() != 0:
        pytest.skip("only root can act as another user")
    program = ("import os, socket, sys\n"
               "os.setgroups([]); os.setgid(65534); os.setuid(65534)\n"
               "s = socket.socket(socket.AF_UNIX)\n"
               "try:\n"
               "    os.chdir(os.path.dirname(sys.argv[1]))\n"
               "    s.connect(os.path.basename(sys.argv[1]))\n"
               "except PermissionError:\n"
               "    sys.exit(3)\n"
               "try:\n"
               "    s.sendall(b'{\"request\":\"status\"}\\n')\n"
               "    sys.exit(4 if s.recv(1) else 5)\n"
               "except OSError:\n"
               "    sys.exit(5)\n")

    def as_nobody():
        return subprocess.run([sys.executable, "-c", program, control], timeout=PATIENCE,
                              cwd="/", check=False).returncode

    assert as_nobody() == 3, "permissions keep others out"
    # Even when every permission gives way, the host looks who it is.
    opened = [control, *list(control.parents)[:-1]]
    modes = [os.stat(path).st_mode for path in opened]
    try:
        # Others may go there, but nobody may exchange anything, which other tests' mounts look at.
        for path, mode in zip(opened, modes):
            os.chmod(path, mode | (0o777 if path == control else 0o001))
        assert as_nobody() == 5
    finally:
        for path, mode in zip(opened, modes):
            os.chmod(path, mode)


def test_without_a_runtime_directory_the_socket_lies_with_the_state(place):
    place.mount(env={"XDG_RUNTIME_DIR": ""}).ready()
    assert place.sockets() == []
    assert (place.state / "control.sock").is_socket()
    assert place.run("status", env={"XDG_RUNTIME_DIR": ""}).returncode == DONE
    assert place.run("status").returncode == DONE


def test_a_runtime_directory_that_others_may_write_in_is_not_used(place):
    place.runtime.chmod(0o777)
    place.mount().ready()
    assert place.sockets() == []
    assert (place.state / "control.sock").is_socket()


def test_directories_of_the_hosts_own_are_closed_to_others_and_that_is_said(place):
    own = [place.runtime / "kestrowan", place.state_home / "kestrowan" / ".hosts"]
    for directory in own:
        directory.mkdir(parents=True)
        directory.chmod(0o755)
    mounted = place.mount().ready()
    for directory in own:
        assert mode(directory) == 0o700
        assert mounted.has_said(f"{directory}: others could look into it")
    assert mounted.end() == DONE
    assert not place.mount().ready().has_said("others could look into it")


def test_a_directory_for_the_socket_that_others_may_write_in_is_refused(place):
    directory = place.runtime / "kestrowan"
    directory.mkdir()
    directory.chmod(0o770)
    mounted = place.mount()
    assert mounted.wait() == MOUNT_FAILED
    assert mounted.has_said(f"{directory}: others may write here"), mounted.lines
    assert mounted.has_said(f"chmod go-w '{directory}'")
    assert not is_mounted(place.point)


def test_nothing_that_a_host_keeps_can_be_looked_at_by_others(own_place):
    loose = os.umask(0)
    try:
        mounted = own_place.mount().ready()
        (own_place.point / "Home" / "Documents" / "a.txt").write_bytes(b"secret")
        own_place.wait_synced()
    finally:
        os.umask(loose)
    kept = [path for top in (own_place.state_home, own_place.runtime) for path in top.rglob("*")]
    assert any(path.is_socket() for path in kept) and any(path.is_file() for path in kept)
    for path in kept:
        assert mode(path) == (0o700 if path.is_dir() else 0o600), path
    assert mounted.end() == DONE


def test_a_state_that_another_user_could_exchange_is_refused_and_the_part_named(place):
    above = place.state_home.parent / "above"
    above.mkdir()
    place.state_home = above / "state"
    above.chmod(0o777)
    mounted = place.mount()
    assert mounted.wait() == MOUNT_FAILED
    assert mounted.has_said(f"{above}: others may write here"), mounted.lines
    assert mounted.has_said(f"chmod go-w '{above}'")
    assert not place.point.exists() and not place.state_home.exists()
    findings = {finding["subject"]: finding for finding in place.ask("doctor")["findings"]}
    assert findings["state directory"]["verdict"] == "warning"
    assert findings["state directory"]["text"].startswith(f"{above}: others may write here")
    above.chmod(0o1777)
    place.mount().ready()
    # A mount that runs already is named no more, for the list of mounts could be a stranger's.
    above.chmod(0o777)
    asked = place.run("status")
    assert asked.returncode == FAILED
    assert f"{above}: others may write here" in asked.stderr.decode()
    above.chmod(0o755)
    assert place.status()["state"] == "online"


def test_doctor_names_the_part_of_the_runtime_directorys_path_that_is_at_fault(place):
    above = place.directory / "above"
    runtime = above / "run"
    runtime.mkdir(parents=True, mode=0o700)
    above.chmod(0o777)
    findings = {finding["subject"]: finding for finding in
                place.ask("doctor", env={"XDG_RUNTIME_DIR": str(runtime)})["findings"]}
    assert findings["runtime directory"]["verdict"] == "warning"
    assert findings["runtime directory"]["text"].startswith(f"{above}: others may write here")


def test_paths_that_are_too_long_for_an_address_work(place):
    deep = place.directory / ("d" * 100) / ("e" * 100)
    runtime = deep / "run"
    runtime.mkdir(parents=True, mode=0o700)
    place.mount("--state", deep / "state", env={"XDG_RUNTIME_DIR": str(runtime)}).ready()
    assert place.status()["stateDirectory"] == str(deep / "state")


def test_changes_are_given_up_only_with_a_confirmation(place, folder, control):
    (folder / "a.txt").write_bytes(b"x")
    path = f"/Home/{folder.name}/a.txt"
    for confirm in (False, None, "true", 1):
        answer = ask(control, {"request": "discard", "path": path, "confirm": confirm})
        assert answer["error"]["code"] == 1
    assert ask(control, {"request": "discard", "path": path, "confirm": True}) == {"discarded": 0}
