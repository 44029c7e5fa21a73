"""When memory runs short: who is killed, in which order, and what is told about it."""

import contextlib
import os
import re
import time

import dbus
import pytest

from stack.client import ACTIVE, HIDDEN, INACTIVE, BusError
from stack.memory import ENOUGH_MB, MEGABYTE, Hog, NoRoom, Others, available_kb, has_zram
from stack.process import descendants, is_running
from stack.waiting import until
from test_service import context_switches, rests

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
THIRD = "org.example.Third"
UNSANDBOXED = {"Sandboxing": "Disabled"}
OOM_KILLED = 6

KILL = re.compile(r'^Early OOM: killing "?([\w.]+)"?, pid (\d+) \((all of it|one process of it)\): memory is (\w+), '
                  r"(\d+) kB of (\d+) kB available; oom_score_adj (-?\d+), oom_score (-?\d+), (?:chosen by )?(.+)$",
                  re.MULTILINE)


def install(stack, *app_ids, **options):
    for app_id in app_ids:
        stack.install_sample(app_id, sandbox=UNSANDBOXED, **options)


def launch(stack, *app_ids):
    """Starts them and returns their pids, once each has asked all that it asks at its start."""
    pids = []
    for app_id in app_ids:
        pids.append(stack.control.start(app_id).pid)
        stack.sample(app_id)
        until(lambda: "properties State=0" in stack.sample_files.diary(app_id), "the application's first question")
    return pids


def hide(stack, app_id):
    assert stack.control.update_windows(app_id, active=1) == ACTIVE
    assert stack.control.update_windows(app_id, hidden=1) == HIDDEN
    until(lambda: stack.freezer_state(app_id) == "FROZEN", "the freezing")
    # Who was hidden first is told by the clock's milliseconds.
    hidden_at = time.time()
    until(lambda: time.time() > hidden_at + 0.002, "the next millisecond")


def kills(stack):
    """What the log says of each kill, in order."""
    return KILL.findall(stack.service.log())


def last_level(stack):
    """The one that the service has seen last, "" before the first."""
    return (re.findall(r"^Memory level: (\w+)", stack.service.log(), re.MULTILINE) or [""])[-1]


def running(stack):
    return {record[0] for record in stack.control.running()[0]}


# --- who is killed ---


@pytest.fixture
def three(own_memory):
    """One active and two hidden ones, at a normal level; a critical one costs exactly one of them."""
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=stack.memory.NEVER_MS)
    install(stack, SAMPLE, OTHER, THIRD)
    stack.start()
    launch(stack, SAMPLE, OTHER, THIRD)
    hide(stack, SAMPLE)
    hide(stack, OTHER)
    assert stack.control.update_windows(THIRD, active=1) == ACTIVE
    stack.service.wait_for_log("Memory level: normal")
    return stack


def test_longest_hidden_dies_first_and_both_buses_hear(three):
    pid = next(record[1] for record in three.control.running()[0] if record[0] == SAMPLE)
    monitors = three.monitor(), three.system_monitor()
    three.memory.set_level("critical")
    for monitor in monitors:
        seen = [signal for signal in monitor.wait_for("Terminated", SAMPLE) if signal.interface.endswith("Control1")]
        assert [(signal.member, signal.arguments[0]) for signal in seen if signal.member != "StateChanged"] == [
            ("SelectedByOom", SAMPLE), ("Terminated", SAMPLE)]
        selected, terminated = seen[0], seen[-1]
        assert (selected.signature, selected.path) == ("s", "/org/kestrix/Procwarden/Control1")
        assert type(selected.raw[0]) is dbus.String
        assert (terminated.signature, terminated.path) == ("sa{sv}", "/org/kestrix/Procwarden/Control1")
        assert terminated.arguments[1]["StopReason"] == OOM_KILLED
        assert terminated.arguments[1]["Pid"] == pid
        # It was frozen: without thawing, SIGKILL would be waiting still.
        assert os.WTERMSIG(terminated.arguments[1]["ExitStatus"]) == 9
    assert running(three) == {OTHER, THIRD}
    assert three.freezer_state(OTHER) == "FROZEN"


