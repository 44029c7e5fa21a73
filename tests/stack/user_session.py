"""A session of the stack's user as a device has it: the user's manager, and the message bus that it starts.

What is installed for a session is installed here: units and activation files as they are shipped, but for the
places of the programs. With a Machine they are there already, and used as they are.
"""

import os
import re
import shutil

import dbus

from .bus import CONFIGURATION, LIMITS, PrivateBus
from .stack import SHORT_LIVED_OPTIONS
from .user_manager import UserManager
from .waiting import until

UNITS = ".config/systemd/user"
ACTIVATION = ".local/share/dbus-1/services"
STAMPS = ".local/share/systemd/timers"
RECORDS = ".local/share/procwarden-eventd"


class SessionBus(PrivateBus):
    """The bus of the user's manager; there while the manager is."""

    def __init__(self, address):
        self.address = address

    def stop(self):
        """It ends with the manager."""


class UserSession:
    """start() is what happens when the device is switched on, stop() when its battery is taken out."""

    def __init__(self, stack, data_dir=None, capabilities=()):
        self._stack = stack
        self._data_dir = data_dir or os.path.join(os.path.dirname(stack.bin_dir), "data")
        self._capabilities = capabilities
        runtime = stack.environment()["XDG_RUNTIME_DIR"]
        self.bus = SessionBus(f"unix:path={runtime}/bus")
        self.log_path = os.path.join(stack.directory, "log", "session-service")
        self.manager = None
        self._install()

    def path(self, *names):
        return os.path.join(self._stack.user.home, *names)

    def _write(self, path, content):
        self._make(os.path.dirname(path))
        with open(path, "w") as file:
            file.write(content)
        self._own(path)

    def _make(self, directory):
        if not os.path.isdir(directory):
            self._make(os.path.dirname(directory))
            os.mkdir(directory)
            self._own(directory)

    def _own(self, path):
        os.chown(path, self._stack.user.uid, self._stack.user.gid)

    def _install(self):
        # Root's tests take part in this bus, too.
        configuration = os.path.join(self._stack.directory, "user-bus.conf")
        with open(configuration, "w") as file:
            file.write(re.sub(r"<listen>.*<", "<listen>systemd:<", CONFIGURATION.format(
                kind="session", socket="", services=self._stack.installed_services() if self._stack.machine
                else self.path(ACTIVATION), limits=LIMITS["session"])))
        self._make(self.path(ACTIVATION))
        self._write(self.path(UNITS, "dbus.service.d/stack.conf"),
                    "[Service]\nExecStart=\nExecStart=/usr/bin/dbus-daemon "
                    f"--config-file={configuration} --nofork --nopidfile --systemd-activation\n")
        if not self._stack.machine:
            self._install_program("procwarden-eventd", "org.kestrix.Procwarden.Events")

    def install_service(self):
        """The service itself, started by the bus on demand; log() is what it writes."""
        self._write(self.log_path, "")
        more = f"StandardError=append:{self.log_path}\n"
        if self._stack.machine:
            self._write(self.path(UNITS, "procwarden.service.d/stack.conf"), f"[Service]\nExecCondition=\n{more}")
        else:
            self._install_program("procwarden", "org.kestrix.Procwarden", more)

    def _install_program(self, program, name, more=""):
        target = self._stack.program(program)
        with open(os.path.join(self._data_dir, "systemd/user", f"{program}.service")) as file:
            unit = file.read()
        # Nobody gives this user the floor of the score that applications need, and none is started.
        unit = re.sub(r"(?m)^(ExecCondition|ConditionPathExists)=.*\n", "", unit)
        unit, count = re.subn(r"(?m)^ExecStart=.*$", f"ExecStart={target}", unit)
        assert count == 1
        self._write(self.path(UNITS, f"{program}.service"), unit.replace("[Service]\n", f"[Service]\n{more}"))
        shutil.copyfile(os.path.join(self._data_dir, "dbus/services", f"{name}.service"),
                        self.path(ACTIVATION, f"{name}.service"))

    def log(self):
        with open(self.log_path, errors="replace") as file:
            return file.read()

    def start(self):
        self.manager = UserManager(self._stack, capabilities=self._capabilities)
        self.manager.environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus.address
        self.manager.environment.update(SHORT_LIVED_OPTIONS)
        self.manager.start()
        # The manager is on the bus only once somebody else has started it.
        connection = self.bus.connect()
        until(lambda: self.bus.owner("org.freedesktop.systemd1"), "the manager's name on the bus")
        connection.close()
        return self

    def stop(self):
        if self.manager:
            self.manager.stop()
            self.manager = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()


class Events:
    """Calls procwarden-eventd. call_blocking: that of the connection, whose names say which events it may have."""

    NAME = "org.kestrix.Procwarden.Events"
    PATH = "/org/kestrix/Procwarden/Events1"
    INTERFACE = "org.kestrix.Procwarden.Events1"
    SIGNATURE = "(a{ss}bsa(aiaiaiaiaiaiss)a(ssssbb))"

    def __init__(self, call_blocking):
        self._call_blocking = call_blocking

    def _call(self, method, signature, *arguments):
        return self._call_blocking(self.NAME, self.PATH, self.INTERFACE, method, signature, arguments)

    def add(self, action, attributes=(), time="", recurrences=()):
        """action: service, method, path, interface. Returns the cookie."""
        event = (dbus.Dictionary(dict(attributes), signature="ss"), True, time,
                 dbus.Array(recurrences, signature="(aiaiaiaiaiaiss)"), [(*action, True, True)])
        return int(self._call("add_event", self.SIGNATURE, event))

    def cancel(self, cookie):
        self._call("cancel", "u", dbus.UInt32(cookie))


def recurrence(months=range(12), days=range(1, 32), week_days=range(7), hours=range(24), minutes=range(60),
               seconds=(), start="", end=""):
    """Each minute, if nothing else is said."""
    lists = [dbus.Array(list(values), signature="i")
             for values in (months, days, week_days, hours, minutes, seconds)]
    return (*lists, start, end)
