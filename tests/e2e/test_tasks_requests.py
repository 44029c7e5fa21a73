"""What a request to run a task may say: every refusal with its words, and what is accepted.

All rows share one stack, in which nothing of a row is left.
"""

import re

import dbus
import pytest

import raw
import tasker
from conftest import bring_up
from stack.service import SESSION_NAME
from tasker import FAILED, INVALID_ARGS, SAMPLE, TASK_NOT_FOUND, TASKS, TYPES, task_id

DELAY, INTERVAL = "StartDelay not allowed for this task", "Interval not allowed for this task"
SCHEDULE, START_TIME = "Schedule not allowed for this task", "Start time not allowed for this task"
TOO_SHORT, INVALID_SCHEDULE = "Minimum interval is 15 minutes", "Task schedule invalid"
INVALID_HINTS = "Invalid start hints"

# Nothing in these tests is to run: a worker waits for this time.
NEVER = {"StartDelay": 100_000}
# What keeps a task of each type from running, as far as its type has it.
WAITING = {"work": NEVER, "often": {"Interval": 900}, "late": {"StartTime": "2099-01-01T00:00:00"}}


@pytest.fixture(scope="module")
def stack(request):
    for running in bring_up(request):
        # "often" waits for its condition as well: an interval is over at the start.
        tasks = {name: tasker.task(running, kind, conditions=["charging"]) for name, kind in TYPES.items()}
        tasker.install(running, reload=False, **tasks)
        running.start()
        yield running


def schedule(**lists):
    return tasker.variant_map({"Schedule": tasker.variant_map(
        {key: dbus.Array(values, signature="d") if isinstance(values, list) else values
         for key, values in lists.items()})})


def refusal(stack, name, hints):
    return tasker.error_of(tasker.call, stack, "Start", task_id(name), dbus.Array([], signature="s"),
                           tasker.variant_map(hints), signature="sasa{sv}")


def test_interface_is_not_on_the_system_bus(stack):
    name, _ = tasker.error_of(raw.call, stack.system_bus, "org.kestrix.Procwarden.User", "Tasks1", "GetAll")
    assert name == "org.freedesktop.DBus.Error.UnknownObject"


def test_calls_are_logged(stack):
    tasker.start(stack, "work", **NEVER)
    tasker.stop(stack, "work", disable=False)
    tasker.stop(stack, "work")
    for function, rest in (("Start", f'"{task_id("work")}"'), ("Stop", f'"{task_id("work")}" false'),
                           ("Stop", f'"{task_id("work")}" true')):
        line = rf"DBus::Tasks::{function}\(.*\) {re.escape(rest)}$"
        assert re.search(line, stack.service.log(), re.MULTILINE), line


# --- hints that are not for applications ---

@pytest.mark.parametrize("key, value", [
    ("Weight", 1), ("CPULimit", 1), ("Permissions", dbus.Array(["Internet"], signature="s")),
    ("Conditions", dbus.Array(["idle"], signature="s")), ("CGroups", tasker.variant_map({"cpu.shares": "1"})),
    ("autostart", True), ("Interval ", 900), ("", 1), ("Нечто", 1), ("x" * 100_000, 1),
])
def test_other_keys_are_refused(stack, key, value):
    assert refusal(stack, "work", {key: value}) == (INVALID_ARGS, INVALID_HINTS)
    stack.service.wait_for_log(f'Client passed invalid key: "{key}"')


@pytest.mark.parametrize("value", [
    1, 1.0, 0, "true", dbus.UInt32(1), dbus.Byte(1), dbus.Array([True], signature="b"), tasker.variant_map({}),
])
def test_autostart_has_to_be_a_boolean(stack, value):
    assert refusal(stack, "work", {"Autostart": value}) == (INVALID_ARGS, INVALID_HINTS)
    stack.service.wait_for_log("Autostart needs to be a boolean")
    assert tasker.stored(stack) == {}


def test_first_bad_key_is_the_one_that_is_named(stack):
    before = len(stack.service.log())
    refusal(stack, "work", {"Bad2": 1, "Autostart": 1, "Bad1": 1})
    stack.service.wait_for_log("Autostart needs to be a boolean")
    assert "Bad" not in stack.service.log()[before:]


def test_hints_are_looked_at_before_the_id(stack):
    assert tasker.error_of(tasker.start, stack, "none", Weight=1) == (INVALID_ARGS, INVALID_HINTS)