def test_kill_is_told_in_one_line(three):
    pid = next(record[1] for record in three.control.running()[0] if record[0] == SAMPLE)
    monitor = three.monitor()
    three.memory.set_level("critical")
    monitor.wait_for("Terminated", SAMPLE)
    (told,) = kills(three)
    application, victim, what, level, available, total, adjustment, _, rule = told
    assert (application, victim, what, level) == (SAMPLE, str(pid), "all of it", "Critical")
    assert (int(available), int(total)) == (three.memory.LEVELS["critical"], three.memory.TOTAL_KB)
    assert (adjustment, rule) == ("-100", "least recently active")


def test_greater_adjustment_dies_before_all_others(three):
    pid = next(record[1] for record in three.control.running()[0] if record[0] == THIRD)
    three.root.set_oom_score_adj(pid, 300)
    monitor = three.monitor()
    three.memory.set_level("critical")
    monitor.wait_for("SelectedByOom", THIRD)
    monitor.wait_for("Terminated", THIRD)
    assert [(told[0], told[-1]) for told in kills(three)] == [(THIRD, "oom_score_adj")]


def test_active_one_dies_last(own_memory):
    stack = own_memory
    stack.memory.configure()
    install(stack, SAMPLE, OTHER, THIRD)
    stack.start()
    launch(stack, SAMPLE, OTHER, THIRD)
    stack.control.update_windows(SAMPLE, active=1)
    hide(stack, OTHER)
    hide(stack, THIRD)
    monitor = stack.monitor()
    stack.memory.set_level("critical")
    monitor.wait_for("Terminated", SAMPLE)
    order = list(dict.fromkeys(told[0] for told in kills(stack)))
    assert order == [OTHER, THIRD, SAMPLE]
    # The level is critical still, so it goes on looking, and has nobody left.
    stack.service.wait_for_log("No candidates for killing, early OOM aborted.")
    stack.memory.set_level("normal")
    until(lambda: last_level(stack) == "normal", "the normal level", detail=stack.service.log)


def test_level_that_recovers_spares_the_rest(own_memory):
    """Poll and next kill are due at the same moment: how often one more falls is shown, and at most one may."""
    stack = own_memory
    interval = 400
    stack.memory.configure(CheckIntervalMsecCriticalMem=interval)
    apps = [f"org.example.Spare{number}" for number in range(4)]
    for app_id in apps:
        stack.install_sample(app_id, exec_line="/bin/sleep 6000", sandbox=UNSANDBOXED)
    stack.start()
    monitor = stack.monitor()
    rounds, second = 8, 0
    for _ in range(rounds):
        for app_id in set(apps) - running(stack):
            stack.control.start(app_id)
        stack.service.wait_for_log("Memory level: normal")
        before = len(kills(stack))
        normal = stack.service.log().count("Memory level: normal")
        monitor.take()
        stack.memory.set_level("critical")
        begin = time.monotonic()
        monitor.wait_for("SelectedByOom")
        stack.memory.set_level("normal")
        # Kills that are due while this side is still about to restore the level; none unless it is slow.
        due = int((time.monotonic() - begin) * 1000 / interval + 0.1)
        until(lambda: stack.service.log().count("Memory level: normal") > normal, "the end of the shortage")
        # One that has not died by the next pass is killed once more.
        fallen = len({told[0] for told in kills(stack)[before:]})
        assert 1 <= fallen <= 2 + due
        second += fallen > 1
        until(lambda: len(running(stack)) == len(apps) - fallen, "the end of the victims")
    print(f"a second victim before the recovery was seen: {second} of {rounds} rounds, interval {interval} ms")


def test_sandboxed_victim_dies_with_all_of_its_processes(own_memory):
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=stack.memory.NEVER_MS)
    stack.install_sample()
    stack.start()
    (leader,) = launch(stack, SAMPLE)
    hide(stack, SAMPLE)
    family = {leader} | descendants(leader)
    assert len(family) > 1
    monitor = stack.monitor()
    stack.memory.set_level("critical")
    details = monitor.wait_for("Terminated", SAMPLE)[-1].arguments[1]
    assert (details["Pid"], details["StopReason"]) == (leader, OOM_KILLED)
    until(lambda: not any(is_running(pid) for pid in family), "the end of all of its processes",
          detail=lambda: str([pid for pid in family if is_running(pid)]))


# --- one process of an application ---


