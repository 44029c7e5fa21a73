"""An ordinary user's shell beside the service: what ./dev shell opens, and what the tour and the README are typed into.

Programs of the user's own lie in ~/bin, desktop files in ~/.local/share/applications. The user may also put in place
what a package brings (opt/app), and say how much memory there is (proc/meminfo), below PROCWARDEN_ROOTFS.
"""

import os
import re
import shlex
import shutil

from .memory import Memory

PERMISSION = "etc/sailjail/permissions/Base.permission"
BIN, APPLICATIONS = "bin", ".local/share/applications" # in the home directory
ONE_VICTIM_MS = 600_000 # from one victim of a lack of memory to the next: time enough to look around


class Newcomer:
    """Made before the service starts. The stack has a /proc of its own, so that the memory can be made to run short.

    manual: a directory with man pages; configuration: one with oom.cfg and its like.
    """

    def __init__(self, stack, manual, configuration):
        self._stack = stack
        self.home = stack.user.home
        for directory in (BIN, APPLICATIONS):
            self._make(directory)
        self._install_manual(manual)
        self._configure(configuration)
        self._open_root()
        self._programs = os.path.dirname(stack.program("procwardenctl"))
        self._clients = os.path.join(stack.directory, "clients")
        self._show("procwardenctl")

    def environment(self):
        path = f"{self.home}/{BIN}:{self._clients}:{self._programs}:/usr/bin:/bin"
        return {**self._stack.environment(), "PATH": path, "MANPATH": f"{self._manual}:"}

    def command(self, *words):
        """The words of a command, as this user runs it."""
        user = self._stack.user
        return ["/usr/bin/setpriv", f"--reuid={user.uid}", f"--regid={user.gid}", "--clear-groups", "--", *words]

    def _show(self, client):
        """The service looks for those who ask it for something in the stack's /proc."""
        os.makedirs(self._clients)
        path = os.path.join(self._clients, client)
        with open(path, "w") as file:
            command = self._stack.root.shown(self._stack.program(client))
            file.write(f'#!/bin/sh\nexec {shlex.join(command)} "$@"\n')
        os.chmod(path, 0o755)

    def _make(self, directory):
        """A directory of the user's, with those above it."""
        path = self.home
        for part in directory.split("/"):
            path = os.path.join(path, part)
            if not os.path.exists(path):
                os.mkdir(path, 0o700)
                os.chown(path, self._stack.user.uid, self._stack.user.gid)

    def _install_manual(self, manual):
        self._manual = os.path.join(self._stack.directory, "man")
        for directory, _, names in os.walk(manual):
            for name in names:
                if found := re.search(r"\.([1-8])(\.gz)?$", name):
                    target = os.path.join(self._manual, f"man{found[1]}")
                    os.makedirs(target, exist_ok=True)
                    shutil.copy(os.path.join(directory, name), target)

    def _configure(self, configuration):
        root = self._stack.root
        for name in os.listdir(configuration):
            if name.endswith(".cfg"):
                with open(os.path.join(configuration, name)) as file:
                    root.write(f"etc/procwarden/{name}", re.sub(r"(?m)^(CheckIntervalMsecCriticalMem)=.*",
                                                                rf"\1={ONE_VICTIM_MS}", file.read()))
        self._stack.memory.set_available(Memory.TOTAL_KB // 2)

    def _open_root(self):
        """Programs are looked at in the service's root directory, and shown to a sandbox by a permission."""
        root, user = self._stack.root, self._stack.user
        for name in os.listdir("/usr/bin"):
            if not os.path.lexists(root.inside(f"usr/bin/{name}")):
                root.link(f"usr/bin/{name}", f"/usr/bin/{name}")
        for directory in ("sbin", "lib"):
            root.link(f"usr/{directory}", f"/usr/{directory}")
        for directory in ("bin", "sbin", "lib"):
            # As the machine has it: a name for the one below usr, or a directory of its own.
            merged = os.path.realpath(f"/{directory}") == f"/usr/{directory}"
            root.link(directory, f"usr/{directory}" if merged else f"/{directory}")
        root.link(self.home.lstrip("/"), self.home)
        with open(root.inside(PERMISSION)) as file:
            root.write(PERMISSION, file.read() + f"# What the user has built.\nwhitelist ${{HOME}}/{BIN}\n")
        os.makedirs(root.inside("opt/app"))
        os.chown(root.inside("opt/app"), user.uid, user.gid)
