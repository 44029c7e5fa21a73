"""The service as it is installed: programs, states, intents and configuration come from an installed tree."""

import fnmatch
import os
import re
import shutil

import ctl
import pytest
from conftest import bring_up
from installed import COMPONENTS, PROGRAMS, InstalledTree, listed, run, unit_directory, write_list
from stack.client import Client
from stack.service import SESSION_NAME
from stack.stack import HELPER_NAME, TREE
from stack.user_session import Events, UserSession
from stack.waiting import until

APP = "org.example.Sample"


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    return InstalledTree(str(tmp_path_factory.mktemp("installed")))


@pytest.fixture
def machine(request, tree, tmp_path):
    """A stack on a machine that has the tree; nothing of it has been started yet."""
    for stack in bring_up(request, bin_dir=tree.make_bin_dir(str(tmp_path / "bin")), **tree.on_machine()):
        tree.give_to(stack)
        stack.install_sample()
        yield stack


@pytest.fixture
def installed(machine):
    """The service is started as its unit does it; the rest follows."""
    machine.start()
    return machine


def names(directory):
    return sorted(os.listdir(directory))


def test_what_units_and_buses_start_is_there(tree):
    commands = tree.commands()
    # The client is nobody's but the user's.
    assert sorted(os.path.basename(command) for command in commands) == sorted(set(PROGRAMS) - {"procwardenctl"})
    for command, files in commands.items():
        assert os.access(tree.inside(command), os.X_OK), files
        # Each has a unit, and is activated over a bus.
        assert any("/systemd/" in name for name in files), files
        assert any("/dbus-1/" in name for name in files), files


def test_each_file_lies_where_debian_expects_it(tmp_path):
    """The list also says which package has it. UPDATE_GOLDEN=1 rewrites it."""
    found = {}
    for package in COMPONENTS:
        os.mkdir(tmp_path / package)
        found[package] = InstalledTree(str(tmp_path / package), package).files_below_usr()
    if os.environ.get("UPDATE_GOLDEN"):
        write_list(found)
    assert found == listed()


def test_page_names_each_file_and_its_package():
    """docs/configuration.md has a line for each, or for several of a kind; of two that fit, the longer one counts."""
    with open(os.path.join(TREE, "docs/configuration.md")) as file:
        lines = dict(re.findall(r"(?m)^\| `(/\S+)` \| `(procwarden\S*)` \| \S", file.read()))
    used, wrong = set(), {}
    for package, paths in listed().items():
        for path in paths:
            path = path.replace(unit_directory() + "/", "/lib/systemd/system/")
            line = max((line for line in lines if fnmatch.fnmatchcase(path, line)), key=len, default=None)
            used.add(line)
            if lines.get(line) != package:
                wrong[path] = line
    assert wrong == {}
    assert set(lines) - used == set()


def test_everything_that_is_shipped_is_there(tree):
    """Nothing in data/ has been forgotten in CMake."""
    found = [os.path.basename(path) for path in tree.files_below_usr()]
    for directory, _, files in os.walk(os.path.join(TREE, "data")):
        for name in sorted(set(files) - {"CMakeLists.txt"}):
            assert name.removesuffix(".in") in found, os.path.join(directory, name)
    pages = [name for name in names(os.path.join(TREE, "docs/man")) if name != "CMakeLists.txt"]
    assert set(pages) <= set(found)


def test_groups_are_made(tree, tmp_path):
    """By systemd-sysusers, in a tree that has no accounts yet, and only there."""
    root = str(tmp_path / "root")
    shutil.copytree(tree.below_prefix("lib/sysusers.d"), os.path.join(root, "usr/lib/sysusers.d"))
    os.makedirs(os.path.join(root, "etc"))
    for _ in range(2): # again: no change
        run("systemd-sysusers", f"--root={root}", "procwarden.conf")
        with open(os.path.join(root, "etc/group")) as file:
            groups = [line.split(":")[0] for line in file]
        # The second one is named by the policies.
        assert sorted(groups) == sorted(["privileged", tree.account_of("group")])


def running(bus, name):
    """Program and user of who owns a name."""
    connection = bus.connect()
    try:
        pid, user = (connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                              f"GetConnectionUnix{what}", "s", (name,)) for what in ("ProcessID", "User"))
        return os.readlink(f"/proc/{pid}/exe"), int(user)
    finally:
        connection.close()


def start_by_name(bus, name):
    connection = bus.connect()
    try:
        connection.start_service_by_name(name)
    finally:
        connection.close()