def spawn_children(stack, app_id, *adjustments):
    """Children of an application, each with the adjustment that it has given itself."""
    if not stack.hierarchies.is_real("memory"):
        pytest.skip("no control groups to find the children in")
    sample = stack.sample(app_id)
    children = []
    for adjustment in adjustments:
        children.append(sample.call("SpawnChild", "b", False))
        stack.root.set_oom_score_adj(children[-1], adjustment)
    return children


@pytest.fixture
def family(own_memory):
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=stack.memory.NEVER_MS)
    install(stack, SAMPLE, OTHER)
    stack.start()
    return stack


def test_volunteering_child_dies_alone(family):
    launch(family, SAMPLE, OTHER)
    modest, volunteer = spawn_children(family, SAMPLE, 100, 500)
    hide(family, SAMPLE)
    family.control.update_windows(OTHER, active=1)
    family.service.wait_for_log("Memory level: normal")
    monitor = family.monitor()
    family.memory.set_level("critical")
    until(lambda: not is_running(volunteer), "the end of the volunteer")
    # It had to be thawed for that, and is no longer hidden.
    assert family.control.running()[0][1][0] == SAMPLE
    until(lambda: family.control.running()[0][1][3] == INACTIVE, "the state")
    assert is_running(modest)
    assert [(told[0], int(told[1]), told[2]) for told in kills(family)] == [(SAMPLE, volunteer, "one process of it")]
    assert not [signal for signal in monitor.take() if signal.member in ("SelectedByOom", "Terminated")]

    # Nothing of it sticks: an end of its own is an ordinary one.
    family.sample(SAMPLE).quit()
    details = monitor.wait_for("Terminated", SAMPLE)[-1].arguments[1]
    assert (details["StopReason"], details["ExitStatus"]) == (0, 0)


def test_sixth_selection_takes_the_whole_application(own_memory):
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=300)
    install(stack, SAMPLE)
    stack.start()
    (leader,) = launch(stack, SAMPLE)
    children = spawn_children(stack, SAMPLE, 700, 600, 500, 400, 300, 200, 100)
    stack.control.update_windows(SAMPLE, active=1)
    monitor = stack.monitor()
    stack.memory.set_level("critical")
    seen = monitor.wait_for("Terminated", SAMPLE)
    assert seen[-1].arguments[1]["StopReason"] == OOM_KILLED
    assert [signal.member for signal in seen].count("SelectedByOom") >= 1
    told = kills(stack)[:6]
    assert [line[2] for line in told] == ["one process of it"] * 5 + ["all of it"]
    assert int(told[-1][1]) == leader
    # One that has not died by the next pass is selected once more, which counts as well.
    victims = list(dict.fromkeys(int(line[1]) for line in told[:5]))
    assert victims == children[:len(victims)]
    assert "Already killed 5 subprocesses, giving up!" in stack.service.log()
    until(lambda: not any(is_running(child) for child in children), "the end of all of its processes")


def test_count_of_killed_processes_ends_with_the_shortage(own_memory):
    """Each shortage costs one or two of the children: more in all than one of them could."""
    stack = own_memory
    stack.memory.configure(CheckIntervalMsecCriticalMem=1000) # five passes take longer than anything done here
    install(stack, SAMPLE)
    stack.start()
    launch(stack, SAMPLE)
    stack.control.update_windows(SAMPLE, active=1)
    monitor = stack.monitor()
    for shortage in range(1, 7):
        first, *_ = spawn_children(stack, SAMPLE, 600 + shortage, 500, 400)
        stack.memory.set_level("critical")
        until(lambda: not is_running(first), "the end of the first child")
        stack.memory.set_level("low")
        until(lambda: stack.service.log().count("Memory level: low") == shortage, "the low level")
    assert len(kills(stack)) > 5
    assert not [signal for signal in monitor.take() if signal.member in ("SelectedByOom", "Terminated")]


# --- many, none ---


def test_fifty_records_fall_one_by_one(own_memory):
    stack = own_memory
    stack.memory.configure()
    stack.install_sample("org.example.Many", exec_line="/bin/sleep 6000", sandbox=UNSANDBOXED,
                         main={"X-Nemo-Single-Instance": "no"})
    stack.start()
    pids = {stack.control.start("org.example.Many").pid for _ in range(50)}
    stack.service.wait_for_log("Memory level: normal")
    monitor = stack.monitor()
    stack.memory.set_level("critical")
    until(lambda: not running(stack), "the end of all")
    told = kills(stack)
    # One that has not died by the next pass is killed once more.
    assert {int(line[1]) for line in told} == pids
    signals = monitor.take()
    ended = [signal for signal in signals if signal.member == "Terminated"]
    assert len(ended) == 50 and {signal.arguments[1]["StopReason"] for signal in ended} == {OOM_KILLED}
    assert [signal.member for signal in signals].count("SelectedByOom") == len(told)


