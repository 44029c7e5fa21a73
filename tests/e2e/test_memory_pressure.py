"""Applications that have subscribed hear how short the memory is, frozen ones for a moment, and nobody else does."""

import os
import threading
from signal import SIGCONT, SIGSTOP

import dbus
import dbus.lowlevel
import pytest

import raw
from stack import process
from stack.client import ACTIVE, HIDDEN
from stack.service import SESSION_NAME
from stack.waiting import until
from test_memory import OTHER, SAMPLE, THIRD, UNSANDBOXED, hide, launch, running

NAME = "org.kestrix.Procwarden.MemoryPressure1"
NORMAL, LOW, CRITICAL = 0, 100, 200


def level(stack):
    """The property, with its type."""
    signature, (value,) = raw.call(stack.session_bus, SESSION_NAME, "MemoryPressure1", "Get", NAME, "Level",
                                   signature="ss", interface="org.freedesktop.DBus.Properties")
    assert (signature, type(value)) == ("v", dbus.Int32)
    return int(value)


def set_level(stack, name, value):
    """Changes the memory and waits until the service has seen it; name is not the present level."""
    count = stack.service.log().count("Memory level: ")
    stack.memory.set_level(name)
    until(lambda: stack.service.log().count("Memory level: ") > count, "the change", detail=stack.service.log)
    assert level(stack) == value


def subscribe(stack, *app_ids):
    stack.install_sample(THIRD, sandbox=UNSANDBOXED)
    for app_id in app_ids:
        stack.install_sample(app_id, sandbox=UNSANDBOXED, arguments="--memory-pressure")


def told(monitor):
    """(receiver, level) of each change that went over the bus, all of which have to look alike."""
    result = []
    for signal in monitor.take():
        if signal.member == "PropertiesChanged":
            assert (signal.interface, signal.path) == ("org.freedesktop.DBus.Properties", "/" + NAME.replace(".", "/"))
            assert signal.signature == "sa{sv}as"
            assert signal.arguments == (NAME, {"Level": signal.arguments[1]["Level"]}, [])
            assert type(signal.raw[1]["Level"]) is dbus.Int32
            assert signal.destination
            result.append((signal.destination, signal.arguments[1]["Level"]))
    return result


def wait_for_note(stack, app_id, line, count=1):
    until(lambda: stack.sample_files.diary(app_id).count(line) == count, f"\"{line}\" in the diary of {app_id}",
          detail=lambda: str(stack.sample_files.diary(app_id)))


@pytest.fixture
def subscribed(own_memory):
    """Two that listen and one that does not, at a normal level; a critical one costs one application."""
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=1000)
    subscribe(stack, SAMPLE, OTHER)
    stack.start()
    launch(stack, SAMPLE, OTHER, THIRD)
    for app_id in (SAMPLE, OTHER):
        wait_for_note(stack, app_id, "subscribed")
    stack.service.wait_for_log("Memory level: normal")
    return stack


def test_level_at_the_start(service):
    assert level(service) == NORMAL


def test_level_is_read_only(service):
    with pytest.raises(raw.BusError):
        raw.call(service.session_bus, SESSION_NAME, "MemoryPressure1", "Set", NAME, "Level", dbus.Int32(100),
                 signature="ssv", interface="org.freedesktop.DBus.Properties")
    assert level(service) == NORMAL


def test_only_subscribers_hear_each_change_once(subscribed):
    receivers = sorted(subscribed.session_bus.owner(f"{app_id}.Main") for app_id in (SAMPLE, OTHER))
    monitor = subscribed.monitor()
    for name, value in (("low", LOW), ("normal", NORMAL), ("low", LOW)):
        set_level(subscribed, name, value)
        assert sorted(told(monitor)) == [(receiver, value) for receiver in receivers]
    for app_id in (SAMPLE, OTHER):
        wait_for_note(subscribed, app_id, f"memory 100 {NAME}", 2)
    assert not [line for line in subscribed.sample_files.diary(THIRD) if line.startswith("memory")]


def test_hidden_subscriber_may_run_for_a_moment(own_memory):
    stack = own_memory
    moment = 1500
    stack.memory.configure(NotificationUnfreezeMsec=moment)
    subscribe(stack, SAMPLE)
    stack.start()
    launch(stack, SAMPLE)
    wait_for_note(stack, SAMPLE, "subscribed")
    stack.service.wait_for_log("Memory level: normal")
    hide(stack, SAMPLE)
    frozen_at = stack.sample_files.ticks()
    monitor = stack.monitor()
    set_level(stack, "low", LOW)
    assert told(monitor) == [(stack.session_bus.owner(f"{SAMPLE}.Main"), LOW)]
    if stack.hierarchies.is_real("freezer"):
        until(lambda: stack.sample_files.ticks() > frozen_at, "ticks of the thawed application")
        wait_for_note(stack, SAMPLE, f"memory 100 {NAME}")
    # Nobody sees it: not in its state, and not in a signal.
    assert stack.control.running()[0][0][3] == HIDDEN
    until(lambda: stack.freezer_state(SAMPLE) == "FROZEN", "the end of the moment")
    assert stack.control.running()[0][0][3] == HIDDEN
    assert not [signal for signal in monitor.take() if signal.member == "StateChanged"]


