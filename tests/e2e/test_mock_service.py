"""The mock for applications' tests answers as the service does: the same calls go to both."""

import dbus
import pytest

import raw
import tasker
from conftest import bring_up
from stack.client import BusError
from stack.mock_service import NAME, MockService
from stack.waiting import until
from tasker import SAMPLE, TYPES, task_id, variant_map

OTHER = "org.example.Other"
NOTHING = variant_map({})
NOBODY = dbus.Array([], signature="s")


@pytest.fixture(scope="module")
def real(request):
    for running in bring_up(request):
        tasker.install(running, reload=False)
        running.start()
        yield running


@pytest.fixture(scope="module")
def mock(tmp_path_factory):
    """The sample's, and called by a stranger, as the service is."""
    parameters = {"application": SAMPLE, "applications": [], "tasks": TYPES}
    with MockService(str(tmp_path_factory.mktemp("mock")), parameters) as service:
        service.say("SetApplication", "s", "")
        service.call("Control1", "Terminate", "s", SAMPLE)
        yield service


def shape(value):
    """The types of what the bus has brought: maps with their keys, all else by its type alone."""
    if isinstance(value, dbus.Dictionary):
        return {str(key): shape(content) for key, content in value.items()}
    if isinstance(value, dbus.Array):
        return f"a{value.signature}"
    return type(value).__name__


def answer(bus, interface, member, signature, arguments):
    """What comes back: (error name, message), or (signature, shapes)."""
    try:
        found, values = raw.call(bus, NAME, interface, member, *arguments, signature=signature)
    except BusError as error:
        return error.name, error.message
    return found, [shape(value) for value in values]


def both(real, mock, *call):
    return answer(real.session_bus, *call), answer(mock.bus, *call)


def is_part(part, whole):
    """Maps of the mock may lack keys."""
    if isinstance(part, dict) and isinstance(whole, dict):
        return all(key in whole and is_part(value, whole[key]) for key, value in part.items())
    return part == whole


def start(name, **hints):
    return "Tasks1", "Start", "sasa{sv}", (task_id(name), NOBODY, variant_map(hints))


REFUSED = [
    ("Control1", "Start", "s", ("org.example.Unknown",)),
    ("Control1", "Start", "s", ("unknown",)),
    ("Control1", "Start", "s", ("",)),
    ("Control1", "StartDebug", "sa{sv}", ("org.example.Unknown", NOTHING)),
    ("Control1", "Terminate", "s", (SAMPLE,)),
    ("Control1", "Terminate", "s", ("",)),
    ("WindowManagement1", "UpdateWindowStatus", "siii", (SAMPLE, 1, 0, 0)),
    ("Lifecycle1", "GetProperties", "", ()),
    ("TaskInvoker1", "RegisterInvoker", "s", ("session-start",)),
    ("TaskInvoker1", "RegisterInvoker", "s", ("",)),
    ("TaskInvoker1", "RegisterInvoker", "s", ("x" * 256,)),
    ("Intents1", "InvokeIntent", "sa{sv}a{sv}", ("Start", NOTHING, NOTHING)),
    ("Intents1", "InvokeIntent", "sa{sv}a{sv}", ("OpenURI", NOTHING, NOTHING)),
    ("Intents1", "InvokeIntent", "sa{sv}a{sv}", ("Start", variant_map({"preferredHandler": "org.example.Unknown"}),
                                                 NOTHING)),
    start("none"),
    start("work", Weight=1),
    start("work", Autostart=1),
    start("often", RunningTime=61),
    start("late", RunningTime=61),
    start("often", StartDelay=1),
    start("work", StartDelay=-1),
    start("work", Interval=900),
    start("often", Interval=899),
    start("late", Interval=900),
    start("work", StartTime="2099-01-01T00:00:00"),
    start("work", Schedule=variant_map({"Hours": dbus.Array([1.0], signature="d")})),
]

ANSWERED = [
    ("Control1", "Reload", "", ()),
    ("Control1", "GetRunningApplications", "", ()),
    ("MemoryPressure1", "Subscribe", "", ()),
    ("Tasks1", "GetAll", "", ()),
    start("work", StartDelay=1000),
    ("Tasks1", "Stop", "sb", (task_id("work"), False)),
    ("Tasks1", "Stop", "sb", (task_id("work"), True)),
    ("Tasks1", "Stop", "sb", (task_id("none"), True)),
    ("TaskInvoker1", "RegisterInvoker", "s", ("worker",)),
    ("Introspect1", "ListRunning", "", ()),
    ("Introspect1", "GetStatus", "s", ("org.example.Unknown",)),
    ("Introspect1", "GetHistory", "su", ("", 0)),
    ("Introspect1", "GetMemory", "", ()),
    ("Introspect1", "Explain", "s", (SAMPLE,)),
]


