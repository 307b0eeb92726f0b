"""Running the command `kestrowan`: one command at a time, or `kestrowan drive` as a partner.

The executable is the one that the environment variable KESTROWAN names.
"""

import json
import os
import subprocess
import threading
import time

SECONDS = 120
LOG = "[com.kestrowan.app.FileProvider:ext] error: "
ROOT = "NSFileProviderRootContainerItemIdentifier"
WORKING_SET = "NSFileProviderWorkingSetContainerItemIdentifier"
TRASH = "NSFileProviderTrashContainerItemIdentifier"
FILE_PROVIDER = "NSFileProviderErrorDomain"
POSIX = "NSPOSIXErrorDomain"
COCOA = "NSCocoaErrorDomain"
URL = "NSURLErrorDomain"


def executable():
    path = os.environ.get("KESTROWAN")
    if not path or not os.access(path, os.X_OK):
        raise RuntimeError(f"KESTROWAN does not name the executable: {path!r}")
    return path


def environment(container=None, extra=None):
    """This environment without anything that steers the program, plus what the test wants."""
    kept = {name: value for name, value in os.environ.items()
            if name not in ("KESTROWAN_CONTAINER", "XDG_DATA_HOME", "SSLKEYLOGFILE")
            and not name.lower().endswith("_proxy")}
    if container is not None:
        kept["KESTROWAN_CONTAINER"] = str(container)
    kept.update(extra or {})
    return kept


def run(*arguments, container=None, env=None, stdin=subprocess.DEVNULL, seconds=SECONDS, **options):
    """Runs one command to its end; standard output and standard error are bytes."""
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.PIPE)
    return subprocess.run([executable(), *map(os.fspath, arguments)], stdin=stdin, timeout=seconds,
                          env=environment(container, env), check=False, **options)


def start(*arguments, container=None, env=None, **options):
    options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.PIPE)
    return subprocess.Popen([executable(), *map(os.fspath, arguments)],
                            env=environment(container, env), **options)


class Drive:
    """One `kestrowan drive`. Every wait ends with an error when the program has ended."""

    def __init__(self, container, env=None, arguments=()):
        self.process = start(*arguments, "drive", container=container, env=env,
                             stdin=subprocess.PIPE)
        self.changed = threading.Condition()
        self.replies = []
        self.lines = []
        self.open_streams = 2
        self.next_id = 0
        self.threads = [threading.Thread(target=self._read, args=arguments, daemon=True)
                        for arguments in ((self.process.stdout, self._reply),
                                          (self.process.stderr, self._line))]
        for thread in self.threads:
            thread.start()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if self.process.returncode is not None:
            return
        if kind is None:
            self.finish()
        else:
            self.process.kill()
            self.process.wait()

    def _read(self, stream, take):
        for line in stream:
            with self.changed:
                take(line)
                self.changed.notify_all()
        with self.changed:
            self.open_streams -= 1
            self.changed.notify_all()

    def _reply(self, line):
        assert line.endswith(b"\n"), line
        self.replies.append(json.loads(line))

    def _line(self, line):
        self.lines.append(line.decode("utf-8").rstrip("\n"))

    def wait(self, condition, what, seconds=SECONDS):
        """Waits until `condition()` gives something other than None, and gives it."""
        deadline = time.monotonic() + seconds
        with self.changed:
            while True:
                found = condition()
                if found is not None:
                    return found
                if self.open_streams == 0:
                    raise AssertionError(f"the program ended before {what}; its log: {self.lines}")
                if not self.changed.wait(max(0.0, deadline - time.monotonic())):
                    raise AssertionError(f"no {what} in {seconds} s; the log: {self.lines}")

    def write(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def send(self, request, **members):
        """Sends a request and gives its id."""
        self.next_id += 1
        message = {"id": self.next_id, "request": request, **members}
        self.write(json.dumps(message, ensure_ascii=False).encode("utf-8") + b"\n")
        return self.next_id

    def reply(self, identifier, seconds=SECONDS):
        def find():
            found = [reply for reply in self.replies if reply["id"] == identifier]
            return found[0] if found else None
        return self.wait(find, f"reply to {identifier!r}", seconds)

    def call(self, request, **members):
        return self.reply(self.send(request, **members))

    def log_lines(self, count):
        """The first `count` log lines, without their common beginning."""
        lines = self.wait(lambda: list(self.lines) if len(self.lines) >= count else None,
                          f"{count} log lines")
        for line in lines:
            assert line.startswith(LOG), line
        return [line[len(LOG):] for line in lines]

    def finish(self, seconds=SECONDS):
        """Ends the input and gives the exit code; all output has been read then."""
        if not self.process.stdin.closed:
            self.process.stdin.close()
        code = self.process.wait(seconds)
        for thread in self.threads:
            thread.join(seconds)
        self.process.stdout.close()
        self.process.stderr.close()
        return code


def error_of(reply):
    """(domain, code) of a reply's error, or None."""
    error = reply["error"]
    return None if error is None else (error["domain"], error["code"])


def text_of(reply):
    return reply["error"]["localizedDescription"]


def children(path):
    """The process ids of the children of process `path`."""
    try:
        with open(f"/proc/{path}/task/{path}/children", encoding="ascii") as file:
            return [int(number) for number in file.read().split()]
    except FileNotFoundError:
        return []
