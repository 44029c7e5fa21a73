"""procwardenctl top: the full screen on a terminal, and plain tables everywhere else."""

import json
import os
import re
import signal

import pytest

import ctl
import tasker
from screen import (DELETE, DOWN, END, ESCAPE, GO_ON, HOLD, HOME, INTERRUPT, PAGE_DOWN, PAGE_UP, QUIT, SUSPEND, UP,
                    Screen)
from stack.process import descendants, is_running, state
from stack.waiting import LIMIT, until

SAMPLE, OTHER = "org.example.Sample", "org.example.Other"


@pytest.fixture
def pair(service):
    """Two applications that run, one of them with a window."""
    ctl.start_pair(service, SAMPLE, OTHER)
    return service


@pytest.fixture
def screens():
    """screens(stack, words...) runs top until the end of the test."""
    opened = []

    def watch(stack, *words, **more):
        opened.append(Screen(stack, "top", *words, **more))
        return opened[-1]

    yield watch
    for screen in opened:
        screen.close()


@pytest.fixture
def both(pair, screens):
    """both(words...) shows the two of pair."""
    def show(*words, **more):
        screen = screens(pair, *words, **more)
        screen.wait_for("2 run")
        return screen
    return show


def running(stack):
    return sorted(application[0] for application in stack.control.running()[0])


def freeze(stack, app_id):
    stack.control.update_windows(app_id, hidden=1)


def test_rows_tell_what_runs(pair, both, screens):
    screen = screens(pair)
    screen.wait_for("2 run, 0 frozen", "by memory", "Memory normal", "q quit  h help")
    screen.until(lambda: "ID STATE FROZEN CPU% CPU MEMORY OOM PID SINCE" in [
        " ".join(row.split()) for row in screen.rows], "the titles")
    told = {process["Id"]: process for process in ctl.run_json_of_all(pair, 2)}
    # The second look has a share of the processor, too.
    screen.until(lambda: len(screen.row(OTHER)) > 11, "a share of the processor")
    screen.until(lambda: screen.row(OTHER)[:3] == [OTHER, "active", "no"], "its state")
    screen.until(lambda: str(told[OTHER]["Pid"]) in screen.row(OTHER), "its process id")
    screen.until(lambda: screen.row(SAMPLE)[1:2] == ["launched"], "the other's state")
    screen.until(lambda: screen.colour(" active") == "green", "its colour")
    # What comes and goes is seen at once, not at the next look.
    slow = both("-d", "3600")
    pair.control.update_windows(SAMPLE, inactive=1)
    slow.until(lambda: slow.row(SAMPLE)[1:2] == ["inactive"], "the change of the state")
    pair.control.terminate(SAMPLE)
    slow.wait_for("1 run")
    slow.until(lambda: slow.ids() == [OTHER], "the other's row alone")


def test_keys_sort_and_select(both):
    screen = both()
    for key, word in (("i", "id"), ("c", "cpu"), ("s", "state"), ("o", "oom"), ("m", "memory"), ("i", "id")):
        screen.press(key)
        screen.wait_for(f"by {word} ")
    screen.until(lambda: screen.ids() == [OTHER, SAMPLE], "the order of the ids")
    screen.press("r")
    screen.wait_for("by id, reversed")
    screen.until(lambda: screen.ids() == [SAMPLE, OTHER], "the other order")
    screen.press("r")
    screen.until(lambda: screen.ids() == [OTHER, SAMPLE], "the order of the ids")

    def chosen():
        return next((i for i, line in enumerate(screen.rows) if line.startswith(">") and screen.is_reversed(i)), None)

    def chooses(app_id):
        screen.until(lambda: chosen() is not None and app_id in screen.rows[chosen()], f"{app_id} selected")

    for key, expected in ((HOME, OTHER), (DOWN, SAMPLE), (DOWN, SAMPLE), (UP, OTHER), ("j", SAMPLE), ("k", OTHER),
                          ("G", SAMPLE), ("g", OTHER), (END, SAMPLE), (PAGE_UP, OTHER), (PAGE_DOWN, SAMPLE)):
        screen.press(key)
        chooses(expected)
    # It stays with the row, wherever that goes.
    screen.press("r")
    screen.until(lambda: screen.ids() == [SAMPLE, OTHER], "the other order")
    chooses(SAMPLE)
    screen.press("h")
    screen.wait_for("sort by memory, processor, state", "watch the freezing of all")
    screen.press("h")
    screen.wait_without("watch the freezing of all")
    screen.press("?")
    screen.wait_for("watch the freezing of all")
    screen.press(ESCAPE)
    screen.wait_without("watch the freezing of all")
    screen.press("q")
    assert screen.end() == ctl.DONE and screen.is_restored()


