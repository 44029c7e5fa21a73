"""The intent resolver, which lets the user choose who handles an intent."""

from dataclasses import dataclass, field

import dbus

from .monitor import plain
from .standin import StandIn
from .waiting import until


@dataclass
class Asked:
    """One call of ResolveIntent."""

    intent: str
    data: dict
    hints: dict
    candidates: list
    raw_data: object = field(repr=False) # with the types that they have on the bus


class IntentResolver(StandIn):
    """asked lists the calls, in order. Answers as set with choose(), refuse() or answer_with(); the first
    candidate by default."""

    SERVICE = "org.solvaneos.intentresolver"
    PATH = "/org/kestrix/Procwarden/IntentResolver1"
    INTERFACE = "org.kestrix.Procwarden.IntentResolver1"
    METHODS = {"ResolveIntent": "sa{sv}a{sv}as"}

    def __init__(self, bus):
        self.asked = []
        self._answer = None
        super().__init__(bus)

    def choose(self, handler, **hints):
        """Answers this application id from now on; hints: the reply's."""
        self._answer = lambda message, _: self.reply(message, "sa{sv}", handler,
                                                     dbus.Dictionary(hints, signature="sv"))

    def refuse(self, name, text):
        self._answer = lambda message, _: self.fail(message, name, text)

    def answer_with(self, answer):
        """answer(message, asked) is called for each call, to answer by reply() or fail(), or not; None: as usual
        again."""
        self._answer = answer

    def wait_for(self, count=1):
        """Waits until it has been asked so often; returns the last of these."""
        return until(lambda: len(self.asked) >= count and self.asked[count - 1], f"{count} question(s) to the user")

    def on_ResolveIntent(self, message, intent, data, hints, candidates):
        asked = Asked(str(intent), plain(data), plain(hints), plain(candidates), data)
        self.asked.append(asked)
        if self._answer:
            self._answer(message, asked)
        elif asked.candidates:
            self.reply(message, "sa{sv}", asked.candidates[0], dbus.Dictionary({}, signature="sv"))
        else:
            self.fail(message, "org.freedesktop.DBus.Error.NotSupported", "nobody can")
