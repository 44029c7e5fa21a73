"""Who may do what: two applications, their tasks' own processes, and a stranger. And who is told."""

import os
from signal import SIGKILL

import dbus
import pytest

import raw
import tasker
from notifier import start_privileged_application
from stack.client import BusError
from tasker import ACCESS_DENIED, INVALID_ARGS, OTHER, SAMPLE, TASKS, TYPES, Application, Invoker, task_id

PATH = "/" + TASKS.replace(".", "/")
NO_START = ACCESS_DENIED, "Cannot start another app's tasks"
NO_STOP = ACCESS_DENIED, "Cannot stop another app's tasks"
INVOKER = "org.kestrix.Procwarden.TaskInvoker1"
SESSION = "org.kestrix.Procwarden.TaskInvokerSession1"
WORKER_PATH = "/org/kestrix/Procwarden/TaskInvokerSessions/worker"


@pytest.fixture
def pair(stack):
    """Two applications run; each has a task of every type."""
    for app in (SAMPLE, OTHER):
        tasker.install(stack, app)
    stack.start(PROCWARDEN_KILL_TIMEOUT="600000")
    return stack, Application(stack, SAMPLE), Application(stack, OTHER)


# --- who may do what ---

def test_neither_can_touch_the_others_tasks(pair):
    stack, sample, other = pair
    for client, victim in ((sample, OTHER), (other, SAMPLE)):
        tasker.start(stack, "often", app_id=victim, Interval=900, Autostart=True)
        tasker.until(lambda: task_id("often", victim) in tasker.stored(stack), "the task to be stored")
        process = tasker.wait_running(stack, "often", victim)
        saved = tasker.stored(stack)

        assert tasker.error_of(client.start, "work", app_id=victim) == NO_START
        assert tasker.error_of(client.start, "often", app_id=victim) == NO_START
        for disable in (False, True):
            assert tasker.error_of(client.stop, "often", disable, app_id=victim) == NO_STOP
            assert tasker.error_of(client.stop, "work", disable, app_id=victim) == NO_STOP
        # What is wrong with the hints comes before the id, what is wrong with the id after.
        assert tasker.error_of(client.start, "work", "{'Weight': <1>}", app_id=victim)[0] == INVALID_ARGS
        assert tasker.error_of(client.start, "none", app_id=victim) == NO_START
        assert "often" not in client.states() or client.states()["often"] == 0

        assert process.ticks() > 0
        assert tasker.stored(stack) == saved
        assert list(tasker.services(stack)) == [task_id("often", victim)]
        tasker.stop(stack, "often", app_id=victim)
        tasker.wait_ended(stack, "often", victim)


@pytest.mark.parametrize("identifier", [
    "", ".", OTHER, task_id("work", OTHER) + "x", SAMPLE + "x.task_work", "org.example.Sampl.task_work", "task_work",
    SAMPLE.lower() + ".task_work"])
def test_application_gets_no_further_with_odd_ids(pair, identifier):
    _, sample, _ = pair
    assert tasker.error_of(sample.call, "Start", identifier, "@as []", "{}") == NO_START
    assert tasker.error_of(sample.call, "Stop", identifier, "true") == NO_STOP


def test_own_tasks_are_the_applications(pair):
    stack, sample, _ = pair
    assert tasker.error_of(sample.start, "none") == (tasker.TASK_NOT_FOUND, f"No such task: {task_id('none')}")
    # Of an id that is none but begins as its own, too: nothing can be had by it.
    assert tasker.error_of(sample.call, "Start", SAMPLE, "@as []", "{}") == (
        tasker.TASK_NOT_FOUND, f"No such task: {SAMPLE}")
    sample.start("work", params="['--flood', '1']")
    process = tasker.wait_running(stack)
    assert process.call("Arguments")[-2:] == ["--flood", "1"]
    assert sample.states() == {"first": 0, "late": 0, "odd": 0, "often": 0, "work": 1}
    sample.stop("work")
    tasker.wait_ended(stack)
    assert sample.states()["work"] == 0


def test_numbers_of_an_applications_hints_may_be_of_any_type(pair):
    stack, sample, _ = pair
    sample.start("often", "{'Interval': <900.0>, 'Priority': <byte 15>, 'RunningTime': <int64 30>}")
    process = tasker.wait_running(stack, "often")
    assert process.ticks() > 0


