"""The control interface: what clients send, what they get back, and what everybody hears."""

import os
import signal

import dbus
import pytest

import raw
from stack.client import BusError
from stack.permission_daemon import allowed, error, held
from stack.service import SESSION_NAME, SYSTEM_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
ERROR = "org.kestrix.Procwarden.Error."
UNSANDBOXED = {"Sandboxing": "Disabled"}


@pytest.fixture
def plain(service):
    """The service with a sample application outside the sandbox, which can reach both buses."""
    service.install_sample(sandbox=UNSANDBOXED)
    service.control.reload()
    return service


def members(signals):
    return [received.member for received in signals]


@pytest.mark.parametrize("bus, name", [("session_bus", SESSION_NAME), ("system_bus", SYSTEM_NAME)])
def test_start_replies_with_id_and_details(plain, bus, name):
    signature, (instance_id, details) = raw.call(getattr(plain, bus), name, "Control1", "Start", SAMPLE,
                                                 signature="s")
    assert signature == "sa{sv}"
    assert instance_id == SAMPLE
    assert raw.types(details) == {"Pid": "i", "StartReason": "u", "RequestorId": "s"}
    assert details["StartReason"] == 4
    assert details["RequestorId"] == ""
    # The child has been released: it becomes the program in its own time.
    until(lambda: os.readlink(f"/proc/{details['Pid']}/exe") == plain.applications.program(SAMPLE), "the program")


def test_running_applications_are_listed_with_their_types(plain):
    started = plain.control.start(SAMPLE)
    plain.control.update_windows(SAMPLE, active=1)
    signature, (applications, services) = raw.call(plain.session_bus, SESSION_NAME, "Control1",
                                                   "GetRunningApplications")
    assert signature == "a(siuua{sv})a(ssiua{sv})"
    assert [tuple(entry[:4]) for entry in applications] == [(SAMPLE, started.pid, 4, 1)]
    assert raw.types(applications[0][4]) == {"Uris": "as"}
    assert services == []


def test_signals_tell_the_whole_life_on_both_buses(plain):
    monitors = [plain.monitor(), plain.system_monitor()]
    started = plain.control.start(SAMPLE)
    plain.sample()
    plain.control.update_windows(SAMPLE, active=1)
    plain.control.terminate(SAMPLE)

    for monitor in monitors:
        signals = [received for received in monitor.wait_for("Terminated")
                   if received.interface == "org.kestrix.Procwarden.Control1"]
        assert members(signals) == ["Started", "StateChanged", "StateChanged", "Terminated"]
        assert {received.signature for received in signals} == {"sa{sv}"}
        assert {received.arguments[0] for received in signals} == {SAMPLE}
        assert [raw.types(received.raw[1]) for received in signals] == [
            {"Pid": "i", "StartReason": "u", "RequestorId": "s", "Uris": "as"},
            {"State": "u"},
            {"State": "u"},
            {"Pid": "i", "ExitStatus": "i", "StopReason": "u"},
        ]
        assert [received.arguments[1] for received in signals] == [
            {"Pid": started.pid, "StartReason": 4, "RequestorId": "", "Uris": []},
            {"State": 1},
            {"State": 4},
            {"Pid": started.pid, "ExitStatus": 0, "StopReason": 5},
        ]
        assert not monitor.take()


def test_exit_status_is_the_raw_one(plain):
    plain.install_sample("org.example.Failing", arguments="--exit 7", sandbox=UNSANDBOXED)
    plain.control.reload()
    monitor = plain.monitor()
    plain.control.start("org.example.Failing")
    assert monitor.wait_for("Terminated")[-1].arguments[1]["ExitStatus"] == 7 << 8
    started = plain.control.start(SAMPLE)
    plain.sample() # its own program, not yet the service's child code, gets the signal
    os.kill(started.pid, signal.SIGSEGV)
    details = monitor.wait_for("Terminated", SAMPLE)[-1].arguments[1]
    assert details["ExitStatus"] & 0x7f == signal.SIGSEGV
    assert details["StopReason"] == 0


