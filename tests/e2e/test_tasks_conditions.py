"""Conditions against their sources: battery, display, delay, and what keeps the device awake."""

import time

import pytest

import tasker
from stack.mocks import CHARGING, DISCHARGING, FULL, Battery, Logind, ScreenSaver
from stack.waiting import until
from tasker import SAMPLE, Invoker, task_id


def install(stack, **conditions):
    """A worker for each name, with these conditions."""
    tasker.install(stack, **{name: tasker.task(stack, conditions=wanted) for name, wanted in conditions.items()})


def settle(stack, battery=None):
    """Returns when the service has heard all that was said to it up to now."""
    if battery:
        battery.ping()
    stack.control.running()
    stack.system_control.running()


def waits(stack, name, battery=None):
    """Starts the task of that name; whether it waits once the service knows all that it asks for."""
    tasker.start(stack, name)
    settle(stack, battery)
    return not tasker.is_running(stack, name)


def became(stack, condition, value, times=1):
    text = f'Condition "{condition}" became {value}'
    until(lambda: stack.service.log().count(text) >= times, text, detail=stack.service.log)


# --- battery ---

@pytest.mark.parametrize("level, state, enough, charges", [
    (19, DISCHARGING, False, False), (20, DISCHARGING, True, False), (5, CHARGING, True, True),
    (100, FULL, True, True), (100, DISCHARGING, True, False), (0, DISCHARGING, False, False),
    (99, CHARGING, True, True),
])
def test_battery_at_the_start(service, level, state, enough, charges):
    install(service, enough=["battery-not-low"], charges=["charging"])
    with Battery(service, level, state) as battery:
        for name, holds in (("enough", enough), ("charges", charges)):
            if holds:
                tasker.start(service, name)
                tasker.wait_running(service, name)
            else:
                assert waits(service, name, battery)


def test_battery_that_changes(service):
    install(service, enough=["battery-not-low"], charges=["charging"])
    with Battery(service, 10) as battery:
        tasker.start(service, "enough")
        tasker.start(service, "charges")
        battery.set(19)
        settle(service, battery)
        assert tasker.services(service) == {}
        battery.set(20)
        tasker.wait_running(service, "enough")
        assert not tasker.is_running(service, "charges")
        battery.set(20, CHARGING)
        tasker.wait_running(service, "charges")
        # A task that runs is not stopped when its condition goes.
        battery.set(3, DISCHARGING)
        became(service, "battery", "false", times=2)
        assert tasker.is_running(service, "enough") and tasker.is_running(service, "charges")


def test_battery_that_appears_and_goes(service):
    tasker.install(service, often=tasker.task(service, "periodic", conditions=["battery-not-low"]))
    with Battery(service) as battery:
        assert waits(service, "often", battery)
        battery.set(80)
        tasker.wait_running(service, "often")
        tasker.stop(service, "often")
        tasker.wait_ended(service, "often")
        battery.remove()
        settle(service, battery)
        assert waits(service, "often", battery)


def test_no_battery_daemon_at_all(service):
    install(service, enough=["battery-not-low"])
    assert waits(service, "enough")
    tasker.stop(service, "enough")


# --- display ---

def test_task_for_idle_times_waits_for_the_display_to_go_off(service):
    install(service, idle=["idle"])
    with ScreenSaver(service) as screen_saver:
        assert waits(service, "idle")
        screen_saver.set(True)
        tasker.wait_running(service, "idle")
        with open(service.group("cpu", SAMPLE, "task_idle") + "/cpu.shares") as file:
            assert file.read().strip() == "64"
        screen_saver.set(False)
        became(service, "idle", "false")
        assert tasker.is_running(service, "idle")


def test_display_that_is_off_from_the_start(service):
    install(service, idle=["idle"])
    with ScreenSaver(service, active=True):
        tasker.start(service, "idle")
        tasker.wait_running(service, "idle")


def test_screen_saver_that_goes_and_comes(service):
    install(service, idle=["idle"])
    tasker.start(service, "idle")
    with ScreenSaver(service):
        pass
    assert not tasker.is_running(service, "idle")
    with ScreenSaver(service, active=True):
        tasker.wait_running(service, "idle")


def test_idle_takes_its_share_over_that_of_the_hints(service):
    install(service, idle=["idle:sometimes"])
    settings = tasker.dbus.Dictionary({"cpu.shares": tasker.dbus.ByteArray(b"500")}, signature="say")
    with ScreenSaver(service, active=True):
        Invoker(service).start("idle", CGroups=settings)
        tasker.wait_running(service, "idle")
        with open(service.group("cpu", SAMPLE, "task_idle") + "/cpu.shares") as file:
            assert file.read().strip() == "64"


