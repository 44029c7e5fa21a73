"""What the process of a task gets, and what limits it."""

import itertools
import os
import re
import socket
import time

import dbus
import pytest

import tasker
from stack.client import BusError
from stack.process import is_running
from stack.waiting import until
from tasker import SAMPLE, Invoker, task_id


@pytest.fixture
def tasks(service):
    tasker.install(service)
    return service


def process_limit(pid, name):
    """Soft and hard limit, as proc(5) has them."""
    with open(f"/proc/{pid}/limits") as file:
        return re.search(rf"^{name}\s+(\S+)\s+(\S+)", file.read(), re.MULTILINE).groups()


# --- what the process gets ---

def test_process_is_in_the_sandbox_and_in_groups_of_its_own(tasks):
    pid = Invoker(tasks).start(params=["--flood", "1"])
    sample = tasker.wait_running(tasks)
    command = tasks.sandbox_command(pid)
    assert command[0].endswith("/usr/bin/firejail")
    assert command[-2:] == ["--flood", "1"]
    assert any(argument.endswith("BaseTask.permission") for argument in command), command
    for controller in ("cpu", "memory"):
        with open(os.path.join(tasks.group(controller, SAMPLE, "task_work"), "cgroup.procs")) as file:
            assert str(pid) in file.read().split()
    environment = sample.environment()
    assert (environment["SOLVANE_APP_ID"], environment["SOLVANE_TASK_ID"]) == (SAMPLE, "work")
    assert environment["QT_QPA_PLATFORM"] == "minimal"
    assert "SOLVANE_TASK_FD" not in environment and "SOLVANE_APP_INSTANCE_ID" not in environment
    assert tasker.services(tasks) == {task_id("work"): (pid, 0)}


@pytest.mark.parametrize("hints, nice", [
    ({}, None), ({"Priority": 15}, 15), ({"Priority": 0}, None), ({"Priority": 99}, 19), ({"Priority": "high"}, None)])
def test_priority_is_the_nice_level(tasks, hints, nice):
    pid = Invoker(tasks).start(**hints)
    tasker.wait_running(tasks)
    usual = os.getpriority(os.PRIO_PROCESS, tasks.service.pid)
    assert os.getpriority(os.PRIO_PROCESS, pid) == (usual if nice is None else nice)


@pytest.mark.parametrize("hints, limit", [
    ({}, "unlimited"), ({"CPULimit": 20}, "20"), ({"RunningTime": 30}, "30"),
    ({"CPULimit": 0, "RunningTime": 30}, "30"),
    ({"CPULimit": 20, "RunningTime": 30}, "20"), ({"CPULimit": -1}, "unlimited"), ({"RunningTime": -5}, "unlimited"),
])
def test_processor_time_is_limited(tasks, hints, limit):
    pid = Invoker(tasks).start(**hints)
    tasker.wait_running(tasks)
    assert process_limit(pid, "Max cpu time")[0] == limit


@pytest.mark.parametrize("hints", [
    {"RunningTime": 0}, {"CPULimit": 0, "RunningTime": 0}, {"CPULimit": -3, "RunningTime": 0}])
def test_no_processor_time_is_a_real_limit(tasks, hints):
    pid = Invoker(tasks).start(**hints)

    def is_limited():
        try:
            return process_limit(pid, "Max cpu time")[0] in ("0", "1") # not every kernel takes a zero
        except (OSError, AttributeError):
            return True # it has ended of it already

    until(is_limited, "the limit")


def test_weight_is_the_score_for_the_kernels_killer(tasks):
    invoker = Invoker(tasks)
    for hints, score in (({"Weight": 500}, 500), ({}, 0)):
        pid = invoker.start(**hints)
        tasker.wait_running(tasks)
        place = tasks.root.inside(f"proc/{pid}/oom_score_adj")
        with open(place) as file:
            assert int(file.read()) == score
        invoker.stop()
        tasker.wait_ended(tasks)


def test_permissions_replace_the_declared_ones(tasks):
    tasker.install(tasks, work=tasker.task(tasks, permissions=["Internet"]))

    def sandbox(**hints):
        invoker = Invoker(tasks)
        pid = invoker.start(**hints)
        tasker.wait_running(tasks)
        command = " ".join(tasks.sandbox_command(pid))
        invoker.stop()
        tasker.wait_ended(tasks)
        return [name for name in ("Internet", "BaseTask") if f"/{name}.permission" in command]

    assert sandbox() == ["Internet", "BaseTask"]
    assert sandbox(Permissions=dbus.Array(["BaseTask"], signature="s")) == ["BaseTask"]


def socket_path(stack):
    return os.path.join(stack.directory, "runtime", "applications", SAMPLE, "work.socket")


