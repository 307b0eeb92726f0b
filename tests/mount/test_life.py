"""Mounting, unmounting, dying and coming back."""

import ctypes
import errno
import os
import shutil
import stat
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

from hosting import Refused, cut, eventually, mount_entry, obstacle, outcome, run


def refusal(host):
    with pytest.raises(Refused) as refused:
        host.mount()
    return refused.value


# ---- mounting ------------------------------------------------------------------------------------


def test_the_mount_is_named_and_restricted(host, mount):
    device, kind = mount_entry(mount)
    assert kind == "fuse.kestrowan"
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        line = next(line for line in table if line.split()[4] == str(mount))
    fields = line.split()
    assert fields[fields.index("-") + 2] == "kestrowan"
    assert {"nosuid", "nodev"} <= set(fields[5].split(","))
    assert "noexec" not in fields[5].split(",")
    assert "default_permissions" in fields[-1].split(",")
    assert "allow_other" not in line
    assert device.split(":")[1] != "0"


def test_programs_can_be_forbidden(make_host, place):
    host = make_host(noexec=True).mount().connect()
    host.write("/script", "#!/bin/sh\n")
    os.chmod(place / "mount" / "script", 0o755)
    assert outcome(os.execv, place / "mount" / "script", ["script"]) == "EACCES"


def test_the_bare_mount_point_has_its_mode_again_afterwards(host, mount, place):
    host.unmount()
    assert host.do("waitUntilUnmounted", milliseconds=30_000) == {"ended": True}
    assert stat.S_IMODE(os.stat(mount).st_mode) == 0o755
    assert mount_entry(mount) is None


def test_a_mount_that_is_alive_is_left_alone(host, make_host, mount):
    host.write("/file", "x")
    error = refusal(make_host(state="other"))
    assert "mounted already" in error.text and str(mount) in error.text
    assert (mount / "file").read_text() == "x"


def test_a_mount_that_does_not_answer_is_left_alone(host, make_host, mount):
    os.kill(host.process.pid, 19)
    try:
        error = refusal(make_host(state="other"))
        assert "does not answer" in error.text
    finally:
        os.kill(host.process.pid, 18)
    assert os.listdir(mount) == []


def test_the_same_state_is_not_used_twice(host, make_host, mount):
    host.write("/file", "x")
    assert refusal(make_host()).code == errno.EBUSY
    assert (mount / "file").read_text() == "x"


# ---- dying ---------------------------------------------------------------------------------------


def test_a_dead_mount_is_freed_by_the_next(host, make_host, mount):
    host.kill()
    assert outcome(os.listdir, mount) == "ENOTCONN"
    second = make_host().mount().connect()
    second.write("/file", "x")
    assert eventually(lambda: outcome(lambda: (mount / "file").read_text()) == "x")


def test_a_dead_mount_that_is_in_use_is_freed_by_the_next(host, make_host, mount):
    host.folder("/folder")
    user = subprocess.Popen(["sleep", "1000"], cwd=mount / "folder")
    try:
        host.kill()
        second = make_host().mount().connect()
        second.write("/file", "x")
        assert eventually(lambda: "file" in os.listdir(mount))
    finally:
        user.kill()
        user.wait()


def test_dead_mounts_on_each_other_are_freed(host, make_host, mount, place):
    # A dead mount is no folder any more, so that nothing but root's own mount can lie on it.
    host.kill()
    if os.geteuid() != 0:
        pytest.skip("only root can mount on a dead mount")
    descriptor = os.open("/dev/fuse", os.O_RDWR)
    options = f"fd={descriptor},rootmode=40000,user_id=0,group_id=0"
    libc = ctypes.CDLL(None, use_errno=True)
    result = libc.mount(b"kestrowan", os.fsencode(mount), b"fuse.kestrowan", 0, options.encode())
    os.close(descriptor)
    assert result == 0
    make_host().mount().connect()
    assert os.listdir(mount) == []


