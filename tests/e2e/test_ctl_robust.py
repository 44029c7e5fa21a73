"""procwardenctl where something is wrong around it: closed pipes, full disks, services that hang or answer nonsense."""

import json
import os
import re
import signal
import socket
import subprocess

import dbus
import dbus.lowlevel
import pytest

import ctl
from stack.bus import ServedConnection
from stack.waiting import LIMIT, until

SAMPLE = "org.example.Sample"
SERVICE = "org.kestrix.Procwarden"


class Service:
    """Stands where the service would, on both buses, and answers each call as it is told."""

    def __init__(self, stack, answers=None):
        self.answers = answers or {} # member -> (signature, arguments), or an error's name and text; else never
        self.calls = []
        self._served = []
        for bus, name in ((stack.session_bus, SERVICE), (stack.system_bus, SERVICE + ".User")):
            served = ServedConnection(bus, lambda message, at=len(self._served): self._handle(message, at))
            served.run(lambda connection, name=name: connection.request_name(name, 0))
            self._served.append(served)

    def _handle(self, message, at):
        if not isinstance(message, dbus.lowlevel.MethodCallMessage):
            return False
        member = message.get_member()
        if message.get_interface() == "org.freedesktop.DBus.Peer":
            return False
        self.calls.append(member)
        answer = self.answers.get(member)
        if isinstance(answer, str):
            self._served[at].connection.send_message(dbus.lowlevel.ErrorMessage(message, *answer.split(" ", 1)))
        elif answer:
            reply = dbus.lowlevel.MethodReturnMessage(message)
            signature, arguments = answer
            if signature:
                reply.append(*arguments, signature=signature)
            self._served[at].connection.send_message(reply)
        return True

    def tell(self, signal_name, signature, *arguments):
        """As a signal of the object that tells of starts and ends."""
        message = dbus.lowlevel.SignalMessage("/org/kestrix/Procwarden/Control1", SERVICE + ".Control1", signal_name)
        message.append(*arguments, signature=signature)
        self._served[0].send(message)

    def close(self):
        for served in self._served:
            served.close()


@pytest.fixture
def fake(request, stack):
    """fake(answers) puts a service there; returns it."""
    def make(answers=None):
        service = Service(stack, answers)
        request.addfinalizer(service.close)
        return service
    return make


# --- output that cannot be written ---


def test_reader_that_goes_ends_it(service):
    # More than a pipe takes, so that it is stopped while it writes.
    for number in range(300):
        service.install_sample(f"org.example.App{number}", main={"Comment": "x" * 500})
    for words in ("apps", "apps --json", "history", "--help"):
        line = f"{ctl.command(service)[0]} {words} | head -n 1"
        shown = subprocess.run(["/bin/bash", "-o", "pipefail", "-c", line], env=ctl.environment(service), text=True,
                               capture_output=True, timeout=LIMIT)
        assert len(shown.stdout.splitlines()) == 1 and shown.stderr == "", words
        assert shown.returncode in (0, 128 + signal.SIGPIPE), words


def test_monitor_ends_when_its_reader_has_gone(service):
    # Even where the signal is ignored, as it is for children of some programs.
    for ignore in ("", "trap '' PIPE; "):
        reading, writing = os.pipe()
        monitor = subprocess.Popen(["/bin/sh", "-c", f"{ignore}exec {ctl.command(service)[0]} monitor"],
                                   env=ctl.environment(service), stdout=writing, stderr=subprocess.PIPE, text=True)
        os.close(writing)
        with os.fdopen(reading) as lines:
            assert "memory" in lines.readline()
        service.control.start(SAMPLE) # something to tell
        status = monitor.wait(LIMIT)
        assert status == (-signal.SIGPIPE if not ignore else ctl.REFUSED)
        assert monitor.stderr.read() == ""
        monitor.stderr.close()
        service.control.terminate(SAMPLE)
        ctl.run(service, "wait", SAMPLE)


