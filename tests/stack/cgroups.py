"""Version 1 control groups: what the machine has, what replaces it, and cleaning up."""

import ctypes
import os

MACHINE_ROOT = "/sys/fs/cgroup"
REQUIRED = ("cpu", "freezer", "memory")

CLONE_NEWNS, MS_REC, MS_PRIVATE = 0x20000, 1 << 14, 1 << 18


def mounted_hierarchies(root=MACHINE_ROOT):
    """Directories of the version 1 hierarchies below root, by their name there (links left out)."""
    found = {}
    try:
        names = os.listdir(root)
    except OSError:
        return found
    for name in sorted(names):
        path = os.path.join(root, name)
        if not os.path.islink(path) and _is_kernels(path):
            found[name] = path
    return found


def _is_kernels(path):
    # Only the top of a version 1 hierarchy has this file.
    return os.path.exists(os.path.join(path, "cgroup.sane_behavior"))


class Hierarchies:
    """Those that the service is to use, found out once per stack.

    directories: name -> path. machine: they are the machine's own, at their usual place. real: names of those
    behind which there is the kernel; the rest are plain directories, which take what is written and do nothing.

    On a machine without, they are mounted for this process and its children only. Setting
    PROCWARDEN_TEST_CGROUPS to "private" or "plain" gets these stages where they would not be needed.
    """

    def __init__(self, own_directory):
        wanted = os.environ.get("PROCWARDEN_TEST_CGROUPS", "machine")
        self.directories = mounted_hierarchies()
        self.machine = wanted == "machine" and self._are_enough()
        if self.machine:
            self.real = set(self.directories)
            return
        self.directories = {name: os.path.join(own_directory, name) for name in REQUIRED}
        for path in self.directories.values():
            os.makedirs(path)
        self.real = set() if wanted == "plain" else self._mount()

    @property
    def all_real(self):
        return self.real == set(self.directories)

    def is_real(self, controller):
        return any(controller in name.split(",") for name in self.real)

    def _are_enough(self):
        controllers = {controller for name in self.directories for controller in name.split(",")}
        return all(controller in controllers for controller in REQUIRED)

    def _mount(self):
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.unshare(CLONE_NEWNS) != 0 or libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) != 0:
            return set()
        return {name for name, path in self.directories.items()
                if libc.mount(b"cgroup", path.encode(), b"cgroup", 0, name.encode()) == 0}


def user_directory(hierarchy, uid):
    return os.path.join(hierarchy, "procwarden", f"user-{uid}")


def _groups_below(top):
    """Every group at and below top, the deepest first."""
    return [path for path, _, _ in os.walk(top, topdown=False)]


def thaw(hierarchies, uid):
    """Lets frozen processes run again: a frozen one cannot be killed."""
    for hierarchy in hierarchies:
        # From the top: a group stays frozen as long as one above it is.
        for group in reversed(_groups_below(user_directory(hierarchy, uid))):
            write(os.path.join(group, "freezer.state"), "THAWED")


def remove(hierarchies, uid):
    """Removes the user's groups. Returns those that would not go."""
    left = []
    for hierarchy in filter(_is_kernels, hierarchies): # plain directories go with the stack's own
        for group in _groups_below(user_directory(hierarchy, uid)):
            try:
                os.rmdir(group)
            except OSError:
                left.append(group)
    return left


def remove_top(hierarchies):
    for hierarchy in hierarchies:
        try:
            os.rmdir(os.path.join(hierarchy, "procwarden"))
        except OSError:
            pass # never made, or a user's groups are still there, which remove() has told


def of_process(pid):
    """Groups of a process, controller -> path. Empty if there is no such process."""
    result = {}
    try:
        with open(f"/proc/{pid}/cgroup") as file:
            lines = file.read().splitlines()
    except OSError:
        return result
    for line in lines:
        _, controllers, path = line.split(":", 2)
        for controller in controllers.split(","):
            result[controller] = path
    return result


def read(path):
    """Content of a control file without the line feed; None if it cannot be read."""
    try:
        with open(path) as file:
            return file.read().strip()
    except OSError:
        return None


def write(path, value):
    try:
        with open(path, "w") as file:
            file.write(value)
        return True
    except OSError:
        return False
