"""The private buses, and connections to them.

libdbus wants one thread per connection. Those of the stand-ins and monitors are served by one loop on a thread
of its own; a connection made by connect() belongs to whoever made it, and only makes blocking calls.
"""

import os
import subprocess
import threading

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

from .process import Child

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>{kind}</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{services}</servicedir>
  <policy context="default">
    <!-- root's tests and another user's service meet here -->
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
  <limit name="reply_timeout">600000</limit>
{limits}</busconfig>
"""


# As the bus daemon's own configurations have it: a user's programs do not have to be kept from each other.
LIMITS = {
    "session": """  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_incoming_unix_fds">250000000</limit>
  <limit name="max_outgoing_unix_fds">250000000</limit>
  <limit name="max_message_unix_fds">4096</limit>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
""",
    "system": "",
}


class PrivateBus:
    """A dbus-daemon of our own; kind is "session" or "system".

    services: directory of activation files, otherwise a new one below the given one; environment: what activated
    programs inherit. Further options are those of Child.
    """

    def __init__(self, kind, directory, user=None, services=None, environment=None, **options):
        self.kind = kind
        self.services = services or os.path.join(directory, "services")
        os.makedirs(directory, exist_ok=True)
        if not services:
            os.makedirs(self.services)
        if user:
            os.chown(directory, user.uid, user.gid)
        configuration = os.path.join(directory, "bus.conf")
        with open(configuration, "w") as file:
            file.write(CONFIGURATION.format(kind=kind, socket=os.path.join(directory, "socket"),
                                            services=self.services, limits=LIMITS[kind]))
        self._start([f"--config-file={configuration}"], os.path.join(directory, "log"), user,
                    {"PATH": "/usr/bin:/bin", **(environment or {})}, **options)

    def _start(self, arguments, log, user, environment, **options):
        self.daemon = Child(f"{self.kind} bus",
                            ["/usr/bin/dbus-daemon", *arguments, "--nofork", "--nopidfile", "--nosyslog",
                             "--print-address=1"],
                            log, environment, user, stdout=subprocess.PIPE, **options)
        # One line, written when it listens; nothing if it could not.
        self.address = self.daemon.popen.stdout.readline().decode().strip()
        if not self.address:
            raise RuntimeError(f"no {self.kind} bus: {self.daemon.output()}")

    def connect(self, mainloop=dbus.mainloop.NULL_MAIN_LOOP):
        connection = dbus.bus.BusConnection(self.address, mainloop=mainloop)
        # The default is to end the whole process.
        connection.set_exit_on_disconnect(False)
        return connection

    def owner(self, name):
        """Unique name that owns a name, or None."""
        connection = self.connect()
        try:
            return str(connection.get_name_owner(name))
        except dbus.DBusException:
            return None
        finally:
            connection.close()

    def stop(self):
        self.daemon.popen.stdout.close()
        self.daemon.kill()


class Loop:
    """The thread that serves connections with handlers. One per process is enough for any number of stacks."""

    _shared = None

    def __init__(self):
        dbus.mainloop.glib.threads_init()
        self.mainloop = dbus.mainloop.glib.DBusGMainLoop()
        self._loop = GLib.MainLoop()
        threading.Thread(target=self._loop.run, name="bus loop", daemon=True).start()

    @classmethod
    def shared(cls):
        if cls._shared is None:
            cls._shared = cls()
        return cls._shared

    def run(self, function):
        """Calls function() on the loop's thread and returns its result, or raises what it raised."""
        done = threading.Event()
        outcome = {}

        def call():
            try:
                outcome["value"] = function()
            except BaseException as error: # handed over to the caller, whatever it is
                outcome["error"] = error
            done.set()
            return GLib.SOURCE_REMOVE

        GLib.idle_add(call, priority=GLib.PRIORITY_HIGH)
        done.wait()
        if "error" in outcome:
            raise outcome["error"]
        return outcome["value"]


class ServedConnection:
    """A connection whose incoming messages go to handle(message), on the loop's thread.

    handle() returns True for a message that it has dealt with.
    """

    def __init__(self, bus, handle):
        self._loop = Loop.shared()
        self._handle = handle

        def make():
            connection = bus.connect(self._loop.mainloop)
            connection.add_message_filter(self._filter)
            return connection

        self.connection = self._loop.run(make)

    def _filter(self, _connection, message):
        handled = self._handle(message)
        return (dbus.lowlevel.HANDLER_RESULT_HANDLED if handled
                else dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED)

    def run(self, function):
        return self._loop.run(lambda: function(self.connection))

    def send(self, message):
        self.run(lambda connection: (connection.send_message(message), connection.flush()))

    def close(self):
        self.run(lambda connection: connection.close())
