"""Launches that go wrong, or take long, and what is left of them: nothing."""

import contextlib
import os
import signal

import dbus
import dbus.lowlevel
import pytest

from stack.client import BusError
from stack.permission_daemon import PermissionDaemon, allowed, error, granted, held, never, value
from stack.process import descendants, is_running
from stack.service import SESSION_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
UNSANDBOXED = {"Sandboxing": "Disabled"}
MANY = {"X-Nemo-Single-Instance": "no"}


@pytest.fixture
def plain(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.install_sample(OTHER, sandbox=UNSANDBOXED)
    service.control.reload()
    return service


def install(stack, app_id, **options):
    options.setdefault("sandbox", UNSANDBOXED)
    stack.install_sample(app_id, **options)
    stack.control.reload()


def descriptors(stack):
    directory = f"/proc/{stack.service.pid}/fd"
    found = []
    for name in os.listdir(directory):
        with contextlib.suppress(FileNotFoundError): # closed meanwhile
            found.append(os.readlink(f"{directory}/{name}").partition(":")[0])
    return sorted(found)


def assert_nothing_is_left(stack, before):
    """No child, not even one that has ended and was not reaped, and no descriptor; and the service answers."""
    until(lambda: not descendants(stack.service.pid, ended=True), "the end of all children")
    until(lambda: descriptors(stack) == before, "the closing of all descriptors",
          detail=lambda: f"{descriptors(stack)} instead of {before}")
    assert stack.control.running() == ([], [])


def groups_of(stack, app_id):
    return [path for controller in ("cpu", "freezer", "memory")
            if stack.hierarchies.is_real(controller)
            and os.path.exists(path := os.path.dirname(stack.group(controller, app_id)))]


def terminated(monitor, app_id=SAMPLE):
    return monitor.wait_for("Terminated", app_id)[-1].arguments[1]


def settle(stack):
    """The descriptors of a service that has done this once: connections and watches are made at first use."""
    stack.control.start(OTHER)
    stack.control.terminate(OTHER)
    until(lambda: not stack.control.running()[0], "the end of the first application")
    stack.control.running() # whatever else there was to do has been done
    return descriptors(stack)


# --- applications that end in their own way ---


@pytest.mark.parametrize("options, status", [
    ({"arguments": "--exit 0"}, 0),
    ({"arguments": "--exit 7"}, 7 << 8),
    ({"exec_line": "/nonexistent/program"}, 1 << 8),
    ({"exec_line": ""}, 1 << 8),
])
def test_application_that_ends_at_once(plain, options, status):
    before = settle(plain)
    install(plain, SAMPLE, **options)
    monitor = plain.monitor()
    for _ in range(5):
        started = plain.control.start(SAMPLE)
        assert terminated(monitor) == {"Pid": started.pid, "ExitStatus": status, "StopReason": 0}
    assert groups_of(plain, SAMPLE) == []
    assert_nothing_is_left(plain, before)


def test_application_that_forks_away_is_reported_when_its_first_process_ends(plain):
    install(plain, SAMPLE, arguments="--daemonise")
    monitor = plain.monitor()
    started = plain.control.start(SAMPLE)
    assert terminated(monitor) == {"Pid": started.pid, "ExitStatus": 0, "StopReason": 0}
    # What forked away lives on in the group that it was born in, which therefore stays.
    plain.sample()
    until(lambda: f"Cannot remove cgroup for \"{SAMPLE}\"" in plain.service.log(), "the warning")
    assert plain.control.running() == ([], [])


def test_application_that_ignores_sigterm_is_killed(stack):
    stack.install_sample(arguments="--ignore-term", sandbox=UNSANDBOXED)
    stack.start(PROCWARDEN_KILL_TIMEOUT="200")
    monitor = stack.monitor()
    stack.control.start(SAMPLE)
    stack.sample()
    stack.control.terminate(SAMPLE)
    details = terminated(monitor)
    assert (details["ExitStatus"], details["StopReason"]) == (signal.SIGKILL, 5)
    assert "term" in stack.sample_files.diary()


def test_everything_in_the_process_group_is_killed(stack):
    stack.root.write("stubborn", "trap '' TERM\nsleep 600 & sleep 600 & wait\n")
    stack.install_sample(exec_line=f"/bin/sh {stack.root.path}/stubborn", sandbox=UNSANDBOXED)
    stack.start(PROCWARDEN_KILL_TIMEOUT="200")
    monitor = stack.monitor()
    started = stack.control.start(SAMPLE)
    until(lambda: len(descendants(started.pid)) == 2, "the processes that it starts")
    family = descendants(started.pid)
    stack.control.terminate(SAMPLE)
    assert terminated(monitor)["ExitStatus"] == signal.SIGKILL
    until(lambda: not [pid for pid in family if is_running(pid)], "the end of the whole group")


def test_flood_of_output_holds_nobody_up(plain):
    install(plain, SAMPLE, arguments="--flood 20000")
    plain.control.start(SAMPLE)
    plain.sample()
    assert plain.control.start(OTHER).instance_id == OTHER


def test_everything_in_the_process_group_goes_with_the_application(plain):
    plain.root.write("family", "sleep 600 & sleep 600 & wait\n")
    install(plain, SAMPLE, exec_line=f"/bin/sh {plain.root.path}/family")
    monitor = plain.monitor()
    started = plain.control.start(SAMPLE)
    family = until(lambda: descendants(started.pid), "the process that it starts") | {started.pid}
    plain.control.terminate(SAMPLE)
    assert terminated(monitor)["ExitStatus"] == signal.SIGTERM
    until(lambda: not [pid for pid in family if is_running(pid)], "the end of the whole group")


def test_stop_right_after_the_start(plain):
    """The group exists from the first moment, so no stop comes too early to be felt."""
    monitor = plain.monitor()
    for _ in range(20):
        plain.control.start(SAMPLE)
        plain.control.terminate(SAMPLE)
        assert terminated(monitor)["StopReason"] == 5


# --- limits of a child ---


@pytest.mark.parametrize("arguments, environment, message", [
    (63, [], None),
    (64, [], "Buffer not large enough to read the variables"),
    (1, ["VARIABLE=1"] * 200, "Buffer not large enough to read the variables"),
    (1, ["BIG=" + "x" * 8192], "Buffer too small"),
    (1, ["HUGE=" + "x" * 1_000_000], "Buffer too small"),
])
def test_child_that_is_given_too_much_ends(plain, arguments, environment, message):
    monitor = plain.monitor()
    line = ["/bin/true"] + ["x"] * (arguments - 1)
    try:
        plain.control.start_debug(SAMPLE, sandbox=False, commandLineParams=dbus.Array(line, signature="s"),
                                  environment=dbus.Array(environment, signature="s"))
    except BusError as failure:
        # The child may be gone before all of it is in the pipe.
        assert (failure.name, failure.message) == ("org.freedesktop.DBus.Error.Failed", "exec() call failed")
    else:
        assert terminated(monitor)["ExitStatus"] == (1 << 8 if message else 0)
    if message:
        until(lambda: message in plain.service.log(), "the child's last words")
    until(lambda: not descendants(plain.service.pid), "the end of the child")
    assert plain.control.start(SAMPLE).instance_id == SAMPLE


@pytest.mark.parametrize("more, status", [(0, 0), (1, 1 << 8)])
def test_environment_of_exactly_the_limit(plain, more, status):
    """127 entries are the most, the service's own and the three of the application among them."""
    monitor = plain.monitor()
    with open(f"/proc/{plain.service.pid}/environ") as file:
        own = len(file.read().split("\0")[:-1])
    entries = ["A=1"] * (127 - own - 3 + more)
    try:
        plain.control.start_debug(SAMPLE, sandbox=False, commandLineParams=dbus.Array(["/bin/true"], signature="s"),
                                  environment=dbus.Array(entries, signature="s"))
    except BusError as failure:
        # The child may be gone before its arguments are in the pipe.
        assert status and failure.message == "exec() call failed"
    else:
        assert terminated(monitor)["ExitStatus"] == status


# --- many at once ---


def test_two_hundred_starts(plain):
    """Fifty at once: a bus keeps 128 questions of one connection without an answer, and refuses what goes beyond."""
    before = settle(plain)
    install(plain, "org.example.Many", exec_line="/bin/sleep 600", main=MANY)
    connection = plain.session_bus.connect()
    for started in range(50, 201, 50):
        for _ in range(50):
            message = dbus.lowlevel.MethodCallMessage(SESSION_NAME, "/org/kestrix/Procwarden/Control1",
                                                      "org.kestrix.Procwarden.Control1", "Start")
            message.append("org.example.Many", signature="s")
            connection.send_message(message)
        connection.flush()
        until(lambda: len(plain.control.running()[0]) == started, f"{started} of them")
    pids = {entry[1] for entry in plain.control.running()[0]}
    assert {entry[0] for entry in plain.control.running()[0]} == {
        f"org.example.Many.instance_{pid}" for pid in pids}
    connection.close()

    plain.system_control.terminate_all("org.example.Many")
    plain.system_control.wait_for_not_running("org.example.Many").result()
    assert groups_of(plain, "org.example.Many") == []
    assert_nothing_is_left(plain, before)


# --- the permission daemon ---


@pytest.mark.parametrize("rule, message", [
    ({"may_start": allowed(False)}, "Application not allowed by sailjaild"),
    ({"may_start": error("broken")}, "Application not allowed by sailjaild"),
    ({"may_start": value("s", "yes")}, "Application not allowed by sailjaild"),
    ({"may_start": value("", None)}, "Application not allowed by sailjaild"),
    ({"prompt": error("declined")}, "declined"),
    ({"prompt": error("")}, ""),
])
def test_refusal_leaves_nothing(plain, rule, message):
    before = settle(plain)
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, **rule)
    with pytest.raises(BusError) as raised:
        plain.control.start(SAMPLE)
    assert raised.value.name == DENIED
    if message: # an empty one goes out as such, and each client library shows something else for it
        assert raised.value.message == message
    assert_nothing_is_left(plain, before)
    # They go when the service has heard of the end of the child, which is later than its reaping.
    until(lambda: groups_of(plain, SAMPLE) == [], "the removal of the groups")
    assert "Internal error" not in plain.service.log()


