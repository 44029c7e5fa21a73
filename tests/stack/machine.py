"""The machine at hand as it would be with an installed tree: in a mount name space of its own.

Whatever runs in there finds units, policies, activation files and programs at the places where a machine has them, and
is told nothing else. The machine itself is not changed.
"""

import os
import shutil
import subprocess

from .bus import PrivateBus
from .cleaning import remember_daemon
from .process import Child

BUS_PLACE = "/run/dbus" # where the system bus listens, by its own configuration
SOCKET = "system_bus_socket"
SHARED_POLICIES = "/usr/share/dbus-1/system.d"
LOCAL_POLICIES = "/etc/dbus-1/system.d"

# For what only stands in here for another package's program: its own package would bring such a file.
STAND_IN_POLICY = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="root"><allow own="{name}"/></policy>
  <policy context="default"><allow send_destination="{name}" send_type="method_call"/></policy>
</busconfig>
"""

# A directory of the tree lies over that of the machine. No policy is loaded but the tree's and the stand-ins'.
SET_UP = """set -e
for name in $TOPS; do
    mount -t overlay overlay -o "lowerdir=$MORE/$name:$TREE/$name:/$name" "/$name"
done
mount --bind "$MORE/shared-policies" "$SHARED_POLICIES"
mount --bind "$MORE/local-policies" "$LOCAL_POLICIES"
for group in ${GROUPS_PLACE:+"$GROUPS_PLACE"/*}; do
    # Beside those that managers need, where the machine has places for both.
    if [ -d "/sys/fs/cgroup/${group##*/}" ]; then
        mount --bind "$group" "/sys/fs/cgroup/${group##*/}"
    else
        mount --rbind "$GROUPS_PLACE" /sys/fs/cgroup
        break
    fi
done
# As a manager of the system has it, and by which others know of it. Were /run no mount, units with a name space of their
# own would get an empty one.
mount --rbind /run /run
mount -t tmpfs tmpfs /run/systemd
mkdir -p /run/systemd/system /run/systemd/inaccessible/dir
touch /run/systemd/inaccessible/reg
mkfifo /run/systemd/inaccessible/fifo
mknod /run/systemd/inaccessible/chr c 0 0
mknod /run/systemd/inaccessible/blk b 0 0
chmod 0 /run/systemd/inaccessible/*
mkdir -p "$BUS_PLACE"
mount --bind "$BUS" "$BUS_PLACE"
echo up
exec sleep infinity
"""


class Machine:
    """Up after construction, until stop().

    tree: root of the installed tree. bus: directory in which the system bus's socket is found from outside.
    accounts: user name -> number, and groups: group name -> number, known in there beside the machine's own. stand_ins:
    bus names. policies: file name -> content, of an administrator or other packages. hierarchies: what /sys/fs/cgroup is
    in there, if not the machine's.
    """

    def __init__(self, directory, tree, bus, accounts=None, groups=None, stand_ins=(), policies=None,
                 hierarchies=None):
        self.bus_directory = bus
        self._more = os.path.join(directory, "more")
        self._copy_policies(tree, SHARED_POLICIES, "shared-policies")
        self._copy_policies(tree, LOCAL_POLICIES, "local-policies")
        files = {f"{name}.conf": STAND_IN_POLICY.format(name=name) for name in stand_ins}
        for name, content in {**files, **(policies or {})}.items():
            self._write(f"local-policies/{name}", content)
        self._add_lines("etc/passwd", "{0}:x:{1}:{1}::/nonexistent:/usr/sbin/nologin\n", accounts)
        self._add_lines("etc/group", "{0}:x:{1}:\n", groups)
        tops = []
        for name in sorted(os.listdir(tree)):
            if os.path.islink(f"/{name}"): # such as /lib, which is /usr/lib
                shutil.copytree(os.path.join(tree, name), self._more + os.path.realpath(f"/{name}"))
            else:
                tops.append(name)
        for name in tops:
            os.makedirs(os.path.join(self._more, name), exist_ok=True)
        self._holder = Child("the machine", ["/usr/bin/unshare", "--mount", "/bin/sh", "-c", SET_UP],
                             os.path.join(directory, "log"),
                             {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TREE": tree, "MORE": self._more, "BUS": bus,
                              "TOPS": " ".join(tops), "BUS_PLACE": BUS_PLACE, "SHARED_POLICIES": SHARED_POLICIES,
                              "LOCAL_POLICIES": LOCAL_POLICIES, "GROUPS_PLACE": hierarchies or ""}, stdout=subprocess.PIPE)
        if self._holder.popen.stdout.readline() != b"up\n":
            raise RuntimeError(f"no tree over the machine's: {self._holder.output()}")

    def _copy_policies(self, tree, place, name):
        source, target = tree + place, os.path.join(self._more, name)
        if os.path.isdir(source):
            shutil.copytree(source, target)
        else:
            os.makedirs(target)
        os.chmod(target, 0o755)

    def _add_lines(self, path, form, numbers):
        """The machine's own lines come first: of a name that has one already, that one counts."""
        with open(f"/{path}") as file:
            self._write(path, file.read() + "".join(form.format(*entry) for entry in (numbers or {}).items()))

    def _write(self, path, content):
        target = os.path.join(self._more, path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "w") as file:
            file.write(content)

    @property
    def enter(self):
        """What to put before a command of root's, so that it runs in there."""
        return ["/usr/bin/nsenter", f"--mount=/proc/{self._holder.pid}/ns/mnt", "--"]

    def run(self, *argv, **options):
        return subprocess.run([*self.enter, *argv], capture_output=True, text=True, check=False, **options)

    def stop(self):
        self._holder.popen.stdout.close()
        self._holder.kill()


class SystemBus(PrivateBus):
    """The system bus as the machine's own configuration has it, with its user and its launch helper."""

    def __init__(self, machine):
        self.kind = "system"
        self._start(["--system"], os.path.join(machine.bus_directory, "log"), None, {"PATH": "/usr/bin:/bin"},
                    enter=machine.enter)
        # It changes its user, and so does not get the signal that others get when this process dies.
        remember_daemon(machine.bus_directory, self.daemon.pid)
        # Seen from outside.
        self.address = f"unix:path={machine.bus_directory}/{SOCKET}"
