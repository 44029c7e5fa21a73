"""Background tasks of sample applications, and the callers of the task interfaces.

A task runs the sample application in the sandbox. It owns the bus name that is its full task id, and writes its
diary where the application does.
"""

import json
import os
import re

import dbus

import raw
from stack.client import BusError
from stack.service import SESSION_NAME, SYSTEM_NAME
from stack.waiting import until

SAMPLE, OTHER = "org.example.Sample", "org.example.Other"
TASKS = "org.kestrix.Procwarden.Tasks1"
SESSION_INTERFACE = "org.kestrix.Procwarden.TaskInvokerSession1"
PROPERTIES = "org.freedesktop.DBus.Properties"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
FAILED = "org.freedesktop.DBus.Error.Failed"
TASK_NOT_FOUND = "org.kestrix.Procwarden.Error.TaskNotFound"
UNSANDBOXED = {"Sandboxing": "Disabled"}

# One of each type; the names are what the tests call them.
TYPES = {"work": "worker", "often": "periodic", "late": "scheduled", "first": "session-start", "odd": "strange"}


def task_id(name, app_id=SAMPLE):
    return f"{app_id}.task_{name}"


def exec_line(stack, app_id=SAMPLE, arguments=""):
    """Command line of a task that stays until it is stopped."""
    directory = os.path.join(stack.user.home, ".cache", *app_id.rsplit(".", 1))
    program = stack.applications.program(app_id)
    return f"{program} --name {app_id}.@ --dir {directory} --no-lifecycle {arguments}".rstrip()


def task(stack, kind="worker", app_id=SAMPLE, arguments="", line=None, permissions=(), conditions=()):
    """The keys of a task's section."""
    keys = {"Type": kind, "Exec": exec_line(stack, app_id, arguments) if line is None else line}
    for key, values in (("Permissions", permissions), ("Conditions", conditions)):
        if values:
            keys[key] = ";".join(values)
    return keys


def install(stack, app_id=SAMPLE, reload=None, **tasks):
    """Installs an application that runs outside the sandbox, with its tasks: name -> keys of the section.

    Without any: one task of each type. Running services are told.
    """
    tasks = tasks or {name: task(stack, kind, app_id) for name, kind in TYPES.items()}
    stack.applications.install_program(app_id)
    line = f"{stack.applications.program(app_id)} --name {app_id}.Main --no-lifecycle"
    stack.install_sample(app_id, exec_line=line, sandbox=UNSANDBOXED,
                         groups={f"X-Task {name}": keys for name, keys in tasks.items()})
    if stack.service if reload is None else reload:
        stack.control.reload()


def variant_map(values):
    """With the types that values have as D-Bus ones; others as D-Bus's Python binding guesses them."""
    return dbus.Dictionary(values, signature="sv")


# --- as a stranger: a process that the service has not started ---


def call(stack, member, *arguments, signature=""):
    """Returns (signature, arguments) of the reply."""
    return raw.call(stack.session_bus, SESSION_NAME, "Tasks1", member, *arguments, signature=signature)


def start(stack, name="work", params=(), app_id=SAMPLE, **hints):
    assert call(stack, "Start", task_id(name, app_id), dbus.Array(params, signature="s"), variant_map(hints),
                signature="sasa{sv}") == ("", [])


def stop(stack, name="work", disable=True, app_id=SAMPLE):
    assert call(stack, "Stop", task_id(name, app_id), disable, signature="sb") == ("", [])


def error_of(function, *arguments, **options):
    """(name, message) of a call that must fail."""
    try:
        result = function(*arguments, **options)
    except BusError as error:
        return error.name, error.message
    raise AssertionError(f"no error, but {result}")


def register(stack, kind="worker", system=False):
    """Returns path and properties of the type's session."""
    bus, name = (stack.system_bus, SYSTEM_NAME) if system else (stack.session_bus, SESSION_NAME)
    signature, (path, properties) = raw.call(bus, name, "TaskInvoker1", "RegisterInvoker", kind, signature="s")
    assert signature == "oa{sv}"
    return str(path), properties


