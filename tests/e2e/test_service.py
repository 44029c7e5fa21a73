"""The service as a process: how it comes up, what keeps it from that, how it ends, what it costs at rest."""

import os
import resource
import signal
import time

import dbus
import pytest

from stack.bus import ServedConnection
from stack.permission_daemon import allowed, held
from stack.process import descendants, is_running
from stack.service import SESSION_NAME, SYSTEM_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
UNSANDBOXED = {"Sandboxing": "Disabled"}


def take_name(bus, name):
    """Owns the name until the returned connection is closed."""
    connection = bus.connect()
    connection.request_name(name, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
    assert bus.owner(name) == connection.get_unique_name()
    return connection


def fails(stack, **environment):
    """Log of a service that does not come up; its exit status is 1."""
    service = stack.start_service(wait=False, **environment)
    assert service.child.wait() == 1
    # Qt's own line about a thread that was just starting is there or not.
    return [line for line in service.log().splitlines() if not line.startswith("QEventLoop: ")]


# --- coming up ---


def test_system_name_that_is_taken_ends_it(stack):
    stack.start_helper()
    owner = take_name(stack.system_bus, SYSTEM_NAME)
    other = take_name(stack.session_bus, SESSION_NAME)
    # It gives up before it comes to the session bus: the other name would fail with the same words.
    log = fails(stack)
    assert log[-2:] == ["couldn't register service", "Service registration failed"]
    assert log.count("couldn't register service") == 1
    owner.close()
    other.close()


def test_session_name_that_is_taken_ends_it(stack):
    stack.start_helper()
    owner = take_name(stack.session_bus, SESSION_NAME)
    assert fails(stack)[-2:] == ["couldn't register service", "Service registration failed"]
    owner.close()


@pytest.mark.parametrize("variable, message", [
    ("DBUS_SYSTEM_BUS_ADDRESS", "couldn't register SystemControl object"),
    ("DBUS_SESSION_BUS_ADDRESS", "couldn't register PKD hooks object"),
])
def test_absent_bus_ends_it(stack, variable, message):
    stack.start_helper()
    log = fails(stack, **{variable: "unix:path=/nonexistent/bus"})
    assert log[-2:] == [message, "Service registration failed"]


@pytest.mark.parametrize("bus", ["session_bus", "system_bus"])
def test_lost_bus_ends_it(service, bus):
    """Nobody could reach it any more; whoever watches it starts it again."""
    service.control.start(SAMPLE)
    pids = descendants(service.service.pid)
    getattr(service, bus).daemon.kill()
    assert service.service.child.wait() == 1
    assert "Lost the connection to a bus" in service.service.log().splitlines()
    if bus == "system_bus":
        # The helper has lost it, too.
        assert service.helper.wait() == 1
        assert "Lost the system bus" in service.helper.output()
    until(lambda: not any(is_running(pid) for pid in pids), "the end of the application")


def test_descriptors_are_many_but_not_for_applications(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.control.reload()

    def limits(pid):
        with open(f"/proc/{pid}/limits") as file:
            return next(line.split()[3:5] for line in file if line.startswith("Max open files"))

    own = [str(limit) for limit in resource.getrlimit(resource.RLIMIT_NOFILE)]
    assert limits(service.service.pid) == [own[1], own[1]]
    started = service.control.start(SAMPLE)
    service.sample(SAMPLE)
    assert limits(started.pid) == own


def test_absent_helper_ends_it(stack):
    assert "CGgroup delegation to user failed" in fails(stack)


class RefusingHelper:
    """Owns the helper's name and answers each call with an error, or never."""

    def __init__(self, bus, error=None):
        self.asked = False
        self._error = error
        self._served = ServedConnection(bus, self._handle)
        self._served.run(lambda connection: connection.request_name("org.kestrix.Procwarden.Helper"))

    def _handle(self, message):
        if message.get_member() != "CreateUserHierarchies":
            return False
        self.asked = True
        if self._error:
            self._served.connection.send_message(dbus.lowlevel.ErrorMessage(message, *self._error))
        return True

    def close(self):
        self._served.close()


def test_refusing_helper_ends_it(stack):
    helper = RefusingHelper(stack.system_bus, ("org.freedesktop.DBus.Error.AccessDenied", "not you"))
    log = fails(stack)
    assert "CGroup setup failed: \"not you\"" in log
    assert "CGgroup delegation to user failed" in log
    helper.close()


def test_sigterm_while_the_helper_is_silent_ends_it(stack):
    helper = RefusingHelper(stack.system_bus)
    stack.install_sample()
    service = stack.start_service(wait=False)
    service.wait_for_name(stack.session_bus, SESSION_NAME)
    until(lambda: helper.asked, "the call of the helper")
    # It answers meanwhile, and a start waits for the control groups.
    assert stack.control.running() == ([], [])
    waiting = stack.control.start_later(SAMPLE)
    assert stack.control.running() == ([], [])
    assert not waiting.done
    assert service.stop() == 0
    helper.close()


def test_missing_hierarchy_ends_it(stack):
    stack.start_helper()
    root = stack.root.path
    stack.root.write("fake/proc/self/cgroup", "4:memory:/\n3:cpu:/\n1:name=systemd:/\n")
    for controller in ("memory", "cpu"):
        os.makedirs(f"{root}/fake/sys/fs/cgroup/{controller}/procwarden/user-{stack.user.uid}")
    log = fails(stack, PROCWARDEN_ROOTFS=f"{root}/fake")
    assert log[-2:] == ["CGroup controller not delegated: \"freezer\"", "A required cgroup is not available"]


def test_broken_list_of_hierarchies_ends_it(stack):
    stack.start_helper()
    stack.root.write("fake/proc/self/cgroup", "4:memory:/:/\n")
    log = fails(stack, PROCWARDEN_ROOTFS=f"{stack.root.path}/fake")
    assert log[-2:] == ["Invalid cgroup line \"4:memory:/:/\"", "Cannot continue without cgroup feature"]


# --- the end ---


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_stop_signal_ends_everything(service, number):
    service.install_sample("org.example.Stubborn", arguments="--ignore-term", sandbox=UNSANDBOXED)
    service.control.reload()
    pids = [service.control.start(app_id).pid for app_id in (SAMPLE, "org.example.Stubborn")]
    service.sample()
    service.sample("org.example.Stubborn")
    if service.hierarchies.is_real("freezer"):
        service.control.update_windows(SAMPLE, hidden=1)
        until(lambda: service.freezer_state(SAMPLE) == "FROZEN", "the freezing")
    family = set(pids).union(*(descendants(pid) for pid in pids))

    assert service.service.child.stop(number) == 0
    until(lambda: not [pid for pid in family if is_running(pid)], "the end of all processes")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_stop_signal_at_any_moment_of_coming_up(stack, number):
    """Sent once for each thing that the service can be seen doing, so that every phase has its turn."""
    stack.start_helper()
    service = stack.start_service(wait=False)
    service.child.send(number)
    # Before the handler stands the signal ends it, afterwards it ends itself.
    assert service.child.wait() in (0, -number)

    names_are_free(stack)
    service = stack.start_service(wait=False)
    service.wait_for_name(stack.system_bus, SYSTEM_NAME)
    assert service.child.stop(number) == 0

    names_are_free(stack)
    service = stack.start_service(wait=False)
    service.wait_for_name(stack.session_bus, SESSION_NAME)
    assert service.child.stop(number) == 0


@pytest.mark.parametrize("method", ["GetAllowed", "PromptLaunchPermissions"])
def test_sigterm_in_the_middle_of_a_launch(service, method):
    question = {"GetAllowed": "may_start", "PromptLaunchPermissions": "prompt"}[method]
    service.permission_daemon.set_rule(SAMPLE, **{question: held()})
    service.control.start_later(SAMPLE)
    service.permission_daemon.wait_for_held(method, SAMPLE)
    children = until(lambda: descendants(service.service.pid), "the child that waits")
    assert service.service.stop() == 0
    until(lambda: not [pid for pid in children if is_running(pid)], "the end of the child")


def names_are_free(stack):
    """The bus notices the end of a process in its own time."""
    until(lambda: not stack.system_bus.owner(SYSTEM_NAME) and not stack.session_bus.owner(SESSION_NAME),
          "the names to be free")


def test_it_comes_up_again_after_its_end(service):
    service.control.start(SAMPLE)
    assert service.service.stop() == 0
    names_are_free(service)
    service.start_service()
    assert service.control.start(SAMPLE).instance_id == SAMPLE
    service.sample()


def test_killed_service_comes_up_again(service):
    service.permission_daemon.set_rule(SAMPLE, may_start=held())
    service.control.start_later(SAMPLE)
    service.permission_daemon.wait_for_held("GetAllowed", SAMPLE)
    children = until(lambda: descendants(service.service.pid), "the child that waits")
    service.service.child.stop(signal.SIGKILL)
    # The pipe is closed, so that the child that was never released ends.
    until(lambda: not [pid for pid in children if is_running(pid)], "the end of the child")
    service.permission_daemon.set_rule(SAMPLE, may_start=allowed())
    names_are_free(service)
    service.start_service()
    assert service.control.start(SAMPLE).instance_id == SAMPLE


# --- at rest ---


def context_switches(pid):
    """Of all threads: how often each has waited for something."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/status") as file:
            total += sum(int(line.split()[1]) for line in file if line.startswith("voluntary_ctxt_switches"))
    return total


def test_idle_service_does_not_wake_up(service):
    """A count, not a time: whatever wakes it once wakes it in any span that is long enough."""
    monitor = service.monitor()
    pid = service.service.pid
    monitor.synchronize()
    service.control.running() # the last thing that it has to do
    rests(pid, 3)


def rests(pid, seconds):
    """Waits for a span in which it does nothing at all; one that polls in any such span never has it.

    When the last of its work is done is not to be seen from outside: on a busy machine it may stand still in
    the middle of it.
    """
    count, since = context_switches(pid), time.monotonic()

    def rested():
        nonlocal count, since
        now = context_switches(pid)
        if now != count:
            count, since = now, time.monotonic()
        return time.monotonic() - since >= seconds

    until(rested, f"{seconds} s without a wake-up")
