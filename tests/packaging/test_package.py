"""The Debian package: what is in it, and that it can be installed, used and removed."""

import gzip
import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import driver
from real_server import RealServer, is_installed

CONTENTS = {
    "./usr/bin/kestrowan": "-rwxr-xr-x",
    "./usr/lib/systemd/user/kestrowan.service": "-rw-r--r--",
    "./usr/share/bash-completion/completions/kestrowan": "-rw-r--r--",
    "./usr/share/doc/kestrowan/copyright": "-rw-r--r--",
    "./usr/share/man/man1/kestrowan.1.gz": "-rw-r--r--",
    "./usr/share/zsh/vendor-completions/_kestrowan": "-rw-r--r--",
}
MINUTE = 60
SOURCE = Path(__file__).resolve().parents[2]


def output(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


# ---- what is in it -------------------------------------------------------------------------------


def test_the_package_says_what_it_needs(package):
    fields = {name: output("dpkg-deb", "-f", package, name).strip()
              for name in ("Package", "Version", "Depends", "Architecture")}
    assert fields["Package"] == "kestrowan"
    assert fields["Version"] == output(driver.executable(), "--version").strip()
    needed = {entry.split()[0] for entry in re.split(r"[,|]", fields["Depends"])}
    assert {"fuse3", "libc6", "libcurl4", "libfuse3-3", "libsqlite3-0", "libssl3"} <= needed
    assert fields["Architecture"] == output("dpkg", "--print-architecture").strip()


def test_the_package_holds_these_files_and_no_others(package):
    found = {}
    for line in output("dpkg-deb", "-c", package).splitlines():
        mode, owner, _, _, _, path = line.split(None, 5)
        assert owner == "root/root", line
        if mode.startswith("d"):
            assert mode == "drwxr-xr-x", line
        else:
            found[path] = mode
    assert found == CONTENTS


def test_the_package_has_checksums_and_no_scripts(package, tmp_path):
    subprocess.run(["dpkg-deb", "-e", package, tmp_path], check=True)
    names = {path.name for path in tmp_path.iterdir()}
    assert {"control", "md5sums"} <= names
    assert names <= {"control", "md5sums", "triggers", "shlibs"}


def test_the_copyright_file_has_the_notices_of_what_is_compiled_in(unpacked):
    text = (unpacked / "usr/share/doc/kestrowan/copyright").read_text(encoding="utf-8")
    for words in ("Niels Lohmann", "Permission is hereby granted", "University of Cincinnati",
                  "Redistribution and use in source and binary forms"):
        assert words in text


def test_the_service_ends_after_the_host_and_keeps_its_helper_working(unpacked):
    text = (unpacked / "usr/lib/systemd/user/kestrowan.service").read_text(encoding="utf-8")
    settings = dict(line.split("=", 1) for line in text.splitlines()
                    if "=" in line and not line.startswith("#"))
    assert settings["Type"] == "notify"
    assert settings["Restart"] == "on-failure"
    # Wrong usage, a place in use, and a state of another storage.
    assert settings["RestartPreventExitStatus"].split() == ["2", "9", "10"]
    assert settings["KillMode"] == "mixed"
    assert settings["LimitCORE"] == "0"
    described = json.loads(output(driver.executable(), "__describe"))
    [mount] = [command for command in described["commands"] if command["name"] == "mount"]
    [drain] = [option for option in mount["options"] if option["names"] == ["--drain"]]
    # What is left is sent before the mount goes, and what was written last after its users have had
    # five seconds to let go.
    assert int(settings["TimeoutStopSec"]) > 2 * int(drain["default"]) + 5
    # Each of these implies no-new-privileges, with which the set-uid helper cannot mount.
    for name in settings:
        assert not re.match("NoNewPrivileges|Private|Protect|Restrict|SystemCall|Lock|Memory|"
                            "DynamicUser|Capabilit|AmbientCap|BindPaths|ReadOnly|ReadWrite|"
                            "Inaccessible|RootDirectory|Namespace", name), name


def test_the_service_manager_accepts_the_service(unpacked, tmp_path):
    if not shutil.which("systemd-analyze"):
        pytest.skip("systemd-analyze is not installed")
    unit = tmp_path / "kestrowan.service"
    text = (unpacked / "usr/lib/systemd/user/kestrowan.service").read_text(encoding="utf-8")
    # The program is not installed where the unit expects it, nor is the manual.
    text = text.replace("/usr/bin/kestrowan", str(unpacked / "usr/bin/kestrowan"))
    unit.write_text(text, encoding="utf-8")
    runtime = tmp_path / "run"
    runtime.mkdir(mode=0o700)
    done = subprocess.run(["systemd-analyze", "--user", "verify", "--man=no", unit],
                          capture_output=True, text=True, check=False,
                          env={**os.environ, "XDG_RUNTIME_DIR": str(runtime)})
    if "Failed to initialize manager" in done.stderr:
        pytest.skip("systemd-analyze cannot work here: " + done.stderr.strip())
    assert (done.returncode, done.stderr) == (0, "")


# ---- documents -----------------------------------------------------------------------------------


def help_of(*command):
    return output(driver.executable(), *command, "--help")


def flags_in(text):
    """The options that a help text lists."""
    return {flag for line in text.splitlines() if (found := re.match(r"  (-[-\w,]+)", line))
            for flag in found.group(1).split(",")}


def commands():
    section = help_of().split("Subcommands:\n")[1].split("\n\n")[0]
    return [line.split()[0] for line in section.splitlines()]


@pytest.fixture(scope="module")
def manual(unpacked):
    page = gzip.decompress((unpacked / "usr/share/man/man1/kestrowan.1.gz").read_bytes())
    done = subprocess.run(["groff", "-man", "-Tutf8", "-Kutf8", "-ww", "-P-c", "-P-bou"],
                          input=page, capture_output=True, check=True)
    assert done.stderr == b"", "the formatter warns"
    return done.stdout.decode()


def test_manual_and_completions_know_every_command_and_option(unpacked, manual):
    bash = (unpacked / "usr/share/bash-completion/completions/kestrowan").read_text()
    zsh = (unpacked / "usr/share/zsh/vendor-completions/_kestrowan").read_text()
    assert len(commands()) >= 18
    everything = flags_in(help_of())
    for command in commands():
        assert f"kestrowan {command}" in manual
        assert f"    {command})\n" in bash and f"    {command})\n" in zsh
        flags = flags_in(help_of(command))
        assert "--help" in flags
        everything |= flags
    for flag in everything:
        assert re.search(rf"(^|[\s,]){re.escape(flag)}($|[\s,])", manual, re.MULTILINE), flag
        assert re.search(rf"(^|[\s']){re.escape(flag)}($|[\s'|)])", bash, re.MULTILINE), flag
        assert re.search(rf"'{re.escape(flag)}=?\[", zsh), flag
    assert "__describe" not in manual + bash + zsh


def section(manual, heading):
    """The text of a section of the manual, in one line."""
    return " ".join(re.split(r"^\S", manual.split(f"\n{heading}\n")[1], flags=re.M)[0].split())


def test_every_document_lists_the_names_that_stay_here(manual):
    rules = (SOURCE / "src" / "replica" / "NameRules.cpp").read_text(encoding="utf-8")
    table = re.findall(r'\{"([^"]+)", NameClass::(\w+)\}', rules)
    assert len(table) > 10
    kept = [pattern for pattern, treated in table if treated == "localOnly"]
    refused = [pattern for pattern, treated in table if treated == "refused"]
    in_manual = section(manual, "NAMES THAT STAY HERE")
    assert f"never sends them: {', '.join(kept)}. " in in_manual
    assert f" {' and '.join(refused)} cannot be made" in in_manual
    guide = (SOURCE / "docs" / "MOUNT.md").read_text(encoding="utf-8")
    guide = guide.split("## Names that stay here")[1].split("\n## ")[0]
    sent, rest = guide.split("Renamed")
    assert re.findall(r"`([^`]+)`", sent) == kept
    assert re.findall(r"`([^`]+)`", rest) == [*refused, "--no-local-names"]
    header = (SOURCE / "src" / "replica" / "NameRules.h").read_text(encoding="utf-8")
    comment = header.split("By the documented patterns: ")[1].split("NameClass nameClass")[0]
    assert re.findall(r'"([^"]+)"', comment) == kept + refused


def test_the_manual_says_what_the_option_makes_of_these_names(manual):
    assert section(manual, "NAMES THAT STAY HERE").endswith(
        "With --no-local-names all of these are names like any other.")
    assert "one request" not in section(manual, "DESCRIPTION")


@pytest.mark.parametrize("command", ["evict", "pin", "unpin", "retry", "discard"])
def test_paths_in_a_mount_are_told_from_the_servers(command):
    assert "on this machine" in help_of(command) and "in a mount" in help_of(command)


def test_the_same_program_gives_the_same_documents(build, tmp_path):
    script = SOURCE / "packaging" / "make_documents.py"
    subprocess.run([sys.executable, "-B", script, driver.executable(), tmp_path], check=True)
    for name in ("kestrowan.1.gz", "kestrowan.bash", "_kestrowan"):
        assert (tmp_path / name).read_bytes() == (build / "packaging" / name).read_bytes()


def bash_completes(script, *words):
    """What the shell offers for the last of `words`."""
    program = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1));'
               'compopt() { :; }; _kestrowan; printf "%s\\n" "${COMPREPLY[@]}"')
    return output("bash", "-c", program, "bash", script, *words).split()


