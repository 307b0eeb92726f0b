"""Mounting a provider in memory in a process of its own, and working on the mount.

The program is the one that the environment variable MOUNT_HOST names. Accesses to a mount that
hangs end all the same: a watchdog kills the program after a while, and every access then fails.
"""

import base64
import contextlib
import errno
import json
import os
import select
import shutil
import signal
import subprocess
import time

SECONDS = 60
POSIX = "NSPOSIXErrorDomain"
COCOA = "NSCocoaErrorDomain"
URL = "NSURLErrorDomain"
FILE_PROVIDER = "NSFileProviderErrorDomain"


def obstacle():
    """Why nothing can be mounted here; None when it can."""
    if not os.path.exists("/dev/fuse"):
        return "there is no /dev/fuse"
    if not os.access("/dev/fuse", os.R_OK | os.W_OK):
        return "/dev/fuse may not be used"
    if not shutil.which("fusermount3"):
        return "fusermount3 is not installed"
    return None


def program():
    path = os.environ.get("MOUNT_HOST")
    if not path or not os.access(path, os.X_OK):
        raise RuntimeError(f"MOUNT_HOST does not name the executable: {path!r}")
    return path


class Refused(Exception):
    """The program could not do what a command said."""

    def __init__(self, error):
        super().__init__(f"{error['domain']} {error['code']}: {error['text']}")
        self.domain = error["domain"]
        self.code = error["code"]
        self.text = error["text"]


def mount_entry(path):
    """(device, type) of what is mounted at exactly that path; None when nothing is."""
    found = None
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        for line in table:
            fields = line.split()
            if fields[4] == str(path):
                found = fields[2], fields[fields.index("-") + 1]
    return found


CUT = """
[ -e /sys/fs/fuse/connections/$1 ] || mount -t fusectl none /sys/fs/fuse/connections || exit 3
echo 1 > /sys/fs/fuse/connections/$1/abort || exit 3
"""


def cut(path):
    """Has the kernel cut the connection of the mount at that path; False when it cannot be done."""
    number = mount_entry(path)[0].split(":")[1]
    script = ["sh", "-c", CUT, "sh", number]
    if os.geteuid() == 0:
        # The control files may have to be mounted for it, which nobody else needs to see.
        script = ["unshare", "--mount", "--propagation", "private", *script]
    return subprocess.run(script, check=False, capture_output=True).returncode == 0


def eventually(condition, seconds=SECONDS):
    """Waits until the condition gives something true, and gives that."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise AssertionError("what was waited for did not come")
        time.sleep(0.01)
    return value


class Host:
    """One process that mounts. Every wait for it ends with an error when it has ended."""

    def __init__(self, mount_point, state, watchdog=SECONDS * 2, prefix=(), **options):
        self.path = mount_point
        settings = {"mountPoint": str(mount_point), "state": str(state), "sendDelay": 100, **options}
        self.process = subprocess.Popen([*prefix, program(), json.dumps(settings)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        # No thread: one that waits for a page of a mapped file holds all others up.
        self._watchdog = subprocess.Popen(
            ["sh", "-c", f"sleep {watchdog}; kill -9 {self.process.pid}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        self._unread = b""

    def do(self, what, seconds=SECONDS, **members):
        """Has one command done; gives the answer."""
        self.process.stdin.write(json.dumps({"do": what, **members}).encode() + b"\n")
        self.process.stdin.flush()
        answer = json.loads(self._line(seconds))
        if "error" in answer:
            raise Refused(answer["error"])
        return answer

    def _line(self, seconds):
        deadline = time.monotonic() + seconds
        pieces = [self._unread]
        while b"\n" not in pieces[-1]:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.process.stdout], [], [], left)[0]:
                raise AssertionError("mount_host did not answer in time")
            piece = os.read(self.process.stdout.fileno(), 1 << 20)
            if not piece:
                raise AssertionError(f"mount_host ended: {self.process.wait()}")
            pieces.append(piece)
        line, self._unread = b"".join(pieces).split(b"\n", 1)
        return line

    # The mount.

    def mount(self):
        self.do("mount")
        return self

    def connect(self):
        """Gives the replica its provider."""
        self.do("connect")
        return self

    def unmount(self, lazily=False):
        self.do("unmount", lazily=lazily)

    def kill(self):
        """Ends the process as a crash does."""
        self.process.kill()
        self.process.wait()

    def end(self):
        """Ends everything, however it stands. Gives the exit code."""
        if self.process.stdout.closed:
            return self.process.returncode
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        try:
            code = self.process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            code = None
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        os.killpg(self._watchdog.pid, signal.SIGKILL)
        self._watchdog.wait()
        while mount_entry(self.path):
            if subprocess.run(["fusermount3", "-u", "-z", str(self.path)], check=False,
                              capture_output=True).returncode:
                break
        return code

    # The server.

    def write(self, path, contents):
        self.do("writeFile", path=path, bytes=encoded(contents))

    def folder(self, path):
        self.do("makeFolder", path=path)

    def remove(self, path):
        self.do("remove", path=path)

    def rename(self, old, new):
        self.do("rename", **{"from": old, "to": new})

    def read(self, path):
        """A file's bytes on the server; None when there is no such file."""
        return decoded(self.do("read", path=path)["bytes"])

    def tree(self):
        """Everything on the server: the bytes of files, None for folders."""
        return {path: decoded(contents) for path, contents in self.do("tree")["tree"].items()}

    # The provider.

    def down(self, value=True):
        self.do("down", value=value)

    def fault(self, **members):
        self.do("fault", **members)

    def calls(self, *kinds):
        """The calls of the provider, in order; of some kinds only when those are named."""
        answer = self.do("calls")
        assert answer["violations"] == []
        return [call for call in answer["calls"] if not kinds or call.split(" ")[0] in kinds]

    def changes(self):
        """The calls that changed something."""
        return self.calls("createItem", "modifyItem", "deleteItem")

    def clear_calls(self):
        self.do("clearCalls")

    # The replica.

    def wait(self, seconds=SECONDS):
        """Returns when both sides agree."""
        self.do("wait", milliseconds=seconds * 1000, seconds=seconds + 10)

    def status(self):
        return self.do("status")


def encoded(contents):
    if isinstance(contents, str):
        contents = contents.encode()
    return base64.b64encode(contents).decode()


def decoded(text):
    return None if text is None else base64.b64decode(text)


def outcome(action, *arguments, **members):
    """What the action came to: its value, or the name of its errno."""
    try:
        return action(*arguments, **members)
    except OSError as error:
        return errno.errorcode[error.errno]


def run(*arguments, seconds=SECONDS, **options):
    """Runs a program to its end; it must succeed."""
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.STDOUT)
    options.setdefault("stdin", subprocess.DEVNULL)
    done = subprocess.run([os.fspath(argument) for argument in arguments], timeout=seconds,
                          check=False, **options)
    assert done.returncode == 0, (arguments, done.stdout)
    return done.stdout
