"""The steps of a history, by chance.

A step does not depend on what went before: it can be left out of a history that fails. Events
happen to all histories that are under way.
"""

import random
from typing import NamedTuple

ROUNDS = 20
# So many histories are under way at a time. What happens to one of them depends on its group.
GROUP = 12

FILES = ["/a", "/b", "/c", "/d/a", "/d/b", "/e/a", "/d/e/a"]
FOLDERS = ["/d", "/e", "/d/e"]
# How often each kind of step occurs.
HERE = {"write": 14, "append": 8, "truncate": 4, "mapped": 4, "replace": 9, "rename": 12,
        "move_folder": 5, "remove": 8, "make_folder": 7, "remove_folder": 4, "read": 6, "look": 4}
AT_SERVER = {"server_write": 22, "server_remove": 8, "server_remove_folder": 3, "server_rename": 9,
             "server_move_folder": 4, "server_make_folder": 5}

# The same for large files, which are read while they arrive, beside the other steps.
LARGE = {None: 8, "server_film": 5, "peek": 6, "finish": 3}

UP = {None: 10, "pause": 5, "freeze": 2, "stop": 2, "kill": 2}
FROZEN = {None: 4, "thaw": 6, "kill": 1}
STOPPED = {None: 4, "start": 6, "kill": 2}


def group_of(seed):
    return (seed - 1) // GROUP


class Step(NamedTuple):
    kind: str
    at: str = ""
    to: str = ""

    def __str__(self):
        if not self.at:
            return f"-- {self.kind} --"
        return " ".join([self.kind, self.at, self.to]).rstrip()


def chosen(rng, weights):
    return rng.choices(list(weights), list(weights.values()))[0]


def has_both_sides(seed):
    """In every other history only the mount's side changes anything."""
    return seed % 2 == 1


def step_by(rng, kinds):
    kind = chosen(rng, kinds)
    places = FOLDERS if "folder" in kind else FILES
    at = rng.choice(places)
    # A move may take a name of either sort.
    to = rng.choice(places if rng.random() < 0.8 else FILES + FOLDERS)
    return Step(kind, at, to if "rename" in kind or "move" in kind.split("_") else "")


def steps_of(seed):
    rng = random.Random(f"steps {seed}")
    kinds = HERE | AT_SERVER if has_both_sides(seed) else HERE
    return [step_by(rng, kinds) for _ in range(ROUNDS)]


def large_steps_of(seed):
    """A step with a large file, or None, beside each of the others."""
    if not has_both_sides(seed):
        return [None] * ROUNDS
    rng = random.Random(f"large {seed}")
    kinds = [chosen(rng, LARGE) for _ in range(ROUNDS)]
    return [kind and Step(kind, rng.choice(FILES)) for kind in kinds]


def events_of(group):
    """An event, or None, after each round."""
    rng = random.Random(f"events {group}")
    state = UP
    events = []
    for _ in range(ROUNDS):
        event = chosen(rng, state)
        state = {"freeze": FROZEN, "stop": STOPPED, "thaw": UP, "start": UP}.get(event, state)
        events.append(event and Step(event))
    return events


def script_of(seeds):
    """What happens to some histories of one group: (key, step), and (None, step) for what happens
    to all of them. A key is (seed, variant)."""
    [group] = {group_of(seed) for seed in seeds}
    events = events_of(group)
    steps = {seed: list(zip(steps_of(seed), large_steps_of(seed))) for seed in seeds}
    script = []
    for number in range(ROUNDS):
        script += [((seed, 0), step) for seed in seeds for step in steps[seed][number] if step]
        if events[number]:
            script.append((None, events[number]))
    return script
