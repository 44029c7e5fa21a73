"""The installed units: what systemd thinks of them, and that their restrictions leave what is needed."""

import os
import subprocess

import pytest
from conftest import bring_up
from installed import InstalledTree
from stack.process import descendants, is_running
from stack.service import SESSION_NAME
from stack.stack import HELPER_NAME
from stack.user_manager import UserManager
from stack.waiting import until

SAMPLE = "org.example.Sample"
HELPER = "procwarden-helper.service"
CAP_SYS_MODULE, CAP_SYS_ADMIN, CAP_SYS_TIME = 16, 21, 25
RUNTIME = "/run/systemd/manager" # in the machine alone, and hidden by no unit


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    return InstalledTree(str(tmp_path_factory.mktemp("installed")))


@pytest.fixture
def machine(request, tree):
    for stack in bring_up(request, **tree.on_machine()):
        yield stack


@pytest.mark.parametrize("scope, units", [
    ("system", [HELPER, "procwarden@1000.service"]),
    ("user", ["procwarden.service", "procwarden-eventd.service"]),
])
def test_systemd_finds_no_fault(machine, tree, scope, units):
    """Unknown settings, wrong values, programs that are not there: all of these are told on standard error."""
    installed = [path for path in tree.files() if f"/systemd/{scope}/" in path]
    assert sorted(os.path.basename(path).replace("@", "@1000") for path in installed) == sorted(units)
    result = machine.machine.run("systemd-analyze", f"--{scope}", "verify", *units,
                                 env={"PATH": "/usr/bin:/bin", "XDG_RUNTIME_DIR": "/run/systemd"})
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


@pytest.mark.parametrize("scope, unit, limit", [
    ("system", HELPER, 20),
    ("user", "procwarden-eventd.service", 80), # what takes a name space is not every user's manager's to do
])
def test_exposure_is_small(machine, scope, unit, limit):
    """By systemd's own measure, in tenths. The service itself has no restrictions: its applications would get them."""
    result = machine.machine.run("systemd-analyze", f"--{scope}", "security", "--offline=yes", "--no-pager",
                                 f"--threshold={limit}", unit,
                                 env={"PATH": "/usr/bin:/bin", "XDG_RUNTIME_DIR": "/run/systemd"})
    assert result.returncode == 0, result.stdout


class SystemManager(UserManager):
    """Root's own manager in the place of the system's, which cannot run here: it takes units of the system, and does
    to a program whatever they say. It does not follow the system bus, so a unit has to do without Type=dbus."""

    def __init__(self, stack):
        super().__init__(stack, as_root=True)
        self._machine = stack.machine
        self.environment = {"PATH": "/usr/bin:/bin", "HOME": RUNTIME, "XDG_RUNTIME_DIR": RUNTIME, "LANG": "C.UTF-8"}
        self._shell(f"mkdir -p {RUNTIME}/systemd/user")

    def _shell(self, text):
        subprocess.run([*self._machine.enter, "/bin/sh", "-ec", text], check=True)

    def install(self, tree, unit, *more):
        """more: settings of the service besides. What is not there, the manager of the user, is not waited for."""
        source = next(path for path in tree.files() if path.endswith(f"/systemd/system/{unit}"))
        target = f"{RUNTIME}/systemd/user/{unit}"
        lines = "\\n".join(["[Service]", "Type=exec", *more, ""])
        self._shell(f"sed -E '/^(BindsTo|After)=/d' '{source}' >'{target}'; mkdir '{target}.d'; "
                    f"printf '{lines}' >'{target}.d/more.conf'")
        self.systemctl("daemon-reload")

    def systemctl(self, *words):
        result = self.run("systemctl", "--user", *words)
        assert result.returncode == 0, (result, self.run("systemctl", "--user", "status", "*procwarden*").stdout)
        return result.stdout.strip()


def status_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def test_helper_works_within_its_restrictions(machine, tree):
    if not machine.hierarchies.all_real:
        pytest.skip("plain directories: only the kernel's groups are handed over without being told to")
    with SystemManager(machine) as manager:
        # What looks for leaks traces the program at its end, which the unit forbids.
        manager.install(tree, HELPER, "Environment=ASAN_OPTIONS=detect_leaks=0")
        manager.systemctl("start", HELPER)
        until(lambda: machine.system_bus.owner(HELPER_NAME), "the helper's name",
              detail=lambda: manager.run("systemctl", "--user", "status", HELPER).stdout)
        pid = manager.systemctl("show", "-P", "MainPID", HELPER)
        # They are in force.
        status = status_of(pid)
        chown, dac_override = 0, 1
        assert int(status["CapBnd"], 16) == int(status["CapEff"], 16) == 1 << chown | 1 << dac_override
        assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")
        assert os.readlink(f"/proc/{pid}/ns/net") != os.readlink("/proc/self/ns/net")
        for place in ("/usr", "/etc", "/var", "/sys/kernel", "/home", "/tmp"):
            seen = subprocess.run(["nsenter", f"--mount=/proc/{pid}/ns/mnt", "/bin/sh", "-c",
                                   f"ls -A {place} | head -n 1; touch {place}/try && rm {place}/try"],
                                  capture_output=True, text=True, check=False)
            assert (seen.returncode == 0) == (place == "/tmp"), seen # its own, and empty
            assert (seen.stdout == "") == (place in ("/home", "/tmp")), seen

        # And leave what it is for.
        machine.install_sample()
        machine.start_service()
        assert "Activating service" not in machine.system_bus.daemon.output()
        assert machine.system_bus.connect().call_blocking(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetConnectionUnixProcessID", "s",
            (HELPER_NAME,)) == int(pid)
        machine.control.start(SAMPLE)
        machine.sample()
        manager.systemctl("stop", HELPER)
        assert manager.systemctl("show", "-P", "Result", HELPER) == "success"