def test_full_disk_is_told(stack):
    for words in (["apps"], ["apps", "--json"], ["--help"], ["apps", "--help"], ["--version"]):
        with open("/dev/full", "w") as full:
            result = subprocess.run(ctl.command(stack, *words), env=ctl.environment(stack), stdout=full,
                                    stderr=subprocess.PIPE, text=True, timeout=LIMIT)
        assert (result.returncode, result.stderr) == (
            ctl.REFUSED, "procwardenctl: Cannot write: No space left on device\n"), words


def test_closed_descriptors(stack):
    result = subprocess.run(["/bin/sh", "-c", f"exec {ctl.command(stack)[0]} apps >&- <&-"], text=True,
                            env=ctl.environment(stack), stderr=subprocess.PIPE, timeout=LIMIT)
    assert (result.returncode, result.stderr) == (
        ctl.REFUSED, "procwardenctl: Cannot write: Bad file descriptor\n")


# --- a service that does not answer ---


QUESTIONS = [["list"], ["status", SAMPLE], ["history"], ["memory"], ["explain", SAMPLE], ["tasks", SAMPLE],
             ["stop", SAMPLE], ["windows", SAMPLE, "1", "0", "0"], ["task", "stop", SAMPLE], ["notifications"]]
# These may take as long as whoever decides.
ACTIONS = [["start", SAMPLE], ["start", "--raise", SAMPLE], ["start", SAMPLE, "--uri", "a:b"], ["debug", SAMPLE],
           ["intent", "Start"], ["task", "start", SAMPLE], ["block", SAMPLE], ["unblock", SAMPLE], ["wait", SAMPLE],
           ["wait", SAMPLE, "--timeout", "3600"], ["stop", "--all", SAMPLE]]


def test_service_that_is_stopped(service):
    service.service.child.send(signal.SIGSTOP)
    # All at once, since each waits for as long.
    processes = [subprocess.Popen(ctl.command(service, *words), env=ctl.environment(service), text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE) for words in QUESTIONS + ACTIONS]
    try:
        for words, process in zip(QUESTIONS + ACTIONS, processes):
            out, error = process.communicate(timeout=30 + LIMIT)
            assert (process.returncode, out) == (ctl.TIMED_OUT, ""), words
            assert re.fullmatch(r"procwardenctl: The service does not answer\n"
                                r"procwardenctl: org\.freedesktop\.DBus\.Error\.NoReply: .*\n", error), words
    finally:
        for process in processes:
            process.kill()
            process.communicate()
        # It would do by now what nobody waits for any more.
        service.service.child.stop(signal.SIGKILL)


def test_actions_wait_for_a_service_that_answers_something_else(stack, fake):
    service = fake({"Introspect": ("s", ["<node/>"])})
    waiting = [ctl.Later(stack, *words) for words in ACTIONS]
    try:
        until(lambda: service.calls.count("Introspect") >= 2 * len(ACTIONS), "that they ask how it is, time and again")
        for words, command in zip(ACTIONS, waiting):
            assert command.running and not command.lines, words
    finally:
        for command in waiting:
            command.close()


def test_service_ends_over_the_call(stack, fake):
    service = fake()
    waiting = ctl.Later(stack, "start", SAMPLE)
    until(lambda: service.calls, "the call")
    service.close()
    assert waiting.end() == ctl.NOT_THERE
    assert waiting.lines[0] == "procwardenctl: The service is not running"
    assert waiting.lines[1].startswith("procwardenctl: org.freedesktop.DBus.Error.NoReply: ")


def test_bus_ends_over_the_call(stack, fake):
    service = fake()
    waiting = [ctl.Later(stack, *words) for words in (["start", SAMPLE], ["list"], ["block", SAMPLE])]
    until(lambda: len(service.calls) == len(waiting), "the calls")
    for bus in (stack.session_bus, stack.system_bus):
        bus.daemon.kill()
    for command in waiting:
        assert command.end() == ctl.NOT_THERE, command.lines
        assert command.lines[0] == "procwardenctl: The bus cannot be reached"
        assert command.lines[1].startswith("procwardenctl: org.freedesktop.DBus.Error.")


