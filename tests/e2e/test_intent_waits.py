"""Intents that wait for a handler: how long, what ends a wait, and what does not."""

import time

import pytest

from invoker import Application, install_handler, invoke, invoke_later, refusal
from stack.client import BusError
from stack.permission_daemon import granted, held
from stack.process import is_running
from stack.waiting import until

LAUNCHING = "org.example.Launching"
TERMINATING = "org.example.Terminating"
NAMELESS = "org.example.Nameless"
READER = "org.example.Reader"
OTHER = "org.example.Other"
ERROR = "org.kestrix.Procwarden.Error."
EARLY = 0.94 # the service's timers are coarse: up to a twentieth too early
MASKED = ("org.freedesktop.DBus.Error.Failed", "Operation failed")


@pytest.fixture
def running(stack):
    stack.define_intent("OpenURI", hints={"mimeContent": ["uri"]})
    # Longer than any wait here: who ignores SIGTERM stays.
    stack.start(PROCWARDEN_KILL_TIMEOUT="120000")
    return stack


def failure(pending, limit):
    with pytest.raises(BusError) as error:
        pending.result(limit)
    return error.value.name, error.value.message


def hold_launch(stack, app_id):
    """Starts it as far as the question to the user."""
    install_handler(stack, app_id, sandbox={"Sandboxing": "Enabled"})
    stack.permission_daemon.set_rule(app_id, prompt=held())
    start = stack.control.start_later(app_id)
    stack.permission_daemon.wait_for_held("PromptLaunchPermissions", app_id)
    return start


def test_waits_end_at_their_limits(running):
    hold_launch(running, LAUNCHING)
    install_handler(running, TERMINATING, arguments="--ignore-term")
    install_handler(running, NAMELESS, arguments="--no-intent-name")
    # Gets what it opens on its command line, but only when it starts.
    running.install_sample(READER, arguments="%U", main={"MimeType": "text/plain"},
                           sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    for app_id in (TERMINATING, READER):
        running.control.start(app_id)
        running.sample(app_id)
    running.control.terminate(TERMINATING)
    client = Application(running, "org.example.Client")

    began = time.monotonic()
    waits = {app_id: invoke_later(running, "X-do", {"preferredHandler": app_id})
             for app_id in (LAUNCHING, TERMINATING, NAMELESS)}
    waits[READER] = invoke_later(running, "OpenURI", {}, {"uri": "file:///a.txt"})
    running.install_sample(OTHER, sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    running.control.start(OTHER) # the start of another one ends no wait

    not_ready = (ERROR + "HandlerFailed", "Application not ready within 10 seconds")
    assert failure(waits[TERMINATING], 30) == (ERROR + "ApplicationTerminating", "Application termination timeout")
    assert time.monotonic() - began >= 5 * EARLY
    assert failure(waits[NAMELESS], 30) == not_ready
    assert failure(waits[READER], 30) == not_ready
    assert time.monotonic() - began >= 10 * EARLY
    assert failure(waits[LAUNCHING], 60) == (ERROR + "ApplicationAlreadyLaunching", "Application launch timeout")
    assert time.monotonic() - began >= 25 * EARLY

    # An application is told less; and nothing was rolled back.
    assert client.invoke("X-do", {"preferredHandler": TERMINATING}) == MASKED
    assert {app[0] for app in running.control.running()[0]} >= {TERMINATING, NAMELESS, READER, OTHER}


def test_launch_that_ends_ends_the_wait(running):
    start = hold_launch(running, LAUNCHING)
    intent = invoke_later(running, "Start", {"preferredHandler": LAUNCHING})
    another = invoke_later(running, "Start", {"preferredHandler": LAUNCHING})
    until(lambda: running.service.log().count("Application is already launching") == 2, "both intents to wait")
    launched = len(running.window_model.launched)
    running.permission_daemon.release("PromptLaunchPermissions", LAUNCHING, granted())
    assert start.result()[0] == LAUNCHING
    assert intent.result() == another.result() == {"instanceId": LAUNCHING}
    until(lambda: running.window_model.launched[launched:].count(LAUNCHING) >= 2, "it to be raised for both")


def test_end_ends_the_wait(running):
    install_handler(running, TERMINATING, arguments="--ignore-term")
    first = running.control.start(TERMINATING)
    running.sample(TERMINATING)
    running.control.terminate(TERMINATING)
    intents = [invoke_later(running, "X-do", {"preferredHandler": TERMINATING}, {"n": float(n)}) for n in range(2)]
    until(lambda: running.service.log().count("Application is terminating") == 2, "both intents to wait")
    install_handler(running, TERMINATING)
    running.sample(TERMINATING).quit()
    assert [intent.result() for intent in intents] == [{"n": 0}, {"n": 1}]
    (app,), _ = running.control.running()
    assert app[1] != first.pid


def test_handler_that_dies_is_not_noticed(running):
    install_handler(running, NAMELESS, arguments="--no-intent-name")
    intent = invoke_later(running, "X-do", {"preferredHandler": NAMELESS})
    pid = until(lambda: running.control.running()[0], "the handler")[0][1]
    running.sample(NAMELESS).quit()
    until(lambda: not is_running(pid), "its end")
    assert failure(intent, 30) == (ERROR + "HandlerFailed", "Application not ready within 10 seconds")


def test_handler_that_never_comes_up(running):
    """Its child ends before the program runs, or the program at once: nobody tells the intent."""
    install_handler(running, NAMELESS, exec_line="/nonexistent/program")
    install_handler(running, OTHER, arguments="--exit 7")
    waits = [invoke_later(running, "X-do", {"preferredHandler": app_id}) for app_id in (NAMELESS, OTHER)]
    for wait in waits:
        assert failure(wait, 30) == (ERROR + "HandlerFailed", "Application not ready within 10 seconds")
    assert running.control.running()[0] == []


def test_handler_under_attack_of_starts_and_stops(running):
    """Starts, stops and intents for one application, all at once: each gets its answer."""
    app_id = install_handler(running, "org.example.Busy", behaviour="echo")
    pending = []
    for round_ in range(12):
        pending.append(invoke_later(running, "X-do", {"preferredHandler": app_id}, {"n": float(round_)}))
        if round_ % 3 == 0:
            pending.append(running.control.start_later(app_id))
        if round_ % 3 == 1:
            pending.append(running.control.call_later("Control1", "Terminate", "s", app_id))
    for call in pending:
        try:
            call.result(90)
        except BusError as error:
            assert error.name.startswith((ERROR, "org.freedesktop.DBus.Error.Failed")), error
    install_handler(running, app_id)
    until(lambda: not running.control.running()[0] or invoke(running, "X-do", {"preferredHandler": app_id}) == {},
          "the application to be of use again")
    assert refusal(running, "Start", {})[0] == "org.freedesktop.DBus.Error.InvalidArgs"
