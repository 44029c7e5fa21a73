"""procwarden mock template

Stands in for the application runtime service in an application's own tests: the interfaces that an application sees,
with the errors of the service, and without processes, sandboxes or time.

    python3 -m dbusmock --template /usr/share/procwarden/dbusmock/procwarden.py --parameters '{"application": "..."}'

Parameters, all optional:

- "application": id of the application under test. It counts as running from the beginning, and every call as its own.
  Without it, every call is that of a process that the service has not started, which may do everything.
- "applications": ids of the others that are installed. Without it every id is, if it is one at all.
- "tasks": name -> type of the tasks that the application declares.

What happens to it is said by methods on org.freedesktop.DBus.Mock of the object /org/kestrix/Procwarden/Control1; each
of them is described at its function below. What has been called is told by dbusmock's GetMethodCalls on each object.
"""

import re

import dbus
import dbus.service
from dbusmock import MOCK_IFACE, get_object

PREFIX = "org.kestrix.Procwarden."
BUS_NAME = "org.kestrix.Procwarden"
MAIN_IFACE = PREFIX + "Control1"
MAIN_OBJ = "/org/kestrix/Procwarden/Control1"
SYSTEM_BUS = False

LIFECYCLE, MEMORY, WINDOWS = PREFIX + "Lifecycle1", PREFIX + "MemoryPressure1", PREFIX + "WindowManagement1"
TASKS, INVOKER, SESSION = PREFIX + "Tasks1", PREFIX + "TaskInvoker1", PREFIX + "TaskInvokerSession1"
INTENTS, HANDLER, INTROSPECT = PREFIX + "Intents1", PREFIX + "IntentHandler1", PREFIX + "Introspect1"

LAUNCHED, ACTIVE, INACTIVE, HIDDEN, TERMINATING = range(5)
NO_STATE = 255
STOPPED_ITSELF, REQUESTED, OOM_KILLED = 0, 5, 6
START_INTENT, DIRECT_START = 1, 4
NORMAL, LOW, CRITICAL = 0, 100, 200
SIGTERM, SIGKILL = 15, 9
FIRST_PID = 100001 # no process of most machines, lest somebody signals it
MAXIMUM_TASKS = 5
ENDS_IN_STATUS = 5
SHORT_TASK = 60 # seconds that a periodic or scheduled task may run at most
SHORTEST_INTERVAL = 15 * 60

DBUS_ERROR, OWN_ERROR = "org.freedesktop.DBus.Error.", PREFIX + "Error."
HINTS = {"StartDelay", "Interval", "RunningTime", "Priority", "StartTime", "Schedule", "Autostart", "CreateIPCSocket"}

world = None # what the service knows; made by load()


def error(name, message=""):
    prefix = OWN_ERROR if name.startswith(("Application", "Handler", "Process", "Task")) else DBUS_ERROR
    return dbus.exceptions.DBusException(message, name=prefix + name)


def variants(content=()):
    return dbus.Dictionary(content, signature="sv")


def strings(content=()):
    return dbus.Array(content, signature="s")


def path_of(interface):
    return "/" + interface.replace(".", "/")


def application_of(identifier):
    """Of an instance or a task, too."""
    return re.sub(r"\.(instance_\d*|task_\w+)$", "", identifier)


class Application:
    def __init__(self, pid, reason, requestor):
        self.pid, self.reason, self.requestor = pid, reason, requestor
        self.state = LAUNCHED
        self.windows = (0, 0, 0)


class Request:
    """For a task to be run; pid is 0 while it waits."""

    def __init__(self):
        self.pid = 0