# --- which key goes with which type ---

@pytest.mark.parametrize("name", TYPES)
@pytest.mark.parametrize("key, value, text, allowed", [
    ("StartDelay", 5, DELAY, "work"),
    ("Interval", 900, INTERVAL, "often"),
    ("Schedule", tasker.variant_map({}), SCHEDULE, "late"),
    ("StartTime", "2099-01-01T00:00:00", START_TIME, "late"),
])
def test_keys_and_types(stack, name, key, value, text, allowed):
    if name == allowed:
        tasker.start(stack, name, **{key: value})
        tasker.stop(stack, name)
    else:
        assert refusal(stack, name, {key: value}) == (INVALID_ARGS, text)


@pytest.mark.parametrize("name, hints, text", [
    ("work", {"StartDelay": -1}, "Delay cannot be negative"),
    ("often", {"Interval": 899}, TOO_SHORT),
    ("often", {"Interval": 0}, TOO_SHORT),
    ("often", {"Interval": -900}, TOO_SHORT),
    ("often", {"Interval": "abc"}, TOO_SHORT),
    ("often", {"Interval": True}, TOO_SHORT),
    ("often", {"Interval": dbus.Array([900.0], signature="d")}, TOO_SHORT),
    ("often", {"Interval": 1e300}, TOO_SHORT),
    ("often", {"RunningTime": 61}, "RunningTime cannot be more than 60 seconds"),
    ("late", {"RunningTime": 61}, "RunningTime cannot be more than 60 seconds"),
    ("late", {"StartTime": "tomorrow"}, "Invalid start time"),
    ("late", {"StartTime": ""}, "Invalid start time"),
    ("late", {"StartTime": 5}, "Invalid start time"),
    ("late", {"StartTime": "2026-13-01T00:00:00"}, "Invalid start time"),
    ("late", {"StartTime": dbus.Array(["2099-01-01T00:00:00"] * 2, signature="s")}, "Invalid start time"),
    # By the order of the keys, and the running time before them all.
    ("often", {"Interval": 1, "Schedule": tasker.variant_map({})}, TOO_SHORT),
    ("often", {"Schedule": tasker.variant_map({}), "StartDelay": 1}, SCHEDULE),
    ("work", {"StartTime": "", "StartDelay": -1}, "Delay cannot be negative"),
    ("often", {"Interval": 1, "RunningTime": 61}, "RunningTime cannot be more than 60 seconds"),
])
def test_values_out_of_range(stack, name, hints, text):
    assert refusal(stack, name, hints) == (INVALID_ARGS, text)


@pytest.mark.parametrize("lists", [
    {"Minutes": [0, 14]}, {"Minutes": [0, 15, 30, 45, 59]}, {"Minutes": [-1]}, {"Minutes": [60]},
    {"Minutes": [0, 0]}, {"Minutes": [30, 15, 29]}, {"Hours": [24]}, {"Hours": [-1]}, {"WeekDays": [7]},
    {"WeekDays": [-1]}, {"Months": [12]}, {"Months": [-1]}, {"Minutes": [0], "Months": [0, 1, 12]},
    {"Minutes": list(range(10_000))}, {"Hours": [0] * 9_999 + [24]},
])
def test_invalid_schedules(stack, lists):
    assert refusal(stack, "late", schedule(**lists)) == (INVALID_ARGS, INVALID_SCHEDULE)


@pytest.mark.parametrize("lists", [
    {}, {"Minutes": []}, {"Minutes": [0, 15]}, {"Minutes": [45, 0, 15, 30]}, {"Minutes": [0, 59]},
    {"Hours": [23, 0, 0]}, {"WeekDays": [6, 0]}, {"Months": [0]}, {"Months": [11]}, {"Hours": [3] * 1_000},
    {"Unknown": [99]}, {"StartDate": "never", "EndDate": 5}, {"Minutes": 77}, {"Minutes": "0"},
    {"Hours": [3], "StartDate": "2099-01-01T00:00:00", "EndDate": "2099-02-01T00:00:00"},
])
def test_valid_schedules(stack, lists):
    tasker.start(stack, "late", **schedule(**lists))
    tasker.stop(stack, "late")


