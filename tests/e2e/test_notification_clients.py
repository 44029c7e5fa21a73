"""Programs that know nothing of the service, and very many notifications."""

import os
import subprocess
import sys
import threading

import dbus
import pytest

from notifier import NAME, NOTES, PATH, call, start_application
from stack.waiting import until

PYTHON = "/usr/bin/python3"
LONG = 240 # s: many calls, on a machine that does other things, too


def as_stranger(stack, *command):
    """Runs a program that the service has not started; returns what it printed."""
    done = subprocess.run(command, env={**os.environ, "DBUS_SESSION_BUS_ADDRESS": stack.session_bus.address},
                          capture_output=True, text=True, timeout=LONG, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


# --- notify-send ---


NOTIFY_SEND = ("/usr/bin/notify-send", "--print-id", "--app-name=Other name", "--icon=other-icon", "--urgency=critical",
               "--category=x-test", "--hint=int:value:50", "--expire-time=7000")


def test_notify_send_of_an_application(running):
    notes = start_application(running, NOTES, "Notes by Example")
    assert notes.sample.run(*NOTIFY_SEND, "A summary", "and <b>body</b>") == (0, "1\n")
    shown = running.notification_server.wait_for("A summary")
    assert (shown.app_name, shown.icon, shown.body, shown.timeout) == (
        "Notes by Example", "icon-notes", "and <b>body</b>", 7000)
    # It says which process it is, too.
    assert shown.hints.pop("sender-pid", None) != running.service.pid
    assert shown.hints == {"x-solvane-application-id": NOTES, "urgency": 2, "category": "x-test", "value": 50}
    assert isinstance(shown.raw_hints["urgency"], dbus.Byte)
    assert notes.sample.run(*NOTIFY_SEND, "--replace-id=1", "Another summary") == (0, "1\n")
    assert [shown.summary for shown in running.notification_server.open.values()] == ["Another summary"]


def test_notify_send_of_a_stranger(running):
    assert as_stranger(running, *NOTIFY_SEND, "A summary", "and body") == "1\n"
    shown = running.notification_server.wait_for("A summary")
    assert (shown.app_name, shown.icon) == ("Other name", "other-icon")
    assert "x-solvane-application-id" not in shown.hints


def test_notify_send_that_waits_hears_its_action(running):
    """It has no application, so that its events are for everybody."""
    heard = []
    waiting = threading.Thread(target=lambda: heard.append(
        as_stranger(running, "/usr/bin/notify-send", "--action=open=Open", "Choose")))
    waiting.start()
    shown = running.notification_server.wait_for("Choose")
    assert shown.actions == ["open", "Open"]
    # The reply with the number precedes the event on the service's connection.
    running.notification_server.invoke(shown.id, "open")
    running.notification_server.dismiss(shown.id)
    waiting.join(LONG)
    assert heard == ["open\n"]


# --- GLib ---


GLIB_APPLICATION = f"""
import sys
from gi.repository import Gio, GLib
application = Gio.Application(application_id="{NOTES}", flags=Gio.ApplicationFlags.FLAGS_NONE)
opened = Gio.SimpleAction.new("open", GLib.VariantType.new("s"))
def on_open(action, value):
    print("opened", value.get_string(), flush=True)
    application.withdraw_notification("letter")
    # What has been given to the bus must have left before the end.
    application.get_dbus_connection().flush_sync()
    application.quit()
opened.connect("activate", on_open)
application.add_action(opened)
def on_activate(_):
    application.hold()
    notification = Gio.Notification.new("A letter")
    notification.set_body("from GLib")
    notification.set_default_action_and_target("app.open", GLib.Variant("s", "letter 7"))
    notification.add_button_with_target("Open", "app.open", GLib.Variant("s", "letter 8"))
    application.send_notification("letter", notification)
application.connect("activate", on_activate)
sys.exit(application.run([]))
"""


def test_notification_of_glib(running):
    """Gio.Notification as it is: it finds the service by the name, and the events find it by its own."""
    sample = running.applications.install_program(NOTES)
    running.install_sample(NOTES, exec_line=f"{sample} --name {NOTES}.Main", sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    running.control.start(NOTES)
    client = running.sample(NOTES)
    ended = []
    waiting = threading.Thread(target=lambda: ended.append(
        client.run("/usr/bin/env", "GSETTINGS_BACKEND=memory", PYTHON, "-c", GLIB_APPLICATION, limit=LONG)))
    waiting.start()
    server = running.notification_server
    shown = server.wait_for("A letter")
    assert shown.body == "from GLib"
    assert shown.app_name == "Notes"
    assert shown.hints["x-solvane-application-id"] == NOTES
    assert shown.actions[0] == "default" and shown.actions[-1] == "Open"
    server.invoke(shown.id, shown.actions[-2])
    waiting.join(LONG)
    assert ended == [(0, "opened letter 8\n")]
    until(lambda: server.closed == [shown.id], "the notification to be withdrawn")


# --- the mock that comes with Debian, as the server ---


def test_mock_server_cannot_be_told_from_the_service(running):
    running.notification_server.vanish()
    mock = subprocess.Popen([PYTHON, "-m", "dbusmock", "org.solvaneos.Notifications", PATH, NAME],
                            env={**os.environ, "DBUS_SESSION_BUS_ADDRESS": running.session_bus.address},
                            stdout=subprocess.DEVNULL, stderr=sys.stderr)
    try:
        until(lambda: running.session_bus.owner("org.solvaneos.Notifications"), "the mock's name")
        connection = running.session_bus.connect()
        connection.call_blocking("org.solvaneos.Notifications", PATH, "org.freedesktop.DBus.Mock", "AddTemplate",
                                 "sa{sv}", ("notification_daemon", dbus.Dictionary({}, signature="sv")))
        connection.close()
        for member in ("GetCapabilities", "GetServerInformation"):
            assert call(running, member) == call(running, member, name="org.solvaneos.Notifications")
        notes = start_application(running, NOTES)
        assert notes.sample.run("/usr/bin/notify-send", "--print-id", "One") == (0, "1\n")
        assert notes.notify("Two") == 2
        monitor = running.monitor()
        assert notes.gdbus("CloseNotification", "2") == (0, "()\n")
        closed = monitor.wait_for("NotificationClosed", 2)[-1]
        assert (closed.arguments, closed.destination) == ((2, 1), NOTES)
    finally:
        mock.kill()
        mock.wait()


# --- many ---


BURST = f"""
import sys
from gi.repository import Gio, GLib
count, loop = int(sys.argv[1]), GLib.MainLoop()
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
numbers = []
def on_reply(_, result):
    numbers.append(bus.call_finish(result).unpack()[0])
    if len(numbers) == count:
        loop.quit()
for index in range(count):
    bus.call("{NAME}", "{PATH}", "{NAME}", "Notify",
             GLib.Variant("(susssasa{{sv}}i)", ("n", 0, "", f"{{sys.argv[2]}} {{index}}", "", [], {{}}, -1)),
             None, Gio.DBusCallFlags.NONE, 600000, None, on_reply)
loop.run()
print("ordered" if numbers == sorted(set(numbers)) and 0 not in numbers else numbers)
"""


def resident_kb(pid):
    with open(f"/proc/{pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS:"))


def test_ten_thousand_of_one_application(running):
    notes = start_application(running, NOTES)
    count = 10_000
    assert notes.sample.run(PYTHON, "-c", BURST, str(count), "burst", limit=LONG) == (0, "ordered\n")
    server = running.notification_server
    assert [shown.summary for shown in server.shown] == [f"burst {index}" for index in range(count)]
    assert {shown.hints["x-solvane-application-id"] for shown in server.shown} == {NOTES}
    # All are known as its own, and all are forgotten when they are closed.
    assert len(notes.list("GetNotifications", "")) == count
    for number in list(server.open):
        server.emit("NotificationClosed", "uu", number, 1)
    call(running, "GetCapabilities") # the answer comes behind the events
    assert notes.refusal("CloseNotification", str(count))[1] == "Invalid notification ID"


def test_a_hundred_clients_at_once(running):
    notes = start_application(running, NOTES)
    clients, each = 100, 20
    program = f"""
import subprocess, sys
children = [subprocess.Popen([sys.executable, "-c", sys.argv[1], "{each}", f"client{{number}}"], stdout=subprocess.PIPE)
            for number in range({clients})]
print({{child.communicate()[0] for child in children}})
"""
    assert notes.sample.run(PYTHON, "-c", program, BURST, limit=LONG) == (0, "{b'ordered\\n'}\n")
    summaries = [shown.summary for shown in running.notification_server.shown]
    assert len(summaries) == clients * each
    for client in range(clients):
        own = [summary for summary in summaries if summary.startswith(f"client{client} ")]
        assert own == [f"client{client} {index}" for index in range(each)]


def test_memory_follows_what_is_open(running):
    """Rounds of notifications that are closed again: the first ones fill the allocator, the others use it."""
    with open(f"/proc/{running.service.pid}/maps") as file:
        if "libasan" in file.read():
            pytest.skip("the sanitizer keeps what has been freed")
    notes = start_application(running, NOTES)
    server = running.notification_server
    sizes = []
    for turn in range(8):
        notes.sample.run(PYTHON, "-c", BURST, "1000", f"turn{turn}", limit=LONG)
        for number in list(server.open):
            server.dismiss(number)
        call(running, "GetCapabilities")
        sizes.append(resident_kb(running.service.pid))
    assert sizes[-1] - sizes[1] < 4096, sizes


LARGE = f"""
import sys
from gi.repository import Gio, GLib
size, length = int(sys.argv[1]), int(sys.argv[2])
data = GLib.Variant.new_from_bytes(GLib.VariantType.new("ay"), GLib.Bytes.new(bytes(size)), True)
hints = GLib.VariantBuilder(GLib.VariantType.new("a{{sv}}"))
hints.add_value(GLib.Variant.new_dict_entry(GLib.Variant("s", "data"), GLib.Variant.new_variant(data)))
arguments = GLib.Variant.new_tuple(*(GLib.Variant(kind, value) for kind, value in (
    ("s", "name"), ("u", 0), ("s", ""), ("s", "Large"), ("s", "x" * length), ("as", []))),
    hints.end(), GLib.Variant("i", -1))
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
print(bus.call_sync("{NAME}", "{PATH}", "{NAME}", "Notify", arguments, None, 0, 60000, None))
"""


@pytest.mark.parametrize("size, length", [(2 ** 26 - 32, 10), (10, 2 ** 27 - 1000), (2 ** 26 - 32, 2 ** 26 - 1000)])
def test_what_is_too_large_is_not_passed_on(running, size, length):
    """As large as the bus takes it: what the service adds would be too much, and cost it its connection."""
    notes = start_application(running, NOTES)
    assert notes.sample.run(PYTHON, "-c", LARGE, str(size), str(length), limit=LONG) == (0, "(uint32 0,)\n")
    assert notes.notify("Small") == 1
    assert [shown.summary for shown in running.notification_server.shown] == ["Small"]
