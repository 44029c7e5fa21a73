"""Ordinary users made for the tests, each leased to one stack at a time.

The delegated control groups are named after the user id, so two stacks with one user would be in each other's
way. Whoever holds the lock file of a user may do with its processes, groups and home as it likes.
"""

import fcntl
import grp
import os
import pwd
import subprocess

POOL_SIZE = 8
LOCK_DIR = "/run/lock/procwarden-test"


PRIVILEGED = "privileged" # the group of that name is trusted by the service


def _name(number):
    return f"procwarden-test-{number}"


def _ensure_user(number):
    name = _name(number)
    try:
        return pwd.getpwnam(name)
    except KeyError:
        pass
    # The account tools refuse to wait for each other.
    with open(f"{LOCK_DIR}/accounts", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        try:
            return pwd.getpwnam(name)
        except KeyError:
            # The sandbox program starts a program through the user's shell, which must be a plain one.
            subprocess.run(["/usr/sbin/useradd", "--user-group", "--create-home", "--shell", "/bin/sh", name],
                           check=True, capture_output=True)
    return pwd.getpwnam(name)


def privileged_group():
    """The id of the group whose processes are privileged, wherever they come from; made if there is none yet."""
    os.makedirs(LOCK_DIR, exist_ok=True)
    with open(f"{LOCK_DIR}/accounts", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        try:
            return grp.getgrnam(PRIVILEGED).gr_gid
        except KeyError:
            subprocess.run(["/usr/sbin/groupadd", "--system", PRIVILEGED], check=True, capture_output=True)
    return grp.getgrnam(PRIVILEGED).gr_gid


class Lease:
    """One user of the pool; blocks until there is a free one. release() gives it back."""

    def __init__(self):
        os.makedirs(LOCK_DIR, exist_ok=True)
        # Held shared by every stack: who gets it exclusively is the last one.
        self.everybody = os.open(f"{LOCK_DIR}/everybody", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        fcntl.flock(self.everybody, fcntl.LOCK_SH)
        self.lock, number = self._take_one()
        entry = _ensure_user(number)
        self.name, self.uid, self.gid, self.home = entry.pw_name, entry.pw_uid, entry.pw_gid, entry.pw_dir

    @staticmethod
    def _take_one():
        locks = [os.open(f"{LOCK_DIR}/{_name(number)}", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
                 for number in range(POOL_SIZE)]
        chosen = None
        for number, lock in enumerate(locks):
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                chosen = number
                break
            except BlockingIOError:
                continue
        if chosen is None:
            chosen = os.getpid() % POOL_SIZE
            fcntl.flock(locks[chosen], fcntl.LOCK_EX)
        for number, lock in enumerate(locks):
            if number != chosen:
                os.close(lock)
        return locks[chosen], chosen

    @classmethod
    def inherited(cls, lock, everybody):
        """The lease of the process that started this one, to be released in its place."""
        lease = cls.__new__(cls)
        lease.lock, lease.everybody = lock, everybody
        return lease

    def release(self, when_last):
        """Gives the user back. Calls when_last() if no other stack is up, and before another can come up."""
        with open(f"{LOCK_DIR}/leaving", "w") as leaving:
            fcntl.flock(leaving, fcntl.LOCK_EX)
            try:
                fcntl.flock(self.everybody, fcntl.LOCK_EX | fcntl.LOCK_NB)
                when_last()
            except BlockingIOError:
                pass
            # Unlocked and not just closed: the guardian has these descriptors too.
            for lock in (self.lock, self.everybody):
                fcntl.flock(lock, fcntl.LOCK_UN)
                os.close(lock)
