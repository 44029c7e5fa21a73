"""Everything around one service process, brought up and taken down together."""

import atexit
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

import dbus

from . import cgroups
from .apps import Applications, SampleFiles
from .bus import PrivateBus
from .cleaning import clean_files, clean_processes, empty, make_sandbox_directory
from .client import SampleClient, session_client, system_client
from .intent_resolver import IntentResolver
from .machine import Machine, SystemBus
from .memory import Memory
from .monitor import Monitor
from .notification_server import NotificationServer
from .permission_daemon import PermissionDaemon
from .process import Child
from .rootfs import RootDirectory
from .service import SESSION_NAME, SYSTEM_NAME, ServiceProcess
from .users import Lease
from .waiting import until
from .window_model import WindowModel

HELPER_NAME = "org.kestrix.Procwarden.Helper"
TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DEFAULT_BIN_DIR = os.path.join(TREE, "build", "dev", "bin")
DIRECT_START_SCORE = -100 # what the service gives to an application that a user asked for

SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "abort_on_error=0:exitcode=99:detect_stack_use_after_return=1",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}


# For programs that end as soon as they have their answer: leaks are not looked for, since Qt's thread for the bus may
# be holding a message just then.
SHORT_LIVED_OPTIONS = {**SANITIZER_OPTIONS, "ASAN_OPTIONS": SANITIZER_OPTIONS["ASAN_OPTIONS"] + ":detect_leaks=0"}


