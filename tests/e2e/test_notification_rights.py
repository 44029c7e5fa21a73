"""Who may do what to whose notification: its owner, another application, a privileged one, and a stranger."""

import threading

import dbus
import pytest

import tasker
from notifier import MAIL, NAME, NOTES, PATH, Application, call, notify, start_application, start_privileged_application
from stack.client import BusError
from stack.notification_server import RECORDS
from stack.waiting import until
from tasker import SAMPLE

SETTINGS = "org.example.Settings"
INVALID_ID = ("org.freedesktop.DBus.Error.InvalidArgs", "Invalid notification ID")
LISTS = ("GetNotifications", "GetNotificationsByCategory")
NEVER_GIVEN = 4_000_000_000


@pytest.fixture
def settings(running):
    return start_privileged_application(running, SETTINGS, "Settings by Example")


def list_all(server):
    """Makes the server list whatever is open, whoever asks for what."""
    server.answer_with(lambda message: server.reply(message, RECORDS, dbus.Array(
        [shown.record() for shown in server.open.values()], signature="(susssasa{sv}i)")))


# --- a privileged application ---


@pytest.mark.parametrize("claimed", ["{}", f"{{'x-solvane-application-id': <'{MAIL}'>}}"])
def test_privileged_application_keeps_name_and_icon(running, settings, claimed):
    settings.notify("Stamped", hints=claimed)
    shown = running.notification_server.wait_for("Stamped")
    assert (shown.app_name, shown.icon) == ("Own name", "own-icon")
    assert shown.hints == {"x-solvane-application-id": SETTINGS}


def test_privileged_application_acts_on_all(running, notes, mail, settings):
    server = running.notification_server
    before = 77 # from before the start of the service, so that it is nobody's
    theirs, own = notes.notify("Theirs"), settings.notify("Own")
    strangers = notify(running, "Stranger's")
    settings.notify("Before", replaces=before)
    server.dismiss(before)
    list_all(server)
    for member in LISTS:
        assert settings.list(member, "any") == [theirs, own, strangers]
        assert notes.list(member, "any") == [theirs]
        assert mail.list(member, "any") == []
    server.answer_with(None)

    for number in (theirs, own, strangers, NEVER_GIVEN):
        assert settings.gdbus("CloseNotification", str(number)) == (0, "()\n")
    until(lambda: server.closed == [theirs, own, strangers, NEVER_GIVEN], "all to be closed")


def test_what_a_privileged_application_replaces_is_its_own(running, notes, settings):
    """And so are the events: who has sent it last is its owner."""
    server = running.notification_server
    number = notes.notify("Theirs")
    assert settings.notify("Taken over", replaces=number) == number
    assert [shown.summary for shown in server.open.values()] == ["Taken over"]
    assert notes.refused_notify(replaces=number) == INVALID_ID
    assert notes.refusal("CloseNotification", str(number)) == INVALID_ID
    running.service.wait_for_log(f'"{NOTES}" tried to update notification belonging to "{SETTINGS}"')
    monitor = running.monitor()
    server.invoke(number)
    server.dismiss(number)
    signals = [signal for signal in monitor.wait_for("NotificationClosed", number) if signal.interface == NAME]
    assert [(signal.member, signal.destination) for signal in signals if signal.destination] == [
        ("ActionInvoked", SETTINGS), ("NotificationClosed", SETTINGS)]


def test_actions_of_a_privileged_application_are_not_checked(running, settings):
    settings.notify("Calls", hints=f"{{'x-nemo-remote-action-default': <'{MAIL} / org.example open'>}}")
    assert running.notification_server.wait_for("Calls").hints["x-nemo-remote-action-default"] == (
        f"{MAIL} / org.example open")


# --- an application ---


def test_nothing_from_before_the_start_belongs_to_an_application(running, notes):
    """The server knows it, and so do those who may see everything."""
    server = running.notification_server
    number = notes.notify("Before")
    assert running.service.stop() == 0
    running.start_service()
    again = start_application(running, NOTES)
    list_all(server)
    for member in LISTS:
        assert again.list(member, "any") == []
        signature, (records,) = call(running, member, "any", signature="s")
        assert [record[1] for record in records] == [number]
    server.answer_with(None)
    assert again.refusal("CloseNotification", str(number)) == INVALID_ID
    # The server decides on a replacement, and then it has an owner.
    assert again.notify("Again", replaces=number) == number
    assert again.gdbus("CloseNotification", str(number)) == (0, "()\n")


@pytest.fixture
def instances(running):
    """Two of one application, at the same time."""
    program = running.applications.install_program(NOTES)
    running.install_sample(NOTES, exec_line=f"{program} --name {NOTES}.@", sandbox={"Sandboxing": "Disabled"},
                           main={"X-Nemo-Single-Instance": "no"})
    running.control.reload()
    started = [running.control.start(NOTES).instance_id for _ in range(2)]
    return [Application(running.sample(instance), instance) for instance in started]


def test_instances_of_an_application_are_one_owner(running, instances):
    one, other = instances
    assert one.id != other.id
    number = one.notify("Of one")
    assert other.notify("Of the other", replaces=number) == number
    assert one.list("GetNotifications", "Notes") == [number]
    monitor = running.monitor()
    assert one.gdbus("CloseNotification", str(number)) == (0, "()\n")
    # The event goes to the application, whichever instance has its name.
    closed = monitor.wait_for("NotificationClosed", number)
    assert [signal.destination for signal in closed if signal.interface == NAME and signal.destination] == [NOTES]


