"""The notification interface: what goes over the bus, whose a notification is, and what the server may do."""

import threading

import dbus
import dbus.lowlevel
import pytest

from notifier import MAIL, NAME, NOTES, PATH, by_the_other_name, call, notify, start_application
from stack.bus import ServedConnection
from stack.client import BusError
from stack.notification_server import CAPABILITIES, INFORMATION, RECORDS
from stack.service import SESSION_NAME
from stack.waiting import until

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
INVALID_ID = (INVALID_ARGS, "Invalid notification ID")


def members(signals):
    return [signal.member for signal in signals if signal.interface == NAME]


# --- on the wire ---


def test_replies_of_the_server_are_passed_on(running):
    assert call(running, "GetCapabilities") == ("as", [CAPABILITIES])
    assert call(running, "GetServerInformation") == ("ssss", list(INFORMATION))
    assert call(running, "GetNotifications", "", signature="s") == (RECORDS, [[]])
    number = notify(running, actions=["default", "Open"], hints={"category": "x-test", "urgency": dbus.Byte(2)})
    for member, argument in (("GetNotifications", "Own name"), ("GetNotificationsByCategory", "x-test")):
        signature, (records,) = call(running, member, argument, signature="s")
        assert signature == RECORDS
        assert records == [("Own name", number, "own-icon", "Hello", "body", ["default", "Open"],
                            {"category": "x-test", "urgency": 2}, -1)]
        assert isinstance(records[0][6]["urgency"], dbus.Byte)
        assert running.notification_server.asked[-1] == (member, argument)
    assert call(running, "CloseNotification", number, signature="u") == ("", [])
    until(lambda: running.notification_server.closed == [number], "the call of the server")
    assert running.notification_server.senders == {running.session_bus.owner(SESSION_NAME)}


def test_signals_have_the_agreed_form(running, notes):
    monitor = running.monitor()
    number = notes.notify()
    server = running.notification_server
    server.invoke(number, "reply")
    server.enter(number, "typed\n\u0436")
    server.dismiss(number, 2)
    signals = [signal for signal in monitor.wait_for("NotificationClosed") if signal.interface == NAME]
    seen = [(signal.member, signal.signature, signal.arguments, signal.path, signal.destination)
            for signal in signals if signal.path == PATH]
    assert seen == [("ActionInvoked", "us", (number, "reply"), PATH, NOTES),
                    ("InputTextSet", "us", (number, "typed\n\u0436"), PATH, NOTES),
                    ("NotificationClosed", "uu", (number, 2), PATH, NOTES)]


# --- who sends ---


@pytest.mark.parametrize("claimed", ["{}", f"{{'x-solvane-application-id': <'{MAIL}'>}}",
                                     "{'x-solvane-application-id': <5>}"])
def test_application_is_what_the_catalogue_says(running, notes, claimed):
    notes.notify("Stamped", hints=claimed)
    shown = running.notification_server.wait_for("Stamped")
    assert (shown.app_name, shown.icon) == ("Notes by Example", "icon-notes")
    assert shown.hints == {"x-solvane-application-id": NOTES}
    assert (shown.body, shown.actions, shown.timeout) == ("body", ["default", "Open"], 5000)


def test_stranger_is_what_it_says(running):
    notify(running, "Plain")
    shown = running.notification_server.wait_for("Plain")
    assert (shown.app_name, shown.icon, shown.hints) == ("Own name", "own-icon", {})
    notify(running, "For another", hints={"x-solvane-application-id": MAIL})
    assert running.notification_server.wait_for("For another").hints == {"x-solvane-application-id": MAIL}


def test_remote_actions_are_for_oneself(running, notes):
    hint = "{{'x-nemo-remote-action-default': <'{} / org.example open'>}}"
    notes.notify("Own", hints=hint.format(NOTES))
    assert "x-nemo-remote-action-default" in running.notification_server.wait_for("Own").hints
    refusal = (ACCESS_DENIED, "Cannot invoke actions on other services")
    assert notes.refused_notify(hints=hint.format(MAIL)) == refusal
    assert notes.refused_notify(hints=hint.format(NOTES + ".Evil")) == refusal
    running.service.wait_for_log(f'"{NOTES}" not allowed to invoke actions on "{MAIL}"')
    notify(running, "Privileged", hints={"x-nemo-remote-action-default": f"{MAIL} / org.example open"})
    assert [shown.summary for shown in running.notification_server.shown] == ["Own", "Privileged"]


# --- whose it is ---