def test_what_was_acknowledged_survives_the_death_of_the_program(host, make_host, mount):
    os.listdir(mount)
    host.down()
    (mount / "file").write_bytes(b"x" * 100_000)
    os.mkdir(mount / "folder")
    (mount / "folder" / "inner").write_text("inner")
    os.rename(mount / "folder" / "inner", mount / "folder" / "renamed")
    (mount / "gone").write_text("x")
    os.unlink(mount / "gone")
    os.chmod(mount / "file", 0o700)
    os.setxattr(mount / "file", "user.note", b"kept")
    os.utime(mount / "file", ns=(1_000_000_007, 1_000_000_007))
    open_file = os.open(mount / "open", os.O_CREAT | os.O_WRONLY)
    os.write(open_file, b"never closed")
    host.kill()
    assert outcome(os.close, open_file) in (None, "ENOTCONN", "ECONNABORTED")

    second = make_host().mount()
    seen = {}

    def look():
        seen.update({name: (mount / name) for name in os.listdir(mount)})
        return True

    assert outcome(look) is True
    assert sorted(seen) == ["file", "folder", "open"]
    assert (mount / "file").read_bytes() == b"x" * 100_000
    assert os.listdir(mount / "folder") == ["renamed"]
    assert (mount / "folder" / "renamed").read_text() == "inner"
    assert (mount / "open").read_text() == "never closed"
    assert stat.S_IMODE(os.stat(mount / "file").st_mode) == 0o700
    assert os.getxattr(mount / "file", "user.note") == b"kept"
    assert os.stat(mount / "file").st_mtime_ns == 1_000_000_007
    second.connect()
    second.wait()
    assert second.tree() == {"/file": b"x" * 100_000, "/folder": None,
                             "/folder/renamed": b"inner", "/open": b"never closed"}


def test_killing_it_at_work_loses_nothing_that_was_acknowledged(host, make_host, mount, place):
    os.listdir(mount)
    host.down()
    journal = place / "journal"
    script = ("import os,sys\n"
              "log = open(sys.argv[2], 'w', buffering=1)\n"
              "number = 0\n"
              "while True:\n"
              "    number += 1\n"
              "    name = f'{sys.argv[1]}/{number}'\n"
              "    with open(name + '~', 'w') as file: file.write('x' * number)\n"
              "    os.rename(name + '~', name)\n"
              "    log.write(f'{number}\\n')\n")
    worker = subprocess.Popen([sys.executable, "-c", script, str(mount), str(journal)],
                              stderr=subprocess.DEVNULL)
    eventually(lambda: journal.exists() and len(journal.read_text().splitlines()) > 100)
    host.kill()
    worker.wait(60)
    acknowledged = [int(line) for line in journal.read_text().splitlines()]
    second = make_host().mount().connect()
    for number in acknowledged:
        assert (mount / str(number)).read_text() == "x" * number
    second.wait()
    tree = second.tree()
    for number in acknowledged:
        assert tree[f"/{number}"] == b"x" * number


def test_files_that_are_open_fail_when_the_program_dies(host, mount):
    host.write("/file", "x" * 1_000_000)
    with open(mount / "file", "rb", buffering=0) as file:
        host.kill()
        assert outcome(os.pread, file.fileno(), 10, 500_000) in (
            "ENOTCONN", "ECONNABORTED", b"x" * 10)
        assert outcome(os.stat, mount / "file") == "ENOTCONN"


# ---- unmounting ----------------------------------------------------------------------------------


def test_a_mount_in_use_is_not_unmounted_and_its_users_are_named(host, mount):
    host.write("/file", "x")
    user = subprocess.Popen(["sleep", "1000"], stdin=open(mount / "file", "rb"))
    try:
        with pytest.raises(Refused) as refused:
            host.unmount()
        assert refused.value.code == 16
        assert f"sleep ({user.pid}, {mount}/file)" in refused.value.text
        assert (mount / "file").read_text() == "x"
    finally:
        user.kill()
        user.wait()
    eventually(lambda: outcome(unmounted, host) is True)


def unmounted(host):
    try:
        host.unmount()
    except Refused:
        return False
    return True


