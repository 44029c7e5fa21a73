"""What the task interfaces withstand: arguments of every shape and size, and floods. The service goes on."""

import dbus
import dbus.lowlevel
import pytest

import tasker
from stack.client import BusError
from stack.service import SESSION_NAME
from stack.waiting import LIMIT, until
from tasker import INVALID_ARGS, SAMPLE, TASKS, Invoker, task_id

PATH = "/" + TASKS.replace(".", "/")


@pytest.fixture
def tasks(service):
    tasker.install(service)
    return service


@pytest.fixture(autouse=True)
def goes_on(service):
    """Every one of these tests ends with a service that still does its work."""
    yield
    assert service.service.status is None
    tasker.stop(service)
    # One that is being stopped still counts as running, and a start would change nothing.
    tasker.wait_ended(service)
    tasker.start(service)
    tasker.wait_running(service)


def nested_arrays(depth):
    value = dbus.Array([5], signature="i")
    for level in range(1, depth):
        value = dbus.Array([value], signature="a" * level + "i")
    return value


def nested_variants(depth, key="a"):
    value = dbus.Int32(5)
    for _ in range(depth // 2):
        value = dbus.Dictionary({key: value}, signature="sv")
    return value


STRUCTURE = dbus.Struct((1, "a", dbus.Array([], signature="s")), signature="isas")
SHAPES = {
    "structure": STRUCTURE, "list of structures": dbus.Array([STRUCTURE], signature="(isas)"),
    "empty list": dbus.Array([], signature="s"), "empty variants": dbus.Array([], signature="v"),
    "bytes": dbus.ByteArray(b"\x00\xff" * 100), "path": dbus.ObjectPath("/a"), "signature": dbus.Signature("a{sv}"),
    "map of numbers": dbus.Dictionary({1: 2}, signature="ii"), "map": tasker.variant_map({"a": 1}),
    "map of structures": dbus.Dictionary({"a": STRUCTURE}, signature="s(isas)"),
    "list of maps": dbus.Array([tasker.variant_map({"a": 1})], signature="a{sv}"),
    "deep lists": nested_arrays(25), "deep maps": nested_variants(40),
    "mixed": dbus.Array([1, "a", True, dbus.Array([1], signature="i")], signature="v"),
    "large number": dbus.UInt64(2 ** 64 - 1), "infinite": float("inf"), "no number": float("nan"),
    "variant in a variant": dbus.Int32(5, variant_level=3), "text": "Нечто \U0001f600",
}
APPLICATION_KEYS = ["StartDelay", "Interval", "RunningTime", "Priority", "StartTime", "Schedule", "CreateIPCSocket",
                    "Autostart"]
INVOKER_KEYS = APPLICATION_KEYS + ["Weight", "CPULimit", "Permissions", "Conditions", "CGroups", "Unknown"]


@pytest.mark.parametrize("shape", SHAPES)
def test_hints_of_every_shape(tasks, shape):
    invoker = Invoker(tasks)
    value = SHAPES[shape]
    for name in tasker.TYPES:
        for key in APPLICATION_KEYS:
            try:
                tasker.start(tasks, name, params=["--exit", "0"], **{key: value})
            except BusError as error:
                assert error.name == INVALID_ARGS, (name, key, error)
            tasker.stop(tasks, name)
    for key in INVOKER_KEYS:
        try:
            invoker.start(params=["--exit", "0"], **{key: value})
        except BusError as error:
            assert error.name == INVALID_ARGS, (key, error)
        invoker.stop()


def test_number_that_does_not_fit_is_no_crash(tasks):
    for value in (dbus.UInt64(2 ** 63), dbus.Int64(-2 ** 63), 1e18, dbus.Int64(2 ** 31), -2 ** 31):
        for key in ("StartDelay", "Priority", "RunningTime"):
            try:
                tasker.start(tasks, params=["--exit", "0"], **{key: value})
            except BusError as error:
                assert error.name == INVALID_ARGS
            tasker.stop(tasks)


def test_huge_lists(tasks):
    invoker = Invoker(tasks)
    many = dbus.Array(["x" * 10] * 200_000, signature="s")
    # More than the kernel takes for a program: the child ends, or is never made.
    tasker.start(tasks, params=["x" * 10] * 200_000)
    tasker.stop(tasks)
    tasker.wait_ended(tasks)
    invoker.start(environment=["A=b"] * 200_000)
    invoker.stop()
    tasker.wait_ended(tasks)
    invoker.start(Permissions=many)
    invoker.stop()
    tasker.wait_ended(tasks)
    invoker.start(CGroups=dbus.Dictionary({f"cpu.x{n}": dbus.ByteArray(b"1") for n in range(2_000)}, signature="say"))
    invoker.stop()
    tasker.wait_ended(tasks)
    hours = dbus.Array([3] * 500_000, signature="i")
    tasker.start(tasks, "late", Schedule=tasker.variant_map({"Hours": hours}))
    tasker.stop(tasks, "late")
    hints = {f"Unknown{number}": number for number in range(50_000)}
    assert tasker.error_of(tasker.start, tasks, **hints) == (INVALID_ARGS, "Invalid start hints")


@pytest.mark.parametrize("settings", [
    {"": b"1"}, {"../../escape": b"1"}, {"/etc/passwd": b"1"}, {"cpu.shares": b""}, {"cpu.shares": b"\x00" * 10_000},
    {"cpu.shares": b"-1"}, {"nothing.here": b"1"}, {"cpu": b"1"}, {".": b"1"}, {"cpu.shares/": b"1"},
    {"cpu.shares\x7f": b"1"}, {"cgroup.procs": b"1"}, {"x" * 10_000: b"1"},
], ids=repr)
def test_odd_group_settings(tasks, settings):
    with open("/etc/passwd") as file:
        before = file.read()
    values = dbus.Dictionary({key: dbus.ByteArray(value) for key, value in settings.items()}, signature="say")
    Invoker(tasks).start(CGroups=values)
    with open("/etc/passwd") as file:
        assert file.read() == before


@pytest.mark.parametrize("entry", [
    "", "=", "=x", "NOEQUALS", "A=" + "x" * 200_000, "A\nB=c", "SOLVANE_TASK_FD=1", "LD_PRELOAD=/nonexistent", "PATH=",
    "A=\U0001f600"], ids=lambda text: repr(text[:12]))
def test_odd_environment(tasks, entry):
    invoker = Invoker(tasks)
    invoker.start(environment=[entry])
    invoker.stop()
    tasker.wait_ended(tasks)


def test_huge_texts_everywhere(tasks):
    huge = "y" * 8_000_000
    invoker = Invoker(tasks)
    for function, arguments in ((tasker.start, (tasks, huge)), (invoker.start, (huge,))):
        name, message = tasker.error_of(function, *arguments)
        assert name == tasker.TASK_NOT_FOUND and message.startswith("No such task: " + SAMPLE)
    tasker.start(tasks, params=[huge])
    tasker.stop(tasks)
    invoker.start(Unknown=huge, Conditions=dbus.Array([huge], signature="s"))
    invoker.stop()


def flood(stack, member, signature, argument_sets):
    """Sends all calls before any reply is read; returns how many were answered, with errors too."""
    connection = stack.session_bus.connect()
    pending = []
    try:
        for arguments in argument_sets:
            message = dbus.lowlevel.MethodCallMessage(SESSION_NAME, PATH, TASKS, member)
            message.append(*arguments, signature=signature)
            pending.append(connection.send_message_with_reply(message, lambda reply: None, 8 * LIMIT))
        connection.flush()
        for call in pending:
            call.block()
        return len(pending)
    finally:
        connection.close()


def test_flood_of_starts_and_stops(tasks):
    calls = [(task_id(name), dbus.Array([], signature="s"), tasker.variant_map({"Priority": number}))
             for number in range(200) for name in tasker.TYPES]
    assert flood(tasks, "Start", "sasa{sv}", calls) == 1000
    assert flood(tasks, "Stop", "sb", [(task_id(name), True) for _ in range(200) for name in tasker.TYPES]) == 1000
    for name in tasker.TYPES:
        tasker.wait_ended(tasks, name)
    assert tasker.services(tasks) == {}


def test_starts_and_stops_in_turn_leave_one_process_at_most(tasks):
    for number in range(30):
        tasker.start(tasks)
        tasker.stop(tasks)
    until(lambda: tasker.services(tasks) == {}, "the end of all")


def test_flood_of_questions(tasks):
    assert flood(tasks, "GetAll", "", [()] * 3_000) == 3_000


def test_flood_of_sessions(tasks):
    paths = {tasker.register(tasks, f"type{number}")[0] for number in range(300)}
    assert len(paths) == 300
    # All of them are asked about each start.
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks, "odd")


def test_callers_that_leave_before_the_answer(tasks):
    for number in range(50):
        connection = tasks.session_bus.connect()
        message = dbus.lowlevel.MethodCallMessage(SESSION_NAME, PATH, TASKS, "Start" if number % 2 else "GetAll")
        if number % 2:
            message.append(task_id("work"), dbus.Array([], signature="s"), tasker.variant_map({}),
                           signature="sasa{sv}")
        connection.send_message(message)
        connection.flush()
        connection.close()
    assert tasker.call(tasks, "GetAll")[0] == "a{sv}"


def test_many_tasks_of_many_applications(stack_with_many):
    stack, apps = stack_with_many
    invoker = Invoker(stack)
    assert len(invoker.available()) == 20 * len(apps) + 1
    for app in apps:
        tasker.start(stack, "t0", app_id=app, StartDelay=100_000)
    assert invoker.active() == {}


@pytest.fixture
def stack_with_many(service):
    apps = [f"org.example.Many{number}" for number in range(25)]
    for app in apps:
        tasker.install(service, app, reload=False, **{
            f"t{number}": tasker.task(service, app_id=app) for number in range(20)})
    tasker.install(service)
    return service, apps