class World:
    """What runs and what is asked for, and the signals of its changes."""

    def __init__(self, mock, parameters):
        self.mock = mock
        self.owner = self.application = str(parameters.get("application", "")) # of the tasks; who calls
        self.installed = parameters.get("applications")
        self.tasks = {str(name): str(kind) for name, kind in dict(parameters.get("tasks", {})).items()}
        self.running, self.requests, self.ends = {}, {}, []
        self.refused, self.answers, self.sessions = {}, {}, {}
        self.listens = self.listens_to_tasks = self.subscribed = False
        self.level = NORMAL
        self.next_pid = FIRST_PID
        if self.application:
            self.running[self.application] = Application(self.pid(), DIRECT_START, "")

    def pid(self):
        self.next_pid += 1
        return dbus.Int32(self.next_pid - 1)

    def signal(self, interface, name, signature, *arguments, path=None):
        # The service sends some of them to one connection only; who listens cannot tell the difference.
        self.mock.EmitSignalDetailed(interface, name, signature, arguments, {"path": path or path_of(interface)})

    def changed(self, interface, name, value, path=None):
        """A property, with the standard signal."""
        path = path or path_of(interface)
        get_object(path).props[interface][name] = value
        self.signal(dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as", interface, variants({name: value}),
                    strings(), path=path)

    # --- applications ---

    def is_installed(self, app_id):
        if app_id and app_id == self.owner:
            return True
        if self.installed is not None:
            return app_id in self.installed
        return re.fullmatch(r"[0-9a-z._-]+\.[A-Za-z_-][A-Z0-9a-z_.-]*", app_id) is not None

    def start(self, app_id, reason=DIRECT_START):
        if app_id in self.refused:
            name, message = self.refused[app_id]
            raise dbus.exceptions.DBusException(message, name=name)
        if not self.is_installed(app_id):
            raise error("HandlerNotFound", f"Cannot find application {app_id}")
        if app_id in self.running:
            terminating = self.running[app_id].state == TERMINATING
            raise error("ApplicationTerminating" if terminating else "ApplicationAlreadyRunning")
        started = self.running[app_id] = Application(self.pid(), reason, self.application)
        details = self.start_details(started)
        self.signal(MAIN_IFACE, "Started", "sa{sv}", app_id, variants({**details, "Uris": strings()}))
        return app_id, details

    @staticmethod
    def start_details(application):
        return variants({"Pid": application.pid, "StartReason": dbus.UInt32(application.reason),
                         "RequestorId": application.requestor})

    def find(self, app_id):
        if app_id not in self.running:
            raise error("Failed", f"Application not running: {app_id}")
        return self.running[app_id]

    def set_state(self, app_id, state):
        application = self.find(app_id)
        if application.state == state:
            return
        application.state = state
        self.signal(MAIN_IFACE, "StateChanged", "sa{sv}", app_id, variants({"State": dbus.UInt32(state)}))
        if app_id == self.application and self.listens:
            self.signal(LIFECYCLE, "StateChanged", "su", app_id, dbus.UInt32(state))

    def end(self, app_id, status, reason, requestor=None):
        ended = self.find(app_id)
        del self.running[app_id]
        self.ends.insert(0, variants({
            "Id": app_id, "Kind": "application", "Pid": ended.pid, "ExitStatus": dbus.Int32(status),
            "StopReason": dbus.UInt32(reason),
            "Decision": {REQUESTED: "requested", OOM_KILLED: "early-oom"}.get(reason, "exited"), **(requestor or {})}))
        self.signal(MAIN_IFACE, "Terminated", "sa{sv}", app_id, variants({
            "Pid": ended.pid, "ExitStatus": dbus.Int32(status), "StopReason": dbus.UInt32(reason)}))

    def terminate(self, app_id, requestor=None):
        """At once: nothing here takes its time to end."""
        self.set_state(app_id, TERMINATING)
        self.end(app_id, SIGTERM, REQUESTED, requestor)

    # --- tasks ---

    def task_type(self, task_id):
        """None for what nobody declares."""
        app_id, _, name = task_id.partition(".task_")
        return self.tasks.get(name) if app_id == self.owner else None

    def task_states(self):
        """Of the caller's tasks."""
        active = {task_id for task_id, request in self.requests.items() if request.pid}
        states = [(name, dbus.UInt32(f"{self.owner}.task_{name}" in active), variants()) for name in sorted(self.tasks)]
        return dbus.Array(states if self.application == self.owner else [], signature="(sua{sv})")

    def tell_tasks(self):
        if self.listens_to_tasks:
            self.signal(TASKS, "StateChanged", "a(sua{sv})", self.task_states())

    def tell_sessions(self, name):
        for kind, path in self.sessions.items():
            value = self.active_tasks(kind) if name == "ActiveTasks" else self.available_tasks(kind)
            if get_object(path).props[SESSION][name] != value:
                self.changed(SESSION, name, value, path)

    def active_tasks(self, kind):
        return dbus.Array([(task_id, request.pid, variants()) for task_id, request in sorted(self.requests.items())
                           if request.pid and self.task_type(task_id) == kind], signature="(sia{sv})")

    def available_tasks(self, kind):
        details = {"Permissions": strings(), "Conditions": strings()}
        return dbus.Array([(f"{self.owner}.task_{name}", variants(details))
                           for name, of in sorted(self.tasks.items()) if of == kind], signature="(sa{sv})")

    def check_owner(self, task_id, verb):
        if self.application and application_of(task_id) != self.application:
            raise error("AccessDenied", f"Cannot {verb} another app's tasks")

    def start_task(self, task_id, hints):
        self.check_owner(task_id, "start")
        kind = self.task_type(task_id)
        if kind is None:
            raise error("TaskNotFound", f"No such task: {task_id}")
        if len(self.requests) >= MAXIMUM_TASKS:
            raise error("Failed", f"Maximum number of tasks reached for {application_of(task_id)}")
        check_hints(kind, hints)
        self.stop_task(task_id, True)
        self.requests[task_id] = Request()
        # The others wait for what this mock does not have: RunTask says when it has come.
        if not {"StartDelay", "Schedule", "StartTime"} & set(hints):
            self.run_task(task_id)

    def run_task(self, task_id):
        request = self.requests.get(task_id)
        if request is None:
            raise error("TaskNotFound", f"No such task: {task_id}")
        if not request.pid:
            request.pid = self.pid()
            self.tell_tasks()
            self.tell_sessions("ActiveTasks")

    def stop_task(self, task_id, disable):
        request = self.requests.get(task_id)
        if disable:
            self.requests.pop(task_id, None)
        if request and request.pid:
            request.pid = 0
            self.tell_tasks()
            self.tell_sessions("ActiveTasks")

    def finish_task(self, task_id):
        request = self.requests.get(task_id)
        if request is None or not request.pid:
            raise error("Failed", f"Application not running: {task_id}")
        # The signal of the end has the task as active, as that of the service does.
        self.tell_tasks()
        request.pid = 0
        if self.task_type(task_id) == "worker":
            del self.requests[task_id]
        self.tell_sessions("ActiveTasks")