def test_nothing_is_polled_without_a_record(own_memory):
    stack = own_memory
    stack.memory.configure()
    install(stack, SAMPLE)
    stack.start()
    stack.control.start(SAMPLE)
    sample = stack.sample()
    stack.service.wait_for_log("Memory level: normal")
    pid = stack.service.pid
    before = context_switches(pid)
    until(lambda: context_switches(pid) > before + 10, "the polls while something runs")
    monitor = stack.monitor()
    sample.quit()
    monitor.wait_for("Terminated", SAMPLE)
    stack.control.running() # the last thing that it has to do
    rests(pid, 2) # as long as forty polls


def test_usual_pace_is_slow(own_memory):
    """Without a configuration: nothing in the first seconds, and no level but the normal one."""
    stack = own_memory
    stack.memory.set_available(0)
    install(stack, SAMPLE)
    stack.start()
    begin = time.monotonic()
    launch(stack, SAMPLE)
    stack.service.wait_for_log("Memory level: normal")
    assert time.monotonic() - begin >= 5 * 0.94 # the service's timers are coarse: up to a twentieth too early
    assert running(stack) == {SAMPLE}


# --- the kernel's own figures ---


MARGIN_MB = 400 # to be taken before it gets critical
HELD_MB = 600 # by the application that is to fall


@contextlib.contextmanager
def real_shortage():
    """A program to take memory with, and who watches the others: what they took or gave back may be why it did not
    work out."""
    if available_kb() < ENOUGH_MB * MEGABYTE:
        pytest.skip(f"less than {ENOUGH_MB} MB of memory are available on this machine")
    if has_zram():
        pytest.skip("what is available on this machine is not a number that two agree about")
    with Hog(limit_mb=1200) as hog, Others(hog.pid) as others:
        try:
            yield hog, others
        except NoRoom as error:
            pytest.skip(str(error))
        except (AssertionError, BusError):
            if others.disturbed(MARGIN_MB // 2):
                pytest.skip(others.disturbed(MARGIN_MB // 2))
            raise


def test_memory_that_really_runs_short(stack):
    """A program takes memory until the level falls; the hidden application's end gives it back."""
    with real_shortage() as (hog, others):
        # What these will have taken is not there any more when the thresholds count.
        critical_mb = available_kb() // MEGABYTE - HELD_MB - 50 - MARGIN_MB
        install(stack, SAMPLE, arguments=f"--hold {HELD_MB}")
        install(stack, OTHER, THIRD)
        stack.memory.configure(CheckIntervalMsecCriticalMem=1000, LowMemoryTermMB=critical_mb + 100,
                               MinMemoryTermMB=critical_mb)
        stack.start()
        others.add(stack.service.pid)
        launch(stack, OTHER, SAMPLE, THIRD)
        hide(stack, SAMPLE)
        hide(stack, THIRD)
        assert stack.control.update_windows(OTHER, active=1) == ACTIVE
        stack.service.wait_for_log("Memory level: ")
        monitor = stack.monitor()
        assert not kills(stack)
        assert hog.take_until(lambda: "Memory level: critical" in stack.service.log())
        check_right_victim(stack, monitor, critical_mb)


def check_right_victim(stack, monitor, critical_mb):
    assert monitor.wait_for("SelectedByOom")[-1].arguments == (SAMPLE,)
    details = monitor.wait_for("Terminated", SAMPLE)[-1].arguments[1]
    assert details["StopReason"] == OOM_KILLED
    assert os.WTERMSIG(details["ExitStatus"]) == 9
    first = kills(stack)[0]
    assert first[0] == SAMPLE and int(first[4]) < critical_mb * MEGABYTE
    until(lambda: last_level(stack) != "critical", "the recovery")
    # One more may have fallen before the recovery could be seen, and that is the other hidden one.
    assert OTHER in running(stack)
    assert {told[0] for told in kills(stack)} <= {SAMPLE, THIRD}
