"""Window counts drive states, states drive control groups, and the application hears of them."""

import os

import dbus
import pytest

import raw
from stack import cgroups
from stack.client import ACTIVE, HIDDEN, INACTIVE, TERMINATING, BusError
from stack.service import SESSION_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
UNSANDBOXED = {"Sandboxing": "Disabled"}


@pytest.fixture
def plain(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.control.reload()
    return service


def update(stack, app_id, *counts):
    return raw.call(stack.session_bus, SESSION_NAME, "WindowManagement1", "UpdateWindowStatus", app_id, *counts,
                    signature="siii")


def test_update_answers_with_the_new_state(plain):
    plain.control.start(SAMPLE)
    assert update(plain, SAMPLE, 1, 0, 0) == ("u", [ACTIVE])
    assert update(plain, SAMPLE, 0, 1, 1) == ("u", [INACTIVE])
    assert update(plain, SAMPLE, 0, 0, 1) == ("u", [HIDDEN])
    assert update(plain, SAMPLE, 0, 0, 0) == ("u", [TERMINATING])


@pytest.mark.parametrize("app_id", [SAMPLE, "", "org.example.Sample.task_sync", "x" * 100_000])
def test_update_of_what_does_not_run_is_refused(service, app_id):
    with pytest.raises(BusError) as raised:
        update(service, app_id, 1, 0, 0)
    assert raised.value.name == "org.freedesktop.DBus.Error.Failed"
    assert raised.value.message == f"Application not running: {app_id}"


def test_extreme_counts_are_only_numbers(plain):
    plain.control.start(SAMPLE)
    most, least = 2 ** 31 - 1, -2 ** 31
    assert update(plain, SAMPLE, most, most, most)[1] == [ACTIVE]
    assert update(plain, SAMPLE, least, least, most)[1] == [HIDDEN]
    assert update(plain, SAMPLE, least, most, least)[1] == [INACTIVE]


def test_hidden_application_is_frozen_and_goes_on_when_seen_again(plain):
    if not plain.hierarchies.is_real("freezer"):
        pytest.skip("no freezer on this machine")
    plain.control.start(SAMPLE)
    sample = plain.sample()
    plain.control.update_windows(SAMPLE, active=1)
    until(lambda: plain.sample_files.ticks() > 2, "the first ticks")

    plain.control.update_windows(SAMPLE, hidden=1)
    until(lambda: plain.freezer_state(SAMPLE) == "FROZEN", "the freezing")
    frozen_at = plain.sample_files.ticks()
    with pytest.raises(BusError, match="NoReply"):
        sample.call("Ticks", limit=0.5)
    assert plain.sample_files.ticks() == frozen_at

    plain.control.update_windows(SAMPLE, active=1)
    until(lambda: plain.freezer_state(SAMPLE) == "THAWED", "the thawing")
    until(lambda: plain.sample_files.ticks() > frozen_at, "the next tick")


def test_application_from_before_freezing_stays_awake(plain):
    plain.install_sample("org.example.Old", sandbox=UNSANDBOXED, manifest=None)
    plain.control.reload()
    plain.control.start("org.example.Old")
    assert plain.control.update_windows("org.example.Old", hidden=1) == INACTIVE
    assert plain.freezer_state("org.example.Old") == "THAWED"


def test_settings_come_after_the_delay_of_the_state(stack):
    stack.set_states(hidden=600_000)
    stack.install_sample(sandbox=UNSANDBOXED)
    stack.start()
    stack.control.start(SAMPLE)
    assert stack.control.update_windows(SAMPLE, hidden=1) == HIDDEN
    # Nothing has been written, and what is entered next is written at once.
    assert stack.control.update_windows(SAMPLE, inactive=1) == INACTIVE
    shares = os.path.join(stack.group("cpu", SAMPLE), "cpu.shares")
    until(lambda: cgroups.read(shares) == "512", "the settings of the inactive state")
    assert stack.freezer_state(SAMPLE) == "THAWED"


def test_frozen_application_is_stopped_when_it_thaws(stack):
    stack.install_sample(sandbox=UNSANDBOXED)
    stack.start(PROCWARDEN_KILL_TIMEOUT="600000")
    if not stack.hierarchies.is_real("freezer"):
        pytest.skip("no freezer on this machine")
    started = stack.control.start(SAMPLE)
    stack.sample()
    stack.control.update_windows(SAMPLE, hidden=1)
    until(lambda: stack.freezer_state(SAMPLE) == "FROZEN", "the freezing")
    monitor = stack.monitor()
    stack.control.terminate(SAMPLE)
    assert stack.control.running()[0][0][3] == TERMINATING
    assert stack.freezer_state(SAMPLE) == "FROZEN"
    # A window update thaws it, and the signals that have been waiting arrive.
    stack.control.update_windows(SAMPLE, inactive=1)
    terminated = monitor.wait_for("Terminated", SAMPLE)[-1]
    assert terminated.arguments[1]["Pid"] == started.pid
    assert terminated.arguments[1]["StopReason"] == 5


def test_last_window_closed_ends_the_application(plain):
    plain.control.start(SAMPLE)
    plain.sample()
    monitor = plain.monitor()
    plain.control.update_windows(SAMPLE, active=1)
    assert plain.control.update_windows(SAMPLE) == TERMINATING
    terminated = monitor.wait_for("Terminated", SAMPLE)[-1]
    assert terminated.arguments[1]["StopReason"] == 0
    assert terminated.arguments[1]["ExitStatus"] == 0


# --- what the application hears ---


def test_application_hears_its_own_states_and_nobody_elses(plain):
    plain.install_sample("org.example.Other", sandbox=UNSANDBOXED)
    plain.control.reload()
    plain.control.start(SAMPLE)
    plain.control.start("org.example.Other")
    plain.sample()
    plain.sample("org.example.Other")
    for app_id in (SAMPLE, "org.example.Other"):
        until(lambda: "properties State=0" in plain.sample_files.diary(app_id), "the application's first question")
    monitor = plain.monitor()
    plain.control.update_windows(SAMPLE, active=1)
    plain.control.update_windows("org.example.Other", inactive=1)
    plain.control.update_windows(SAMPLE, inactive=1)

    until(lambda: plain.sample_files.diary()[-1:] == [f"state 2 {SAMPLE}"], "the last state",
          detail=lambda: f"{plain.sample_files.diary()}; {'; '.join(map(str, monitor.signals()))}")
    assert f"state 1 {SAMPLE}" in plain.sample_files.diary()
    assert not [line for line in plain.sample_files.diary() if "Other" in line and line.startswith("state")]

    told = [received for received in monitor.take() if "Lifecycle1" in received.interface]
    owner = plain.session_bus.owner(f"{SAMPLE}.Main")
    mine = [received for received in told if received.destination == owner]
    assert [(received.member, received.signature, received.path, received.arguments) for received in mine] == [
        ("StateChanged", "su", "/org/kestrix/Procwarden/Lifecycle1", (SAMPLE, 1)),
        ("StateChanged", "su", "/org/kestrix/Procwarden/Lifecycle1", (SAMPLE, 2)),
    ]
    assert len(told) == 3


def test_application_that_never_asked_hears_nothing(plain):
    plain.install_sample("org.example.Quiet", arguments="--no-lifecycle", sandbox=UNSANDBOXED)
    plain.control.reload()
    plain.control.start("org.example.Quiet")
    plain.sample("org.example.Quiet")
    monitor = plain.monitor()
    plain.control.update_windows("org.example.Quiet", active=1)
    assert {received.interface for received in monitor.take()} == {"org.kestrix.Procwarden.Control1"}


def test_strangers_have_no_state(service):
    with pytest.raises(BusError) as raised:
        raw.call(service.session_bus, SESSION_NAME, "Lifecycle1", "GetProperties")
    assert raised.value.name == "org.kestrix.Procwarden.Error.ProcessNotHandled"
    assert raised.value.message == "Client not handled by the procwarden"


def test_properties_have_their_types_on_the_bus(plain):
    """Asked on behalf of the application: by a process that belongs to it."""
    plain.control.start_debug(SAMPLE, sandbox=False, commandLineParams=strings(
        "/usr/bin/dbus-send", f"--bus={plain.session_bus.address}", "--print-reply", f"--dest={SESSION_NAME}",
        "/org/kestrix/Procwarden/Lifecycle1", "org.kestrix.Procwarden.Lifecycle1.GetProperties"),
        stdoutFile=f"{plain.user.home}/reply")
    until(lambda: "variant" in read(f"{plain.user.home}/reply"), "the reply", detail=plain.service.log)
    assert "string \"State\"" in read(f"{plain.user.home}/reply")
    assert "variant             uint32 0" in read(f"{plain.user.home}/reply")


def strings(*words):
    return dbus.Array(words, signature="s")


def read(path):
    try:
        with open(path) as file:
            return file.read()
    except FileNotFoundError:
        return ""
