"""Many intents at once, large ones, and peers that leave: nothing is lost, and nothing stays behind."""

import os
import resource
import socket

import dbus
import dbus.lowlevel
import pytest
from gi.repository import Gio, GLib

from invoker import HANDLER, Application, install_handler, invoke, invoke_later, refusal, strings, variants
from stack.waiting import until

FAILED = "org.freedesktop.DBus.Error.Failed"
HANDLER_FAILED = "org.kestrix.Procwarden.Error.HandlerFailed"


def descriptors(stack):
    return len(os.listdir(f"/proc/{stack.service.pid}/fd"))


def resident_kb(stack):
    with open(f"/proc/{stack.service.pid}/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


class Flood:
    """One client that has many calls under way."""

    def __init__(self, stack):
        flags = Gio.DBusConnectionFlags
        self._connection = Gio.DBusConnection.new_for_address_sync(
            stack.session_bus.address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
        self._loop = GLib.MainLoop()
        self._left = 0
        self.answers = {} # number of the call -> every answer that it got

    def call(self, number, name, hints, data):
        self._left += 1
        self._connection.call(
            "org.kestrix.Procwarden", "/org/kestrix/Procwarden/Intents1", "org.kestrix.Procwarden.Intents1",
            "InvokeIntent", GLib.Variant("(sa{sv}a{sv})", (name, hints, data)), None,
            Gio.DBusCallFlags.NONE, 120000, None, self._answered, number)

    def _answered(self, connection, result, number):
        try:
            answer = connection.call_finish(result).unpack()[0]
        except GLib.Error as error:
            answer = error.message
        self.answers.setdefault(number, []).append(answer)
        self._left -= 1
        if not self._left:
            self._loop.quit()

    def wait(self):
        GLib.timeout_add_seconds(120, self._loop.quit)
        self._loop.run()
        assert not self._left, f"{self._left} calls without an answer"

    def close(self):
        self._connection.close_sync(None)


def test_500_at_once(running):
    """To one that is not there yet, so that most of them wait for its launch first."""
    install_handler(running)
    flood = Flood(running)
    for number in range(500):
        flood.call(number, "X-do", {}, {"n": GLib.Variant("i", number)})
    flood.wait()
    flood.close()
    assert flood.answers == {number: [{"n": float(number)}] for number in range(500)}
    assert len(running.control.running()[0]) == 1


def test_nothing_grows(running):
    install_handler(running)
    flood = Flood(running)

    def batch(first):
        for number in range(first, first + 500):
            flood.call(number, "X-do", {}, {"n": GLib.Variant("i", number)})
        flood.wait()

    batch(0)
    batch(500)
    before, kilobytes = descriptors(running), resident_kb(running)
    for first in range(1000, 4000, 500):
        batch(first)
    until(lambda: descriptors(running) <= before, "all descriptors to be closed")
    # A sanitizer keeps what has been freed for a while.
    if "asan" not in running.bin_dir:
        assert resident_kb(running) - kilobytes < 1024
    flood.close()


def test_callers_that_leave(running):
    install_handler(running)
    invoke(running, "X-do")
    before = descriptors(running)
    for _ in range(5):
        flood = Flood(running)
        for number in range(50):
            flood.call(number, "X-do", {}, {"n": GLib.Variant("i", number)})
        flood.close()
    assert invoke(running, "X-do", {}, {"a": "b"}) == {"a": "b"}
    until(lambda: descriptors(running) <= before, "all descriptors to be closed")


@pytest.mark.parametrize("megabytes", [1, 5])
def test_large_data(running, megabytes):
    install_handler(running)
    text = "x" * (megabytes << 20)
    assert invoke(running, "X-do", {}, {"text": text}) == {"text": text}


def test_data_too_large_to_be_passed_on(running):
    install_handler(running)
    text = "x" * (9 << 20) # by a generous estimate, which takes three bytes for each character
    assert refusal(running, "X-do", {}, {"text": text}) == (HANDLER_FAILED, "Message is too large")
    assert refusal(running, "X-undeclared", {}, {"text": text}) == (FAILED, "Message is too large")
    assert running.intent_resolver.asked == []
    assert invoke(running, "X-do", {}, {"a": "b"}) == {"a": "b"}


def test_uri_too_large_to_be_passed_on(running):
    """As long as it comes, it would fit; as a URI, it has three characters for each."""
    running.install_sample("org.example.Reader", sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    uri = "http://example.org/" + "%" * 3_000_000
    assert refusal(running, "OpenURI", {"preferredHandler": "org.example.Reader"}, {"uri": uri}) == (
        FAILED, "Message is too large")
    assert running.control.running() == ([], [])


def test_long_uri_is_not_told_to_all(running):
    running.install_sample("org.example.Reader", sandbox={"Sandboxing": "Disabled"})
    running.control.reload()
    uri = "http://example.org/" + "x" * 1_000_000
    invoke(running, "OpenURI", {"preferredHandler": "org.example.Reader"}, {"uri": uri})
    ((_, _, _, _, details),) = running.control.running()[0]
    assert details == {"Uris": []}


def nested(depth, inner):
    for _ in range(depth):
        inner = variants({"in": inner})
    return inner


@pytest.mark.parametrize("data, answer", [
    (lambda: {"deep": nested(15, "x")}, None),
    (lambda: {"ints": dbus.Array([1, 2], signature="i")}, {"ints": [1, 2]}),
    (lambda: {"bytes": dbus.ByteArray(b"ab")}, {"bytes": "ab"}),
    (lambda: {"mixed": dbus.Array(["a", 1, True], signature="v")}, {"mixed": ["a", 1, True]}),
    (lambda: {"lists": dbus.Array([dbus.Array([1], signature="i")], signature="ai"), "kept": "x"}, {"kept": "x"}),
    (lambda: {"struct": dbus.Struct((1, "a"), signature="is"), "kept": "x"}, {"kept": "x"}),
    (lambda: {"path": dbus.ObjectPath("/a/b"), "signature": dbus.Signature("as"), "kept": "x"}, None),
    (lambda: {"keys": dbus.Dictionary({1: "a"}, signature="is"), "kept": "x"}, {"kept": "x"}),
    (lambda: {"maps": dbus.Array([variants({"a": 1})], signature="a{sv}")}, {"maps": [{"a": 1}]}),
    (lambda: {"empty": strings(), "nothing": variants({})}, {"empty": [], "nothing": {}}),
    (lambda: {"big": dbus.UInt64(2 ** 64 - 1)}, {"big": float(2 ** 64)}),
    (lambda: {"\u0001\n": "\u0007", "": ""}, {"\u0001\n": "\u0007", "": ""}),
])
def test_every_type(running, data, answer):
    install_handler(running)
    got = invoke(running, "X-do", {}, data())
    if answer is None:
        assert set(data()) >= set(got)
    else:
        assert got == answer
    assert invoke(running, "X-do", {}, {"still": "here"}) == {"still": "here"}


@pytest.mark.parametrize("hints", [
    {"preferredHandler": 5},
    {"preferredHandler": strings("org.example.Handler")},
    {"mimeContent": 7, "ignoreHosts": variants({"a": 1}), "showDialog": "maybe", "suppressErrorDialog": strings()},
    {"mimeContent": strings("[", "]", "[x", "a[99999999999]", "..", "*" * 5000)},
    {"readFds": "none", "readFiles": 3, "writeFds": strings("a"), "writeFiles": variants({})},
    {"nested": nested(15, 1)},
    {str(number): "x" for number in range(5000)},
    {"refocusOnReturn": True},
])
def test_odd_hints(running, hints):
    install_handler(running)
    running.intent_resolver.choose(HANDLER)
    try:
        assert invoke(running, "X-do", hints, {"a": "b"}) == {"a": "b"}
    except Exception as error:
        assert hints.get("preferredHandler") and "org.kestrix.Procwarden.Error.HandlerNotFound" in str(error)
    assert invoke(running, "X-do", {}, {"a": "b"}) == {"a": "b"}


def test_odd_descriptors(running):
    """Pipes, a socket, a directory, as many as one message holds: with no portal all fail, and all are closed."""
    install_handler(running)
    client = Application(running, "org.example.Client")
    client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings("/a")}, read=["/dev/null"])
    before = descriptors(running)
    connection = running.session_bus.connect()
    left, right = os.pipe()
    directory = os.open("/", os.O_PATH)
    peer = socket.socket(socket.AF_UNIX)
    for fds in ([left], [right], [directory], [peer.fileno()], [left, right] * 125):
        message = dbus.lowlevel.MethodCallMessage("org.kestrix.Procwarden", "/org/kestrix/Procwarden/Intents1",
                                                  "org.kestrix.Procwarden.Intents1", "InvokeIntent")
        hints = variants({"readFds": dbus.Array([dbus.types.UnixFd(fd) for fd in fds], signature="h"),
                          "readFiles": strings("files[*]")})
        message.append("X-do", hints, variants({"files": strings(*["/a"] * len(fds))}), signature="sa{sv}a{sv}")
        with pytest.raises(dbus.DBusException) as error:
            connection.send_message_with_reply_and_block(message, 30.0)
        assert error.value.get_dbus_name() == FAILED
    connection.close()
    peer.close()
    for descriptor in (left, right, directory):
        os.close(descriptor)
    until(lambda: descriptors(running) <= before, "all descriptors to be closed",
          detail=lambda: f"{descriptors(running)}, {before} before")


def test_many_descriptors_in_flight(running):
    """More than a process may usually have, while the user is asked."""
    if resource.getrlimit(resource.RLIMIT_NOFILE)[1] < 4096:
        pytest.skip("nobody may have so many descriptors here")
    install_handler(running)
    refusal(running, "X-undeclared")
    running.intent_resolver.asked.clear()
    before = descriptors(running)
    held = []
    running.intent_resolver.answer_with(lambda message, _: held.append(message))
    connection = running.session_bus.connect()
    with open("/dev/null") as file:
        hints = variants({"readFds": dbus.Array([dbus.types.UnixFd(file)] * 16, signature="h"),
                          "readFiles": strings("files[*]")})
        for _ in range(100):
            message = dbus.lowlevel.MethodCallMessage("org.kestrix.Procwarden", "/org/kestrix/Procwarden/Intents1",
                                                      "org.kestrix.Procwarden.Intents1", "InvokeIntent")
            message.append("X-undeclared", hints, variants({"files": strings(*["/a"] * 16)}), signature="sa{sv}a{sv}")
            connection.send_message(message)
            connection.flush()
    running.intent_resolver.wait_for(100)
    assert descriptors(running) > 1600
    assert invoke(running, "X-do", {}, {"a": "b"}) == {"a": "b"}
    for message in held:
        running.intent_resolver.on_loop(lambda: running.intent_resolver.fail(message, FAILED, "enough"))
    until(lambda: descriptors(running) <= before + 2, "all descriptors to be closed",
          detail=lambda: f"{descriptors(running)}, {before} before")
    connection.close()


def test_late_answer_of_the_resolver(running):
    install_handler(running)
    held = []
    running.intent_resolver.answer_with(lambda message, _: held.append(message))
    pending = invoke_later(running, "X-undeclared", {}, {"a": "b"})
    running.intent_resolver.wait_for()
    assert invoke(running, "X-do", {}, {"c": "d"}) == {"c": "d"} # nobody else waits for it
    running.intent_resolver.on_loop(lambda: running.intent_resolver.reply(held[0], "sa{sv}", HANDLER, variants({})))
    assert pending.result() == {"a": "b"}
