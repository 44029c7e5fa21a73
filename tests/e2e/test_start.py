"""The road of one application in its real sandbox: start, active, hidden, active, stop; the end of the service."""

import os
import signal

import dbus
import pytest

from stack import cgroups, permission_daemon
from stack.cleaning import processes_of
from stack.client import ACTIVE, HIDDEN, INACTIVE, BusError
from stack.process import descendants, is_running
from stack.waiting import until

APP = "org.example.Sample"
OTHER = "org.example.Other"

NONE, REQUESTED = 0, 5 # stop reasons


def exited(code):
    """The raw wait status of a process that left with this code."""
    return code << 8


def running_ids(stack):
    return [record[0] for record in stack.control.running()[0]]


def start_other(stack):
    """An application without sandbox that is never hidden: its ticks show that time passes."""
    stack.install_sample(OTHER, sandbox={"Sandboxing": "Disabled"})
    stack.control.start(OTHER)
    stack.sample(OTHER)


def wait_for_ticks(stack, app, count=10):
    before = stack.sample_files.ticks(app)
    until(lambda: stack.sample_files.ticks(app) >= before + count, f"ticks of {app}",
          detail=stack.service.log)


def wait_for_freezer(stack, app, state):
    until(lambda: stack.freezer_state(app) == state, f"{state} of {app}", detail=lambda: stack.freezer_state(app))


def needs_freezer(stack):
    if not stack.hierarchies.is_real("freezer"):
        pytest.skip("no freezer on this machine")


# --- start ---


def test_permission_daemon_is_asked_and_its_grants_become_profiles(service):
    service.permission_daemon.set_rule(APP, prompt=permission_daemon.granted("Internet"))
    started = service.control.start(APP)
    assert service.permission_daemon.calls_of("GetAllowed") == [APP]
    assert service.permission_daemon.calls_of("PromptLaunchPermissions") == [APP]
    command = until(lambda: service.sandbox_command(started.pid), "the sandbox's command line")
    profiles = [argument for argument in command if argument.startswith("--profile=")]
    directory = service.root.inside("etc/sailjail/permissions")
    assert profiles == [f"--profile={directory}/Internet.permission", f"--profile={directory}/Base.permission"]


def test_sandbox_gets_exactly_this_command_line(service):
    started = service.control.start(APP)
    command = until(lambda: service.sandbox_command(started.pid), "the sandbox's command line")
    home = ("--mkdir=${HOME}/%s", "--whitelist=${HOME}/%s")
    assert command == [
        service.root.inside("usr/bin/firejail"),
        "--quiet",
        f"--private-bin={APP}",
        "--template=OrganizationName:org.example",
        "--template=ApplicationName:Sample",
        f"--whitelist=/usr/share/{APP}",
        f"--whitelist={service.applications.desktop_file(APP)}",
        *(home[1] % f"{directory}/{APP}" for directory in (".local/share", ".config", ".cache")),
        *(form % f"{directory}/org.example/Sample" for directory in (".cache", ".local/share", ".config")
          for form in home),
        "--dbus-user.own=org.example.Sample.*",
        "--whitelist=/srv/shared/org.example/Sample",
        "--dbus-system.talk=org.example.Sample.*",
        *(form % f"{directory}/org.example/common" for directory in (".cache", ".config", ".local/share")
          for form in home),
        "--whitelist=/usr/share/common/org.example",
        "--whitelist=/srv/shared/org.example/common",
        "--whitelist=/srv/shared/empty",
        "--blacklist=/srv/shared/empty",
        "--whitelist=/usr/share/common/empty",
        "--blacklist=/usr/share/common/empty",
        f"--profile={service.root.inside('etc/sailjail/permissions/Base.permission')}",
        "--",
        service.applications.program(APP),
        "--name",
        f"{APP}.Main",
    ]


def test_application_and_all_its_processes_are_in_its_control_groups(service):
    started = service.control.start(APP)
    service.sample()
    for controller in cgroups.REQUIRED:
        if not service.hierarchies.is_real(controller):
            assert cgroups.read(os.path.join(service.group(controller, APP), "cgroup.procs")) == str(started.pid)
            continue
        family = {started.pid} | descendants(started.pid)
        listed = cgroups.read(os.path.join(service.group(controller, APP), "cgroup.procs")).split()
        assert set(map(str, family)) <= set(listed)
        place = f"/procwarden/user-{service.user.uid}/{APP}/app"
        assert cgroups.of_process(started.pid)[controller] == place


def test_application_runs_with_its_identity_in_the_environment(service):
    service.control.start(APP)
    environment = service.sample().environment()
    assert environment["SOLVANE_APP_ID"] == APP
    assert environment["SOLVANE_APP_INSTANCE_ID"] == APP
    assert environment["SOLVANE_PACKAGE_NAME"] == APP
    assert environment["HOME"] == service.user.home


# --- refusals ---


