"""Local files that vanish, shrink or find no room, signals, and readers that go away."""

import contextlib
import os
import shutil
import signal
import subprocess
import tempfile
import threading
from pathlib import Path

import pytest

from driver import ROOT, URL, children, environment, error_of, executable, start
from multistatus import multistatus, response, status

UNWRITABLE = 5
SIZE = 64 << 20


def new_item(name="a"):
    return {"filename": name, "parentItemIdentifier": ROOT}


# A sanitizer may keep a file of its own of half that size in the temporary directory.
KIBIBYTES = 1024


@contextlib.contextmanager
def small_disk(directory, kibibytes):
    """A file system of that size at `directory`; only root can make one."""
    if os.geteuid() != 0:
        pytest.skip("only root can mount a small file system to fill")
    directory.mkdir(exist_ok=True)
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={kibibytes}k", "none",
                              str(directory)], capture_output=True, text=True, check=False)
    if mounted.returncode != 0:
        pytest.skip(f"no small file system can be mounted here: {mounted.stderr.strip()}")
    try:
        yield directory
    finally:
        subprocess.run(["umount", "-l", str(directory)], check=True)


# ---- uploads -------------------------------------------------------------------------------------


def test_a_missing_file_is_not_uploaded(scene):
    with scene.drive() as drive:
        reply = drive.call("createItem", item=new_item(), contents=str(scene.directory / "gone"))
        assert error_of(reply) == (URL, -1100)
        text = reply["error"]["localizedDescription"]
        assert drive.log_lines(1) == [f"createItem /a failed: {text}"]
    assert scene.asked() == []


def test_a_folder_is_not_uploaded(scene):
    with scene.drive() as drive:
        reply = drive.call("createItem", item=new_item(), contents=str(scene.directory))
        assert error_of(reply) == (URL, -1101)
    assert scene.asked() == []


def test_a_pipe_is_not_waited_for(scene):
    pipe = scene.directory / "pipe"
    os.mkfifo(pipe)
    with scene.drive() as drive:
        reply = drive.call("createItem", item=new_item(), contents=str(pipe))
        assert reply["error"]["domain"] == URL
    assert scene.asked() == []


def test_a_file_that_vanishes_during_the_upload_is_sent_whole(scene):
    body = scene.directory / "body"
    body.write_bytes(b"x" * SIZE)
    scene.script(status(201, readBytes=1, readBody=False, holdFor="unused"), multistatus())
    scene.script(status(201), multistatus())
    with scene.drive() as drive:
        number = drive.send("createItem", item=new_item(), contents=str(body))
        scene.server.waitForEvents("secured", 1)
        body.unlink(missing_ok=True)
        reply = drive.reply(number)
    # Either it was open already and is sent whole, or nothing was sent at all.
    if reply["error"] is None:
        assert scene.server.requests[0]["bodyLength"] == SIZE
    else:
        assert error_of(reply) == (URL, -1100)
        assert scene.asked() == []


def test_a_file_that_shrinks_during_the_upload_is_an_error(scene):
    body = scene.directory / "body"
    with body.open("wb") as file:
        file.truncate(256 << 20)
    # The server reads nothing until the file has shrunk.
    gate = threading.Event()
    answer = scene.server.answer

    def wait_then_answer(method, target):
        gate.wait(60)
        return answer(method, target)

    scene.server.answer = wait_then_answer
    scene.script(status(201), multistatus())
    with scene.drive() as drive:
        number = drive.send("createItem", item=new_item(), contents=str(body))
        scene.server.waitForEvents("secured", 1)
        os.truncate(body, 100)
        gate.set()
        reply = drive.reply(number)
        assert reply["error"] is not None
        assert reply["error"]["domain"] == URL
        assert drive.call("item", identifier=ROOT)["error"] is None
    assert all(not request["complete"] for request in scene.server.requests)


# ---- downloads -----------------------------------------------------------------------------------


