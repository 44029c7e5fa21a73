"""What an installation puts on a machine, in a directory tree of its own.

PROCWARDEN_PACKAGES names a directory of Debian packages: then the tree is made of these. Otherwise it is what
cmake --install makes of the build under test.
"""

import configparser
import glob
import os
import re
import shutil
import subprocess

from stack.stack import DEFAULT_BIN_DIR

PACKAGES = os.environ.get("PROCWARDEN_PACKAGES")
BIN_DIR = os.environ.get("PROCWARDEN_BIN_DIR", DEFAULT_BIN_DIR)
PROGRAMS = ("procwarden", "procwarden-helper", "procwarden-eventd", "procwardenctl")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def package_files():
    return sorted(glob.glob(os.path.join(PACKAGES, "*.deb")))


class InstalledTree:
    """path: the tree's root; prefix: of everything but the configuration, as a path inside of the tree."""

    def __init__(self, path):
        self.path = path
        if PACKAGES:
            for package in package_files():
                run("dpkg-deb", "-x", package, path)
            self.prefix = "/usr"
        else:
            build = os.path.dirname(BIN_DIR.rstrip("/"))
            run("cmake", "--install", build, env={**os.environ, "DESTDIR": path})
            with open(os.path.join(build, "CMakeCache.txt")) as file:
                self.prefix = re.search(r"(?m)^CMAKE_INSTALL_PREFIX:PATH=(.*)$", file.read()).group(1)

    def inside(self, path):
        """Where something of the machine lies in the tree."""
        return os.path.join(self.path, path.lstrip("/"))

    def below_prefix(self, path):
        return self.inside(os.path.join(self.prefix, path))

    def files(self):
        """Every file, as a path on the machine."""
        return sorted(os.path.join("/", os.path.relpath(os.path.join(directory, name), self.path))
                      for directory, _, names in os.walk(self.path) for name in names)

    def program(self, name):
        return next(path for path in (self.below_prefix(f"bin/{name}"), self.below_prefix(f"libexec/{name}"))
                    if os.path.exists(path))

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
