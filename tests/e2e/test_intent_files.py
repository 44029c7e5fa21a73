"""Files that travel with an intent, through the desktop's own document portal."""

import os

import dbus
import pytest

from invoker import HANDLER, Application, install_handler, strings
from stack.document_portal import DocumentPortal, cannot_run
from stack.waiting import until

CLIENT = "org.example.Client"

pytestmark = pytest.mark.skipif(bool(cannot_run()), reason=cannot_run())


@pytest.fixture
def running(stack):
    stack.define_intent("OpenURI", hints={"mimeContent": ["uri"]})
    portal = DocumentPortal(stack)
    stack.portal = portal
    stack.start()
    yield stack
    portal.close()


def write(stack, name, content="hello\n"):
    """A file of the user's."""
    path = os.path.join(stack.user.home, name)
    with open(path, "w") as file:
        file.write(content)
    os.chown(path, stack.user.uid, stack.user.gid)
    os.chmod(path, 0o600)
    return path


def read(path):
    with open(path) as file:
        return file.read()


def heard(stack, word, app_id=HANDLER):
    return [line for line in stack.sample_files.diary(app_id) if line.startswith(word)]


def in_portal(stack, path, app_id, name):
    return path.startswith(f"{stack.portal.mountpoint}/by-app/{app_id}/") and path.endswith(f"/{name}")


def test_file_of_a_generic_intent(running):
    install_handler(running)
    client = Application(running, CLIENT)
    file = write(running, "letter.txt")
    answer = client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings(file)}, read=[file])
    (shared,) = answer["files"]
    assert in_portal(running, shared, HANDLER, "letter.txt")
    assert heard(running, "read") == [f"read {shared}: hello"]


def test_sandboxed_handler_reads_what_it_cannot_reach(running):
    install_handler(running, sandbox={"Sandboxing": "Enabled"})
    client = Application(running, CLIENT)
    file = write(running, "secret.txt", "for your eyes\n")
    plainly = client.invoke("X-do", {}, {"files": strings(file)})
    assert plainly == {"files": [file]}
    shared = client.invoke("X-do", {"readFiles": strings("files[0]")}, {"files": strings(file)}, read=[file])
    # Its diary lies in the sandbox, but what it prints does not.
    log = running.service.log().splitlines()
    assert f"cannot read {file}: No such file or directory" in log
    assert f"read {shared['files'][0]}: for your eyes" in log


def test_file_of_open_uri(running):
    install_handler(running, intents="OpenURI", main={"MimeType": "text/plain"})
    client = Application(running, CLIENT)
    file = write(running, "a b.txt")
    answer = client.invoke("OpenURI", {"readFiles": strings("uri")}, {"uri": f"file://{file}"}, read=[file])
    assert answer == {"instanceId": HANDLER}
    (line,) = heard(running, "read")
    assert line.endswith("/a b.txt: hello") and f"/by-app/{HANDLER}/" in line


def test_writing_changes_the_callers_file(running):
    install_handler(running, behaviour="write")
    client = Application(running, CLIENT)
    file, other = write(running, "one.txt"), write(running, "two.txt")
    client.invoke("X-do", {"writeFiles": strings("files[0]"), "readFiles": strings("files[1]")},
                  {"files": strings(file, other)}, write=[file], read=[other])
    assert read(file) == "hello\nwritten by the handler\n"
    assert read(other) == "hello\n"
    assert len(heard(running, "wrote")) == 1 and len(heard(running, "cannot write")) == 1


def test_file_of_the_answer(running):
    install_handler(running, behaviour="files")
    client = Application(running, CLIENT)
    answer = client.invoke("X-do", {}, {"a": 1})
    assert answer["a"] == 1
    assert in_portal(running, answer["file"], CLIENT, "answer.txt")
    assert client.sample.run("/bin/cat", answer["file"]) == (0, "from the handler\n")


def test_a_stranger_gets_no_files_back(running):
    install_handler(running, behaviour="files")
    answer = running.control.call("Intents1", "InvokeIntent", "sa{sv}a{sv}", "X-do",
                                  dbus.Dictionary({}, signature="sv"), dbus.Dictionary({}, signature="sv"))
    assert answer["file"].endswith("/.cache/org.example/Sample/answer.txt")


def test_fewer_names_than_files(running):
    install_handler(running)
    client = Application(running, CLIENT)
    file = write(running, "letter.txt")
    assert client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings(file)},
                         read=[file, file]) == ("org.freedesktop.DBus.Error.InvalidArgs",
                                                "Not all file names where provided")
    assert [app[0] for app in running.control.running()[0]] == [CLIENT]


def test_more_names_than_files(running):
    install_handler(running)
    client = Application(running, CLIENT)
    file = write(running, "letter.txt")
    assert client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings(file, file)},
                         read=[file]) == ("org.freedesktop.DBus.Error.Failed", "Operation failed")
    assert "Document portal returned unexpected number of IDs" in running.service.log()
    assert [app[0] for app in running.control.running()[0]] == [CLIENT]


def test_names_without_files_stay(running):
    install_handler(running)
    client = Application(running, CLIENT)
    assert client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings("/a", "b")}) == {
        "files": ["/a", "b"]}


@pytest.mark.parametrize("name", ["directory", "fifo"])
def test_what_is_no_file_starts_nothing(running, name):
    install_handler(running)
    client = Application(running, CLIENT)
    path = os.path.join(running.user.home, name)
    if name == "directory":
        os.mkdir(path)
    elif name == "fifo":
        os.mkfifo(path)
        os.chmod(path, 0o666)
        os.close(os.open(path, os.O_RDWR | os.O_NONBLOCK))
    if os.path.isdir(path):
        os.chown(path, running.user.uid, running.user.gid)
    write_side = os.open(path, os.O_RDWR | os.O_NONBLOCK) if name == "fifo" else None
    try:
        answer = client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings(path)}, read=[path])
    finally:
        if write_side is not None:
            os.close(write_side)
    assert answer == ("org.freedesktop.DBus.Error.Failed", "Operation failed")
    assert "Failed to add file to portal." in running.service.log()
    assert [app[0] for app in running.control.running()[0]] == [CLIENT]


def test_every_descriptor_is_closed(running):
    install_handler(running, behaviour="files")
    client = Application(running, CLIENT)
    files = [write(running, f"{number}.txt") for number in range(10)]

    def descriptors():
        return len(os.listdir(f"/proc/{running.service.pid}/fd"))

    def ask():
        return client.invoke("X-do", {"readFiles": strings("files[*]")}, {"files": strings(*files)}, read=files)

    ask()
    before = descriptors()
    for _ in range(20):
        assert len(ask()["files"]) == 10
    until(lambda: descriptors() <= before, "all descriptors to be closed", detail=lambda: f"{descriptors()}, {before}")


def test_portal_is_gone(running):
    install_handler(running)
    client = Application(running, CLIENT)
    file = write(running, "letter.txt")
    running.portal.close()
    until(lambda: not running.session_bus.owner("org.freedesktop.portal.Documents"), "its end")
    assert client.invoke("X-do", {"readFiles": strings("files[0]")}, {"files": strings(file)}, read=[file]) == (
        "org.freedesktop.DBus.Error.Failed", "Operation failed")