def test_no_moment_is_warned_about(own_memory):
    stack = own_memory
    stack.memory.configure(NotificationUnfreezeMsec=0)
    subscribe(stack, SAMPLE)
    stack.start()
    launch(stack, SAMPLE)
    wait_for_note(stack, SAMPLE, "subscribed")
    stack.service.wait_for_log("Memory level: normal")
    hide(stack, SAMPLE)
    # The signal goes out all the same, and waits until the application runs again.
    warnings = stack.service.log().count("Notification unfreeze timeout is invalid!")
    set_level(stack, "low", LOW)
    assert stack.service.log().count("Notification unfreeze timeout is invalid!") == warnings + 1
    assert stack.freezer_state(SAMPLE) == "FROZEN"
    stack.control.update_windows(SAMPLE, active=1)
    wait_for_note(stack, SAMPLE, f"memory 100 {NAME}")


def test_hidden_subscriber_hears_nothing_when_it_is_critical(subscribed):
    # The one that never subscribed is the victim.
    victim = next(record[1] for record in subscribed.control.running()[0] if record[0] == THIRD)
    subscribed.root.set_oom_score_adj(victim, 900)
    hide(subscribed, SAMPLE)
    assert subscribed.control.update_windows(OTHER, active=1) == ACTIVE
    listener, silent = (subscribed.session_bus.owner(f"{app_id}.Main") for app_id in (OTHER, SAMPLE))
    monitor = subscribed.monitor()
    subscribed.memory.set_level("critical")
    wait_for_note(subscribed, OTHER, f"memory 200 {NAME}")
    subscribed.memory.set_level("low")
    wait_for_note(subscribed, OTHER, f"memory 100 {NAME}")
    seen = told(monitor)
    assert [value for receiver, value in seen if receiver == listener] == [CRITICAL, LOW]
    assert [value for receiver, value in seen if receiver == silent] == [LOW]


def test_victim_is_chosen_before_anybody_hears(subscribed):
    assert subscribed.control.update_windows(OTHER, active=1) == ACTIVE
    monitor = subscribed.monitor()
    subscribed.memory.set_level("critical")
    wait_for_note(subscribed, OTHER, f"memory 200 {NAME}")
    members = [signal.member for signal in monitor.take()
               if signal.member in ("SelectedByOom", "PropertiesChanged")]
    assert members[:2] == ["SelectedByOom", "PropertiesChanged"]
    subscribed.memory.set_level("normal")


def test_unknown_level_is_a_normal_one_and_both_are_told(subscribed):
    monitor = subscribed.monitor()
    subscribed.memory.remove()
    subscribed.service.wait_for_log("Could not open /proc/meminfo")
    until(lambda: subscribed.service.log().count("Memory level: normal") == 2, "the unknown level")
    assert level(subscribed) == NORMAL
    assert [value for _, value in told(monitor)] == [NORMAL, NORMAL]
    subscribed.memory.set_level("normal")
    until(lambda: subscribed.service.log().count("Memory level: normal") == 3, "the normal level")
    assert [value for _, value in told(monitor)] == [NORMAL, NORMAL]


def test_subscriber_that_left_does_no_harm(subscribed):
    left = subscribed.session_bus.owner(f"{OTHER}.Main")
    stayed = subscribed.session_bus.owner(f"{SAMPLE}.Main")
    subscribed.sample(OTHER).quit()
    until(lambda: not subscribed.session_bus.owner(f"{OTHER}.Main"), "the end of the application")
    until(lambda: OTHER not in running(subscribed), "the end of the record")
    monitor = subscribed.monitor()
    set_level(subscribed, "low", LOW)
    # What is sent to a name that nobody has any more is lost on the bus.
    assert {(stayed, LOW)} <= set(told(monitor)) <= {(stayed, LOW), (left, LOW)}

    # The application is what has subscribed: it hears again once it has a bus name again.
    subscribed.install_sample(OTHER, sandbox=UNSANDBOXED)
    subscribed.control.reload()
    launch(subscribed, OTHER)
    wait_for_note(subscribed, OTHER, "properties State=0", 2)
    back = subscribed.session_bus.owner(f"{OTHER}.Main")
    set_level(subscribed, "normal", NORMAL)
    assert sorted(told(monitor)) == sorted([(stayed, NORMAL), (back, NORMAL)])


