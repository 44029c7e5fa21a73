"""How a task ends, by itself or not, and what is left of it then."""

import os
import signal

import dbus
import pytest

import tasker
from stack.process import descendants, is_running
from stack.waiting import until
from tasker import SAMPLE, Invoker, task_id


@pytest.fixture
def tasks(service):
    tasker.install(service)
    return service


def test_worker_is_forgotten_when_it_ends_and_others_are_not(tasks):
    invoker = Invoker(tasks)
    for name in ("work", "often", "odd"):
        invoker.start(name, params=["--exit", "0"], **({"Interval": 900} if name == "often" else {}))
        tasker.wait_ended(tasks, name)
    before = tasks.service.log().count("Task already removed:")
    for name, forgotten in (("work", 1), ("often", 0), ("odd", 0)):
        invoker.stop(name)
        assert tasks.service.log().count("Task already removed:") - before == forgotten, name
        before += forgotten


def test_refused_request_leaves_the_earlier_one(tasks):
    tasker.start(tasks, "often", Interval=900, Autostart=True)
    process = tasker.wait_running(tasks, "often")
    until(lambda: tasker.stored(tasks), "the task to be stored")
    saved = tasker.stored(tasks)
    for hints in ({"Interval": 1}, {"RunningTime": 61}, {"StartDelay": 1}, {"Autostart": 1}, {"Weight": 1}):
        assert tasker.error_of(tasker.start, tasks, "often", **hints)[0] == tasker.INVALID_ARGS
    assert process.ticks() > 0
    assert tasker.stored(tasks) == saved
    assert "Removing previous task" not in tasks.service.log()
    tasker.stop(tasks, "often")
    assert "Task already removed:" not in tasks.service.log()


def test_request_without_autostart_forgets_the_stored_one(tasks):
    """It takes the place of the earlier request, and that goes with all that belongs to it."""
    tasker.start(tasks, "often", Interval=900, Autostart=True)
    until(lambda: tasker.stored(tasks), "the task to be stored")
    tasker.start(tasks, "often", Interval=900)
    until(lambda: not tasker.stored(tasks), "the task to be forgotten")


def test_end_of_a_task_that_was_removed_is_warned_of(tasks):
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks, "odd")
    tasker.stop(tasks, "odd")
    tasks.service.wait_for_log(f'Termination of unknown task "{task_id("odd")}"')


def test_start_while_it_is_being_stopped_starts_nothing(stack):
    """The process still counts as running, and a worker is forgotten with its process."""
    tasker.install(stack)
    stack.start(PROCWARDEN_KILL_TIMEOUT="600000") # its end is what this says
    tasker.start(stack, params=["--ignore-term"])
    tasker.wait_running(stack)
    pid = tasker.services(stack)[task_id("work")][0]
    tasker.stop(stack)
    tasker.start(stack)
    os.killpg(pid, signal.SIGKILL)
    tasker.wait_ended(stack)
    stack.control.running()
    assert stack.service.log().count("Started task") == 1
    tasker.start(stack)
    tasker.wait_running(stack)


def test_stop_without_disabling_keeps_the_task(tasks):
    tasker.start(tasks, "often", Interval=900, Autostart=True)
    tasker.wait_running(tasks, "often")
    tasker.stop(tasks, "often", disable=False)
    tasker.wait_ended(tasks, "often")
    assert task_id("often") in tasker.stored(tasks)
    tasker.stop(tasks, "often")
    until(lambda: tasker.stored(tasks) == {}, "the task to be forgotten")
    assert "Task already removed:" not in tasks.service.log()


def test_task_that_ignores_sigterm_is_killed(stack):
    tasker.install(stack)
    stack.start(PROCWARDEN_KILL_TIMEOUT="300")
    tasker.start(stack, params=["--ignore-term"])
    tasker.wait_running(stack)
    pid = tasker.services(stack)[task_id("work")][0]
    everything = {pid} | descendants(pid)
    tasker.stop(stack)
    tasker.wait_ended(stack)
    until(lambda: not any(map(is_running, everything)), "the end of every process")
    tasker.start(stack)
    tasker.wait_running(stack)


@pytest.mark.parametrize("line", [
    "/nonexistent/program", "nonexistent-program", "/etc/passwd", "/", "relative/path", '"/usr/bin/true'])
