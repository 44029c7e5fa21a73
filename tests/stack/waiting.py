"""Waiting for something to happen, never longer than a limit."""

import time

# Only a failing test waits this long, so it is generous: a loaded machine and sanitizers are slow.
LIMIT = 30.0

# How often something is looked at that cannot announce itself, such as a file of the kernel's.
INTERVAL = 0.01


class NotInTime(AssertionError):
    """What was waited for did not happen within the limit."""


def until(condition, what, limit=LIMIT, detail=None):
    """Returns the first true value of condition(); fails with what (and detail(), if given) at the limit."""
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            more = f": {detail()}" if detail else ""
            raise NotInTime(f"not within {limit:g} s: {what}{more}")
        time.sleep(INTERVAL)