def asked_to_stop(both):
    """A screen that asks whether the other one is to be stopped."""
    screen = both("--sort", "id")
    screen.press(HOME, "x")
    screen.wait_for(f"Stop {OTHER} (pid ", "(y/n)")
    return screen


def test_stop_asks_first(pair, both):
    screen = asked_to_stop(both)
    screen.press("z") # neither
    screen.press("n")
    screen.wait_without("(y/n)")
    screen.press(DELETE)
    screen.wait_for(f"Stop {OTHER} (pid ")
    screen.press(ESCAPE)
    screen.wait_without("(y/n)")
    assert running(pair) == [OTHER, SAMPLE]
    screen.press("x", "y")
    screen.wait_for(f"{OTHER} is told to end", "1 run")
    assert ctl.run_json(pair, "history", OTHER)[0]["Decision"] == "requested"
    screen.until(lambda: screen.ids() == [SAMPLE], "the other's row alone")


def test_stop_of_a_frozen_one_and_of_a_task(service, screens):
    tasker.install(service)
    ctl.run(service, "task", "start", tasker.task_id("work"))
    screen = screens(service)
    screen.wait_for(tasker.task_id("work"), "1 run")
    screen.press("x")
    screen.wait_for(f"Stop {tasker.task_id('work')}")
    screen.press("y")
    screen.wait_for("0 run")
    service.control.start(SAMPLE)
    service.sample(SAMPLE)
    freeze(service, SAMPLE)
    screen.wait_for("1 run, 1 frozen")
    screen.press("x")
    screen.wait_for(f"Stop {SAMPLE}")
    screen.press("y")
    screen.wait_for(f"{SAMPLE} is told to end; it does when it is thawed")


def test_question_goes_when_its_process_has_gone(pair, both):
    screen = asked_to_stop(both)
    pair.control.terminate(OTHER)
    screen.wait_for("It has ended", "1 run")
    screen.press("y") # no question any more
    screen.press("i")
    screen.wait_for("by id")
    assert running(pair) == [SAMPLE]


@pytest.mark.parametrize("key, watched", [("f", "all"), ("F", SAMPLE)])
def test_freezing_is_watched(pair, both, key, watched):
    screen = both("-s", "id", columns=120)
    screen.wait_for("0 frozen")
    screen.press(END, key)
    screen.wait_for(f"Freezing of {watched}, the latest first", "Nothing has changed yet", "HIDDEN FOR", "CPU HIDDEN")
    freeze(pair, SAMPLE)
    screen.wait_for("2 run, 1 frozen")
    screen.until(lambda: re.search(rf"\d\d:\d\d:\d\d {SAMPLE} frozen, .* after it was hidden", screen.text),
                 "the freezing")
    screen.until(lambda: re.match(r"hidden yes \d\d:\d\d:\d\d ", " ".join(screen.row(SAMPLE)[1:])), "the mark")
    pair.control.update_windows(OTHER, inactive=1)
    pair.control.update_windows(SAMPLE, active=1)
    screen.until(lambda: re.search(rf"{SAMPLE} thawed after .*, in which it used .* of processor time", screen.text),
                 "the thaw")
    screen.wait_for("2 run, 0 frozen")
    screen.until(lambda: screen.row(OTHER)[1:2] == ["inactive"], "the other's state")
    if watched == "all":
        screen.wait_for(f"{OTHER} inactive")
    assert watched == "all" or f"{OTHER} inactive" not in screen.text
    screen.press(key)
    screen.wait_without("the latest first")


def test_options_open_the_screen_as_they_say(pair, screens):
    screen = screens(pair, "--sort", "id", "--reverse", "--freeze-watch", "--delay", "0.2", OTHER)
    screen.wait_for("1 run", "by id, reversed", "Freezing of all")
    screen.until(lambda: screen.ids() == [OTHER], "the wanted one alone")
    wrong = screens(pair, LINES="10", COLUMNS="30")
    wrong.wait_for("q quit", "SINCE", "2 run")
    short = screens(pair, "-s", "oom", "-r", "-f", "-d", "0.2")
    short.wait_for("2 run", "by oom, reversed", "Freezing of all")
    plain = screens(pair, NO_COLOR="1")
    plain.wait_for("2 run", "active")
    assert plain.colour("active") == "default"