def check_hints(kind, hints):
    """The rules by which the service refuses a request, with its words."""
    rules = [
        (kind in ("periodic", "scheduled") and int(hints.get("RunningTime", 0)) > SHORT_TASK,
         "RunningTime cannot be more than 60 seconds"),
        ("StartDelay" in hints and kind != "worker", "StartDelay not allowed for this task"),
        (int(hints.get("StartDelay", 0)) < 0, "Delay cannot be negative"),
        ("Interval" in hints and kind != "periodic", "Interval not allowed for this task"),
        ("Interval" in hints and int(hints["Interval"]) < SHORTEST_INTERVAL, "Minimum interval is 15 minutes"),
        ("Schedule" in hints and kind != "scheduled", "Schedule not allowed for this task"),
        ("StartTime" in hints and kind != "scheduled", "Start time not allowed for this task"),
    ]
    for is_broken, message in rules:
        if is_broken:
            raise error("InvalidArgs", message)


# --- org.kestrix.Procwarden.Control1 ---


def control_start(_object, app_id, _debug_params=None):
    return world.start(str(app_id))


def control_terminate(_object, app_id):
    who = {"RequestorId": world.application} if world.application else {"RequestorBus": "session"}
    world.terminate(str(app_id), who)


def control_running(_object):
    applications = [(app_id, found.pid, dbus.UInt32(found.reason), dbus.UInt32(found.state),
                     variants({"Uris": strings()})) for app_id, found in sorted(world.running.items())]
    services = [(application_of(task_id), task_id.partition(".task_")[2], request.pid, dbus.UInt32(0), variants())
                for task_id, request in sorted(world.requests.items()) if request.pid]
    return dbus.Array(applications, signature="(siuua{sv})"), dbus.Array(services, signature="(ssiua{sv})")


# --- windows, lifecycle, memory ---


def update_windows(_object, app_id, active, inactive, hidden):
    application = world.find(str(app_id))
    application.windows = (active, inactive, hidden)
    state = (ACTIVE if active > 0 else INACTIVE if inactive > 0 else HIDDEN if hidden > 0 else TERMINATING)
    if state == TERMINATING:
        world.terminate(str(app_id))
    else:
        world.set_state(str(app_id), state)
    return dbus.UInt32(state)


