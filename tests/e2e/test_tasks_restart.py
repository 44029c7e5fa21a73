"""Tasks that are stored, and what of them is there again after a restart of the service."""

import json
import os
import signal

import dbus
import pytest

import tasker
from stack.mocks import CHARGING, Battery
from stack.waiting import until
from tasker import OTHER, SAMPLE, Invoker, task_id


@pytest.fixture
def tasks(service):
    tasker.install(service)
    return service


def write_settings(stack, content):
    """As the user's own file; content: text, or what JSON is made of."""
    path = tasker.settings_file(stack)
    directories = [os.path.dirname(path), os.path.dirname(os.path.dirname(path))]
    os.makedirs(directories[0], exist_ok=True)
    with open(path, "w") as file:
        file.write(content if isinstance(content, str) else json.dumps(content))
    for place in (path, *directories):
        os.chown(place, stack.user.uid, stack.user.gid)


def entry(params=(), environment=(), hints=None, conditions=None):
    return {"params": list(params), "environment": list(environment), "hints": hints or {},
            "conditionData": conditions or {}}


def wait_stored(stack, *names):
    until(lambda: sorted(tasker.stored(stack)) == sorted(task_id(name) for name in names), "what is stored",
          detail=lambda: str(tasker.stored(stack)))


def test_stored_task_runs_again_with_all_that_it_was_given(tasks):
    hints = {"Interval": 900, "Autostart": True, "Priority": 15, "RunningTime": 50}
    tasker.start(tasks, "often", params=["--flood", "1"], **hints)
    wait_stored(tasks, "often")
    assert tasker.stored(tasks)[task_id("often")] == entry(
        ["--flood", "1"], hints={"Interval": 900, "Priority": 15, "RunningTime": 50}, conditions={"Interval": None})
    first = tasker.services(tasks)[task_id("often")][0]
    tasks.restart_service()
    sample = tasker.wait_running(tasks, "often")
    assert sample.call("Arguments")[-2:] == ["--flood", "1"]
    pid, reason = tasker.services(tasks)[task_id("often")]
    assert pid != first
    assert reason == 2 # it has been started by itself
    assert os.getpriority(os.PRIO_PROCESS, pid) == 15
    # And again: it is still stored as it was.
    tasks.restart_service()
    tasker.wait_running(tasks, "often")


def test_invokers_settings_come_back_too(tasks):
    settings = dbus.Dictionary({"cpu.shares": dbus.ByteArray(b"77")}, signature="say")
    Invoker(tasks).start(environment=["KEPT=a=b"], CGroups=settings, Autostart=1, Weight=11,
                         Permissions=dbus.Array(["BaseTask"], signature="s"))
    wait_stored(tasks, "work")
    assert tasker.stored(tasks)[task_id("work")] == entry(
        environment=["KEPT=a=b"], hints={"CGroups": {"cpu.shares": "77"}, "Weight": 11, "Permissions": ["BaseTask"]})
    tasks.restart_service()
    assert tasker.wait_running(tasks).environment()["KEPT"] == "a=b"
    if tasks.hierarchies.is_real("cpu"):
        with open(os.path.join(tasks.group("cpu", SAMPLE, "task_work"), "cpu.shares")) as file:
            assert file.read() == "77\n"


def test_what_is_not_stored_does_not_come_back(tasks):
    tasker.start(tasks, "often", Interval=900)
    tasker.start(tasks, "odd", Autostart=False)
    tasker.start(tasks, "work", Autostart=True)
    wait_stored(tasks, "work")
    tasks.restart_service()
    tasker.wait_running(tasks)
    assert list(tasker.services(tasks)) == [task_id("work")]


def test_disabled_task_does_not_come_back(tasks):
    tasker.start(tasks, "often", Autostart=True)
    wait_stored(tasks, "often")
    tasker.stop(tasks, "often")
    wait_stored(tasks)
    tasks.restart_service()
    tasker.start(tasks, "odd")
    tasker.wait_running(tasks, "odd")
    assert list(tasker.services(tasks)) == [task_id("odd")]


def test_task_stored_at_the_last_moment_is_not_lost(tasks):
    tasker.start(tasks, "work", StartDelay=100_000, Autostart=True)
    assert tasks.service.stop() == 0
    assert list(tasker.stored(tasks)) == [task_id("work")]


def test_worker_that_has_ended_stays_stored(tasks):
    tasker.start(tasks, params=["--exit", "0"], Autostart=True)
    tasker.wait_ended(tasks)
    wait_stored(tasks, "work")


def test_task_that_was_uninstalled_meanwhile_is_forgotten(tasks):
    tasker.install(tasks, OTHER)
    tasker.start(tasks, "odd", Autostart=True)
    tasker.start(tasks, "odd", app_id=OTHER, Autostart=True)
    until(lambda: len(tasker.stored(tasks)) == 2, "both to be stored")
    # Unseen by the service, which has stopped.
    tasks.service.child.send(signal.SIGSTOP)
    tasks.applications.remove(OTHER)
    tasks.service.child.send(signal.SIGTERM)
    tasks.service.child.send(signal.SIGCONT)
    tasks.restart_service()
    tasker.wait_running(tasks, "odd")
    assert f'Removing missing autostarted task "{task_id("odd", OTHER)}"' in tasks.service.log()
    wait_stored(tasks, "odd")


