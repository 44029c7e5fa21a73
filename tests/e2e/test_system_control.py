"""What the package manager and other system services do: block launches, wait for an end, stop everything."""

import dbus.lowlevel
import pytest

import raw
from stack.client import BusError
from stack.service import SYSTEM_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
BLOCKED = "org.kestrix.Procwarden.Error.ApplicationBlocked"


@pytest.fixture
def many(service):
    """The service with an application that may run any number of times."""
    # Sample applications would all want the same bus name, and only one of them stay.
    service.install_sample("org.example.Many", exec_line="/bin/sleep 600", sandbox={"Sandboxing": "Disabled"},
                           main={"X-Nemo-Single-Instance": "no"})
    service.install_sample(sandbox={"Sandboxing": "Disabled"})
    service.control.reload()
    return service


def test_replies_are_empty(service):
    for member in ("PreventLaunch", "AllowLaunch", "WaitForNotRunning", "Terminate"):
        reply = raw.call(service.system_bus, SYSTEM_NAME, "SystemControl1", member, SAMPLE, signature="s")
        assert reply == ("", []), member


def test_blocked_application_does_not_start_until_it_is_allowed(service):
    service.system_control.prevent_launch(SAMPLE)
    service.system_control.prevent_launch(SAMPLE)
    with pytest.raises(BusError) as raised:
        service.control.start(SAMPLE)
    assert raised.value.name == BLOCKED
    service.system_control.allow_launch("org.example.Other")
    with pytest.raises(BusError, match=BLOCKED):
        service.control.start(SAMPLE)
    service.system_control.allow_launch(SAMPLE)
    assert service.control.start(SAMPLE).instance_id == SAMPLE


def test_block_leaves_what_runs_alone(many):
    many.control.start(SAMPLE)
    sample = many.sample()
    many.system_control.prevent_launch(SAMPLE)
    assert sample.ticks() >= 0
    assert [entry[0] for entry in many.control.running()[0]] == [SAMPLE]


def test_waiting_for_what_does_not_run_ends_at_once(service):
    service.system_control.wait_for_not_running(SAMPLE).result()
    service.system_control.wait_for_not_running("").result()


def test_waiting_ends_with_the_last_instance(many):
    ids = [many.control.start("org.example.Many").instance_id for _ in range(2)]
    waiting = many.system_control.wait_for_not_running("org.example.Many")
    again = many.system_control.wait_for_not_running("org.example.Many")
    many.control.terminate(ids[0])
    until(lambda: len(many.control.running()[0]) == 1, "the end of the first")
    assert not waiting.done
    many.control.terminate(ids[1])
    waiting.result()
    again.result()
    assert many.control.running()[0] == []


def test_waiting_covers_all_ids_that_begin_alike(many):
    many.control.start(SAMPLE)
    # An empty id is the beginning of every id, and nobody's own: nothing ends this wait.
    everything = many.system_control.wait_for_not_running("")
    beginning = many.system_control.wait_for_not_running("org.example.Sam")
    exact = many.system_control.wait_for_not_running(SAMPLE)
    many.control.terminate(SAMPLE)
    exact.result()
    assert many.control.running()[0] == []
    assert not everything.done
    assert not beginning.done


def test_terminate_stops_all_ids_that_begin_alike(many):
    for _ in range(3):
        many.control.start("org.example.Many")
    many.control.start(SAMPLE)
    monitor = many.monitor()
    many.system_control.terminate_all("org.example.Many")
    for _ in range(3):
        assert monitor.wait_for("Terminated")[-1].arguments[1]["StopReason"] == 5
    assert [entry[0] for entry in many.control.running()[0]] == [SAMPLE]
    many.system_control.terminate_all("")
    monitor.wait_for("Terminated", SAMPLE)


def test_caller_that_left_while_it_waited_is_no_trouble(many):
    many.control.start(SAMPLE)
    connection = many.system_bus.connect()
    connection.send_message(wait_message(SAMPLE))
    connection.flush()
    connection.close()
    many.control.terminate(SAMPLE)
    many.system_control.wait_for_not_running(SAMPLE).result()
    assert many.control.start(SAMPLE).instance_id == SAMPLE


def wait_message(app_id):
    message = dbus.lowlevel.MethodCallMessage(SYSTEM_NAME, "/org/kestrix/Procwarden/SystemControl1",
                                              "org.kestrix.Procwarden.SystemControl1", "WaitForNotRunning")
    message.append(app_id, signature="s")
    return message
