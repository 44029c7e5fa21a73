"""The mock for applications' tests: it has the members of the service, and does what its page says."""

import os
import re
import subprocess

import dbus
import pytest

from stack.interfaces import described, expected_members, introspect, signatures
from stack.mock_service import NAME, PREFIX, PROPERTIES, TEMPLATE, MockService, path_of
from stack.mocks import MOCK, PYTHON
from stack.stack import TREE
from stack.standin import StandIn
from stack.waiting import LIMIT

PAGE = os.path.join(TREE, "docs", "mocking.md")
INSTALLED = "/usr/share/procwarden/dbusmock/procwarden.py"

OWN_ERROR, DBUS_ERROR = PREFIX + "Error.", "org.freedesktop.DBus.Error."
APP, OTHER = "org.example.Notes", "org.example.Mail"
TASKS = {"sync": "periodic", "work": "worker", "late": "scheduled"}
LAUNCHED, ACTIVE, INACTIVE, HIDDEN, TERMINATING = range(5)
MOCKED = {"Control1", "WindowManagement1", "Lifecycle1", "MemoryPressure1", "Tasks1", "TaskInvoker1",
          "TaskInvokerSession1", "Intents1", "Introspect1"}


@pytest.fixture
def mock(request, tmp_path):
    """With the parameters that a test is given, those of an application under test otherwise."""
    parameters = getattr(request, "param", {"application": APP, "tasks": TASKS})
    with MockService(str(tmp_path), parameters) as service:
        yield service


stranger = pytest.mark.parametrize("mock", [{"applications": [APP, OTHER]}], indirect=True)


def refusal(call, *arguments, **options):
    """(name, message) of a call that must fail."""
    with pytest.raises(dbus.DBusException) as error:
        call(*arguments, **options)
    return error.value.get_dbus_name(), error.value.get_dbus_message()


def variants(**content):
    return dbus.Dictionary(content, signature="sv")


def strings(*texts):
    return dbus.Array(texts, signature="s")


def task(name, app_id=APP):
    return f"{app_id}.task_{name}"


def start_task(mock, name, app_id=APP, **hints):
    mock.call("Tasks1", "Start", "sasa{sv}", task(name, app_id), strings(), variants(**hints))


def states(mock):
    return {name: active for name, active, _ in mock.call("Tasks1", "GetAll")["State"]}


# --- what it has ---


def test_members_are_those_of_the_service(mock):
    mock.call("TaskInvoker1", "RegisterInvoker", "s", "worker")
    shown = {interface: members for interfaces in introspect(mock.bus, NAME).values()
             for interface, members in interfaces.items() if interface.startswith(PREFIX)}
    assert set(shown) == {PREFIX + name for name in MOCKED}
    for interface, members in shown.items():
        expected = expected_members(described()[interface])
        for member in [*expected.values(), *members.values()]:
            member["access"] = None # all properties of a mock can be written
        assert signatures(members) == signatures(expected), interface
        for name, member in members.items():
            assert [argument for argument, _ in member["in"]] == [argument for argument, _ in expected[name]["in"]]


def test_objects_are_where_those_of_the_service_are(mock):
    interfaces = described()
    found = {path: next(iter(set(shown) - {MOCK})) for path, shown in introspect(mock.bus, NAME).items()}
    assert found == {interfaces[PREFIX + name].path: PREFIX + name for name in MOCKED - {"TaskInvokerSession1"}}


def test_page_has_every_method_for_tests():
    with open(TEMPLATE) as file:
        said = set(re.findall(r"@dbus\.service\.method\(MOCK_IFACE,[^@]*?\ndef (\w+)", file.read()))
    with open(PAGE) as file:
        assert set(re.findall(r"(?m)^\| `(\w+)\(", file.read())) == said


def test_example_of_the_page_runs(tmp_path):
    with open(PAGE) as file:
        example = re.search(r"<!-- example -->\n```python\n(.*?)```", file.read(), re.DOTALL)[1]
    assert INSTALLED in example
    done = subprocess.run([PYTHON, "-B", "-c", example.replace(INSTALLED, TEMPLATE)], capture_output=True, text=True,
                          # The library leaves a directory behind.
                          env={"PATH": "/usr/bin:/bin", "TMPDIR": str(tmp_path)}, timeout=2 * LIMIT)
    assert done.returncode == 0 and "Ran 1 test" in done.stderr, done.stderr


