"""Cleans up after a stack whose own process was killed.

Run as a program of its own: guardian LOCK LOCK UID HOME DIRECTORY HIERARCHY..., with the two locks of the lease
inherited under these numbers, so that nobody gets the user before it is clean. Its standard input is a pipe
from the stack: the word "done" on it means that there is nothing to do, its mere end that the stack died.
"""

import os
import signal
import sys

from . import cgroups
from .cleaning import clean_files, clean_processes, empty, end_daemon
from .users import Lease


def main():
    if os.fork() != 0:
        os._exit(0)
    os.setsid()
    # Whoever ends a test run with a signal to everything that belongs to it must not end this.
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    lock, everybody, uid, home, directory, *hierarchies = sys.argv[1:]
    if os.read(0, 16) != b"done":
        end_daemon(os.path.join(directory, "system"))
        clean_processes(int(uid), hierarchies)
        empty(home)
        Lease.inherited(int(lock), int(everybody)).release(when_last=lambda: cgroups.remove_top(hierarchies))
        clean_files(directory)


if __name__ == "__main__":
    main()
