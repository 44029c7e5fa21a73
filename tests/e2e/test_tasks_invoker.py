"""Task invokers: registration, a session's properties and the signals of their changes, start and stop."""

import os
import re

import dbus
import pytest

import raw
import tasker
from stack.service import SESSION_NAME, SYSTEM_NAME
from tasker import INVALID_ARGS, OTHER, PROPERTIES, SAMPLE, SESSION_INTERFACE, Invoker, task_id

SESSIONS = "/org/kestrix/Procwarden/TaskInvokerSessions/"
NO_OBJECT = "org.freedesktop.DBus.Error.UnknownObject"


@pytest.fixture
def tasks(service):
    tasker.install(service)
    return service


def buses(stack):
    return (stack.session_bus, SESSION_NAME), (stack.system_bus, SYSTEM_NAME)


# --- registration ---


def test_registration_tells_the_tasks_of_the_type(tasks):
    conditions, permissions = ["charging", "internet:wifi"], ["Internet", "Audio"]
    tasker.install(tasks, OTHER, sync=tasker.task(tasks, app_id=OTHER, conditions=conditions,
                                                  permissions=permissions))
    path, properties = tasker.register(tasks)
    assert path == SESSIONS + "worker"
    assert sorted(properties) == ["ActiveTasks", "AvailableTasks"]
    active, available = properties["ActiveTasks"], properties["AvailableTasks"]
    assert (str(active.signature), list(active)) == ("(sia{sv})", [])
    assert str(available.signature) == "(sa{sv})"
    # In the order of the ids.
    assert [record[0] for record in available] == [task_id("sync", OTHER), task_id("work")]
    details = available[0][1]
    assert raw.types(details) == {"Permissions": "as", "Conditions": "as"}
    assert (list(details["Permissions"]), list(details["Conditions"])) == (permissions, conditions)
    assert raw.types(available[1][1]) == {"Permissions": "as", "Conditions": "as"}
    assert not available[1][1]["Permissions"]


def test_second_registration_gets_the_same_session_with_the_present_lists(tasks):
    first = Invoker(tasks)
    assert first.start() > 0
    second = Invoker(tasks)
    assert second.path == first.path
    assert [str(record[0]) for record in second.properties["ActiveTasks"]] == [task_id("work")]


def test_session_is_on_the_bus_of_the_first_registration(tasks):
    on_system, on_session = Invoker(tasks, system=True), Invoker(tasks)
    assert on_system.path == on_session.path
    assert on_system.available() == [task_id("work")]
    assert tasker.error_of(on_session.available)[0] == NO_OBJECT
    other_type = Invoker(tasks, "periodic")
    assert other_type.available() == [task_id("often")]


@pytest.mark.parametrize("kind", ["session-start", "", "a b", "täglich", "/", "a/", "/a", "a//b", "x" * 256,
                                  "x" * 1_000_000, "a/" * 500_000 + "a"], ids=lambda kind: kind[:20])
def test_type_that_is_no_part_of_a_path_is_refused(tasks, kind):
    for bus, name in buses(tasks):
        assert tasker.error_of(raw.call, bus, name, "TaskInvoker1", "RegisterInvoker", kind, signature="s") == (
            INVALID_ARGS, "Task type cannot be part of an object path")
    assert Invoker(tasks).available() == [task_id("work")]


@pytest.mark.parametrize("kind", ["worker", "strange", "none", "a/b", "x" * 255, "0", "_"])
def test_any_other_type_is_served(tasks, kind):
    invoker = Invoker(tasks, kind)
    assert invoker.path == SESSIONS + kind
    assert invoker.available() == [task_id(name) for name, known in tasker.TYPES.items() if known == kind]
    assert invoker.active() == {}


def test_calls_are_logged(tasks):
    invoker = Invoker(tasks)
    invoker.start(StartDelay=100_000)
    invoker.stop()
    for function, rest in (("TaskInvoker::RegisterInvoker", '"worker"'),
                           ("TaskInvokerSession::Start", f'"{task_id("work")}"'),
                           ("TaskInvokerSession::Stop", f'"{task_id("work")}"')):
        assert re.search(rf"DBus::{function}\(.*\) {re.escape(rest)}$", tasks.service.log(), re.MULTILINE), function


# --- properties ---

def test_properties_are_read_only(tasks):
    invoker = Invoker(tasks)
    for name in ("AvailableTasks", "ActiveTasks"):
        with pytest.raises(Exception):
            invoker.call("Set", SESSION_INTERFACE, name, dbus.Array([], signature="s"), signature="ssv",
                         interface=PROPERTIES)
    signature, (values,) = invoker.call("GetAll", SESSION_INTERFACE, signature="s", interface=PROPERTIES)
    assert signature == "a{sv}"
    assert {str(key): str(value.signature) for key, value in values.items()} == {
        "AvailableTasks": "(sa{sv})", "ActiveTasks": "(sia{sv})"}


