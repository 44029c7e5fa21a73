"""How much memory the service sees, from when on it acts, and a program that really takes some."""

import os
import re
import signal
import subprocess
import sys

MEGABYTE = 1024 # in kB, the unit of meminfo


def available_kb(path="/proc/meminfo"):
    """What the service counts as available, free swap included (but for the part of it that zram may need)."""
    with open(path) as file:
        fields = {name: int(value) for name, value in re.findall(r"^(\S+):\s+(\d+) kB$", file.read(), re.MULTILINE)}
    return fields["MemAvailable"] + fields.get("SwapFree", 0)


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


class Hog:
    """A process that takes memory when told, never above its limit, and ends with whoever made it."""

    def __init__(self, limit_mb=768):
        self.limit_mb = limit_mb
        self.megabytes = 0
        self._child = subprocess.Popen(
            ["/usr/bin/setpriv", "--pdeathsig=KILL", "--", sys.executable, "-c", HOG, str(limit_mb)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True,
            env={"PATH": os.environ["PATH"]})

    def take(self, megabytes):
        """Grows to this size; returns when every page is in use."""
        self._child.stdin.write(f"{megabytes}\n")
        self._child.stdin.flush()
        self.megabytes = int(self._child.stdout.readline())

    def take_until(self, condition, step_mb=32):
        """Grows in steps until the condition holds; returns whether it did before the limit was reached."""
        while not condition():
            if self.megabytes >= self.limit_mb:
                return False
            self.take(self.megabytes + step_mb)
        return True

    def end(self):
        if self._child.poll() is None:
            self._child.send_signal(signal.SIGKILL)
        self._child.wait()
        self._child.stdin.close()
        self._child.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