# --- several at once ---

def test_all_conditions_have_to_hold(service):
    install(service, both=["idle", "charging"])
    with Battery(service, 50) as battery, ScreenSaver(service) as screen_saver:
        tasker.start(service, "both")
        screen_saver.set(True)
        became(service, "idle", "true")
        assert not tasker.is_running(service, "both")
        screen_saver.set(False)
        became(service, "idle", "false")
        battery.set(50, CHARGING)
        became(service, "battery", "true")
        assert not tasker.is_running(service, "both")
        screen_saver.set(True)
        tasker.wait_running(service, "both")


def test_conditions_of_the_hint_are_added_to_the_declared_ones(service):
    install(service, work=["charging"])
    with Battery(service, 50, CHARGING), ScreenSaver(service) as screen_saver:
        assert Invoker(service).start(Conditions=tasker.dbus.Array(["idle"], signature="s")) == 0
        settle(service)
        assert not tasker.is_running(service)
        screen_saver.set(True)
        tasker.wait_running(service)


def test_condition_that_flaps_starts_one_process(service):
    install(service, work=["charging"])
    with Battery(service, 50) as battery:
        tasker.start(service)
        for _ in range(100):
            battery.set(50, CHARGING)
            battery.set(50, DISCHARGING)
        battery.set(50, CHARGING)
        tasker.wait_running(service)
        assert list(tasker.services(service)) == [task_id("work")]
        assert service.service.log().count("Started task") == 1


# --- names and parameters ---

@pytest.mark.parametrize("conditions, warning", [
    (["battery"], 'Unsupported condition "battery"'), ([""], None), (["Idle"], 'Unsupported condition "Idle"'),
    (["internet-"], 'Unsupported condition "internet-"'), (["a:b:c"], 'Unsupported condition "a"'),
    ([":idle"], 'Unsupported condition ""'), (["x" * 10_000], 'Unsupported condition "xxx'),
    (["no"] * 500, 'Unsupported condition "no"'),
])
def test_unknown_condition_is_no_restriction(service, conditions, warning):
    install(service, work=conditions)
    tasker.start(service)
    tasker.wait_running(service)
    if warning:
        assert warning in service.service.log()


def test_unknown_kind_of_connection_is_warned_of(service):
    install(service, work=["internet:bluetooth"])
    tasker.start(service)
    service.service.wait_for_log('Unknown connection type "bluetooth"')


@pytest.mark.parametrize("condition", ["internet:cellular", "internet:wifi"])
def test_connection_that_this_machine_does_not_have(service, condition):
    install(service, work=[condition])
    assert waits(service, "work")
    assert "Unknown connection type" not in service.service.log()


# --- time ---

def test_worker_waits_for_its_delay(service):
    install(service, work=[])
    begin = time.monotonic()
    tasker.start(service, "work", StartDelay=2)
    tasker.wait_running(service, "work")
    # A timer of whole seconds may be half a second early.
    assert time.monotonic() - begin >= 1.4


def test_periodic_task_runs_at_once_and_waits_then(service):
    tasker.install(service)
    invoker = Invoker(service)
    assert invoker.start("often", params=["--exit", "0"], Interval=900) > 0
    tasker.wait_ended(service, "often")
    assert 'Condition "Interval" became false' in service.service.log()
    # A new request starts anew.
    assert invoker.start("often", Interval=900) > 0


# --- keeping awake ---

@pytest.mark.parametrize("name, awake", [("work", True), ("often", True), ("first", False), ("odd", False)])
def test_device_stays_awake_while_it_runs(stack, name, awake):
    with Logind(stack) as logind:
        tasker.install(stack)
        stack.start()
        tasker.start(stack, name)
        tasker.wait_running(stack, name)
        if awake:
            until(lambda: len(logind.inhibitors()) == 1, "the inhibitor")
            (what, _, _, mode), = logind.inhibitors()
            assert (what, mode) == ("sleep", "block") or "sleep" in what
        else:
            tasker.start(stack, "work")
            until(lambda: len(logind.inhibitors()) == 1, "the inhibitor of the other")
            tasker.stop(stack, "work")
        tasker.stop(stack, name)
        until(lambda: logind.inhibitors() == [], "the end of it")


def test_task_that_waits_keeps_nothing_awake(stack):
    with Logind(stack) as logind:
        tasker.install(stack)
        stack.start()
        tasker.start(stack, StartDelay=100_000)
        assert Invoker(stack).active() == {}
        assert logind.inhibitors() == []
