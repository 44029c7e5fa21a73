"""The Debian packages on a machine: dpkg installs, upgrades, removes and purges them, with their scripts.

The machine is the one at hand, of which everything that changes is kept in memory, and nothing is seen outside. Its
system manager is a stand-in that writes down what it is asked.
"""

import os
import re
import shutil
import subprocess

import pytest
from installed import COMPONENTS, control_fields, listed, package_files, run
from stack.process import Child

# On that machine; the last one is systemd's own.
CHANGED, ASKED, FILES, SYSTEMCTL = "/run/changed", "/run/asked", "/run/packages", "/run/systemctl"
SPACES = ("--mount", "--net", "--ipc", "--uts")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "DEBIAN_FRONTEND": "noninteractive"}
STATE = {"ii": "installed", "rc": "removed"}

# What is not there: the group that the packages make, what would keep packages from starting anything or from bringing man
# pages along, and the permission to look through all of these, which takes long.
SET_UP = """set -e
mount -t tmpfs tmpfs "$PLACE"
cd "$PLACE"
mkdir upper work root
mount -t overlay overlay -o "lowerdir=/,upperdir=$PLACE/upper,workdir=$PLACE/work" root || { echo no; exit; }
mount -t proc proc root/proc
mount --rbind /dev root/dev
mount -t tmpfs tmpfs root/tmp
mount -t tmpfs tmpfs root/run
mkdir -p root/run/systemd/system "root$FILES" "root$CHANGED"
mount --bind "$PACKAGES" "root$FILES"
sed -i '/^privileged:/d' root/etc/group root/etc/gshadow
rm -rf root/usr/sbin/policy-rc.d root/var/lib/man-db/auto-update root/etc/dpkg/dpkg.cfg.d
cp root/usr/bin/systemctl "root$SYSTEMCTL"
rm root/usr/bin/systemctl
cat >root/usr/bin/systemctl <<'END'
#!/bin/sh
echo "$*" >>/run/asked
END
chmod 755 root/usr/bin/systemctl
mount --bind upper "root$CHANGED"
exec chroot root /bin/sh -c 'echo up; exec sleep infinity'
"""


class Machine:
    """packages: directory with those that are there to be installed."""

    def __init__(self, directory, packages):
        place = directory / "place"
        place.mkdir()
        self._holder = Child("the machine", ["/usr/bin/unshare", *SPACES, "/bin/sh", "-c", SET_UP],
                             str(directory / "log"),
                             {**ENVIRONMENT, "PLACE": str(place), "PACKAGES": str(packages), "CHANGED": CHANGED,
                              "FILES": FILES, "SYSTEMCTL": SYSTEMCTL}, stdout=subprocess.PIPE)
        said = self._holder.popen.stdout.readline()
        if said == b"no\n": # the kernel has no such file system, or / is of a kind that nothing can lie over
            self.stop()
            pytest.skip(f"needs an overlay over /: {self._holder.output()}")
        if said != b"up\n":
            raise RuntimeError(f"no machine over this one: {self._holder.output()}")
        self._before = self._changed()

    def try_to_run(self, *command):
        enter = ["/usr/bin/nsenter", f"--target={self._holder.pid}", *SPACES, "--root", "--wd", "--"]
        return subprocess.run([*enter, *command], env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=False)

    def run(self, *command):
        result = self.try_to_run(*command)
        assert result.returncode == 0, (command, result.stdout, result.stderr)
        return result.stdout

    def install(self, *names):
        """names: of packages; all of them if there is none. What dpkg says of it."""
        files = [f"{FILES}/{os.path.basename(file)}" for file in package_files()
                 if control_fields(file)["Package"] in (names or COMPONENTS)]
        return self.try_to_run("dpkg", "--force-unsafe-io", "--force-confdef", "--force-confold", "-i", *files)

    def packages(self):
        """Name -> whether it is "installed" or "removed", which leaves configuration behind."""
        lines = self.run("dpkg-query", "-W", "-f", "${db:Status-Abbrev} ${Package}\\n").splitlines()
        return {name: STATE[state] for state, name in map(str.split, lines) if name.startswith("procwarden")}

    def asked(self):
        """What the system manager was asked since the last time."""
        asked = self.run("sh", "-c", f"touch {ASKED}; cat {ASKED}; rm {ASKED}").splitlines()
        return [line.replace("--system ", "").replace("--quiet ", "") for line in asked]

    def is_there(self, path):
        return self.try_to_run("test", "-e", path).returncode == 0

    def read(self, path):
        return self.run("cat", path)

    def write(self, path, text):
        self.run("sh", "-c", 'mkdir -p "${1%/*}"; printf %s "$2" >"$1"', "sh", path, text)

    def groups(self):
        return {line.split(":")[0] for line in self.read("/etc/group").splitlines()}

    def _changed(self):
        return set(self.run("find", CHANGED, "!", "-type", "d", "-printf", "/%P\\n").splitlines())

    def left_behind(self):
        """Files that are not as before, but for the notes of those who install, and directories of ours."""
        ours = self.run("find", CHANGED, "-name", "*procwarden*", "-printf", "/%P\\n").splitlines()
        notes = re.compile(r"/var/(lib/(dpkg|systemd)|log|cache)/|/etc/(\.pwd\.lock|g?shadow-?|group-?|passwd-?)$")
        return sorted({path for path in self._changed() - self._before if not notes.match(path)} | set(ours))

    def stop(self):
        self._holder.popen.stdout.close()
        self._holder.kill()


@pytest.fixture
def directory(tmp_path):
    """Packages that a test may add to, or replace."""
    target = tmp_path / "packages"
    target.mkdir()
    for file in package_files():
        shutil.copy(file, target)
    return target


