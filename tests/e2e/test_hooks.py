"""What the package manager and the resource policy daemon tell the service."""

import os

import dbus
import dbus.lowlevel
import pytest

from stack.bus import ServedConnection
from stack.client import ACTIVE, HIDDEN, INACTIVE
from stack.service import SYSTEM_NAME
from stack.waiting import until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
UNSANDBOXED = {"Sandboxing": "Disabled"}
PLAYS_IN_BACKGROUND = {"keepMediaActiveInBackground": True}


# --- the package manager ---


def removed(stack, app_id):
    stack.control.call("Hooks", "OnRemove", "s", app_id, prefix="org.kestrix.PKD.")


def defaults_file(stack):
    return os.path.join(stack.user.home, ".config", "mimeapps.list")


def defaults(stack):
    """Type -> desktop file, as the user has chosen."""
    with open(defaults_file(stack)) as file:
        return dict(line.split("=", 1) for line in file.read().splitlines() if "=" in line)


@pytest.fixture
def chosen(stack):
    """Two applications that are both somebody's default."""
    for app_id in (SAMPLE, OTHER):
        stack.install_sample(app_id, sandbox=UNSANDBOXED, main={"MimeType": "text/plain;image/png;image/jpeg;"})
    os.makedirs(os.path.dirname(defaults_file(stack)))
    with open(defaults_file(stack), "w") as file:
        file.write("[Default Applications]\n"
                   f"text/plain={SAMPLE}.desktop\nimage/png={OTHER}.desktop\nimage/jpeg={SAMPLE}.desktop\n")
    for path in (os.path.dirname(defaults_file(stack)), defaults_file(stack)):
        os.chown(path, stack.user.uid, stack.user.gid)
    stack.start()
    return stack


def test_removed_application_is_nobodys_default(chosen):
    removed(chosen, SAMPLE)
    assert defaults(chosen) == {"image/png": f"{OTHER}.desktop"}
    removed(chosen, OTHER)
    assert defaults(chosen) == {}


def test_removal_of_a_running_application_leaves_it_alone(chosen):
    chosen.control.start(SAMPLE)
    chosen.sample()
    removed(chosen, SAMPLE)
    assert [record[0] for record in chosen.control.running()[0]] == [SAMPLE]


@pytest.mark.parametrize("app_id", ["", "org.example.Unknown", "../../etc/passwd", "..", "a" * 100_000,
                                    "org.example.Sample.desktop", "\u00e9\u00e8 =\n[Default Applications]"])
def test_unknown_application_changes_nothing(chosen, app_id):
    before = defaults(chosen)
    removed(chosen, app_id)
    assert defaults(chosen) == before
    assert chosen.control.running() == ([], [])


def test_without_defaults_there_is_nothing_to_remove(service):
    removed(service, SAMPLE)
    assert not os.path.exists(defaults_file(service)) or defaults(service) == {}


# --- the resource policy daemon ---


class PolicyDaemon:
    """Says who uses which resource: facts are (resource, application id, process id)."""

    NAME = "org.freedesktop.ohm"

    def __init__(self, bus, name=NAME):
        self._served = ServedConnection(bus, lambda _: False)
        self._served.run(lambda connection: connection.request_name(name))

    def notify(self, *facts, signature="a(ssi)"):
        message = dbus.lowlevel.SignalMessage("/org/solvaneos/PrivacyViolation", "org.solvaneos.PrivacyViolation",
                                              "Notify")
        content = dbus.Array(facts, signature="(ssi)") if signature == "a(ssi)" else facts[0]
        message.append(content, signature=signature)
        self._served.send(message)

    def settle(self):
        """Returns when the service has dealt with all that was sent: what comes over one connection keeps its order."""
        name = "org.kestrix.Procwarden.Control1"
        self._served.run(lambda connection: connection.call_blocking(
            SYSTEM_NAME, "/" + name.replace(".", "/"), name, "GetRunningApplications", "", ()))

    def close(self):
        self._served.close()