@pytest.mark.parametrize("name, hints", [
    ("work", {}), ("often", {}), ("odd", {}), ("first", {}),
    ("work", {"StartDelay": 0}), ("work", {"StartDelay": 5.9}), ("work", {"StartDelay": "7"}),
    ("often", {"Interval": 900}), ("often", {"Interval": "900"}), ("often", {"Interval": dbus.UInt64(86400)}),
    ("work", {"RunningTime": 61}), ("odd", {"RunningTime": 61}), ("first", {"RunningTime": 61}),
    ("often", {"RunningTime": 60}), ("often", {"RunningTime": 0}), ("often", {"RunningTime": -5}),
    ("often", {"RunningTime": "abc"}), ("work", {"Priority": 19}), ("work", {"Priority": "high"}),
    ("work", {"CreateIPCSocket": 1}), ("work", {"CreateIPCSocket": "maybe"}), ("work", {"Autostart": False}),
    ("late", {"StartTime": "2099-01-01"}), ("late", {"StartTime": "2001-01-01T00:00:00"}),
    ("late", {"StartTime": "2099-01-01T00:00:00Z", "Schedule": tasker.variant_map({})}),
])
def test_what_is_accepted(stack, name, hints):
    tasker.start(stack, name, **hints)
    tasker.stop(stack, name)
    assert tasker.stored(stack) == {}


# --- which task ---

IDS = ["", ".", SAMPLE, SAMPLE + ".", SAMPLE + ".task_", task_id("none"), task_id("work") + ".instance_1",
       SAMPLE + ".instance_1", "org.example.None.task_work", "task_work", "Нечто.task_work", "..task_work",
       "/etc/passwd.task_work", "x" * 1_000_000]


@pytest.mark.parametrize("identifier", IDS, ids=lambda text: text[:40])
def test_unknown_tasks_are_not_started(stack, identifier):
    error = tasker.error_of(tasker.call, stack, "Start", identifier, dbus.Array([], signature="s"),
                            tasker.variant_map({}), signature="sasa{sv}")
    assert error == (TASK_NOT_FOUND, f"No such task: {identifier}")


@pytest.mark.parametrize("identifier", IDS, ids=lambda text: text[:40])
@pytest.mark.parametrize("disable", [False, True])
def test_stop_of_unknown_tasks_is_no_error(stack, identifier, disable):
    assert tasker.call(stack, "Stop", identifier, disable, signature="sb") == ("", [])


def test_stop_with_the_id_of_an_application_stops_it(stack):
    """Whatever runs under the id that is given is stopped."""
    stack.control.start(SAMPLE)
    stack.sample()
    monitor = stack.monitor()
    assert tasker.call(stack, "Stop", SAMPLE, True, signature="sb") == ("", [])
    assert monitor.wait_for("Terminated", SAMPLE)[-1].arguments[1]["StopReason"] == 0


# --- how many ---

def test_an_application_has_five_tasks_at_most(stack):
    for name in TYPES:
        tasker.start(stack, name, **WAITING.get(name, {}))
    # Also in the place of an earlier request, which then stands.
    for name in TYPES:
        assert refusal(stack, name, {}) == (FAILED, f"Maximum number of tasks reached for {SAMPLE}")
    # Before anything else is looked at but the hints' names and the task itself.
    assert refusal(stack, "often", {"Interval": 1})[0] == FAILED
    assert refusal(stack, "none", {})[0] == TASK_NOT_FOUND
    tasker.stop(stack, "first", disable=False)
    assert refusal(stack, "first", {})[0] == FAILED
    tasker.stop(stack, "first")
    tasker.start(stack, "first")
    for name in TYPES:
        tasker.stop(stack, name)


# --- calls of another shape ---

@pytest.mark.parametrize("member, arguments, signature", [
    ("Start", (), ""), ("Start", ("a",), "s"), ("Start", ("a", [], {}), "sasa{ss}"),
    ("Start", ("a", [], "{}"), "sass"), ("Start", (1, [], {}), "iasa{sv}"),
    ("Stop", ("a",), "s"), ("Stop", ("a", 1), "si"), ("Stop", ("a", True, 1), "sbi"), ("Nothing", (), ""),
])
def test_other_signatures_are_no_methods(stack, member, arguments, signature):
    name, _ = tasker.error_of(tasker.call, stack, member, *arguments, signature=signature)
    assert name in ("org.freedesktop.DBus.Error.UnknownMethod", INVALID_ARGS)


def test_a_call_without_its_interface_works(stack):
    assert raw.call_path(stack.session_bus, SESSION_NAME, "/" + TASKS.replace(".", "/"), None,
                         "GetAll")[0] == "a{sv}"