def test_a_download_without_room_is_an_error_and_leaves_nothing(scene):
    with small_disk(scene.directory / "disk", KIBIBYTES) as disk:
        scene.script({"fill": 4 << 20}, {"body": "small"}, multistatus())
        with scene.drive(env={"TMPDIR": str(disk)}) as drive:
            reply = drive.call("fetchContents", identifier="/large")
            assert error_of(reply) == (URL, -3003)
            assert os.listdir(disk) == []
            text = reply["error"]["localizedDescription"]
            assert drive.log_lines(1) == [f"fetch /large failed: {text}"]
            # The room is free again.
            reply = drive.call("fetchContents", identifier="/small")
            assert Path(reply["url"]).read_text() == "small"


def test_get_without_room_keeps_the_old_file(scene):
    with small_disk(scene.directory / "disk", KIBIBYTES) as disk:
        target = disk / "target"
        target.write_text("before")
        scene.script({"fill": 4 << 20})
        result = scene.run("get", "/large", target)
        assert result.returncode in (1, UNWRITABLE)
        assert result.stderr
        assert target.read_text() == "before"
        assert os.listdir(disk) == ["target"]


@pytest.mark.parametrize("place", ["missing", "file"])
def test_without_a_temporary_directory_a_fetch_is_an_error(scene, place):
    (scene.directory / "file").write_text("")
    scene.script({"body": "x"})
    with scene.drive(env={"TMPDIR": str(scene.directory / place)}) as drive:
        reply = drive.call("fetchContents", identifier="/a")
        assert reply["error"] is not None
        assert drive.call("item", identifier=ROOT)["error"] is None
        drive.finish()


def test_get_into_a_folder_that_is_not_there_is_an_error(scene):
    scene.script({"body": "x"}, multistatus())
    result = scene.run("get", "/a", scene.directory / "missing" / "a")
    assert result.returncode in (1, UNWRITABLE)
    assert not (scene.directory / "missing").exists()


