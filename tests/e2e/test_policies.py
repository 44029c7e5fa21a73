"""Who may do what on the system bus, by the installed policies: the bus's own configuration, several users, the real
service and helper.

The table below names everything that is offered there; a test compares it with what the objects say of themselves.
"""

import os
import pwd
import xml.etree.ElementTree

import pytest
from bus_caller import BusCaller, is_refused
from conftest import bring_up
from installed import InstalledTree
from stack import cgroups
from stack.client import BusError
from stack.service import SYSTEM_NAME
from stack.stack import HELPER_NAME
from stack.waiting import until

PREFIX = "org.kestrix.Procwarden."
SAMPLE = "org.example.Sample"
ABSENT = "org.example.Absent"
BLOCKED = f"{PREFIX}Error.ApplicationBlocked"
SESSION_PATH = "/org/kestrix/Procwarden/TaskInvokerSessions/worker"
CONTROL_PATH = "/org/kestrix/Procwarden/Control1"
HELPER_PATH = "/org/kestrix/Procwarden/Helper"

# No accounts of the machine, and of nobody who could make one here.
PACKAGE_MANAGER, TASK_DAEMON, NEIGHBOUR, STRANGER = range(59981, 59985)

# What a daemon that runs tasks brings along: files add up.
TASK_DAEMON_POLICY = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="taskd">
    <allow send_destination="org.kestrix.Procwarden.User" send_interface="org.kestrix.Procwarden.TaskInvoker1"/>
    <allow send_destination="org.kestrix.Procwarden.User" send_interface="org.kestrix.Procwarden.TaskInvokerSession1"/>
  </policy>
