"""Measures intents on their way to a handler that runs, beside the same calls straight to it.

intent_way        a generic intent there and back; HandleIntent straight to the handler
intent_selection  the same intent without a wanted handler, so that it is looked for: one of n applications
                  declares it, and opens the type of the file that the request names
intent_residue    descriptors and private memory of the service after 10,000 intents

Prints one line of JSON per figure. PROCWARDEN_BIN_DIR names the programs, an optimised build.
"""

import json
import os
import statistics
import time

from gi.repository import Gio, GLib

from stack import Stack
from stack.waiting import until

HANDLER = "org.example.Handler"
CALLS = 1000
SELECTIONS = 100
APPLICATIONS = (10, 1000, 10_000)
RESIDUE = 10_000
WARM = 500

INTENTS = ("org.kestrix.Procwarden", "/org/kestrix/Procwarden/Intents1", "org.kestrix.Procwarden.Intents1",
           "InvokeIntent")
STRAIGHT = (HANDLER, "/org/kestrix/Procwarden/IntentHandler1", "org.kestrix.Procwarden.IntentHandler1",
            "HandleIntent")
DATA = {"text": GLib.Variant("s", "Hello"), "number": GLib.Variant("d", 1.5)}


def report(**figure):
    print(json.dumps(figure), flush=True)


def connect(stack):
    flags = Gio.DBusConnectionFlags
    return Gio.DBusConnection.new_for_address_sync(
        stack.session_bus.address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)


def timed(connection, target, arguments):
    begin = time.perf_counter()
    connection.call_sync(*target, arguments, None, Gio.DBusCallFlags.NONE, 60000, None)
    return (time.perf_counter() - begin) * 1000


def measure_way(connection):
    through_arguments = GLib.Variant("(sa{sv}a{sv})", ("X-do", {"preferredHandler": GLib.Variant("s", HANDLER)}, DATA))
    straight_arguments = GLib.Variant("(sa{sv})", ("X-do", DATA))
    straight, through = [], []
    for _ in range(CALLS): # in turns, so that what else goes on meets both
        straight.append(timed(connection, STRAIGHT, straight_arguments))
        through.append(timed(connection, INTENTS, through_arguments))
    ours, theirs = statistics.median(through), statistics.median(straight)
    report(bench="intent_way", n=CALLS, ours_ms=ours, theirs_ms=theirs, ratio=ours / theirs)


def install_others(stack, count):
    for number in range(count):
        path = stack.applications.desktop_file(f"org.example.Other{number}")
        if not os.path.exists(path):
            with open(path, "w") as file:
                file.write(f"[Desktop Entry]\nType=Application\nName=Other {number}\nExec=/bin/true %U\n"
                           f"MimeType=image/png;text/x-other{number};\n[X-Sailjail]\nOrganizationName=org.example\n"
                           f"ApplicationName=Other{number}\nIntents=X-other{number % 50};\n")


def measure_selection(stack, connection, count):
    install_others(stack, count - 1)
    stack.control.reload()
    hints = {"mimeContent": GLib.Variant("as", ["uri"])}
    arguments = GLib.Variant("(sa{sv}a{sv})", ("X-do", hints, {"uri": GLib.Variant("s", "file:///a.png")}))
    timed(connection, INTENTS, arguments)
    report(bench="intent_selection", n=count,
           ours_ms=statistics.median(timed(connection, INTENTS, arguments) for _ in range(SELECTIONS)))


def private_kb(pid):
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty:"))


def measure_residue(stack, connection):
    pid = stack.service.pid
    arguments = GLib.Variant("(sa{sv}a{sv})", ("X-do", {"preferredHandler": GLib.Variant("s", HANDLER)}, DATA))

    def invoke(count):
        for _ in range(count):
            timed(connection, INTENTS, arguments)
        return len(os.listdir(f"/proc/{pid}/fd")), private_kb(pid)

    descriptors, kilobytes = invoke(WARM)
    more_descriptors, more_kilobytes = invoke(RESIDUE)
    report(bench="intent_residue", n=RESIDUE, descriptors=more_descriptors - descriptors,
           kilobytes=more_kilobytes - kilobytes)


def main():
    with Stack() as stack:
        stack.install_sample(HANDLER, arguments="--intents echo --no-lifecycle", main={"MimeType": "image/png"},
                             sandbox={"Sandboxing": "Disabled", "Intents": "X-do"})
        stack.start()
        stack.control.start(HANDLER)
        until(lambda: stack.session_bus.owner(HANDLER), "the handler")
        connection = connect(stack)
        measure_way(connection)
        measure_residue(stack, connection)
        for count in APPLICATIONS:
            measure_selection(stack, connection, count)


main()
