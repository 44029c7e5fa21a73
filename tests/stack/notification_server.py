"""The notification server, behind the name where only the service looks for it."""

from dataclasses import dataclass, field

import dbus
import dbus.lowlevel

from .monitor import plain
from .standin import StandIn
from .waiting import until

RECORDS = "a(susssasa{sv}i)"
INFORMATION = ("Stand-in", "example.org", "0.1", "1.2")
CAPABILITIES = ["body", "actions", "persistence"]


@dataclass
class Shown:
    """One call of Notify."""

    id: int
    app_name: str
    replaces: int
    icon: str
    summary: str
    body: str
    actions: list
    hints: dict
    timeout: int
    raw_hints: object = field(repr=False) # with the types that they have on the bus

    def record(self):
        return dbus.Struct((self.app_name, dbus.UInt32(self.id), self.icon, self.summary, self.body,
                            dbus.Array(self.actions, signature="s"), self.raw_hints, dbus.Int32(self.timeout)),
                           signature="susssasa{sv}i")


class NotificationServer(StandIn):
    """Keeps what it shows, in open: id -> Shown, newest last. shown has every call, asked every argument of the
    listing calls, closed every id that CloseNotification named.

    answer_with() makes it answer in another way; hold() makes it keep every call of Notify until release().
    """

    SERVICE = "org.solvaneos.Notifications"
    PATH = "/org/freedesktop/Notifications"
    INTERFACE = "org.freedesktop.Notifications"
    METHODS = {"Notify": "susssasa{sv}i", "CloseNotification": "u", "GetCapabilities": "",
               "GetServerInformation": "", "GetNotifications": "s", "GetNotificationsByCategory": "s"}

    def __init__(self, bus):
        self.open, self.shown, self.asked, self.closed = {}, [], [], []
        self.senders = set()
        self.next_id = 1
        self._holding, self._held, self._answer = False, [], None
        super().__init__(bus)

    # --- how it behaves ---

    def answer_with(self, answer):
        """answer(message) is called for each call instead of what this usually does; None: as usual again."""
        self.on_loop(lambda: setattr(self, "_answer", answer))

    def hold(self):
        self.on_loop(lambda: setattr(self, "_holding", True))

    def release(self):
        """Answers what is held back, in order, and holds nothing back any more."""

        def run():
            self._holding = False
            held, self._held = self._held, []
            for message, arguments in held:
                self.on_Notify(message, *arguments)

        self.on_loop(run)

    def wait_for_held(self, count=1):
        until(lambda: len(self._held) == count, f"{count} notifications held back")

    def forget(self):
        """As after a restart: nothing is shown, and the numbers begin again."""

        def run():
            self.open.clear()
            self.next_id = 1

        self.on_loop(run)

    # --- what happens on the screen ---

    def dismiss(self, number, reason=2):
        """Closes one as the user does."""
        self.on_loop(lambda: self.open.pop(number, None))
        self.emit("NotificationClosed", "uu", number, reason)

    def invoke(self, number, key="default"):
        self.emit("ActionInvoked", "us", number, key)

    def enter(self, number, text):
        self.emit("InputTextSet", "us", number, text)

    def emit(self, member, signature, *arguments):
        signal = dbus.lowlevel.SignalMessage(self.PATH, self.INTERFACE, member)
        signal.append(*arguments, signature=signature)
        self._served.send(signal)

    def wait_for(self, summary):
        """The call of Notify with this summary."""
        return until(lambda: next((shown for shown in list(self.shown) if shown.summary == summary), None),
                     f"the notification \"{summary}\"")

    # --- the calls ---

    def _otherwise(self, message):
        self.senders.add(str(message.get_sender()))
        if self._answer is None:
            return False
        self._answer(message)
        return True

    def on_Notify(self, message, app_name, replaces, icon, summary, body, actions, hints, timeout):
        if self._otherwise(message):
            return
        if self._holding:
            self._held.append((message, (app_name, replaces, icon, summary, body, actions, hints, timeout)))
            return
        number = int(replaces)
        if not number:
            number = self.next_id
            self.next_id = number + 1 if number < 2 ** 32 - 1 else 1
        shown = Shown(number, str(app_name), int(replaces), str(icon), str(summary), str(body), plain(actions),
                      plain(hints), int(timeout), hints)
        self.shown.append(shown)
        self.open.pop(number, None)
        self.open[number] = shown
        self.reply(message, "u", dbus.UInt32(number))

    def on_CloseNotification(self, message, number):
        if self._otherwise(message):
            return
        self.closed.append(int(number))
        self.reply(message, "")
        if self.open.pop(int(number), None):
            signal = dbus.lowlevel.SignalMessage(self.PATH, self.INTERFACE, "NotificationClosed")
            signal.append(number, dbus.UInt32(3), signature="uu")
            self._send(signal)

    def on_GetCapabilities(self, message):
        if not self._otherwise(message):
            self.reply(message, "as", CAPABILITIES)

    def on_GetServerInformation(self, message):
        if not self._otherwise(message):
            self.reply(message, "ssss", *INFORMATION)

    def on_GetNotifications(self, message, app_name):
        self._list(message, app_name, lambda shown: True)

    def on_GetNotificationsByCategory(self, message, category):
        self._list(message, category, lambda shown: shown.hints.get("category") == category)

    def _list(self, message, argument, wanted):
        if self._otherwise(message):
            return
        self.asked.append((str(message.get_member()), str(argument)))
        records = [shown.record() for shown in self.open.values() if wanted(shown)]
        self.reply(message, RECORDS, dbus.Array(records, signature="(susssasa{sv}i)"))