def test_process_of_a_task_works_with_its_applications_tasks(pair):
    stack, _, _ = pair
    tasker.start(stack, "odd")
    process = tasker.wait_running(stack, "odd")

    def call(member, *arguments):
        return process.call_service_with(f"org.kestrix.Procwarden {PATH} {TASKS} {member}", *arguments)

    nothing = dbus.Array([], signature="s"), tasker.variant_map({})
    call("GetAll")
    call("Start", task_id("work"), *nothing)
    tasker.wait_running(stack)
    assert tasker.error_of(call, "Start", task_id("work", OTHER), *nothing) == NO_START
    assert tasker.error_of(call, "Stop", task_id("work", OTHER), True) == NO_STOP
    call("Stop", task_id("work"), True)
    tasker.wait_ended(stack)
    # What it has asked for is remembered under the task's id: its application's changes are not told to it.
    monitor = stack.monitor()
    tasker.start(stack)
    tasker.wait_running(stack)
    assert state_signals(monitor.take()) == []
    # And it can stop itself.
    with pytest.raises(BusError):
        call("Stop", task_id("odd"), True)
        process.ticks()
    tasker.wait_ended(stack, "odd")


def test_stranger_works_with_all_tasks(pair):
    stack, _, _ = pair
    for app in (SAMPLE, OTHER):
        tasker.start(stack, app_id=app)
        tasker.wait_running(stack, app_id=app)
    for app in (SAMPLE, OTHER):
        tasker.stop(stack, app_id=app)
        tasker.wait_ended(stack, app_id=app)


def test_privileged_application_works_with_all_tasks(pair):
    stack, _, _ = pair
    settings = start_privileged_application(stack, "org.example.Settings")

    def call(member, *arguments):
        code, text = settings.run("/usr/bin/gdbus", "call", "--session", "--dest", "org.kestrix.Procwarden",
                                  "--object-path", PATH, "--method", f"{TASKS}.{member}", *arguments)
        assert code == 0, text
        return text

    for app in (SAMPLE, OTHER):
        assert call("Start", task_id("odd", app), "@as []", "{}") == "()\n"
        tasker.wait_running(stack, "odd", app)
        assert call("Stop", task_id("odd", app), "true") == "()\n"
        tasker.wait_ended(stack, "odd", app)
    # It is an application all the same, and declares none.
    assert "'odd'" not in call("GetAll")


def test_in_a_session_an_application_has_its_own_tasks_only(pair):
    stack, sample, other = pair
    Invoker(stack)
    code, text = sample.gdbus("/" + INVOKER.replace(".", "/"), INVOKER + ".RegisterInvoker", "worker")
    # Anybody may register and look.
    assert code == 0 and WORKER_PATH in text and task_id("work", OTHER) in text

    def session(member, *arguments):
        return sample.gdbus(WORKER_PATH, f"{SESSION}.{member}", *arguments)

    code, text = session("Start", task_id("work", OTHER), "{}", "{}")
    assert code != 0 and "AccessDenied: Cannot start another app's tasks" in text
    code, text = session("Stop", task_id("work", OTHER))
    assert code != 0 and "AccessDenied: Cannot stop another app's tasks" in text
    assert tasker.services(stack) == {}
    code, text = session("Start", task_id("work"), "{'Environment': <['A=b']>}", "{'Weight': <5>}")
    assert code == 0
    assert tasker.wait_running(stack).environment()["A"] == "b"
    assert session("Stop", task_id("work"))[0] == 0
    tasker.wait_ended(stack)
    assert other.states()["work"] == 0


# --- what is told ---

def test_states_are_those_of_the_callers_application(pair):
    stack, sample, other = pair
    tasker.start(stack, "odd", app_id=OTHER)
    tasker.wait_running(stack, "odd", OTHER)
    assert list(sample.states()) == list(other.states()) == sorted(TYPES)
    assert set(sample.states().values()) == {0}
    assert [name for name, active in other.states().items() if active] == ["odd"]


def test_stranger_has_no_tasks(pair):
    stack, *_ = pair
    signature, (states,) = tasker.call(stack, "GetAll")
    assert signature == "a{sv}" and list(states) == ["State"]
    assert str(states["State"].signature) == "(sua{sv})"
    assert list(states["State"]) == []


def state_signals(signals):
    """Each "StateChanged" as (its receiver, name -> state)."""
    result = []
    for signal in signals:
        if signal.member != "StateChanged" or signal.interface != TASKS:
            continue
        assert (signal.path, signal.signature) == (PATH, "a(sua{sv})")
        for _, _, details in signal.arguments[0]:
            assert details == {}
        result.append((signal.destination, {name: state for name, state, _ in signal.arguments[0]}))
    return result


def quiet(**states):
    return {**dict.fromkeys(sorted(TYPES), 0), **states}


