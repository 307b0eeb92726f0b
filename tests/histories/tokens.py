"""What has become of each token: whether it is somewhere, was given up, or is lost."""

import json
import math
from pathlib import Path
from typing import NamedTuple
from urllib.parse import unquote, urlsplit

from program import TOKEN

# The kinds of step that replace or remove what they saw, and which of their places that was at.
REPLACED = {"rename": "to", "save": "at", "remove": "at"}
# How long after the server's answer the mount shows what was in it, in seconds.
SHOWN_WITHIN = 0.3
# How long a request is on its way to the server, and cannot be called back, in seconds.
SENT_WITHIN = 0.05
# The same of one that was on its way when its host was stopped, once the host goes on.
SENT_AFTER_STOP = 0.5


class Change(NamedTuple):
    began: float
    ended: float
    method: str
    at: str
    to: str


class Fate(NamedTuple):
    """The request that took something away, and where that had been: a request of ours may have
    moved it aside first. The first looks at that place that can have shown it, and that must have
    before the request, had ended then; None when there was none."""
    change: Change
    places: set
    can_be_seen: float
    was_seen: float


class Requests:
    """What a server was asked for and did, by its log."""

    def __init__(self, directory, prefix):
        self.changes = []
        self.looks = []  # (when it began, when it had ended, at)
        self.lines = []  # (when, at, text)
        log = Path(directory) / "spans.log"
        for line in log.read_text(encoding="utf-8", errors="replace").splitlines():
            began, ended, status, method, to, path = line.split(" ", 5)
            if not path.startswith(prefix) or int(status) >= 400:
                continue
            at = path[len(prefix):].rstrip("/")
            to = unquote(urlsplit(to).path)[len(prefix):].rstrip("/")
            began, ended = int(began) / 1e6, int(ended) / 1e6
            self.lines.append((began, at, f"{method} {at} {to} ({(ended - began) * 1000:.0f} ms)"))
            if method in ("PUT", "DELETE", "MOVE"):
                self.changes.append(Change(began, ended, method, at, to))
            elif method == "PROPFIND":
                self.looks.append((began, ended, at))
        self.changes.sort()

    def fate(self, place, before, after, until):
        """What took away what came to a place between the two times; None when nothing did until
        another time. Moves are followed."""
        places = {place}
        for change in self.changes:
            if change.ended < before or change.began > until:
                continue
            is_at = change.at == place
            if change.method == "PUT" and not is_at:
                continue
            if not (place + "/").startswith(change.at + "/"):
                continue
            if change.method == "MOVE":
                place = change.to + place[len(change.at):]
                places.add(place)
                continue
            near = (place, place.rpartition("/")[0])
            looks = [(began, ended) for began, ended, at in self.looks
                     if at in near and ended >= before]
            return Fate(change, places, min((ended for _, ended in looks), default=None),
                        min((ended for began, ended in looks
                             if began >= after and ended <= change.began - SENT_WITHIN),
                            default=None))
        return None


class Told:
    """What the programs' logs say."""

    def __init__(self, logs):
        self.acknowledged = {}  # token: the step that wrote it
        self.given_up = set()
        self.replaced = []  # (when a program looked, when its step had ended, place)
        self.lines = []  # (when, place, text)
        self.steps = 0
        for log in logs:
            self._read(log)

    def _read(self, log):
        step = None
        for line in log.read_bytes().splitlines():
            said = json.loads(line)
            if "begin" in said:
                step = said
                self.given_up |= {token.encode() for token in said["saw"]}
                self.lines.append((said["time"], said["at"], f"{log.name} {said['begin']} "
                                   f"{said['at']} {said['to']} saw {said['saw']}, "
                                   f"wrote {said['token']}"))
                continue
            if step["begin"] in REPLACED:
                self.replaced.append((step["looked"], said["time"], step[REPLACED[step["begin"]]]))
            if said["end"] == "done":
                self.steps += 1
                if step["token"]:
                    self.acknowledged[step["token"].encode()] = step


    def has_raced(self, fate):
        """Whether what was taken came to be shown while a program that had looked at a place of it
        was about to replace or to remove what it had seen there."""
        return any(looked <= fate.was_seen + SHOWN_WITHIN and ended >= fate.can_be_seen
                   for looked, ended, at in self.replaced if at in fate.places)


def tokens_in(contents):
    return set(TOKEN.findall(contents))


def torn(tree):
    """Files that hold something that no program wrote as a whole."""
    return [path for path, contents in tree.items()
            if contents and TOKEN.sub(b"", contents).strip(b".")]


def kept_in(state):
    """The tokens in all files of a state."""
    found = set()
    for path in state.rglob("*"):
        if path.is_file() and path.parent.name != "temporary":
            found |= tokens_in(path.read_bytes())
    return found


class Judgement:
    def __init__(self, told, client, requests, stops, *places):
        """`stops` are the times from when to when the host was stopped; `places` are sets of tokens
        that are there in the end."""
        self.told = told
        self.requests = requests
        self.stops = stops
        found = set().union(client.known, *places)
        self.lost = []
        self.windows = []
        self.raced = []  # shown when a program was about to replace what it had seen there before
        self.taken = []  # by a request after a look that can have shown them
        for token, step in told.acknowledged.items():
            if token not in found and token not in told.given_up:
                self.lost.append(self._told_of(token, [(step["at"], step["time"], step["time"])]))
        for token, came in client.written.items():
            if token not in found and token not in told.given_up:
                self._judge(token, came)

    def _judge(self, token, came):
        fate = None
        for number, (place, before, after) in enumerate(came):
            until = came[number + 1][1] if number + 1 < len(came) else math.inf
            fate = fate or self.requests.fate(place, before, after, until)
        if not fate:
            self.lost.append(self._told_of(token, came))
        elif not fate.was_seen or self._was_sent_before(fate):
            self.windows.append(token.decode())
        elif self.told.has_raced(fate):
            self.raced.append(token.decode())
        else:
            self.taken.append(f"by {fate.change.method} {fate.change.at} after "
                              f"{fate.change.began - came[0][1]:.3f} s\n"
                              + self._told_of(token, came))

    def _was_sent_before(self, fate):
        """Whether the request may have been on its way when its host was stopped, before the look."""
        return any(began <= fate.was_seen and began <= fate.change.began <= ended + SENT_AFTER_STOP
                   for began, ended in self.stops)

    def _told_of(self, token, came):
        """What happened at the places of a token after it came there."""
        lines = [(when, f"comes to {place}") for place, when, _ in came]
        for place, before, _ in came:
            near = (place, place.rpartition("/")[0])
            lines += [(when, text) for when, at, text in self.told.lines + self.requests.lines
                      if before - 0.5 < when < before + 8 and (at in near or place + " " in text)]
        first = min(when for _, when, _ in came)
        return "\n".join([f"{token.decode()} is lost:"] + [
            f"  {when - first:+8.3f} {text}" for when, text in sorted(set(lines))])
