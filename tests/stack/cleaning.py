"""Removing everything that a stack, or what it started, can have left."""

import ctypes
import os
import shutil
import signal
import sys

from . import cgroups
from .waiting import LIMIT, NotInTime, until

MNT_DETACH = 2


def processes_of(uid):
    """Ids of the live processes whose real, effective or saved user id is uid."""
    result = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/status") as file:
                status = dict(line.split(":", 1) for line in file.read().splitlines() if ":" in line)
        except OSError:
            continue # it ended meanwhile
        if status["State"].split()[0] != "Z" and str(uid) in status["Uid"].split()[:3]:
            result.append(int(name))
    return result


def kill_all_of(uid, hierarchies):
    """Ends every process of the user, frozen ones too, and returns when none is left."""

    def none_left():
        pids = processes_of(uid)
        if not pids:
            return True
        cgroups.thaw(hierarchies, uid)
        for pid in pids:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        return False

    until(none_left, f"the end of every process of user {uid}", detail=lambda: str(processes_of(uid)))


def _mounts_below(directory):
    with open("/proc/self/mounts") as file:
        points = [line.split()[1] for line in file]
    return [point for point in points if point == directory or point.startswith(directory + "/")]


def runtime_directory(uid):
    """Where a session of the user's would have it. Nobody but a stack makes one for these users."""
    return f"/run/user/{uid}"


def sandbox_directory(uid):
    """Where the sandbox program puts the sockets of its message bus proxies."""
    return f"/run/firejail/dbus/{uid}"


def make_sandbox_directory(user):
    """As the sandbox program does at its first start for a user. One that is killed after it has made the directory, and
    before it has given it away, would leave one that is of no use to all that come later."""
    directory = sandbox_directory(user.uid)
    os.makedirs(directory, exist_ok=True)
    os.chmod(directory, 0o700)
    os.chown(directory, user.uid, user.gid)


def empty(directory):
    """Removes everything in a directory."""
    for entry in os.scandir(directory):
        if entry.is_dir(follow_symlinks=False):
            shutil.rmtree(entry.path, ignore_errors=True)
        else:
            os.unlink(entry.path)


def clean_processes(uid, hierarchies):
    """Ends the user's processes and removes its control groups and its runtime directory."""
    kill_all_of(uid, hierarchies)
    # A group empties only when its last process has been reaped, by whoever its parent is now.
    try:
        until(lambda: not cgroups.remove(hierarchies, uid), "removal of the control groups", limit=LIMIT)
    except NotInTime:
        print(f"stack: left behind: {cgroups.remove(hierarchies, uid)}", file=sys.stderr)
    clean_files(runtime_directory(uid))
    # What a killed sandbox could not put away itself.
    shutil.rmtree(sandbox_directory(uid), ignore_errors=True)


def _start_of(pid):
    """When a process began, in the kernel's ticks; None if there is none."""
    try:
        with open(f"/proc/{pid}/stat") as file:
            return int(file.read().rpartition(")")[2].split()[19])
    except OSError:
        return None


def remember_daemon(directory, pid):
    """Notes a process that end_daemon(directory) is to end."""
    with open(os.path.join(directory, "daemon"), "w") as file:
        file.write(f"{pid} {_start_of(pid)}")


def end_daemon(directory):
    """Ends it if it is still that one, and no later process with its number."""
    try:
        with open(os.path.join(directory, "daemon")) as file:
            pid, start = map(int, file.read().split())
        process = os.pidfd_open(pid)
    except (OSError, ValueError):
        return
    if _start_of(pid) == start:
        signal.pidfd_send_signal(process, signal.SIGKILL)
    os.close(process)


def clean_files(directory):
    """Removes a directory, with what is mounted below it."""
    libc = ctypes.CDLL(None)
    for point in reversed(_mounts_below(directory)):
        libc.umount2(point.encode(), MNT_DETACH)
    if _mounts_below(directory):
        print(f"stack: left behind, being in use: {directory}", file=sys.stderr)
    else:
        shutil.rmtree(directory, ignore_errors=True)
