"""Intents: what the kinds do, who is asked, whom a client reaches, and what comes back."""

import itertools
import os

import dbus
import pytest

from invoker import HANDLER, Application, install_handler, invoke, invoke_later, refusal, strings, variants
from stack.client import BusError
from stack.waiting import until

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
NOT_SUPPORTED = "org.freedesktop.DBus.Error.NotSupported"
HANDLER_NOT_FOUND = "org.kestrix.Procwarden.Error.HandlerNotFound"
HANDLER_FAILED = "org.kestrix.Procwarden.Error.HandlerFailed"
MASKED = ("org.freedesktop.DBus.Error.Failed", "Operation failed")


@pytest.fixture
def running(stack):
    stack.define_intent("OpenURI", hints={"mimeContent": ["uri"]})
    stack.start()
    return stack


# --- Start ---


def test_start_starts_and_raises(running):
    running.install_sample()
    running.control.reload()
    sample = "org.example.Sample"
    assert invoke(running, "Start", {"preferredHandler": sample}) == {"instanceId": sample}
    (app,), _ = running.control.running()
    assert (app[0], app[2]) == (sample, 1)
    pid = app[1]
    launched = len(running.window_model.launched)
    assert invoke(running, "Start", {"preferredHandler": sample}) == {"instanceId": sample}
    until(lambda: running.window_model.launched[launched:] == [sample], "the application to be raised")
    assert running.control.running()[0][0][1] == pid


@pytest.mark.parametrize("dbus_start, reason", [(False, 1), (True, 6)])
def test_reason_of_a_start(running, dbus_start, reason):
    running.install_sample()
    running.control.reload()
    monitor = running.monitor()
    invoke(running, "Start", {"preferredHandler": "org.example.Sample", "startDBus": dbus_start})
    started = monitor.wait_for("Started")[-1]
    assert started.arguments[1]["StartReason"] == reason
    assert started.arguments[1]["RequestorId"] == ""


@pytest.mark.parametrize("hints", [{}, {"preferredHandler": ""}, {"preferredHandler": ".desktop"},
                                   {"preferredHandler": variants({"a": 1})}])
def test_start_needs_an_id(running, hints):
    assert refusal(running, "Start", hints) == (INVALID_ARGS, "Missing application ID")


def test_start_of_what_is_not_installed(running):
    assert refusal(running, "Start", {"preferredHandler": "org.example.Gone"})[0] == HANDLER_NOT_FOUND
    client = Application(running, "org.example.Client")
    assert client.invoke("Start", {"preferredHandler": "org.example.Gone"}) == MASKED


def test_start_tells_who_asked(running):
    running.install_sample()
    client = Application(running, "org.example.Client")
    monitor = running.monitor()
    assert client.invoke("Start", {"preferredHandler": "org.example.Sample"}) == {
        "instanceId": "org.example.Sample"}
    assert monitor.wait_for("Started")[-1].arguments[1]["RequestorId"] == "org.example.Client"


def test_start_of_another_organisation_is_refused(running):
    running.install_sample("com.other.Shop")
    client = Application(running, "org.example.Client")
    refused = (ACCESS_DENIED, "Client not allowed to start com.other.Shop")
    assert client.invoke("Start", {"preferredHandler": "com.other.Shop"}) == refused
    assert client.invoke("X-do", {"preferredHandler": "com.other.Shop"}) == refused
    uri = "intent://?preferredHandler=S.com.other.Shop#Intent;name=Start;end"
    assert client.invoke("OpenURI", {}, {"uri": uri}) == refused
    assert [app[0] for app in running.control.running()[0]] == ["org.example.Client"]


# --- OpenURI ---


@pytest.mark.parametrize("data, error", [
    ({}, "Missing URI"),
    ({"uri": ""}, "Missing URI"),
    ({"uri": 5}, "Missing URI"),
    ({"uri": strings()}, "Missing URI"),
    ({"uri": "http://["}, "Invalid URI: http://["),
])
def test_bad_uris(running, data, error):
    assert refusal(running, "OpenURI", {}, data) == (INVALID_ARGS, error)
    client = Application(running, "org.example.Client")
    assert client.invoke("OpenURI", {}, data) == (INVALID_ARGS, error)


