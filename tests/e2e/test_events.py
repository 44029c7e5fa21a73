"""Timed events with the user's real manager: they come at their time, over ends and restarts of everything."""

import datetime
import glob
import json
import os

import dbus
import pytest

from stack.standin import StandIn
from stack.user_session import RECORDS, STAMPS, UNITS, Events, UserSession, recurrence
from stack.waiting import until

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
FAILED = "org.freedesktop.DBus.Error.Failed"
SERVICE_ACTION = ("org.kestrix.Procwarden", "EventTriggered", "/org/kestrix/Procwarden/Timed",
                  "org.kestrix.Procwarden.Timed")


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
    """Names of the manager's timers of events, loaded in any state."""
    listed = session.manager.run("systemctl", "--user", "list-units", "--all", "--plain", "--no-legend",
                                 "procwarden-event-*.timer").stdout
    return [line.split()[0] for line in listed.splitlines()]


def test_event_comes_back_with_its_attributes(session, listener):
    attributes = {"eventId": "org.example.Notes.task_sync", "odd": "%n $HOME \"'\\ \n\t\x01 \u20ac \U0001f600", "": ""}
    cookie = listener.add(attributes, time=ahead(2))
    assert timers(session) == [f"procwarden-event-{cookie}.timer"]
    until(lambda: listener.triggered, "the event", detail=session.manager._child.output)
    assert listener.triggered == [attributes]
    until(lambda: not files(session) and not timers(session), "the end of the event")
    with pytest.raises(dbus.DBusException) as error:
        listener.events.cancel(cookie)
    assert error.value.get_dbus_name() == INVALID_ARGS
