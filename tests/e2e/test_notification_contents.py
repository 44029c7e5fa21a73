"""What notifications hold: it passes as it is, with all of its types."""

import os
import select

import dbus

from notifier import NAME, call
from stack.notification_server import RECORDS, NotificationServer
from stack.waiting import until

# Every character that the bus takes and a terminal, a log or a line does not.
TEXT = "".join(chr(code) for code in (*range(1, 32), *range(127, 160), 0x200f, 0x202e, 0xfeff, 0x1f600))


def unusual_hints(size, depth):
    """With bytes of this size, and variants in each other to this depth."""
    image = dbus.Struct((64, 64, 256, True, 8, 4, dbus.ByteArray(b"\xff\x00" * 8192)), signature="iiibiiay")
    return dbus.Dictionary({
        "text": TEXT, TEXT: "key", "image-data": image, "bytes": dbus.ByteArray(b"\x00" * size),
        "none": dbus.Array([], signature="v"), "map": dbus.Dictionary({}, signature="ua{s(iv)}"),
        "nested": dbus.Array([dbus.Array([dbus.String("a", variant_level=3)], signature="v")], signature="av"),
        "path": dbus.ObjectPath("/a/b"), "type": dbus.Signature("a{sv}"), "byte": dbus.Byte(255),
        "short": dbus.Int16(-1), "long": dbus.UInt64(2 ** 64 - 1), "no": dbus.Boolean(False),
        "wrapped": dbus.UInt32(7, variant_level=4), "deep": dbus.String("a", variant_level=depth),
        "structure": dbus.Struct((dbus.Struct((dbus.Byte(1), dbus.Struct((True,)))), "s")),
        "infinite": dbus.Double("inf"),
        "by byte": dbus.Dictionary({dbus.Byte(1): dbus.Array([], signature="(iiibiiay)")}),
    }, signature="sv")


def send(stack, summary, hints, name=NAME):
    _, (number,) = call(stack, "Notify", TEXT, 0, TEXT, summary, TEXT, [TEXT, ""], hints, -2 ** 31,
                        signature="susssasa{sv}i", name=name)
    return number


def described(value):
    """A value with all of its types, to the innermost one."""
    level = getattr(value, "variant_level", 0)
    if isinstance(value, (dbus.Dictionary, dbus.Array, dbus.Struct)):
        content = value.items() if isinstance(value, dbus.Dictionary) else value
        signature = None if isinstance(value, dbus.Struct) else str(value.signature)
        return (type(value), level, signature, [described(element) for element in content])
    if isinstance(value, tuple):
        return tuple(described(element) for element in value)
    return (type(value), level, value)


def test_notification_passes_as_it_is(running):
    hints = unusual_hints(2 ** 20, 62) # the bus takes no more levels
    send(running, "Through the service", hints)
    send(running, "Straight", hints, name=NotificationServer.SERVICE)
    passed = running.notification_server.wait_for("Through the service")
    straight = running.notification_server.wait_for("Straight")
    assert (passed.app_name, passed.icon, passed.body, passed.actions, passed.timeout) == (
        TEXT, TEXT, TEXT, [TEXT, ""], -2 ** 31)
    assert len(passed.raw_hints) == len(hints)
    for key, value in straight.raw_hints.items():
        assert described(passed.raw_hints[key]) == described(value), key


def test_list_passes_as_it_is(running):
    """The records of a list are read, some are taken out, and what is left is written again."""
    hints = unusual_hints(2 ** 16, 60) # two levels are the list's own
    for summary in ("One", "Two"):
        send(running, summary, hints, name=NotificationServer.SERVICE)
    for member, argument in (("GetNotifications", TEXT), ("GetNotificationsByCategory", TEXT)):
        server = running.notification_server
        server.answer_with(lambda message: server.reply(message, RECORDS, dbus.Array(
            [shown.record() for shown in server.open.values()], signature="(susssasa{sv}i)")))
        signature, (passed,) = call(running, member, argument, signature="s")
        straight_signature, (straight,) = call(running, member, argument, signature="s",
                                               name=NotificationServer.SERVICE)
        assert signature == straight_signature == RECORDS
        assert [record[3] for record in passed] == ["One", "Two"]
        for record, other in zip(passed, straight):
            for field in (0, 1, 2, 3, 4, 5, 7):
                assert described(record[field]) == described(other[field])
            assert sorted(record[6]) == sorted(other[6])
            for key, value in other[6].items():
                assert described(record[6][key]) == described(value), key


def test_descriptor_is_passed_on(running):
    read_end, write_end = os.pipe()
    send(running, "Descriptor", dbus.Dictionary({"fd": dbus.types.UnixFd(read_end)}, signature="sv"))
    os.close(read_end)
    passed = running.notification_server.wait_for("Descriptor").raw_hints["fd"].take()
    os.write(write_end, b"through")
    assert os.read(passed, 16) == b"through"
    os.close(passed)
    # Nobody else keeps one: those on the way are closed with the messages.
    until(lambda: is_broken(write_end), "the last reading end to be closed")
    os.close(write_end)


def is_broken(write_end):
    """Whether nobody can read any more from the pipe."""
    poll = select.poll()
    poll.register(write_end, 0)
    return any(events & select.POLLERR for _, events in poll.poll(0))