@pytest.mark.parametrize("answer", [value("s", "Internet"), value("", None), value("i", dbus.Int32(1))])
def test_grant_of_another_type_is_none(plain, answer):
    before = settle(plain)
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, prompt=answer)
    with pytest.raises(BusError, match=f"{DENIED}: Unexpected reply signature"):
        plain.control.start(SAMPLE)
    assert_nothing_is_left(plain, before)


def test_absent_permission_daemon_refuses_everything(plain):
    before = settle(plain)
    plain.permission_daemon.close()
    for app_id in (SAMPLE, OTHER):
        with pytest.raises(BusError, match=f"{DENIED}: Application not allowed by sailjaild"):
            plain.control.start(app_id)
    assert_nothing_is_left(plain, before)


@pytest.mark.parametrize("method, question", [("GetAllowed", "may_start"), ("PromptLaunchPermissions", "prompt")])
def test_permission_daemon_that_dies_while_it_is_asked(plain, method, question):
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, **{question: never()})
    start = plain.control.start_later(SAMPLE)
    until(lambda: plain.permission_daemon.calls_of(method) == [SAMPLE], "the question")
    assert not start.done
    plain.permission_daemon.close()
    with pytest.raises(BusError, match=DENIED):
        start.result()
    until(lambda: not descendants(plain.service.pid), "the end of the child")