def test_system_bus_starts_the_helper_as_root(installed, tree):
    """At the service's call, by the activation file and the bus's own launch helper."""
    if not installed.hierarchies.all_real:
        pytest.skip("plain directories: the bus cannot start the helper")
    assert running(installed.system_bus, HELPER_NAME) == (tree.place_of("procwarden-helper"), 0)
    assert "(using servicehelper)" in installed.system_bus.daemon.output()
    for path in installed.user_groups().values():
        assert os.stat(path).st_uid == installed.user.uid


@pytest.mark.parametrize("name, program", [
    (SESSION_NAME, "procwarden"),
    ("org.kestrix.Procwarden.Events", "procwarden-eventd"),
])
def test_session_bus_starts_what_it_is_asked_for(machine, tree, name, program):
    """Without a manager of the user, by the line Exec of the activation file."""
    machine.start_helper()
    start_by_name(machine.session_bus, name)
    assert running(machine.session_bus, name) == (tree.place_of(program), machine.user.uid)


def unit(session, name, *properties):
    output = session.manager.run("systemctl", "--user", "show", name, "-p", ",".join(properties)).stdout
    return dict(line.split("=", 1) for line in output.splitlines())


def test_manager_of_the_user_starts_the_service(machine, tree):
    """By its unit, at the call of a client."""
    machine.start_helper()
    with UserSession(machine) as session:
        # Nobody gives this manager the floor of the score that applications need: the unit is skipped, without a
        # failure. A call would wait in vain for the bus's limit, since no manager tells the bus of that.
        assert session.manager.run("systemctl", "--user", "start", "procwarden.service").returncode == 0
        assert unit(session, "procwarden.service", "ActiveState") == {"ActiveState": "inactive"}
        assert not session.bus.owner(SESSION_NAME)
        session.install_service()
        assert session.manager.run("systemctl", "--user", "daemon-reload").returncode == 0
        assert Client(session.bus, SESSION_NAME).running() == ([], [])
        assert running(session.bus, SESSION_NAME) == (tree.place_of("procwarden"), machine.user.uid)
        found = unit(session, "procwarden.service", "ActiveState", "FragmentPath")
        assert found == {"ActiveState": "active",
                         "FragmentPath": os.path.join(tree.prefix, "lib/systemd/user/procwarden.service")}
        assert session.manager.run("systemctl", "--user", "stop", "procwarden.service").returncode == 0
        assert unit(session, "procwarden.service", "Result") == {"Result": "success"}, session.log()


def test_manager_of_the_user_starts_the_keeper_of_events(machine, tree):
    """With the restrictions of its unit, under which it keeps an event."""
    with UserSession(machine) as session:
        connection = session.bus.connect()
        connection.request_name("org.example.Nobody") # for whose object an event is, has to be on this bus
        events = Events(connection.call_blocking)
        cookie = events.add(("org.example.Nobody", "Nothing", "/", "org.example.Nobody1"),
                            time="2099-01-01T00:00")
        assert running(session.bus, Events.NAME) == (tree.place_of("procwarden-eventd"), machine.user.uid)
        found = unit(session, "procwarden-eventd.service", "ActiveState", "MainPID", "NoNewPrivileges")
        assert (found["ActiveState"], found["NoNewPrivileges"]) == ("active", "yes")
        with open(f"/proc/{found['MainPID']}/status") as file:
            status = file.read()
        assert "NoNewPrivs:\t1\n" in status and "Seccomp:\t2\n" in status
        events.cancel(cookie)
        connection.close()


def test_application_starts_is_frozen_and_stops(installed):
    started = installed.control.start(APP)
    installed.sample()
    if installed.hierarchies.is_real("freezer"):
        installed.control.update_windows(started.instance_id, hidden=1)
        # The delay is that of the shipped states.
        until(lambda: installed.freezer_state(APP) == "FROZEN", "the freezer", detail=installed.service.log)
        installed.control.update_windows(started.instance_id, active=1)
        until(lambda: installed.freezer_state(APP) == "THAWED", "its end", detail=installed.service.log)
    listed = ctl.run_json(installed, "list")
    assert APP in str(listed)
    installed.control.terminate(started.instance_id)
    until(lambda: not installed.control.running()[0], "the end", detail=installed.service.log)
    assert installed.service.stop() == 0


def test_service_finds_nothing_to_complain_about(installed):
    log = installed.service.log()
    assert "intents" not in log and "states" not in log and ".cfg" not in log, log