def notify_itself(sample, summary, replaces=0):
    """By the sample program itself, which is all that there is in its sandbox. Returns the number as text."""
    return sample.call_service_with(
        f"{NAME} {PATH} {NAME} Notify", "Own name", dbus.UInt32(replaces), "own-icon", summary, "",
        dbus.Array([], signature="s"), dbus.Dictionary({}, signature="sv"), dbus.Int32(-1))


def test_application_in_the_sandbox(running, mail):
    """Its calls come from the sandbox's own process on the bus, and events pass that one, too."""
    program = running.applications.install_program(SAMPLE)
    running.install_sample(SAMPLE, exec_line=f"{program} --name {SAMPLE} --no-lifecycle --notifications")
    running.control.reload()
    started = running.control.start(SAMPLE)
    sample = running.sample(SAMPLE, SAMPLE)
    assert running.sandbox_command(started.pid)
    others = mail.notify("Another's")
    assert notify_itself(sample, "In the sandbox") == ["2"]
    server = running.notification_server
    shown = server.wait_for("In the sandbox")
    assert (shown.app_name, shown.hints) == ("Sample", {"x-solvane-application-id": SAMPLE})
    with pytest.raises(BusError) as refused:
        notify_itself(sample, "Stolen", replaces=others)
    assert (refused.value.name, refused.value.message) == INVALID_ID
    assert mail.refusal("CloseNotification", str(shown.id)) == INVALID_ID

    for number in (others, shown.id):
        server.invoke(number, "reply")
        server.enter(number, "typed")
        server.dismiss(number, 2)
    until(lambda: "closed 2 2" in running.sample_files.diary(), "the last event")
    heard = running.sample_files.diary()
    assert heard[heard.index("listening") + 1:] == ["action 2 reply", "input 2 typed", "closed 2 2"]


def test_task_of_an_application_is_the_same_owner(running):
    """It runs in the sandbox, and is another process with an id of its own."""
    tasker.install(running)
    tasker.start(running)
    task = tasker.wait_running(running)

    server = running.notification_server
    notify_itself(task, "Of the task")
    shown = server.wait_for("Of the task")
    assert (shown.app_name, shown.icon) == ("Sample", "icon-sample")
    assert shown.hints == {"x-solvane-application-id": SAMPLE}
    running.control.start(SAMPLE)
    application = Application(running.sample(SAMPLE), SAMPLE)
    assert application.list("GetNotifications", "Sample") == [shown.id]
    assert application.notify("Of the application", replaces=shown.id) == shown.id
    notify_itself(task, "Of the task again", replaces=shown.id)
    server.wait_for("Of the task again")
    assert application.gdbus("CloseNotification", str(shown.id)) == (0, "()\n")
    until(lambda: server.closed == [shown.id], "it to be closed")


def test_remote_actions_of_an_instance(running, instances):
    one, other = instances
    hint = "{{'x-nemo-remote-action-default': <'{} / org.example open'>}}"
    for service in (NOTES, one.id):
        one.notify("Own", hints=hint.format(service))
    refusal = ("org.freedesktop.DBus.Error.AccessDenied", "Cannot invoke actions on other services")
    assert one.refused_notify(hints=hint.format(other.id)) == refusal
    running.service.wait_for_log(f'"{one.id}" not allowed to invoke actions on "{other.id}"')


@pytest.mark.parametrize("hints", [
    f"{{'x-solvane-application-id': <'{MAIL}'>, 'x-solvane-application-id': <'{SETTINGS}'>}}",
    f"{{'x-solvane-application-id': <'{MAIL}'>, 'x-solvane-application-id': <5>, 'x-solvane-application-id': <''>}}",
])
def test_repeated_stamp_deceives_nobody(running, notes, hints):
    """A map on the bus is a list of pairs, and each reader takes another one."""
    notes.notify("Stamped", hints=hints)
    assert running.notification_server.wait_for("Stamped").hints == {"x-solvane-application-id": NOTES}


def test_application_that_watches_does_not_hear_of_others(running, notes, mail):
    """The other application itself asks the bus for every signal of the interface."""
    server = running.notification_server
    service = running.session_bus.owner("org.kestrix.Procwarden")
    theirs = notes.notify()
    program = f"""
import sys
from gi.repository import Gio, GLib
loop, heard = GLib.MainLoop(), []
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
def on_signal(bus, sender, path, interface, member, arguments):
    if sender == "{service}":
        heard.append((member, arguments.unpack()[0]))
        if arguments.unpack()[0] != {theirs}:
            loop.quit()
bus.signal_subscribe(None, "{NAME}", None, None, None, Gio.DBusSignalFlags.NONE, on_signal)
bus.call_sync("{NAME}", "{PATH}", "{NAME}", "Notify",
              GLib.Variant("(susssasa{{sv}}i)", ("n", 0, "", "Ready", "", [], {{}}, -1)), None, 0, -1, None)
loop.run()
print(heard)
"""
    heard = []
    waiting = threading.Thread(target=lambda: heard.append(mail.run("/usr/bin/python3", "-c", program)))
    waiting.start()
    server.wait_for("Ready")
    server.invoke(theirs)
    server.enter(theirs, "text")
    server.dismiss(theirs)
    everybodys = notify(running, "Everybody's")
    server.invoke(everybodys)
    waiting.join()
    assert heard == [(0, f"[('ActionInvoked', {everybodys})]\n")]
