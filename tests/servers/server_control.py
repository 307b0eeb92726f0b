"""Starts, describes and stops one WebDAV server made for a run.

    NAME start DIR [--root TREE] [--user USER] [--password PASSWORD] [--parent PID]
    NAME status DIR
    NAME stop DIR

DIR holds everything of the server: configuration, certificate and key, log, state, the served tree
unless --root names another, and DIR/container with the bridge file that a client needs. The server
listens on 127.0.0.1 on a free port, speaks TLS with a certificate of its own and asks for a user
name and a password; nothing of an installed server's own configuration is read or changed.

start prints a JSON object (name, running, pid, port, user, pass, cert, container, root, log) once
the server answers; on a running server it only prints it again. With --parent the server is stopped
when that process ends, however it ends. status prints the same object. Stopping a server that does
not run is no error.

Exit code: 0 done (status: running); 1 failed (status: not running); 2 wrong usage.
"""

import argparse
import base64
import contextlib
import fcntl
import http.client
import json
import os
import secrets
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import time
from pathlib import Path

START_SECONDS = 20
STOP_SECONDS = 10
ATTEMPTS = 5


class ServerError(Exception):
    """The server could not be started or stopped; the text is for a person."""


class Server:
    """What the four servers differ in. A subclass gives `name`, `executable` and `command`."""

    name = ""
    executable = ""
    package = ""

    def __init__(self, directory, values):
        self.directory = directory
        self.port = values["port"]
        self.user = values["user"]
        self.password = values["pass"]
        self.root = Path(values["root"])
        self.cert = directory / "cert.pem"
        self.key = directory / "key.pem"
        self.log = directory / "server.log"

    def command(self):
        """Writes the configuration and gives the command line that runs the server in front."""
        raise NotImplementedError

    def environment(self):
        return dict(os.environ)

    def write(self, name, text):
        path = self.directory / name
        path.write_text(text, encoding="utf-8")
        path.chmod(0o600)
        return path

    def write_password_file(self):
        """USER:HASH, as Apache, nginx and lighttpd read it."""
        line = subprocess.run(
            ["openssl", "passwd", "-apr1", "-stdin"], input=self.password + "\n",
            capture_output=True, text=True, check=True).stdout.strip()
        return self.write("passwords", f"{self.user}:{line}\n")


def quoted(path):
    """A path inside double quotes in a configuration file."""
    text = str(path)
    if any(ord(character) < 32 for character in text):
        raise ServerError(f"the path {text!r} cannot stand in a configuration file")
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


# ---- processes ---------------------------------------------------------------------------------


