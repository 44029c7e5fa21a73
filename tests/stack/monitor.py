"""Sees every signal that the service sends on a bus, also those for one receiver only, in their order."""

import threading
import uuid
from dataclasses import dataclass, field

import dbus
import dbus.lowlevel

from .bus import ServedConnection
from .waiting import until

MARKER = "org.example.StackMarker1"


@dataclass(frozen=True)
class Signal:
    member: str
    arguments: tuple
    signature: str
    path: str
    interface: str
    destination: str # unique name of the only receiver, empty for everybody
    raw: tuple = field(compare=False, repr=False) # the arguments with their types on the bus

    def __str__(self):
        receiver = f" to {self.destination}" if self.destination else ""
        return f"{self.interface}.{self.member}{self.arguments}{receiver}"


def plain(value):
    """A bus value as Python's own, so that it compares and prints simply."""
    if isinstance(value, dbus.Dictionary):
        return {plain(key): plain(content) for key, content in value.items()}
    if isinstance(value, (dbus.Array, dbus.Struct)):
        return [plain(content) for content in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, str):
        return str(value)
    if isinstance(value, float):
        return float(value)
    if isinstance(value, int):
        return int(value)
    return value


class Monitor:
    """Records from its construction on. service is the well-known name whose signals it records."""

    def __init__(self, bus, service):
        self._bus = bus
        self._mutex = threading.Lock()
        self._signals = []
        self._taken = 0
        self._markers = set()
        self._served = ServedConnection(bus, self._handle)
        rules = dbus.Array([f"type='signal',sender='{service}'", f"type='signal',interface='{MARKER}'"],
                           signature="s")
        self._served.run(lambda connection: connection.call_blocking(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
            "BecomeMonitor", "asu", (rules, dbus.UInt32(0))))

    def _handle(self, message):
        if isinstance(message, dbus.lowlevel.SignalMessage):
            with self._mutex:
                if message.get_interface() == MARKER:
                    self._markers.add(str(message.get_args_list()[0]))
                elif message.get_sender() not in (None, "org.freedesktop.DBus"): # not the bus's own
                    raw = tuple(message.get_args_list())
                    arguments = tuple(plain(value) for value in raw)
                    self._signals.append(Signal(str(message.get_member()), arguments, str(message.get_signature()),
                                                str(message.get_path()), str(message.get_interface()),
                                                str(message.get_destination() or ""), raw))
        # A monitor must not send, so nothing may be answered either.
        return True

    def synchronize(self):
        """Returns when everything that went over the bus up to now has been recorded."""
        token = uuid.uuid4().hex
        connection = self._bus.connect()
        marker = dbus.lowlevel.SignalMessage("/", MARKER, "Here")
        marker.append(token, signature="s")
        connection.send_message(marker)
        connection.flush()
        until(lambda: token in self._markers, "the bus to deliver what it was given")
        connection.close()

    def signals(self):
        """Everything so far."""
        with self._mutex:
            return list(self._signals)

    def take(self):
        """What came since the last call of take() or wait_for()."""
        self.synchronize()
        with self._mutex:
            result = self._signals[self._taken:]
            self._taken = len(self._signals)
        return result

    def wait_for(self, member, *first_arguments):
        """Waits for a signal that came after those taken already. Returns all up to it, it being the last."""

        def find():
            with self._mutex:
                for index in range(self._taken, len(self._signals)):
                    signal = self._signals[index]
                    if signal.member == member and signal.arguments[:len(first_arguments)] == first_arguments:
                        result = self._signals[self._taken:index + 1]
                        self._taken = index + 1
                        return result
            return None

        return until(find, f"the signal {member}{first_arguments}",
                     detail=lambda: "; ".join(str(signal) for signal in self.signals()))

    def close(self):
        self._served.close()