def test_changes_are_told_to_the_applications_connection_alone(pair):
    stack, sample, other = pair
    sample.listen()
    receiver = stack.session_bus.owner(f"{SAMPLE}.Main")
    monitor = stack.monitor()
    tasker.start(stack)
    assert state_signals(monitor.wait_for("StateChanged")) == [(receiver, quiet(work=1))]
    # It is being stopped when it ends, and so is not active.
    tasker.stop(stack)
    assert state_signals(monitor.wait_for("StateChanged")) == [(receiver, quiet())]
    # The other application has not asked.
    tasker.start(stack, app_id=OTHER)
    tasker.wait_running(stack, app_id=OTHER)
    tasker.stop(stack, app_id=OTHER)
    tasker.wait_ended(stack, app_id=OTHER)
    assert state_signals(monitor.take()) == []


def test_a_task_that_ends_by_itself_is_told_while_it_has_its_record(pair):
    stack, sample, _ = pair
    sample.listen()
    monitor = stack.monitor()
    tasker.start(stack, params=["--exit", "0"])
    signals = monitor.wait_for("StateChanged") + monitor.wait_for("StateChanged")
    assert [states["work"] for _, states in state_signals(signals)] == [1, 1]
    tasker.wait_ended(stack)
    assert sample.states()["work"] == 0


def test_one_name_hears_the_last_that_asked(pair):
    stack, sample, _ = pair
    sample.listen()
    # The tool's own connection, which is gone by now.
    sample.start("odd")
    monitor = stack.monitor()
    tasker.start(stack)
    (receiver, states), = state_signals(monitor.wait_for("StateChanged"))
    assert receiver != stack.session_bus.owner(f"{SAMPLE}.Main")
    assert states == quiet(work=1, odd=1)
    sample.listen()
    tasker.stop(stack)
    assert state_signals(monitor.wait_for("StateChanged"))[0][0] == stack.session_bus.owner(f"{SAMPLE}.Main")


def test_a_refused_start_registers_all_the_same(pair):
    stack, sample, _ = pair
    sample.listen()
    tasker.error_of(sample.start, "work", "{'Weight': <1>}")
    monitor = stack.monitor()
    tasker.start(stack)
    assert state_signals(monitor.wait_for("StateChanged"))[0][0] != stack.session_bus.owner(f"{SAMPLE}.Main")


def test_a_stranger_that_asked_is_told_nothing(pair):
    stack, *_ = pair
    tasker.call(stack, "GetAll")
    monitor = stack.monitor()
    tasker.start(stack)
    tasker.wait_running(stack)
    tasker.stop(stack)
    tasker.wait_ended(stack)
    assert state_signals(monitor.take()) == []


def test_one_of_several_instances_is_told_nothing(service):
    """It is remembered under the instance's id, and looked for under the application's."""
    tasker.install(service)
    service.install_sample(SAMPLE, sandbox=tasker.UNSANDBOXED, main={"X-Nemo-Single-Instance": "no"},
                           arguments="--no-lifecycle", groups={"X-Task work": tasker.task(service)})
    service.control.reload()
    instance = service.control.start(SAMPLE).instance_id
    assert ".instance_" in instance
    sample = service.sample(instance)
    get_all = f"org.kestrix.Procwarden {PATH} {TASKS} GetAll"
    sample.call_service_with(get_all)
    monitor = service.monitor()
    # Its application's tasks are its own all the same.
    sample.call_service_with(get_all.replace("GetAll", "Start"), task_id("work"), dbus.Array([], signature="s"),
                             tasker.variant_map({}))
    tasker.wait_running(service)
    assert state_signals(monitor.take()) == []


def test_a_task_that_is_being_stopped_is_not_active(pair):
    stack, sample, _ = pair
    tasker.start(stack, params=["--ignore-term"])
    tasker.wait_running(stack)
    pid = tasker.services(stack)[task_id("work")][0]
    invoker = Invoker(stack)
    tasker.stop(stack, disable=False)
    # Until SIGKILL comes it has its record.
    assert sample.states()["work"] == 0
    assert tasker.is_running(stack)
    os.killpg(pid, SIGKILL)
    assert tasker.wait_ended(stack) is None
    assert invoker.active() == {}


def test_replies_name_no_details_of_others(pair):
    stack, sample, _ = pair
    with pytest.raises(BusError):
        raw.call(stack.session_bus, "org.kestrix.Procwarden", "Tasks1", "Start", task_id("none"),
                 dbus.Array([], signature="s"), dbus.Dictionary({}, signature="sv"), signature="sasa{sv}")
    text = sample.call("GetAll")
    assert OTHER not in text and SAMPLE not in text