def test_screen_follows_its_size(pair, screens):
    screen = screens(pair)
    screen.wait_for("q quit")
    screen.resize(40, 10)
    screen.until(lambda: "MEMORY" in screen.text and "SINCE" not in screen.text and screen.ids(),
                 "a narrow table")
    for size in ((1, 1), (2, 3), (20, 5)):
        screen.resize(*size)
        screen.press("r")
        screen.read()
    screen.resize(120, 40)
    screen.wait_for("q quit", "SINCE", "2 run")
    screen.press("q")
    assert screen.end() == ctl.DONE


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP])
def test_signal_restores_the_terminal(both, number):
    screen = both()
    if number == signal.SIGINT:
        screen.press(INTERRUPT)
    elif number == signal.SIGQUIT:
        screen.press(QUIT)
    else:
        screen.process.send_signal(number)
    assert screen.end() == -number
    assert screen.is_restored()


def waits_for_the_terminal(process):
    """Whether it is in the midst of writing, and the terminal takes no more."""
    with open(f"/proc/{process.pid}/wchan") as file:
        return file.read() in ("wait_woken", "n_tty_write")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP])
def test_signal_ends_it_while_its_output_is_held(both, number):
    screen = both("-d", "0.1")
    screen.press(HOLD)
    until(lambda: waits_for_the_terminal(screen.process), "that it waits")
    screen.process.send_signal(number)
    assert screen.end() == -number
    assert screen.is_restored()


def test_held_output_goes_on_where_it_was(pair, both):
    screen = both("-d", "0.1")
    screen.press(HOLD)
    until(lambda: waits_for_the_terminal(screen.process), "that it waits")
    pair.control.terminate(OTHER)
    until(lambda: running(pair) == [SAMPLE], "the end of the other")
    assert waits_for_the_terminal(screen.process)
    screen.press(GO_ON)
    screen.wait_for("1 run")


def test_signal_ends_it_where_the_terminal_takes_nothing(both):
    screen = both("-d", "0.1")
    # Nobody reads, and the terminal has no more room.
    until(lambda: screen.press(20 * "r") or waits_for_the_terminal(screen.process), "that it waits")
    screen.process.send_signal(signal.SIGTERM)
    assert screen.process.wait(LIMIT) == -signal.SIGTERM
    assert screen.settings == screen.before


def test_stopped_one_can_be_ended(both):
    # The shell has it go on so that it can end, and keeps the terminal.
    shell = ["/bin/bash", "-c", 'set -m; "$@"; read; kill %1; read', "bash"]
    screen = both(before=shell)
    (pid,) = descendants(screen.process.pid)
    screen.press(SUSPEND)
    screen.until(lambda: state(pid) == "T", "that it is stopped")
    screen.until(screen.is_restored, "the terminal as before")
    screen.press("\r")
    screen.until(lambda: not is_running(pid), "its end")
    assert screen.is_restored()


def test_stopped_and_continued(pair, both):
    # A shell with job control, which waits for a line before it has the job go on.
    shell = ["/bin/bash", "-c", 'set -m; "$@"; read; fg >/dev/null', "bash"]
    screen = both(before=shell)
    (pid,) = descendants(screen.process.pid)
    screen.press(SUSPEND)
    screen.until(lambda: state(pid) == "T", "that it is stopped")
    screen.until(screen.is_restored, "the terminal as before")
    pair.control.terminate(OTHER)
    until(lambda: running(pair) == [SAMPLE], "the end of the other")
    screen.press("\r")
    screen.wait_for("1 run", "q quit")
    screen.press("q")
    assert screen.end() == ctl.DONE and screen.is_restored()


def test_it_is_not_stopped_where_nobody_could_go_on_with_it(both):
    screen = both()
    screen.press(SUSPEND)
    screen.press("i")
    screen.wait_for("by id", "2 run")
    screen.press("q")
    assert screen.end() == ctl.DONE and screen.is_restored()


def test_keys_behind_the_last_one_count_no_more(pair, both):
    screen = both()
    screen.press("qxy")
    assert screen.end() == ctl.DONE
    assert running(pair) == [OTHER, SAMPLE]


def test_service_may_go_and_come_back(pair, both):
    screen = both()
    pair.service.child.send(signal.SIGSTOP)
    screen.wait_for("The service does not answer, since ")
    assert screen.ids(), "what was known is still shown"
    screen.press("i")
    screen.wait_for("by id") # keys are heard meanwhile
    pair.service.child.send(signal.SIGCONT)
    screen.wait_without("does not answer")
    screen.wait_for("2 run")
    pair.service.stop()
    screen.wait_for("The service is not running, since ")
    screen.until(lambda: screen.ids() == [], "no rows")
    pair.start_service()
    screen.wait_for("0 run, 0 frozen")
    pair.control.start(SAMPLE)
    screen.wait_for("1 run")


