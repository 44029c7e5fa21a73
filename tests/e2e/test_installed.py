"""The service as it is installed: programs, states, intents and configuration come from an installed tree."""

import os

import ctl
import pytest
from conftest import bring_up
from installed import PROGRAMS, InstalledTree
from stack.stack import TREE
from stack.waiting import until

APP = "org.example.Sample"


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    return InstalledTree(str(tmp_path_factory.mktemp("installed")))


@pytest.fixture
def installed(request, tree, tmp_path):
    """A stack whose helper and service come from the installed tree, and run."""
    for stack in bring_up(request, bin_dir=tree.make_bin_dir(str(tmp_path / "bin"))):
        tree.give_to(stack)
        stack.install_sample()
        stack.start()
        yield stack


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


def test_everything_that_is_shipped_is_there(tree):
    for source, target in (("states", "share/procwarden/states"), ("intents", "share/procwarden/intents"),
                           ("dbus/services", "share/dbus-1/services"),
                           ("dbus/system-services", "share/dbus-1/system-services"),
                           ("dbus/system.d", "share/dbus-1/system.d"), ("systemd/system", "lib/systemd/system"),
                           ("systemd/user", "lib/systemd/user")):
        expected = [name[:-len(".in")] if name.endswith(".in") else name
                    for name in names(os.path.join(TREE, "data", source))]
        assert names(tree.below_prefix(target)) == expected
    interfaces = names(os.path.join(TREE, "data/interfaces"))
    ours = [name for name in interfaces if name.startswith("org.kestrix.")]
    assert names(tree.below_prefix("share/dbus-1/interfaces")) == ours
    assert names(tree.below_prefix("share/procwarden/interfaces")) == sorted(set(interfaces) - set(ours))
    assert names(tree.below_prefix("share/procwarden/dbusmock")) == names(os.path.join(TREE, "data/dbusmock"))
    assert names(tree.inside("/etc/procwarden")) == ["oom.cfg", "os-version-support.cfg", "tasks.cfg"]
    pages = [name.removesuffix(".gz") for directory in names(tree.below_prefix("share/man"))
             for name in names(tree.below_prefix(f"share/man/{directory}"))]
    assert sorted(pages) == [name for name in names(os.path.join(TREE, "docs/man")) if name != "CMakeLists.txt"]


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
