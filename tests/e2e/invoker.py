"""Callers and handlers of intents: applications that the service has started, and a stranger."""

import json
import re

import dbus

from stack.client import BusError
from stack.monitor import plain
from stack.waiting import LIMIT

HANDLER = "org.example.Handler"


def variants(content):
    return dbus.Dictionary(content, signature="sv")


def strings(*texts):
    return dbus.Array(texts, signature="s")


def invoke(stack, name, hints=None, data=None):
    """As a stranger, thus privileged; returns the data of the answer."""
    return stack.control.call("Intents1", "InvokeIntent", "sa{sv}a{sv}", name, variants(hints or {}),
                              variants(data or {}))


def invoke_later(stack, name, hints=None, data=None):
    return stack.control.call_later("Intents1", "InvokeIntent", "sa{sv}a{sv}", name, variants(hints or {}),
                                    variants(data or {}))


def refusal(stack, name, hints=None, data=None):
    """(error name, message) of an intent that must fail."""
    try:
        answer = invoke(stack, name, hints, data)
    except BusError as error:
        return error.name, error.message
    raise AssertionError(f"the intent was accepted: {answer}")


def install_handler(stack, app_id=HANDLER, behaviour="echo", intents="X-do", arguments="", main=None, **options):
    """Installs a sample application that handles intents."""
    organization, name = app_id.rsplit(".", 1)
    options.setdefault("sandbox", {"Sandboxing": "Disabled"})
    options["sandbox"] = {"Intents": intents, **options["sandbox"]}
    stack.install_sample(app_id, arguments=f"--intents {behaviour} {arguments}", main=main, **options)
    stack.control.reload()
    return app_id


class Application:
    """A running sample application, which invokes intents."""

    def __init__(self, stack, app_id, **options):
        stack.install_sample(app_id, **{"sandbox": {"Sandboxing": "Disabled"}, **options})
        stack.control.reload()
        self.started = stack.control.start(app_id)
        self.sample = stack.sample(app_id)
        self._bus = stack.session_bus
        self._name = f"{app_id}.Main"
        self.id = app_id

    def invoke(self, name, hints=None, data=None, read=(), write=(), limit=LIMIT):
        """Returns the data of the answer, or (error name, message)."""
        connection = self._bus.connect()
        try:
            text = plain(connection.call_blocking(
                self._name, "/intents", "org.example.SampleIntents1", "Invoke", "sa{sv}a{sv}asas",
                (name, variants(hints or {}), variants(data or {}), strings(*read), strings(*write)),
                timeout=limit))
        finally:
            connection.close()
        error = re.fullmatch(r"error ([\w.]+): (.*)", text, re.S)
        return error.groups() if error else json.loads(text)
