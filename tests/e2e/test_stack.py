"""The stack itself: what the other tests take for granted."""

import os
import re
import signal
import subprocess
import sys

import dbus
import dbus.lowlevel
import pytest

from stack import Stack, cgroups, permission_daemon
from stack.cleaning import processes_of
from stack.client import BusError, Pending, SampleClient
from stack.monitor import Monitor
from stack.process import Child, descendants
from stack.rootfs import ProcTree
from stack.waiting import NotInTime, until

DAEMON = permission_daemon.PermissionDaemon


def ask(stack, method, application, signature="s"):
    connection = stack.system_bus.connect()
    try:
        return connection.call_blocking(DAEMON.SERVICE, DAEMON.PATH, DAEMON.INTERFACE, method, signature,
                                        (application,), timeout=20)
    except dbus.DBusException as error:
        raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None
    finally:
        connection.close()


def run_as_user(stack, name, *argv, **env):
    child = Child(name, list(argv), os.path.join(stack.directory, "log", name), {**stack.environment(), **env},
                  stack.user)
    return child


def leftovers(directory, uid):
    found = [str(pid) for pid in processes_of(uid)]
    found += [directory] if os.path.exists(directory) else []
    found += [path for hierarchy in cgroups.mounted_hierarchies().values()
              if os.path.exists(path := cgroups.user_directory(hierarchy, uid))]
    return found


# --- coming and going ---


def test_stacks_side_by_side_share_nothing(stack):
    with Stack() as other:
        assert other.user.uid != stack.user.uid
        assert other.session_bus.address != stack.session_bus.address
        other.start_helper()
        assert other.system_bus.owner("org.kestrix.Procwarden.Helper")
        assert not stack.system_bus.owner("org.kestrix.Procwarden.Helper")
        directory, uid = other.directory, other.user.uid
    assert leftovers(directory, uid) == []
    assert stack.session_bus.owner("org.nemomobile.lipstick")


def freeze_a_process(stack):
    """A process of the stack's user in a frozen group of that user's."""
    group = os.path.join(cgroups.user_directory(stack.hierarchies.directories["freezer"], stack.user.uid), "test")

    def made():
        try:
            os.makedirs(group, exist_ok=True)
        except FileNotFoundError: # others remove what is above it, when it is empty
            return False
        return True

    until(made, "the group")
    sleeper = run_as_user(stack, "sleeper", "/usr/bin/sleep", "600")
    # Frozen before it has changed its user it would be root's, and nobody's to clean up.
    until(lambda: sleeper.pid in processes_of(stack.user.uid), "the process to be the user's")
    assert cgroups.write(os.path.join(group, "cgroup.procs"), str(sleeper.pid))
    assert cgroups.write(os.path.join(group, "freezer.state"), "FROZEN")
    until(lambda: cgroups.read(os.path.join(group, "freezer.state")) == "FROZEN", "the freezing of the group")
    return sleeper


def test_closing_ends_frozen_processes_and_removes_their_groups():
    with Stack() as stack:
        if not stack.hierarchies.is_real("freezer"):
            pytest.skip("no freezer on this machine")
        directory, uid = stack.directory, stack.user.uid
        sleeper = freeze_a_process(stack)
    assert sleeper.wait() == -signal.SIGKILL
    assert leftovers(directory, uid) == []


def test_a_killed_test_run_is_cleaned_up_after():
    program = ("import sys, time; from stack import Stack; stack = Stack(); stack.start_helper(); "
               "print(stack.directory, stack.user.uid, flush=True); time.sleep(600)")
    with subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE, text=True) as run:
        directory, uid = run.stdout.readline().split()
        assert os.path.isdir(directory)
        run.kill()
    until(lambda: not leftovers(directory, int(uid)), "the end of everything that the run had started",
          detail=lambda: str(leftovers(directory, int(uid))))


# --- the permission daemon ---


def test_installed_applications_may_start_and_get_no_permission(stack):
    stack.install_sample()
    assert ask(stack, "GetAllowed", "org.example.Sample") == 1
    assert ask(stack, "PromptLaunchPermissions", "org.example.Sample") == []
    assert stack.permission_daemon.calls_of("GetAllowed") == ["org.example.Sample"]


