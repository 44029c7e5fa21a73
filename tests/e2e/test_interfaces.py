"""What the running programs offer is what data/interfaces describes: every object, member and argument, both ways."""

import pytest

import raw
import tasker
from conftest import bring_up
from stack.client import ACTIVE
from stack.interfaces import described, expected_members, introspect
from stack.process import Child
from stack.service import SESSION_NAME, SYSTEM_NAME
from stack.stack import HELPER_NAME
from stack.user_session import Events
from stack.waiting import until

SAMPLE = "org.example.Sample"
SESSIONS = "/org/kestrix/Procwarden/TaskInvokerSessions/"
NOTIFICATIONS = "org.freedesktop.Notifications"
CONTROL, INTENTS = "org.kestrix.Procwarden.Control1", "org.kestrix.Procwarden.Intents1"
LIFECYCLE, TASKS = "org.kestrix.Procwarden.Lifecycle1", "org.kestrix.Procwarden.Tasks1"
SESSION = "org.kestrix.Procwarden.TaskInvokerSession1"

DESCRIBED = described()

# Introspection shows what an object's own methods return. What these answer is sent when it has happened; tests below
# look at the answers themselves.
ANSWERED_LATER = {(CONTROL, "Start"), (CONTROL, "StartDebug"), (INTENTS, "InvokeIntent")}
# Sent to one connection alone, and thus no signals of the objects.
SENT_TO_ONE = {(LIFECYCLE, "StateChanged"), (TASKS, "StateChanged")}


@pytest.fixture(scope="module")
def stack(request):
    """With a session for task invokers on either bus, and the keeper of timed events."""
    for running in bring_up(request):
        tasker.install(running, reload=False)
        running.start()
        tasker.register(running, "worker")
        tasker.register(running, "periodic", system=True)
        eventd = Child("the keeper of events", [running.program("procwarden-eventd")],
                       f"{running.directory}/log/eventd", running.environment(), running.user)
        try:
            until(lambda: running.session_bus.owner(Events.NAME), "its name", detail=eventd.output)
            yield running
        finally:
            eventd.kill()


def offered_as(service, bus):
    """Path -> interfaces that are described as offered under a name."""
    found = {}
    for interface in DESCRIBED.values():
        if (service, bus) in interface.services:
            path = interface.path
            if interface.name == SESSION:
                path = SESSIONS + {"session": "worker", "system": "periodic"}[bus]
            found.setdefault(path, set()).add(interface.name)
    return found


SERVICES = [(SESSION_NAME, "session"), (SYSTEM_NAME, "system"), (HELPER_NAME, "system"), (Events.NAME, "session")]


def shown(stack, service, bus):
    return introspect(getattr(stack, f"{bus}_bus"), service)


def as_described(interface, member, running):
    """The description of a member, without what introspection cannot show."""
    expected = dict(member)
    if (interface, running) in ANSWERED_LATER:
        expected["out"] = []
    return expected


def named_like(described_arguments, arguments):
    """A result of a function of C++ has no name there."""
    return [(name if name is not None else expected, kind)
            for (expected, _), (name, kind) in zip(described_arguments, arguments)] if len(
                described_arguments) == len(arguments) else arguments


@pytest.mark.parametrize("service, bus", SERVICES)
def test_objects_are_those_that_are_described(stack, service, bus):
    objects = {path: set(interfaces) for path, interfaces in shown(stack, service, bus).items()}
    assert objects == offered_as(service, bus)


@pytest.mark.parametrize("service, bus", SERVICES)
def test_members_are_those_that_are_described(stack, service, bus):
    for interfaces in shown(stack, service, bus).values():
        for interface, members in interfaces.items():
            expected = {name: as_described(interface, member, name)
                        for name, member in expected_members(DESCRIBED[interface]).items()
                        if (interface, name) not in SENT_TO_ONE}
            for name, member in members.items():
                member["out"] = named_like(expected.get(name, member)["out"], member["out"])
            assert members == expected, interface


def test_every_interface_that_is_described_as_offered_runs(stack):
    running = {interface for service, bus in SERVICES for interfaces in shown(stack, service, bus).values()
               for interface in interfaces}
    assert running == {interface.name for interface in DESCRIBED.values() if interface.is_offered}


def test_notifications_have_a_name_of_their_own(stack):
    assert stack.session_bus.owner(NOTIFICATIONS) == stack.session_bus.owner(SESSION_NAME)
    assert (NOTIFICATIONS, "session") in DESCRIBED[NOTIFICATIONS].services


@pytest.fixture
def stopped(stack):
    """Nothing runs before, and nothing stays."""
    def end():
        for running in stack.control.running()[0]:
            stack.control.terminate(running[0])
        until(lambda: not stack.control.running()[0], "the end of the application", detail=stack.service.log)

    end()
    yield stack
    end()


def results(interface, name):
    return "".join(kind for _, kind in expected_members(DESCRIBED[interface])[name]["out"])


@pytest.mark.parametrize("interface, member, signature, arguments", [
    (CONTROL, "Start", "s", [SAMPLE]),
    (CONTROL, "StartDebug", "sa{sv}", [SAMPLE, tasker.variant_map({})]),
    (INTENTS, "InvokeIntent", "sa{sv}a{sv}", ["Start", tasker.variant_map({"preferredHandler": SAMPLE}),
                                              tasker.variant_map({})]),
])
def test_answers_that_come_later_are_those_that_are_described(stopped, interface, member, signature, arguments):
    answer, _ = raw.call(stopped.session_bus, SESSION_NAME, interface, member, *arguments, signature=signature, prefix="")
    assert (interface, member) in ANSWERED_LATER
    assert answer == results(interface, member) != ""


def test_signals_to_one_connection_are_those_that_are_described(stopped):
    application = tasker.Application(stopped)
    application.listen() # from now on it gets both signals
    monitor = stopped.monitor()
    tasker.start(stopped)
    monitor.wait_for("StateChanged")
    tasker.stop(stopped)
    stopped.control.update_windows(SAMPLE, active=1)
    monitor.wait_for("StateChanged", SAMPLE, ACTIVE)
    found = {(signal.interface, signal.member): signal for signal in monitor.signals() if signal.destination}
    assert set(found) == SENT_TO_ONE
    for (interface, member), signal in found.items():
        assert signal.signature == results(interface, member)
        assert signal.path == DESCRIBED[interface].path