def test_subscriber_that_never_reads_holds_nobody_up(subscribed):
    """It runs, and is no candidate for thawing; what is sent to it waits in the bus, behind a socket that is full."""
    pid = next(record[1] for record in subscribed.control.running()[0] if record[0] == SAMPLE)
    deaf = subscribed.session_bus.owner(f"{SAMPLE}.Main")
    os.kill(pid, SIGSTOP)
    try:
        until(lambda: process.state(pid) == "T", "the stop")
        connection = subscribed.session_bus.connect()
        for _ in range(32): # several times what a socket takes
            message = dbus.lowlevel.MethodCallMessage(deaf, "/", "org.example.Sample1", "Nothing")
            message.append("x" * 64 * 1024, signature="s")
            message.set_no_reply(True)
            connection.send_message(message)
        connection.flush()
        for _ in range(5):
            set_level(subscribed, "low", LOW)
            set_level(subscribed, "normal", NORMAL)
        wait_for_note(subscribed, OTHER, f"memory 100 {NAME}", 5)
        assert f"memory 100 {NAME}" not in subscribed.sample_files.diary(SAMPLE)
    finally:
        os.kill(pid, SIGCONT)
    # Nothing of it is lost, or comes in another order.
    until(lambda: subscribed.sample_files.diary(SAMPLE)[-10:] == [f"memory 100 {NAME}", f"memory 0 {NAME}"] * 5,
          "what was sent", detail=lambda: str(subscribed.sample_files.diary(SAMPLE)))
    connection.close()


def test_level_that_flaps_is_told_as_often_as_it_is_seen(own_memory):
    stack = own_memory
    stack.memory.configure(CheckIntervalMsec=20, CheckIntervalMsecLowMem=20, NotificationUnfreezeMsec=30)
    subscribe(stack, SAMPLE)
    stack.start()
    launch(stack, SAMPLE)
    wait_for_note(stack, SAMPLE, "subscribed")
    hide(stack, SAMPLE)
    stack.service.wait_for_log("Memory level: normal")
    monitor = stack.monitor()
    for number in range(60):
        seen = stack.service.log().count("Memory level: ")
        stack.memory.set_level("low" if number % 2 == 0 else "normal")
        until(lambda: stack.service.log().count("Memory level: ") > seen, "the change")
    assert [value for _, value in told(monitor)] == [LOW, NORMAL] * 30
    until(lambda: stack.freezer_state(SAMPLE) == "FROZEN", "the end of the last moment")
    assert running(stack) == {SAMPLE}


BROKEN = {
    "empty": "",
    "text": "this is not what it was\n" * 10,
    "no unit": "MemTotal: 4000000\nMemAvailable: 100\n",
    "no number": "MemTotal: many kB\nMemAvailable: few kB\n",
    "no available": "MemTotal:       4000000 kB\nMemFree:  100 kB\n",
    "too great": "MemTotal: 99999999999999999999999 kB\nMemAvailable: 99999999999999999999999 kB\n",
    "negative": "MemTotal: -5 kB\nMemAvailable: -1 kB\n",
    "one long line": "MemAvailable:" + "9" * 3_000_000,
    "binary": "\x00\x01:\x02 kB\n" * 1000,
}


@pytest.mark.parametrize("content", BROKEN.values(), ids=BROKEN.keys())
def test_broken_figures_are_no_level_and_no_harm(subscribed, content):
    set_level(subscribed, "low", LOW)
    subscribed.memory.set_content(content)
    subscribed.service.wait_for_log("Missing required fields in /proc/meminfo")
    until(lambda: level(subscribed) == NORMAL, "the unknown level")
    set_level(subscribed, "low", LOW)
    assert running(subscribed) == {SAMPLE, OTHER, THIRD}


def test_directory_in_place_of_the_figures_is_no_harm(subscribed):
    subscribed.memory.remove()
    subscribed.service.wait_for_log("Could not open /proc/meminfo")
    subscribed.root.write("proc/meminfo/file", "")
    threading.Event().wait(0.2) # some polls
    subscribed.root.remove_directory("proc/meminfo")
    set_level(subscribed, "low", LOW)
    assert running(subscribed) == {SAMPLE, OTHER, THIRD}


def test_stranger_that_subscribes_does_no_harm(subscribed):
    connection = subscribed.session_bus.connect()
    subscribed.control.call("MemoryPressure1", "Subscribe", connection=connection)
    connection.close()
    monitor = subscribed.monitor()
    set_level(subscribed, "low", LOW)
    receivers = {subscribed.session_bus.owner(f"{app_id}.Main") for app_id in (SAMPLE, OTHER)}
    # What is sent to the stranger's former name is lost on the bus.
    assert {(receiver, LOW) for receiver in receivers} <= set(told(monitor))
    assert running(subscribed) == {SAMPLE, OTHER, THIRD}
