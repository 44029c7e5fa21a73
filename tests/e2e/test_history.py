"""What decided each end: one case for each way to end, as GetHistory and procwardenctl tell it."""

import contextlib
import os
import re
import signal
import subprocess

import dbus.lowlevel
import pytest

import ctl
import tasker
from stack.client import BusError
from stack.permission_daemon import allowed, error, granted, held
from stack.waiting import LIMIT, until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
UNSANDBOXED = {"Sandboxing": "Disabled"}
INTERFACE = "org.kestrix.Procwarden.Introspect1"


def history(stack, app_id="", limit=0):
    return stack.control.call("Introspect1", "GetHistory", "su", app_id, dbus.UInt32(limit))


def end_of(stack, app_id=SAMPLE):
    """The only end of an application or a task."""
    (end,) = until(lambda: history(stack, app_id), f"the end of {app_id}")
    return end


@pytest.fixture
def sample(service):
    for app_id in (SAMPLE, OTHER):
        service.install_sample(app_id, sandbox=UNSANDBOXED)
    service.control.reload()
    return service


# --- applications ---


@pytest.mark.parametrize("number, name", [(signal.SIGSEGV, "SIGSEGV"), (signal.SIGKILL, "SIGKILL"),
                                          (signal.SIGABRT, "SIGABRT"), (signal.SIGRTMIN, None)])
def test_crash_tells_the_signal(sample, number, name):
    started = sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    os.kill(started.pid, number)
    end = end_of(sample)
    number = int(number)
    assert (end["Decision"], end["StopReason"], end["ExitStatus"] & 0x7f) == ("crashed", 0, number)
    assert end["Detail"] == f"signal {number} ({name or 'unknown'})"
    line = ctl.run(sample, "history").out.splitlines()[1]
    assert re.search(rf" crashed +signal {number} ", line)


def requestor(end):
    """Bus, user and program of who requested an end, and its pid."""
    assert "RequestorId" not in end
    return tuple(end.get(f"Requestor{key}") for key in ("Bus", "Uid", "Program", "Pid"))


@pytest.mark.parametrize("options, bus", [((), "session"), (("--all",), "system")])
def test_client_that_requested_it_is_named(sample, options, bus):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    client = subprocess.Popen(sample.root.shown(*ctl.command(sample, "stop", *options, SAMPLE)),
                              env=ctl.environment(sample))
    assert client.wait(LIMIT) == 0
    end = end_of(sample)
    assert (end["Decision"], end["StopReason"]) == ("requested", 5)
    assert requestor(end) == (bus, os.geteuid(), "procwardenctl", client.pid)
    who = f"procwardenctl (pid {client.pid}, uid {os.geteuid()}, {bus} bus)"
    assert f"requested: exit status 0 (pid {end['Pid']}), by {who}\n" in ctl.run(sample, "status", SAMPLE).out
    name = f"history_requested_{bus}"
    pids = (end["Pid"], "PID"), (client.pid, "PID"), (f"uid {os.geteuid()}", "uid UID")
    ctl.golden(name, ctl.normal(ctl.run(sample, "history").out, *pids))
    assert requestor(ctl.run_json(sample, "status", SAMPLE)["LastEnd"]) == requestor(end)


def show_this_process(stack):
    """Returns what it is called there."""
    if stack.root.proc_tree:
        stack.root.proc_tree.link(os.getpid())
    with open("/proc/self/comm") as file:
        return file.read().rstrip("\n")


def test_package_manager_that_ends_all_is_named(sample):
    name = show_this_process(sample)
    for app_id in (SAMPLE, OTHER):
        sample.control.start(app_id)
        sample.sample(app_id)
    sample.system_control.terminate_all("org.example.")
    for app_id in (SAMPLE, OTHER):
        assert requestor(end_of(sample, app_id)) == ("system", os.geteuid(), name, os.getpid())


def test_client_that_does_not_wait_has_requested_it_too(sample):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    message = dbus.lowlevel.MethodCallMessage("org.kestrix.Procwarden.User", "/org/kestrix/Procwarden/SystemControl1",
                                              "org.kestrix.Procwarden.SystemControl1", "Terminate")
    message.append(SAMPLE, signature="s")
    message.set_no_reply(True)
    connection = sample.system_bus.connect()
    connection.send_message(message)
    connection.flush()
    connection.close()
    end = end_of(sample)
    assert (end["Decision"], end["RequestorBus"], "RequestorId" in end) == ("requested", "system", False)