def process_fields(pid):
    """The state letter, process group and start time of a process; None when there is none."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text(encoding="ascii", errors="replace")
    except OSError:
        return None
    fields = text[text.rindex(")") + 2:].split()
    return fields[0], int(fields[2]), fields[19]


def group_members(group):
    members = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            fields = process_fields(entry)
            if fields and fields[1] == group and fields[0] not in "ZX":
                members.append(int(entry))
    return members


def is_running(state):
    fields = process_fields(state["pid"])
    return bool(fields) and fields[0] not in "ZX" and fields[2] == state["started"]


def is_ours(state):
    """Whether the process group still is the one that was started, and not a later namesake."""
    fields = process_fields(state["pid"])
    return fields is None or fields[2] == state["started"]


def end_group(state):
    if not is_ours(state):
        return
    group = state["pid"]
    for number, seconds in ((signal.SIGTERM, STOP_SECONDS), (signal.SIGKILL, STOP_SECONDS)):
        deadline = time.monotonic() + seconds
        members = group_members(group)
        if members:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(group, number)
        while members and time.monotonic() < deadline:
            time.sleep(0.02)
            with contextlib.suppress(ChildProcessError):
                os.waitpid(group, os.WNOHANG)
            members = group_members(group)
        if not members:
            return
    raise ServerError(f"process group {group} could not be ended")


def watch(parent, directory, state, server_class):
    """Detaches a process that stops the server when `parent` ends, and ends with the server."""
    if os.fork() != 0:
        return
    status = 1
    try:
        os.setsid()
        null = os.open(os.devnull, os.O_RDWR)
        for descriptor in (0, 1, 2):
            os.dup2(null, descriptor)
        os.chdir("/")
        poll = select.poll()
        watched = {}
        for pid in (state["pid"], parent):
            with contextlib.suppress(ProcessLookupError):
                descriptor = os.pidfd_open(pid)
                watched[pid] = descriptor
                poll.register(descriptor, select.POLLIN)
        if len(watched) == 2:
            poll.poll()
        if is_running(state):
            stop(server_class, directory)
        status = 0
    finally:
        os._exit(status)


# ---- state -------------------------------------------------------------------------------------


def read_state(directory):
    try:
        return json.loads((directory / "state.json").read_text(encoding="utf-8"))
    except (OSError, ValueError):
        return None


def write_private(path, text):
    temporary = path.with_name(path.name + ".new")
    descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    with open(descriptor, "w", encoding="utf-8") as stream:
        stream.write(text)
    os.replace(temporary, path)


def describe(server_class, directory, state):
    running = state is not None and is_running(state)
    answer = {"name": server_class.name, "running": running}
    if state:
        answer.update({key: state[key] for key in ("pid", "port", "user", "pass", "root")})
        answer.update(cert=str(directory / "cert.pem"), container=str(directory / "container"),
                      log=str(directory / "server.log"))
    print(json.dumps(answer))
    return running


@contextlib.contextmanager
def locked(directory):
    descriptor = os.open(directory / "lock", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)


# ---- the three commands ------------------------------------------------------------------------


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def make_certificate(directory):
    made = subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-sha256", "-days", "825", "-subj", "/CN=127.0.0.1",
         "-addext", "subjectAltName=IP:127.0.0.1",
         "-out", str(directory / "cert.pem"), "-keyout", str(directory / "key.pem")],
        capture_output=True, text=True, check=False)
    if made.returncode != 0:
        raise ServerError(f"openssl made no certificate:\n{made.stderr}")


def answers(server):
    """Whether the server answers a PROPFIND of its root; None while it accepts no connection."""
    context = ssl.create_default_context(cafile=str(server.cert))
    credentials = base64.b64encode(f"{server.user}:{server.password}".encode()).decode()
    connection = http.client.HTTPSConnection("127.0.0.1", server.port, timeout=5, context=context)
    try:
        connection.request("PROPFIND", "/",
                           headers={"Depth": "0", "Authorization": f"Basic {credentials}"})
        return connection.getresponse().status == 207
    except (OSError, http.client.HTTPException):
        return None
    finally:
        connection.close()


def log_tail(server):
    try:
        lines = server.log.read_text(encoding="utf-8", errors="replace").splitlines()
    except OSError:
        return "(no log)"
    return "\n".join(lines[-20:]) or "(the log is empty)"


def launch(server):
    command = server.command()
    with open(server.log, "ab") as log:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                cwd="/", env=server.environment(), start_new_session=True)


def await_answer(server, process):
    deadline = time.monotonic() + START_SECONDS
    refused = False
    while time.monotonic() < deadline:
        if process.poll() is not None:
            return f"{server.name} ended with {process.returncode}"
        answer = answers(server)
        if answer:
            return None
        refused = answer is False
        time.sleep(0.02)
    return f"{server.name} " + ("does not serve the tree" if refused else "does not answer")


def start(server_class, directory, options):
    if not shutil.which(server_class.executable, path=search_path()):
        raise ServerError(f"{server_class.executable} is not installed (Debian package "
                          f"{server_class.package})")
    directory.mkdir(mode=0o700, parents=True, exist_ok=True)
    with locked(directory):
        state = read_state(directory)
        if state and is_running(state):
            describe(server_class, directory, state)
            return
        if state:
            end_group(state)
        root = Path(options.root).absolute() if options.root else directory / "tree"
        root.mkdir(parents=True, exist_ok=True)
        make_certificate(directory)
        values = {"user": options.user, "pass": options.password or secrets.token_urlsafe(18),
                  "root": str(root)}
        for attempt in range(ATTEMPTS):
            values["port"] = free_port()
            server = server_class(directory, values)
            server.log.unlink(missing_ok=True)
            process = launch(server)
            state = dict(values, pid=process.pid, started=process_fields(process.pid)[2])
            write_private(directory / "state.json", json.dumps(state))
            problem = await_answer(server, process)
            if problem is None:
                break
            end_group(state)
            (directory / "state.json").unlink()
            # Another program may have taken the port between the choice and the start.
            if attempt + 1 == ATTEMPTS or "in use" not in log_tail(server).lower():
                raise ServerError(f"{problem}; the end of {server.log}:\n{log_tail(server)}")
        container = directory / "container"
        container.mkdir(mode=0o700, exist_ok=True)
        write_private(container / "fp-webdav.json", json.dumps(
            {"port": server.port, "user": server.user, "pass": server.password,
             "certPEM": server.cert.read_text(encoding="ascii")}))
        # The server outlives this process, which would otherwise complain about leaving it.
        process.returncode = 0
    # A child would share the lock: it is made when the lock is free again.
    if options.parent:
        watch(options.parent, directory, state, server_class)
    describe(server_class, directory, state)


def stop(server_class, directory):
    if not directory.is_dir():
        return
    with locked(directory):
        state = read_state(directory)
        if state:
            end_group(state)
            (directory / "state.json").unlink(missing_ok=True)
            (directory / "container" / "fp-webdav.json").unlink(missing_ok=True)


def search_path():
    return os.environ.get("PATH", os.defpath) + ":/usr/sbin:/sbin:/usr/bin:/bin"


def main(server_class):
    parser = argparse.ArgumentParser(prog=server_class.name, description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("command", choices=("start", "status", "stop"))
    parser.add_argument("directory", metavar="DIR", type=Path)
    parser.add_argument("--root", metavar="TREE")
    parser.add_argument("--user", default="kestrowan")
    parser.add_argument("--password")
    parser.add_argument("--parent", metavar="PID", type=int)
    options = parser.parse_args()
    directory = options.directory.absolute()
    try:
        if options.command == "start":
            start(server_class, directory, options)
            return 0
        if options.command == "stop":
            stop(server_class, directory)
            return 0
        state = read_state(directory)
        return 0 if describe(server_class, directory, state) else 1
    except (ServerError, OSError, subprocess.CalledProcessError) as error:
        print(f"{server_class.name}: {error}", file=sys.stderr)
        return 1