# --- applications ---


@stranger
def test_application_starts_and_ends(mock):
    app_id, details = mock.call("Control1", "Start", "s", APP)
    assert (app_id, sorted(details)) == (APP, ["Pid", "RequestorId", "StartReason"])
    assert details["StartReason"] == 4
    control = PREFIX + "Control1"
    assert mock.signals() == [(control, "Started", (APP, {**details, "Uris": []}), "sa{sv}")]
    assert mock.call("Control1", "GetRunningApplications") == [[[APP, details["Pid"], 4, LAUNCHED, {"Uris": []}]], []]
    assert refusal(mock.call, "Control1", "Start", "s", APP)[0] == OWN_ERROR + "ApplicationAlreadyRunning"
    mock.call("Control1", "Terminate", "s", APP)
    assert mock.signals() == [
        (control, "StateChanged", (APP, {"State": TERMINATING}), "sa{sv}"),
        (control, "Terminated", (APP, {"Pid": details["Pid"], "ExitStatus": 15, "StopReason": 5}), "sa{sv}")]
    assert mock.call("Control1", "GetRunningApplications") == [[], []]
    assert refusal(mock.call, "Control1", "Terminate", "s", APP) == (
        DBUS_ERROR + "Failed", f"Application not running: {APP}")
    assert mock.call("Control1", "StartDebug", "sa{sv}", APP, variants(sandbox=False))[1]["Pid"] == details["Pid"] + 1


@stranger
def test_only_what_is_installed_starts(mock):
    expected = (OWN_ERROR + "HandlerNotFound", "Cannot find application org.example.Other")
    assert refusal(mock.call, "Control1", "Start", "s", "org.example.Other") == expected
    mock.call("Control1", "Reload")


def test_everything_is_installed_unless_something_is_named(mock):
    assert mock.call("Control1", "Start", "s", "org.example.Other")[1]["RequestorId"] == APP
    assert refusal(mock.call, "Control1", "Start", "s", "other")[0] == OWN_ERROR + "HandlerNotFound"


def test_application_under_test_runs_from_the_beginning(mock):
    assert mock.call("Lifecycle1", "GetProperties") == {"State": LAUNCHED}
    assert [found["Id"] for found in mock.call("Introspect1", "ListRunning")] == [APP]


def test_start_can_be_refused(mock):
    blocked = OWN_ERROR + "ApplicationBlocked"
    mock.say("RefuseStart", "sss", OTHER, blocked, "Kept from starting")
    assert refusal(mock.call, "Control1", "Start", "s", OTHER) == (blocked, "Kept from starting")
    mock.say("RefuseStart", "sss", OTHER, "", "")
    assert mock.call("Control1", "Start", "s", OTHER)[0] == OTHER


@pytest.mark.parametrize("method, arguments, status, reason, decision", [
    ("EndApplication", ("si", APP, 11), 11, 0, "exited"), ("KillForMemory", ("s", APP), 9, 6, "early-oom")])
def test_application_ends(mock, method, arguments, status, reason, decision):
    mock.say(method, *arguments)
    signals = mock.signals()
    selected = [(PREFIX + "Control1", "SelectedByOom", (APP,), "s")] if reason else []
    assert signals[:-1] == selected
    assert signals[-1][1:3] == ("Terminated", (APP, {**signals[-1][2][1], "ExitStatus": status, "StopReason": reason}))
    assert refusal(mock.say, method, *arguments)[1] == f"Application not running: {APP}"
    (end,) = mock.call("Introspect1", "GetHistory", "su", "", 0)
    assert (end["Id"], end["ExitStatus"], end["StopReason"], end["Decision"]) == (APP, status, reason, decision)
    assert mock.call("Introspect1", "GetStatus", "s", APP)["LastEnd"] == end
    assert refusal(mock.call, "Lifecycle1", "GetProperties")[0] == OWN_ERROR + "ProcessNotHandled"


# --- states and memory ---


