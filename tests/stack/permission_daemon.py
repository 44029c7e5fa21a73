"""The permission daemon: says which application may start, and asks the user for permissions."""

from dataclasses import dataclass, field

import dbus

from .standin import StandIn
from .waiting import until

DENIED = "org.freedesktop.DBus.Error.AccessDenied"


@dataclass
class Answer:
    """How one method answers for one application.

    kind is "value" (reply with signature and value), "error" (name and text), "never", or "held": no answer
    until release() is called with the real one.
    """

    kind: str
    signature: str = ""
    value: object = None
    name: str = DENIED
    text: str = ""


@dataclass
class Rule:
    allowed: Answer
    prompt: Answer


@dataclass
class Call:
    method: str
    application: str
    answered: bool = field(default=False)


def value(signature, content):
    return Answer("value", signature, content)


def error(text, name=DENIED):
    return Answer("error", name=name, text=text)


def never():
    return Answer("never")


def held():
    return Answer("held")


def allowed(yes=True):
    return value("i", dbus.Int32(1 if yes else 0))


def granted(*permissions):
    return value("as", dbus.Array(permissions, signature="s"))


class PermissionDaemon(StandIn):
    """Every installed application may start and gets no permission, until set_rule() says otherwise.

    calls lists what was asked, in order. A question about an application that is not installed is a
    complaint: the service has to ask by the name of a desktop file that exists.
    """

    SERVICE = "org.sailfishos.sailjaild1"
    PATH = "/org/sailfishos/sailjaild1"
    INTERFACE = "org.sailfishos.sailjaild1"
    METHODS = {"GetAllowed": "s", "PromptLaunchPermissions": "s"}

    def __init__(self, bus, is_installed):
        self._is_installed = is_installed
        self._rules = {}
        self._held = []
        self.calls = []
        super().__init__(bus)

    def set_rule(self, application, may_start=None, prompt=None):
        """Answers for one application from now on, by the name of its desktop file."""
        rule = Rule(may_start or allowed(), prompt or granted())
        self.on_loop(lambda: self._rules.__setitem__(application, rule))

    def calls_of(self, method):
        return [call.application for call in list(self.calls) if call.method == method]

    def wait_for_held(self, method, application):
        """Returns when a call that is held back has arrived."""
        until(lambda: self._find_held(method, application), f"{method} of {application} held back")

    def release(self, method, application, answer):
        """Answers the oldest call of this kind that is held back."""
        self.wait_for_held(method, application)

        def run():
            entry = self._find_held(method, application)
            self._held.remove(entry)
            self._answer(entry[0], entry[1], answer)

        self.on_loop(run)

    def on_GetAllowed(self, message, application):
        self._asked(message, "GetAllowed", str(application), "allowed")

    def on_PromptLaunchPermissions(self, message, application):
        self._asked(message, "PromptLaunchPermissions", str(application), "prompt")

    def _asked(self, message, method, application, which):
        call = Call(method, application)
        self.calls.append(call)
        if not self._is_installed(application):
            self.complain(message, DENIED, f"{method} for \"{application}\", which is not installed")
            return
        rule = self._rules.get(application) or Rule(allowed(), granted())
        self._answer(message, call, getattr(rule, which))

    def _answer(self, message, call, answer):
        if answer.kind == "held":
            self._held.append((message, call))
        elif answer.kind == "value":
            call.answered = True
            self.reply(message, answer.signature, answer.value)
        elif answer.kind == "error":
            call.answered = True
            self.fail(message, answer.name, answer.text)

    def _find_held(self, method, application):
        for entry in list(self._held):
            if (entry[1].method, entry[1].application) == (method, application):
                return entry
        return None
