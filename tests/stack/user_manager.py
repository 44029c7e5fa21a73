"""A systemd user manager for the stack's user, also where systemd is not process 1."""

import fcntl
import os
import subprocess

from . import cgroups
from .process import Child
from .users import LOCK_DIR
from .waiting import until

MANAGER = "/lib/systemd/systemd"
BOOTED = "/run/systemd/system" # its existence tells systemd's programs that the machine runs systemd
GROUP = "procwarden-manager-{uid}"


class Booted:
    """The mark of a machine that runs systemd, there as long as anybody needs it."""

    def __init__(self):
        self._lock = os.open(f"{LOCK_DIR}/booted", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        fcntl.flock(self._lock, fcntl.LOCK_SH)
        if not os.path.isdir(BOOTED):
            os.makedirs(BOOTED, exist_ok=True)
            os.write(self._lock, b"ours")

    def release(self):
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            pass # the last one does it
        else:
            if os.fstat(self._lock).st_size: # it was not there before
                if os.path.isdir(BOOTED):
                    os.rmdir(BOOTED)
                os.truncate(self._lock, 0)
        os.close(self._lock)


class UserManager:
    """Runs from start() to stop(). Needs groups of its own in the hierarchies that systemd manages.

    capabilities: names of those that the manager gets, as setpriv(1) has them, although it is an ordinary user's.
    as_root: it is root's, and can make of a unit of the system what the system's manager would make of it.
    """

    def __init__(self, stack, hierarchies=("unified", "systemd"), capabilities=(), as_root=False):
        self._stack = stack
        self._capabilities = capabilities
        self._uid, self._gid = (0, 0) if as_root else (stack.user.uid, stack.user.gid)
        group = GROUP.format(uid=stack.user.uid) + ("-root" if as_root else "")
        self._groups = [os.path.join("/sys/fs/cgroup", name, group)
                        for name in hierarchies if os.path.isdir(os.path.join("/sys/fs/cgroup", name))]
        self._booted = None
        self._child = None
        self.environment = {**stack.environment()}

    def start(self):
        self._booted = Booted()
        for group in self._groups:
            os.makedirs(group, exist_ok=True)
            for name in ("", "cgroup.procs", "cgroup.subtree_control", "cgroup.threads", "tasks"):
                path = os.path.join(group, name)
                if os.path.exists(path):
                    os.chown(path, self._uid, self._gid)
        log = os.path.join(self._stack.directory, "log", "manager")
        self._child = Child("the user manager", self.command(MANAGER, "--user"), log, self.environment)
        until(self._ready, "the user manager", detail=self._child.output)
        return self

    def _ready(self):
        if self._child.status is not None:
            raise AssertionError(f"the user manager ended with {self._child.status}\n{self._child.output()}")
        return self.run("systemctl", "--user", "is-system-running").stdout.strip() in ("running", "degraded")

    def command(self, *argv):
        """What to run, as root, so that argv is run as the manager's user, within what the manager may move.

        The shell goes into the manager's groups first; what it becomes, and all that this starts, stays there.
        """
        joins = "".join(f"echo $$ >'{group}/cgroup.procs'; " for group in self._groups)
        gets = ",".join(f"+{name}" for name in self._capabilities)
        extra = f" --inh-caps={gets} --ambient-caps={gets}" if gets else ""
        groups = ",".join(map(str, self._stack.groups))
        drop = (f"exec /usr/bin/setpriv --reuid={self._uid} --regid={self._gid} "
                f"{f'--groups={groups}' if groups else '--clear-groups'}{extra} -- \"$@\"")
        return [*self._stack.enter(), "/bin/sh", "-c", joins + drop, "sh", *argv]

    def run(self, *argv):
        return subprocess.run(self.command(*argv), env=self.environment, capture_output=True, text=True, check=False)

    def stop(self):
        if self._child:
            self._child.kill()
        for group in self._groups:
            until(lambda: self._emptied(group), f"the removal of {group}")
        if self._booted:
            self._booted.release()
            self._booted = None

    @staticmethod
    def _emptied(group):
        """Ends what is left in a group and removes it with all below it; false while something is left."""
        if not os.path.isdir(group):
            return True
        for directory, _, _ in os.walk(group, topdown=False):
            for pid in (cgroups.read(os.path.join(directory, "cgroup.procs")) or "").split():
                try:
                    os.kill(int(pid), 9)
                except ProcessLookupError:
                    pass
            try:
                os.rmdir(directory)
            except OSError:
                return False
        return True

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()
