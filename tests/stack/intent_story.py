"""The chapter of ./dev run in which one application opens a file of its own in another."""

import json
import os

import dbus

from .document_portal import DocumentPortal, cannot_run
from .monitor import plain
from .telling import chapter, line
from .waiting import until

WRITER, READER = "org.example.Writer", "org.example.Reader"


def tell(stack):
    chapter("One application opens a file of its own in another")
    if cannot_run():
        line("not shown", cannot_run())
        return
    portal = DocumentPortal(stack)
    line("portal", f"real, /usr/libexec/xdg-document-portal, at {portal.mountpoint}")
    stack.install_sample(WRITER, sandbox={"Sandboxing": "Disabled"})
    stack.install_sample(READER, arguments="--intents echo", sandbox={"Intents": "OpenURI"},
                         main={"MimeType": "text/plain"})
    stack.control.reload()
    stack.control.start(WRITER)
    stack.sample(WRITER)

    file = os.path.join(stack.user.home, "poem.txt")
    with open(file, "w") as poem:
        poem.write("The fog comes on little feet\n")
    os.chown(file, stack.user.uid, stack.user.gid)
    line(WRITER.rpartition(".")[2], f"opens {file}")
    monitor = stack.monitor()
    answer = _open(stack, file)
    started = monitor.wait_for("Started", READER)[-1].arguments[1]
    line("started for it", f"{READER}, pid {started['Pid']}, reason {started['StartReason']}, "
                           f"asked for by {started['RequestorId']}")
    read = until(lambda: [text for text in stack.service.log().splitlines() if text.startswith("read /")],
                 f"{READER} to read the file", detail=stack.service.log)[-1]
    line("Reader, sandboxed", read)
    line("answer", json.dumps(answer))
    if answer != {"instanceId": READER} or f"/by-app/{READER}/" not in read:
        raise AssertionError("the file did not come through the portal")
    for app in (WRITER, READER):
        stack.control.terminate(app)
        monitor.wait_for("Terminated", app)
    portal.close()


def _open(stack, file):
    """As the application that runs: it opens the file and passes it on."""
    empty = dbus.Dictionary({}, signature="sv")
    data = dbus.Dictionary({"uri": f"file://{file}"}, signature="sv")
    connection = stack.session_bus.connect()
    text = plain(connection.call_blocking(
        f"{WRITER}.Main", "/intents", "org.example.SampleIntents1", "Invoke", "sa{sv}a{sv}asas",
        ("OpenURI", empty, data, dbus.Array([file], signature="s"), dbus.Array([], signature="s")), timeout=30))
    connection.close()
    if text.startswith("error"):
        raise AssertionError(text)
    return json.loads(text)
