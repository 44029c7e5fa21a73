"""procwardenctl monitor, and what the tool does on a terminal."""

import fcntl
import json
import os
import pty
import re
import signal
import struct
import subprocess
import termios

import pytest

import ctl
from stack.waiting import LIMIT, until

SAMPLE = "org.example.Sample"
UNSANDBOXED = {"Sandboxing": "Disabled"}


@pytest.fixture
def sample(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.control.reload()
    return service


@pytest.fixture
def monitors(request):
    """monitors(stack, words...) runs a monitor until the end of the test."""
    opened = []

    def watch(stack, *words, **more):
        monitor = ctl.Later(stack, "monitor", *words, **more)
        opened.append(monitor)
        monitor.wait_for("memory") # from here on it listens
        return monitor

    yield watch
    for monitor in opened:
        monitor.close()


def live(stack):
    """A life of the sample application; returns the pids."""
    first = stack.control.start(SAMPLE)
    client = stack.sample(SAMPLE)
    stack.control.update_windows(SAMPLE, active=1)
    client.quit(3)
    until(lambda: stack.control.running() == ([], []), "its end")
    second = stack.control.start(SAMPLE)
    stack.sample(SAMPLE)
    os.kill(second.pid, signal.SIGSEGV)
    until(lambda: stack.control.running() == ([], []), "its end")
    return first.pid, second.pid


def test_monitor(sample, monitors):
    text, data = monitors(sample), monitors(sample, "--json")
    first, second = live(sample)
    for monitor in (text, data):
        monitor.wait_for("ended", 2)
    # Aligned.
    assert len({re.match(r"\S+  \S+ +(?=org)", line).end() for line in text.lines if "org." in line}) == 1
    ctl.golden("monitor", ctl.normal("\n".join(text.lines) + "\n"))
    events = [json.loads(line) for line in data.lines]
    assert [(event["Event"], event.get("Id")) for event in events] == [
        ("memory", None), ("started", SAMPLE), ("state", SAMPLE), ("ended", SAMPLE), ("started", SAMPLE),
        ("ended", SAMPLE)]
    assert (events[3]["Pid"], events[3]["ExitStatus"], events[3]["StopReason"]) == (first, 3 << 8, 0)
    assert (events[5]["Pid"], events[5]["Decision"], events[5]["Detail"]) == (second, "crashed", "signal 11 (SIGSEGV)")
    assert all(event["Time"] > 0 for event in events)


def test_monitor_tells_of_the_memory(own_memory, monitors):
    own_memory.memory.configure()
    own_memory.install_sample(sandbox=UNSANDBOXED)
    own_memory.start()
    monitor = monitors(own_memory, "--interval", "20")
    own_memory.control.start(SAMPLE)
    own_memory.memory.set_level("low")
    monitor.wait_for(r"memory .*low$")
    own_memory.memory.set_level("critical")
    monitor.wait_for(rf"oom .*{SAMPLE} .*is killed for lack of memory$")
    monitors(own_memory, "-i", "20") # the same in short
    assert re.search(r"early-oom: memory is Critical, .*; signal 9 \(SIGKILL\)$", monitor.wait_for("ended"))


def test_monitor_tells_who_asked(sample, monitors):
    other = "org.example.Other"
    sample.install_sample(other, sandbox=UNSANDBOXED)
    sample.control.reload()
    sample.control.start(other)
    monitor = monitors(sample)
    control = "org.kestrix.Procwarden /org/kestrix/Procwarden/Control1 org.kestrix.Procwarden.Control1"
    sample.sample(other).call_service(f"{control} Start", SAMPLE)
    assert monitor.wait_for(f"started +{SAMPLE} ").endswith(f", direct start, by {other}")
    sample.sample(SAMPLE)
    sample.sample(other).call_service(f"{control} Terminate", SAMPLE)
    assert monitor.wait_for(f"ended +{SAMPLE} ").endswith(f", requested: exit status 0, by {other}")

    data = monitors(sample, "--json")
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.terminate(SAMPLE)
    who = rf"\(pid {os.getpid()}, (uid \d+, )?session bus\)"
    assert re.search(rf", requested: exit status 0, by \S+ {who}$", monitor.wait_for(f"ended +{SAMPLE} ", 2))
    end = json.loads(data.wait_for('"ended"'))
    assert (end["RequestorBus"], end["RequestorPid"]) == ("session", os.getpid())


def test_monitor_outlives_the_service(sample, monitors):
    monitor = monitors(sample)
    sample.restart_service()
    monitor.wait_for("service .*has gone$")
    monitor.wait_for("service .*runs again$")
    sample.control.start(SAMPLE)
    monitor.wait_for("started")


def test_monitor_tells_of_a_service_that_does_not_answer(sample, monitors):
    text, data = monitors(sample, "-i", "100"), monitors(sample, "-i", "100", "--json")
    sample.service.child.send(signal.SIGSTOP)
    text.wait_for("service .* does not answer$")
    assert json.loads(data.wait_for('"Answers":false'))["Running"] is True
    sample.service.child.send(signal.SIGCONT)
    text.wait_for("service .* answers again$")
    assert json.loads(data.wait_for('"Answers":true'))["Running"] is True
    sample.control.start(SAMPLE)
    for monitor in (text, data):
        monitor.wait_for("started")
        # Told of once each, however long it took.
        assert len(monitor.lines) == 4


def test_monitor_of_a_service_that_does_not_answer_from_the_first(sample):
    sample.service.child.send(signal.SIGSTOP)
    monitor, other = ctl.Later(sample, "monitor"), ctl.Later(sample, "monitor")
    try:
        for each in (monitor, other):
            each.wait_for("service .* does not answer$")
        other.interrupt()
        assert other.end() == -signal.SIGINT
        sample.service.child.send(signal.SIGCONT)
        monitor.wait_for("answers again$")
        monitor.wait_for("memory .*normal$")
        sample.service.stop()
        monitor.wait_for("has gone$")
    finally:
        sample.service.child.send(signal.SIGCONT)
        monitor.close()
        other.close()


def test_monitor_of_a_stopped_service_that_ends(sample, monitors):
    monitor = monitors(sample)
    sample.service.child.send(signal.SIGSTOP)
    monitor.wait_for("does not answer$")
    sample.service.child.stop(signal.SIGKILL)
    monitor.wait_for("has gone$")
    assert monitor.running


# --- on a terminal ---


def on_terminal(stack, *words, columns=200, until_text=None, **more):
    """What it prints on a terminal of so many columns."""
    ours, its = pty.openpty()
    fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    process = subprocess.Popen(ctl.command(stack, *words), env=ctl.environment(stack, TERM="xterm", **more),
                               stdin=subprocess.DEVNULL, stdout=its, stderr=subprocess.PIPE)
    os.close(its)
    text = b""
    try:
        while until_text is None or until_text not in text:
            try:
                part = os.read(ours, 4096)
            except OSError: # the other side has gone
                break
            if not part:
                break
            text += part
    finally:
        if until_text is not None:
            process.terminate()
        os.close(ours)
        process.communicate(timeout=LIMIT)
    return text.decode().replace("\r\n", "\n")


def test_colours_are_for_terminals(sample):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.update_windows(SAMPLE, active=1)
    assert "\x1b[32mactive\x1b[0m" in on_terminal(sample, "list")
    assert "\x1b[32mactive\x1b[0m" in on_terminal(sample, "status", SAMPLE)
    assert "\x1b[32mmemory\x1b[0m" in on_terminal(sample, "monitor", until_text=b"normal")
    assert "\x1b" not in on_terminal(sample, "list", NO_COLOR="1")
    assert "\x1b" not in on_terminal(sample, "list", "--json")
    for words in (["list"], ["status", SAMPLE]):
        assert "\x1b" not in ctl.run(sample, *words).out


def test_table_fits_the_terminal(sample):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    ctl.run_json_of_all(sample)
    for narrow in (on_terminal(sample, "list", columns=72, NO_COLOR="1"),
                   on_terminal(sample, "list", NO_COLOR="1", COLUMNS="72")):
        assert max(len(line) for line in narrow.splitlines()) <= 72 and "…" in narrow
    assert "…" not in on_terminal(sample, "list", NO_COLOR="1")
    assert "…" not in ctl.run(sample, "list", COLUMNS="72").out
