"""What others offer has the members that data/interfaces describes: in the real programs, in python-dbusmock's, and in
the stand-ins of the tests."""

import glob
import os
import re
import xml.etree.ElementTree as ElementTree

import pytest

from stack.document_portal import DocumentPortal, cannot_run
from stack.interfaces import STANDARD, described, expected_members, members_of, signatures
from stack.intent_resolver import IntentResolver
from stack.mocks import Battery, Logind, ScreenSaver, TimedDaemon
from stack.notification_server import NotificationServer
from stack.permission_daemon import PermissionDaemon
from stack.stack import TREE
from stack.user_session import UserSession
from stack.window_model import WindowModel

DESCRIBED = described()
BUS, MANAGER = "org.freedesktop.DBus", "org.freedesktop.systemd1.Manager"
INHIBITORS, BATTERY = "org.freedesktop.login1.Manager", "org.freedesktop.UPower.Device"
PORTAL = "org.freedesktop.portal.Documents"

STAND_INS = [IntentResolver, NotificationServer, PermissionDaemon, ScreenSaver, TimedDaemon, WindowModel]
LOOKED_AT = {BUS, MANAGER, INHIBITORS, BATTERY, PORTAL}
# Heard only, and implemented by applications: the sample application's tests call it.
NOBODY_TO_ASK = {"org.solvaneos.PrivacyViolation", "org.kestrix.Procwarden.IntentHandler1"}
# The bus library speaks of itself; an error.
NOT_CALLED = {"org.freedesktop.DBus.Local", "org.freedesktop.systemd1.NoSuchUnit"}


def check(bus, interface):
    """Everything that is described is there with these types; there may be more."""
    connection = bus.connect()
    try:
        (service, _), *_ = DESCRIBED[interface].services
        text = connection.call_blocking(service, DESCRIBED[interface].path, "org.freedesktop.DBus.Introspectable",
                                        "Introspect", "", ())
    finally:
        connection.close()
    element = ElementTree.fromstring(str(text)).find(f"interface[@name='{interface}']")
    # A mock lets its properties be written.
    expected, shown = ({name: {**member, "access": None} for name, member in signatures(members).items()}
                       for members in (expected_members(DESCRIBED[interface]), members_of(element)))
    assert {name: shown.get(name) for name in expected} == expected


@pytest.mark.parametrize("kind", STAND_INS, ids=lambda kind: kind.__name__)
def test_stand_in_takes_what_is_described(kind):
    methods = {name: member["in"] for name, member in signatures(expected_members(DESCRIBED[kind.INTERFACE])).items()
               if member["kind"] == "method"}
    assert {name: kind.METHODS.get(name) for name in methods} == methods
    assert kind.PATH == DESCRIBED[kind.INTERFACE].path


def test_everything_that_is_called_is_looked_at():
    called = {interface.name for interface in DESCRIBED.values() if not interface.is_offered}
    assert called <= LOOKED_AT | NOBODY_TO_ASK | {kind.INTERFACE for kind in STAND_INS}


def test_every_name_in_the_sources_is_described():
    """Whatever is offered or called: an interface has a file, the name of a service stands in one."""
    names, told = set(), ""
    for path in glob.glob(os.path.join(TREE, "src/**/*.[ch]*"), recursive=True):
        with open(path) as file:
            names |= set(re.findall(r'"((?:org|com|net|local)(?:\.\w+){2,})"', file.read()))
    for path in glob.glob(os.path.join(TREE, "data/interfaces/*.xml")):
        with open(path) as file:
            told += file.read()
    missing = {name for name in names - STANDARD - NOT_CALLED if not re.search(rf"\b{re.escape(name)}\b", told)}
    assert {name for name in missing if ".Error." not in name and not name.startswith("org.example.")} == set()
    assert len(names) > len(DESCRIBED)


def test_bus(stack):
    check(stack.session_bus, BUS)


def test_battery(stack):
    with Battery(stack, level=50):
        check(stack.system_bus, BATTERY)


def test_inhibitors(stack):
    with Logind(stack) as logind:
        logind.ping()
        check(stack.system_bus, INHIBITORS)


def test_user_manager(stack):
    with UserSession(stack) as session:
        check(session.bus, MANAGER)


@pytest.mark.skipif(cannot_run() != "", reason=cannot_run())
def test_document_portal(stack):
    portal = DocumentPortal(stack)
    try:
        check(stack.session_bus, PORTAL)
    finally:
        portal.close()