def test_bash_completes_commands_options_values_and_files(unpacked, tmp_path, monkeypatch):
    script = unpacked / "usr/share/bash-completion/completions/kestrowan"
    (tmp_path / "folder").mkdir()
    (tmp_path / "file").touch()
    monkeypatch.chdir(tmp_path)
    assert bash_completes(script, "kestrowan", "un") == ["unmount", "unpin"]
    assert set(bash_completes(script, "kestrowan", "")) == set(commands())
    assert bash_completes(script, "kestrowan", "--con") == ["--container"]
    assert bash_completes(script, "kestrowan", "--container", "f") == ["folder"]
    assert bash_completes(script, "kestrowan", "--json", "moun") == ["mount"]
    assert bash_completes(script, "kestrowan", "mount", "--no") == [
        "--no-local-names", "--noexec", "--no-index"]
    assert bash_completes(script, "kestrowan", "mount", "--fsync", "s") == ["server"]
    assert bash_completes(script, "kestrowan", "mount", "--close", "=") == ["return", "wait"]
    assert bash_completes(script, "kestrowan", "mount", "--moves", "=", "r") == ["refuse"]
    assert bash_completes(script, "kestrowan", "mount", "f") == ["folder"]
    assert bash_completes(script, "kestrowan", "evict", "f") in (["file", "folder"],
                                                                ["folder", "file"])
    assert bash_completes(script, "kestrowan", "put", "fi") == ["file"]
    assert bash_completes(script, "kestrowan", "put", "file", "fi") == [], "the server's"
    assert bash_completes(script, "kestrowan", "get", "fi") == [], "the server's"
    assert bash_completes(script, "kestrowan", "get", "/Home/a", "fi") == ["file"]
    assert bash_completes(script, "kestrowan", "--container", "=", "folder", "moun") == ["mount"]
    assert bash_completes(script, "kestrowan", "--container", "=", "folder", "put", "fi") == ["file"]
    assert bash_completes(script, "kestrowan", "--container", "=", "fo") == ["folder"]
    assert bash_completes(script, "kestrowan", "get", "--container", "=", "x", "/a", "fi") == ["file"]
    assert bash_completes(script, "kestrowan", "mount", "--fsync", "=", "local", "fo") == ["folder"]
    assert bash_completes(script, "kestrowan", "ls", "--verb") == ["--verbose"]
    assert bash_completes(script, "kestrowan", "stat", "f") == []
    assert bash_completes(script, "kestrowan", "mount", "--drain", "f") == []