def changes(signals):
    """Each "PropertiesChanged" as (path, property -> the ids in its list)."""
    result = []
    for signal in signals:
        if signal.member != "PropertiesChanged" or not signal.path.startswith(SESSIONS):
            continue
        assert (signal.interface, signal.signature, signal.destination) == (PROPERTIES, "sa{sv}as", "")
        interface, changed, invalidated = signal.arguments
        assert (interface, invalidated) == (SESSION_INTERFACE, [])
        result.append((signal.path, {key: [record[0] for record in value] for key, value in changed.items()}))
    return result


def test_each_start_and_end_is_told_with_the_new_list(tasks):
    invoker = Invoker(tasks)
    Invoker(tasks, "periodic")
    monitor = tasks.monitor()
    pid = invoker.start()
    signals = monitor.wait_for("PropertiesChanged")
    assert changes(signals) == [(invoker.path, {"ActiveTasks": [task_id("work")]})]
    raw_list = signals[-1].raw[1]["ActiveTasks"]
    assert str(raw_list.signature) == "(sia{sv})"
    assert (str(raw_list[0][0]), int(raw_list[0][1]), dict(raw_list[0][2])) == (task_id("work"), pid, {})
    assert invoker.active() == {task_id("work"): pid}

    # Of another type, whoever starts it.
    tasker.start(tasks, "often")
    assert changes(monitor.wait_for("PropertiesChanged")) == [
        (SESSIONS + "periodic", {"ActiveTasks": [task_id("often")]})]
    # Of a type without a session.
    tasker.start(tasks, "odd")

    invoker.stop()
    signals = monitor.wait_for("PropertiesChanged")
    assert changes(signals) == [(invoker.path, {"ActiveTasks": []})]
    # The type of an empty list is told all the same.
    assert str(signals[-1].raw[1]["ActiveTasks"].signature) == "(sia{sv})"
    assert invoker.active() == {}
    assert changes(monitor.take()) == []


def test_signals_go_to_the_bus_of_the_session(tasks):
    invoker = Invoker(tasks, system=True)
    session, system = tasks.monitor(), tasks.system_monitor()
    assert invoker.start() > 0
    assert changes(system.wait_for("PropertiesChanged")) == [
        (invoker.path, {"ActiveTasks": [task_id("work")]})]
    invoker.stop()
    assert changes(system.wait_for("PropertiesChanged")) == [(invoker.path, {"ActiveTasks": []})]
    assert changes(session.take()) == []


def wait_for_change(monitor, wanted):
    """The service looks at a directory in its own time, also before a file has got its name."""
    while changes(monitor.wait_for("PropertiesChanged"))[-1:] != [wanted]:
        pass


def test_tasks_that_come_and_go_with_their_application_are_told(tasks):
    invoker = Invoker(tasks)
    monitor = tasks.monitor()
    tasker.install(tasks, OTHER, reload=False, new=tasker.task(tasks, app_id=OTHER))
    both, one = [task_id("new", OTHER), task_id("work")], [task_id("work")]
    wait_for_change(monitor, (invoker.path, {"AvailableTasks": both}))
    assert invoker.available() == both
    tasks.applications.remove(OTHER)
    wait_for_change(monitor, (invoker.path, {"AvailableTasks": one}))
    assert invoker.available() == one


def test_any_change_of_what_is_installed_is_told(tasks):
    """Also one that leaves the list as it is: nothing says before it is read whose tasks have changed."""
    invoker = Invoker(tasks)
    monitor = tasks.monitor()
    same = invoker.path, {"AvailableTasks": [task_id("work")]}
    tasker.install(tasks, OTHER, reload=False, new=tasker.task(tasks, "periodic", app_id=OTHER))
    assert changes(monitor.wait_for("PropertiesChanged"))[0] == same
    monitor.take()
    tasks.applications.remove(OTHER)
    assert changes(monitor.wait_for("PropertiesChanged"))[0] == same


def test_application_that_goes_takes_its_running_task_from_the_list(tasks):
    invoker = Invoker(tasks)
    pid = invoker.start()
    tasks.applications.remove(SAMPLE)
    tasks.control.reload()
    assert (invoker.available(), invoker.active()) == ([], {})
    assert tasker.services(tasks) == {task_id("work"): (pid, 0)}
    invoker.stop()
    tasker.wait_ended(tasks)


# --- start and stop ---

def test_task_of_another_type_is_not_refused(tasks):
    invoker = Invoker(tasks)
    pid = invoker.start("odd")
    assert tasker.services(tasks) == {task_id("odd"): (pid, 0)}
    assert invoker.active() == {}
    invoker.stop("odd")
    tasker.wait_ended(tasks, "odd")


def test_task_that_waits_has_no_pid(tasks):
    invoker = Invoker(tasks)
    assert invoker.start(StartDelay=100_000) == 0
    assert invoker.start("late", StartTime="2099-01-01T00:00:00") == 0
    assert invoker.active() == {}
    # Stopping removes what does not run.
    invoker.stop()
    before = tasks.service.log().count("Task already removed:")
    invoker.stop()
    assert tasks.service.log().count("Task already removed:") == before + 1