def test_after_a_lazy_unmount_open_files_still_work(host, mount):
    host.write("/file", "0123456789")
    with open(mount / "file", "r+b", buffering=0) as file:
        host.unmount(lazily=True)
        assert mount_entry(mount) is None
        assert host.do("waitUntilUnmounted", milliseconds=0)["ended"] is False
        assert os.pread(file.fileno(), 10, 0) == b"0123456789"
        os.pwrite(file.fileno(), b"abc", 0)
    assert host.do("waitUntilUnmounted", milliseconds=30_000)["ended"] is True
    host.wait()
    assert host.read("/file") == b"abc3456789"


def test_what_was_written_last_is_sent_after_the_unmount(host, mount):
    for number in range(50):
        (mount / str(number)).write_text("x" * number)
    host.unmount()
    assert host.do("waitUntilUnmounted", milliseconds=30_000)["ended"] is True
    host.wait()
    assert host.tree() == {f"/{number}": b"x" * number for number in range(50)}


def test_others_can_unmount_it(host, mount):
    run("fusermount3", "-u", mount)
    assert host.do("waitUntilUnmounted", milliseconds=30_000) == {"ended": True}
    host.unmount()


def test_a_connection_that_was_cut_leaves_no_dead_mount(host, mount):
    if not cut(mount):
        pytest.skip("connections cannot be cut here")
    assert host.do("waitUntilUnmounted", milliseconds=30_000) == {"ended": True}
    assert mount_entry(mount) is None
    assert os.listdir(mount) == []


def test_the_program_ends_though_files_are_open(host, mount):
    host.write("/file", "x")
    with open(mount / "file", "rb", buffering=0) as file:
        assert host.end() == 0
        assert mount_entry(mount) is None
        assert outcome(os.pread, file.fileno(), 1, 0) in ("ENOTCONN", "ECONNABORTED")


def test_the_program_ends_though_somebody_waits(host, mount):
    host.write("/file", "x")
    os.listdir(mount)
    host.fault(kind="fetchContents", hangs=True)
    reader = subprocess.Popen(["cat", str(mount / "file")], stderr=subprocess.PIPE)
    eventually(lambda: host.calls("fetchContents"))
    begun = time.monotonic()
    assert host.end() == 0
    assert reader.wait(60) == 1
    assert time.monotonic() - begun < 50


# ---- users ---------------------------------------------------------------------------------------

AS_USER = """set -e
mount -t tmpfs none "$1"
mknod -m 666 "$1/fuse" c 10 229
mount --bind "$1/fuse" /dev/fuse
exec setpriv --reuid 65534 --regid 65534 --clear-groups sh -c "$2"
"""

@pytest.fixture
def home():
    """A folder that every user can enter, unlike those that the tests get."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        yield Path(folder)


def test_an_ordinary_user_mounts(home):
    if os.geteuid() != 0:
        pytest.skip("only root can make a device node for a test")
    if not shutil.which("setpriv") or not shutil.which("unshare"):
        pytest.skip("setpriv or unshare is not installed")
    for name in ("mount", "state", "devices"):
        (home / name).mkdir()
        os.chown(home / name, 65534, 65534)
    os.chmod(home / "devices", 0o755)
    script = home / "script"
    script.write_text(f"""set -e
{{ echo '{{"do": "mount"}}'; echo '{{"do": "connect"}}'
  echo '{{"do": "writeFile", "path": "/file", "bytes": "eA=="}}'; sleep 2; }} \\
  | "$MOUNT_HOST" '{{"mountPoint": "{home}/mount", "state": "{home}/state"}}' &
for try in $(seq 100); do [ -e "{home}/mount/file" ] && break; sleep 0.05; done
cat "{home}/mount/file"; echo
echo written > "{home}/mount/new"; cat "{home}/mount/new"
id -u
wait
""", encoding="ascii")
    done = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c", AS_USER,
                           "sh", str(home / "devices"), f"sh {script}"],
                          capture_output=True, timeout=60, check=False)
    if b"mknod" in done.stderr:
        pytest.skip("no device node can be made here")
    assert done.returncode == 0, done.stderr
    lines = done.stdout.decode().splitlines()
    assert [line for line in lines if not line.startswith("{")] == ["x", "written", "65534"]
    assert obstacle() is None