def test_requestor_is_the_application_that_asked(plain):
    plain.install_sample("org.example.Other", sandbox=UNSANDBOXED, main={"X-Nemo-Single-Instance": "no"})
    plain.control.reload()
    other = plain.control.start("org.example.Other")
    assert other.instance_id == f"org.example.Other.instance_{other.pid}"
    monitor = plain.monitor()
    plain.sample(other.instance_id).call_service(
        f"{SESSION_NAME} /org/kestrix/Procwarden/Control1 org.kestrix.Procwarden.Control1 Start", SAMPLE)
    # The application, not its instance.
    assert monitor.wait_for("Started", SAMPLE)[-1].arguments[1]["RequestorId"] == "org.example.Other"


# --- refusals ---


def test_second_start_is_refused_by_what_the_first_is_doing(service):
    service.permission_daemon.set_rule(SAMPLE, may_start=held())
    first = service.control.start_later(SAMPLE)
    service.permission_daemon.wait_for_held("GetAllowed", SAMPLE)
    assert start_error(service, SAMPLE) == (ERROR + "ApplicationAlreadyLaunching", "")

    service.permission_daemon.release("GetAllowed", SAMPLE, allowed())
    first.result()
    assert start_error(service, SAMPLE) == (ERROR + "ApplicationAlreadyRunning", "")


def start_error(stack, app_id):
    """Name and text of the error that a start gives; the bus sends an empty text as none at all."""
    with pytest.raises(BusError) as raised:
        stack.control.start(app_id)
    return raised.value.name, raised.value.message if raised.value.message != raised.value.name else ""


def test_start_while_it_ends_is_refused(stack):
    stack.install_sample("org.example.Stubborn", arguments="--ignore-term", sandbox=UNSANDBOXED)
    stack.start(PROCWARDEN_KILL_TIMEOUT="600000")
    stack.control.start("org.example.Stubborn")
    stack.sample("org.example.Stubborn")
    stack.control.terminate("org.example.Stubborn")
    assert start_error(stack, "org.example.Stubborn") == (ERROR + "ApplicationTerminating", "")


@pytest.mark.parametrize("app_id", [
    "org.example.Missing",
    "",
    "notes",
    "../../../etc/passwd",
    "org.example.Sample.instance_1",
    "org.example.Sample.task_sync",
    "org.example.ünï",
    "org.example." + "a" * 1_000_000,
])
def test_what_is_not_installed_cannot_be_started(service, app_id):
    assert start_error(service, app_id) == (ERROR + "HandlerNotFound", f"Cannot find application {app_id}")
    assert service.control.running() == ([], [])


@pytest.mark.parametrize("app_id", ["org.example.Sample", "", "org.example.Sample.task_sync", "x" * 100_000])
def test_what_does_not_run_cannot_be_terminated(service, app_id):
    with pytest.raises(BusError) as raised:
        service.control.terminate(app_id)
    assert raised.value.name == "org.freedesktop.DBus.Error.Failed"
    assert raised.value.message == f"Application not running: {app_id}"


def test_id_as_long_as_the_bus_allows_is_only_an_unknown_id(service):
    """Its answer names it, and must not be the message that gets the service thrown off the bus."""
    with pytest.raises(BusError, match="Failed: Application not running: xxx"):
        service.control.terminate("x" * (30 * 1024 * 1024))
    with pytest.raises(BusError, match="HandlerNotFound: Cannot find application xxx"):
        service.control.start("x" * (30 * 1024 * 1024))
    assert service.control.running() == ([], [])


def test_wrong_types_are_refused_and_harm_nothing(service):
    for member, signature, arguments in [
        ("Start", "i", (1,)),
        ("Start", "", ()),
        ("StartDebug", "ss", (SAMPLE, "x")),
        ("StartDebug", "sa{ss}", (SAMPLE, {"a": "b"})),
        ("Terminate", "as", ([SAMPLE],)),
        ("NoSuchMethod", "", ()),
    ]:
        with pytest.raises(BusError, match="Unknown|InvalidArgs"):
            raw.call(service.session_bus, SESSION_NAME, "Control1", member, *arguments, signature=signature)
    assert service.control.running() == ([], [])


def test_refusals_of_the_permission_daemon_reach_the_client(service):
    service.permission_daemon.set_rule(SAMPLE, may_start=allowed(False))
    assert start_error(service, SAMPLE) == ("org.freedesktop.DBus.Error.AccessDenied",
                                            "Application not allowed by sailjaild")
    service.permission_daemon.set_rule(SAMPLE, prompt=error("the user said no"))
    assert start_error(service, SAMPLE) == ("org.freedesktop.DBus.Error.AccessDenied", "the user said no")
    assert service.control.running() == ([], [])


