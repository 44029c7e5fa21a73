"""Child processes of the stack, which end when it does."""

import os
import re
import signal
import subprocess

from .waiting import LIMIT


SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:|SUMMARY: \w+Sanitizer")


def _state_and_parent(pid):
    """Letter of the state and id of the parent, see proc(5); None if there is no such process."""
    try:
        with open(f"/proc/{pid}/stat") as file:
            state, parent = file.read().rpartition(")")[2].split()[:2]
    except OSError:
        return None
    return state, int(parent)


def state(pid):
    """Letter of the state, see proc(5), or an empty text if there is no such process."""
    return (_state_and_parent(pid) or ("",))[0]


def is_running(pid):
    """False also for a process that has ended and only waits to be reaped."""
    found = _state_and_parent(pid)
    return found is not None and found[0] != "Z"


def descendants(pid, ended=False):
    """Ids of the running processes whose chain of parents leads to pid, itself not among them.

    With ended, also of those that have ended and only wait to be reaped.
    """
    parents = {}
    for name in os.listdir("/proc"):
        found = _state_and_parent(name) if name.isdigit() else None
        if found and (ended or found[0] != "Z"):
            parents[int(name)] = found[1]
    result, fresh = set(), {pid}
    while fresh:
        fresh = {child for child, parent in parents.items() if parent in fresh} - result
        result |= fresh
    return result


class Child:
    """A running program whose output goes to a file.

    With a user, it runs as that one, without any group but its own and those that are named, and without any
    capability. It gets exactly the environment that is given, and is killed by the kernel if the stack's process
    dies. enter: a command that runs the rest somewhere else, see Machine.
    """

    def __init__(self, name, argv, log, env, user=None, stdout=None, pass_fds=(), oom_floor=None, groups=(),
                 enter=()):
        self.name = name
        self.log = log
        prefix = ["/usr/bin/setpriv"]
        if user:
            prefix += [f"--reuid={user.uid}", f"--regid={user.gid}",
                       f"--groups={','.join(map(str, groups))}" if groups else "--clear-groups"]
        prefix += ["--pdeathsig=KILL", "--"]
        if oom_floor is not None:
            # The lowest score that root ever wrote is how low an ordinary user may go later.
            prefix = ["/usr/bin/choom", "-n", str(oom_floor), "--", *prefix, "/usr/bin/choom", "-n", "0", "--"]
        with open(log, "ab") as output:
            self.popen = subprocess.Popen([*enter, *prefix, *argv], env=env, cwd="/", stdin=subprocess.DEVNULL,
                                          stdout=stdout or output, stderr=output, pass_fds=pass_fds,
                                          start_new_session=True)

    @property
    def pid(self):
        # The programs in front of the real one replace themselves with it.
        return self.popen.pid

    @property
    def status(self):
        """Exit status; negative: number of the signal that ended it; None: it runs."""
        return self.popen.poll()

    def output(self):
        with open(self.log, errors="replace") as file:
            return file.read()

    def sanitizer_report(self):
        """Its output from the first line of a sanitizer's report on, or an empty text."""
        output = self.output()
        found = SANITIZER_REPORT.search(output)
        return output[output.rfind("\n", 0, found.start()) + 1:] if found else ""

    def send(self, number):
        if self.status is None:
            self.popen.send_signal(number)

    def wait(self, limit=LIMIT):
        try:
            return self.popen.wait(limit)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} did not end within {limit:g} s\n{self.output()}") from None

    def stop(self, number=signal.SIGTERM, limit=LIMIT):
        """Sends the signal, waits for the end, and returns the exit status."""
        self.send(number)
        return self.wait(limit)

    def kill(self):
        """Ends it in any case, for cleaning up."""
        if self.status is None:
            self.popen.kill()
        self.popen.wait()
