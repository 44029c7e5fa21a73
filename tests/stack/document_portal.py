"""The desktop's own document portal, for the stack's user."""

import os
import stat

from .cleaning import runtime_directory
from .process import Child
from .waiting import until

FUSE = "/dev/fuse"
PROGRAMS = {"org.freedesktop.impl.portal.PermissionStore": "/usr/libexec/xdg-permission-store",
            "org.freedesktop.portal.Documents": "/usr/libexec/xdg-document-portal"}


def cannot_run():
    """Why not, or an empty text."""
    for path in (FUSE, *PROGRAMS.values(), "/usr/bin/fusermount3"):
        if not os.path.exists(path):
            return f"there is no {path}"
    return ""


class DocumentPortal:
    """Runs from construction to close(). Shows documents in mountpoint.

    Its runtime directory is not the stack's, but where a session has it: a sandbox shows this one, and hides
    what lies in /tmp.
    """

    def __init__(self, stack):
        if not os.stat(FUSE).st_mode & stat.S_IWOTH:
            os.chmod(FUSE, 0o666) # as every machine with udev has it
        runtime = runtime_directory(stack.user.uid)
        os.makedirs(runtime, exist_ok=True)
        os.chmod(runtime, 0o700)
        os.chown(runtime, stack.user.uid, stack.user.gid)
        environment = {**stack.environment(), "XDG_RUNTIME_DIR": runtime}
        self.mountpoint = os.path.join(environment["XDG_RUNTIME_DIR"], "doc")
        self._children = []
        for name, program in PROGRAMS.items():
            log = os.path.join(stack.directory, "log", os.path.basename(program))
            child = Child(program, [program, "-v"], log, environment, stack.user)
            self._children.append(child)
            until(lambda: child.status is not None or stack.session_bus.owner(name), f"the name {name}",
                  detail=child.output)
            if child.status is not None:
                raise AssertionError(f"{program} ended with {child.status}\n{child.output()}")
        until(self._is_mounted, self.mountpoint)

    def _is_mounted(self):
        # Not asked of the path itself: what a user has mounted this way, root cannot even look at.
        with open("/proc/self/mounts") as file:
            return any(line.split()[1] == self.mountpoint for line in file)

    def close(self):
        # What is mounted goes with the user.
        for child in reversed(self._children):
            child.kill()