@pytest.mark.parametrize("rule, message", [
    ({"may_start": permission_daemon.allowed(False)}, "Application not allowed by sailjaild"),
    ({"may_start": permission_daemon.error("broken")}, "Application not allowed by sailjaild"),
    ({"may_start": permission_daemon.value("s", "yes")}, "Application not allowed by sailjaild"),
    ({"prompt": permission_daemon.error("The user said no")}, "The user said no"),
])
def test_refusal_by_the_permission_daemon_leaves_no_process(service, rule, message):
    service.permission_daemon.set_rule(APP, **rule)
    with pytest.raises(BusError) as error:
        service.control.start(APP)
    assert (error.value.name, error.value.message) == ("org.freedesktop.DBus.Error.AccessDenied", message)
    assert running_ids(service) == []
    until(lambda: not descendants(service.service.pid), "the end of the abandoned child")


def test_absent_permission_daemon_refuses_a_start(service):
    service.permission_daemon.vanish()
    with pytest.raises(BusError) as error:
        service.control.start(APP)
    assert error.value.name == "org.freedesktop.DBus.Error.AccessDenied"


# --- states ---


def test_hidden_application_is_frozen_and_runs_on_when_shown(service):
    needs_freezer(service)
    start_other(service)
    service.control.start(APP)
    sample = service.sample()
    assert service.control.update_windows(APP, active=1) == ACTIVE
    wait_for_ticks(service, APP)

    assert service.control.update_windows(APP, hidden=1) == HIDDEN
    wait_for_freezer(service, APP, "FROZEN")
    ticks = service.sample_files.ticks(APP)
    wait_for_ticks(service, OTHER, 30)
    assert service.sample_files.ticks(APP) == ticks

    assert service.control.update_windows(APP, active=1) == ACTIVE
    wait_for_freezer(service, APP, "THAWED")
    wait_for_ticks(service, APP)
    assert sample.ticks() > ticks


def test_application_hears_its_own_state_only(service):
    start_other(service)
    service.control.start(APP)
    service.sample()
    until(lambda: "properties State=0" in service.sample_files.diary(APP), "the application's first state")
    service.control.update_windows(OTHER, active=1)
    service.control.update_windows(APP, active=1)
    service.control.update_windows(APP, inactive=1)
    until(lambda: f"state {INACTIVE} {APP}" in service.sample_files.diary(APP), "the state in its diary")
    assert [entry for entry in service.sample_files.diary(APP) if entry.startswith("state")] == [
        f"state {ACTIVE} {APP}", f"state {INACTIVE} {APP}"]


# --- stop ---


def test_terminated_application_is_signalled_and_its_groups_go(service):
    service.control.start(APP)
    service.sample()
    pid = service.control.running()[0][0][1]
    monitor = service.monitor()
    service.control.terminate(APP)
    last = monitor.wait_for("Terminated", APP)[-1]
    assert last.arguments[1]["Pid"] == pid and last.arguments[1]["StopReason"] == REQUESTED
    assert {str(key): type(value) for key, value in last.raw[1].items()} == {
        "Pid": dbus.Int32, "ExitStatus": dbus.Int32, "StopReason": dbus.UInt32}
    assert running_ids(service) == []
    for controller in cgroups.REQUIRED:
        if service.hierarchies.is_real(controller):
            assert not os.path.exists(service.group(controller, APP))
            assert not os.path.exists(os.path.dirname(service.group(controller, APP)))


@pytest.mark.parametrize("code", [0, 7])
def test_exit_code_of_the_application_is_its_exit_status(service, code):
    service.control.start(APP)
    sample = service.sample()
    monitor = service.monitor()
    sample.quit(code)
    details = monitor.wait_for("Terminated", APP)[-1].arguments[1]
    assert (details["ExitStatus"], details["StopReason"]) == (exited(code), NONE)


def test_killed_application_has_the_signal_in_its_exit_status(service):
    started = service.control.start(APP)
    service.sample()
    inside = descendants(started.pid)
    monitor = service.monitor()
    os.kill(started.pid, signal.SIGKILL)
    assert monitor.wait_for("Terminated", APP)[-1].arguments[1]["ExitStatus"] == signal.SIGKILL
    until(lambda: not any(map(is_running, inside)), "the end of what ran in the sandbox")


def test_stopped_application_starts_again(service):
    first = service.control.start(APP)
    service.sample()
    monitor = service.monitor()
    service.control.terminate(APP)
    monitor.wait_for("Terminated", APP)
    assert service.control.start(APP).pid != first.pid
    service.sample()


# --- the end of the service ---


def test_ended_service_leaves_no_sandbox_behind(service):
    start_other(service)
    service.control.start(APP)
    service.sample()
    service.control.update_windows(APP, hidden=1)
    wait_for_freezer(service, APP, "FROZEN")
    assert service.service.stop() == 0
    ours = {service.session_bus.daemon.pid}
    until(lambda: set(processes_of(service.user.uid)) <= ours, "the end of every application",
          detail=lambda: str(processes_of(service.user.uid)))
