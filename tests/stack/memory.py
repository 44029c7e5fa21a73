"""How much memory the service sees, from when on it acts, and a program that really takes some."""

import contextlib
import os
import re
import signal
import subprocess
import sys
import threading
import time

from .process import descendants

MEGABYTE = 1024 # in kB, the unit of meminfo

# Available memory below which nothing here makes the real one run short: what is taken for that would hurt.
ENOUGH_MB = 3072


def available_kb(path="/proc/meminfo"):
    """What the service counts as available, free swap included (but for the part of it that zram may need)."""
    with open(path) as file:
        fields = {name: int(value) for name, value in re.findall(r"^(\S+):\s+(\d+) kB$", file.read(), re.MULTILINE)}
    return fields["MemAvailable"] + fields.get("SwapFree", 0)


def has_zram():
    """Whether there is swap that lies in memory, of which the service counts only a part."""
    with open("/proc/swaps") as file:
        return "zram" in file.read()


class Memory:
    """Writes oom.cfg and, in a stack with a /proc of its own, meminfo. One per stack."""

    TOTAL_KB = 4_000_000
    LOW_MB, CRITICAL_MB = 400, 200
    # Name -> kB available, well within the level under these thresholds.
    LEVELS = {"normal": 1_000_000, "low": 300_000, "critical": 100_000}

    # Long enough that it never comes within a test.
    NEVER_MS = 600_000
    OFTEN_MS = 50

    def __init__(self, root):
        self._root = root

    def configure(self, often=True, **keys):
        """Writes the configuration, which the service reads at its start.

        By default it looks often and has the thresholds of LEVELS; keys replace what they name.
        """
        interval = self.OFTEN_MS if often else self.NEVER_MS
        settings = {"CheckIntervalMsec": interval, "CheckIntervalMsecLowMem": interval,
                    "CheckIntervalMsecCriticalMem": interval, "LowMemoryTermMB": self.LOW_MB,
                    "MinMemoryTermMB": self.CRITICAL_MB, **keys}
        self._root.write("etc/procwarden/oom.cfg", "".join(f"{key}={value}\n" for key, value in settings.items()))

    def set_available(self, kilobytes):
        self.set_content(f"MemTotal:       {self.TOTAL_KB} kB\nMemFree:          90000 kB\n"
                         f"MemAvailable:   {kilobytes} kB\nInactive(file):   20000 kB\n"
                         "SwapTotal:             0 kB\nSwapFree:              0 kB\n")

    def set_level(self, name):
        self.set_available(self.LEVELS[name])

    def set_content(self, text):
        """Replaces the whole file at once, so that a reader gets the old or the new one."""
        self._root.write("proc/meminfo", text)

    def remove(self):
        self._root.remove("proc/meminfo")


HOG = """
import mmap, resource, signal, sys
limit = int(sys.argv[1]) << 20
signal.alarm(120) # whatever becomes of who started it
resource.setrlimit(resource.RLIMIT_AS, (limit + (128 << 20),) * 2)
kept = []
for line in sys.stdin:
    while sum(map(len, kept)) < min(int(line) << 20, limit):
        kept.append(mmap.mmap(-1, 16 << 20, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS))
        for page in range(0, len(kept[-1]), mmap.PAGESIZE):
            kept[-1][page] = 1
    print(sum(map(len, kept)) >> 20, flush=True)
"""


class NoRoom(Exception):
    """Something below the machine's own memory ended it: a limit of what this runs in."""


class Hog:
    """A process that takes memory when told, never above its limit, and ends with whoever made it."""

    def __init__(self, limit_mb=768):
        self.limit_mb = limit_mb
        self.megabytes = 0
        self._child = subprocess.Popen(
            ["/usr/bin/setpriv", "--pdeathsig=KILL", "--", sys.executable, "-c", HOG, str(limit_mb)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True,
            env={"PATH": os.environ["PATH"]})

    @property
    def pid(self):
        return self._child.pid # setpriv becomes it

    def take(self, megabytes):
        """Grows to this size; returns when every page is in use. Raises NoRoom if it is not let."""
        try:
            self._child.stdin.write(f"{megabytes}\n")
            self._child.stdin.flush()
            self.megabytes = int(self._child.stdout.readline())
        except (OSError, ValueError):
            raise NoRoom(f"a program that took {self.megabytes} MB was ended") from None

    def take_until(self, condition, step_mb=32):
        """Grows in steps until the condition holds; returns whether it did before the limit was reached.

        By no more than 640 MB in a second: who looks at the memory from time to time has to see it fall.
        """
        while not condition():
            if self.megabytes >= self.limit_mb:
                return False
            self.take(self.megabytes + step_mb)
            time.sleep(0.05)
        return True

    def end(self):
        if self._child.poll() is None:
            self._child.send_signal(signal.SIGKILL)
        self._child.wait()
        with contextlib.suppress(OSError): # what was not written any more
            self._child.stdin.close()
        self._child.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()


def resident_mb(pid):
    """Memory that a process has in use; 0 if there is none (any more)."""
    try:
        with open(f"/proc/{pid}/status") as file:
            found = re.search(r"^VmRSS:\s+(\d+) kB$", file.read(), re.MULTILINE)
    except OSError:
        return 0
    return int(found[1]) // MEGABYTE if found else 0


class Others:
    """Watches how much memory all other programs take, or give back, while ours take theirs.

    Ours are those that are named, by process id, with their descendants.
    """

    INTERVAL = 0.05

    def __init__(self, *ours):
        self._ours = list(ours)
        self._start_mb = self._without_ours()
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self.taken_mb = self.given_mb = 0 # the most of each

    def add(self, pid):
        """Another one of ours, which has not taken anything to speak of yet."""
        self._ours.append(pid)

    def _without_ours(self):
        """What would be available if ours had taken nothing."""
        family = set(self._ours).union(*(descendants(pid) for pid in list(self._ours)))
        return available_kb() // MEGABYTE + sum(resident_mb(pid) for pid in family)

    def _watch(self):
        while not self._ended.wait(self.INTERVAL):
            change = self._without_ours() - self._start_mb
            self.taken_mb = max(self.taken_mb, -change)
            self.given_mb = max(self.given_mb, change)

    def disturbed(self, limit_mb):
        """What they did, in words, if it was more than this; else an empty text."""
        if self.taken_mb > limit_mb:
            return f"others on this machine took {self.taken_mb} MB meanwhile"
        if self.given_mb > limit_mb:
            return f"others on this machine gave back {self.given_mb} MB meanwhile"
        return ""

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join()