@pytest.mark.parametrize("place", ["fifo", "fifo[]", "target", "device", "directory", "socket"])
def test_only_files_go_with_an_intent(stack, tmp_path, place):
    path = str(tmp_path / "it")
    if place == "device":
        path = "/dev/null"
    elif place == "directory":
        os.mkdir(path)
    elif place == "socket":
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
    else:
        os.mkfifo(path) # which nobody opens for writing
    option = "--write-file" if place == "target" else "--file"
    result = ctl.run(stack, "intent", "X-do", option, f"{place}={path}", status=ctl.WRONG_USAGE)
    assert result.error.splitlines()[0] == f"procwardenctl: Not a regular file: {path}"


def test_output_of_a_command_does_not_go_with_an_intent(stack):
    line = f"{ctl.command(stack)[0]} intent X-do --file data=<(echo x)"
    shown = subprocess.run(["/bin/bash", "-c", line], env=ctl.environment(stack), text=True, capture_output=True,
                           timeout=LIMIT)
    assert shown.returncode == ctl.WRONG_USAGE
    assert re.match(r"procwardenctl: Not a regular file: /dev/fd/\d+\n", shown.stderr)


# --- answers that are none ---


def variants(*pairs):
    return dbus.Dictionary(dict(pairs), signature="sv")


def nested():
    return variants(("x", dbus.Array([1, 2], signature="i")))


HOSTILE = [
    ("", []),
    ("s", ["text"]),
    ("i", [-1]),
    ("as", [["a", "\x1b[2J"]]),
    ("ay", [dbus.Array([1, 2, 255], signature="y")]),
    ("a{is}", [dbus.Dictionary({1: "x"}, signature="is")]),
    ("a{sv}", [variants()]),
    ("a{sv}", [variants(("Id", -1), ("Pid", "x"), ("State", "\x1b]0;x\x07"), ("Running", "x"), ("Groups", 7),
                        ("Candidates", dbus.Array([1], signature="i")), ("Checks", "x"), ("Counts", "x"),
                        ("Launch", "x"), ("LastEnd", 1.5), ("Level", "x"), ("Percent", float("nan")))]),
    ("aa{sv}", [dbus.Array([variants()], signature="a{sv}")]),
    ("aa{sv}", [dbus.Array([variants(
        ("Id", "\x1b[2J\u202e\n"), ("Pid", dbus.UInt64(2 ** 64 - 1)), ("State", dbus.UInt32(4294967295)),
        ("Since", dbus.Int64(-2 ** 63)), ("MemoryKb", dbus.UInt64(2 ** 64 - 1)), ("CpuMs", dbus.Int64(-1)),
        ("Groups", dbus.Dictionary({"cpu": "\x1b/../x"}, signature="ss")), ("Started", dbus.Int64(2 ** 62)),
        ("Ended", dbus.Int64(-2 ** 62)), ("Decision", "\x1b[31m"), ("Detail", "\x9b2J"), ("OomRank", "\x07"),
        ("Launch", variants(("Asked", "x"), ("FailedAt", "\x1b"), ("Error", "\x1b"), ("Spawned", "x"))),
        ("StartReason", dbus.UInt32(77)), ("RequestorId", "\x1b"))], signature="a{sv}")]),
    ("a(susssasa{sv}i)", [dbus.Array([], signature="(susssasa{sv}i)")]),
    ("(sv)", [("x", dbus.Array([dbus.Array([dbus.Byte(1)], signature="y", variant_level=3)], signature="ay"))]),
    ("sa{sv}u", ["\x1b[2J", variants(("Pid", "x")), dbus.UInt32(3)]),
    ("v", [dbus.String("deep", variant_level=20)]),
]
MEMBERS = ["ListRunning", "GetStatus", "GetHistory", "GetMemory", "Explain", "GetNotifications", "Start", "StartDebug",
           "InvokeIntent", "Terminate", "UpdateWindowStatus", "PreventLaunch", "WaitForNotRunning", "Get", "Stop"]