@pytest.mark.parametrize("uri, opened", [
    ("/tmp/a%20b.txt", "file:///tmp/a b.txt"),
    ("file:///tmp/a.txt", "file:///tmp/a.txt"),
    (strings("file:///tmp/a.txt", "file:///tmp/b.png"), "file:///tmp/a.txt"),
])
def test_uri_goes_by_the_interface_of_who_declares_it(running, uri, opened):
    install_handler(running, intents="OpenURI", main={"MimeType": "text/plain"})
    assert invoke(running, "OpenURI", {}, {"uri": uri}) == {"instanceId": HANDLER}
    diary = running.sample_files.diary(HANDLER)
    assert [line for line in diary if line.startswith("intent")] == [f'intent OpenURI {{"uri":"{opened}"}}']
    assert running.intent_resolver.asked == []


def test_uri_goes_on_the_command_line_of_who_does_not(running):
    running.install_sample("org.example.Reader", arguments="%U", main={"MimeType": "text/plain"},
                           sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    monitor = running.monitor()
    assert invoke(running, "OpenURI", {}, {"uri": "file:///tmp/a.txt"}) == {"instanceId": "org.example.Reader"}
    started = monitor.wait_for("Started")[-1].arguments[1]
    assert (started["StartReason"], started["Uris"]) == (3, ["file:///tmp/a.txt"])
    assert running.sample("org.example.Reader").call("Arguments")[-1] == "/tmp/a.txt"


def test_dialog_is_shown_when_wanted(running):
    install_handler(running, intents="OpenURI", main={"MimeType": "text/plain"})
    hints = {"preferredHandler": HANDLER, "showDialog": True}
    assert invoke(running, "OpenURI", hints, {"uri": "file:///a.txt"}) == {"instanceId": HANDLER}
    (asked,) = running.intent_resolver.asked
    assert (asked.intent, asked.candidates, asked.hints) == ("OpenURI", [HANDLER], {})
    assert asked.data == {"uri": "file:///a.txt"}
    running.define_intent("OpenURI", hints={"mimeContent": ["uri"], "showDialog": False})
    invoke(running, "OpenURI", hints, {"uri": "file:///a.txt"})
    assert len(running.intent_resolver.asked) == 1


def test_choice_becomes_the_default(running):
    for app_id in ("org.example.One", "org.example.Two"):
        install_handler(running, app_id, intents="OpenURI", main={"MimeType": "text/plain"})
    running.intent_resolver.choose("org.example.Two", setAsDefaultHandler=True)
    assert invoke(running, "OpenURI", {}, {"uri": "file:///a.txt"}) == {"instanceId": "org.example.Two"}
    assert sorted(running.intent_resolver.asked[0].candidates) == ["org.example.One", "org.example.Two"]
    assert invoke(running, "OpenURI", {}, {"uri": "file:///b.txt"}) == {"instanceId": "org.example.Two"}
    assert len(running.intent_resolver.asked) == 1
    invoke(running, "OpenURI", {"showDialog": True}, {"uri": "file:///b.txt"})
    assert running.intent_resolver.asked[1].hints == {"defaultCandidate": "org.example.Two"}


def test_nobody_can_open_it(running):
    data = {"uri": "file:///a.zip"}
    assert refusal(running, "OpenURI", {"suppressErrorDialog": True}, data)[0] == HANDLER_NOT_FOUND
    assert running.intent_resolver.asked == []
    assert refusal(running, "OpenURI", {}, data) == (HANDLER_NOT_FOUND, "nobody can")
    assert running.intent_resolver.asked[0].candidates == []


def test_intent_uri_is_the_intent_that_it_names(running):
    install_handler(running, intents="X-do")
    uri = "intent://?refocusOnReturn=B.true#Intent;name=X-do;count=i.3;on=B.true;text=S.a b;end"
    assert invoke(running, "OpenURI", {"preferredHandler": "org.example.Ignored"}, {"uri": uri}) == {}
    assert running.sample_files.diary(HANDLER)[-1] == 'intent X-do {"count":3,"on":true,"text":"a b"}'
    assert refusal(running, "OpenURI", {}, {"uri": "intent://nonsense"})[0] == NOT_SUPPORTED


# --- Generic ---


def test_data_goes_there_and_back(running):
    install_handler(running, behaviour="echo")
    data = {"text": "grüße\n", "number": 1.5, "yes": True, "list": strings("a", "b"),
            "object": variants({"inner": 7})}
    assert invoke(running, "X-do", {}, data) == {"text": "grüße\n", "number": 1.5, "yes": True,
                                                 "list": ["a", "b"], "object": {"inner": 7.0}}


def test_unknown_intent(running):
    install_handler(running, intents="Sing")
    assert refusal(running, "Sing")[0] == NOT_SUPPORTED
    client = Application(running, "org.example.Client")
    assert client.invoke("Sing") == MASKED
    running.define_intent("Sing")
    assert invoke(running, "Sing", {}, {"a": 1}) == {"a": 1}
    assert client.invoke("Sing", {}, {"a": 2}) == {"a": 2}


@pytest.mark.parametrize("behaviour, answer", [
    ("error", (HANDLER_FAILED, "I would rather not")),
    ("quit", (HANDLER_FAILED, None)),
    ("vanish", (HANDLER_FAILED, None)),
])
def test_handler_that_fails(running, behaviour, answer):
    install_handler(running, behaviour=behaviour)
    name, text = refusal(running, "X-do")
    assert (name, answer[1] and text) == answer
    client = Application(running, "org.example.Client")
    assert client.invoke("X-do") == MASKED


def test_answer_of_another_form_is_empty(running):
    install_handler(running, behaviour="text")
    assert invoke(running, "X-do") == {}


@pytest.mark.parametrize("refused, kind", [
    (NOT_SUPPORTED, HANDLER_NOT_FOUND),
    (INVALID_ARGS, INVALID_ARGS),
    ("org.freedesktop.DBus.Error.AccessDenied", "org.freedesktop.DBus.Error.Failed"),
    ("org.example.Error.Odd", "org.freedesktop.DBus.Error.Failed"),
])
def test_resolver_refuses(running, refused, kind):
    running.intent_resolver.refuse(refused, "the text")
    assert refusal(running, "X-do") == (kind, "the text")
    client = Application(running, "org.example.Client")
    assert client.invoke("X-do") == ((INVALID_ARGS, "the text") if kind == INVALID_ARGS else MASKED)


def test_resolver_is_gone(running):
    running.intent_resolver.vanish()
    assert refusal(running, "X-do")[0] == "org.freedesktop.DBus.Error.Failed"


def test_resolver_answers_nonsense(running):
    running.intent_resolver.answer_with(lambda message, _: running.intent_resolver.reply(message, "u", dbus.UInt32(5)))
    assert refusal(running, "X-do")[0] == "org.freedesktop.DBus.Error.Failed"
    running.intent_resolver.choose("")
    assert refusal(running, "X-do")[0] == HANDLER_NOT_FOUND


def test_default_is_set_by_open_uri_only(running):
    for app_id in ("org.example.One", "org.example.Two"):
        install_handler(running, app_id, intents="X-do", main={"MimeType": "text/plain"})
    running.intent_resolver.choose("org.example.Two", setAsDefaultHandler=True)
    hints = {"mimeContent": strings("uri"), "showDialog": True}
    for _ in range(2): # the dialog is not for this kind, and the choice was not kept
        invoke(running, "X-do", hints, {"uri": "file:///a.txt"})
    assert [asked.hints for asked in running.intent_resolver.asked] == [{}, {}]


# --- legacy services ---


@pytest.fixture
def legacy(running):
    """A service of the older kind, whose one method runs what it is given: here, it writes the URI down."""
    notes = os.path.join(running.user.home, "opened")
    running.install_sample(HANDLER, main={
        "MimeType": "text/plain", "X-Maemo-Service": f"{HANDLER}.Main", "X-Maemo-Object-Path": "/",
        "X-Maemo-Method": "org.example.Sample1.Run", "X-Maemo-Fixed-Args": f"/bin/sh;-c;echo $0 >>{notes}"},
        sandbox={"Sandboxing": "Disabled", "ExecDBus": running.applications.program(HANDLER)})
    running.control.reload()

    def opened():
        if not os.path.exists(notes):
            return []
        with open(notes) as file:
            return file.read().splitlines()

    running.opened = opened
    return running


def test_legacy_service_gets_the_uri_with_its_launch_and_by_its_method_later(legacy):
    answer = {"instanceId": HANDLER}
    assert invoke(legacy, "OpenURI", {}, {"uri": "file:///a.txt"}) == answer
    until(lambda: legacy.opened() == ["/a.txt"], "the first URI", detail=legacy.opened)
    assert invoke(legacy, "OpenURI", {}, {"uri": "file:///b.txt"}) == answer
    assert legacy.opened() == ["/a.txt", "file:///b.txt"]


# --- while the handler comes and goes ---


def test_delivery_tells_who_asked(running):
    install_handler(running)
    client = Application(running, "org.example.Client")
    monitor = running.monitor()
    assert client.invoke("X-do", {}, {"a": "b"}) == {"a": "b"}
    started = monitor.wait_for("Started", HANDLER)[-1].arguments[1]
    assert (started["StartReason"], started["RequestorId"]) == (3, "org.example.Client")


@pytest.mark.parametrize("order", list(itertools.permutations(("start", "stop", "intent"))))
@pytest.mark.parametrize("runs", [False, True])
def test_start_stop_and_intent_in_every_order(running, runs, order):
    """Sent one after the other without waiting: each is answered, and the intent reaches the handler."""
    install_handler(running)
    if runs:
        running.control.start(HANDLER)
        running.sample(HANDLER)
    calls = {"start": lambda: running.control.start_later(HANDLER),
             "stop": lambda: running.control.call_later("Control1", "Terminate", "s", HANDLER),
             "intent": lambda: invoke_later(running, "X-do", {}, {"a": "b"})}
    pending = {name: calls[name]() for name in order}

    def outcome(name):
        try:
            return pending[name].result()
        except BusError as error:
            return error.name

    refused = "org.kestrix.Procwarden.Error.Application"
    assert outcome("start")[0] == HANDLER or outcome("start") in (
        refused + "AlreadyRunning", refused + "AlreadyLaunching", refused + "Terminating")
    assert outcome("stop") in (None, "org.freedesktop.DBus.Error.Failed")
    # One that is stopped under its intent has not answered.
    assert outcome("intent") in ({"a": "b"}, HANDLER_FAILED)
    assert invoke(running, "X-do", {}, {"c": "d"}) == {"c": "d"}


def test_handler_that_is_launching_is_waited_for(running):
    install_handler(running)
    starts = [running.control.start_later(HANDLER), invoke_later(running, "X-do", {}, {"a": 1}),
              invoke_later(running, "X-do", {}, {"a": 2})]
    assert starts[0].result()[0] == HANDLER
    assert (starts[1].result(), starts[2].result()) == ({"a": 1}, {"a": 2})


def test_handler_that_is_terminating_is_waited_for(running):
    install_handler(running, arguments="--ignore-term")
    first = running.control.start(HANDLER)
    running.sample(HANDLER)
    running.control.terminate(HANDLER)
    assert invoke(running, "X-do", {}, {"a": 1}) == {"a": 1}
    (app,), _ = running.control.running()
    assert app[1] != first.pid


def test_refocus(running):
    install_handler(running, behaviour="error")
    client = Application(running, "org.example.Client")
    assert client.invoke("X-do", {"refocusOnReturn": True}) == MASKED
    until(lambda: running.window_model.launched[-1:] == ["org.example.Client"], "the client to be raised")
