"""What a host that was killed leaves, and how it is found and cleaned up."""

import os

from hosted import DONE, NOT_MOUNTED, is_mounted


def test_a_killed_hosts_changes_arrive_after_the_next_mount(own_place, server):
    mounted = own_place.mount().ready()
    documents = own_place.point / "Home" / "Documents"
    (documents / "new.txt").write_bytes(b"first")
    own_place.wait_synced()
    server._control("stop")
    (documents / "new.txt").write_bytes(b"second")
    (documents / "folder").mkdir()
    (documents / "folder" / "deep.txt").write_bytes(b"deep")
    os.rename(documents / "new.txt", documents / "renamed.txt")
    mounted.kill()
    assert is_mounted(own_place.point), "what a killed host leaves"

    server._control("start", "--parent", str(os.getpid()))
    own_place.mount().ready()
    assert (documents / "renamed.txt").read_bytes() == b"second"
    own_place.wait_synced()
    on_server = server.root / "Home" / "Documents"
    assert (on_server / "renamed.txt").read_bytes() == b"second"
    assert (on_server / "folder" / "deep.txt").read_bytes() == b"deep"
    assert sorted(os.listdir(on_server)) == ["folder", "renamed.txt"]


def test_what_a_killed_host_left_mounted_is_found_and_removed(place):
    mounted = place.mount().ready()
    mounted.kill()
    findings = [finding["text"] for finding in place.ask("doctor")["findings"]
                if finding["verdict"] == "warning" and finding["subject"] == "mount"]
    assert len(findings) == 1 and str(place.point) in findings[0]
    assert place.run("status").returncode == NOT_MOUNTED
    result = place.run("unmount", place.point)
    assert result.returncode == DONE
    assert b"had died" in result.stderr
    assert not is_mounted(place.point)


def test_commands_say_that_the_host_died_and_what_to_do(place):
    place.mount().ready().kill()
    advice = (f"kestrowan --container '{place.container}' mount --domain {place.domain} "
              f"'{place.point}'").encode()
    for command in (["status"], ["status", place.point], ["wait"], ["retry"],
                    ["evict", place.point / "Home" / "file"], ["pin", place.point]):
        result = place.run(*command)
        assert result.returncode == NOT_MOUNTED, (command, result.stderr)
        assert b"its host died" in result.stderr and advice in result.stderr, result.stderr
    assert "its host died" in place.ask("status", code=NOT_MOUNTED)["error"]["localizedDescription"]
    assert b"lies in no mount" in place.run("evict", place.directory).stderr


def test_a_mount_on_what_a_killed_host_left_works(place, folder):
    (folder / "a.txt").write_bytes(b"x")
    place.mount().ready().kill()
    place.mount().ready()
    assert os.listdir(place.point / "Home" / folder.name) == ["a.txt"]