def test_program_that_cannot_run_is_no_failure_of_the_request(tasks, line):
    tasker.install(tasks, work=tasker.task(tasks, line=line), odd=tasker.task(tasks, "strange"))
    tasker.start(tasks)
    tasker.wait_ended(tasks)
    # The place is free again, and everything else goes on.
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks, "odd")
    tasker.stop(tasks)


def test_task_killed_from_outside_is_reported_as_ended(tasks):
    pid = Invoker(tasks).start()
    tasker.wait_running(tasks)
    os.kill(pid, signal.SIGKILL)
    tasker.wait_ended(tasks)
    assert Invoker(tasks).start() != pid


def test_once_means_once_in_a_session(tasks):
    invoker = Invoker(tasks)
    assert invoker.start("first") > 0
    tasker.wait_running(tasks, "first")
    assert os.path.exists(os.path.join(tasks.directory, "runtime", "applications", SAMPLE, "first.launched"))
    invoker.stop("first")
    tasker.wait_ended(tasks, "first")
    assert invoker.start("first") == 0


def test_no_task_of_a_blocked_application_starts(tasks):
    tasks.system_control.prevent_launch(SAMPLE)
    tasker.start(tasks, "odd")
    tasks.service.wait_for_log("Application is blocked, won't start task")
    assert tasker.services(tasks) == {}
    tasks.system_control.allow_launch(SAMPLE)
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks, "odd")


def test_package_managers_stop_takes_tasks_too(tasks):
    tasker.start(tasks)
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks)
    tasks.system_control.terminate_all(SAMPLE)
    tasker.wait_ended(tasks)
    tasker.wait_ended(tasks, "odd")


def test_application_that_is_removed_while_its_task_runs(tasks):
    tasker.start(tasks)
    tasker.start(tasks, "odd")
    for name in ("work", "odd"):
        tasker.wait_running(tasks, name)
    tasks.applications.remove(SAMPLE)
    tasks.control.reload()
    assert set(tasker.services(tasks)) == {task_id("work"), task_id("odd")}
    assert tasker.error_of(tasker.start, tasks)[0] == tasker.TASK_NOT_FOUND
    for name in ("work", "odd"):
        tasker.stop(tasks, name)
        tasker.wait_ended(tasks, name)


def test_end_of_the_service_ends_every_task(tasks):
    for name in ("work", "often", "odd", "first"):
        tasker.start(tasks, name, params=["--ignore-term"])
        tasker.wait_running(tasks, name)
    processes = set().union(*({pid} | descendants(pid) for pid, _ in tasker.services(tasks).values()))
    assert tasks.service.stop() == 0
    until(lambda: not any(map(is_running, processes)), "the end of every process")


# --- frozen from the start: the process is so before it is released, and never comes to be the sandbox ---

FROZEN = {"freezer.state": dbus.ByteArray(b"FROZEN")}


def settings(**more):
    return dbus.Dictionary({**FROZEN, **more}, signature="say")


def freezer_reads(tasks, text):
    with open(os.path.join(tasks.group("freezer", SAMPLE, "task_work"), "freezer.state")) as file:
        return file.read() == text + "\n"


@pytest.fixture
def freezer(tasks):
    if not tasks.hierarchies.is_real("freezer"):
        pytest.skip("no freezer on this machine")
    return tasks


def test_end_of_the_service_ends_a_task_that_was_started_frozen(freezer):
    pid = Invoker(freezer).start(CGroups=settings())
    until(lambda: freezer_reads(freezer, "FROZEN"), "the freezing")
    tasker.stop(freezer)
    assert is_running(pid)
    assert freezer.service.stop() == 0
    until(lambda: not is_running(pid), "the end of the process")


def test_failed_start_leaves_nothing_frozen(freezer):
    invoker = Invoker(freezer)
    before = descendants(freezer.service.pid)
    assert invoker.start(CGroups=settings(nonsense=dbus.ByteArray(b"1"))) == 0
    until(lambda: descendants(freezer.service.pid) == before, "the end of the child")
    assert freezer_reads(freezer, "THAWED")


def test_frozen_process_does_not_hold_up_the_service(freezer):
    # More than a pipe takes while nobody reads.
    assert Invoker(freezer).start(environment=["LARGE=" + "x" * 200000], CGroups=settings()) == 0
    assert tasker.services(freezer) == {}
    until(lambda: not descendants(freezer.service.pid), "the end of the child")