class Invoker:
    """A registered task invoker, on the session bus unless system is true."""

    def __init__(self, stack, kind="worker", system=False):
        self.path, self.properties = register(stack, kind, system)
        self._bus, self._name = ((stack.system_bus, SYSTEM_NAME) if system
                                 else (stack.session_bus, SESSION_NAME))

    def call(self, member, *arguments, signature="", interface=SESSION_INTERFACE):
        """Returns (signature, arguments) of the reply."""
        return raw.call_path(self._bus, self._name, self.path, interface, member, *arguments,
                             signature=signature)

    def start(self, name="work", params=None, environment=None, app_id=SAMPLE, **hints):
        """The pid, 0 if it waits."""
        startup = {key: dbus.Array(values, signature="s")
                   for key, values in (("Params", params), ("Environment", environment)) if values is not None}
        signature, (pid,) = self.call("Start", task_id(name, app_id), variant_map(startup), variant_map(hints),
                                      signature="sa{sv}a{sv}")
        assert signature == "i"
        return int(pid)

    def stop(self, name="work", app_id=SAMPLE):
        assert self.call("Stop", task_id(name, app_id), signature="s") == ("", [])

    def property(self, name):
        """The value as the bus has it."""
        signature, (value,) = self.call("Get", SESSION_INTERFACE, name, signature="ss", interface=PROPERTIES)
        assert signature == "v"
        return value

    def active(self):
        """Full task id -> pid, in order."""
        return {str(record[0]): int(record[1]) for record in self.property("ActiveTasks")}

    def available(self):
        return [str(record[0]) for record in self.property("AvailableTasks")]


# --- as an application ---


class Application:
    """A running application; it calls with GLib's own tool, in a process of its own."""

    def __init__(self, stack, app_id=SAMPLE):
        started = stack.control.start(app_id)
        self.id, self.pid = app_id, started.pid
        self.sample = stack.sample(app_id)

    def gdbus(self, path, method, *arguments):
        """Arguments in GLib's text form. Returns exit code and output."""
        return self.sample.run("/usr/bin/gdbus", "call", "--session", "--dest", SESSION_NAME, "--object-path", path,
                               "--method", method, *arguments)

    def call(self, member, *arguments):
        """Of the tasks interface; what is printed."""
        code, text = self.gdbus("/org/kestrix/Procwarden/Tasks1", f"{TASKS}.{member}", *arguments)
        if code != 0:
            found = re.match(r"Error: GDBus\.Error:([\w.]+): ([^\n]*)\n", text)
            assert found, text
            raise BusError(*found.groups())
        return text.strip()

    def start(self, name="work", hints="{}", params="@as []", app_id=None):
        assert self.call("Start", task_id(name, app_id or self.id), params, hints) == "()"

    def stop(self, name="work", disable=True, app_id=None):
        assert self.call("Stop", task_id(name, app_id or self.id), "true" if disable else "false") == "()"

    def states(self):
        """Name -> 1 or 0, in order."""
        text = self.call("GetAll")
        assert text.startswith("({'State': <") and text.endswith(">},)"), text
        return {name: int(number) for name, number in re.findall(r"\('(\w+)', (?:uint32 )?(\d), ", text)}

    def listen(self):
        """From now on "StateChanged" goes to the application's own connection, whose unique name is returned."""
        self.sample.call_service(f"{SESSION_NAME} /org/kestrix/Procwarden/Tasks1 {TASKS} GetAll")


# --- looking ---


def services(stack):
    """Full task id -> (pid, start reason) of all that run."""
    return {f"{app}.task_{name}": (pid, reason) for app, name, pid, reason, _ in stack.control.running()[1]}


def is_running(stack, name="work", app_id=SAMPLE):
    return task_id(name, app_id) in services(stack)


def wait_running(stack, name="work", app_id=SAMPLE):
    """Returns a client of the task's process, once it answers."""
    identifier = task_id(name, app_id)
    until(lambda: identifier in services(stack), f"{identifier} to run", detail=stack.service.log)
    return stack.sample(identifier, identifier)


def wait_ended(stack, name="work", app_id=SAMPLE):
    until(lambda: not is_running(stack, name, app_id), f"the end of {task_id(name, app_id)}",
          detail=stack.service.log)


def settings_file(stack):
    return os.path.join(stack.user.home, ".config", "procwarden", "user-settings.json")


def stored(stack):
    """Full task id -> what is stored for it; nothing, while the file is not as the service writes it."""
    try:
        with open(settings_file(stack)) as file:
            content = json.load(file)
    except (OSError, ValueError, RecursionError):
        return {}
    return content.get("autostartedTasks", {}) if isinstance(content, dict) else {}