def test_permission_rules_hold_for_one_application(stack):
    stack.install_sample()
    stack.install_sample("org.example.Other")
    stack.permission_daemon.set_rule("org.example.Sample", may_start=permission_daemon.allowed(False),
                                     prompt=permission_daemon.granted("Internet", "Base"))
    assert ask(stack, "GetAllowed", "org.example.Sample") == 0
    assert ask(stack, "PromptLaunchPermissions", "org.example.Sample") == ["Internet", "Base"]
    assert ask(stack, "GetAllowed", "org.example.Other") == 1


def test_permission_daemon_answers_with_errors_and_wrong_types(stack):
    stack.install_sample()
    stack.permission_daemon.set_rule("org.example.Sample", may_start=permission_daemon.value("s", "yes"),
                                     prompt=permission_daemon.error("no, thanks"))
    assert ask(stack, "GetAllowed", "org.example.Sample") == "yes"
    with pytest.raises(BusError, match="AccessDenied: no, thanks"):
        ask(stack, "PromptLaunchPermissions", "org.example.Sample")


def test_permission_daemon_holds_an_answer_back(stack):
    stack.install_sample()
    stack.permission_daemon.set_rule("org.example.Sample", prompt=permission_daemon.held())
    pending = Pending(lambda: ask(stack, "PromptLaunchPermissions", "org.example.Sample"))
    stack.permission_daemon.wait_for_held("PromptLaunchPermissions", "org.example.Sample")
    assert not pending.done
    stack.permission_daemon.release("PromptLaunchPermissions", "org.example.Sample",
                                    permission_daemon.granted("Internet"))
    assert pending.result() == ["Internet"]


@pytest.mark.parametrize("method, signature, application, complaint", [
    ("GetAllowed", "s", "org.example.Unknown", "not installed"),
    ("GetAllowed", "i", 7, "takes \"s\", not \"i\""),
    ("GetPermitted", "s", "org.example.Sample", "no such call"),
])
def test_permission_daemon_complains_about_wrong_calls(stack, method, signature, application, complaint):
    stack.install_sample()
    with pytest.raises(BusError):
        ask(stack, method, application, signature)
    assert len(stack.complaints()) == 1 and complaint in stack.complaints()[0]
    stack.permission_daemon.complaints.clear()


def test_a_stand_in_can_be_absent(stack):
    stack.permission_daemon.vanish()
    with pytest.raises(BusError, match="ServiceUnknown"):
        ask(stack, "GetAllowed", "org.example.Sample")
    stack.permission_daemon.appear()
    stack.install_sample()
    assert ask(stack, "GetAllowed", "org.example.Sample") == 1


def test_window_model_remembers_whom_it_was_to_show(stack):
    connection = stack.session_bus.connect()
    connection.call_blocking("org.nemomobile.lipstick", "/WindowModel", "local.Lipstick.WindowModel",
                             "launchProcess", "s", ("org.example.Sample",))
    assert stack.window_model.launched == ["org.example.Sample"]


# --- the monitor ---


def emit(connection, member, *arguments, destination=None):
    message = dbus.lowlevel.SignalMessage("/", "org.example.Test1", member)
    message.append(*arguments, signature="s" * len(arguments))
    if destination:
        message.set_destination(destination)
    connection.send_message(message)
    connection.flush()


def test_monitor_sees_signals_of_one_name_in_their_order(stack):
    monitor = Monitor(stack.session_bus, "org.example.Sender")
    sender, stranger = stack.session_bus.connect(), stack.session_bus.connect()
    sender.request_name("org.example.Sender")
    emit(stranger, "Other", "x")
    emit(sender, "First", "1")
    emit(sender, "Second", "2", destination=stranger.get_unique_name())
    emit(sender, "Third", "3")
    assert [(signal.member, signal.arguments) for signal in monitor.wait_for("Second")] == [
        ("First", ("1",)), ("Second", ("2",))]
    rest = monitor.take()
    assert [signal.member for signal in rest] == ["Third"] and rest[0].destination == ""
    assert monitor.signals()[1].destination == stranger.get_unique_name()
    monitor.close()


def test_waiting_ends_at_its_limit():
    with pytest.raises(NotInTime, match="not within 0.05 s: something that never happens"):
        until(lambda: False, "something that never happens", limit=0.05)