</busconfig>
"""

# The owner is an ordinary process of the user whose service it is; the neighbour another user with sessions. Where root is
# the package manager, the caller of that name is one more stranger.
CALLERS = ("root", "package manager", "task daemon", "owner", "neighbour", "stranger")
ROOT = {"root"}
PACKAGES = {"root", "package manager"}
TASKS = {"root", "task daemon"}
SESSIONS = {"root", "owner", "neighbour"}
EVERYBODY = set(CALLERS)
NOBODY = set()

APP = f"('{ABSENT}',)"
TASK = f"('{ABSENT}.task_sync', @a{{sv}} {{}}, @a{{sv}} {{}})"
PROPERTY = f"('{PREFIX}TaskInvokerSession1', 'ActiveTasks')"

# object, interface, method, arguments, who may call it
SERVICE = [
    ("Control1", None, "Reload", "", ROOT),
    ("Control1", None, "Start", APP, ROOT),
    ("Control1", None, "StartDebug", f"('{ABSENT}', @a{{sv}} {{}})", ROOT),
    ("Control1", None, "Terminate", APP, ROOT),
    ("Control1", None, "GetRunningApplications", "", ROOT),
    ("SystemControl1", None, "PreventLaunch", APP, PACKAGES),
    ("SystemControl1", None, "WaitForNotRunning", APP, PACKAGES),
    ("SystemControl1", None, "Terminate", APP, PACKAGES),
    ("SystemControl1", None, "AllowLaunch", APP, PACKAGES),
    ("TaskInvoker1", None, "RegisterInvoker", "('worker',)", TASKS),
    (SESSION_PATH, f"{PREFIX}TaskInvokerSession1", "Start", TASK, TASKS),
    (SESSION_PATH, f"{PREFIX}TaskInvokerSession1", "Stop", f"('{ABSENT}.task_sync',)", TASKS),
    (SESSION_PATH, "org.freedesktop.DBus.Properties", "Get", PROPERTY, ROOT),
    (SESSION_PATH, "org.freedesktop.DBus.Properties", "GetAll", f"('{PREFIX}TaskInvokerSession1',)", ROOT),
    (SESSION_PATH, "org.freedesktop.DBus.Properties", "Set", PROPERTY[:-1] + ", <1>)", ROOT),
    ("Control1", "org.freedesktop.DBus.Introspectable", "Introspect", "", EVERYBODY),
    ("Control1", "org.freedesktop.DBus.Peer", "Ping", "", EVERYBODY),
    ("Control1", "org.freedesktop.DBus.Peer", "GetMachineId", "", EVERYBODY),
]

# Of what the session bus has, and of what is nowhere, nothing is to be had here, whoever asks.
ELSEWHERE = [
    ("Intents1", None, "InvokeIntent", "('Start', @a{sv} {}, @a{sv} {})", NOBODY),
    ("Lifecycle1", None, "Register", "", NOBODY),
    ("Tasks1", None, "Start", TASK, NOBODY),
    ("Introspect1", None, "GetHistory", "", NOBODY),
    ("/org/freedesktop/Notifications", "org.freedesktop.Notifications", "GetCapabilities", "", NOBODY),
    ("Control1", f"{PREFIX}Control2", "Start", APP, NOBODY),
    # A call that names no interface would go to the first method of that name.
    ("Control1", "", "Start", APP, NOBODY),
    ("SystemControl1", "", "PreventLaunch", APP, NOBODY),
    (SESSION_PATH, "", "Stop", f"('{ABSENT}.task_sync',)", NOBODY),
]

HELPER = [
    (HELPER_PATH, HELPER_NAME, "CreateUserHierarchies", "OWN", SESSIONS),
    (HELPER_PATH, "org.freedesktop.DBus.Properties", "Get", f"('{HELPER_NAME}', 'Any')", NOBODY),
    (HELPER_PATH, "org.freedesktop.DBus.Properties", "GetAll", f"('{HELPER_NAME}',)", NOBODY),
    (HELPER_PATH, "org.freedesktop.DBus.Properties", "Set", f"('{HELPER_NAME}', 'Any', <1>)", NOBODY),
    (HELPER_PATH, "org.freedesktop.DBus.Introspectable", "Introspect", "", EVERYBODY),
    (HELPER_PATH, "org.freedesktop.DBus.Peer", "Ping", "", EVERYBODY),
    (HELPER_PATH, "org.freedesktop.DBus.Peer", "GetMachineId", "", EVERYBODY),
]
HELPER_OTHERWISE = [
    (HELPER_PATH, "", "CreateUserHierarchies", "OWN", NOBODY),
    (HELPER_PATH, HELPER_NAME, "RemoveUserHierarchies", "OWN", NOBODY),
]


def rows(destination, *tables):
    """One pytest parameter for each caller of each method."""
    return [pytest.param(destination, row, caller, id=f"{row[2]} of {row[1] or row[0]} by {caller}".replace("/", "."))
            for table in tables for row in table for caller in CALLERS]


class Bus:
    """The stack, and one process of each caller on its system bus."""

    def __init__(self, stack, package_manager, root_manages):
        self.stack, self.root_manages = stack, root_manages
        gid, = stack.groups
        accounts = {"root": (0, ()), "package manager": (package_manager, ()), "task daemon": (TASK_DAEMON, ()),
                    "owner": (stack.user.uid, (gid,)), "neighbour": (NEIGHBOUR, (gid,)), "stranger": (STRANGER, ())}
        self.callers = {name: BusCaller(stack.system_bus, uid, groups=groups)
                        for name, (uid, groups) in accounts.items()}

    def call(self, caller, destination, row):
        place, interface, member, body, _ = row
        path = place if place.startswith("/") else f"/org/kestrix/Procwarden/{place}"
        interface = PREFIX + place if interface is None else interface
        if body == "OWN":
            body = f"(uint32 {self.callers[caller].uid},)"
        return self.callers[caller].send(destination=destination, path=path, interface=interface, member=member,
                                         body=body)

    def may(self, caller, who):
        """who: may do it by the tables."""
        return ("stranger" if caller == "package manager" and self.root_manages else caller) in who

    def owner(self, name):
        return self.stack.system_bus.owner(name)

    def close(self):
        for caller in self.callers.values():
            caller.close()
        directories = self.stack.hierarchies.directories.values()
        for uid in (0, NEIGHBOUR): # for whom the helper has made groups
            cgroups.remove(directories, uid)


def up(request, tree):
    manager = tree.account_of("user")
    root_manages = manager == "root"
    if root_manages:
        manager = "other"
    try:
        manager_id = pwd.getpwnam(manager).pw_uid
    except KeyError:
        manager_id = PACKAGE_MANAGER
    accounts = {manager: manager_id, "taskd": TASK_DAEMON, "neighbour": NEIGHBOUR, "stranger": STRANGER}
    machine = tree.on_machine(accounts=accounts, policies={"org.example.taskd.conf": TASK_DAEMON_POLICY})
    for stack in bring_up(request, **machine):
        stack.install_sample(sandbox={"Sandboxing": "Disabled"})
        callers = Bus(stack, manager_id, root_manages)
        yield callers
        callers.close()


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    return InstalledTree(str(tmp_path_factory.mktemp("installed")))


@pytest.fixture
def quiet(request, tree):
    """Nothing of ours has been started yet."""
    yield from up(request, tree)


@pytest.fixture(scope="module")
def bus(request, tree):
    """The service runs, and a session of the task invoker is there."""
    for callers in up(request, tree):
        callers.stack.start()
        answer = callers.call("root", SYSTEM_NAME, SERVICE[9])
        assert SESSION_PATH in answer["text"]
        yield callers


# --- calls ---


@pytest.mark.parametrize("destination, row, caller",
                         rows(SYSTEM_NAME, SERVICE, ELSEWHERE) + rows(HELPER_NAME, HELPER, HELPER_OTHERWISE))
def test_call(bus, destination, row, caller):
    stack = bus.stack
    before = stack.service.log(), stack.system_bus.daemon.output().count("Created hierarchies")
    answer = bus.call(caller, destination, row)
    if bus.may(caller, row[4]):
        # Whatever it says to it, it has come to the one for whom it was.
        assert answer["sender"] == bus.owner(destination), answer
        return
    assert is_refused(answer), answer
    # Each call leaves a line behind; this one, the only one of its own, comes after what could have been let through.
    stack.control.running()
    fresh = stack.service.log()[len(before[0]):].splitlines()
    assert [line for line in fresh if "::GetRunningApplications(" not in line] == []
    assert stack.system_bus.daemon.output().count("Created hierarchies") == before[1]


@pytest.mark.parametrize("destination, tables", [(SYSTEM_NAME, SERVICE), (HELPER_NAME, HELPER)])
def test_everything_that_is_offered_is_in_the_table(bus, destination, tables):
    offered, paths = set(), ["/"]
    while paths:
        path = paths.pop()
        answer = bus.callers["root"].send(destination=destination, path=path, member="Introspect",
                                          interface="org.freedesktop.DBus.Introspectable")
        text = answer["text"][2:-3].encode().decode("unicode_escape")
        node = xml.etree.ElementTree.fromstring(text)
        offered |= {(interface.get("name"), method.get("name"))
                    for interface in node.findall("interface") for method in interface.findall("method")}
        paths += [os.path.join(path, child.get("name")) for child in node.findall("node")]
    assert offered == {(PREFIX + place if interface is None else interface, member)
                       for place, interface, member, _, _ in tables}


@pytest.mark.parametrize("caller", sorted(EVERYBODY - ROOT))
def test_unique_name_is_no_way_around(bus, caller):
    assert is_refused(bus.call(caller, bus.owner(SYSTEM_NAME), SERVICE[1]))
    answer = bus.call("root", bus.owner(SYSTEM_NAME), SERVICE[1])
    assert answer["sender"] == bus.owner(SYSTEM_NAME)


@pytest.mark.parametrize("caller", ["owner", "neighbour"])
def test_helper_does_nothing_for_somebody_else(bus, caller):
    row = (HELPER_PATH, HELPER_NAME, "CreateUserHierarchies", f"(uint32 {STRANGER},)", SESSIONS)
    answer = bus.call(caller, HELPER_NAME, row)
    assert answer["error"] == "org.freedesktop.DBus.Error.AccessDenied"
    assert answer["sender"] == bus.owner(HELPER_NAME)
    assert not any(os.path.exists(cgroups.user_directory(path, STRANGER))
                   for path in bus.stack.hierarchies.directories.values())


@pytest.mark.parametrize("caller", sorted(EVERYBODY - SESSIONS))
def test_refused_call_does_not_start_the_helper(quiet, caller):
    if not quiet.stack.hierarchies.all_real:
        pytest.skip("plain directories: the bus cannot start the helper")
    assert is_refused(quiet.call(caller, HELPER_NAME, HELPER[0]))
    assert not quiet.owner(HELPER_NAME)
    # Somebody who may does.
    answer = quiet.call("neighbour", HELPER_NAME, HELPER[0])
    assert answer["text"] == f"('/procwarden/user-{NEIGHBOUR}',)"
    assert answer["sender"] == quiet.owner(HELPER_NAME)


@pytest.mark.parametrize("caller", CALLERS)
def test_service_is_not_started_over_the_system_bus(quiet, caller):
    """There is no session to start it in."""
    answer = quiet.callers[caller].ask_bus("StartServiceByName", f"('{SYSTEM_NAME}', uint32 0)")
    assert answer["error"] == "org.freedesktop.DBus.Error.ServiceUnknown"


# --- what calls are for ---


def refusal(client, app_id=SAMPLE):
    """Name of the error with which a start fails; empty if it succeeds."""
    try:
        client.start(app_id)
    except BusError as error:
        return error.name
    return ""


def ask(bus, caller, member, app_id=SAMPLE, place="SystemControl1"):
    return bus.call(caller, SYSTEM_NAME, (place, None, member, f"('{app_id}',)", None))


@pytest.mark.parametrize("caller", sorted(EVERYBODY - PACKAGES))
def test_stranger_starts_stops_and_blocks_nothing(bus, caller):
    control = bus.stack.control
    assert is_refused(ask(bus, caller, "Start", place="Control1"))
    assert control.running()[0] == []
    assert is_refused(ask(bus, caller, "PreventLaunch"))
    started = control.start(SAMPLE)
    bus.stack.sample()
    assert is_refused(ask(bus, caller, "Terminate", started.instance_id, place="Control1"))
    assert is_refused(ask(bus, caller, "Terminate"))
    assert [running[0] for running in control.running()[0]] == [started.instance_id]
    control.terminate(started.instance_id)
    until(lambda: control.running()[0] == [], "the end", detail=bus.stack.service.log)


@pytest.mark.parametrize("caller", sorted(PACKAGES))
def test_package_manager_replaces_an_application(bus, caller):
    if not bus.may(caller, PACKAGES):
        pytest.skip("root is the package manager")
    control = bus.stack.control
    control.start(SAMPLE)
    bus.stack.sample()
    assert not ask(bus, caller, "PreventLaunch")["error"]
    assert not ask(bus, caller, "Terminate")["error"]
    assert not ask(bus, caller, "WaitForNotRunning")["error"]
    assert control.running()[0] == []
    assert refusal(control) == BLOCKED
    # Nobody else ends this for it.
    for other in sorted(EVERYBODY - PACKAGES):
        assert is_refused(ask(bus, other, "AllowLaunch"))
    assert refusal(control) == BLOCKED
    assert not ask(bus, caller, "AllowLaunch")["error"]
    assert refusal(control) == ""
    bus.stack.sample()
    assert not ask(bus, caller, "Terminate")["error"]
    until(lambda: control.running()[0] == [], "the end", detail=bus.stack.service.log)


# --- signals ---


def listen(caller):
    assert not caller.ask_bus("AddMatch", "(\"type='signal'\",)")["error"]
    # Who eavesdrops hears what is for somebody else. The bus lets nobody but root, and for others no rule allows it.
    for kind in ("signal", "method_call", "method_return"):
        answer = caller.ask_bus("AddMatch", f"(\"eavesdrop='true',type='{kind}'\",)")
        assert is_refused(answer) == (caller.uid != 0), answer


def test_only_root_hears_what_starts_and_stops(bus):
    stack = bus.stack
    callers = {name: BusCaller(stack.system_bus, caller.uid) for name, caller in bus.callers.items()}
    for caller in callers.values():
        listen(caller)
    service = bus.owner(SYSTEM_NAME)
    # A worker makes the properties of the session change, too.
    stack.install_sample("org.example.Worker", sandbox={"Sandboxing": "Disabled"}, groups={"X-Task sync": {"Type": "worker"}})
    stack.control.reload()
    stack.control.terminate(stack.control.start(SAMPLE).instance_id)
    heard = []

    def all_there():
        heard.extend(message for message in callers["root"].heard() if message[0] == service)
        return {"Started", "Terminated", "PropertiesChanged"} <= {member for _, _, member in heard}

    until(all_there, "the signals", detail=lambda: f"{heard} {stack.service.log()}")
    ask(bus, "root", "AllowLaunch", ABSENT)
    for name, caller in callers.items():
        # Everybody hears the bus itself, so that the rules are good.
        messages = caller.heard()
        assert name == "root" or any(sender == "org.freedesktop.DBus" for sender, _, _ in messages)
        assert name == "root" or [message for message in messages if message[0] == service
                                  or (message[1] or "").startswith("org.kestrix.")] == []
        caller.close()


@pytest.mark.parametrize("caller", CALLERS)
def test_only_root_monitors(bus, caller):
    with BusCaller(bus.stack.system_bus, bus.callers[caller].uid) as monitor:
        answer = monitor.ask_bus("BecomeMonitor", "(@as [], uint32 0)", interface="org.freedesktop.DBus.Monitoring")
        assert is_refused(answer) == (caller != "root")


@pytest.mark.parametrize("caller", CALLERS)
def test_own_signals_do_not_pass_for_those_of_the_service(bus, caller):
    """A listener that is careless about the sender hears other services at most."""
    with BusCaller(bus.stack.system_bus, 0) as listener:
        listen(listener)
        forger = bus.callers[caller]
        fields = {"type": "signal", "path": CONTROL_PATH, "limit": 1}
        forger.send(interface=f"{PREFIX}Control1", member="Terminated", **fields)
        forger.send(interface="org.example.Marker", member="Here", **fields)
        messages = []

        def marked():
            messages.extend(listener.heard())
            # What is refused is not answered: it goes to nobody in particular.
            return [forger.name, "org.example.Marker", "Here"] in messages

        until(marked, "the second signal")
        is_heard = [forger.name, f"{PREFIX}Control1", "Terminated"] in messages
        assert is_heard == (caller in ("owner", "neighbour"))


# --- replies ---


@pytest.mark.parametrize("kind", ["reply", "error"])
@pytest.mark.parametrize("destination", [SYSTEM_NAME, HELPER_NAME])
@pytest.mark.parametrize("caller", CALLERS)
def test_nobody_answers_unasked(bus, caller, destination, kind):
    """The service waits for the helper's answer, and others', on this bus."""
    fields = {"body": "('/procwarden/user-0',)", "reply_serial": 5}
    if kind == "error":
        fields["error_name"] = "org.example.Error"
    for name in (destination, bus.owner(destination)):
        assert is_refused(bus.callers[caller].send(type=kind, destination=name, **fields))


# --- names ---

OWN, EXISTS, REFUSED = 1, 3, "refused"
REPLACE, DO_NOT_QUEUE = 2, 4


@pytest.mark.parametrize("caller", CALLERS)
@pytest.mark.parametrize("name, owners", [
    (SYSTEM_NAME, {"owner", "neighbour"}),
    (HELPER_NAME, ROOT),
    (f"{SYSTEM_NAME}.Other", NOBODY),
    (f"{HELPER_NAME}.Other", NOBODY),
    ("org.kestrix.Procwarden", NOBODY),
    ("org.kestrix.Procwarden.Events", NOBODY),
])
def test_owning_a_name(bus, caller, name, owners):
    owner = bus.owner(name)
    answer = bus.callers[caller].ask_bus("RequestName", f"('{name}', uint32 {REPLACE | DO_NOT_QUEUE})")
    # Those who may find it taken, and it cannot be taken away.
    assert answer["text"] == f"({EXISTS},)" if caller in owners else is_refused(answer)
    assert bus.owner(name) == owner


@pytest.mark.parametrize("caller", CALLERS)
def test_owning_the_service_s_name_while_it_is_free(quiet, caller):
    answer = quiet.callers[caller].ask_bus("RequestName", f"('{SYSTEM_NAME}', uint32 {DO_NOT_QUEUE})")
    assert answer["text"] == f"({OWN},)" if caller in ("owner", "neighbour") else is_refused(answer)