def test_prompt_that_waits_holds_nobody_up(plain):
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, prompt=held())
    waiting = plain.control.start_later(SAMPLE)
    plain.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    monitor = plain.monitor()
    for _ in range(5):
        plain.control.start(OTHER)
        plain.control.terminate(OTHER)
        terminated(monitor, OTHER)
    assert not waiting.done
    plain.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    assert waiting.result()[0] == SAMPLE
    plain.sample()


def test_prompt_that_is_answered_after_a_refusal_starts_nothing(plain):
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, may_start=held(), prompt=held())
    waiting = plain.control.start_later(SAMPLE)
    plain.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    plain.permission_daemon.release("GetAllowed", SAMPLE, allowed(False))
    with pytest.raises(BusError, match=DENIED):
        waiting.result()
    plain.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    until(lambda: not descendants(plain.service.pid), "the end of the child")
    assert plain.control.running() == ([], [])
    plain.permission_daemon.set_rule(SAMPLE)
    assert plain.control.start(SAMPLE).instance_id == SAMPLE


def test_child_that_is_killed_while_it_waits(plain):
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, prompt=held())
    waiting = plain.control.start_later(SAMPLE)
    plain.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    children = until(lambda: descendants(plain.service.pid), "the child")
    for pid in children:
        os.kill(pid, signal.SIGKILL)
    until(lambda: not any(map(is_running, children)), "its end")
    plain.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    with pytest.raises(BusError) as raised:
        waiting.result()
    # Whichever write meets the closed pipe first.
    assert raised.value.name == "org.freedesktop.DBus.Error.Failed"
    assert raised.value.message in ("exec() call failed", "Cannot setup child process")
    plain.permission_daemon.set_rule(SAMPLE)
    assert plain.control.start(SAMPLE).instance_id == SAMPLE


# --- clients ---


def test_client_that_leaves_before_its_reply(plain):
    install(plain, SAMPLE, sandbox={})
    plain.permission_daemon.set_rule(SAMPLE, prompt=held())
    connection = plain.session_bus.connect()
    message = dbus.lowlevel.MethodCallMessage(SESSION_NAME, "/org/kestrix/Procwarden/Control1",
                                              "org.kestrix.Procwarden.Control1", "Start")
    message.append(SAMPLE, signature="s")
    connection.send_message(message)
    connection.flush()
    plain.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    connection.close()
    monitor = plain.monitor()
    plain.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    # What was asked for happens all the same.
    monitor.wait_for("Started", SAMPLE)
    plain.sample()


def test_starts_and_stops_leave_nothing(plain):
    before = settle(plain)
    monitor = plain.monitor()
    for _ in range(30):
        plain.control.start(SAMPLE)
        plain.control.terminate(SAMPLE)
        terminated(monitor)
    assert groups_of(plain, SAMPLE) == []
    assert_nothing_is_left(plain, before)


def test_permission_daemon_is_asked_by_the_name_of_the_desktop_file(plain):
    assert PermissionDaemon.METHODS["GetAllowed"] == "s"
    plain.applications.write_desktop_file("my.notes-app", {
        "Desktop Entry": {"Type": "Application", "Name": "Notes",
                          "Exec": plain.applications.program(SAMPLE) + " --name org.example.Notes"}})
    plain.control.reload()
    # Without a declared name the id is made from the file's, and nothing is shared with other applications.
    app_id = "org.kestrix.my_2enotes_2dapp"
    assert plain.control.start(app_id).instance_id == app_id
    assert plain.permission_daemon.calls_of("GetAllowed") == ["my.notes-app"]
    assert plain.permission_daemon.calls_of("PromptLaunchPermissions") == ["my.notes-app"]