# --- the root directory ---


def test_kernel_files_appear_beside_a_score_file(stack):
    if stack.root.real_proc:
        pytest.skip("/proc is the kernel's own here")
    sleeper = run_as_user(stack, "sleeper", "/usr/bin/sleep", "600")
    directory = stack.root.inside(f"proc/{sleeper.pid}")
    os.mkdir(directory)
    until(lambda: set(os.listdir(directory)) == set(ProcTree.LINKED), "links in the process's directory")
    with open(os.path.join(directory, "status")) as file:
        assert f"\nPid:\t{sleeper.pid}\n" in file.read()


def sandbox(stack, *arguments):
    """Starts the sample application as the user, through the wrapper, with the service's kind of options."""
    stack.install_sample()
    program = stack.applications.program("org.example.Sample")
    permission = stack.root.inside("etc/sailjail/permissions/Base.permission")
    return run_as_user(stack, "sandboxed", stack.root.inside("usr/bin/firejail"), "--quiet",
                       "--private-bin=org.example.Sample", "--template=OrganizationName:org.example",
                       "--template=ApplicationName:Sample",
                       f"--whitelist={stack.applications.desktop_file('org.example.Sample')}",
                       "--mkdir=${HOME}/.cache/org.example/Sample",
                       "--whitelist=${HOME}/.cache/org.example/Sample", "--dbus-user.own=org.example.Sample.*",
                       f"--profile={permission}", "--", program, "--name", "org.example.Sample.Main", *arguments)


def wait_for_sample(stack, child):
    until(lambda: child.status is not None or stack.session_bus.owner("org.example.Sample.Main"),
          "the sample application's name", detail=child.output)
    assert child.status is None, child.output()
    return SampleClient(stack.session_bus, "org.example.Sample.Main")


def test_sample_application_runs_in_the_real_sandbox(stack):
    child = sandbox(stack)
    sample = wait_for_sample(stack, child)
    until(lambda: sample.ticks() > 2 and stack.sample_files.ticks("unmanaged") > 2, "ticks of the application")
    # A process number of its own namespace, and a home with nothing else in it.
    assert sample.call("Pid") != child.pid and sample.call("Pid") < 100
    assert "/usr/bin/firejail" in stack.sandbox_command(child.pid)[0]
    assert "--template=OrganizationName:org.example" in stack.sandbox_command(child.pid)
    assert child.stop() is not None


def test_what_the_bus_takes_for_the_application_is_in_its_process_group(stack):
    child = sandbox(stack)
    wait_for_sample(stack, child)
    connection = stack.session_bus.connect()
    caller = int(connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                          "GetConnectionUnixProcessID", "s", ("org.example.Sample.Main",)))
    assert caller in descendants(child.pid)
    assert os.getpgid(caller) == child.pid
    child.stop()


def test_sandboxed_application_reaches_no_other_name(stack):
    child = sandbox(stack)
    sample = wait_for_sample(stack, child)
    reply = sample.call_service("org.nemomobile.lipstick /WindowModel local.Lipstick.WindowModel launchProcess", "x")
    assert re.match(r"error org\.freedesktop\.DBus\.Error\.(ServiceUnknown|AccessDenied):", reply[0])
    assert stack.window_model.launched == []
    child.stop()


@pytest.mark.parametrize("arguments, status", [(["--exit", "7"], 7), (["--daemonise"], 0)])
def test_sample_application_can_end_at_once(stack, arguments, status):
    program = stack.applications.install_program("org.example.Sample")
    assert run_as_user(stack, "sample", program, *arguments).wait() == status


def test_sample_application_can_ignore_a_request_to_end(stack):
    program = stack.applications.install_program("org.example.Sample")
    child = run_as_user(stack, "sample", program, "--name", "org.example.Sample.Main", "--ignore-term")
    wait_for_sample(stack, child)
    child.send(signal.SIGTERM)
    until(lambda: "term" in stack.sample_files.diary("unmanaged"), "a note of the signal")
    ticks = stack.sample_files.ticks("unmanaged")
    until(lambda: stack.sample_files.ticks("unmanaged") > ticks, "ticks after the signal")
    assert child.status is None
    child.kill()