def test_zsh_completes_commands_options_and_values(unpacked, tmp_path):
    if not shutil.which("zsh"):
        pytest.skip("zsh is not installed")
    folder = unpacked / "usr/share/zsh/vendor-completions"
    # Each line is completed, and then made one that does nothing.
    program = f"""
zmodload zsh/zpty
zpty -b shell zsh -f -i
zpty -w shell 'PS1=; fpath=({folder} $fpath); autoload -Uz compinit; compinit -u -d {tmp_path}/dump'
zpty -w shell 'bindkey -e; bindkey "^I" complete-word; print re""ady'
zpty -m -r shell ready '*ready*'
for line in 'kestrowan unm' 'kestrowan unmount --for' 'kestrowan mount --fsync=s' \\
            'kestrowan ls --verb'; do
  zpty -w -n shell "$line"$'\\t; print do""ne\\C-a: \\n'
  zpty -m -r shell shown '*done*'
  print -r -- "$shown"
done
zpty -d shell
"""
    shown = output("zsh", "-f", "-c", program, timeout=MINUTE)
    for line in ("kestrowan unmount", "unmount --force", "mount --fsync=server", "ls --verbose"):
        assert line in shown, shown


# ---- installing, using, removing -----------------------------------------------------------------


def files_below(directory):
    return {path.relative_to(directory).as_posix() for path in directory.rglob("*")
            if not path.is_dir() or path.is_symlink()}