COMMANDS = [["list"], ["status", SAMPLE], ["history"], ["memory"], ["explain", SAMPLE], ["start", SAMPLE],
            ["start", "--raise", SAMPLE], ["debug", SAMPLE], ["intent", "Start"], ["stop", SAMPLE],
            ["windows", SAMPLE, "1", "0", "0"], ["block", SAMPLE], ["wait", SAMPLE], ["--list-ids"],
            ["task", "stop", SAMPLE], ["task", "stop", f"{SAMPLE}.task_work"], ["notifications"]]


@pytest.mark.parametrize("answer", HOSTILE, ids=lambda answer: answer[0] or "nothing")
def test_answers_that_make_no_sense(stack, fake, answer):
    fake({member: answer for member in MEMBERS})
    for words in COMMANDS:
        for form in ([], ["--json"]):
            result = subprocess.run(ctl.command(stack, *words, *form), env=ctl.environment(stack), text=True,
                                    capture_output=True, timeout=LIMIT)
            assert result.returncode in (ctl.DONE, ctl.REFUSED, ctl.NO_SUCH_ID), (words, result)
            shown = result.stdout + result.stderr
            assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]", shown), (words, shown)
            if form and (result.stdout or result.returncode == ctl.DONE):
                json.loads(result.stdout)


def test_monitor_of_signals_that_make_no_sense(stack, fake):
    service = fake({"Get": ("v", [dbus.Int32(77)]), "GetHistory": ("s", ["x"])})
    monitors = [ctl.Later(stack, "monitor", *form) for form in ([], ["--json"])]
    for monitor in monitors:
        monitor.wait_for("77")
    nonsense = variants(("Pid", "x"), ("State", "\x1b[2J"), ("StartReason", -1), ("RequestorId", "\x9b\u202e"),
                        ("ExitStatus", dbus.UInt64(2 ** 63)), ("Deep", dbus.Array([nested()], signature="a{sv}")))
    for name in ("Started", "Terminated", "StateChanged"):
        service.tell(name, "sa{sv}", "\x1b[2Jid", nonsense)
        service.tell(name, "sa{sv}", "", variants())
        service.tell(name, "i", 3)
    service.tell("SelectedByOom", "s", "\x1b]0;id\x07")
    for monitor in monitors:
        monitor.wait_for("oom")
        assert monitor.running
        # The memory, two of each kind that makes sense to the bus, and the last one.
        assert len(monitor.lines) == 8
        assert not re.search(r"[\x00-\x1f\x7f-\x9f\u202e]", "".join(monitor.lines))
        monitor.close()
    assert all(json.loads(line)["Event"] for line in monitors[1].lines)


def test_monitor_of_a_service_that_does_not_tell_why(stack, fake):
    service = fake({"Get": ("v", [dbus.Int32(0)])})
    monitors = [ctl.Later(stack, "monitor", *form) for form in ([], ["--json"])]
    for monitor in monitors:
        monitor.wait_for("memory")
    service.tell("Terminated", "sa{sv}", SAMPLE, variants(("Pid", dbus.Int32(7)), ("ExitStatus", dbus.Int32(9)),
                                                          ("StopReason", dbus.UInt32(5))))
    service.tell("StateChanged", "sa{sv}", SAMPLE, variants(("State", dbus.UInt32(1))))
    for monitor in monitors:
        monitor.wait_for("state")
        assert len(monitor.lines) == 3 and "ended" in monitor.lines[1], "in their order"
        monitor.close()
    assert monitors[0].lines[1].endswith("  pid 7, signal 9 (SIGKILL), requested")


def test_errors_of_the_service_do_not_reach_the_terminal(stack, fake):
    fake({member: "org.example.Error a\x1b[2J\nb\u202e" for member in MEMBERS})
    for words in (["list"], ["start", SAMPLE], ["monitor"], ["block", SAMPLE], ["notifications"]):
        result = ctl.run(stack, *words, status=ctl.REFUSED)
        assert result.error == "procwardenctl: org.example.Error: a?[2J?b?\n"
