"""The mock of the service that applications' tests use, on a bus of its own."""

import json
import os

from .bus import PrivateBus
from .mocks import MOCK, PYTHON
from .monitor import Monitor, plain
from .process import Child
from .service import SESSION_NAME as NAME
from .stack import TREE
from .waiting import LIMIT, until

TEMPLATE = os.path.join(TREE, "data", "dbusmock", "procwarden.py")
PREFIX = NAME + "."
PROPERTIES = "org.freedesktop.DBus.Properties"


def path_of(interface):
    return "/" + interface.replace(".", "/")


class MockService:
    """Runs from construction to close(); directory is for its files, parameters are the template's."""

    def __init__(self, directory, parameters):
        self.bus = PrivateBus("session", directory)
        self.child = self.monitor = None
        try:
            self._connection = self.bus.connect()
            environment = {"PATH": "/usr/bin:/bin", "DBUS_SESSION_BUS_ADDRESS": self.bus.address}
            self.child = Child("the mock", [PYTHON, "-B", "-m", "dbusmock", "--template", TEMPLATE, "--parameters",
                                            json.dumps(parameters)], os.path.join(directory, "mock"), environment)
            # The name comes first, then the template, both before the first call is looked at.
            until(lambda: self.child.status is not None or self.bus.owner(NAME), "its name", detail=self.child.output)
            assert self.child.status is None, self.child.output()
            self.monitor = Monitor(self.bus, NAME)
        except BaseException:
            self.close()
            raise

    def call(self, interface, member, signature="", *arguments, path=None):
        """Plain values; raises the bus's exceptions."""
        interface = interface if "." in interface else PREFIX + interface
        path = path or path_of(interface)
        reply = self._connection.call_blocking(NAME, path, interface, member, signature, arguments,
                                               timeout=LIMIT)
        return [plain(value) for value in reply] if isinstance(reply, tuple) else plain(reply)

    def say(self, member, signature="", *arguments):
        return self.call(MOCK, member, signature, *arguments, path=path_of(PREFIX + "Control1"))

    def property(self, interface, name, path=None):
        return self.call(PROPERTIES, "Get", "ss", PREFIX + interface, name, path=path or path_of(PREFIX + interface))

    def signals(self):
        """(interface, member, arguments, signature) of what has come since the last time, but dbusmock's own."""
        return [(signal.interface, signal.member, signal.arguments, signal.signature)
                for signal in self.monitor.take() if signal.interface != MOCK]

    def close(self):
        if self.monitor:
            self.monitor.close()
        if self.child:
            self.child.kill()
            self.child.wait()
        self.bus.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
