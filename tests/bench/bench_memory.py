"""Measures what looking after the memory costs, in a program of its own and in the service.

Prints one line of JSON per figure. PROCWARDEN_BIN_DIR names the programs, an optimised build.
"""

import contextlib
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from stack import Stack
from stack.waiting import until

BIN = os.environ["PROCWARDEN_BIN_DIR"]
STAMPS = os.path.join(BIN, "bench_stamps.so")
UNSANDBOXED = {"Sandboxing": "Disabled"}
APP = "org.example.Many"
RECORDS = 50
ROUNDS = 30
PACE_SECONDS = 20


def report(**figure):
    print(json.dumps(figure), flush=True)


class Stamps:
    """What the service notes of itself: (nanoseconds, what) in order."""

    def __init__(self, stack):
        self._path = os.path.join(stack.directory, "stamps")
        with open(self._path, "w"):
            pass
        os.chown(self._path, stack.user.uid, stack.user.gid)
        self.environment = {"BENCH_STAMPS": self._path,
                            "LD_PRELOAD": stack.applications.install_program("bench_stamps.so", STAMPS)}

    def read(self):
        with open(self._path) as file:
            lines = [line.split() for line in file.read().splitlines()]
        return [(int(when), what) for when, what in lines]

    def count(self, what):
        return sum(1 for _, seen in self.read() if seen == what)


def running(stack):
    return len(stack.control.running()[0])


def fill(stack, records):
    while running(stack) < records:
        stack.control.start(APP)


def bring_up(stack, records, **configuration):
    stack.install_sample(APP, exec_line="/bin/sleep 6000", sandbox=UNSANDBOXED,
                         main={"X-Nemo-Single-Instance": "no"})
    if configuration:
        stack.memory.configure(**configuration)
    stamps = Stamps(stack)
    stack.start(**stamps.environment)
    fill(stack, records)
    return stamps


def measure_kill():
    """From the opening of the meminfo that shows the shortage to the system call that kills."""
    with Stack(own_proc=True) as stack:
        stamps = bring_up(stack, RECORDS, CheckIntervalMsecCriticalMem=200)
        times = []
        for _ in range(ROUNDS):
            fill(stack, RECORDS)
            kills = stamps.count("kill")
            stack.service.wait_for_log("Memory level: normal")
            stack.memory.set_level("critical")
            until(lambda: stamps.count("kill") > kills, "the kill")
            stack.memory.set_level("normal")
            seen = stamps.read()
            first = [index for index, (_, what) in enumerate(seen) if what == "kill"][kills]
            # In front of it the memory is read once more, to be told with the kill.
            assert [what for _, what in seen[first - 2:first]] == ["meminfo", "meminfo"]
            times.append((seen[first][0] - seen[first - 2][0]) / 1e6)
            until(lambda: stack.service.log().rindex("Memory level: normal")
                  > stack.service.log().rindex("Memory level: critical"), "the end of the shortage")
        report(bench="from meminfo to SIGKILL", n=RECORDS, rounds=ROUNDS, median_ms=statistics.median(times),
               worst_ms=max(times), limit_ms=10)


def measure_pace():
    """Readings in a minute, as the configuration is when there is none."""
    with Stack(own_proc=True) as stack:
        shipped = {"CheckIntervalMsec": 5000, "CheckIntervalMsecLowMem": 2000, "CheckIntervalMsecCriticalMem": 1000}
        stamps = bring_up(stack, 0, **shipped)
        figures = {"no_record": readings(stamps)}
        fill(stack, 2 * PACE_SECONDS)
        for level in ("normal", "low", "critical"):
            changes = stack.service.log().count(f"Memory level: {level}")
            stack.memory.set_level(level)
            until(lambda: stack.service.log().count(f"Memory level: {level}") > changes or level == "normal"
                  and changes, "the level")
            figures[level] = readings(stamps)
        report(bench="readings in a minute", **figures)


def readings(stamps):
    before = stamps.count("meminfo")
    time.sleep(PACE_SECONDS)
    return (stamps.count("meminfo") - before) * 60 // PACE_SECONDS


@contextlib.contextmanager
def own_group():
    """A memory control group that nothing is left of, whatever ends the measuring."""
    group = tempfile.mkdtemp(prefix="procwarden-bench-", dir="/sys/fs/cgroup/memory")
    try:
        yield group
    finally:
        for path, _, _ in os.walk(group, topdown=False):
            # Its processes are dead or dying by now.
            until(lambda: removed(path), f"the removal of {path}")


def removed(group):
    try:
        os.rmdir(group)
    except OSError:
        return False
    return True


def measure_pass(bench, records):
    # With --kill-child, processes of an interrupted measurement do not outlive it.
    with own_group() as group:
        subprocess.run(["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", bench, "pass", str(records),
                        group, STAMPS], check=True)


def main():
    # An end by request is one like any other, with everything cleaned up.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    bench = os.path.join(BIN, "bench_memory")
    subprocess.run([bench, "level", "20000"], check=True)
    for records in (12, 100, 1000):
        measure_pass(bench, records)
    measure_kill()
    measure_pace()


if __name__ == "__main__":
    main()
