"""The chapter of ./dev run about background tasks: started, waiting, limited, and there again after a restart."""

import os
import re
import time

import dbus

from . import cgroups
from .mocks import CHARGING, Battery
from .process import is_running
from .service import SESSION_NAME
from .telling import chapter, line
from .user_session import UserSession
from .waiting import until

APP, OTHER = "org.example.Album", "org.example.Thief"
TASKS = "org.kestrix.Procwarden.Tasks1"
LIMIT_S = 2
REASON_AUTOSTART = 2


def tell(stack):
    chapter("Background tasks")
    with Battery(stack, 40) as battery:
        line("battery", "40 %, discharging, by python-dbusmock's UPower")
        session = UserSession(stack)
        try:
            session.start()
        except (AssertionError, OSError) as error:
            session.stop()
            line("not shown", "a scheduled task, since no systemd user manager runs here:")
            line("", str(error).splitlines()[0])
            _tell(stack, battery, None)
            return
        private, stack.session_bus = stack.session_bus, session.bus
        try:
            line("session", "real, a systemd user manager and the message bus that it starts")
            _tell(stack, battery, session)
        finally:
            stack.session_bus = private
            session.stop()


def _tell(stack, battery, session):
    _start_service(stack)
    album, thief = (_application(stack, app) for app in (APP, OTHER))
    _worker(stack, album, thief)
    _condition(stack, album, battery)
    _limit(stack, album)
    _periodic(stack, album)
    if session:
        _scheduled(stack, session)
    _restart(stack)


def _task(stack, kind, arguments="", **keys):
    directory = os.path.join(stack.user.home, ".cache", *APP.rsplit(".", 1))
    program = stack.applications.install_program(APP)
    return {"Type": kind, "Exec": f"{program} --dir {directory} --no-lifecycle {arguments}".rstrip(), **keys}


def _start_service(stack):
    unsandboxed = {"Sandboxing": "Disabled"}
    tasks = {"scan": _task(stack, "worker"), "backup": _task(stack, "worker", Conditions="charging"),
             "sync": _task(stack, "periodic"), "remind": _task(stack, "scheduled", "--exit 0")}
    stack.install_sample(APP, sandbox=unsandboxed, groups={f"X-Task {name}": keys for name, keys in tasks.items()})
    stack.install_sample(OTHER, sandbox=unsandboxed)
    stack.start()
    line(APP, "declares " + ", ".join(f"{name} ({keys['Type']})" for name, keys in tasks.items()))


def _id(name):
    return f"{APP}.task_{name}"


def _application(stack, app):
    _control(stack, "Control1", "Start", "s", app)
    return stack.sample(app)


def _control(stack, object_name, member, signature="", *arguments):
    """As a stranger, whatever bus the session has now."""
    interface = f"org.kestrix.Procwarden.{object_name}"
    connection = stack.session_bus.connect()
    try:
        return connection.call_blocking(SESSION_NAME, "/" + interface.replace(".", "/"), interface, member, signature,
                                        arguments)
    finally:
        connection.close()


def _call(application, member, *arguments):
    """As an application; returns whether it was granted, and what was printed."""
    code, text = application.run("/usr/bin/gdbus", "call", "--session", "--dest", SESSION_NAME, "--object-path",
                                 "/" + TASKS.replace(".", "/"), "--method", f"{TASKS}.{member}", *arguments)
    return code == 0, text.strip()


def _start(application, name, hints="{}", params="@as []"):
    granted, text = _call(application, "Start", _id(name), params, hints)
    if not granted:
        raise AssertionError(text)
    line(f"Start {name}", hints if hints != "{}" else "without hints")


def _running(stack):
    """Name -> (pid, start reason) of the application's tasks."""
    services = _control(stack, "Control1", "GetRunningApplications")[1]
    return {str(name): (int(pid), int(reason)) for app, name, pid, reason, _ in services if app == APP}


def _wait_running(stack, name):
    return until(lambda: _running(stack).get(name), f"the task {name} to run", detail=stack.service.log)


def _wait_ended(stack, name):
    until(lambda: name not in _running(stack), f"the end of the task {name}", detail=stack.service.log)


def _wait_ticks(stack, name):
    until(lambda: "started" in _diary(stack, name), f"the task {name} to come up", detail=stack.service.log)


def _diary(stack, name):
    path = os.path.join(stack.user.home, ".cache", *APP.rsplit(".", 1), f"{_id(name)}.diary")
    if not os.path.exists(path):
        return ""
    with open(path) as file:
        return file.read()


