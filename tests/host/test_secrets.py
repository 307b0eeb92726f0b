"""The password and what is made of it are shown nowhere while a mount lives."""

import base64
import json
import os
from pathlib import Path

from hosted import DONE, wait_for

ATTRIBUTES = ("identifier", "version", "state", "type", "changes", "downloaded", "pinned", "error")


def secrets_of(container):
    """The forms in which the password of a bridge file could come to light."""
    config = json.loads((container / "fp-webdav.json").read_text(encoding="utf-8"))
    password = config["pass"].encode()
    both = f"{config['user']}:{config['pass']}".encode()
    encoded = [base64.b64encode(text) for text in (password, both)]
    return [password, *encoded, *(text.rstrip(b"=") for text in encoded)]


def shown_by_attributes(path):
    shown = []
    for name in ATTRIBUTES:
        try:
            shown.append(os.getxattr(path, f"user.kestrowan.{name}"))
        except OSError:
            continue
    assert shown, "no attribute was shown"
    return b"\n".join([*shown, *map(os.fsencode, os.listxattr(path))])


def shown_by_process(pid):
    return b"\n".join(Path(f"/proc/{pid}/{name}").read_bytes()
                      for name in ("cmdline", "environ", "comm", "status"))


def test_attributes_errors_and_the_log_of_a_mount_in_the_background_hold_no_secret(
        own_place, server):
    result = own_place.run("mount", "--background", "--verbose", own_place.point)
    assert result.returncode == DONE
    shown = result.stdout + result.stderr
    pid = own_place.status()["process"]
    documents = own_place.point / "Home" / "Documents"
    (documents / "a.txt").write_bytes(b"x")
    own_place.wait_synced()
    # The password is refused from now on, and changes wait with an error.
    bridge = server.container / "fp-webdav.json"
    config = json.loads(bridge.read_text(encoding="utf-8"))
    secrets = secrets_of(server.container)
    wrong = bridge.with_name("new")
    wrong.write_text(json.dumps({**config, "pass": "quite-another-password"}), encoding="utf-8")
    wrong.chmod(0o600)
    os.replace(wrong, bridge)
    secrets += secrets_of(server.container)
    wait_for(lambda: own_place.status()["state"] == "held", "refusal of the password")
    (documents / "a.txt").write_bytes(b"changed")
    for path in (own_place.point, own_place.point / "Home", documents, documents / "a.txt"):
        shown += shown_by_attributes(path)
    shown += shown_by_process(pid)
    for command in (["status"], ["--json", "status"], ["wait", "--timeout", "1"], ["doctor"],
                    ["--verbose", "ls"], ["unmount", "--force", own_place.point]):
        done = own_place.run(*command)
        shown += done.stdout + done.stderr
    files = [path for path in own_place.directory.rglob("*") if path.is_file()]
    assert any("log" in path.name for path in files), files
    for path in files:
        shown += path.read_bytes()
    for secret in secrets:
        assert secret not in shown