def lifecycle_properties(_object):
    world.listens = True
    if world.application not in world.running:
        raise error("ProcessNotHandled", "Client not handled by the procwarden")
    return variants({"State": dbus.UInt32(world.running[world.application].state)})


def memory_subscribe(_object):
    world.subscribed = world.listens = True


# --- tasks ---


def tasks_state(_object):
    world.listens_to_tasks = True
    return variants({"State": world.task_states()})


def tasks_start(_object, task_id, _params, hints):
    world.listens_to_tasks = True
    if set(hints) - HINTS or not isinstance(hints.get("Autostart", dbus.Boolean(False)), dbus.Boolean):
        raise error("InvalidArgs", "Invalid start hints")
    world.start_task(str(task_id), hints)


def tasks_stop(_object, task_id, disable):
    world.check_owner(str(task_id), "stop")
    world.stop_task(str(task_id), bool(disable))


def register_invoker(_object, kind):
    kind = str(kind)
    if not re.fullmatch(r"\w{1,255}", kind, re.ASCII):
        raise error("InvalidArgs", "Task type cannot be part of an object path")
    path = f"/org/kestrix/Procwarden/TaskInvokerSessions/{kind}"
    properties = variants({"ActiveTasks": world.active_tasks(kind), "AvailableTasks": world.available_tasks(kind)})
    if kind not in world.sessions:
        add_object(path, SESSION, SESSION_METHODS, properties)
        world.sessions[kind] = path
    return dbus.ObjectPath(path), properties


def session_start(_object, task_id, _startup, hints):
    world.start_task(str(task_id), hints)
    return world.requests[str(task_id)].pid


def session_stop(_object, task_id):
    world.check_owner(str(task_id), "stop")
    world.stop_task(str(task_id), True)


# --- intents ---


def invoke_intent(_object, name, hints, data):
    name = str(name)
    if name in world.answers:
        answer = world.answers[name]
        if isinstance(answer, Exception):
            raise answer
        return answer
    if name == "Start":
        app_id = str(hints.get("preferredHandler", ""))
        if not app_id:
            raise error("InvalidArgs", "Missing application ID")
        if app_id not in world.running:
            world.start(app_id, START_INTENT)
        return variants({"instanceId": app_id})
    if name == "OpenURI" and not data.get("uri"):
        raise error("InvalidArgs", "Missing URI")
    # An application is not told why.
    raise error("Failed", "Operation failed") if world.application else error("HandlerNotFound")


# --- org.kestrix.Procwarden.Introspect1 ---


def may_ask(app_id, allowed_empty=False):
    if world.application and application_of(str(app_id)) != world.application and not (allowed_empty and not app_id):
        raise error("AccessDenied", f"Not allowed to ask about {app_id}")


def describe_running(wanted=""):
    found = {}
    for app_id, running in world.running.items():
        active, inactive, hidden = map(dbus.Int32, running.windows)
        found[app_id] = {"Kind": "application", "Pid": running.pid, "State": dbus.UInt32(running.state),
                         "StartReason": dbus.UInt32(running.reason), "RequestorId": running.requestor,
                         "Uris": strings(), "ActiveWindows": active, "InactiveWindows": inactive,
                         "HiddenWindows": hidden}
    for task_id, request in world.requests.items():
        if request.pid:
            found[task_id] = {"Kind": "task", "Pid": request.pid, "State": dbus.UInt32(LAUNCHED),
                              "StartReason": dbus.UInt32(0), "RequestorId": world.application}
    return dbus.Array([variants({"Id": found_id, **details}) for found_id, details in sorted(found.items())
                       if wanted in ("", found_id, application_of(found_id))], signature="a{sv}")


def list_running(_object):
    return describe_running(world.application)


def get_status(_object, app_id):
    may_ask(app_id)
    status = {"Installed": world.is_installed(application_of(str(app_id))), "Running": describe_running(str(app_id)),
              "Launching": False, "Blocked": False}
    ends = ends_of(str(app_id))
    status["History"] = dbus.Array(ends[:ENDS_IN_STATUS], signature="a{sv}")
    return variants({**status, "LastEnd": ends[0]} if ends else status)


def ends_of(asked):
    return [end for end in world.ends if asked in ("", end["Id"], application_of(end["Id"]))]


