"""Timed events with the user's real manager: they come at their time, over ends and restarts of everything."""

import datetime
import glob
import os
import time

import dbus
import pytest

from stack.process import Child
from stack.stack import SHORT_LIVED_OPTIONS
from stack.standin import StandIn
from stack.user_session import RECORDS, STAMPS, UNITS, Events, UserSession, recurrence
from stack.waiting import until

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
FAILED = "org.freedesktop.DBus.Error.Failed"
SERVICE_ACTION = ("org.kestrix.Procwarden", "EventTriggered", "/org/kestrix/Procwarden/Timed",
                  "org.kestrix.Procwarden.Timed")


# Seconds ahead, for events before which something else is done.
SOON = 6


class Listener(StandIn):
    """Whom the events call. triggered: the attributes of each call, in order."""

    SERVICE = "org.example.Listener"
    PATH = "/org/example/Listener"
    INTERFACE = "org.example.Listener1"
    METHODS = {"Due": "a{sv}"}
    ACTION = (SERVICE, "Due", PATH, INTERFACE)

    def __init__(self, bus):
        self.triggered = []
        super().__init__(bus)
        # A call of the connection that owns the name; one thread at a time may use it.
        self.events = Events(lambda *call: self._served.run(lambda connection: connection.call_blocking(*call)))

    def add(self, attributes=(), **times):
        return self.events.add(self.ACTION, attributes, **times)

    def on_Due(self, message, attributes):
        self.triggered.append({str(key): str(value) for key, value in attributes.items()})
        self.reply(message, "")


@pytest.fixture
def session(stack):
    with UserSession(stack) as session:
        yield session


@pytest.fixture
def listener(session):
    listener = Listener(session.bus)
    yield listener
    listener.close()
    assert listener.complaints == []


def environment(stack):
    return {**stack.environment(), **SHORT_LIVED_OPTIONS}


def ahead(seconds):
    """Local time on the wire, in a short while, with its seconds."""
    return (datetime.datetime.now() + datetime.timedelta(seconds=seconds)).strftime("%Y-%m-%dT%H:%M:%S")


