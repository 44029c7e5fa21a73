"""The chapter of ./dev run in which this machine's memory really falls below a threshold."""

import re

from . import client_story
from .client import ACTIVE, HIDDEN, BusError
from .memory import ENOUGH_MB, MEGABYTE, Hog, Others, available_kb
from .process import is_running
from .telling import chapter, line, wait_status
from .waiting import until

VICTIM, SECOND, SEEN = "org.example.Album", "org.example.Reader", "org.example.Sample"
HELD_MB = 600 # by the application that is to fall
MARGIN_MB = 400 # to be taken before it gets critical
CRITICAL_INTERVAL_MS = 1000


def tell(stack):
    chapter("Memory runs short")
    if available_kb() < ENOUGH_MB * MEGABYTE:
        line("left out", f"less than {ENOUGH_MB} MB of memory are available on this machine")
        return
    with Hog(limit_mb=1200) as hog, Others(hog.pid) as others:
        try:
            _tell(stack, hog, others)
        except (AssertionError, BusError):
            # The story needs to be the only one that takes much memory, for these few seconds.
            disturbance = others.disturbed(MARGIN_MB // 2)
            if not disturbance:
                raise
            line("given up", disturbance)


def _tell(stack, hog, others):
    _configure(stack)
    _start(stack, others)
    monitor = stack.monitor()
    _fall(stack, hog, "low")
    _told(stack)
    _fall(stack, hog, "critical")
    selected = monitor.wait_for("SelectedByOom")[-1].arguments[0]
    hog.end()
    line("signal", f"SelectedByOom {selected}")
    details = monitor.wait_for("Terminated", selected)[-1].arguments[1]
    line("signal", f"Terminated {selected}, stop reason {details['StopReason']} (killed for memory)")
    line("exit", wait_status(details["ExitStatus"]))
    if (selected, details["StopReason"]) != (VICTIM, 6):
        raise AssertionError("the one that has been hidden longest should have been killed for memory")
    client_story.history(stack, VICTIM, "early-oom ")
    _recovered(stack)
    _not_for_real(stack)


def _configure(stack):
    available_mb = available_kb() // MEGABYTE
    # Below what is left when the applications have taken theirs.
    critical_mb = available_mb - HELD_MB - 50 - MARGIN_MB
    low_mb = critical_mb + 150
    stack.memory.configure(CheckIntervalMsec=200, CheckIntervalMsecLowMem=200, NotificationUnfreezeMsec=1000,
                           CheckIntervalMsecCriticalMem=CRITICAL_INTERVAL_MS, LowMemoryTermMB=low_mb,
                           MinMemoryTermMB=critical_mb)
    line("available", f"{available_mb} MB, by this machine's own meminfo")
    line("thresholds", f"low below {low_mb} MB, critical below {critical_mb} MB, from this stack's own oom.cfg")


def _start(stack, others):
    unsandboxed = {"Sandboxing": "Disabled"}
    stack.install_sample(VICTIM, arguments=f"--hold {HELD_MB} --memory-pressure", sandbox=unsandboxed)
    stack.install_sample(SECOND, sandbox=unsandboxed)
    stack.install_sample(SEEN)
    stack.start()
    others.add(stack.service.pid)
    for app in (VICTIM, SECOND, SEEN):
        started = stack.control.start(app)
        stack.sample(app)
        if app == VICTIM:
            until(lambda: "subscribed" in stack.sample_files.diary(VICTIM), "the application to subscribe")
        stack.control.update_windows(app, active=1)
        what = "active"
        if app != SEEN:
            if stack.control.update_windows(app, hidden=1) != HIDDEN:
                raise AssertionError(f"{app} should be hidden")
            until(lambda: stack.freezer_state(app) == "FROZEN", "the freezing of the group")
            what = "hidden and frozen" if stack.hierarchies.is_real("freezer") else "hidden"
        line(app, f"pid {started.pid}, {what}" + (f", holds {HELD_MB} MB" if app == VICTIM else ""))
    stack.service.wait_for_log("Memory level: ")


def _fall(stack, hog, level):
    """Takes memory until the service sees the level."""
    if not hog.take_until(lambda: f"Memory level: {level}" in stack.service.log()):
        stack.service.wait_for_log(f"Memory level: {level}")
    line("level", f"{level}, now that a program has taken {hog.megabytes} MB")


def _told(stack):
    """The hidden application has subscribed, and is let run for a moment to hear it."""
    heard = "memory 100 org.kestrix.Procwarden.MemoryPressure1"
    until(lambda: heard in stack.sample_files.diary(VICTIM), "the level to be heard")
    line("told", f"{VICTIM}, hidden, wrote \"{heard}\"")
    until(lambda: stack.freezer_state(VICTIM) == "FROZEN", "the end of the moment")
    if stack.hierarchies.is_real("freezer"):
        line("freezer", "had let it run for that moment, and reads FROZEN again")
    else:
        line("freezer", "there is none behind it here, so nothing had to be thawed for this")


def _recovered(stack):
    until(lambda: re.findall(r"Memory level: (\w+)", stack.service.log())[-1] != "critical", "the recovery",
          detail=stack.service.log)
    kills = re.findall(r"^Early OOM: killing .*, pid .*$", stack.service.log(), re.MULTILINE)
    for text in kills:
        line("log", text)
    if len(kills) > 1:
        line("", f"the next kill is due {CRITICAL_INTERVAL_MS} ms after the first, as the next look at the memory is,")
        line("", "and comes before it: so one more fell, although enough was free again")
    line("level", f"{re.findall(r'Memory level: (.*)', stack.service.log())[-1]}, "
         f"{available_kb() // MEGABYTE} MB available")
    records = {record[0]: record for record in stack.control.running()[0]}
    if SEEN not in records or records[SEEN][3] != ACTIVE or not is_running(records[SEEN][1]):
        raise AssertionError("the active application should have been spared")
    before = stack.sample_files.ticks(SEEN)
    until(lambda: stack.sample_files.ticks(SEEN) > before + 9, "ticks of the active application")
    line("lives", f"{SEEN}, active, ticks {before}, then {stack.sample_files.ticks(SEEN)}")


def _not_for_real(stack):
    line("not for real", "the thresholds: far above what a device has, since nothing here may really run out,")
    line("", "so the kernel's own killer had no reason to come")
    if not stack.root.real_proc:
        line("", "the scores that applications start with are in files that the kernel does not read")
