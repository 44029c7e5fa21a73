"""Calls as large as the bus takes them. An answer that is larger would end the service's connection, and the service."""

import json
import subprocess

import pytest

from stack import bus
from stack.waiting import LIMIT

SAMPLE = "org.example.Sample"
# Each call is made with as many digits at the end of its id as fit.
CALLS = [
    ("Introspect1", "Explain", "s", "instance_", [], "InvalidArgs"),
    ("Introspect1", "GetStatus", "s", "instance_", [], ""),
    ("Introspect1", "GetHistory", "su", "instance_", [0], ""),
    ("WindowManagement1", "UpdateWindowStatus", "siii", "instance_", [1, 0, 0], "Failed"),
]
PROGRAM = """
import json, sys, dbus, dbus.bus, dbus.lowlevel

LARGEST = 32 << 20 # bytes of a message, where nothing else is configured
NAME = "org.kestrix.Procwarden"

def padded(size, unit=8):
    return -(-size // unit) * unit

def header_size(fields, signature):
    size = 16
    for text in fields:
        size = padded(size) + 9 + len(text)
    return padded(padded(size) + 6 + len(signature))

def answer(interface, member, signature, begin, more):
    interface = NAME + "." + interface
    fields = (NAME, "/" + interface.replace(".", "/"), interface, member)
    def message(text):
        call = dbus.lowlevel.MethodCallMessage(*fields)
        call.append(text, *more, signature=signature)
        return call
    digits = LARGEST - header_size(fields, signature) - len(begin) - 4 - 1 - 16 * len(more)
    try:
        connection.send_message_with_reply_and_block(message(begin + digits * "7"), LIMIT)
    except dbus.DBusException as error:
        return error.get_dbus_name().rpartition(".")[2]
    return ""

LIMIT = float(sys.argv[1])
connection = dbus.bus.BusConnection(dbus.bus.BusConnection.TYPE_SESSION)
connection.set_exit_on_disconnect(False)
print(answer(*json.loads(sys.argv[2])))
"""


@pytest.fixture
def limited(monkeypatch, request):
    """A service whose session bus takes no more than any bus does."""
    monkeypatch.setitem(bus.LIMITS, "session", "")
    return request.getfixturevalue("service")


def ask_all(run):
    for interface, member, signature, kind, more, error in CALLS:
        call = interface, member, signature, f"{SAMPLE}.{kind}", more
        text = run(["/usr/bin/python3", "-B", "-c", PROGRAM, str(LIMIT), json.dumps(call)])
        assert text.strip() == error, call


def test_ids_of_a_system_component(limited):
    def run(command):
        return subprocess.run(command, env={"DBUS_SESSION_BUS_ADDRESS": limited.session_bus.address}, check=True,
                              stdout=subprocess.PIPE, text=True).stdout
    ask_all(run)
    assert limited.control.running() == ([], [])


def test_ids_of_an_application(limited):
    """They are its own, so that it may ask about them."""
    limited.install_sample(sandbox={"Sandboxing": "Disabled"})
    limited.control.reload()
    started = limited.control.start(SAMPLE)
    application = limited.sample(SAMPLE)

    def run(command):
        code, text = application.run(*command)
        assert code == 0, text
        return text
    ask_all(run)
    (found,) = limited.control.call("Introspect1", "ListRunning")
    assert found["Pid"] == started.pid
