"""How ./dev run prints what it has seen."""

import os

STATES = {0: "launched", 1: "active", 2: "inactive", 3: "hidden", 4: "terminating"}


def chapter(text):
    print(f"\n{text}")


def line(label, text):
    print(f"  {label:<18} {text}", flush=True)


def wait_status(raw):
    if os.WIFSIGNALED(raw):
        return f"raw wait status {raw}: ended by signal {os.WTERMSIG(raw)}"
    return f"raw wait status {raw}: exit code {os.WEXITSTATUS(raw)}"