def test_first_who_asked_is_named(sample):
    sample.install_sample(SAMPLE, sandbox=UNSANDBOXED, arguments="--ignore-term")
    sample.control.reload()
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.terminate(SAMPLE)
    sample.system_control.terminate_all(SAMPLE)
    assert end_of(sample)["RequestorBus"] == "session"


def test_table_tells_who_requested_it(sample):
    for app_id in (SAMPLE, OTHER):
        sample.control.start(app_id)
    sample.sample(SAMPLE)
    sample.sample(OTHER).call_service("org.kestrix.Procwarden /org/kestrix/Procwarden/Control1 "
                                      "org.kestrix.Procwarden.Control1 Terminate", SAMPLE)
    end = end_of(sample)
    assert (end["Decision"], end["RequestorId"]) == ("requested", OTHER)
    ctl.golden("history_requested", ctl.normal(ctl.run(sample, "history").out, (end["Pid"], "PID")))
    assert f"requested: exit status 0 (pid {end['Pid']}), by {OTHER}\n" in ctl.run(sample, "status", SAMPLE).out


def test_last_window_is_told(sample):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.update_windows(SAMPLE, active=1)
    sample.control.update_windows(SAMPLE)
    end = end_of(sample)
    assert (end["Decision"], end["Detail"]) == ("closed", "exit status 0")


# --- launches that fail ---


TIMES = {"Asked", "Allowed", "Prompted", "Granted", "Spawned", "Grouped", "Released"}


def failed_launch(stack, step, text, app_id=SAMPLE):
    """The end of the one start, which has failed at this step; returns the other steps, those that it has passed."""
    end = end_of(stack, app_id)
    assert (end["Decision"], "Pid" in end, end["ExitStatus"]) == ("launch-failed", False, 0)
    assert end["Detail"] == f'at "{step}": {text}'
    launch = end["Launch"]
    assert launch == stack.control.call("Introspect1", "GetStatus", "s", app_id)["Launch"]
    assert (launch.pop("FailedAt"), launch.pop("Error")) == (step, text)
    out = ctl.run(stack, "status", app_id).out
    assert f"failed at {step}: {text}" in out and f'launch-failed: at "{step}": {text}' in out
    assert step not in launch or step == "Asked"
    assert set(launch) <= TIMES
    return set(launch)


def refuse_start(stack, app_id=SAMPLE):
    with pytest.raises(BusError):
        stack.control.start(app_id)


@contextlib.contextmanager
def no_new_groups(stack):
    """The service may not make groups meanwhile."""
    directory = os.path.dirname(os.path.dirname(stack.group("freezer", SAMPLE)))
    os.chown(directory, 0, 0)
    yield
    os.chown(directory, stack.user.uid, stack.user.gid)


@contextlib.contextmanager
def no_new_processes(stack):
    """The service may not make any meanwhile."""
    def allow(number):
        subprocess.run(["/usr/bin/setpriv", f"--reuid={stack.user.uid}", f"--regid={stack.user.gid}", "--clear-groups",
                        "--", "/usr/bin/prlimit", f"--pid={stack.service.pid}", f"--nproc={number}:"], check=True)
    with open(f"/proc/{stack.service.pid}/limits") as file:
        limit = re.search(r"Max processes +(\w+)", file.read())[1]
    allow(0)
    yield
    allow(limit)


def test_unknown_application_fails_when_asked(service):
    gone = "org.example.Gone"
    refuse_start(service, gone)
    assert failed_launch(service, "Asked", f"Cannot find application {gone}", gone) == {"Asked"}


@pytest.mark.parametrize("rule, options, step, text, passed", [
    ({"may_start": allowed(False)}, {}, "Allowed", "Application not allowed by sailjaild", {"Prompted"}),
    ({"prompt": error("the user said no")}, {}, "Granted", "the user said no", {"Allowed", "Prompted"}),
    ({}, {"exec_line": "/nonexistent/program"}, "Prepared", "/nonexistent/program is not executable",
     {"Allowed", "Prompted", "Granted"}),
])
def test_failed_launch_tells_its_step(service, rule, options, step, text, passed):
    service.install_sample(SAMPLE, **options)
    service.control.reload()
    if rule:
        service.permission_daemon.set_rule(SAMPLE, **rule)
    refuse_start(service)
    # The daemon answers while the process is being made.
    assert failed_launch(service, step, text) - {"Spawned", "Grouped"} == {"Asked"} | passed


