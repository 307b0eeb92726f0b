"""Random things happen on both sides of a mount, to the server and to the host; in the end both
sides are the same, and neither has lost anything.

KFP_SEED names the first history, KFP_HISTORIES how many there are. One that fails is shown with as
few steps as fail.
"""

import os
import time

import pytest

from steps import group_of, script_of
from world import World

FIRST = int(os.environ.get("KFP_SEED") or 1)
COUNT = int(os.environ.get("KFP_HISTORIES") or 24)
# Steps are left out of a failing history for so long.
SHRINKING = int(os.environ.get("KFP_SHRINK_SECONDS") or 240)


def groups():
    found = {}
    for seed in range(FIRST, FIRST + COUNT):
        found.setdefault(group_of(seed), []).append(seed)
    return list(found.values())


@pytest.fixture(name="world")
def _world(apache, apache_place):
    world = World(apache, apache_place)
    yield world
    world.clean_up()


def is_event(entry):
    return entry[0] is None


def without(entries, chosen):
    return [entry for number, entry in enumerate(entries) if number not in chosen]


def chunks(numbers):
    """Parts of a list that could be left out, the large ones first."""
    size = len(numbers)
    while size > 0:
        yield from (set(numbers[at:at + size]) for at in range(0, len(numbers), size))
        size //= 2


class Shrinking:
    """Leaves steps and events out of a history that fails, while it does."""

    def __init__(self, world, entries):
        self.world = world
        self.entries = entries
        self.problems = None
        self.deadline = time.monotonic() + SHRINKING

    def try_all(self, candidates):
        """Plays candidates that have the same events, all at a time; takes the shortest of those
        that fail."""
        script = []
        events = len(list(filter(is_event, candidates[0])))
        rests = [list(candidate) for candidate in candidates]
        for _ in range(events + 1):
            for variant, rest in enumerate(rests):
                while rest and not is_event(rest[0]):
                    (seed, _), step = rest.pop(0)
                    script.append(((seed, variant), step))
            ended = [rest.pop(0) for rest in rests if rest]
            script += ended[:1]
        found = {variant: problems
                 for (_, variant), problems in self.world.play(script).items()}
        if found:
            best = min(found, key=lambda variant: len(candidates[variant]))
            self.entries, self.problems = candidates[best], found[best]
        return bool(found)

    def run(self):
        """Whether the history fails alone; its entries are the fewest then."""
        if not self.try_all([self.entries]):
            return False
        for is_chosen in (is_event, lambda entry: not is_event(entry), is_event):
            while self.leave_out(is_chosen) and time.monotonic() < self.deadline:
                pass
        return True

    def leave_out(self, is_chosen):
        numbers = [number for number, entry in enumerate(self.entries) if is_chosen(entry)]
        candidates = [fewer for chunk in chunks(numbers)
                      if not all(map(is_event, fewer := without(self.entries, chunk)))]
        if candidates and not is_event(self.entries[numbers[0]]):
            return self.try_all(candidates)
        return any(time.monotonic() < self.deadline and self.try_all([candidate])
                   for candidate in candidates)


def report(world, script, seed, problems):
    entries = [entry for entry in script if is_event(entry) or entry[0][0] == seed]
    shrinking = Shrinking(world, entries)
    lines = [f"history {seed} (KFP_SEED={seed} KFP_HISTORIES=1):", *problems]
    if shrinking.run():
        lines += ["as few steps as fail:", *(f"  {step}" for _, step in shrinking.entries),
                  "what is wrong then:", *shrinking.problems]
    else:
        lines += ["it did not fail once more, alone; its steps:",
                  *(f"  {step}" for _, step in entries)]
    return "\n".join(lines)


@pytest.mark.parametrize("seeds", groups(), ids=lambda seeds: f"{seeds[0]}-{seeds[-1]}")
def test_both_sides_agree_and_nothing_is_lost(world, seeds):
    print(f"KFP_SEED={seeds[0]} KFP_HISTORIES={len(seeds)}")
    script = script_of(seeds)
    problems = {seed: found for (seed, _), found in world.play(script).items()}
    if problems:
        first = min(problems)
        pytest.fail(f"{sorted(problems)} failed\n" + report(world, script, first, problems[first]),
                    pytrace=False)