def get_history(_object, app_id, limit):
    may_ask(app_id, allowed_empty=True)
    return dbus.Array(ends_of(str(app_id) or world.application)[:limit or None], signature="a{sv}")


def get_memory(_object):
    if world.application:
        raise error("AccessDenied", "Not allowed to ask about the memory")
    return variants({"Level": dbus.Int32(world.level), "Candidates": dbus.Array([], signature="a{sv}"),
                     "IntervalMs": dbus.UInt32(0)})


def explain(_object, app_id):
    may_ask(app_id)
    return variants({"Program": "", "Arguments": strings(), "Environment": strings(),
                     "Counts": dbus.Dictionary({}, signature="sau"), "Checks": dbus.Array([], signature="(sbs)")})


# --- the objects ---

# name -> names and types of arguments, of results, and what it does
CONTROL_METHODS = {
    "Reload": ("", "", None),
    "Start": ("appId:s", "sa{sv}", control_start),
    "StartDebug": ("appId:s debugParams:a{sv}", "sa{sv}", control_start),
    "Terminate": ("appInstanceId:s", "", control_terminate),
    "GetRunningApplications": ("", "a(siuua{sv})a(ssiua{sv})", control_running),
}
SESSION_METHODS = {
    "Start": ("fullTaskId:s startupInfo:a{sv} hints:a{sv}", "i", session_start),
    "Stop": ("fullTaskId:s", "", session_stop),
}
OBJECTS = {
    LIFECYCLE: {"GetProperties": ("", "a{sv}", lifecycle_properties)},
    MEMORY: {"Subscribe": ("", "", memory_subscribe)},
    WINDOWS: {"UpdateWindowStatus": ("appId:s activeWindowCount:i inactiveWindowCount:i hiddenWindowCount:i", "u",
                                     update_windows)},
    TASKS: {"GetAll": ("", "a{sv}", tasks_state),
            "Start": ("fullTaskId:s params:as hints:a{sv}", "", tasks_start),
            "Stop": ("fullTaskId:s mustDisable:b", "", tasks_stop)},
    INVOKER: {"RegisterInvoker": ("taskType:s", "oa{sv}", register_invoker)},
    INTENTS: {"InvokeIntent": ("intentName:s hints:a{sv} requestData:a{sv}", "a{sv}", invoke_intent)},
    INTROSPECT: {"ListRunning": ("", "aa{sv}", list_running), "GetStatus": ("id:s", "a{sv}", get_status),
                 "GetHistory": ("id:s limit:u", "aa{sv}", get_history), "GetMemory": ("", "a{sv}", get_memory),
                 "Explain": ("id:s", "a{sv}", explain)},
}
SIGNALS = {
    MAIN_IFACE: {"Started": "appInstanceId:s details:a{sv}", "Terminated": "appInstanceId:s details:a{sv}",
                 "StateChanged": "appInstanceId:s details:a{sv}", "SelectedByOom": "processId:s"},
    LIFECYCLE: {"StateChanged": "appId:s state:u"},
    TASKS: {"StateChanged": "state:a(sua{sv})"},
}


def split(arguments):
    """Names and types of "name:type name:type"."""
    pairs = [argument.split(":") for argument in arguments.split()]
    return [name for name, _ in pairs], "".join(kind for _, kind in pairs)


def add_members(mock, interface, methods):
    for name, (arguments, results, function) in methods.items():
        names, signature = split(arguments)
        mock.AddMethod(interface, name, signature, results, function or "")
        mock.methods[interface][name][3]._dbus_args = names # for who introspects it
    for name, arguments in SIGNALS.get(interface, {}).items():
        names, signature = split(arguments)
        scope = {}
        exec(f"def {name}(self, {', '.join(names)}): pass", scope) # dbus-python reads the names off the function
        signal = dbus.service.signal(interface, signature=signature)(scope[name])
        mock.methods[interface][name] = (signature, "", "", signal)


def add_object(path, interface, methods, properties=()):
    # The methods of an object's first interface would replace those of the same name of every other object.
    world.mock.AddObject(path, dbus.PROPERTIES_IFACE, {}, [])
    mock = get_object(path)
    mock.AddProperties(interface, dict(properties))
    add_members(mock, interface, methods)


