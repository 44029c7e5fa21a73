"""What the stand-ins for other daemons have in common."""

import threading

import dbus.lowlevel

from .bus import ServedConnection


class StandIn:
    """Owns a name, answers calls at one path, and keeps a list of what was wrong with the calls it got.

    A subclass has SERVICE, PATH, INTERFACE, METHODS (name -> signature of its arguments) and one operation
    on_<Method>(message, *arguments), which runs on the loop's thread.
    """

    SERVICE = PATH = INTERFACE = None
    METHODS = {}

    def __init__(self, bus):
        self.complaints = []
        self._mutex = threading.Lock()
        self._bus = bus
        self._served = ServedConnection(bus, self._handle)
        self.appear()

    def appear(self):
        """Takes the name, as at the daemon's start."""
        self._served.run(lambda connection: connection.request_name(self.SERVICE, 0))

    def vanish(self):
        """Gives up the name, as if the daemon were not installed."""
        self._served.run(lambda connection: connection.release_name(self.SERVICE))

    def _handle(self, message):
        if not isinstance(message, dbus.lowlevel.MethodCallMessage):
            return False
        member = message.get_member()
        if message.get_interface() == "org.freedesktop.DBus.Peer":
            return False
        where = (message.get_path(), message.get_interface())
        wanted = self.METHODS.get(member)
        if where != (self.PATH, self.INTERFACE) or wanted is None:
            self.complain(message, "org.freedesktop.DBus.Error.UnknownMethod", f"no such call: {where} {member}")
        elif message.get_signature() != wanted:
            self.complain(message, "org.freedesktop.DBus.Error.InvalidArgs",
                          f"{member} takes \"{wanted}\", not \"{message.get_signature()}\"")
        else:
            getattr(self, f"on_{member}")(message, *message.get_args_list())
        return True

    def complain(self, message, error, text):
        with self._mutex:
            self.complaints.append(text)
        self.fail(message, error, text)

    def reply(self, message, signature, *arguments):
        answer = dbus.lowlevel.MethodReturnMessage(message)
        if arguments:
            answer.append(*arguments, signature=signature)
        self._send(answer)

    def fail(self, message, error, text):
        self._send(dbus.lowlevel.ErrorMessage(message, error, text))

    def _send(self, answer):
        # Runs the call at once if this is the loop's thread already.
        self._served.connection.send_message(answer)

    def on_loop(self, function):
        """For operations that a test calls: runs function() on the loop's thread."""
        return self._served.run(lambda _: function())

    def close(self):
        self._served.close()