def test_launch_without_a_command_is_not_prepared(service):
    service.install_sample(SAMPLE, main={"X-Maemo-Service": "org.example.legacy"})
    service.control.reload()
    refuse_start(service)
    assert failed_launch(service, "Prepared", f"Error launching {SAMPLE}") == {"Asked"}


def test_launch_without_a_process_is_not_spawned(sample):
    with no_new_processes(sample):
        refuse_start(sample)
    assert failed_launch(sample, "Spawned", f"Error launching {SAMPLE}") == {"Asked"}


def test_launch_without_groups_is_not_grouped(sample):
    with no_new_groups(sample):
        refuse_start(sample)
    assert failed_launch(sample, "Grouped", "Cannot setup child process") - {"Allowed"} == {"Asked", "Spawned"}


def children_of(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


def test_launch_whose_process_is_gone_is_not_released(service):
    service.permission_daemon.set_rule(SAMPLE, prompt=held())
    start = service.control.start_later(SAMPLE)
    service.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    until(lambda: "Grouped" in service.control.call("Introspect1", "GetStatus", "s", SAMPLE)["Launch"], "its groups")
    (child,) = children_of(service.service.pid)
    os.kill(child, signal.SIGKILL)
    until(lambda: not os.path.exists(f"/proc/{child}/exe"), "its end")
    service.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    with pytest.raises(BusError):
        start.result()
    assert failed_launch(service, "Released", "exec() call failed") == TIMES - {"Released"}


def test_refused_start_is_no_launch(sample):
    sample.control.start(SAMPLE)
    refuse_start(sample)
    sample.system_control.prevent_launch(OTHER)
    refuse_start(sample, OTHER)
    assert history(sample) == []


def test_long_texts_are_cut(service):
    """All of it would be a gigabyte, and more than a reply may have."""
    name = "x" * 1_000_000
    for number in range(3):
        refuse_start(service, f"org.example.{name}{number}")
    found = history(service)
    assert [(len(end["Id"]), len(end["Launch"]["Error"]), len(end["Detail"]) <= 1024) for end in found] == [
        (512, 1000, True)] * 3
    assert all(end["Id"].endswith("x\u2026") for end in found)


def test_each_end_has_its_launch(sample):
    for code in (1, 2):
        sample.control.start(SAMPLE)
        sample.sample(SAMPLE).quit(code)
        until(lambda: not sample.control.running()[0], "its end")
    sample.control.start(SAMPLE)
    (running,) = sample.control.call("Introspect1", "ListRunning")
    ends = history(sample)
    launches = [running["Launch"], *(end["Launch"] for end in ends)]
    asked = [launch["Asked"] for launch in launches]
    assert asked == sorted(asked, reverse=True)
    for launch in launches:
        assert 0 <= launch["Spawned"] <= launch["Grouped"] <= launch["Released"]


def test_two_hundred_are_kept(service):
    service.install_sample(SAMPLE, exec_line="/bin/true", sandbox=UNSANDBOXED, main={"X-Nemo-Single-Instance": "no"})
    service.control.reload()
    pids = []
    for _ in range(203):
        pids.append(service.control.start(SAMPLE).pid)
    until(lambda: not service.control.running()[0], "the end of all")
    assert {end["Pid"] for end in history(service)} <= set(pids)
    assert len(history(service)) == len(ctl.run_json(service, "history")) == 200
    assert len(ctl.run(service, "history").out.splitlines()) == 201
    assert len(history(service, SAMPLE, 4000000000)) == 200


# --- tasks ---


def test_tasks_that_are_ended(stack):
    tasker.install(stack)
    stack.start()
    work, often = tasker.task_id("work"), tasker.task_id("often")
    tasker.start(stack, "work", RunningTime=1)
    end = end_of(stack, work)
    assert (end["Id"], end["Kind"], end["Decision"]) == (work, "task", "time-limit")
    assert end["Started"] < end["Ended"]
    launch = end["Launch"]
    assert set(launch) == {"Asked", "Spawned", "Grouped", "Released"} and launch["Asked"] <= end["Started"]
    assert 0 <= launch["Spawned"] <= launch["Grouped"] <= launch["Released"]
    status = stack.control.call("Introspect1", "GetStatus", "s", work)
    assert (status["Launch"], status["LastEnd"]) == (launch, end)
    tasker.start(stack, "often")
    tasker.wait_running(stack, "often")
    tasker.stop(stack, "often")
    assert end_of(stack, often)["Decision"] == "stopped"
    assert requestor(end_of(stack, often))[0::3] == ("session", os.getpid())
    tasker.start(stack, "work", params=["--exit", "5"])
    until(lambda: len(history(stack, work)) == 2, "the second end")
    assert (history(stack, work)[0]["Decision"], history(stack, work)[0]["Detail"]) == ("exited", "exit status 5")
    ends = history(stack)
    assert history(stack, SAMPLE) == ends # those of an application are those of its tasks, too
    ctl.golden("history_of_tasks", ctl.normal(re.sub(r"\S+ \(pid .*\)", "WHO", ctl.run(stack, "history").out),
                                              *((end["Pid"], "PID") for end in ends)))


def test_task_that_its_application_stops(stack):
    tasker.install(stack)
    stack.start()
    application = tasker.Application(stack)
    application.start()
    tasker.wait_running(stack)
    application.stop()
    end = end_of(stack, tasker.task_id("work"))
    assert (end["Decision"], end["RequestorId"]) == ("stopped", SAMPLE)


def test_running_task_tells_its_launch(stack):
    tasker.install(stack)
    stack.start()
    tasker.start(stack)
    tasker.wait_running(stack)
    (running,) = stack.control.call("Introspect1", "ListRunning")
    assert set(running["Launch"]) == {"Asked", "Spawned", "Grouped", "Released"}
    assert re.search(r"Last launch: asked for .*\n +spawned \d+ ms, in its groups \d+ ms, released \d+ ms\n",
                     ctl.run(stack, "status", tasker.task_id("work")).out)


@pytest.mark.parametrize("prevent, line, step, text, passed", [
    (None, "/nonexistent/program", "Prepared", "/nonexistent/program is not executable", set()),
    (no_new_processes, None, "Spawned", "Failed to start child process", set()),
    (no_new_groups, None, "Grouped", "Failed to setup child process", {"Spawned"}),
], ids=["prepared", "spawned", "grouped"])
def test_failed_task_tells_its_step(stack, prevent, line, step, text, passed):
    tasker.install(stack, work=tasker.task(stack, line=line))
    stack.start()
    with prevent(stack) if prevent else contextlib.nullcontext():
        tasker.start(stack) # nobody is told: the task waits for its conditions again
    work = tasker.task_id("work")
    assert failed_launch(stack, step, text, work) == {"Asked"} | passed
    (end,) = history(stack, SAMPLE) # among those of its application
    assert (end["Id"], end["Kind"]) == (work, "task")
    ctl.golden(f"history_task_not_{step.lower()}", ctl.normal(ctl.run(stack, "history").out))


def test_system_component_that_stops_a_task_is_named(stack):
    tasker.install(stack)
    stack.start()
    name = show_this_process(stack)
    invoker = tasker.Invoker(stack, system=True)
    invoker.start()
    tasker.wait_running(stack)
    invoker.stop()
    end = end_of(stack, tasker.task_id("work"))
    assert (end["Decision"], requestor(end)) == ("stopped", ("system", os.geteuid(), name, os.getpid()))


# --- memory ---


def test_early_oom_tells_figures_and_rule(own_memory):
    own_memory.memory.configure(often=False, CheckIntervalMsec=50)
    for app_id in (SAMPLE, OTHER):
        own_memory.install_sample(app_id, sandbox=UNSANDBOXED)
    own_memory.start()
    for app_id in (SAMPLE, OTHER):
        own_memory.control.start(app_id)
        own_memory.sample(app_id)
    own_memory.control.update_windows(SAMPLE, active=1)
    ctl.run_json_of_all(own_memory, 2)
    found = ctl.run_json(own_memory, "memory")["Candidates"]
    assert [candidate["Id"] for candidate in found] == [OTHER, SAMPLE]
    rules = {"oom_score_adj", "least recently active"}
    assert found[0]["Rule"] in rules
    ctl.golden("memory_of_two", re.sub(r"\d+ ms|[\d.]+ %", "N", ctl.normal(
        ctl.run(own_memory, "memory").out, *((candidate["Pid"], "PID") for candidate in found))))
    own_memory.memory.set_level("critical")
    end = end_of(own_memory, OTHER)
    assert (end["Decision"], end["StopReason"], end["ExitStatus"] & 0x7f) == ("early-oom", 6, 9)
    assert re.fullmatch(r"memory is Critical, 100000 kB of 4000000 kB available; oom_score_adj -?\d+, oom_score \d+, "
                        rf"chosen by {found[0]['Rule']}; signal 9 \(SIGKILL\)", end["Detail"]), end["Detail"]


def test_only_candidate_is_told_to_be_that(own_memory):
    own_memory.memory.configure(often=False, CheckIntervalMsec=50)
    own_memory.install_sample(sandbox=UNSANDBOXED)
    own_memory.start()
    own_memory.control.start(SAMPLE)
    own_memory.sample(SAMPLE)
    ctl.run_json_of_all(own_memory)
    own_memory.memory.set_level("critical")
    # What has ended does not run, at any moment.
    def ended():
        status = own_memory.control.call("Introspect1", "GetStatus", "s", SAMPLE)
        assert {end["Pid"] for end in status["History"]}.isdisjoint(found["Pid"] for found in status["Running"])
        return status["History"]
    (end,) = until(ended, "its end")
    assert re.search(r", oom_score \d+, the only candidate; signal 9 \(SIGKILL\)$", end["Detail"]), end["Detail"]


# --- who may ask ---


def ask(application, member, *arguments):
    """(whether it was answered, text) of a call by an application."""
    code, text = application.run("/usr/bin/gdbus", "call", "--session", "--dest", "org.kestrix.Procwarden",
                                 "--object-path", "/org/kestrix/Procwarden/Introspect1", "--method",
                                 f"{INTERFACE}.{member}", "--", *arguments)
    return code == 0, text


def test_application_learns_of_itself_only(stack):
    stack.install_sample(OTHER, sandbox=UNSANDBOXED)
    stack.start()
    tasker.install(stack)
    for app_id in (SAMPLE, OTHER):
        stack.control.start(app_id)
    stack.sample(OTHER).quit(3)
    until(lambda: history(stack, OTHER), "its end")
    stack.control.start(OTHER)
    tasker.start(stack)
    tasker.wait_running(stack)
    mine, its = stack.sample(SAMPLE), stack.sample(OTHER)
    work = tasker.task_id("work")

    refused = "AccessDenied: Not allowed to ask about"
    foreign = [SAMPLE, work, f"{SAMPLE}.instance_7", "org.example", "org.example.Gone", "", ".task_x", "*"]
    for member, more in (("GetStatus", ()), ("Explain", ()), ("GetHistory", ("0",))):
        for asked in foreign:
            if member == "GetHistory" and not asked:
                continue # which is its own, see below
            answered, text = ask(its, member, asked, *more)
            assert not answered and refused in text, (member, asked, text)
        for asked in (SAMPLE, work, f"{SAMPLE}.instance_7"):
            answered, text = ask(mine, member, asked, *more)
            assert answered and OTHER not in text, (member, asked, text)
    for application in (mine, its):
        answered, text = ask(application, "GetMemory")
        assert not answered and f"{refused} the memory" in text
    answered, text = ask(mine, "ListRunning")
    assert answered and SAMPLE in text and work in text and OTHER not in text
    answered, text = ask(its, "ListRunning")
    assert answered and SAMPLE not in text and OTHER in text
    assert ask(mine, "GetHistory", "", "0") == (True, "(@aa{sv} [],)\n")
    answered, text = ask(its, "GetHistory", "", "0")
    assert answered and "exit status 3" in text


def test_application_is_not_told_of_other_processes(stack):
    stack.install_sample(sandbox=UNSANDBOXED)
    stack.start()
    show_this_process(stack)
    stack.control.start(SAMPLE)
    stack.sample(SAMPLE)
    stack.control.terminate(SAMPLE)
    assert end_of(stack)["RequestorPid"] == os.getpid()
    stack.control.start(SAMPLE)
    asker = stack.sample(SAMPLE)
    for member, arguments in (("GetHistory", ("", "0")), ("GetStatus", (SAMPLE,))):
        answered, text = ask(asker, member, *arguments)
        assert answered and "'requested'" in text and "Requestor" not in text.replace("RequestorId", ""), text


def test_task_is_its_application(stack):
    stack.install_sample(OTHER, sandbox=UNSANDBOXED)
    tasker.install(stack)
    stack.start()
    stack.control.start(SAMPLE)
    stack.control.start(OTHER)
    tasker.start(stack)
    task = tasker.wait_running(stack)
    target = f"org.kestrix.Procwarden /org/kestrix/Procwarden/Introspect1 {INTERFACE}"
    # It may do what its application may.
    assert task.call_service(f"{target} GetStatus", OTHER) == [
        f"error org.freedesktop.DBus.Error.AccessDenied: Not allowed to ask about {OTHER}"]
    for asked in (SAMPLE, tasker.task_id("work")):
        (answer,) = task.call_service(f"{target} GetStatus", asked)
        assert not answer.startswith("error"), answer
