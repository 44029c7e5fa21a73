"""The root directory that the service sees through PROCWARDEN_ROOTFS, and the fake parts of /proc in it."""

import ctypes
import os
import select
import shutil
import threading

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")
CAP_SYS_RESOURCE = 24

IN_CREATE, IN_MOVED_TO, IN_CLOEXEC = 0x100, 0x80, 0x80000
EVENT_HEADER = 16 # bytes in front of the name: watch, mask, cookie, length of the name


def may_lower_oom_scores():
    """Whether this process may let others write negative out-of-memory scores."""
    with open("/proc/self/status") as file:
        effective = next(line.split()[1] for line in file if line.startswith("CapEff:"))
    return bool(int(effective, 16) >> CAP_SYS_RESOURCE & 1)


class RootDirectory:
    """Configuration and applications are private to it; /sys and, where possible, /proc are the kernel's."""

    def __init__(self, path, user, programs, log, hierarchies, own_proc=False):
        self.path = path
        self._user = user
        self.real_proc = may_lower_oom_scores() and hierarchies.all_real and not own_proc
        self.proc_tree = None
        # firejail's wrapper writes here, as the user.
        os.makedirs(log)
        os.chown(log, user.uid, user.gid)

        self.write("usr/bin/firejail", self._data("firejail").replace("@LOG@", log), mode=0o755)
        for name in sorted(os.listdir(os.path.join(DATA, "permissions"))):
            self.write(f"etc/sailjail/permissions/{name}",
                       self._data(f"permissions/{name}").replace("@PROGRAMS@", programs))
        # An application's program has to stand at its path in both trees.
        self.link(programs.lstrip("/"), programs)
        if hierarchies.machine:
            self.link("sys", "/sys") # else they are in this place already
        if self.real_proc:
            self.link("proc", "/proc")
        else:
            self._make_proc(hierarchies)

    @staticmethod
    def _data(name):
        with open(os.path.join(DATA, name)) as file:
            return file.read()

    def inside(self, path):
        return os.path.join(self.path, path)

    def write(self, path, content, mode=0o644):
        """Makes or replaces a file below the root directory, with the directories above it."""
        target = self.inside(path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        # Replaced as a whole, and never through a link into the real tree.
        temporary = target + ".new"
        with open(temporary, "w") as file:
            file.write(content)
        os.chmod(temporary, mode)
        os.rename(temporary, target)

    def remove(self, path):
        os.unlink(self.inside(path))

    def remove_directory(self, path):
        shutil.rmtree(self.inside(path))

    def link(self, path, target):
        place = self.inside(path)
        os.makedirs(os.path.dirname(place), exist_ok=True)
        os.symlink(target, place)

    def set_oom_score_adj(self, pid, value):
        """Of any process, as the service is to see it; the kernel's own where its files are used."""
        if self.proc_tree:
            self.write(f"proc/{pid}/oom_score_adj", f"{value}\n")
        else:
            with open(f"/proc/{pid}/oom_score_adj", "w") as file:
                file.write(str(value))

    def shown(self, *command):
        """The words of a command whose process the service finds in /proc, as it would in the kernel's."""
        if not self.proc_tree:
            return command
        script = 'mkdir -p "$0/$$" && ln -sf /proc/$$/status /proc/$$/comm "$0/$$" && exec "$@"'
        return "/bin/sh", "-c", script, self.inside("proc"), *command

    def _make_proc(self, hierarchies):
        proc = self.inside("proc")
        os.makedirs(proc)
        # The service makes a directory for each child, for its score file.
        os.chown(proc, self._user.uid, self._user.gid)
        for name in ("self", "meminfo", "swaps"):
            os.symlink(f"/proc/{name}", os.path.join(proc, name))
        if not hierarchies.all_real:
            # The kernel does not name groups that are plain directories.
            os.unlink(self.inside("proc/self"))
            self.write("proc/self/cgroup", "".join(
                f"{number}:{name}:/\n" for number, name in enumerate(hierarchies.directories, start=1)))
        self.proc_tree = ProcTree(proc)

    def stop(self):
        if self.proc_tree:
            self.proc_tree.stop()


class ProcTree:
    """Puts the kernel's own files beside each score file that the service makes."""

    LINKED = ("status", "cgroup", "oom_score", "comm")

    def __init__(self, path):
        self._path = path
        self._libc = ctypes.CDLL(None, use_errno=True)
        self._inotify = self._libc.inotify_init1(IN_CLOEXEC)
        if self._inotify < 0 or self._libc.inotify_add_watch(
                self._inotify, path.encode(), IN_CREATE | IN_MOVED_TO) < 0:
            raise OSError(ctypes.get_errno(), "inotify")
        self._stop_read, self._stop_write = os.pipe2(os.O_CLOEXEC)
        self._thread = threading.Thread(target=self._watch, name="proc tree", daemon=True)
        self._thread.start()

    def link(self, pid):
        """Shows a process that the service did not start; also called for each that it did."""
        directory = os.path.join(self._path, str(pid))
        os.makedirs(directory, exist_ok=True)
        for name in self.LINKED:
            try:
                os.symlink(f"/proc/{pid}/{name}", os.path.join(directory, name))
            except FileExistsError:
                pass
            except FileNotFoundError:
                return # the whole tree is being removed

    def _watch(self):
        while True:
            readable, _, _ = select.select([self._inotify, self._stop_read], [], [])
            if self._stop_read in readable:
                return
            data = os.read(self._inotify, 65536)
            while data:
                length = int.from_bytes(data[12:EVENT_HEADER], "little")
                name = data[EVENT_HEADER:EVENT_HEADER + length].rstrip(b"\0").decode()
                data = data[EVENT_HEADER + length:]
                if name.isdigit():
                    self.link(int(name))

    def stop(self):
        os.write(self._stop_write, b"x")
        self._thread.join()
        for descriptor in (self._inotify, self._stop_read, self._stop_write):
            os.close(descriptor)