@pytest.mark.parametrize("stale", [False, True])
def test_socket_is_inherited_and_can_be_connected_to(tasks, stale):
    path = socket_path(tasks)
    if stale:
        os.makedirs(os.path.dirname(path))
        for directory in (os.path.dirname(path), os.path.dirname(os.path.dirname(path))):
            os.chown(directory, tasks.user.uid, tasks.user.gid)
        with open(path, "w") as file:
            file.write("from an earlier run")
    tasker.start(tasks, CreateIPCSocket=True)
    sample = tasker.wait_running(tasks)
    number = sample.environment()["SOLVANE_TASK_FD"]
    open_files = dict(entry.split(" ", 1) for entry in sample.call("OpenFiles"))
    assert open_files[number].startswith("/proc") or "socket" in open_files[number]
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
    # The service itself keeps none.
    with open("/proc/net/unix") as file:
        listeners = [entry for entry in file if entry.rstrip().endswith(path)]
    assert listeners
    directory = f"/proc/{tasks.service.pid}/fd"
    held = {os.readlink(os.path.join(directory, entry)) for entry in os.listdir(directory)}
    assert not {f"socket:[{entry.split()[6]}]" for entry in listeners} & held


def test_no_socket_unless_asked_for(tasks):
    tasker.start(tasks, CreateIPCSocket=False)
    tasker.wait_running(tasks)
    assert not os.path.exists(socket_path(tasks))


# --- limits ---

@pytest.mark.parametrize("name", ["work", "often", "first", "odd"])
def test_running_time_ends_it(tasks, name):
    pid = Invoker(tasks).start(name, RunningTime=1)
    assert pid > 0
    tasker.wait_ended(tasks, name)
    until(lambda: not is_running(pid), "the end of the process")
    assert f'Running time exhausted for task "{task_id(name)}"' in tasks.service.log()
    assert "Error stopping task:" not in tasks.service.log()


def test_time_of_a_task_that_has_ended_only_warns(tasks):
    tasker.start(tasks, "often", params=["--exit", "0"], RunningTime=1)
    tasks.service.wait_for_log(f'Running time exhausted for task "{task_id("often")}"')
    tasks.service.wait_for_log("Error stopping task:")


def test_replaced_task_is_limited_by_the_new_request(tasks):
    invoker = Invoker(tasks)
    pid = invoker.start("often")
    assert invoker.start("often", RunningTime=1) == pid
    assert f'Removing previous task "{task_id("often")}"' in tasks.service.log()
    tasker.wait_ended(tasks, "often")


@pytest.mark.parametrize("value, limited", [("1", True), ("0", False), ("-1", False), ("abc", False), ("", False)])
def test_time_of_workers_is_configured(stack, value, limited):
    tasker.install(stack)
    stack.start(PROCWARDEN_WORKER_MAX_TIME=value)
    tasker.start(stack)
    tasker.start(stack, "odd", RunningTime=2)
    if limited:
        tasker.wait_ended(stack)
    else:
        # By then the worker would have ended.
        tasker.wait_ended(stack, "odd")
        assert tasker.is_running(stack)


def report(process, progress):
    """A notification that says how far the task is."""
    hints = tasker.variant_map({"x-nemo-progress": dbus.Double(progress)})
    process.call_service_with("org.kestrix.Procwarden /org/freedesktop/Notifications org.freedesktop.Notifications "
                              "Notify", "", dbus.UInt32(0), "", "Working", "", dbus.Array([], signature="s"), hints,
                              dbus.Int32(-1))


@pytest.mark.parametrize("reports, extended", [
    ([.1, .2, .3, .4, .5, .6, .7, .8, .9, .99], True), ([.1] * 10, False), ([1] * 10, False), ([-1] * 10, False),
    ([.9, .8, .7, .6, .5, .4, .3, .2, .1, 0], False),
])
@pytest.mark.parametrize("name", ["work", "odd"])
def test_rising_progress_extends_a_workers_time(tasks, name, reports, extended):
    # Its time begins once it can say something.
    tasker.start(tasks, name)
    process = tasker.wait_running(tasks, name)
    tasker.start(tasks, name, RunningTime=3)

    def work(values):
        for progress in values:
            report(process, progress)
            end = time.monotonic() + 0.4
            until(lambda: time.monotonic() >= end, "time to pass")

    if extended and name == "work":
        work(reports)
        assert tasker.is_running(tasks, name)
    else:
        # Whatever it says, it ends.
        with pytest.raises(BusError):
            work(itertools.chain(reports, itertools.repeat(reports[-1], 100)))
        tasker.wait_ended(tasks, name)
