"""Several programs and another client of the server work on the same names, while the host is
killed and stopped, and the server freezes and comes back elsewhere.

Every text is a token. Each one whose writing a program was told of is in the end at the server, in
the mount or on this disk, unless a program had seen it and replaced or removed it. The same holds
for what the other client wrote. What docs/REPLICA.md says can happen to that is counted: a request
changes a place that nobody had looked at since, or a program replaces what has come to its place since
it looked. So is a host that is killed and cannot die, which tests/hang/test_death.py tells of.

KFP_SEED names the first run, KFP_TOGETHER how many there are.
"""

import contextlib
import os
import random
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

import hosting
from hosted import DONE, wait_for
from other_client import OtherClient
from tokens import Judgement, Requests, Told, kept_in, tokens_in, torn
from trees import differences, read_tree

FIRST = int(os.environ.get("KFP_SEED") or 1)
COUNT = int(os.environ.get("KFP_TOGETHER") or 1)
PROGRAMS = 4
ROUNDS = 10
ROUND_SECONDS = 1.2
# A folder does not move to where a request without an answer may still remove it: ten minutes.
SETTLING = 660
DYING_SECONDS = 10
PROGRAM = Path(__file__).with_name("program.py")
EVENTS = {None: 4, "kill": 3, "stop_host": 3, "freeze": 2, "move_server": 2, "end_host": 1}


class Run:
    def __init__(self, server, place, seed):
        self.server = server
        self.place = place
        self.rng = random.Random(f"together {seed}")
        self.seed = seed
        self.happened = []
        self.stuck = 0
        self.there = server.root / "Home" / "Documents" / "together"
        self.here = place.point / "Home" / "Documents" / "together"
        for folder in ("x", "y"):
            (self.there / folder).mkdir(parents=True)
        self.locks = place.directory / "locks"
        self.locks.mkdir()
        self.client = OtherClient(self.there, place.directory / "aside",
                                  random.Random(f"client {seed}"))
        self.logs = [place.directory / f"log{number}" for number in range(PROGRAMS)]
        self.ending = threading.Event()
        self.stops = []  # (from when, to when) the host was stopped

    def begin(self):
        self.mount()
        wait_for(self.here.is_dir, "folder")
        self.programs = [
            subprocess.Popen([sys.executable, "-B", PROGRAM, self.here, self.locks, log,
                              f"p{number}", f"{self.seed} {number}"])
            for number, log in enumerate(self.logs)]
        self.other = threading.Thread(target=self.be_other)
        self.other.start()

    def be_other(self):
        while not self.ending.wait(self.client.rng.choice((0.02, 0.1, 0.4))):
            self.client.step()

    def mount(self):
        self.place.mount("--drain", "0").ready().watchdog.cancel()

    def play(self):
        for _ in range(ROUNDS):
            time.sleep(ROUND_SECONDS)
            event = self.rng.choices(list(EVENTS), list(EVENTS.values()))[0]
            self.happened.append(event or "-")
            if event:
                getattr(self, event)()

    # Events.

    def kill(self):
        process = self.place.mounts[-1].process
        process.kill()
        try:
            process.wait(DYING_SECONDS)
        except subprocess.TimeoutExpired:
            # See tests/hang/test_death.py.
            self.stuck += 1
            assert hosting.cut(self.place.point)
        self.place.mounts[-1].wait()
        self.mount()

    def end_host(self):
        """In order, while programs work."""
        self.place.run("unmount", "--force", self.place.point)
        self.place.mounts[-1].wait()
        self.mount()

    def stop_host(self):
        began = time.time()
        self.place.mounts[-1].send(signal.SIGSTOP)
        time.sleep(self.rng.choice((0.1, 0.5, 1.5)))
        self.place.mounts[-1].send(signal.SIGCONT)
        self.stops.append((began, time.time()))

    def freeze(self):
        self.server.freeze()
        time.sleep(self.rng.choice((0.5, 2)))
        if self.rng.random() < 0.4:
            self.kill()
        self.server.thaw()

    def move_server(self):
        """Another port, another password, another certificate."""
        self.server.stop()
        time.sleep(self.rng.choice((0, 1)))
        if self.rng.random() < 0.3:
            self.kill()
        self.server.start()

    # The end.

    def end(self):
        self.ending.set()
        self.other.join()
        (self.locks / "end").touch()
        for program in self.programs:
            assert program.wait(60) == 0

    def settle(self):
        """Waits until both sides are the same; gives what is not."""
        deadline = time.monotonic() + SETTLING
        while True:
            self.place.run("wait", "--timeout", "20")
            unequal = differences(read_tree(self.here), self.at_server())
            if not unequal or time.monotonic() > deadline:
                return unequal
            time.sleep(0.2)

    def at_server(self):
        return {path: contents for path, contents in read_tree(self.there).items()
                # What is left of an upload whose server was stopped; nobody is shown it.
                if not path.rpartition("/")[2].startswith(".davfs.tmp")}

    def clean_up(self):
        self.ending.set()
        with contextlib.suppress(OSError):
            self.server.thaw()
        for program in getattr(self, "programs", []):
            program.kill()
            program.wait()


@pytest.mark.parametrize("seed", range(FIRST, FIRST + COUNT))
def test_no_token_is_lost(apache, apache_place, seed):
    run = Run(apache, apache_place, seed)
    try:
        run.begin()
        run.play()
        run.end()
        unequal = run.settle()
        here, there = read_tree(run.here), run.at_server()
        # What nothing refers to is swept away when a host begins.
        run.end_host()
        # What was refused for good stays here, with its tokens, until it is tried again.
        run.place.run("wait", "--timeout", "20")
        run.place.run("retry")
        assert run.place.ask("wait", "--timeout", str(SETTLING), seconds=2 * SETTLING)["synced"]
        result = run.place.run("unmount", "--force", run.place.point)
        assert result.returncode == DONE, result.stderr
        run.place.mounts[-1].wait()
    finally:
        run.clean_up()
    told = Told(run.logs)
    requests = Requests(apache.directory, "/Home/Documents/together")
    judgement = Judgement(told, run.client, requests, run.stops, kept_in(apache_place.state),
                          *(tokens_in(contents) for tree in (here, there)
                            for contents in tree.values() if contents))
    print(f"KFP_SEED={seed}: {told.steps} steps, {len(run.place.mounts) - 2} hosts ended, "
          f"{len(told.acknowledged)} + {len(run.client.written)} tokens, "
          f"{len(judgement.windows)} met by a request that had not seen them, "
          f"{len(judgement.raced)} shown to a program that was about to replace them, "
          f"{run.stuck} deaths that had to be helped; " + " ".join(run.happened))
    assert told.acknowledged
    assert not judgement.lost, "\n".join(judgement.lost)
    assert not judgement.taken, "\n".join(judgement.taken)
    assert unequal == []
    assert torn(here) == []
