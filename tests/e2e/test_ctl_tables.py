"""procwardenctl: tables and sheets as a whole, each compared with a golden file."""

import re

import pytest

import ctl
import notifier
import tasker
from invoker import install_handler
from screen import Screen
from stack.waiting import until

SAMPLE, OTHER = "org.example.Sample", "org.example.Other"


@pytest.fixture
def pair(service):
    """Two applications that run; the one is hidden and frozen, the other active."""
    if not all(service.hierarchies.is_real(name) for name in ("cpu", "memory", "freezer")):
        pytest.skip("needs control groups")
    ctl.start_pair(service, SAMPLE, OTHER)
    service.control.update_windows(SAMPLE, hidden=1)
    until(lambda: [process.get("Frozen") for process in ctl.run_json_of_all(service, 2)] == [False, True],
          "the freezing")
    return service


def same(stack, text):
    """Without what differs from run to run."""
    pids = ((process["Pid"], "PID") for process in ctl.run_json(stack, "list"))
    text = ctl.normal(text, *pids, (stack.user.home, "HOME"), (stack.directory, "DIR"),
                      (stack.user.name, "USER"))
    for pattern, mask in ((r"\b\d\d:\d\d:\d\d\b", "CLOCK"), (r"\b\d+\.\d\b", "N.N"), (r"\bguid=\w+", "guid=GUID")):
        text = re.sub(pattern, mask, text)
    return text


# --- top ---


def test_look_at_what_runs(pair):
    ctl.golden("top", same(pair, ctl.run(pair, "top", "--sort", "id", "-n", "1").out))


def test_look_at_the_freezing(pair):
    # Without those that are left out where nothing has a value yet: the second look.
    text = ctl.run(pair, "top", "-s", "id", "-f", "-d", "0.3", "-n", "2").out
    ctl.golden("top_freezing", same(pair, text.split("\n\n")[1]))


@pytest.fixture
def screen(pair, request):
    """screen(words...) shows the two, sorted by their ids."""
    def show(*words):
        shown = Screen(pair, "top", "-s", "id", *words, columns=130, lines=20)
        request.addfinalizer(shown.close)
        shown.wait_for("2 run, 1 frozen", "q quit")
        return shown
    return show


# How many words each row has once all of its values are known, which the first look does not tell.
@pytest.mark.parametrize("name, words, values", [
    ("top_screen", (), {OTHER: 12, SAMPLE: 12}),
    ("top_screen_freezing", ("-f",), {OTHER: 12, SAMPLE: 16}),
])
def test_screen(pair, screen, name, words, values):
    shown = screen(*words)
    for app_id, count in values.items():
        shown.until(lambda: len(shown.row(app_id)) >= count, f"the whole row of {app_id}")
    ctl.golden(name, same(pair, shown.text.rstrip() + "\n"))


def test_screen_of_the_keys(screen):
    shown = screen()
    shown.press("h")
    shown.wait_for("select     PgUp", "processor time since")
    # But for the head, the same each time.
    ctl.golden("top_help", "\n".join(shown.rows[2:]).rstrip() + "\n")


# --- others ---


def test_notifications_of_an_application(service):
    application = notifier.start_application(service, SAMPLE, "Sample")
    application.notify("Hello")
    ctl.golden("notifications_owned", same(service, ctl.run(service, "notifications").out))


def test_rules_of_check(stack):
    ctl.golden("check_rules", ctl.run(stack, "check", "--rules").out)


def status_of(stack, instance):
    (process,) = ctl.run_json(stack, "status", instance)["Running"]
    text = re.sub(r", name seen \d+ ms", "", ctl.run(stack, "status", instance).out)
    # Which hierarchies there are is the machine's, and how many processes the moment's.
    groups = sorted(f"{name} {group}" for name, group in process["Groups"].items())
    text = re.sub(re.escape(groups[0]) + r"\n(?: +\w\S* /.*\n)*", "HIERARCHY GROUP\n", text)
    return same(stack, re.sub(r"processes: \d+", "processes: N", text))


def test_status_of_one_that_runs(pair):
    ctl.golden("status_running", status_of(pair, SAMPLE))


def test_status_of_a_task_that_runs(service):
    if not all(service.hierarchies.is_real(name) for name in ("cpu", "memory", "freezer")):
        pytest.skip("needs control groups")
    tasker.install(service)
    tasker.start(service)
    tasker.wait_running(service)
    ctl.run_json_of_all(service)
    ctl.golden("status_of_a_task", status_of(service, tasker.task_id("work")))


def test_tasks_that_run(service):
    tasker.install(service)
    tasker.start(service)
    tasker.wait_running(service)
    ctl.golden("tasks_running", same(service, ctl.run(service, "tasks", SAMPLE).out))


def test_explanation_of_a_sandboxed_one(service):
    text = same(service, ctl.run(service, "explain", SAMPLE).out)
    ctl.golden("explain_sandboxed", re.sub(r"(?m)\b\d+ of", "N of", text))


def test_answer_to_an_intent(service):
    install_handler(service)
    ctl.golden("intent", same(service, ctl.run(service, "intent", "X-do", "text=some words", "number:=3", "list[]=a",
                                               "list[]=b", 'map:={"key":true}').out))