@pytest.fixture
def machine(tmp_path, directory):
    machine = Machine(tmp_path, directory)
    try:
        yield machine
    finally:
        machine.stop()


LINK = "/etc/systemd/system/user@{0}.service.wants/procwarden@{0}.service"
ENVIRONMENT_FILE = "/etc/procwarden/environment" # made by an administrator, see docs/shipping.md
CONFIGURATION = [path for path in listed()["procwarden"] if path.startswith("/etc/")]


def install(machine):
    result = machine.install()
    assert result.returncode == 0, result.stdout + result.stderr
    assert machine.packages() == {name: "installed" for name in COMPONENTS}


def test_everything_is_put_in_its_place(machine):
    """With what they depend on, which is what this machine has of Debian's."""
    assert "privileged" not in machine.groups()
    install(machine)
    missing = [path for paths in listed().values() for path in paths
               if not machine.is_there(path) and not machine.is_there(f"{path}.gz")]
    assert missing == []
    assert machine.run("dpkg", "--verify", *COMPONENTS) == ""
    wanted = re.findall(r"(?m)^g (\S+)", machine.read("/usr/lib/sysusers.d/procwarden.conf"))
    assert "privileged" in wanted and set(wanted) <= machine.groups()
    assert machine.run("procwardenctl", "--version").startswith("procwardenctl ")
    # The pages are found by what their files are called, too.
    for name, key in (("oom.cfg", "CheckIntervalMsec"), ("tasks.cfg", "MaxTasksPerApp"), ("procwarden.desktop", "Exec")):
        assert key in machine.run("man", "5", name)
    # Units are made known; nothing is enabled, and nothing is started.
    assert set(machine.asked()) == {"daemon-reload"}
    assert machine.run("find", f"{CHANGED}/etc", "-type", "l") == ""


def test_same_version_again_changes_nothing(machine):
    install(machine)
    machine.asked()
    machine.write("/etc/procwarden/oom.cfg", "CheckIntervalMsec=1234\n")
    groups = machine.read("/etc/group")
    install(machine)
    assert machine.read("/etc/procwarden/oom.cfg") == "CheckIntervalMsec=1234\n"
    assert machine.read("/etc/group") == groups
    # A service that runs goes on, with its applications.
    assert set(machine.asked()) == {"daemon-reload", "try-restart procwarden-helper.service"}


def test_upgrade_keeps_what_an_administrator_has_changed(machine, directory, tmp_path):
    install(machine)
    machine.write("/etc/procwarden/oom.cfg", "CheckIntervalMsec=1234\n")
    machine.asked()
    for file in package_files():
        name = os.path.basename(file)
        tree = tmp_path / f"{name}.unpacked"
        run("dpkg-deb", "-R", file, str(tree))
        control = tree / "DEBIAN/control"
        version = control_fields(file)["Version"]
        # Its own, and the helper's that it needs.
        control.write_text(control.read_text().replace(version, f"{version}+1"))
        for changed in ("oom.cfg", "tasks.cfg"):
            if (tree / "etc/procwarden" / changed).exists():
                with open(tree / "etc/procwarden" / changed, "a") as configuration:
                    configuration.write("; of the next version\n")
        run("dpkg-deb", "--root-owner-group", "-Znone", "-b", str(tree), str(directory / name))
    install(machine)
    assert machine.run("dpkg-query", "-W", "-f", "${Version}", "procwarden").endswith("+1")
    assert machine.read("/etc/procwarden/oom.cfg") == "CheckIntervalMsec=1234\n"
    assert machine.read("/etc/procwarden/oom.cfg.dpkg-dist").endswith("; of the next version\n")
    assert machine.read("/etc/procwarden/tasks.cfg").endswith("; of the next version\n")
    assert set(machine.asked()) == {"daemon-reload", "try-restart procwarden-helper.service"}


def test_removal_keeps_configuration_and_purge_leaves_nothing(machine):
    install(machine)
    machine.write("/etc/systemd/system/user@1001.service.wants/other.service", "")
    machine.write(ENVIRONMENT_FILE, "WAYLAND_DISPLAY=wayland-0\n")
    for uid in (1000, 1001):
        machine.run(SYSTEMCTL, "--root=/", "enable", f"procwarden@{uid}.service")
        assert machine.run("readlink", LINK.format(uid)).endswith("/procwarden@.service\n")
    machine.asked()
    machine.run("dpkg", "-r", *COMPONENTS)
    assert machine.packages() == {"procwarden": "removed", "procwarden-helper": "removed"}
    asked = machine.asked()
    assert set(asked) == {"stop procwarden@*.service", "stop procwarden-helper.service", "daemon-reload"}
    # The units are still there to be stopped.
    assert asked.index("stop procwarden@*.service") < asked.index("daemon-reload")
    left = [path for path in machine.left_behind() if not path.startswith(("/etc/systemd/", "/var/lib/dpkg/info/"))]
    assert left == ["/etc/procwarden", *sorted([*CONFIGURATION, ENVIRONMENT_FILE])]
    assert {LINK.format(1000), LINK.format(1001)} <= set(machine.left_behind())

    machine.run("dpkg", "-P", "procwarden", "procwarden-helper")
    assert machine.packages() == {}
    assert machine.left_behind() == ["/etc/systemd/system/user@1001.service.wants/other.service"]
    # Files may belong to it: a group is not given to somebody else.
    assert "privileged" in machine.groups()


def test_service_is_not_set_up_without_its_helper(machine):
    result = machine.install("procwarden")
    assert result.returncode != 0
    assert "procwarden depends on procwarden-helper (= " in result.stderr
