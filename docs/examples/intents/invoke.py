#!/usr/bin/python3
"""Has the lines of a file counted, by whoever does that."""

import sys

import dbus

intents = dbus.Interface(
    dbus.SessionBus().get_object("org.kestrix.Procwarden", "/org/kestrix/Procwarden/Intents1", introspect=False),
    "org.kestrix.Procwarden.Intents1")

path = sys.argv[1]
with open(path) as file:
    hints = dbus.Dictionary({
        "readFds": dbus.Array([dbus.types.UnixFd(file)], signature="h"), # the file itself
        "readFiles": dbus.Array(["files[0]"], signature="s"), # where its name stands
    }, signature="sv")
    data = dbus.Dictionary({"files": dbus.Array([path], signature="s")}, signature="sv")
    try:
        # The user may have to choose, and the handler to start: there is no hurry.
        answer = intents.InvokeIntent("X-Count", hints, data, signature="sa{sv}a{sv}", timeout=300)
    except dbus.DBusException as error:
        sys.exit(f"{error.get_dbus_name()}: {error.get_dbus_message()}")
print(int(answer["lines"]))