def name_of(call):
    interface, member, _, arguments = call
    return f"{interface}.{member}({', '.join(str(argument)[:40] for argument in arguments)})"


@pytest.mark.parametrize("call", REFUSED, ids=name_of)
def test_refused_with_the_same_words(real, mock, call):
    expected, found = both(real, mock, *call)
    assert ".Error." in expected[0]
    assert found == expected


@pytest.mark.parametrize("call", ANSWERED, ids=name_of)
def test_answered_with_the_same_types(real, mock, call):
    (signature, expected), (found_signature, found) = both(real, mock, *call)
    assert ".Error." not in signature
    assert found_signature == signature
    assert all(is_part(part, whole) for part, whole in zip(found, expected)), (found, expected)


def alike(real, mock, *call):
    """The same error, or an answer of the same types, as far as the mock has it."""
    expected, found = both(real, mock, *call)
    assert found[0] == expected[0]
    assert found[1] == expected[1] or all(map(is_part, found[1], expected[1])), (found, expected)


def test_application_runs_and_ends_alike(real, mock):
    """Answers and signals of one life, from the start to the end."""
    monitors = real.monitor(), mock.monitor
    mock.monitor.take()
    alike(real, mock, "Control1", "Start", "s", (SAMPLE,))
    alike(real, mock, "Control1", "Start", "s", (SAMPLE,))
    alike(real, mock, "Intents1", "InvokeIntent", "sa{sv}a{sv}", ("Start", variant_map({"preferredHandler": SAMPLE}),
                                                                  NOTHING))
    real.sample()
    for counts in ((1, 0, 0), (0, 0, 1), (0, 1, 0), (0, 0, 0)):
        states = [raw.call(bus, NAME, "WindowManagement1", "UpdateWindowStatus", SAMPLE, *counts, signature="siii")
                  for bus in (real.session_bus, mock.bus)]
        assert states[0] == states[1]
    until(lambda: not real.control.running()[0], "the end of the application", detail=real.service.log)
    alike(real, mock, "Introspect1", "GetStatus", "s", (SAMPLE,))
    signals = [[(signal.member, signal.signature, shape(signal.raw[1]), signal.arguments[1].get("State"))
                for signal in monitor.take() if signal.interface == "org.kestrix.Procwarden.Control1"]
               for monitor in monitors]
    assert [signal[0] for signal in signals[0]] == ["Started", *["StateChanged"] * 4, "Terminated"]
    assert signals[1] == signals[0]


# As GLib's tool is given the arguments, and as the bus has them.
NO_MAP = "@a{sv} {}", NOTHING
REFUSED_TO_APPLICATIONS = [
    ("Tasks1", "Start", "sasa{sv}", [(task_id("work", OTHER),) * 2, ("@as []", NOBODY), NO_MAP]),
    ("Tasks1", "Stop", "sb", [(task_id("work", OTHER),) * 2, ("true", True)]),
    ("Introspect1", "GetStatus", "s", [(OTHER, OTHER)]),
    ("Introspect1", "GetHistory", "su", [(OTHER, OTHER), ("0", 0)]),
    ("Introspect1", "Explain", "s", [(OTHER, OTHER)]),
    ("Introspect1", "GetMemory", "", []),
    ("Intents1", "InvokeIntent", "sa{sv}a{sv}", [("PickFile", "PickFile"), NO_MAP, NO_MAP]),
    ("Intents1", "InvokeIntent", "sa{sv}a{sv}", [("Start", "Start"), NO_MAP, NO_MAP]),
]


def test_application_is_refused_with_the_same_words(real, mock):
    application = tasker.Application(real)
    mock.say("SetApplication", "s", SAMPLE)
    for interface, member, signature, arguments in REFUSED_TO_APPLICATIONS:
        name = f"org.kestrix.Procwarden.{interface}"
        _, text = application.gdbus("/" + name.replace(".", "/"), f"{name}.{member}",
                                    *(text for text, _ in arguments))
        name, message = answer(mock.bus, interface, member, signature, [value for _, value in arguments])
        assert text.startswith(f"Error: GDBus.Error:{name}: {message}\n"), text
    mock.say("SetApplication", "s", "")
    real.control.terminate(SAMPLE)
    until(lambda: not real.control.running()[0], "the end of the application", detail=real.service.log)