def test_state_is_told_to_who_has_asked(mock):
    mock.say("SetState", "su", APP, ACTIVE)
    control = (PREFIX + "Control1", "StateChanged", (APP, {"State": ACTIVE}), "sa{sv}")
    assert mock.signals() == [control]
    assert mock.call("Lifecycle1", "GetProperties") == {"State": ACTIVE}
    mock.say("SetState", "su", APP, HIDDEN)
    mock.say("SetState", "su", APP, HIDDEN)
    assert [signal for signal in mock.signals() if signal[0] == PREFIX + "Lifecycle1"] == [
        (PREFIX + "Lifecycle1", "StateChanged", (APP, HIDDEN), "su")]
    mock.call("Control1", "Start", "s", OTHER)
    mock.say("SetState", "su", OTHER, ACTIVE)
    assert not [signal for signal in mock.signals() if signal[0] == PREFIX + "Lifecycle1"]


def test_windows_make_the_state(mock):
    for counts, state in (((1, 1, 1), ACTIVE), ((0, 1, 1), INACTIVE), ((0, 0, 1), HIDDEN), ((0, 0, 0), TERMINATING)):
        assert mock.call("WindowManagement1", "UpdateWindowStatus", "siii", APP, *counts) == state
    assert [signal[1] for signal in mock.signals()] == ["StateChanged"] * 4 + ["Terminated"]
    assert refusal(mock.call, "WindowManagement1", "UpdateWindowStatus", "siii", APP, 1, 0, 0) == (
        DBUS_ERROR + "Failed", f"Application not running: {APP}")


def test_memory_level_is_told_to_subscribers(mock):
    mock.say("SetMemoryLevel", "i", 100)
    assert (mock.signals(), mock.property("MemoryPressure1", "Level")) == ([], 100)
    mock.call("MemoryPressure1", "Subscribe")
    mock.say("SetMemoryLevel", "i", 200)
    expected = (PROPERTIES, "PropertiesChanged", (PREFIX + "MemoryPressure1", {"Level": 200}, []), "sa{sv}as")
    assert (mock.signals(), mock.property("MemoryPressure1", "Level")) == ([expected], 200)
    assert mock.call(PROPERTIES, "GetAll", "s", PREFIX + "MemoryPressure1",
                     path=path_of(PREFIX + "MemoryPressure1")) == {"Level": 200}
    mock.say("SetMemoryLevel", "i", 0)
    mock.say("SetState", "su", APP, HIDDEN)
    mock.signals()
    mock.say("SetMemoryLevel", "i", 200)
    assert (mock.signals(), mock.property("MemoryPressure1", "Level")) == ([], 200)
    assert refusal(mock.say, "SetMemoryLevel", "i", 50)[0] == DBUS_ERROR + "InvalidArgs"


# --- tasks ---


def told(mock):
    """States of the tasks, of each signal about them."""
    return [{name: active for name, active, _ in arguments[0]} for interface, _, arguments, signature in mock.signals()
            if interface == PREFIX + "Tasks1" and signature == "a(sua{sv})"]


def test_task_runs_finishes_and_runs_again(mock):
    idle, runs = {"late": 0, "sync": 0, "work": 0}, {"late": 0, "sync": 1, "work": 0}
    assert states(mock) == idle
    start_task(mock, "sync", Interval=900)
    assert (told(mock), states(mock)) == ([runs], runs)
    (_, (service,)) = mock.call("Control1", "GetRunningApplications")
    assert service[:2] == [APP, "sync"]
    assert [found["Id"] for found in mock.call("Introspect1", "ListRunning")] == [APP, task("sync")]
    mock.say("FinishTask", "s", task("sync"))
    # As that of the service, the signal of its own end has it as active.
    assert (told(mock), states(mock)) == ([runs], idle)
    assert mock.say("RunTask", "s", task("sync")) > 100000
    mock.call("Tasks1", "Stop", "sb", task("sync"), False)
    assert told(mock) == [runs, idle]
    mock.call("Tasks1", "Stop", "sb", task("sync"), True)
    assert refusal(mock.say, "RunTask", "s", task("sync"))[0] == OWN_ERROR + "TaskNotFound"
    assert refusal(mock.say, "FinishTask", "s", task("sync"))[0] == DBUS_ERROR + "Failed"


def test_worker_is_forgotten_and_waits_for_its_delay(mock):
    start_task(mock, "work", StartDelay=10)
    assert (told(mock), states(mock)["work"]) == ([], 0)
    mock.say("RunTask", "s", task("work"))
    assert states(mock)["work"] == 1
    mock.say("FinishTask", "s", task("work"))
    assert refusal(mock.say, "RunTask", "s", task("work"))[0] == OWN_ERROR + "TaskNotFound"