@pytest.fixture
def daemon(stack):
    daemon = PolicyDaemon(stack.system_bus)
    yield daemon
    daemon.close()


@pytest.fixture
def player(stack):
    """A player that may go on in the background, and another application that may not."""
    stack.install_sample(SAMPLE, sandbox=UNSANDBOXED, manifest=PLAYS_IN_BACKGROUND)
    stack.install_sample(OTHER, sandbox=UNSANDBOXED)
    stack.start()
    for app_id in (SAMPLE, OTHER):
        stack.control.start(app_id)
        stack.sample(app_id)
    return stack


def hidden_state(stack, app_id):
    assert stack.control.update_windows(app_id, active=1) == ACTIVE
    return stack.control.update_windows(app_id, hidden=1)


def wait_for_state(stack, app_id, state):
    """The notification arrives in its own time; what it means is seen when windows are hidden."""
    until(lambda: hidden_state(stack, app_id) == state, f"state {state} of {app_id}", detail=stack.service.log)


def test_player_is_frozen_unless_it_plays(daemon, player):
    assert hidden_state(player, SAMPLE) == HIDDEN
    daemon.notify(("audio", SAMPLE, 0), ("camera", OTHER, 0))
    wait_for_state(player, SAMPLE, INACTIVE)
    assert player.freezer_state(SAMPLE) == "THAWED"
    # Whoever has not asked for it is frozen, whatever it uses.
    assert hidden_state(player, OTHER) == HIDDEN
    daemon.notify()
    wait_for_state(player, SAMPLE, HIDDEN)


def test_each_notification_is_the_whole_picture(daemon, player):
    daemon.notify(("audio", SAMPLE, 0))
    wait_for_state(player, SAMPLE, INACTIVE)
    daemon.notify(("audio", OTHER, 0))
    wait_for_state(player, SAMPLE, HIDDEN)


def test_player_is_known_by_its_process(daemon, player):
    pid = next(record[1] for record in player.control.running()[0] if record[0] == SAMPLE)
    daemon.notify(("audio", "", pid))
    wait_for_state(player, SAMPLE, INACTIVE)


def test_process_of_nobody_is_warned_about_and_the_rest_counts(daemon, player):
    daemon.notify(("audio", "", 1), ("audio", "", -5), ("audio", "", 0), ("audio", SAMPLE, 1))
    wait_for_state(player, SAMPLE, INACTIVE)
    assert player.service.log().count("Could not find appId for given pid: ") == 3


def test_stale_process_beside_an_application_does_not_matter(daemon, player):
    daemon.notify(("audio", SAMPLE, 2 ** 22))
    wait_for_state(player, SAMPLE, INACTIVE)
    assert "Could not find appId" not in player.service.log()


def test_others_cannot_speak_for_the_daemon(stack, player):
    impostor = PolicyDaemon(stack.system_bus, "org.example.Impostor")
    impostor.notify(("audio", SAMPLE, 0))
    impostor.settle()
    assert hidden_state(player, SAMPLE) == HIDDEN
    impostor.close()


@pytest.mark.parametrize("signature, content", [("s", "audio"), ("as", ["audio"]), ("i", 1)])
def test_notification_of_another_type_is_ignored(daemon, player, signature, content):
    daemon.notify(("audio", SAMPLE, 0))
    wait_for_state(player, SAMPLE, INACTIVE)
    daemon.notify(content, signature=signature)
    daemon.settle()
    assert hidden_state(player, SAMPLE) == INACTIVE


def test_daemon_may_come_late_and_come_back(stack, player):
    for _ in range(2):
        daemon = PolicyDaemon(stack.system_bus)
        daemon.settle() # whose signals it is to take is known to the service in its own time
        daemon.notify(("audio", SAMPLE, 0))
        wait_for_state(player, SAMPLE, INACTIVE)
        daemon.notify()
        wait_for_state(player, SAMPLE, HIDDEN)
        daemon.close()
        until(lambda: not stack.system_bus.owner(PolicyDaemon.NAME), "the end of the daemon")