# ---- signals and readers -------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_an_interrupted_download_leaves_no_partial_file(scene, number):
    target = scene.directory / "downloads" / "a"
    target.parent.mkdir()
    scene.script({"fill": SIZE, "pauseAt": SIZE // 2, "pauseFor": "never"})
    process = start("get", "/a", target, container=scene.container, env=scene.environment())
    scene.server.waitForRequests(1)
    process.send_signal(number)
    process.communicate(timeout=60)
    assert process.returncode == -number or process.returncode == 128 + number
    assert list(target.parent.iterdir()) == []
    assert scene.leftovers() == []


def test_an_interruption_after_the_body_leaves_no_file(scene):
    target = scene.directory / "downloads" / "a"
    target.parent.mkdir()
    scene.routes({"GET /a": {"status": 200, "body": "whole"},
                  "PROPFIND /a": dict(multistatus(response("/a")), holdFor="never")})
    process = start("get", "/a", target, container=scene.container, env=scene.environment())
    scene.server.waitForRequests(2)
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=60)
    assert process.returncode == -signal.SIGINT
    assert list(target.parent.iterdir()) == []
    assert scene.leftovers() == []


def serve_file(scene):
    scene.routes({"GET /a": {"status": 200, "body": "whole"},
                  "PROPFIND /a": multistatus(response("/a"))})


def test_a_download_onto_a_pipe_is_written_into_it(scene):
    scene.routes({"GET /a": {"status": 200, "body": "whole"},
                  "PROPFIND /a": multistatus(response("/a"))})
    pipe = scene.directory / "pipe"
    os.mkfifo(pipe)
    process = start("get", "/a", pipe, container=scene.container, env=scene.environment())
    assert pipe.read_bytes() == b"whole"
    process.communicate(timeout=60)
    assert process.returncode == 0
    assert pipe.is_fifo()


def test_a_download_goes_to_what_a_process_has_open(scene):
    serve_file(scene)
    out = scene.directory / "out"
    with out.open("wb") as file:
        file.write(b"longer than the download")
        file.flush()
        assert scene.run("get", "/a", "/dev/stdout", stdout=file).returncode == 0
    assert out.read_bytes() == b"whole"
    reading, writing = os.pipe()
    with open(reading, "rb") as pipe:
        process = start("get", "/a", f"/dev/fd/{writing}", container=scene.container,
                        env=scene.environment(), pass_fds=[writing])
        os.close(writing)
        assert pipe.read() == b"whole"
        process.communicate(timeout=60)
    assert process.returncode == 0
    assert Path("/dev/stdout").is_symlink()


def test_a_download_replaces_a_symbolic_link(scene):
    serve_file(scene)
    other = scene.directory / "other"
    other.write_bytes(b"precious")
    link = scene.directory / "link"
    for target in (other, scene.directory / "missing" / "file"):
        link.unlink(missing_ok=True)
        link.symlink_to(target)
        assert scene.run("get", "/a", link).returncode == 0
        assert not link.is_symlink() and link.read_bytes() == b"whole"
    assert other.read_bytes() == b"precious"


def test_a_download_follows_a_symbolic_link_when_told(scene):
    serve_file(scene)
    folder = scene.directory / "elsewhere"
    folder.mkdir()
    link = scene.directory / "link"
    link.symlink_to("elsewhere/file")
    for _ in range(2):
        assert scene.run("get", "--follow", "/a", link).returncode == 0
        assert link.is_symlink()
        assert (folder / "file").read_bytes() == b"whole"
        assert [entry.name for entry in folder.iterdir()] == ["file"]


def test_a_download_goes_into_the_folder_that_a_link_leads_to(scene):
    serve_file(scene)
    folder = scene.directory / "elsewhere"
    folder.mkdir()
    link = scene.directory / "link"
    link.symlink_to(folder)
    assert scene.run("get", "/a", link).returncode == 0
    assert (folder / "a").read_bytes() == b"whole"
    assert link.is_symlink()


@pytest.mark.parametrize("mode", [0o1777, 0o777, 0o770])
@pytest.mark.parametrize("to", ["file", "missing", "pipe"])
def test_a_planted_link_is_never_followed(scene, mode, to):
    serve_file(scene)
    shared = scene.directory / "shared"
    shared.mkdir()
    shared.chmod(mode)
    target = scene.directory / "target"
    if to == "file":
        target.write_bytes(b"precious")
    elif to == "pipe":
        os.mkfifo(target)
    (shared / "a").symlink_to(target)
    followed = scene.run("get", "--follow", "/a", f"{shared}/")
    assert followed.returncode == UNWRITABLE
    assert b"is not followed" in followed.stderr
    assert scene.run("get", "/a", f"{shared}/").returncode == 0
    assert not (shared / "a").is_symlink()
    assert (shared / "a").read_bytes() == b"whole"
    assert os.listdir(shared) == ["a"]
    if to == "file":
        assert target.read_bytes() == b"precious"
    elif to == "missing":
        assert not target.exists()


@pytest.mark.parametrize("form", ["{}", "{}/", "{}/b"])
def test_a_planted_link_to_a_folder_is_never_followed(scene, form):
    serve_file(scene)
    shared = scene.directory / "shared"
    shared.mkdir()
    shared.chmod(0o1777)
    private = scene.directory / "private"
    private.mkdir()
    (shared / "link").symlink_to(private)
    result = scene.run("get", "/a", form.format(shared / "link"))
    assert result.returncode == UNWRITABLE
    assert f"{shared}/link: is a symbolic link" in result.stderr.decode()
    assert os.listdir(private) == []
    assert (shared / "link").is_symlink()
    assert scene.asked() == []


def test_another_users_pipe_in_a_folder_for_all_gets_nothing(scene):
    if os.geteuid() != 0:
        pytest.skip("only root can give a pipe away")
    shared = scene.directory / "shared"
    shared.mkdir()
    shared.chmod(0o1777)
    os.mkfifo(shared / "a")
    os.chown(shared / "a", 65534, 65534)
    result = scene.run("get", "/a", shared)
    assert result.returncode == UNWRITABLE
    assert b"belongs to another user" in result.stderr
    assert scene.asked() == []


def test_a_download_of_an_ordinary_user_leaves_another_users_link_alone(scene):
    if os.geteuid() != 0:
        pytest.skip("only root can become another user")
    serve_file(scene)
    with tempfile.TemporaryDirectory() as directory:
        # The user has to be able to get there.
        place = Path(directory)
        place.chmod(0o755)
        for name in ("container", "mine"):
            shutil.copytree(scene.container, place / name)
            for path in (place / name, *(place / name).iterdir()):
                os.chown(path, 65534, 65534)
        program = place / "kestrowan"
        shutil.copy(executable(), program)
        program.chmod(0o755)
        shared = place / "shared"
        shared.mkdir()
        shared.chmod(0o1777)
        victim = place / "mine" / "victim"
        victim.write_bytes(b"precious")
        os.chown(victim, 65534, 65534)
        (shared / "a").symlink_to(victim)
        result = subprocess.run([program, "get", "/a", f"{shared}/"],
                                env=environment(place / "container"), cwd="/", user=65534,
                                group=65534, extra_groups=[], capture_output=True, timeout=120,
                                check=False)
        assert result.returncode == UNWRITABLE, result
        assert victim.read_bytes() == b"precious"
        assert (shared / "a").is_symlink()
        assert os.listdir(shared) == ["a"]


def test_a_name_with_a_nul_is_no_local_file(scene):
    scene.routes({"GET /a%00b": {"status": 200, "body": "whole"},
                  "PROPFIND /a%00b": multistatus(response("/a%00b"))})
    with scene.drive() as drive:
        reply = drive.call("fetchContents", identifier="/a\0b")
        assert error_of(reply) == ("NSCocoaErrorDomain", 514)
        reply = drive.call("createItem", item=new_item(), contents=str(scene.directory) + "\0x")
        assert error_of(reply) == (URL, -1100)
    assert scene.leftovers() == []


def test_a_reader_that_goes_away_ends_a_recursive_listing(scene):
    folders = [response(f"/{number}/", "<D:collection/>") for number in range(40)]
    scene.routes({"PROPFIND /": multistatus(*folders)},
                 responses=[multistatus(*[response(f"/x/{n}") for n in range(50)])])
    process = start("ls", "-R", container=scene.container, env=scene.environment())
    process.stdout.close()
    assert process.wait(60) == UNWRITABLE
    assert process.stderr.read() == b""
    process.stderr.close()


def test_an_interrupted_driver_leaves_no_partial_file(scene):
    scene.script({"fill": SIZE, "pauseAt": SIZE // 2, "pauseFor": "never"})
    drive = scene.drive()
    drive.send("fetchContents", identifier="/a")
    scene.server.waitForRequests(1)
    drive.process.send_signal(signal.SIGINT)
    assert drive.finish() != 0
    assert scene.leftovers() == []


def test_the_driver_ends_when_nobody_reads(scene):
    scene.script(multistatus())
    process = start("drive", container=scene.container, env=scene.environment(),
                    stdin=subprocess.PIPE)
    process.stdout.close()
    request = b'{"id":1,"request":"enumerateItems","identifier":"/"}\n'
    with contextlib.suppress(BrokenPipeError):
        for _ in range(20):
            process.stdin.write(request)
            process.stdin.flush()
    with contextlib.suppress(BrokenPipeError):
        process.stdin.close()
    assert process.wait(60) == UNWRITABLE
    assert b"Broken pipe" in process.stderr.read()
    process.stderr.close()


def test_no_child_process_is_left(scene):
    scene.script(multistatus(response("/a")))
    with scene.drive() as drive:
        drive.call("enumerateItems", identifier=ROOT)
        drive.call("fetchContents", identifier="/a")
        assert children(drive.process.pid) == []


def test_descriptors_do_not_pile_up(scene):
    body = scene.directory / "body"
    body.write_text("data")
    scene.script(multistatus(response("/a")))

    def descriptors(drive):
        return len(os.listdir(f"/proc/{drive.process.pid}/fd"))

    with scene.drive() as drive:
        counts = []
        for _ in range(3):
            for _ in range(30):
                drive.call("enumerateItems", identifier=ROOT)
                drive.call("createItem", item=new_item(), contents=str(body))
                drive.call("createItem", item=new_item(), contents="/missing")
                reply = drive.call("fetchContents", identifier="/a")
                os.unlink(reply["url"])
            counts.append(descriptors(drive))
    assert counts[-1] <= counts[0]