def owning(connection, name):
    """The events of a connection that owns a name."""
    connection.request_name(name, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
    return Events(connection.call_blocking)


def files(session):
    """What there is of events on disk, without the counter."""
    patterns = (f"{UNITS}/procwarden-event-*", f"{UNITS}/timers.target.wants/*", f"{RECORDS}/events/*",
                f"{STAMPS}/stamp-procwarden-event-*")
    return sorted(path for pattern in patterns for path in glob.glob(session.path(pattern)))


def timers(session):
    """Names of the manager's timers of events, but those that have stopped."""
    listed = session.manager.run("systemctl", "--user", "list-units", "--plain", "--no-legend",
                                 "procwarden-event-*.timer").stdout
    return [line.split()[0] for line in listed.splitlines()]


def refused(call, *arguments, **options):
    """Name of the error with which a call is answered."""
    with pytest.raises(dbus.DBusException) as error:
        call(*arguments, **options)
    return error.value.get_dbus_name()


def gone(session):
    """Waits until nothing of any event is left."""
    until(lambda: not files(session) and not timers(session), "the end of the events",
          detail=lambda: f"{files(session)} {timers(session)}")


def owner(session):
    """A connection of the service's own name, before it runs, with its events."""
    connection = session.bus.connect()
    return connection, owning(connection, "org.kestrix.Procwarden")


def switched_off_until(session, moment):
    """Everything ends at once, and comes up again when that local time has passed."""
    session.stop()
    until(lambda: datetime.datetime.now().isoformat() > moment, "the time to pass")
    session.start()


# --- one event ---


def test_event_comes_back_with_its_attributes(session, listener):
    attributes = {"eventId": "org.example.Notes.task_sync", "odd": "%n $HOME \"'\\ \n\t\x01 \u20ac \U0001f600", "": ""}
    cookie = listener.add(attributes, time=ahead(SOON))
    assert timers(session) == [f"procwarden-event-{cookie}.timer"]
    until(lambda: listener.triggered, "the event", detail=session.manager._child.output)
    assert listener.triggered == [attributes]
    gone(session)
    assert refused(listener.events.cancel, cookie) == INVALID_ARGS


def test_event_starts_the_service(stack, session):
    stack.start_helper()
    session.install_service()
    connection, events = owner(session)
    events.add(SERVICE_ACTION, {"eventId": ""}, time=ahead(SOON))
    connection.close()
    # It has no task; what it says of an event without an id shows that the call has arrived.
    until(lambda: "Received empty eventId from timed" in session.log(), "the event", detail=session.log)
    assert session.bus.owner("org.kestrix.Procwarden")
    gone(session)


def test_events_of_the_past_are_fired_at_once(session, listener):
    listener.add({"which": "past"}, time="2020-02-29T12:00")
    until(lambda: listener.triggered, "the event")
    assert listener.triggered == [{"which": "past"}]
    gone(session)


def test_cancelled_event_does_not_come(session, listener):
    cookie = listener.add({"which": "cancelled"}, time=ahead(SOON))
    listener.events.cancel(cookie)
    assert files(session) == [] and timers(session) == []
    listener.add({"which": "later"}, time=ahead(SOON + 1))
    until(lambda: listener.triggered, "the later event")
    assert listener.triggered == [{"which": "later"}]
    assert refused(listener.events.cancel, cookie) == INVALID_ARGS
    assert refused(listener.events.cancel, 0xffffffff) == INVALID_ARGS


# --- again and again ---


def test_recurrent_event_comes_until_it_is_cancelled(session, listener):
    cookie = listener.add({"which": "often"}, recurrences=[recurrence(seconds=range(60))])
    until(lambda: len(listener.triggered) >= 3, "the event, three times")
    listener.events.cancel(cookie)
    assert files(session) == []
    count = len(listener.triggered)
    listener.add({"which": "later"}, time=ahead(3))
    until(lambda: {"which": "later"} in listener.triggered, "the later event")
    # One may have been on its way.
    assert len(listener.triggered) - count in (1, 2)


def test_start_and_end_are_honoured(session, listener):
    """Each second, from some seconds ahead to some more: nothing before, nothing after, and then it is gone."""
    now = datetime.datetime.now().astimezone().replace(microsecond=0)
    start, end = now + datetime.timedelta(seconds=6), now + datetime.timedelta(seconds=8)
    listener.add({"which": "limited"}, recurrences=[recurrence(seconds=range(60), start=start.isoformat(),
                                                               end=end.isoformat())])
    times = []

    def over():
        while len(times) < len(listener.triggered):
            times.append(datetime.datetime.now().astimezone())
        return not files(session)

    until(over, "the end of the event")
    assert times and times[0] >= start
    assert len(listener.triggered) <= 3 # both ends are among them
    gone(session)


# --- while everything is off ---


def test_event_that_was_due_while_everything_was_off_is_fired_once(stack, session):
    stack.start_helper()
    session.install_service()
    connection, events = owner(session)
    moment = ahead(SOON)
    events.add(SERVICE_ACTION, {"eventId": ""}, time=moment)
    connection.close()
    switched_off_until(session, moment)
    until(lambda: "Received empty eventId" in session.log(), "the event")
    gone(session)
    # Nor when it comes up again.
    session.stop()
    session.start()
    connection, events = owner(session)
    assert session.log().count("Received empty eventId from timed") == 1
    connection.close()


def test_recurrent_event_survives_and_what_it_missed_comes_once(session):
    listener = Listener(session.bus)
    now = datetime.datetime.now()
    moment = now + datetime.timedelta(seconds=SOON)
    # At three seconds of this minute or the next; all of them pass while everything is off.
    missed = [moment + datetime.timedelta(seconds=extra) for extra in range(3)]
    cookie = listener.add({"which": "daily"}, recurrences=[
        recurrence(hours=sorted({time.hour for time in missed}), minutes=sorted({time.minute for time in missed}),
                   seconds=[time.second for time in missed])])
    listener.close()
    session.stop()
    until(lambda: datetime.datetime.now() > missed[-1], "the time to pass")
    # Nobody takes the call at first: it is tried again, by hand here.
    session.start()
    unit = f"procwarden-event-{cookie}.service"
    until(lambda: session.manager.run("systemctl", "--user", "show", "-P", "Result", unit).stdout.strip()
          == "exit-code", "the call that nobody takes")
    listener = Listener(session.bus)
    session.manager.run("systemctl", "--user", "restart", unit)
    until(lambda: listener.triggered, "the event")
    assert listener.triggered == [{"which": "daily"}]
    assert timers(session) == [f"procwarden-event-{cookie}.timer"]
    listener.events.cancel(cookie)
    listener.close()


def test_event_outlives_the_daemon(session, listener):
    listener.add({"which": "kept"}, time=ahead(3))
    session.manager.run("systemctl", "--user", "kill", "-s", "KILL", "procwarden-eventd.service")
    until(lambda: listener.triggered, "the event")
    assert listener.triggered == [{"which": "kept"}]
    gone(session)


def test_daemon_puts_right_what_it_finds(session, listener):
    # Not while this runs.
    hour = (datetime.datetime.now().hour + 12) % 24
    cookie = listener.add({"which": "kept"}, recurrences=[recurrence(hours=[hour])])
    session.manager.run("systemctl", "--user", "stop", "procwarden-eventd.service")
    os.unlink(session.path(UNITS, f"procwarden-event-{cookie}.timer"))
    os.unlink(session.path(UNITS, "timers.target.wants", f"procwarden-event-{cookie}.timer"))
    session._write(session.path(UNITS, "procwarden-event-5.service"), "[Service]\nExecStart=/bin/true\n")
    session.manager.run("systemctl", "--user", "daemon-reload")
    session.manager.run("systemctl", "--user", "start", "procwarden-eventd.service")
    until(lambda: session.manager.run("systemctl", "--user", "is-active",
                                      f"procwarden-event-{cookie}.timer").stdout.strip() == "active",
          "the timer to run")
    assert os.path.lexists(session.path(UNITS, "timers.target.wants", f"procwarden-event-{cookie}.timer"))
    assert not os.path.exists(session.path(UNITS, "procwarden-event-5.service"))
    listener.events.cancel(cookie)
    gone(session)


# --- cookies, owners, failures ---


def test_cookies_are_never_used_again(session, listener):
    far = "2199-01-01T00:00"
    given = []
    for _ in range(3):
        given.append(listener.add(time=far))
        given.append(listener.add(time=far))
        listener.events.cancel(given[-1])
        session.manager.run("systemctl", "--user", "kill", "-s", "KILL", "procwarden-eventd.service")
        until(lambda: not session.bus.owner(Events.NAME), "the end of the daemon")
    assert given == sorted(set(given))


def test_nobody_has_events_for_somebody_elses_name(session, listener):
    stranger = session.bus.connect()
    events = owning(stranger, "org.example.Stranger")
    assert refused(events.add, Listener.ACTION, time=ahead(60)) == ACCESS_DENIED
    assert refused(events.add, ("org.freedesktop.systemd1", "Exit", "/org/freedesktop/systemd1",
                                "org.freedesktop.systemd1.Manager"), time=ahead(60)) == ACCESS_DENIED
    cookie = listener.add(time="2199-01-01T00:00")
    assert refused(events.cancel, cookie) == ACCESS_DENIED
    listener.events.cancel(cookie)
    stranger.close()


@pytest.mark.parametrize("times", [
    {"time": "2027-13-01T00:00"},
    {"recurrences": [recurrence(months=[12])]},
    {"recurrences": [recurrence(hours=[])]},
    {"recurrences": [recurrence(months=[1], days=[30])]},
    {},
])
def test_event_that_makes_no_sense_is_refused(session, listener, times):
    assert refused(listener.add, **times) == INVALID_ARGS
    assert files(session) == []


def test_without_a_user_manager_the_caller_is_told(stack):
    """On a bus that nobody's manager is on."""
    program = stack.program("procwarden-eventd")
    child = Child("eventd", [program], os.path.join(stack.directory, "log", "eventd"), environment(stack), stack.user)
    until(lambda: stack.session_bus.owner(Events.NAME), "the name", detail=child.output)
    connection = stack.session_bus.connect()
    events = owning(connection, "org.example.Listener")
    with pytest.raises(dbus.DBusException) as error:
        events.add(Listener.ACTION, time=ahead(60))
    assert error.value.get_dbus_name() == FAILED
    assert error.value.get_dbus_message() == "The systemd user manager is not on the session bus"
    assert glob.glob(os.path.join(stack.user.home, UNITS, "procwarden-event-*")) == []
    connection.close()

    # A second one gives way to the first.
    second = Child("second", [program], os.path.join(stack.directory, "log", "second"), environment(stack), stack.user)
    assert second.wait() == 1
    assert "Cannot own the bus name of the events" in second.output()
    child.stop()


def test_program_refuses_arguments_that_it_does_not_know(stack):
    program = stack.program("procwarden-eventd")
    for arguments in (["--help"], ["--fire"], ["--fire", "0"], ["--fire", "x"], ["--fire", "1", "2"], ["1"]):
        child = Child("eventd", [program, *arguments], os.path.join(stack.directory, "log", "eventd"),
                      environment(stack), stack.user)
        assert child.wait() == 2
        assert "usage: procwarden-eventd [--fire COOKIE]" in child.output()


# --- waking the device ---


def test_timer_does_not_ask_for_what_the_manager_may_not(session, listener):
    cookie = listener.add(time="2199-01-01T00:00")
    with open(session.path(UNITS, f"procwarden-event-{cookie}.timer")) as file:
        assert "WakeSystem" not in file.read()
    listener.events.cancel(cookie)


def has_waking_clock():
    try:
        time.clock_gettime(8) # CLOCK_REALTIME_ALARM
    except OSError:
        return False
    return True


def test_timer_wakes_the_device_where_that_is_possible(stack):
    """The manager has what it takes; a machine without a real-time clock has not, and its events come all the same."""
    with UserSession(stack, capabilities=["wake_alarm"]) as session:
        listener = Listener(session.bus)
        cookie = listener.add({"which": "waking"}, time=ahead(SOON))
        shown = session.manager.run("systemctl", "--user", "show", "-P", "WakeSystem",
                                    f"procwarden-event-{cookie}.timer").stdout.strip()
        assert shown == ("yes" if has_waking_clock() else "no")
        until(lambda: listener.triggered, "the event")
        listener.close()
        assert listener.complaints == []
