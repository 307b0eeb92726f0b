"""A server and a mount at which histories are under way, and what happens to them."""

import contextlib
import time

import patience
from history import History
from hosted import DONE, wait_for
from server_side import changes_asked_for
from steps import has_both_sides
from trees import differences

# Longer than what has been listed is taken as it is.
PAUSE = 2.3
SETTLING = 90


class World:
    def __init__(self, server, place):
        self.server = server
        self.place = place
        self.aside = place.directory / "aside"
        self.aside.mkdir()
        self.plays = 0
        self.state = "up"

    def play(self, script):
        """Takes the steps of a script; gives what is wrong with histories, by their keys."""
        self.plays += 1
        histories = {
            key: self._begin(*key) for key in {key for key, _ in script} - {None}}
        began = time.monotonic()
        self.place.mount("--drain", "0").ready()
        wait_for(lambda: all(history.here.is_dir() for history in histories.values()), "folders")
        for key, step in script:
            if key is None:
                getattr(self, step.kind)()
            else:
                histories[key].take(step)
        if self.state != "up":
            getattr(self, {"frozen": "thaw", "stopped": "start"}[self.state])()
        for history in histories.values():
            with contextlib.suppress(patience.Interrupted), patience.patience():
                history.finish()
        played = time.monotonic()
        problems = self._end(histories)
        print(f"{len(script)} steps in {played - began:.1f} s; "
              f"both sides were the same after {time.monotonic() - played:.1f} s")
        return problems

    def _begin(self, seed, variant):
        name = f"{self.plays}-{seed}-{variant}"
        return History(name, self.place.point / "Home" / "Documents" / name,
                       self.server.root / "Home" / "Documents" / name, self.aside / name,
                       not has_both_sides(seed))

    # Events. What cannot happen as things are does not happen.

    def pause(self):
        time.sleep(PAUSE)

    def freeze(self):
        if self.state == "up":
            self.state = "frozen"
            self.server.freeze()
            patience.SECONDS["limit"] = 0.5

    def thaw(self):
        if self.state == "frozen":
            self.state = "up"
            self.server.thaw()
            patience.SECONDS["limit"] = 5.0

    def stop(self):
        if self.state == "up":
            self.state = "stopped"
            self.server.stop()

    def start(self):
        """Another port, another password, another certificate: the bridge file says so."""
        if self.state == "stopped":
            self.state = "up"
            self.server.start()

    def kill(self):
        self.place.mounts[-1].kill()
        self.place.mount("--drain", "0").ready()

    # The end.

    def _end(self, histories):
        found = {}
        unequal = self._settle(histories)
        recovered = self.place.history()
        requests = changes_asked_for(self.server.directory)
        for key, history in histories.items():
            problems = unequal.get(key) or history.problems(
                recovered, requests, f"/Home/Documents/{history.name}")
            if problems:
                found[key] = problems
        result = self.place.run("unmount", "--force", self.place.point)
        assert result.returncode == DONE, result.stderr
        assert self.place.mounts[-1].wait() == DONE
        return found

    def _settle(self, histories):
        """Waits until everything is sent and both sides are the same; gives what is not."""
        deadline = time.monotonic() + SETTLING
        left = dict(histories)
        unequal = {}
        while left and time.monotonic() < deadline:
            self.place.ask("wait", "--timeout", str(SETTLING))
            unequal = {key: self._differences(history) for key, history in left.items()}
            left = {key: histories[key] for key in left if unequal[key]}
            time.sleep(0.2 if left else 0)
        return {key: unequal[key] for key in left}

    @staticmethod
    def _differences(history):
        try:
            return [line + "  (mount / server)" for line in differences(*history.trees())]
        except OSError as error:
            return [repr(error)]

    def clean_up(self):
        with contextlib.suppress(OSError):
            self.server.thaw()
