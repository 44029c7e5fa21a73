"""Notifications with servers and clients that stop, end early, or ask for no answer."""

import os
import signal
import subprocess
import sys
import time

import dbus
import dbus.lowlevel
import pytest

from notifier import NAME, NOTES, PATH, call, notify, start_application
from stack.bus import ServedConnection
from stack.notification_server import INFORMATION, NotificationServer
from stack.waiting import until

PYTHON = "/usr/bin/python3"
LONG = 240 # s
BUS_TIMEOUT = 25 # s, after which a call counts as not answered


@pytest.fixture
def notes(running):
    return start_application(running, NOTES)


def is_sanitized(pid):
    with open(f"/proc/{pid}/maps") as file:
        return "libasan" in file.read()


def resident_kb(pid):
    with open(f"/proc/{pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS:"))


# --- servers ---


def test_server_that_never_answers(running, notes):
    """The caller hears 0 when the bus's time is over, and what the server says then is too late."""
    server = running.notification_server
    server.hold()
    begin = time.monotonic()
    text = "GLib.Variant('(susssasa{sv}i)', ('n', 0, '', 'Late', '', [], {}, -1))"
    program = f"""
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
print(bus.call_sync("{NAME}", "{PATH}", "{NAME}", "Notify", {text}, None, 0, {LONG * 1000}, None).unpack()[0])
"""
    assert notes.run(PYTHON, "-c", program, limit=LONG) == (0, "0\n")
    assert time.monotonic() - begin > BUS_TIMEOUT - 1
    monitor = running.monitor()
    server.release()
    number = server.wait_for("Late").id
    # It has no owner: nobody hears of it, and no application may touch it.
    server.dismiss(number)
    assert notes.refusal("CloseNotification", str(number))[1] == "Invalid notification ID"
    assert [event for event in monitor.take() if event.interface == NAME and event.path == PATH
            and event.destination] == []
    assert notes.notify("Next") == number + 1


STOPPED_SERVER = f"""
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
Gio.bus_own_name_on_connection(bus, "{NotificationServer.SERVICE}", 0, None, None)
GLib.MainLoop().run()
"""

FLOOD = f"""
from gi.repository import Gio, GLib
count, size, loop, refused = 500, 1 << 20, GLib.MainLoop(), []
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
data = GLib.Variant.new_from_bytes(GLib.VariantType.new("ay"), GLib.Bytes.new(bytes(size)), True)
hints = GLib.VariantBuilder(GLib.VariantType.new("a{{sv}}"))
hints.add_value(GLib.Variant.new_dict_entry(GLib.Variant("s", "data"), GLib.Variant.new_variant(data)))
arguments = GLib.Variant.new_tuple(*(GLib.Variant(kind, value) for kind, value in (
    ("s", "name"), ("u", 0), ("s", ""), ("s", "Large"), ("s", ""), ("as", []))), hints.end(), GLib.Variant("i", -1))
def on_reply(_, result):
    try:
        refused.append(bus.call_finish(result).unpack()[0])
    except GLib.Error as error:
        refused.append(error.message)
def send(left):
    # As fast as the service takes them, and no faster.
    bus.call("{NAME}", "{PATH}", "{NAME}", "Notify", arguments, None, 0, {LONG * 1000}, None, on_reply)
    if left % 10 == 0:
        bus.call("{NAME}", "{PATH}", "{NAME}", "CloseNotification", GLib.Variant("(u)", (1,)), None, 0, {LONG * 1000},
                 None, lambda bus, result: send(left - 1) if left > 1 else loop.quit())
    else:
        send(left - 1)
send(count)
loop.run()
print(len(refused), set(refused))
"""


def test_stopped_server_does_not_fill_the_memory(running, notes):
    running.notification_server.vanish()
    server = subprocess.Popen([PYTHON, "-c", STOPPED_SERVER], stderr=sys.stderr,
                              env={**os.environ, "DBUS_SESSION_BUS_ADDRESS": running.session_bus.address})
    try:
        until(lambda: running.session_bus.owner(NotificationServer.SERVICE), "the server's name")
        server.send_signal(signal.SIGSTOP)
        code, text = notes.run(PYTHON, "-c", FLOOD, limit=LONG)
        size = resident_kb(running.service.pid)
        assert code == 0, text
        refused, answers = text.split(maxsplit=1)
        assert answers == "{0}\n"
        assert 300 < int(refused) < 500 # the others are waiting
        if not is_sanitized(running.service.pid):
            assert size < 400_000, size
    finally:
        server.kill()
        server.wait()
    running.notification_server.appear()
    assert notes.notify("Small") == 1