def test_tasks_are_told_of_only_after_a_question(mock):
    mock.say("SetApplication", "s", "")
    assert mock.call("Tasks1", "GetAll") == {"State": []}
    mock.say("SetApplication", "s", APP)
    assert set(states(mock)) == set(TASKS)


@pytest.mark.parametrize("name, hints, message", [
    ("work", {"Weight": 1}, "Invalid start hints"),
    ("work", {"Autostart": 1}, "Invalid start hints"),
    ("sync", {"RunningTime": 61}, "RunningTime cannot be more than 60 seconds"),
    ("sync", {"StartDelay": 1}, "StartDelay not allowed for this task"),
    ("work", {"StartDelay": -1}, "Delay cannot be negative"),
    ("work", {"Interval": 900}, "Interval not allowed for this task"),
    ("sync", {"Interval": 899}, "Minimum interval is 15 minutes"),
    ("work", {"Schedule": dbus.Dictionary({}, signature="sv")}, "Schedule not allowed for this task"),
    ("work", {"StartTime": ""}, "Start time not allowed for this task"),
])
def test_hints_are_refused_as_by_the_service(mock, name, hints, message):
    assert refusal(start_task, mock, name, **hints) == (DBUS_ERROR + "InvalidArgs", message)


def test_tasks_of_others_are_refused(mock):
    assert refusal(start_task, mock, "sync", OTHER) == (DBUS_ERROR + "AccessDenied", "Cannot start another app's tasks")
    assert refusal(mock.call, "Tasks1", "Stop", "sb", task("sync", OTHER), True) == (
        DBUS_ERROR + "AccessDenied", "Cannot stop another app's tasks")
    assert refusal(start_task, mock, "none") == (OWN_ERROR + "TaskNotFound", f"No such task: {task('none')}")


def test_number_of_tasks_is_limited(mock):
    for number in range(6):
        mock.say("DeclareTask", "ss", f"n{number}", "worker")
    for number in range(5):
        start_task(mock, f"n{number}", StartDelay=1)
    assert refusal(start_task, mock, "n5") == (DBUS_ERROR + "Failed", f"Maximum number of tasks reached for {APP}")


def test_invoker_sees_and_runs_the_tasks_of_a_type(mock):
    mock.say("SetApplication", "s", "") # a system component calls
    path, properties = mock.call("TaskInvoker1", "RegisterInvoker", "s", "worker")
    details = {"Permissions": [], "Conditions": []}
    assert properties == {"ActiveTasks": [], "AvailableTasks": [[task("work"), details]]}
    assert mock.call("TaskInvoker1", "RegisterInvoker", "s", "worker") == [path, properties]
    pid = mock.call("TaskInvokerSession1", "Start", "sa{sv}a{sv}", task("work"), variants(), variants(Weight=1),
                    path=path)
    assert mock.property("TaskInvokerSession1", "ActiveTasks", path) == [[task("work"), pid, {}]]
    session = PREFIX + "TaskInvokerSession1"
    changed = (PROPERTIES, "PropertiesChanged", (session, {"ActiveTasks": [[task("work"), pid, {}]]}, []), "sa{sv}as")
    assert changed in mock.signals()
    mock.call("TaskInvokerSession1", "Stop", "s", task("work"), path=path)
    assert mock.property("TaskInvokerSession1", "ActiveTasks", path) == []
    mock.signals()
    mock.say("DeclareTask", "ss", "more", "worker")
    assert [signal[1] for signal in mock.signals()] == ["PropertiesChanged"]
    assert [found for found, _ in mock.property("TaskInvokerSession1", "AvailableTasks", path)] == [
        task("more"), task("work")]
    assert refusal(mock.call, "TaskInvoker1", "RegisterInvoker", "s", "session-start") == (
        DBUS_ERROR + "InvalidArgs", "Task type cannot be part of an object path")


# --- intents ---


def invoke(mock, name, hints=(), data=()):
    return mock.call("Intents1", "InvokeIntent", "sa{sv}a{sv}", name, variants(**dict(hints)), variants(**dict(data)))


