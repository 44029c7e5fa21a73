"""Calls of the service's interfaces, with the types that they have on the bus."""

import re
import threading
from dataclasses import dataclass

import dbus
import dbus.lowlevel

from .monitor import plain
from .service import SESSION_NAME, SYSTEM_NAME
from .waiting import LIMIT

ACTIVE, INACTIVE, HIDDEN, TERMINATING = 1, 2, 3, 4
NO_STATE = 255


class BusError(Exception):
    """An error reply."""

    def __init__(self, name, message):
        super().__init__(f"{name}: {message}")
        self.name = name
        self.message = message


@dataclass(frozen=True)
class Started:
    instance_id: str
    pid: int
    start_reason: int
    requestor: str


class Pending:
    """A call whose reply has not come yet, made on a thread and a connection of its own."""

    def __init__(self, call):
        self._call = call
        self._value = self._error = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        try:
            self._value = self._call()
        except Exception as error: # handed over to whoever asks for the result
            self._error = error

    @property
    def done(self):
        return not self._thread.is_alive()

    def result(self, limit=LIMIT):
        """Waits for the reply; raises BusError for an error reply."""
        self._thread.join(limit)
        if self._thread.is_alive():
            raise AssertionError(f"no reply within {limit:g} s")
        if self._error:
            raise self._error
        return self._value


class Client:
    """One client of the service on one bus."""

    def __init__(self, bus, service):
        self.bus = bus
        self._service = service
        self._connection = bus.connect()

    def call(self, object_name, member, signature="", *arguments, prefix="org.kestrix.Procwarden.",
             connection=None, limit=LIMIT):
        """Calls prefix + object_name . member; returns the reply's arguments as plain values."""
        interface = prefix + object_name
        try:
            reply = (connection or self._connection).call_blocking(
                self._service, "/" + interface.replace(".", "/"), interface, member, signature, arguments,
                timeout=limit)
        except dbus.DBusException as error:
            raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None
        return plain(reply) if not isinstance(reply, tuple) else tuple(plain(value) for value in reply)

    def call_later(self, *arguments, **options):
        """As call(), without waiting: returns a Pending."""
        connection = self.bus.connect()

        def run():
            try:
                return self.call(*arguments, connection=connection, **options)
            finally:
                connection.close()

        return Pending(run)

    # --- control ---

    @staticmethod
    def _started(reply):
        instance_id, details = reply
        assert sorted(details) == ["Pid", "RequestorId", "StartReason"], details
        return Started(instance_id, details["Pid"], details["StartReason"], details["RequestorId"])

    def start(self, app_id):
        return self._started(self.call("Control1", "Start", "s", app_id))

    def start_later(self, app_id):
        return self.call_later("Control1", "Start", "s", app_id)

    def start_debug(self, app_id, **parameters):
        return self._started(self.call("Control1", "StartDebug", "sa{sv}", app_id,
                                       dbus.Dictionary(parameters, signature="sv")))

    def terminate(self, instance_id):
        self.call("Control1", "Terminate", "s", instance_id)

    def reload(self):
        self.call("Control1", "Reload")

    def running(self):
        """The two lists of GetRunningApplications: applications, services."""
        return self.call("Control1", "GetRunningApplications")

    # --- windows ---

    def update_windows(self, instance_id, active=0, inactive=0, hidden=0):
        """Reports window counts as the compositor does; returns the state that follows."""
        return self.call("WindowManagement1", "UpdateWindowStatus", "siii", instance_id, active, inactive, hidden)

    # --- the package manager and other system services, on the system bus ---

    def prevent_launch(self, app_id):
        self.call("SystemControl1", "PreventLaunch", "s", app_id)

    def allow_launch(self, app_id):
        self.call("SystemControl1", "AllowLaunch", "s", app_id)

    def terminate_all(self, app_id):
        self.call("SystemControl1", "Terminate", "s", app_id)

    def wait_for_not_running(self, app_id):
        return self.call_later("SystemControl1", "WaitForNotRunning", "s", app_id)


class SampleClient:
    """Talks to a running sample application over the session bus."""

    def __init__(self, bus, name):
        self._connection = bus.connect()
        self._name = name

    def call(self, member, signature="", *arguments, limit=LIMIT):
        try:
            return plain(self._connection.call_blocking(self._name, "/", "org.example.Sample1", member, signature,
                                                        arguments, timeout=limit))
        except dbus.DBusException as error:
            raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None

    def ticks(self):
        return self.call("Ticks")

    def quit(self, code=0):
        # It may be gone before a reply could be sent.
        message = dbus.lowlevel.MethodCallMessage(self._name, "/", "org.example.Sample1", "Quit")
        message.append(code, signature="i")
        message.set_no_reply(True)
        self._connection.send_message(message)
        self._connection.flush()

    def environment(self):
        return dict(entry.split("=", 1) for entry in self.call("Environment"))

    def call_service(self, target, *arguments):
        """A call made by the application itself: target is "service path interface method"."""
        return self.call("Call", "sas", target, dbus.Array(arguments, signature="s"))

    def call_service_with(self, target, *arguments):
        """The same with arguments of other types than text. Raises BusError for an error reply."""
        reply = self.call("CallWith", "sav", target, dbus.Array(arguments, signature="v"))
        error = re.fullmatch(r"(?s)error ([\w.]+): (.*)", reply[0]) if reply else None
        if error:
            raise BusError(*error.groups())
        return reply

    def run(self, *command, limit=LIMIT):
        """Runs a program as a part of the application; returns its exit code and all that it printed."""
        try:
            reply = self._connection.call_blocking(self._name, "/", "org.example.Sample1", "Run", "as",
                                                   (dbus.Array(command, signature="s"),), timeout=limit)
        except dbus.DBusException as error:
            raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None
        return tuple(plain(value) for value in reply)


def session_client(bus):
    return Client(bus, SESSION_NAME)


def system_client(bus):
    return Client(bus, SYSTEM_NAME)