class Stack:
    """Use as a context manager, or call close() in the end.

    Up after construction: the user, the directories, both buses and the stand-ins. start() adds the helper
    and the service; what the service is to find at its start is put in place before.

    own_proc: /proc holds this stack's own files even where the kernel's would do, so that what they say can be
    set: memory.set_available(), root.set_oom_score_adj().

    tree: an installed tree, as tests/e2e/installed.py has it. Then all of ours runs in a Machine that has it, the
    system bus has that machine's policies, and it starts the helper. machine: further options of the Machine.
    groups: ids of further groups that the service belongs to.
    """

    def __init__(self, bin_dir=None, own_proc=False, tree=None, machine=None, groups=()):
        if os.getuid() != 0:
            raise RuntimeError("only root can bring up the helper and other users' processes")
        self.bin_dir = bin_dir or os.environ.get("PROCWARDEN_BIN_DIR", DEFAULT_BIN_DIR)
        self.own_proc = own_proc
        self._tree, self._machine_options, self.groups = tree, machine or {}, groups
        self._closed = False
        self._closers = []
        self.directory = self.hierarchies = self._guard_pipe = None
        self.helper = self.service = self.machine = None
        self.user = Lease()
        try:
            self._build()
        except BaseException:
            self.close()
            raise

    def _build(self):
        self.directory = tempfile.mkdtemp(prefix="procwarden-stack-")
        os.chmod(self.directory, 0o755)
        self.hierarchies = cgroups.Hierarchies(self._path("root/sys/fs/cgroup"))
        self._guard()
        # Whatever an earlier holder of this user left, if the machine went down under it.
        clean_processes(self.user.uid, self.hierarchies.directories.values())
        empty(self.user.home)
        make_sandbox_directory(self.user)
        atexit.register(self.close)
        self._closers.append(lambda: atexit.unregister(self.close))

        for name in ("bin", "log", "share/procwarden"):
            os.makedirs(self._path(name))
        for name in ("runtime", "session"):
            os.mkdir(self._path(name), 0o755 if name == "session" else 0o700)
            os.chown(self._path(name), self.user.uid, self.user.gid)
        os.mkdir(self._path("system"))
        self.root = RootDirectory(self._path("root"), self.user, self._path("apps"),
                                  self._path("log/sandbox"), self.hierarchies, self.own_proc)
        self._closers.append(self.root.stop)
        self.memory = Memory(self.root)
        if self.own_proc:
            self.memory.set_level("normal")
        self.applications = Applications(self._path("apps"), self._path("share"), self.root,
                                         os.path.join(self.bin_dir, "procwarden-sample"))
        # The types of files are the machine's; its applications are not.
        os.symlink("/usr/share/mime", self._path("share/mime"))
        self.set_states()
        shutil.copytree(os.path.join(TREE, "data", "intents"), self._path("share/procwarden/intents"))

        if self._tree:
            self._build_machine()
        else:
            self.session_bus = PrivateBus("session", self._path("session"), self.user)
            self._closers.append(self.session_bus.stop)
            self.system_bus = PrivateBus("system", self._path("system"))
            self._closers.append(self.system_bus.stop)
        self.permission_daemon = PermissionDaemon(self.system_bus, self._is_installed)
        self._closers.append(self.permission_daemon.close)
        self.window_model = WindowModel(self.session_bus)
        self._closers.append(self.window_model.close)
        self.notification_server = NotificationServer(self.session_bus)
        self._closers.append(self.notification_server.close)

        self.intent_resolver = IntentResolver(self.session_bus)
        self._closers.append(self.intent_resolver.close)

        self.control = session_client(self.session_bus)
        self.system_control = system_client(self.system_bus)
        self.sample_files = SampleFiles(self.user.home)

    def _build_machine(self):
        self.machine = Machine(self._path("machine"), self._tree.path, self._path("system"),
                               stand_ins=[PermissionDaemon.SERVICE], hierarchies=self._groups_place(),
                               **self._machine_options)
        self._closers.append(self.machine.stop)
        self.system_bus = SystemBus(self.machine)
        self._closers.append(self.system_bus.stop)
        # What it activates gets all that the service is to know of this stack.
        self.session_bus = PrivateBus("session", self._path("session"), self.user, services=self.installed_services(),
                                      environment={**self._basic_environment(), **SHORT_LIVED_OPTIONS}, groups=self.groups,
                                      enter=self.machine.enter, oom_floor=self._oom_floor())
        self._closers.append(self.session_bus.stop)

    def installed_services(self):
        """Directory of the installed tree's activation files for session buses, in the machine."""
        return os.path.join(self._tree.prefix, "share/dbus-1/services")

    def _oom_floor(self):
        return DIRECT_START_SCORE if self.root.real_proc else None

    def _groups_place(self):
        return None if self.hierarchies.machine else self.root.inside("sys/fs/cgroup")

    def _path(self, name):
        return os.path.join(self.directory, name)

    def _guard(self):
        read_end, self._guard_pipe = os.pipe2(os.O_CLOEXEC)
        locks = (self.user.lock, self.user.everybody)
        subprocess.run([sys.executable, "-m", "stack.guardian", *map(str, locks), str(self.user.uid), self.user.home,
                        self.directory, *self.hierarchies.directories.values()],
                       stdin=read_end, stdout=subprocess.DEVNULL, pass_fds=locks, check=True, cwd="/",
                       env={"PATH": os.environ["PATH"], "PYTHONPATH": os.path.dirname(os.path.dirname(__file__))})
        os.close(read_end)

    # --- what the service finds ---

    def set_states(self, **delays):
        """Writes the state files as they are shipped, but for the delays: state name -> ms, 0 by default."""
        target = self._path("share/procwarden/states")
        shutil.rmtree(target, ignore_errors=True)
        os.makedirs(target)
        source = os.path.join(TREE, "data", "states")
        for name in os.listdir(source):
            with open(os.path.join(source, name)) as file:
                content = file.read()
            delay = delays.get(name.partition(".")[0], 0)
            with open(os.path.join(target, name), "w") as file:
                file.write(re.sub(r"(?m)^ApplyWithDelay=.*", f"ApplyWithDelay={delay}", content))

    def define_intent(self, name, **content):
        """Defines an intent beside, or instead of, those that are shipped; content: "requiredParams", "hints"."""
        with open(self._path(f"share/procwarden/intents/{name}.intent"), "w") as file:
            json.dump(content, file)

    def install_sample(self, app_id="org.example.Sample", **options):
        """Installs a sample application, as a package that may be frozen unless options say otherwise."""
        options.setdefault("manifest", {})
        return self.applications.install(app_id, **options)

    def _is_installed(self, name):
        """Whether there is a desktop file of that name, the user's own ones included."""
        own = os.path.join(self.user.home, ".local/share/applications", f"{name}.desktop")
        return self.applications.is_installed(name) or os.path.exists(own)

    def environment(self):
        """What the service is started with. Kept short: its size is part of what a child may be given."""
        return {**self._basic_environment(), "DBUS_SESSION_BUS_ADDRESS": self.session_bus.address,
                "DBUS_SYSTEM_BUS_ADDRESS": self.system_bus.address}

    def _basic_environment(self):
        return {
            "PATH": "/usr/bin:/bin",
            "HOME": self.user.home,
            "USER": self.user.name,
            "LOGNAME": self.user.name,
            "SHELL": "/bin/sh",
            "LANG": "C.UTF-8",
            "XDG_RUNTIME_DIR": self._path("runtime"),
            "XDG_DATA_DIRS": self._path("share"),
            "QT_FORCE_STDERR_LOGGING": "1",
            "PROCWARDEN_ROOTFS": self.root.path,
        }

    # --- bringing up ---

    def start(self, **environment):
        """Helper and service; returns when the service takes requests. environment: more variables."""
        self.start_helper()
        return self.start_service(**environment)

    def start_helper(self):
        if self.machine and self.hierarchies.all_real:
            return # the bus does that
        env = {"PATH": "/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS": self.system_bus.address,
               "QT_FORCE_STDERR_LOGGING": "1", **SANITIZER_OPTIONS,
               "LSAN_OPTIONS": f"suppressions={TREE}/tests/lsan.supp:print_suppressions=0"}
        if not self.hierarchies.machine:
            env["PROCWARDEN_ROOTFS"] = self.root.path
        self.helper = Child("the helper", [self.program("procwarden-helper")], self._path("log/helper"), env,
                            enter=self.enter())
        self._closers.append(self.helper.kill)
        until(lambda: self.helper.status is not None or self.system_bus.owner(HELPER_NAME), "the helper's name",
              detail=self.helper.output)
        if self.helper.status is not None:
            raise AssertionError(f"the helper ended with status {self.helper.status}\n{self.helper.output()}")

    def start_service(self, wait=True, **environment):
        """With wait false, returns at once: for a service that is expected to fail."""
        # It looks for no leaks itself; applications have this from it, and run the client.
        env = {**self.environment(), **SHORT_LIVED_OPTIONS, **environment}
        if self.machine:
            del env["DBUS_SYSTEM_BUS_ADDRESS"] # it is where everybody expects it
        self.service = ServiceProcess(self.program("procwarden"), self._path("log/service"), env, self.user,
                                      self._oom_floor(), groups=self.groups, enter=self.enter())
        self._closers.append(self.service.child.kill)
        if wait:
            self.service.wait_for_name(self.session_bus, SESSION_NAME)
            self._wait_for_groups()
        return self.service

    def restart_service(self, **environment):
        """Ends it in order, and starts it anew."""
        if self.service.stop() != 0:
            raise AssertionError(f"the service ended with status {self.service.status}\n{self.service.log()}")
        for bus, name in ((self.session_bus, SESSION_NAME), (self.system_bus, SYSTEM_NAME)):
            # The bus may notice later that its owner has gone.
            until(lambda: not bus.owner(name), f"the end of the name {name}")
        return self.start_service(**environment)

    def enter(self):
        """What to put before a command so that it runs where ours run."""
        return self.machine.enter if self.machine else ()

    def program(self, name):
        """Where it is installed; else a copy that an ordinary user can reach, wherever the build lies."""
        if self._tree:
            return self._tree.place_of(name)
        target = self._path(f"bin/{name}")
        if not os.path.exists(target):
            shutil.copyfile(os.path.join(self.bin_dir, name), target)
            os.chmod(target, 0o755)
        return target

    def _wait_for_groups(self):
        """The service owns its names before the helper has answered it, and can start nothing until then."""
        until(lambda: all(os.path.isdir(path) for path in self.user_groups().values()),
              "the user's control groups", detail=self.service.log)
        # The helper serves one call after the other: its answer to the service is on the bus before this one.
        helper = self.system_bus.connect()
        helper.call_blocking(HELPER_NAME, "/" + HELPER_NAME.replace(".", "/"), HELPER_NAME,
                             "CreateUserHierarchies", "u", (dbus.UInt32(self.user.uid),))
        helper.close()
        # And what the service gets on that bus, it gets in order.
        self.system_control.running()

    # --- looking ---

    def user_groups(self):
        """Directory of the user's control groups, by hierarchy, for those the service has to have."""
        return {name: cgroups.user_directory(path, self.user.uid)
                for name, path in self.hierarchies.directories.items()
                if set(name.split(",")) & set(cgroups.REQUIRED)}

    def group(self, controller, app_id, part="app"):
        """Directory of an application's group; part: "app", "instance_<pid>" or "task_<name>"."""
        hierarchy = next(path for name, path in self.hierarchies.directories.items()
                         if controller in name.split(","))
        return os.path.join(cgroups.user_directory(hierarchy, self.user.uid), app_id, part)

    def freezer_state(self, app_id, part="app"):
        return cgroups.read(os.path.join(self.group("freezer", app_id, part), "freezer.state"))

    def sandbox_command(self, pid):
        """What the sandbox program was called with for a child, or None if it has not been called."""
        try:
            with open(self._path(f"log/sandbox/{pid}")) as file:
                return file.read().splitlines()
        except FileNotFoundError:
            return None

    def monitor(self):
        """Records the service's signals on the session bus from now on."""
        monitor = Monitor(self.session_bus, SESSION_NAME)
        self._closers.append(monitor.close)
        return monitor

    def system_monitor(self):
        monitor = Monitor(self.system_bus, SYSTEM_NAME)
        self._closers.append(monitor.close)
        return monitor

    def sample(self, instance_id="org.example.Sample", name=None):
        """A client of a running sample application; waits until it owns its name.

        name: which one, if its command line gives another one than what install() makes of the id.
        """
        # Only one process can own a name, so each of several instances has its own.
        usual = instance_id if ".instance_" in instance_id else f"{instance_id}.Main"
        until(lambda: self.session_bus.owner(name or usual), f"the bus name {name or usual}",
              detail=self.service and self.service.log)
        return SampleClient(self.session_bus, name or usual)

    def complaints(self):
        """What the stand-ins found wrong with the calls they got."""
        return (self.permission_daemon.complaints + self.window_model.complaints
                + self.notification_server.complaints + self.intent_resolver.complaints)

    # --- taking down ---

    def close(self):
        """Ends and removes everything. Harmless when called again."""
        if self._closed:
            return
        self._closed = True
        for closer in reversed(self._closers):
            try:
                closer()
            except Exception as error: # the rest has to go all the same
                print(f"stack: while closing: {error!r}", file=sys.stderr)
        directories = self.hierarchies.directories.values() if self.hierarchies else ()
        clean_processes(self.user.uid, directories)
        empty(self.user.home)
        self.user.release(when_last=lambda: cgroups.remove_top(directories))
        if self.directory:
            clean_files(self.directory)
        if self._guard_pipe is not None:
            os.write(self._guard_pipe, b"done")
            os.close(self._guard_pipe)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