def test_second_start_answers_with_the_process_that_runs(tasks):
    invoker = Invoker(tasks)
    assert invoker.start() == invoker.start(Priority=5)


def test_stop_takes_a_stored_task_from_the_settings(tasks):
    invoker = Invoker(tasks)
    invoker.start(StartDelay=100_000, Autostart=1)
    tasker.until(lambda: tasker.stored(tasks), "the task to be stored")
    invoker.stop()
    tasker.until(lambda: not tasker.stored(tasks), "the task to be removed")


@pytest.mark.parametrize("value, is_stored", [(True, True), (1, True), (dbus.Byte(1), True), ("1", True),
                                              (False, False), (0, False), (2, False), (3, False), ("yes", False)])
def test_autostart_as_a_number(tasks, value, is_stored):
    Invoker(tasks).start(StartDelay=100_000, Autostart=value)
    tasks.service.stop()
    assert (task_id("work") in tasker.stored(tasks)) == is_stored


def test_parameters_and_environment_reach_the_process(tasks):
    entries = ["FIRST=1", "SECOND=a b=c", "QT_QPA_PLATFORM=none", "SOLVANE_TASK_ID=forged"]
    Invoker(tasks).start(params=["--flood", "2", "x y"], environment=entries)
    sample = tasker.wait_running(tasks)
    assert sample.call("Arguments")[-3:] == ["--flood", "2", "x y"]
    environment = sample.environment()
    assert (environment["FIRST"], environment["SECOND"]) == ("1", "a b=c")
    assert environment["SOLVANE_APP_ID"] == SAMPLE


def test_group_settings_reach_the_kernel(tasks):
    if not tasks.hierarchies.is_real("cpu"):
        pytest.skip("no cpu hierarchy on this machine")
    # The value is of type a{say}: what is written, byte by byte.
    settings = dbus.Dictionary({"cpu.shares": dbus.ByteArray(b"77")}, signature="say")
    Invoker(tasks).start(CGroups=settings)
    tasker.wait_running(tasks)
    with open(os.path.join(tasks.group("cpu", SAMPLE, "task_work"), "cpu.shares")) as file:
        assert file.read() == "77\n"


STRUCTURE = dbus.Struct((1, "a"), signature="is")


@pytest.mark.parametrize("key, value", [
    ("Schedule", tasker.variant_map({"Hours": dbus.Array([99], signature="i")})),
    ("CGroups", tasker.variant_map({"cpu.shares": "77"})),
    ("CGroups", dbus.Dictionary({"cpu.shares": "77"}, signature="ss")),
    ("CGroups", dbus.Dictionary({1: dbus.ByteArray(b"77")}, signature="iay")),
    ("CGroups", dbus.Array([STRUCTURE], signature="(is)")),
    ("CGroups", STRUCTURE),
    ("CGroups", dbus.Array([1, 2], signature="i")),
    ("Permissions", dbus.Array(["Internet", 5], signature="v")),
    ("Priority", dbus.Array([dbus.Array([5], signature="i")], signature="ai")),
    ("Unknown", STRUCTURE),
    ("Autostart", tasker.variant_map({})),
])
def test_nested_values_are_left_out(tasks, key, value):
    invoker = Invoker(tasks)
    assert invoker.start(**{key: value}) > 0
    tasks.service.wait_for_log(f'Unexpected complex D-Bus type for hint "{key}"')
    assert tasker.stored(tasks) == {}
    invoker.stop()


def test_schedule_is_left_out_so_the_task_runs_at_once(tasks):
    schedule = tasker.variant_map({"Hours": dbus.Array([3], signature="i")})
    assert Invoker(tasks, "scheduled").start("late", Schedule=schedule) > 0


@pytest.mark.parametrize("startup", [
    {"Params": 5, "Environment": True}, {"Params": "one", "Environment": tasker.variant_map({"A": "b"})},
    {"Params": STRUCTURE, "Environment": dbus.Array([STRUCTURE], signature="(is)")},
    {"Unknown": dbus.Array([1], signature="i")}, {},
])
def test_startup_information_of_other_types_is_harmless(tasks, startup):
    invoker = Invoker(tasks)
    signature, (pid,) = invoker.call("Start", task_id("work"), tasker.variant_map(startup), tasker.variant_map({}),
                                     signature="sa{sv}a{sv}")
    assert signature == "i" and pid > 0
    invoker.stop()


@pytest.mark.parametrize("hints, text", [
    ({"RunningTime": 61}, "RunningTime cannot be more than 60 seconds"),
    ({"Interval": 899}, "Minimum interval is 15 minutes"),
    ({"StartDelay": 5}, "StartDelay not allowed for this task"),
    ({"StartTime": "x"}, "Start time not allowed for this task"),
])
def test_refusals_are_those_of_the_manager(tasks, hints, text):
    invoker = Invoker(tasks)
    assert tasker.error_of(invoker.start, "often", **hints) == (INVALID_ARGS, text)
    assert tasker.error_of(invoker.start, "none") == (tasker.TASK_NOT_FOUND, f"No such task: {task_id('none')}")
    assert invoker.active() == {}