def load(mock, parameters):
    global world
    world = World(mock, parameters)
    add_members(mock, MAIN_IFACE, CONTROL_METHODS)
    for interface, methods in OBJECTS.items():
        properties = {"Level": dbus.Int32(NORMAL)} if interface == MEMORY else {}
        add_object(path_of(interface), interface, methods, properties)


# --- what a test says ---


@dbus.service.method(MOCK_IFACE, in_signature="s", out_signature="")
def SetApplication(_self, app_id):
    """Calls are those of this application from now on; empty: of a process that the service has not started."""
    world.application = str(app_id)


@dbus.service.method(MOCK_IFACE, in_signature="su", out_signature="")
def SetState(_self, app_id, state):
    """A running application is launched (0), active (1), inactive (2), hidden (3) or terminating (4)."""
    world.set_state(str(app_id), int(state))


@dbus.service.method(MOCK_IFACE, in_signature="si", out_signature="")
def EndApplication(_self, app_id, status):
    """A running application ends by itself, with a raw status of waitpid: 256 is exit(1), 11 a crash."""
    world.end(str(app_id), int(status), STOPPED_ITSELF)


@dbus.service.method(MOCK_IFACE, in_signature="s", out_signature="")
def KillForMemory(_self, app_id):
    """A running application is selected by the early OOM killer, and ends."""
    world.find(str(app_id))
    world.signal(MAIN_IFACE, "SelectedByOom", "s", str(app_id))
    world.end(str(app_id), SIGKILL, OOM_KILLED)


@dbus.service.method(MOCK_IFACE, in_signature="i", out_signature="")
def SetMemoryLevel(_self, level):
    """0 there is enough, 100 low, 200 critical. Who has subscribed hears it, but not critical while it is hidden."""
    if level not in (NORMAL, LOW, CRITICAL):
        raise error("InvalidArgs", "The level is 0, 100 or 200")
    world.level = level
    running = world.running.get(world.application)
    if world.subscribed and not (level == CRITICAL and running and running.state == HIDDEN):
        world.changed(MEMORY, "Level", dbus.Int32(level))
    else:
        get_object(path_of(MEMORY)).props[MEMORY]["Level"] = dbus.Int32(level)


@dbus.service.method(MOCK_IFACE, in_signature="sss", out_signature="")
def RefuseStart(_self, app_id, name, message):
    """From now on a start of the application fails with this error; an empty name ends that."""
    world.refused[str(app_id)] = (str(name), str(message))
    if not name:
        del world.refused[str(app_id)]


@dbus.service.method(MOCK_IFACE, in_signature="ss", out_signature="")
def DeclareTask(_self, name, kind):
    """The application declares one more task: "worker", "periodic", "scheduled", "session-start" or any other type."""
    world.tasks[str(name)] = str(kind)
    world.tell_sessions("AvailableTasks")


@dbus.service.method(MOCK_IFACE, in_signature="s", out_signature="i")
def RunTask(_self, task_id):
    """The conditions of a task that has been started hold now, so that it runs; returns its pid."""
    world.run_task(str(task_id))
    return world.requests[str(task_id)].pid


@dbus.service.method(MOCK_IFACE, in_signature="s", out_signature="")
def FinishTask(_self, task_id):
    """A task that runs ends by itself. A worker is then forgotten, any other waits for RunTask again."""
    world.finish_task(str(task_id))


@dbus.service.method(MOCK_IFACE, in_signature="sa{sv}", out_signature="")
def SetIntentAnswer(_self, name, data):
    """Whoever invokes the intent gets this answer."""
    world.answers[str(name)] = data


@dbus.service.method(MOCK_IFACE, in_signature="sss", out_signature="")
def SetIntentError(_self, name, error_name, message):
    """Whoever invokes the intent gets this error."""
    world.answers[str(name)] = dbus.exceptions.DBusException(str(message), name=str(error_name))


@dbus.service.method(MOCK_IFACE, in_signature="sa{sv}", out_signature="a{sv}a{sv}",
                     async_callbacks=("answered", "failed"))
def DeliverIntent(self, name, data, answered, failed):
    """Calls the application under test, by its id as a bus name, as a handler of the intent; returns its answer."""
    self.connection.call_async(world.application, path_of(HANDLER), HANDLER, "HandleIntent", "sa{sv}", (name, data),
                               answered, failed)