def test_task_that_is_refused_stays_stored(stack):
    tasker.install(stack)
    write_settings(stack, {"autostartedTasks": {
        task_id("late"): entry(hints={"RunningTime": 61}), task_id("odd"): entry()}})
    stack.start()
    tasker.wait_running(stack, "odd")
    assert f'Error starting task "{task_id("late")}"' in stack.service.log()
    assert "RunningTime cannot be more than 60 seconds" in stack.service.log()
    assert sorted(tasker.stored(stack)) == [task_id("late"), task_id("odd")]


def test_no_more_come_back_than_an_application_may_have(stack):
    names = [f"t{number}" for number in range(7)]
    tasker.install(stack, **{name: tasker.task(stack, "strange") for name in names})
    write_settings(stack, {"autostartedTasks": {task_id(name): entry() for name in names}})
    stack.start()
    for name in names[:5]:
        tasker.wait_running(stack, name)
    assert sorted(tasker.services(stack)) == [task_id(name) for name in names[:5]]
    assert stack.service.log().count(f"Maximum number of tasks reached for {SAMPLE}") == 2


@pytest.mark.parametrize("limit, running", [("-1", 7), ("0", 0), ("6", 6), ("abc", None)])
def test_the_number_is_configured(stack, limit, running):
    names = [f"t{number}" for number in range(7)]
    tasker.install(stack, **{name: tasker.task(stack, "strange") for name in names})
    stack.root.write("etc/procwarden/tasks.cfg", f"MaxTasksPerApp={limit}\n")
    stack.start()
    started = 0
    for name in names:
        try:
            tasker.start(stack, name, params=["--exit", "0"])
            started += 1
        except tasker.BusError as error:
            assert error.message == f"Maximum number of tasks reached for {SAMPLE}"
    assert running is None or started == running
    assert stack.service.status is None


def test_a_thousand_stored_tasks(stack):
    names = [f"t{number}" for number in range(1000)]
    tasker.install(stack, **{name: tasker.task(stack, conditions=["charging"]) for name in names})
    stack.root.write("etc/procwarden/tasks.cfg", "MaxTasksPerApp=-1\n")
    write_settings(stack, {"autostartedTasks": {
        task_id(name): entry(conditions={"battery": None}) for name in names}})
    before = os.stat(tasker.settings_file(stack)).st_mtime_ns
    stack.start()
    with Battery(stack, 50) as battery:
        stack.service.wait_for_log(f'Starting autostarted task "{task_id("t999")}"')
        battery.ping()
        stack.system_control.running()
        assert tasker.services(stack) == {}
        # Nothing has changed, so nothing is written; each is there, and goes when it is told to.
        assert os.stat(tasker.settings_file(stack)).st_mtime_ns == before
        for name in names[1:]:
            tasker.stop(stack, name)
        wait_stored(stack, "t0")
        assert "Task already removed:" not in stack.service.log()
        battery.set(50, CHARGING)
        tasker.wait_running(stack, "t0")


NOT_SETTINGS = {
    "empty": "", "no JSON": "{", "cut": '{"autostartedTasks": {"org.example.Sample.task_odd": {"params": [',
    "a list": "[1, 2]", "a number": "5", "tasks are a list": {"autostartedTasks": [1, 2]},
    "entries are numbers": {"autostartedTasks": {task_id("odd"): 5}},
    "fields of other types": {"autostartedTasks": {task_id("odd"): {"params": 5, "environment": {"a": 1}, "hints": [1],
                                                                    "conditionData": "x"}}},
    "odd ids": {"autostartedTasks": {"": entry(), ".": entry(), "x" * 100_000: entry()}},
    "bytes": "\x00\x01\x02" * 1000, "deep": "[" * 2000,
    "many": {"autostartedTasks": {f"org.example.None.task_t{number}": entry() for number in range(1000)}},
}


@pytest.mark.parametrize("content", NOT_SETTINGS.values(), ids=NOT_SETTINGS)
def test_file_that_is_not_as_it_should_be(stack, content):
    tasker.install(stack)
    write_settings(stack, content)
    stack.start()
    tasker.start(stack, "work", StartDelay=100_000, Autostart=True)
    until(lambda: task_id("work") in tasker.stored(stack), "the task to be stored", detail=stack.service.log)
    stack.restart_service()
    tasker.stop(stack, "work")
    assert stack.service.status is None


def test_unknown_members_of_the_file_are_kept(stack):
    tasker.install(stack)
    write_settings(stack, {"other": {"a": [1, "b", None]}, "autostartedTasks": {}})
    stack.start()
    tasker.start(stack, "work", StartDelay=100_000, Autostart=True)
    wait_stored(stack, "work")
    with open(tasker.settings_file(stack)) as file:
        assert json.load(file)["other"] == {"a": [1, "b", None]}


@pytest.mark.parametrize("make", ["directory", "read-only directory"])
def test_file_that_cannot_be_written_is_only_warned_of(stack, make):
    tasker.install(stack)
    path = tasker.settings_file(stack)
    write_settings(stack, "{}")
    os.unlink(path)
    if make == "directory":
        os.mkdir(path)
    else:
        os.chown(os.path.dirname(path), 0, 0)
    stack.start()
    tasker.start(stack, "odd", Autostart=True)
    tasker.wait_running(stack, "odd")
    stack.service.wait_for_log("Couldn't create config file")
    tasker.stop(stack, "odd")


def test_restart_in_the_middle_of_a_run_leaves_no_second_process(tasks):
    tasker.start(tasks, "often", Autostart=True)
    tasker.wait_running(tasks, "often")
    wait_stored(tasks, "often")
    for _ in range(3):
        tasks.restart_service()
        tasker.wait_running(tasks, "often")
    assert list(tasker.services(tasks)) == [task_id("often")]
