"""The machine's own daemons, as python-dbusmock stands in for them where it can: battery, screen saver, sessions."""

import os

import dbus
import dbus.lowlevel

from .monitor import plain
from .process import Child
from .standin import StandIn
from .waiting import until

PYTHON = "/usr/bin/python3" # Debian's own interpreter sees Debian's packages
MOCK = "org.freedesktop.DBus.Mock"
DISCHARGING, CHARGING, FULL = 2, 1, 4


class Mock:
    """A mock daemon, from its construction to close(). template: one of dbusmock's, or None for an empty object."""

    def __init__(self, stack, bus, name, path, interface, template=None):
        self._bus, self._name, self._path, self.interface = bus, name, path, interface
        environment = {"PATH": "/usr/bin:/bin", "DBUS_SESSION_BUS_ADDRESS": stack.session_bus.address,
                       "DBUS_SYSTEM_BUS_ADDRESS": stack.system_bus.address}
        command = [PYTHON, "-B", "-m", "dbusmock"]
        if template:
            command += ["--template", template]
        else:
            command += ["--system"] if bus.kind == "system" else []
            command += [name, path, interface]
        log = os.path.join(stack.directory, "log", f"mock-{name}")
        self._child = Child(f"the mock of {name}", command, log, environment)
        try:
            until(self._ready, f"the name {name}", detail=self._child.output)
        except BaseException:
            self.close()
            raise

    def _ready(self):
        if self._child.status is not None:
            raise AssertionError(f"{self._child.name} ended with {self._child.status}\n{self._child.output()}")
        return self._bus.owner(self._name)

    def call(self, member, signature="", *arguments, path=None, interface=MOCK):
        connection = self._bus.connect()
        try:
            return connection.call_blocking(self._name, path or self._path, interface, member, signature, arguments)
        finally:
            connection.close()

    def ping(self):
        """Returns when it has answered everything before."""
        self.call("Ping", interface="org.freedesktop.DBus.Peer")

    def close(self):
        self._child.kill()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Battery(Mock):
    """UPower; without a level there is no battery yet."""

    NAME, PATH = "org.freedesktop.UPower", "/org/freedesktop/UPower"
    KIND_BATTERY, NO_WARNING = 2, 1

    def __init__(self, stack, level=None, state=DISCHARGING):
        super().__init__(stack, stack.system_bus, self.NAME, self.PATH, self.NAME, "upower")
        if level is not None:
            self.set(level, state)

    def set(self, level, state=DISCHARGING, present=True):
        """All batteries taken together, as UPower's display device tells of them."""
        self.call("SetupDisplayDevice", "uuddddxxbsu", self.KIND_BATTERY, state, level, level, 100.0, 1.0, 600, 600,
                  present, "", self.NO_WARNING)

    def remove(self):
        self.set(0, 0, present=False)


class ScreenSaver(StandIn):
    """Knows whether the display is off. Of our own: dbusmock owns a name before it can answer."""

    SERVICE = INTERFACE = "org.freedesktop.ScreenSaver"
    PATH = "/org/freedesktop/ScreenSaver"
    METHODS = {"GetActive": ""}

    def __init__(self, stack, active=False):
        self.active = active
        super().__init__(stack.session_bus)

    def on_GetActive(self, message):
        self.reply(message, "b", self.active)

    def set(self, active):
        self.active = active
        signal = dbus.lowlevel.SignalMessage(self.PATH, self.INTERFACE, "ActiveChanged")
        signal.append(active, signature="b")
        self._served.send(signal)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Logind(Mock):
    """Hands out inhibitors."""

    NAME, PATH = "org.freedesktop.login1", "/org/freedesktop/login1"
    MANAGER = "org.freedesktop.login1.Manager"

    def __init__(self, stack):
        super().__init__(stack, stack.system_bus, self.NAME, self.PATH, self.MANAGER, "logind")

    def inhibitors(self):
        """Who holds one, as [what, who, why, mode] each."""
        return [[str(text) for text in record[:4]]
                for record in self.call("ListInhibitors", interface=self.MANAGER)]


class TimedDaemon(StandIn):
    """Where events are left; fire() makes the call of one, as at its time.

    refuse: an error name, with which every call is answered. hold(): answers to "add_event" wait for release().
    """

    SERVICE = "org.kestrix.Procwarden.Events"
    PATH = "/org/kestrix/Procwarden/Events1"
    INTERFACE = "org.kestrix.Procwarden.Events1"
    METHODS = {"add_event": "(a{ss}bsa(aiaiaiaiaiaiss)a(ssssbb))", "cancel": "u"}

    def __init__(self, stack):
        self.events = {} # cookie -> event
        self.cancelled = [] # cookies, in order
        self.refuse = None
        self._next = 17
        self._held = None
        super().__init__(stack.session_bus)

    def on_add_event(self, message, event):
        if self.refuse:
            self.fail(message, self.refuse, "not now")
        elif self._held is not None:
            self._held.append((message, event))
        else:
            self._add(message, event)

    def _add(self, message, event):
        self.events[self._next] = plain(event)
        self.reply(message, "u", self._next)
        self._next += 1

    def on_cancel(self, message, cookie):
        self.cancelled.append(int(cookie))
        if self.events.pop(int(cookie), None) is None:
            self.fail(message, "org.freedesktop.DBus.Error.InvalidArgs", "no such event")
        else:
            self.reply(message, "")

    def hold(self):
        self._held = []

    def release(self):
        def answer():
            held, self._held = self._held, None
            for message, event in held:
                self._add(message, event)
        self.on_loop(answer)

    def settle(self):
        """Returns when the service knows all that has been answered: what one connection sends keeps its order."""
        name = "org.kestrix.Procwarden.Control1"
        self._served.run(lambda connection: connection.call_blocking(
            "org.kestrix.Procwarden", "/" + name.replace(".", "/"), name, "GetRunningApplications", "", ()))

    def fire(self, cookie=None, **attributes):
        """Calls back for the event of a cookie, or with these attributes."""
        if cookie is not None:
            attributes = self.events[cookie][0]
        call = dbus.lowlevel.MethodCallMessage("org.kestrix.Procwarden", "/org/kestrix/Procwarden/Timed",
                                               "org.kestrix.Procwarden.Timed", "EventTriggered")
        call.append(dbus.Dictionary(attributes, signature="sv"), signature="a{sv}")
        call.set_no_reply(True)
        self._served.send(call)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