def test_intents_are_answered(mock):
    assert invoke(mock, "Start", {"preferredHandler": OTHER}) == {"instanceId": OTHER}
    assert [signal[1] for signal in mock.signals()] == ["Started"]
    assert invoke(mock, "Start", {"preferredHandler": OTHER}) == {"instanceId": OTHER}
    assert mock.signals() == []
    assert refusal(invoke, mock, "Start") == (DBUS_ERROR + "InvalidArgs", "Missing application ID")
    assert refusal(invoke, mock, "OpenURI") == (DBUS_ERROR + "InvalidArgs", "Missing URI")
    assert refusal(invoke, mock, "PickFile") == (DBUS_ERROR + "Failed", "Operation failed")
    mock.say("SetIntentAnswer", "sa{sv}", "PickFile", variants(files=strings("/a"), number=1.5))
    assert invoke(mock, "PickFile") == {"files": ["/a"], "number": 1.5}
    mock.say("SetIntentError", "sss", "PickFile", OWN_ERROR + "HandlerFailed", "no")
    assert refusal(invoke, mock, "PickFile") == (OWN_ERROR + "HandlerFailed", "no")
    asked = mock.call(MOCK, "GetMethodCalls", "s", "InvokeIntent", path=path_of(PREFIX + "Intents1"))
    assert [arguments[0] for _, arguments in asked][-2:] == ["PickFile", "PickFile"]


@stranger
def test_stranger_learns_that_nobody_handles_an_intent(mock):
    assert refusal(invoke, mock, "PickFile")[0] == OWN_ERROR + "HandlerNotFound"


class Handler(StandIn):
    """The application under test: sends the request's data back, or refuses."""

    SERVICE, PATH, INTERFACE = APP, path_of(PREFIX + "IntentHandler1"), PREFIX + "IntentHandler1"
    METHODS = {"HandleIntent": "sa{sv}"}

    def on_HandleIntent(self, message, name, data):
        if name == "X-Refuse":
            self.fail(message, "org.example.Refused", "no")
        else:
            self.reply(message, "a{sv}a{sv}", data, variants())


def test_intent_is_delivered_to_the_application(mock):
    handler = Handler(mock.bus)
    try:
        answer, hints = mock.say("DeliverIntent", "sa{sv}", "X-Do", variants(uri="file:///a"))
        assert (answer, hints) == ({"uri": "file:///a"}, {})
        assert refusal(mock.say, "DeliverIntent", "sa{sv}", "X-Refuse", variants()) == ("org.example.Refused", "no")
        assert not handler.complaints
    finally:
        handler.close()
    assert refusal(mock.say, "DeliverIntent", "sa{sv}", "X-Do", variants())[0] == DBUS_ERROR + "ServiceUnknown"


# --- what the service is asked about itself ---


def test_application_learns_of_itself_only(mock):
    (found,) = mock.call("Introspect1", "ListRunning")
    assert (found["Kind"], found["State"], found["ActiveWindows"]) == ("application", LAUNCHED, 0)
    assert mock.call("Introspect1", "GetStatus", "s", APP) == {
        "Installed": True, "Running": [found], "Launching": False, "Blocked": False, "History": []}
    assert sorted(mock.call("Introspect1", "Explain", "s", APP)) == [
        "Arguments", "Checks", "Counts", "Environment", "Program"]
    for member, arguments in (("GetStatus", ("s", OTHER)), ("GetHistory", ("su", OTHER, 0)), ("Explain", ("s", OTHER))):
        assert refusal(mock.call, "Introspect1", member, *arguments) == (
            DBUS_ERROR + "AccessDenied", f"Not allowed to ask about {OTHER}")
    assert refusal(mock.call, "Introspect1", "GetMemory")[0] == DBUS_ERROR + "AccessDenied"


@stranger
def test_stranger_learns_of_everything(mock):
    mock.call("Control1", "Start", "s", APP)
    mock.call("Control1", "Start", "s", OTHER)
    assert [found["Id"] for found in mock.call("Introspect1", "ListRunning")] == [OTHER, APP]
    mock.say("SetMemoryLevel", "i", 100)
    assert mock.call("Introspect1", "GetMemory")["Level"] == 100
    for app_id in (APP, OTHER):
        mock.call("Control1", "Terminate", "s", app_id)
    assert [end["Id"] for end in mock.call("Introspect1", "GetHistory", "su", "", 1)] == [OTHER]


def test_reset_begins_anew(mock):
    start_task(mock, "sync")
    mock.say("EndApplication", "si", APP, 0)
    mock.say("Reset")
    assert mock.call("Lifecycle1", "GetProperties") == {"State": LAUNCHED}
    assert set(states(mock).values()) == {0}
