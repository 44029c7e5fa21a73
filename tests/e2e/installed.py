"""What an installation puts on a machine, in a directory tree of its own.

PROCWARDEN_PACKAGES names a directory of Debian packages: then the tree is made of these. Otherwise it is what
cmake --install makes of the build under test.
"""

import configparser
import glob
import grp
import os
import re
import shutil
import subprocess

from stack.stack import DEFAULT_BIN_DIR, TREE

GOLDEN = os.path.join(TREE, "tests/data/installed/files.txt")
PACKAGES = os.environ.get("PROCWARDEN_PACKAGES")
BIN_DIR = os.environ.get("PROCWARDEN_BIN_DIR", DEFAULT_BIN_DIR)
COMPONENTS = {"procwarden": "service", "procwarden-helper": "helper", "procwarden-tools": "tools",
              "procwarden-dev": "development"} # package -> its part of the installation
SESSION_GROUP = 59985 # number of the group with sessions, where the machine has none of that name
PROGRAMS = ("procwarden", "procwarden-helper", "procwarden-eventd", "procwardenctl")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def package_files():
    found = sorted(glob.glob(os.path.join(PACKAGES, "*.deb"))) if PACKAGES else []
    if not found:
        raise FileNotFoundError(f"no packages in PROCWARDEN_PACKAGES={PACKAGES}: ctest makes some, for example with\n"
                                "cmake --preset dev && ctest --test-dir build/dev -R e2e_tour")
    return found


def unit_directory():
    """Where this Debian has units of the system; it moved once."""
    return run("pkg-config", "--variable=systemdsystemunitdir", "systemd").strip()


def listed():
    """What every installation has, package -> paths below /usr and /etc, as tests/data/installed has it."""
    found = {}
    with open(GOLDEN) as file:
        for line in file:
            package, path = line.split()
            found.setdefault(package, []).append(path.replace("/lib/systemd/system/", unit_directory() + "/"))
    return found


def write_list(found):
    with open(GOLDEN, "w") as file:
        for package in sorted(found):
            for path in sorted(found[package]):
                file.write(f"{package} {path.replace(unit_directory() + '/', '/lib/systemd/system/')}\n")


class InstalledTree:
    """path: the tree's root; prefix: of everything but the configuration, as a path inside of the tree.

    package: name of the only one that is installed.
    """

    def __init__(self, path, package=None):
        self.path = path
        if PACKAGES:
            for file in package_files():
                if package in (None, control_fields(file)["Package"]):
                    run("dpkg-deb", "-x", file, path)
            self.prefix = "/usr"
        else:
            build = os.path.dirname(BIN_DIR.rstrip("/"))
            component = ["--component", COMPONENTS[package]] if package else []
            run("cmake", "--install", build, *component, env={**os.environ, "DESTDIR": path})
            with open(os.path.join(build, "CMakeCache.txt")) as file:
                self.prefix = re.search(r"(?m)^CMAKE_INSTALL_PREFIX:PATH=(.*)$", file.read()).group(1)

    def inside(self, path):
        """Where something of the machine lies in the tree."""
        return os.path.join(self.path, path.lstrip("/"))

    def below_prefix(self, path):
        return self.inside(os.path.join(self.prefix, path))

    def policy(self, name):
        """A bus policy; below another prefix than /usr the bus would not find it."""
        return self.inside(os.path.join("/usr/share" if self.prefix == "/usr" else "/etc", "dbus-1/system.d", name))

    def account_of(self, kind):
        """The "group" with sessions, or the "user" that the package manager is, of whom the policies speak."""
        with open(self.policy("org.kestrix.Procwarden.User.conf")) as file:
            named = re.findall(f'<policy {kind}="([^"]*)">', file.read())
        # A package manager that runs as root is the one that they speak of anyway.
        return next((name for name in named if name != "root"), "root")

    def session_group(self):
        """Number of the group with sessions."""
        try:
            return grp.getgrnam(self.account_of("group")).gr_gid
        except KeyError:
            return SESSION_GROUP

    def on_machine(self, **machine):
        """How a stack has this tree on its machine, and its user a session there; machine: see there."""
        group = self.session_group()
        return {"tree": self, "groups": (group,), "machine": {"groups": {self.account_of("group"): group}, **machine}}

    def files(self):
        """Every file, as a path on the machine."""
        return sorted(os.path.join("/", os.path.relpath(os.path.join(directory, name), self.path))
                      for directory, _, names in os.walk(self.path) for name in names)

    def place_of(self, program):
        """Where a program lies on the machine."""
        places = [os.path.join(self.prefix, directory, program) for directory in ("bin", "libexec")]
        return next(place for place in places if os.path.exists(self.inside(place)))

    def files_below_usr(self):
        """The files, where they would be if the prefix were /usr, without what Debian adds to a package."""
        return sorted(self._below_usr(path) for path in self.files() if not path.startswith("/usr/share/doc/"))

    def _below_usr(self, path):
        if self.prefix != "/usr":
            for here, there in ((f"{self.prefix}/lib/systemd/system/", f"{unit_directory()}/"),
                                (f"{self.prefix}/share/zsh/site-functions/", "/usr/share/zsh/vendor-completions/"),
                                ("/etc/dbus-1/system.d/", "/usr/share/dbus-1/system.d/"),
                                (f"{self.prefix}/", "/usr/")):
                if path.startswith(here):
                    path = there + path[len(here):]
                    break
        return path.removesuffix(".gz")

    def program(self, name):
        return self.inside(self.place_of(name))

    def make_bin_dir(self, path):
        """One directory with all programs, as a stack wants it. The sample application is never installed."""
        os.mkdir(path)
        for name in PROGRAMS:
            os.symlink(self.program(name), os.path.join(path, name))
        os.symlink(os.path.join(BIN_DIR, "procwarden-sample"), os.path.join(path, "procwarden-sample"))
        return path

    def give_to(self, stack):
        """The stack's service finds the states, intents and configuration that are installed here."""
        shared = os.path.join(stack.directory, "share/procwarden")
        shutil.rmtree(shared)
        shutil.copytree(self.below_prefix("share/procwarden"), shared)
        shutil.copytree(self.inside("/etc/procwarden"), stack.root.inside("etc/procwarden"), dirs_exist_ok=True)

    def commands(self):
        """What is started by a unit or a bus: program -> the file that says so."""
        found = {}
        for name in self.files():
            with open(self.inside(name), "rb") as file:
                text = file.read().decode(errors="replace") if name.endswith(".service") else ""
            for command in re.findall(r"(?m)^Exec(?:Start)?=(/\S+)", text):
                found.setdefault(command, []).append(name)
        return found


def control_fields(package):
    """The fields of a package's control file."""
    parser = configparser.ConfigParser(interpolation=None)
    parser.optionxform = str
    parser.read_string("[package]\n" + run("dpkg-deb", "-f", package))
    return dict(parser["package"])
