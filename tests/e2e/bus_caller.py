"""A process of some user on a bus, which does what a test says and tells what came back."""

import json
import os
import subprocess

PROGRAM = """
import json, os, sys, gi
from gi.repository import Gio, GLib

TYPES = {"call": Gio.DBusMessageType.METHOD_CALL, "reply": Gio.DBusMessageType.METHOD_RETURN,
         "error": Gio.DBusMessageType.ERROR, "signal": Gio.DBusMessageType.SIGNAL}
LIMIT = 60000 # ms
heard = []

def listen(connection, message, incoming):
    if incoming and message.get_message_type() in (TYPES["signal"], TYPES["call"]):
        heard.append([message.get_sender(), message.get_interface(), message.get_member()])
    return message

def connect(address):
    connection = Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
        None, None)
    connection.set_exit_on_close(False)
    connection.add_filter(listen)
    return connection

def build(fields):
    message = Gio.DBusMessage()
    message.set_message_type(TYPES[fields["type"]])
    for name in ("destination", "path", "interface", "member", "error_name"):
        if fields.get(name):
            getattr(message, "set_" + name)(fields[name])
    if fields.get("reply_serial"):
        message.set_reply_serial(fields["reply_serial"])
    if fields.get("body"):
        message.set_body(GLib.Variant.parse(None, fields["body"], None, None))
    return message

def send(fields):
    message = build(fields)
    reply, _ = connection.send_message_with_reply_sync(
        message, Gio.DBusSendMessageFlags.NONE, fields.get("limit", LIMIT), None)
    body = reply.get_body()
    return {"sender": reply.get_sender(), "error": reply.get_error_name() or "",
            "text": body.print_(False) if body else ""}

connection = connect(sys.argv[1])
print(json.dumps({"name": connection.get_unique_name()}), flush=True)
for line in sys.stdin:
    request = json.loads(line)
    if request["do"] == "send":
        try:
            answer = send(request)
        except GLib.Error as error:
            answer = {"sender": "", "error": "none", "text": error.message}
    else:
        answer = list(heard)
        heard.clear()
    print(json.dumps(answer), flush=True)
"""

BUS = "org.freedesktop.DBus"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"


class BusCaller:
    """groups: ids of the groups that it belongs to besides its own. Use as a context manager."""

    def __init__(self, bus, uid, gid=None, groups=()):
        self.uid = uid
        who = [f"--reuid={uid}", f"--regid={uid if gid is None else gid}",
               f"--groups={','.join(map(str, groups))}" if groups else "--clear-groups"]
        self._process = subprocess.Popen(
            ["/usr/bin/setpriv", *who, "--pdeathsig=KILL", "--", "/usr/bin/python3", "-B", "-c", PROGRAM, bus.address],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, cwd="/", env={"PATH": os.environ["PATH"]})
        self.name = self._answer()["name"]

    def _answer(self):
        line = self._process.stdout.readline()
        assert line, f"the caller {self.uid} has ended"
        return json.loads(line)

    def _ask(self, **request):
        self._process.stdin.write(json.dumps(request) + "\n")
        self._process.stdin.flush()
        return self._answer()

    def send(self, **fields):
        """One message, any fields of its header, its body in GVariant's text form; the reply's sender, error and
        text. A message that is refused is answered by the bus, also if it is no call."""
        return self._ask(do="send", **{"type": "call", **fields})

    def ask_bus(self, member, body="", interface=BUS, **fields):
        return self.send(destination=BUS, path="/org/freedesktop/DBus", interface=interface, member=member, body=body,
                         **fields)

    def heard(self):
        """[sender, interface, member] of all signals and calls that have come since the last time."""
        # What the bus has sent before is here before its answer.
        self.ask_bus("GetId")
        return self._ask(do="heard")

    def close(self):
        self._process.stdin.close()
        self._process.wait()
        self._process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def is_refused(answer):
    """By the bus itself, so that nothing has come to whom it was for."""
    return answer["error"] == DENIED and answer["sender"] == BUS