def test_program_that_cannot_be_sandboxed_is_refused(service):
    service.install_sample("org.example.Script", exec_line="/bin/sh-that-is-not-there")
    service.control.reload()
    name, text = start_error(service, "org.example.Script")
    assert name == "org.freedesktop.DBus.Error.InvalidArgs"
    assert text == "/bin/sh-that-is-not-there is not executable"


# --- debug starts ---


def test_debug_start_takes_over_command_line_environment_and_output(service):
    output = os.path.join(service.user.home, "output")
    program = service.applications.install_program(SAMPLE)
    started = service.control.start_debug(
        SAMPLE, sandbox=False, stdoutFile=output,
        commandLineParams=dbus.Array([program, "--name", "org.example.Debug", "extra word"], signature="s"),
        environment=dbus.Array(["DEBUG_ME=1", "LANG=first", "LANG=second"], signature="s"))
    sample = service.sample(name="org.example.Debug")

    with open(f"/proc/{started.pid}/cmdline") as file:
        assert file.read().split("\0")[:-1] == [program, "--name", "org.example.Debug", "extra word"]
    with open(f"/proc/{started.pid}/environ") as file:
        environment = file.read().split("\0")[:-1]
    own = [f"{name}={value}" for name, value in service.environment().items()]
    assert sorted(own) == sorted(entry for entry in environment if entry in own)
    assert environment[-6:] == [f"SOLVANE_APP_ID={SAMPLE}", f"SOLVANE_APP_INSTANCE_ID={SAMPLE}",
                                f"SOLVANE_PACKAGE_NAME={SAMPLE}", "DEBUG_ME=1", "LANG=first", "LANG=second"]
    assert sample.ticks() >= 0
    with open(output) as file:
        assert "started" in file.read()
    # Standard input is closed, not the service's.
    assert not os.path.exists(f"/proc/{started.pid}/fd/0") or "pipe" not in os.readlink(f"/proc/{started.pid}/fd/0")


def test_debug_start_through_a_wrapper(service):
    started = service.control.start_debug(
        SAMPLE, sandbox=False, applicationWrapper=dbus.Array(["/usr/bin/env", "WRAPPED=yes"], signature="s"))
    sample = service.sample()
    assert started.pid == service.control.running()[0][0][1]
    assert sample.environment()["WRAPPED"] == "yes"


def test_debug_start_adds_options_of_the_sandbox(service):
    started = service.control.start_debug(SAMPLE,
                                          firejailParams=dbus.Array(["--rlimit-nofile=512"], signature="s"))
    service.sample()
    command = until(lambda: service.sandbox_command(started.pid), "the sandbox's command line")
    assert "--rlimit-nofile=512" in command


def test_output_file_that_cannot_be_opened_stops_nothing(service):
    service.control.start_debug(SAMPLE, sandbox=False, stdoutFile="/nonexistent/file")
    service.sample()
    assert 'Could not open output file "/nonexistent/file"' in service.service.log()


def test_debug_parameters_of_wrong_types_are_taken_as_absent(service):
    service.control.start_debug(SAMPLE, environment=dbus.Int32(7), stdoutFile=dbus.Array([], signature="s"),
                                firejailParams=dbus.Dictionary({}, signature="sv"), unknown="ignored",
                                sandbox=False)
    service.sample()


# --- the catalogue ---


def test_installed_application_is_found_without_a_reload(service):
    service.install_sample("org.example.New", sandbox=UNSANDBOXED)
    # The watch reports in its own time, so only a start that is tried again shows it.
    until(lambda: starts(service, "org.example.New"), "the new application")
    service.applications.remove("org.example.New")
    service.control.terminate("org.example.New")
    until(lambda: not service.control.running()[0], "its end")
    until(lambda: not starts(service, "org.example.New"), "the application's removal to be noticed")


def starts(stack, app_id):
    try:
        stack.control.start(app_id)
        return True
    except BusError as refusal:
        assert refusal.name in (ERROR + "HandlerNotFound", ERROR + "ApplicationAlreadyRunning")
        return refusal.name != ERROR + "HandlerNotFound"
