"""A mount by a user who is not root, with the set-uid helper, on a device that all may open."""

import os
import shutil
import subprocess
import tempfile
import threading
from pathlib import Path

import pytest

import driver
from hosted import wait_for

WATCHER = Path(__file__).resolve().parent / "watcher.py"

# The device of this system may be root's alone: one of its own lies over it, for this process.
AS_NOBODY = r"""
set -eu
place=$1 program=$2 container=$3 script=$4
mount -t tmpfs tmpfs "$place"
mknod -m 666 "$place/fuse" c 10 229
mount --bind "$place/fuse" /dev/fuse
chmod 755 "$place"
mkdir -m 700 "$place/home" "$place/home/container"
cp "$container/fp-webdav.json" "$place/home/container/"
chown -R nobody:nogroup "$place/home"
cp "$program" "$place/kestrowan"
exec setpriv --reuid=nobody --regid=nogroup --clear-groups \
  env -i PATH="$place:$PATH" HOME="$place/home" KESTROWAN_CONTAINER="$place/home/container" \
  sh -eu -c "cd /; $script"
"""


@pytest.fixture
def as_nobody(tmp_path, server):
    if os.geteuid() != 0:
        pytest.skip("only root can become another user")
    for tool in ("unshare", "setpriv"):
        if not shutil.which(tool):
            pytest.skip(f"{tool} is not installed")
    # The user has to be able to get there.
    place = Path(tempfile.mkdtemp(prefix="kestrowan-test-"))
    place.chmod(0o755)

    def run(script):
        return subprocess.run(
            ["unshare", "-m", "sh", "-c", AS_NOBODY, "sh", place, driver.executable(),
             server.container, script], capture_output=True, text=True, check=False, timeout=120)

    yield run
    place.rmdir()


def test_a_mount_works_and_ends_in_order(as_nobody, server):
    (server.root / "Home" / "Documents" / "a.txt").write_text("from the server")
    done = as_nobody("""
kestrowan mount --background $HOME/mount
cat $HOME/mount/Home/Documents/a.txt; echo
echo mine >$HOME/mount/Home/Documents/b.txt
stat -c '%U %a' $HOME/mount/Home/Documents/b.txt
kestrowan wait --timeout 60
(exec 3<$HOME/mount/Home/Documents/a.txt; kestrowan unmount $HOME/mount || echo busy $?)
kestrowan unmount $HOME/mount
kestrowan status || echo gone $?
""")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.splitlines() == ["from the server", "nobody 644", "busy 9", "gone 7"]
    assert (server.root / "Home" / "Documents" / "b.txt").read_text() == "mine\n"


def test_a_killed_hosts_mount_is_taken_over(as_nobody, server):
    done = as_nobody("""
kestrowan mount --background $HOME/mount
echo kept >$HOME/mount/Home/Documents/a.txt
pid=$(cat $HOME/.local/state/kestrowan/*/lock)
kill -9 $pid
while kill -0 $pid 2>/dev/null; do sleep 0.02; done
kestrowan mount --background $HOME/mount
cat $HOME/mount/Home/Documents/a.txt
kestrowan wait --timeout 60
kestrowan unmount $HOME/mount
""")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout == "kept\n"
    assert (server.root / "Home" / "Documents" / "a.txt").read_text() == "kept\n"


def test_no_other_program_of_the_user_can_look_into_the_process(as_nobody, server):
    done = as_nobody("""
kestrowan mount --background $HOME/mount
pid=$(cat $HOME/.local/state/kestrowan/*/lock)
ls /proc/$pid/fd >/dev/null 2>&1 && echo readable || echo hidden
stat -c %U /proc/$pid/mem
kestrowan unmount $HOME/mount
""")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.splitlines() == ["hidden", "root"]


def test_a_change_in_a_folder_that_can_only_be_read_is_heard_of_the_folder(as_nobody, server):
    (server.root / "Home" / "Apps").mkdir()
    ready = server.root / "Home" / "Documents" / "ready"

    def change():
        wait_for(ready.exists, "watcher", 100)
        (server.root / "Home" / "Apps" / "new").write_text("x")

    changing = threading.Thread(target=change, daemon=True)
    changing.start()
    done = as_nobody(f"""
cat >$HOME/watcher.py <<'END'
{WATCHER.read_text()}
END
kestrowan mount --background $HOME/mount
ls $HOME/mount/Home/Apps
stat -c %a $HOME/mount/Home/Apps
python3 $HOME/watcher.py $HOME/mount/Home/Apps >$HOME/heard &
watcher=$!
trap 'kill $watcher' EXIT
until kestrowan --json status | grep -q '"watchedFolders": *1,'; do sleep 0.1; done
echo >$HOME/mount/Home/Documents/ready
until grep -q ATTRIB $HOME/heard; do ls $HOME/mount/Home/Apps >/dev/null; sleep 0.1; done
sed 's|"[^"]*/mount|"|' $HOME/heard
ls $HOME/mount/Home/Apps
kill $watcher
trap - EXIT
wait $watcher || true
kestrowan unmount $HOME/mount
""")
    changing.join()
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.splitlines() == ["555", "ready", '["/Home/Apps", "ATTRIB", ""]', "new"]


def test_a_program_of_the_path_never_mounts_or_unmounts(as_nobody, server):
    done = as_nobody("""
mkdir $HOME/bin
printf '#!/bin/sh\necho "$@" >>$HOME/was-run\nexit 1\n' >$HOME/bin/fusermount3
chmod +x $HOME/bin/fusermount3
PATH=$HOME/bin:$PATH
test "$(command -v fusermount3)" = $HOME/bin/fusermount3
kestrowan mount --background $HOME/mount
kestrowan unmount $HOME/mount
kestrowan mount --background $HOME/mount
kestrowan unmount --force $HOME/mount
kestrowan mount --background $HOME/mount
pid=$(cat $HOME/.local/state/kestrowan/*/lock)
kill -9 $pid
while kill -0 $pid 2>/dev/null; do sleep 0.02; done
kestrowan unmount $HOME/mount
cat $HOME/was-run 2>/dev/null || echo never run
""")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout == "never run\n"
