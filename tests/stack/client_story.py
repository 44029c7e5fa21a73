"""What ./dev run shows of procwardenctl, the command line client: what is typed, and what it prints."""

import re
import subprocess

from .stack import SHORT_LIVED_OPTIONS
from .telling import chapter
from .waiting import LIMIT, until


def explain(stack, app):
    chapter("What a start would do, before there is one")
    words = ("explain", app)
    text = _wait_for(stack, words, rf"  passed  Installed: .*{re.escape(app)}\.desktop\n")
    checks, _, rest = text.partition("\n\n")
    _show(words, checks)
    print(f"  ... and {len(rest.splitlines())} lines more, with each argument and variable", flush=True)


def status(stack, app):
    chapter("What is known of it, and when it had come how far")
    words = ("status", app)
    _show(words, _wait_for(stack, words, r"(?s)  State: active\n.*\nLast launch: .*, first window \d+ ms"))


def stop(stack, app):
    words = ("stop", app)
    _show(words, _run(stack, words))


def history(stack, app, reason):
    """reason: a pattern that the line of its latest end has."""
    words = ("history", "--lines", "1", app)
    _show(words, _wait_for(stack, words, rf"\n[-\d]+ [:\d]+  {re.escape(app)} .*{reason}"))


def _show(words, text):
    print(f"  $ procwardenctl {' '.join(words)}")
    for line in text.splitlines():
        print(f"  {line}", flush=True)


def _wait_for(stack, words, pattern):
    """What it prints, once that has the pattern."""
    def found():
        text = _run(stack, words)
        return text if re.search(pattern, text) else None

    return until(found, f"procwardenctl {' '.join(words)} to print {pattern!r}", detail=lambda: _run(stack, words))


def _run(stack, words):
    # Shown to the service, so that it can say whose program has asked.
    command = stack.root.shown(stack.program("procwardenctl"), *words)
    result = subprocess.run(command, env={**stack.environment(), **SHORT_LIVED_OPTIONS}, capture_output=True, text=True,
                            timeout=2 * LIMIT, check=False)
    if result.returncode != 0:
        raise AssertionError(f"procwardenctl {' '.join(words)} ended with {result.returncode}: {result.stderr}")
    return result.stdout