# --- clients ---


@pytest.mark.parametrize("member, signature, arguments", [
    ("Notify", "susssasa{sv}i", ("name", 0, "", "Silent", "", [], {}, -1)),
    ("CloseNotification", "u", (1,)),
    ("GetCapabilities", "", ()),
    ("GetServerInformation", "", ()),
    ("GetNotifications", "s", ("name",)),
    ("GetNotificationsByCategory", "s", ("category",)),
])
def test_who_wants_no_reply_gets_none(running, member, signature, arguments):
    serials = []
    connection = ServedConnection(running.session_bus, lambda message: serials.append(message.get_reply_serial()))

    def send(bus, name, what, *values, kind="", silent=False):
        message = dbus.lowlevel.MethodCallMessage(name, PATH, NAME, what)
        message.append(*values, signature=kind)
        message.set_no_reply(silent)
        return bus.send_message(message)

    silent = connection.run(lambda bus: send(bus, NAME, member, *arguments, kind=signature, silent=True))
    asked = connection.run(lambda bus: send(bus, NAME, "GetCapabilities"))
    until(lambda: asked in serials, "the reply to the other call")
    connection.close()
    assert silent not in serials
    if member == "Notify":
        assert running.notification_server.wait_for("Silent").id == 1


def test_refusal_is_not_sent_to_who_wants_no_reply(running, notes):
    number = notify(running)
    program = f"""
import dbus, dbus.lowlevel, dbus.mainloop.glib
from gi.repository import GLib
serials, loop = [], GLib.MainLoop()
def listen(_, message):
    serials.append(message.get_reply_serial())
    if serials[-1] == asked:
        loop.quit()
    return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
def send(member, signature="", *arguments, silent=True):
    call = dbus.lowlevel.MethodCallMessage("{NAME}", "{PATH}", "{NAME}", member)
    call.append(*arguments, signature=signature)
    call.set_no_reply(silent)
    return bus.send_message(call)
bus = dbus.SessionBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
bus.add_message_filter(listen)
silent = (send("Notify", "susssasa{{sv}}i", "name", {number}, "", "stolen", "", [], {{}}, -1),
          send("CloseNotification", "u", {number}))
asked = send("GetCapabilities", silent=False)
loop.run()
print([serial for serial in silent if serial in serials])
"""
    assert notes.run(PYTHON, "-c", program) == (0, "[]\n")
    assert [shown.summary for shown in running.notification_server.shown] == ["Hello"]
    assert running.notification_server.closed == []


def test_process_of_an_application_that_ends_before_its_reply(running, notes):
    """The notification is the application's all the same."""
    server = running.notification_server
    server.hold()
    program = f"""
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
bus.call("{NAME}", "{PATH}", "{NAME}", "Notify",
         GLib.Variant("(susssasa{{sv}}i)", ("n", 0, "", "Orphan", "", [], {{}}, -1)), None, 0, -1, None, None)
# The answer to a blocking call shows that the service knows who has called before it.
bus.call_sync("{NAME}", "{PATH}", "{NAME}", "GetCapabilities", None, None, 0, -1, None)
"""
    assert notes.run(PYTHON, "-c", program) == (0, "")
    server.wait_for_held()
    server.release()
    shown = server.wait_for("Orphan")
    assert shown.hints == {"x-solvane-application-id": NOTES}
    assert notes.list("GetNotifications", "Notes") == [shown.id]
    assert notes.gdbus("CloseNotification", str(shown.id)) == (0, "()\n")


def test_events_for_what_cannot_be_a_name_are_lost(running):
    """An application's id that the bus takes for no name: its events must not go to everybody instead."""
    strange = "org.7up.Notes"
    program = running.applications.install_program(strange)
    running.install_sample(strange, exec_line=f"{program} --name org.example.Strange",
                           sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    running.control.start(strange)
    application = running.sample(strange, "org.example.Strange")
    code, text = application.run("/usr/bin/notify-send", "--print-id", "Strange")
    assert (code, text) == (0, "1\n")
    server = running.notification_server
    assert server.wait_for("Strange").hints["x-solvane-application-id"] == strange
    monitor = running.monitor()
    server.invoke(1)
    server.dismiss(1)
    assert call(running, "GetServerInformation") == ("ssss", list(INFORMATION)) # behind the events
    assert [event for event in monitor.take() if event.interface == NAME] == []
    assert notify(running) == 2