def test_application_cannot_touch_what_is_not_its_own(running, notes, mail):
    server = running.notification_server
    theirs = notes.notify("Theirs")
    strangers = notify(running, "Stranger's")
    for number in (theirs, strangers):
        assert mail.refused_notify(replaces=number) == INVALID_ID
        assert mail.refusal("CloseNotification", str(number)) == INVALID_ID
    assert mail.refusal("CloseNotification", "4294967295") == INVALID_ID
    running.service.wait_for_log(f'"{MAIL}" tried to update notification belonging to "{NOTES}"')
    assert [shown.summary for shown in server.open.values()] == ["Theirs", "Stranger's"]
    assert server.closed == []

    own = mail.notify("Mine")
    assert notes.notify("Theirs again", replaces=theirs) == theirs
    for member in ("GetNotifications", "GetNotificationsByCategory"):
        server.answer_with(lambda message: server.reply(
            message, RECORDS, dbus.Array([shown.record() for shown in server.open.values()],
                                         signature="(susssasa{sv}i)")))
        assert mail.list(member, "Own name") == [own]
        assert notes.list(member, "Own name") == [theirs]
        server.answer_with(None)
    assert len(call(running, "GetNotifications", "", signature="s")[1][0]) == 3

    assert mail.gdbus("CloseNotification", str(own)) == (0, "()\n")
    assert call(running, "CloseNotification", theirs, signature="u") == ("", [])
    until(lambda: server.closed == [own, theirs], "both to be closed")
    assert mail.refusal("CloseNotification", str(own)) == INVALID_ID


def test_unknown_number_is_left_to_the_server(running, notes):
    assert notes.notify("Unknown", replaces=77) == 77
    assert running.notification_server.wait_for("Unknown").replaces == 77


def test_application_that_is_started_again_has_its_notifications(running):
    one = start_application(running, NOTES)
    number = one.notify()
    # Ended and started again: another process, another bus connection, the same application.
    running.control.terminate(NOTES)
    until(lambda: not running.session_bus.owner(NOTES), "its end")
    until(lambda: not running.control.running()[0], "the end of its record")
    again = start_application(running, NOTES)
    assert again.notify("Again", replaces=number) == number
    assert again.gdbus("CloseNotification", str(number)) == (0, "()\n")


class Watcher:
    """Hears every signal of the interface that the bus lets it hear."""

    def __init__(self, bus):
        self.heard = []
        self._served = ServedConnection(bus, self._handle)
        self._served.run(lambda connection: connection.add_match_string(f"type='signal',interface='{NAME}'"))

    def _handle(self, message):
        if message.get_interface() == NAME:
            self.heard.append((str(message.get_sender()), str(message.get_member()), int(message.get_args_list()[0])))
        return True

    def close(self):
        self._served.close()


def test_events_reach_the_owner_only(running, notes, mail):
    """Whoever watches the server itself hears it, so what counts is what the service sends."""
    service = running.session_bus.owner(SESSION_NAME)
    watcher = Watcher(running.session_bus)
    server = running.notification_server
    theirs, mine, everybodys = notes.notify(), mail.notify(), notify(running)
    for number in (theirs, mine, 4242, everybodys):
        server.invoke(number)
        server.enter(number, "text")
        server.dismiss(number)
    last = (service, "NotificationClosed", everybodys)
    until(lambda: last in watcher.heard, "the event for everybody")
    assert [entry for entry in watcher.heard if entry[0] == service] == [
        (service, "ActionInvoked", everybodys), (service, "InputTextSet", everybodys), last]
    watcher.close()


def test_refusal_is_the_only_reply(running, notes, mail):
    """Counts what comes back to two calls, up to the reply to the next one."""
    number = notes.notify()
    program = f"""
import dbus, dbus.lowlevel, dbus.mainloop.glib
from gi.repository import GLib
errors, serials, loop = [], [], GLib.MainLoop()
def listen(_, message):
    if message.get_reply_serial():
        serials.append(message.get_reply_serial())
    return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
def send(handle, member, signature="", *arguments):
    call = dbus.lowlevel.MethodCallMessage("{NAME}", "{PATH}", "{NAME}", member)
    call.append(*arguments, signature=signature)
    bus.send_message_with_reply(call, handle)
bus = dbus.SessionBus(mainloop=dbus.mainloop.glib.DBusGMainLoop())
bus.add_message_filter(listen)
send(lambda reply: errors.append(reply.get_error_name()),
     "Notify", "susssasa{{sv}}i", "name", {number}, "", "stolen", "", [], {{}}, -1)
send(lambda reply: errors.append(reply.get_error_name()), "CloseNotification", "u", {number})
send(lambda reply: loop.quit(), "GetCapabilities")
loop.run()
print(*errors, len(serials) - len(set(serials)))
"""
    assert mail.sample.run("/usr/bin/python3", "-c", program) == (0, f"{INVALID_ARGS} {INVALID_ARGS} 0\n")


# --- names ---