class UnitOfTheService:
    """procwarden@.service, run by a manager for the user of the stack."""

    def __init__(self, machine, tree, manager):
        self._machine, self._manager = machine, manager
        self.name = f"procwarden@{machine.user.uid}.service"
        log = os.path.join(machine.directory, "log/unit")
        variables = {name: value for name, value in machine.environment().items() if name != "DBUS_SYSTEM_BUS_ADDRESS"}
        manager.install(tree, "procwarden@.service",
                        # These users are no members of it in the machine's files.
                        f"SupplementaryGroups={tree.account_of('group')}", f"StandardError=append:{log}",
                        "TimeoutStopSec=1", *(f"Environment={name}={value}" for name, value in variables.items()))

    def start(self):
        self._manager.systemctl("start", self.name)
        return until(self.main, "the service", detail=self.state)

    def main(self):
        """Process id of the service, once it has its name."""
        pid = self._manager.systemctl("show", "-P", "MainPID", self.name)
        owner = self._machine.session_bus.owner(SESSION_NAME)
        return int(pid) if owner and pid != "0" else None

    def state(self):
        return self._manager.run("systemctl", "--user", "status", self.name).stdout

    def stop(self):
        self._manager.systemctl("stop", self.name)
        assert self._manager.systemctl("show", "-P", "Result", self.name) == "success"


def test_applications_do_not_outlive_a_service_that_crashes(machine, tree):
    """Not even a frozen one, which no signal ends. The service comes back."""
    if not machine.hierarchies.is_real("freezer"):
        pytest.skip("no freezer here")
    machine.start_helper()
    machine.install_sample(sandbox={"Sandboxing": "Disabled"})
    with SystemManager(machine) as manager:
        unit = UnitOfTheService(machine, tree, manager)
        first = unit.start()
        assert status_of(first)["Uid"].split() == 4 * [str(machine.user.uid)]
        mark = f"/proc/{first}/root{RUNTIME}/procwarden/{machine.user.uid}"
        assert os.stat(mark).st_uid == machine.user.uid
        started = machine.control.start(SAMPLE)
        machine.sample()
        machine.control.update_windows(started.instance_id, hidden=1)
        until(lambda: machine.freezer_state(SAMPLE) == "FROZEN", "the freezer", detail=unit.state)

        manager.systemctl("kill", "--kill-whom=main", "--signal=KILL", unit.name)
        until(lambda: not is_running(started.pid), "the end of the application", detail=unit.state)
        second = until(lambda: (pid := unit.main()) != first and pid, "the next service", detail=unit.state)
        assert manager.systemctl("show", "-P", "NRestarts", unit.name) == "1"
        assert os.path.isdir(f"/proc/{second}/root{RUNTIME}/procwarden/{machine.user.uid}")
        until(lambda: machine.control.running() == ([], []), "its answer", detail=unit.state)
        unit.stop()


def test_sandbox_works_within_what_the_unit_of_the_service_forbids(machine, tree):
    """The sandbox program takes new privileges, and makes name spaces; neither gets what nobody below it needs."""
    if not machine.hierarchies.all_real:
        pytest.skip("plain directories: only the kernel's groups are handed over without being told to")
    machine.start_helper()
    machine.install_sample()
    with SystemManager(machine) as manager:
        unit = UnitOfTheService(machine, tree, manager)
        service = unit.start()
        started = machine.control.start(SAMPLE)
        machine.sample()
        sandbox = descendants(started.pid)
        assert any(os.readlink(f"/proc/{pid}/ns/mnt") != os.readlink(f"/proc/{service}/ns/mnt") for pid in sandbox)
        for pid in (service, started.pid, *sandbox):
            bounds = int(status_of(pid)["CapBnd"], 16)
            assert not bounds & (1 << CAP_SYS_MODULE | 1 << CAP_SYS_TIME), pid
        assert int(status_of(service)["CapBnd"], 16) & 1 << CAP_SYS_ADMIN
        unit.stop()
