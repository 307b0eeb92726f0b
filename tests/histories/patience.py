"""Calls that last too long are interrupted, as by a person at a terminal."""

import contextlib
import signal

SECONDS = {"limit": 5.0}


class Interrupted(Exception):
    """What was begun may go on."""


def _interrupt(*_):
    raise Interrupted


@contextlib.contextmanager
def patience():
    before = signal.signal(signal.SIGALRM, _interrupt)
    signal.setitimer(signal.ITIMER_REAL, SECONDS["limit"])
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)
