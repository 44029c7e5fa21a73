"""The machine's own daemons, as python-dbusmock stands in for them: battery, screen saver, sessions."""

import os

import dbus

from .process import Child
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

    def close(self):
        self._child.kill()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Battery(Mock):
    """UPower, with one battery once it has been given a level."""

    NAME, PATH = "org.freedesktop.UPower", "/org/freedesktop/UPower"
    DEVICE = PATH + "/devices/battery"

    def __init__(self, stack, level=None, state=DISCHARGING):
        super().__init__(stack, stack.system_bus, self.NAME, self.PATH, self.NAME, "upower")
        if level is not None:
            self.add(level, state)

    def add(self, level, state=DISCHARGING):
        member = "AddChargingBattery" if state == CHARGING else "AddDischargingBattery"
        self.call(member, "ssdx", "battery", "a battery", float(level), dbus.Int64(1200))
        if state not in (CHARGING, DISCHARGING):
            self.set(level, state)

    def set(self, level, state=DISCHARGING):
        self.call("SetDeviceProperties", "oa{sv}", self.DEVICE, dbus.Dictionary(
            {"Percentage": dbus.Double(level), "Energy": dbus.Double(level), "State": dbus.UInt32(state)},
            signature="sv"))

    def remove(self):
        self.call("RemoveDevice", "o", self.DEVICE)


class ScreenSaver(Mock):
    """Knows whether the display is off."""

    NAME, PATH = "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver"

    def __init__(self, stack, active=False):
        super().__init__(stack, stack.session_bus, self.NAME, self.PATH, self.NAME)
        self._answer(active)

    def _answer(self, active):
        self.call("AddMethod", "sssss", self.NAME, "GetActive", "", "b", f"ret = {active}")

    def set(self, active):
        self._answer(active)
        self.call("EmitSignal", "sssav", self.NAME, "ActiveChanged", "b",
                  dbus.Array([dbus.Boolean(active, variant_level=1)], signature="v"))


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