def test_bus_that_goes_ends_it(pair, both):
    screen = both()
    pair.session_bus.daemon.kill()
    assert screen.end() == ctl.NOT_THERE
    assert screen.settings == screen.before
    assert pair.service.child.wait() == 1
    assert "procwardenctl: The bus has gone" in screen.text


def test_terminal_that_can_do_nothing_is_told(pair, screens):
    screen = screens(pair, term="dumb")
    assert screen.end() == ctl.WRONG_USAGE
    assert "The terminal cannot show a screen: dumb" in screen.text


def test_plain_tables(pair):
    freeze(pair, SAMPLE)
    until(lambda: any(process.get("Frozen") for process in ctl.run_json_of_all(pair, 2)), "the freezing")
    for result in (ctl.run(pair, "top", "-s", "id", "-d", "0.3", "-n", "2"),
                   ctl.run(pair, "top", "-s", "id", "-d", "0.3", "--iterations", "2", "--batch")):
        first, second = result.out.strip().split("\n\n")
        for table in (first, second):
            lines = table.splitlines()
            assert re.fullmatch(r"2 run, 1 frozen  by id  \d\d:\d\d:\d\d", lines[0])
            assert re.fullmatch(r"Memory normal, .* available, .* %", lines[1])
            assert [line.split()[:3] for line in lines[3:]] == [[OTHER, "active", "no"], [SAMPLE, "hidden", "yes"]]
    assert ctl.run(pair, "top", "-n", "1", OTHER).out.splitlines()[-1].startswith(OTHER)


def test_plain_tables_on_a_terminal(pair, screens):
    batch = screens(pair, "-b", "-d", "0.2")
    batch.until(lambda: batch.raw.count(b"2 run, 0 frozen") >= 2, "two tables")
    assert b"\x1b[?1049h" not in batch.raw and b"\x1b[32mactive" in batch.raw
    batch.press(INTERRUPT)
    assert batch.end() == -signal.SIGINT
    counted = screens(pair, "-n", "1")
    assert counted.end() == ctl.DONE and b"\x1b[?1049h" not in counted.raw


def test_json_of_samples(pair):
    lines = ctl.run(pair, "--json", "top", "-n", "3", "-d", "0.4").out.splitlines()
    samples = [json.loads(line) for line in lines]
    assert len(samples) == 3
    for sample in samples:
        assert sample["Time"] > 0 and sample["Memory"]["Level"] == 0
        assert {process["Id"] for process in sample["Running"]} == {SAMPLE, OTHER}
    assert all("CpuPercent" not in process for process in samples[0]["Running"])
    assert all(process["CpuPercent"] >= 0 for process in samples[2]["Running"])


def test_batch_outlives_the_service(pair):
    later = ctl.Later(pair, "top", "--json", "-d", "0.2")
    try:
        later.wait_for('"Running": ?\\[{')
        pair.service.stop()
        assert json.loads(later.wait_for("NameHasNoOwner"))["Running"] == []
        pair.start_service()
        later.wait_for('"Running": ?\\[\\]', 2)
        assert later.running
    finally:
        later.close()


def test_service_that_does_not_answer_is_told(pair):
    pair.service.child.send(signal.SIGSTOP)
    try:
        silent = ctl.run(pair, "top", "-n", "1", status=ctl.TIMED_OUT)
    finally:
        pair.service.child.send(signal.SIGCONT)
    assert "org.freedesktop.DBus.Error.NoReply" in silent.error
    assert "The service does not answer" in silent.out


def test_wrong_words(pair):
    for words, error in ((["-d", "x"], "Not a number: x"), (["-d", "-1"], "Not from 0.1 to 3600: -1"),
                         (["-d", "0"], "Not from 0.1 to 3600: 0"), (["-d", "3601"], "Not from 0.1 to 3600: 3601"),
                         (["-d", "nan"], "Not a number: nan"), (["-n", "0"], "No iteration: 0"),
                         (["-s", "size"], "None of memory, cpu, state, oom, id: size")):
        assert error in ctl.run(pair, "top", *words, status=ctl.WRONG_USAGE).error
    pair.service.stop()
    assert "not running" in ctl.run(pair, "top", status=ctl.NOT_THERE).error


def test_ordinary_application_sees_itself(pair):
    program = os.path.join(pair.bin_dir, "procwardenctl")
    code, text = pair.sample(SAMPLE).run(program, "top", "-n", "1")
    assert code == 0
    assert text.splitlines()[0].startswith("1 run, 0 frozen") and "Memory" not in text
    assert OTHER not in text and SAMPLE in text