def _worker(stack, album, thief):
    _start(album, "scan")
    pid, _ = _wait_running(stack, "scan")
    _wait_ticks(stack, "scan")
    line("runs", f"pid {pid}, in the sandbox, {len(stack.sandbox_command(pid))} arguments")
    group = (cgroups.of_process(pid)["cpu"] if stack.hierarchies.is_real("cpu")
             else stack.group("cpu", APP, "task_scan"))
    line("group cpu", group)
    granted, text = _call(thief, "Stop", _id("scan"), "true")
    line(f"stop, {OTHER.rpartition('.')[2]}", text.splitlines()[0])
    if granted or not is_running(pid):
        raise AssertionError("an application has stopped another's task")
    granted, text = _call(album, "Stop", _id("scan"), "true")
    _wait_ended(stack, "scan")
    line(f"stop, {APP.rpartition('.')[2]}", f"{text}: the process has ended, and the worker is forgotten")


def _condition(stack, album, battery):
    _start(album, "backup")
    battery.ping()
    stack.system_control.running() # what the battery said before has been heard
    if "backup" in _running(stack):
        raise AssertionError("a task has not waited for its condition")
    line("waits", "its condition \"charging\" does not hold")
    battery.set(41, CHARGING)
    line("battery", "41 %, charging")
    pid, _ = _wait_running(stack, "backup")
    line("runs", f"pid {pid}")
    _call(album, "Stop", _id("backup"), "true")
    _wait_ended(stack, "backup")


def _limit(stack, album):
    started = time.monotonic()
    _start(album, "scan", f"{{'RunningTime': <{LIMIT_S}>}}")
    _wait_running(stack, "scan")
    _wait_ended(stack, "scan")
    text = f'Running time exhausted for task "{_id("scan")}"'
    if text not in stack.service.log():
        raise AssertionError(f"the task has ended for another reason:\n{stack.service.log()}")
    line("log", text)
    line("ended", f"after {time.monotonic() - started:.1f} s")


def _periodic(stack, album):
    _start(album, "sync", "{'Interval': <900>, 'Autostart': <true>}")
    pid, _ = _wait_running(stack, "sync")
    line("runs", f"pid {pid}, at once, and every 900 s from then on")
    _, text = _call(album, "GetAll")
    states = dict(re.findall(r"\('(\w+)', (?:uint32 )?(\d), ", text))
    line("GetAll", ", ".join(f"{name} {state}" for name, state in states.items()))
    if states.get("sync") != "1":
        raise AssertionError(f"the task should be active: {text}")


def _start_scheduled(stack, **hints):
    _control(stack, "Tasks1", "Start", "sasa{sv}", _id("remind"), dbus.Array([], signature="s"),
             dbus.Dictionary(hints, signature="sv"))


def _scheduled(stack, session):
    hours = dbus.Dictionary({"Hours": dbus.Array([3], signature="i")}, signature="sv")
    _start_scheduled(stack, Schedule=hours)
    line("Start remind", "{'Schedule': {'Hours': [3]}}")

    def timers():
        listed = session.manager.run("systemctl", "--user", "list-timers", "--all", "--no-legend",
                                     "procwarden-event-*").stdout
        return [re.sub(r"\s{2,}", "  ", text.strip()) for text in listed.splitlines()]

    timer, = until(timers, "the timer of the event", detail=stack.service.log)
    line("systemd timer", timer)
    before = stack.service.log().count("Started task")
    _start_scheduled(stack, StartTime="2020-01-01T08:00:00")
    line("Start remind", "{'StartTime': '2020-01-01T08:00:00'}: that has passed, so it is due at once")
    until(lambda: stack.service.log().count("Started task") > before, "the task to run", detail=stack.service.log)
    line("runs", re.findall(r"Started task .*", stack.service.log())[-1])
    until(lambda: not timers(), "the end of the timers")
    line("systemd timer", "none any more: the first one went with the request that was replaced")


def _restart(stack):
    first, _ = _wait_running(stack, "sync")
    stack.restart_service()
    until(lambda: not is_running(first), "the end of the task")
    line("restart", f"the service has ended in order, and its task with it; the new one is pid {stack.service.pid}")
    pid, reason = _wait_running(stack, "sync")
    line("runs again", f"sync, pid {pid}, start reason {reason} (stored for a restart)")
    if reason != REASON_AUTOSTART or list(_running(stack)) != ["sync"]:
        raise AssertionError(f"only the stored task should be there again: {_running(stack)}")
    line("exit status", str(stack.service.stop()))
    until(lambda: not is_running(pid), "the end of the task")
