"""What runs, what ended and why, and what a start would do."""

import os
import signal

import dbus
import pytest

from stack.client import BusError
from stack.permission_daemon import error
from stack.waiting import until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
UNSANDBOXED = {"Sandboxing": "Disabled"}
INTERFACE = "org.kestrix.Procwarden /org/kestrix/Procwarden/Introspect1 org.kestrix.Procwarden.Introspect1"


def ask(stack, member, signature="", *arguments):
    return stack.control.call("Introspect1", member, signature, *arguments)


def history(stack, app_id="", limit=0):
    return ask(stack, "GetHistory", "su", app_id, dbus.UInt32(limit))


@pytest.fixture
def sample(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.install_sample(OTHER, sandbox=UNSANDBOXED)
    service.control.reload()
    return service


def test_what_runs(sample):
    assert ask(sample, "ListRunning") == []
    started = sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.update_windows(SAMPLE, active=2, hidden=1)
    # What stands for /proc may have its files a little later.
    (found,) = until(lambda: "OomRank" in (found := ask(sample, "ListRunning"))[0] and found, "its rank")
    assert (found["Id"], found["Kind"], found["Pid"], found["State"]) == (SAMPLE, "application", started.pid, 1)
    assert (found["StartReason"], found["RequestorId"], found["Uris"]) == (4, "", [])
    assert (found["ActiveWindows"], found["InactiveWindows"], found["HiddenWindows"]) == (2, 0, 1)
    assert found["OomRank"] == 1
    if sample.hierarchies.is_real("memory"):
        assert os.path.realpath(found["Groups"]["memory"]) == sample.group("memory", SAMPLE)
        assert found["MemoryKb"] > 100 and found["Processes"] == 1
    if sample.hierarchies.is_real("freezer"):
        assert found["Frozen"] is False
        sample.control.update_windows(SAMPLE, hidden=1)
        until(lambda: ask(sample, "ListRunning")[0].get("Frozen"), "it to be frozen")


def test_launch_has_its_times(sample):
    sample.control.start(SAMPLE)
    sample.sample(SAMPLE)
    sample.control.update_windows(SAMPLE, active=1)
    status = ask(sample, "GetStatus", "s", SAMPLE)
    assert (status["Installed"], status["Launching"], status["Blocked"]) == (True, False, False)
    assert [found["Id"] for found in status["Running"]] == [SAMPLE]
    launch = status["Launch"]
    order = [launch[step] for step in ("Spawned", "Grouped", "Released", "FirstWindow")]
    assert order == sorted(order) and order[0] >= 0
    assert launch["Allowed"] <= launch["Released"] and "Prompted" not in launch and "FailedAt" not in launch
    assert launch["Asked"] <= status["Running"][0]["Since"]


def test_prompted_launch(sample):
    sample.install_sample(SAMPLE)
    sample.control.reload()
    sample.control.start(SAMPLE)
    launch = ask(sample, "GetStatus", "s", SAMPLE)["Launch"]
    assert launch["Prompted"] <= launch["Granted"] <= launch["Released"]


def test_name_of_an_instance_is_seen(sample):
    sample.install_sample(SAMPLE, sandbox=UNSANDBOXED, arguments="--intents echo")
    sample.control.reload()
    sample.control.start(SAMPLE)
    until(lambda: "NameSeen" in ask(sample, "GetStatus", "s", SAMPLE)["Launch"], "the name to be seen")


def test_unknown_application(sample):
    assert ask(sample, "GetStatus", "s", "org.example.Gone") == {
        "Installed": False, "Running": [], "Launching": False, "Blocked": False, "History": []}


def end_of(stack, app_id=SAMPLE):
    return until(lambda: history(stack, app_id), f"the end of {app_id}")[0]


@pytest.mark.parametrize("how, decision, detail", [
    ("quit 0", "exited", "exit status 0"),
    ("quit 3", "exited", "exit status 3"),
    ("kill", "crashed", "signal 11 (SIGSEGV)"),
    ("terminate", "requested", "exit status 0"),
    ("close", "closed", "exit status 0"),
])
def test_what_decided_an_end(sample, how, decision, detail):
    started = sample.control.start(SAMPLE)
    client = sample.sample(SAMPLE)
    if how.startswith("quit"):
        client.quit(int(how.split()[1]))
    elif how == "kill":
        os.kill(started.pid, signal.SIGSEGV)
    elif how == "terminate":
        sample.control.terminate(SAMPLE)
    else:
        sample.control.update_windows(SAMPLE)
    end = end_of(sample)
    assert (end["Id"], end["Kind"], end["Pid"]) == (SAMPLE, "application", started.pid)
    assert end["Decision"] == decision
    assert end["Detail"].endswith(detail)
    assert end["Started"] <= end["Ended"]
    assert "RequestorId" not in end
    requestor = (end.get("RequestorBus"), end.get("RequestorPid"))
    assert requestor == (("session", os.getpid()) if decision == "requested" else (None, None))
    assert ask(sample, "GetStatus", "s", SAMPLE)["LastEnd"] == end


def test_who_requested_an_end(sample):
    for app_id in (SAMPLE, OTHER):
        sample.control.start(app_id)
    target = "org.kestrix.Procwarden /org/kestrix/Procwarden/Control1 org.kestrix.Procwarden.Control1 Terminate"
    sample.sample(OTHER).call_service(target, SAMPLE)
    assert end_of(sample)["RequestorId"] == OTHER


def test_failed_launch(sample):
    sample.install_sample(SAMPLE)
    sample.control.reload()
    sample.permission_daemon.set_rule(SAMPLE, prompt=error("the user said no"))
    with pytest.raises(BusError):
        sample.control.start(SAMPLE)
    end = end_of(sample)
    assert (end["Decision"], "Pid" in end) == ("launch-failed", False)
    assert end["Detail"].endswith(": the user said no")
    launch = ask(sample, "GetStatus", "s", SAMPLE)["Launch"]
    assert (launch["Error"], launch["FailedAt"]) == ("the user said no", "Granted")


def test_history_is_the_latest_first_and_limited(sample):
    for code in (1, 2, 3):
        sample.control.start(SAMPLE)
        sample.sample(SAMPLE).quit(code)
        until(lambda: not sample.control.running()[0], "its end")
    sample.control.start(OTHER)
    sample.sample(OTHER).quit(4)
    end_of(sample, OTHER)
    assert [end["Detail"][-1] for end in history(sample)] == ["4", "3", "2", "1"]
    assert [end["Detail"][-1] for end in history(sample, SAMPLE, 2)] == ["3", "2"]
    assert history(sample, "org.example.Gone") == []


def test_application_learns_of_itself_only(sample):
    for app_id in (SAMPLE, OTHER):
        sample.control.start(app_id)
    asker = sample.sample(SAMPLE)
    refused = "error org.freedesktop.DBus.Error.AccessDenied: Not allowed to ask about "
    for member in ("GetStatus", "Explain"):
        assert asker.call_service(f"{INTERFACE} {member}", OTHER) == [refused + OTHER]
        assert not asker.call_service(f"{INTERFACE} {member}", SAMPLE)[0].startswith("error")
        assert asker.call_service(f"{INTERFACE} {member}", "")[0].startswith(refused)
    assert asker.call_service(f"{INTERFACE} GetMemory") == [refused + "the memory"]
    code, text = asker.run("/usr/bin/gdbus", "call", "--session", "--dest", "org.kestrix.Procwarden", "--object-path",
                           "/org/kestrix/Procwarden/Introspect1", "--method",
                           "org.kestrix.Procwarden.Introspect1.ListRunning")
    assert code == 0 and SAMPLE in text and OTHER not in text
    code, text = asker.run("/usr/bin/gdbus", "call", "--session", "--dest", "org.kestrix.Procwarden", "--object-path",
                           "/org/kestrix/Procwarden/Introspect1", "--method",
                           "org.kestrix.Procwarden.Introspect1.GetHistory", OTHER, "0")
    assert code != 0 and "AccessDenied" in text


def test_memory(own_memory):
    own_memory.memory.configure()
    own_memory.install_sample(sandbox=UNSANDBOXED)
    own_memory.install_sample(OTHER, sandbox=UNSANDBOXED)
    own_memory.start()
    for app_id in (SAMPLE, OTHER):
        own_memory.control.start(app_id)
    own_memory.control.update_windows(SAMPLE, active=1)
    until(lambda: all("OomRank" in found for found in ask(own_memory, "ListRunning")), "the ranks")
    memory = ask(own_memory, "GetMemory")
    assert memory["Level"] == 0 and memory["IntervalMs"] > 0
    assert 0 < memory["AvailableKb"] <= memory["TotalKb"] and 0 < memory["Percent"] <= 100
    assert [entry["Id"] for entry in memory["Candidates"]] == [OTHER, SAMPLE]
    own_memory.memory.set_level("low")
    assert ask(own_memory, "GetMemory")["Level"] == 100


def test_early_oom_is_told_with_its_figures(own_memory):
    own_memory.memory.configure()
    own_memory.install_sample(sandbox=UNSANDBOXED)
    own_memory.start()
    own_memory.control.start(SAMPLE)
    own_memory.memory.set_level("critical")
    end = end_of(own_memory)
    assert (end["Decision"], end["StopReason"]) == ("early-oom", 6)
    assert end["Detail"].startswith("memory is Critical, ") and end["Detail"].endswith("; signal 9 (SIGKILL)")


def test_explanation_is_what_a_start_does(service):
    plan = ask(service, "Explain", "s", SAMPLE)
    assert [check[:2] for check in plan["Checks"]] == [
        ["Installed", True], ["Instances", True], ["Block", True], ["Sandbox", True], ["Arguments", True],
        ["Environment", True]]
    started = service.control.start(SAMPLE)
    command = until(lambda: service.sandbox_command(started.pid), "the sandbox's command line")
    assert plan["Arguments"] == command
    environment = service.sample(SAMPLE).environment()
    for entry in plan["Environment"]:
        name, _, value = entry.partition("=")
        # The sandbox changes some of its own accord.
        if name.startswith("SOLVANE_"):
            assert environment[name] == value
    assert plan["Counts"]["Arguments"] == [len(command), 63]
    assert plan["Counts"]["Environment"] == [len(plan["Environment"]), 127]
    assert plan["Counts"]["ArgumentsBytes"][1] == plan["Counts"]["EnvironmentBytes"][1] == 8192

    plan = ask(service, "Explain", "s", SAMPLE)
    assert plan["Checks"][1] == ["Instances", False, "it runs, and only one instance may"]


def test_explained_instance_is_that_of_a_start(sample):
    sample.install_sample(SAMPLE, sandbox=UNSANDBOXED, main={"X-Nemo-Single-Instance": "no"})
    sample.control.reload()
    plan = ask(sample, "Explain", "s", SAMPLE)
    started = sample.control.start(SAMPLE)
    environment = sample.sample(started.instance_id).environment()
    assert environment["SOLVANE_APP_INSTANCE_ID"] == f"{SAMPLE}.instance_{started.pid}"
    assert f"SOLVANE_APP_INSTANCE_ID={SAMPLE}.instance_PID" in plan["Environment"]
    # What the longest pid takes is counted.
    count, _ = plan["Counts"]["EnvironmentBytes"]
    assert count == sum(len(entry.encode()) + 1 for entry in plan["Environment"]) + len("4194304") - len("PID")


def test_permission_that_is_not_installed_is_told_of(service):
    service.install_sample(SAMPLE, sandbox={"Permissions": "Internet;NoSuch"})
    service.control.reload()
    assert ask(service, "Explain", "s", SAMPLE)["Checks"][3] == [
        "Sandbox", True, "permissions: Internet, Base; not installed, so left out: NoSuch"]


@pytest.mark.parametrize("options, check", [
    ({"exec_line": "/nonexistent/program"}, ["Sandbox", False, "/nonexistent/program is not executable"]),
    ({"exec_line": "/nonexistent/program", "sandbox": UNSANDBOXED},
     ["Program", False, "/nonexistent/program, outside the sandbox"]),
    ({"arguments": " ".join(["x"] * 70), "sandbox": UNSANDBOXED}, ["Arguments", False, None]),
    ({"main": {"X-Maemo-Service": "org.example.legacy"}},
     ["Service", False, "no D-Bus service file for org.example.legacy"]),
])
def test_explanation_finds_faults(service, options, check):
    service.install_sample(SAMPLE, **options)
    service.control.reload()
    failed = [found for found in ask(service, "Explain", "s", SAMPLE)["Checks"] if not found[1]]
    assert len(failed) == 1 and failed[0][0] == check[0]
    assert check[2] is None or failed[0] == check


def test_explanation_of_nothing(service):
    assert ask(service, "Explain", "s", "org.example.Gone")["Checks"] == [
        ["Installed", False, "Cannot find application org.example.Gone"]]