@pytest.fixture
def as_root():
    if os.geteuid() != 0:
        pytest.skip("only root can install a package")


def test_it_goes_into_an_empty_root_and_leaves_nothing_there(package, tmp_path, as_root):
    root = tmp_path / "root"
    database = root / "var/lib/dpkg"
    for folder in ("info", "updates", "triggers"):
        (database / folder).mkdir(parents=True)
    (database / "status").touch()
    before = files_below(root)

    def dpkg(*arguments):
        subprocess.run(["dpkg", f"--root={root}", "--force-depends", "--log=/dev/null",
                        *arguments], check=True, capture_output=True)

    dpkg("-i", package)
    assert {"./" + path for path in files_below(root) if path.startswith("usr/")} == set(CONTENTS)
    shown = output(root / "usr/bin/kestrowan", "--version")
    assert shown == output(driver.executable(), "--version")
    dpkg("--verify", "kestrowan")
    dpkg("-P", "kestrowan")
    assert not (root / "usr").exists()
    left = {path for path in files_below(root) - before if not path.startswith("var/lib/dpkg/")}
    assert left == set()


USE = r"""
set -eu
package=$1 container=$2
dpkg --force-depends --log=/dev/null -i "$package" >/dev/null
kestrowan --version
dpkg --verify kestrowan
export HOME=/root XDG_STATE_HOME=/tmp/package-test/state KESTROWAN_CONTAINER="$container"
unset XDG_RUNTIME_DIR
if [ -w /dev/fuse ] && command -v fusermount3 >/dev/null; then
  mkdir -p /tmp/package-test
  kestrowan mount --background /tmp/package-test/mount
  echo "from the package" >/tmp/package-test/mount/Home/note.txt
  kestrowan wait --timeout 60
  kestrowan unmount /tmp/package-test/mount
  echo used
fi
rm -rf /tmp/package-test
dpkg --log=/dev/null -P kestrowan >/dev/null
test ! -e /usr/bin/kestrowan
"""

# Everything that changes lies in a layer of its own over this system.
IN_A_LAYER = r"""
set -eu
layer=$1 script=$2 package=$3 container=$4
mount -t tmpfs tmpfs "$layer"
mkdir "$layer/upper" "$layer/work" "$layer/root" "$layer/changes"
mount -t overlay overlay -o "lowerdir=/,upperdir=$layer/upper,workdir=$layer/work" "$layer/root"
mount -t proc proc "$layer/root/proc"
mount --rbind /dev "$layer/root/dev"
cp "$package" "$layer/root/package.deb"
mkdir -p "$layer/root/container"
cp -p "$container/fp-webdav.json" "$layer/root/container/"
chmod 700 "$layer/root/container"
chroot "$layer/root" sh -c "$script" sh /package.deb /container
rm -r "$layer/root/package.deb" "$layer/root/container"
(cd "$layer/upper" && find . ! -type d)
"""


def test_it_is_installed_used_and_removed_on_this_system(package, tmp_path, as_root):
    if not is_installed("apache"):
        pytest.skip("Apache is not installed")
    layer = tmp_path / "layer"
    layer.mkdir()
    with RealServer("apache", tmp_path / "server") as server:
        (server.root / "Home").mkdir()
        done = subprocess.run(
            ["unshare", "-m", "sh", "-c", IN_A_LAYER, "sh", layer, USE, package, server.container],
            capture_output=True, text=True, check=False, timeout=5 * MINUTE)
        if "overlay" in done.stderr and "mount" in done.stderr and not done.stdout:
            pytest.skip("no layer over this system can be made here: " + done.stderr.strip())
        assert done.returncode == 0, done.stdout + done.stderr
        version, *shown = done.stdout.splitlines()
        assert version == output(driver.executable(), "--version").strip()
        if os.access("/dev/fuse", os.W_OK) and shutil.which("fusermount3"):
            assert shown.pop(0) == "used"
            assert (server.root / "Home" / "note.txt").read_text() == "from the package\n"
    # The package system's own records, and the index of manuals that it keeps.
    left = [path for path in shown
            if not path.startswith(("./var/lib/dpkg/", "./var/cache/man/", "./var/cache/ldconfig/",
                                    "./etc/ld.so.cache"))]
    assert left == []