def test_name_that_is_taken_is_done_without(stack):
    other = stack.session_bus.connect()
    other.request_name(NAME, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
    stack.start()
    assert "couldn't register notifications service" in stack.service.log().splitlines()
    assert stack.session_bus.owner(NAME) == other.get_unique_name()
    assert stack.control.running() == ([], [])
    # The object is there, and served.
    assert by_the_other_name(stack, "GetServerInformation") == ("ssss", list(INFORMATION))
    assert notify(stack, "By the other name", name=SESSION_NAME) == 1
    application = start_application(stack, NOTES)
    stack.notification_server.wait_for("By the other name")
    assert application.sample.call_service(f"{SESSION_NAME} {PATH} {NAME} GetCapabilities") == [""]
    other.close()


def test_both_names_are_the_services(running):
    assert running.session_bus.owner(NAME) == running.session_bus.owner(SESSION_NAME)
    assert "couldn't register" not in running.service.log()


# --- the server ---


def defaults(stack):
    assert notify(stack) == 0
    assert call(stack, "GetCapabilities") == ("as", [[]])
    assert call(stack, "GetServerInformation") == ("ssss", ["", "", "", ""])
    assert call(stack, "GetNotifications", "a", signature="s") == (RECORDS, [[]])
    assert call(stack, "GetNotificationsByCategory", "a", signature="s") == (RECORDS, [[]])
    assert call(stack, "CloseNotification", 1, signature="u") == ("", [])


def test_absent_server(running, notes):
    running.notification_server.vanish()
    defaults(running)
    assert notes.notify() == 0
    running.notification_server.appear()
    assert notes.notify("Back") == 1


@pytest.mark.parametrize("answer", [
    lambda server, message: server.fail(message, ACCESS_DENIED, "no"),
    lambda server, message: server.reply(message, "d", 0.5),
    lambda server, message: server.reply(message, ""),
    lambda server, message: server.reply(message, "v", dbus.UInt32(5)),
    lambda server, message: server.reply(message, "a(su)", dbus.Array([], signature="(su)")),
], ids=["error", "number", "nothing", "variant", "records of another kind"])
def test_server_that_answers_otherwise(running, answer):
    server = running.notification_server
    server.answer_with(lambda message: answer(server, message))
    defaults(running)
    server.answer_with(None)
    assert notify(running) == 1


def test_server_that_is_silent_holds_nobody_up(running, notes):
    server = running.notification_server
    server.hold()
    replies = []
    waiting = threading.Thread(target=lambda: replies.append(notes.notify("Late")))
    waiting.start()
    server.wait_for_held()
    # Everything else is served meanwhile.
    assert call(running, "GetServerInformation") == ("ssss", list(INFORMATION))
    assert len(running.control.running()[0]) == 1
    server.release()
    waiting.join()
    assert replies == [1]
    assert notes.gdbus("CloseNotification", "1") == (0, "()\n")


def test_restarted_server_begins_again(running, notes, mail):
    server = running.notification_server
    assert notes.notify() == 1
    server.vanish()
    server.forget()
    server.appear()
    assert mail.notify() == 1
    # The number is another's now.
    assert notes.refusal("CloseNotification", "1") == INVALID_ID
    monitor = running.monitor()
    server.dismiss(1)
    assert monitor.wait_for("NotificationClosed", 1)[-1].destination == MAIL


def test_numbers_wrap_around(running, notes):
    running.notification_server.next_id = 2 ** 32 - 1
    assert [notes.notify(), notes.notify()] == [2 ** 32 - 1, 1]
    assert notes.gdbus("CloseNotification", str(2 ** 32 - 1)) == (0, "()\n")


def test_false_events_are_not_believed(running, notes):
    number = notes.notify()
    monitor = running.monitor()
    connection = running.session_bus.connect()
    # Addressed to the service, which would not hear it otherwise.
    forged = dbus.lowlevel.SignalMessage(PATH, NAME, "NotificationClosed")
    forged.append(dbus.UInt32(number), dbus.UInt32(1), signature="uu")
    forged.set_destination(SESSION_NAME)
    connection.send_message(forged)
    connection.flush()
    # The service has seen what this connection sent before the call.
    connection.call_blocking(NAME, PATH, NAME, "GetCapabilities", "", ())
    monitor.synchronize()
    assert members(monitor.signals()) == []
    assert notes.gdbus("CloseNotification", str(number)) == (0, "()\n")
    connection.close()


# --- clients ---


def test_client_that_ends_before_its_reply(running, notes):
    server = running.notification_server
    server.hold()
    connection = running.session_bus.connect()
    message = dbus.lowlevel.MethodCallMessage(NAME, PATH, NAME, "Notify")
    message.append("n", 0, "", "Orphan", "", [], {}, -1, signature="susssasa{sv}i")
    connection.send_message(message)
    connection.flush()
    server.wait_for_held()
    connection.close()
    server.release()
    server.wait_for("Orphan")
    assert notes.notify() == 2


@pytest.mark.parametrize("arguments, signature", [
    ((), ""),
    (("name",), "s"),
    (("name", 0, "", "summary", "body", [], dbus.Dictionary({}, signature="ss"), 1), "susssasa{ss}i"),
    (("name", 0, "", "summary", "body", [], {}, 1), "sisssasa{sv}i"),
])
def test_malformed_call_is_refused(running, arguments, signature):
    with pytest.raises(BusError) as raised:
        call(running, "Notify", *arguments, signature=signature)
    assert raised.value.name == "org.freedesktop.DBus.Error.UnknownMethod"
    assert running.notification_server.shown == []
