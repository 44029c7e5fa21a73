"""procwardenctl: what its commands print and do, and how it ends."""

import json
import os
import re

import dbus
import pytest

import ctl
import tasker
from invoker import HANDLER, install_handler
from stack.document_portal import DocumentPortal, cannot_run
from stack.process import state
from stack.waiting import until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
UNSANDBOXED = {"Sandboxing": "Disabled"}


@pytest.fixture
def sample(service):
    service.install_sample(sandbox=UNSANDBOXED)
    service.control.reload()
    return service


def start(stack, app_id=SAMPLE):
    stack.control.start(app_id)
    return stack.sample(app_id)


def ended(stack, count=1):
    return until(lambda: len(ends := ctl.run_json(stack, "history")) >= count and ends, f"{count} ends")


# --- without a service ---


@pytest.mark.parametrize("words", [
    ["list"], ["status", SAMPLE], ["history"], ["memory"], ["explain", SAMPLE], ["stop", SAMPLE], ["tasks", SAMPLE],
    ["windows", SAMPLE, "0", "0", "0"], ["notifications"], ["monitor"], ["block", SAMPLE], ["unblock", SAMPLE],
    ["wait", SAMPLE], ["stop", "--all", SAMPLE], ["task", "stop", SAMPLE], ["start", SAMPLE], ["debug", SAMPLE],
    ["intent", "Start"], ["task", "start", SAMPLE], ["start", "--raise", SAMPLE]])
def test_service_is_not_there(stack, words):
    result = ctl.run(stack, *words, status=ctl.NOT_THERE)
    assert result.out == ""
    assert re.fullmatch(r"procwardenctl: The service is not running\n"
                        r"procwardenctl: org\.freedesktop\.DBus\.Error\.\w+: .+\n", result.error)


@pytest.mark.parametrize("address", ["unix:path=/nonexistent", "nonsense", "unix:path=/dev/null", "autolaunch:"])
def test_bus_is_not_there(stack, address):
    for words, bus in ((["list"], "SESSION"), (["monitor"], "SESSION"), (["start", SAMPLE], "SESSION"),
                       (["notifications"], "SESSION"), (["block", SAMPLE], "SYSTEM"), (["wait", SAMPLE], "SYSTEM")):
        result = ctl.run(stack, *words, status=ctl.NOT_THERE, **{f"DBUS_{bus}_BUS_ADDRESS": address})
        assert re.fullmatch(r"procwardenctl: The bus cannot be reached\nprocwardenctl: org\.freedesktop\.\S+: .+\n",
                            result.error), words


def test_questions_do_not_start_the_service(stack):
    # The bus would start this, and it would leave its mark.
    mark = os.path.join(stack.user.home, "started")
    with open(os.path.join(stack.session_bus.services, "org.kestrix.Procwarden.service"), "w") as file:
        file.write(f"[D-BUS Service]\nName=org.kestrix.Procwarden\nExec=/bin/sh -c 'touch {mark}; exit 1'\n")
    bus = stack.session_bus.connect()
    bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReloadConfig", "", ())
    bus.close()
    for words in (["list"], ["status", SAMPLE], ["history"], ["memory"], ["explain", SAMPLE], ["tasks", SAMPLE],
                  ["notifications"], ["monitor"], ["stop", SAMPLE], ["windows", SAMPLE, "0", "0", "0"]):
        ctl.run(stack, *words, status=ctl.NOT_THERE)
    assert not os.path.exists(mark)
    ctl.run(stack, "start", SAMPLE, status=ctl.NOT_THERE)
    assert os.path.exists(mark)


# --- words that are wrong, and help ---


@pytest.mark.parametrize("words, text", [
    ([], "No command"),
    (["frob"], "No such command: frob"),
    (["list", "--frob"], "Unknown option 'frob'."),
    (["status"], "Too few arguments"),
    (["status", "a", "b"], "Too many arguments"),
    (["status", "a", "--", "b"], "Too many arguments"),
    (["history", "-n", "x"], "Not a number: x"),
    (["history", "-n"], "Missing value after '-n'."),
    (["windows", "a", "1", "2", "-"], "Not a number: -"),
    (["wait", "a", "--timeout", "soon"], "Not a number: soon"),
    (["monitor", "--interval", "x"], "Not a number: x"),
    (["monitor", "-i", "0"], "Not from 10 to 3600000: 0"),
    (["monitor", "-i", "9"], "Not from 10 to 3600000: 9"),
    (["monitor", "--interval", "3600001"], "Not from 10 to 3600000: 3600001"),
    (["stop", "--all", ""], "Empty argument"),
    (["debug", "a", "--env", "=x"], "Not NAME=VALUE: =x"),
    (["debug", "a", "--"], "No program after --"),
    (["task", "frob", "a"], "Neither start nor stop: frob"),
    (["task", "start", "a", "--hint", "Interval=x"], "Not a number: Interval=x"),
    (["task", "start", "a", "--hint", "x:=" + 70 * "[" + 70 * "]"], "The hints are too large, or nested too deeply"),
    (["intent", "a", "b"], "Not KEY=VALUE: b"),
    (["intent", "a", "b:={"], "Not JSON: {"),
    (["intent", "a", "b:=" + 70 * "[" + 70 * "]"], "The data are too large, or nested too deeply"),
    (["intent", "a", "--hint", "showDialog=x"], "Neither true nor false: showDialog=x"),
    (["intent", "a", "--file", "b"], "Not KEY=PATH: b"),
    (["intent", "a", "--file", "b=/nonexistent"], "Cannot open /nonexistent: No such file or directory"),
    (["intent", "a", "--write-file", "b=/"], "Not a regular file: /"),
])
def test_wrong_usage(stack, words, text):
    result = ctl.run(stack, *words, status=ctl.WRONG_USAGE)
    lines = result.error.splitlines()
    assert (result.out, lines[:-1]) == ("", [f"procwardenctl: {text}"])
    assert re.fullmatch(r'Try "procwardenctl( \w+)? --help"\.', lines[-1])


def test_help(stack):
    text = ctl.run(stack, "--help").out
    ctl.golden("help", text)
    assert max(map(len, text.splitlines())) <= 80
    assert ctl.run(stack, "-h").out == ctl.run(stack, "help").out == text
    version = re.fullmatch(r"procwardenctl (\d+\.\d+\.\d+)\n", ctl.run(stack, "--version").out).group(1)
    for words in (["--json", "--version"], ["--version", "--json"]):
        assert ctl.run(stack, *words).json == {"Version": version}
    names = ctl.run(stack, "--list-commands").out.split()
    assert names == re.findall(r"(?m)^  (\w+)  +\S", text.partition("Options:")[0])
    assert ctl.run_json(stack, "--list-commands") == ctl.run(stack, "--list-commands", "--json").json == names
    every = "\n".join(ctl.run(stack, name, "--help").out for name in names)
    ctl.golden("help_of_commands", every)


# --- what runs ---


def test_list(sample):
    assert ctl.run(sample, "list").out == "Nothing runs.\n"
    assert ctl.run_json(sample, "list") == []
    tasker.install(sample)
    start(sample)
    sample.control.update_windows(SAMPLE, active=1)
    tasker.start(sample)
    tasker.wait_running(sample)
    found = ctl.run_json_of_all(sample, 2)
    assert [process["Id"] for process in found] == [SAMPLE, tasker.task_id("work")]
    text = ctl.run(sample, "list").out
    if all(sample.hierarchies.is_real(name) for name in ("cpu", "memory", "freezer")):
        ctl.golden("list", ctl.normal(text, *((process["Pid"], "PID") for process in found),
                                      (f"user-{sample.user.uid}", "user-UID")))
    assert [process["Id"] for process in ctl.run_json(sample, "list", SAMPLE)] == [SAMPLE, tasker.task_id("work")]
    assert [process["Id"] for process in ctl.run_json(sample, "list", tasker.task_id("work"))] == [
        tasker.task_id("work")]
    assert ctl.run_json(sample, "list", "org.example.Samp") == []


def test_status(sample):
    first = start(sample)
    sample.control.update_windows(SAMPLE, active=1, hidden=2)
    status = ctl.run_json(sample, "status", SAMPLE)
    text = ctl.run(sample, "status", SAMPLE).out
    assert f"Pid: {status['Running'][0]['Pid']}\n" in text and "State: active\n" in text
    assert "Windows: 1 active, 0 inactive, 2 hidden\n" in text
    assert re.search(r"Last launch: asked for .*\n +allowed \d+ ms, spawned \d+ ms, .*first window \d+ ms\n", text)
    first.quit(3)
    ended(sample)
    text = ctl.run(sample, "status", SAMPLE).out
    ctl.golden("status", ctl.normal(re.sub(r", name seen \d+ ms", "", text)))
    assert set(ctl.run_json(sample, "status", SAMPLE)) == {
        "Installed", "Running", "Launching", "Blocked", "Launch", "LastEnd", "History"}
    assert ctl.run_json(sample, "status", SAMPLE)["History"] == ctl.run_json(sample, "history", SAMPLE)


def test_status_of_a_frozen_one(sample):
    if not sample.hierarchies.is_real("freezer"):
        pytest.skip("needs a freezer")
    start(sample)
    sample.control.update_windows(SAMPLE, hidden=1)
    until(lambda: "hidden, frozen" in ctl.run(sample, "status", SAMPLE).out, "it to be frozen")


def test_status_of_nothing(sample):
    result = ctl.run(sample, "status", "org.example.Gone", status=ctl.NO_SUCH_ID)
    assert result.error == "procwardenctl: Nothing is known of org.example.Gone\n"
    result = ctl.run(sample, "status", "org.example.Gone", "--json", status=ctl.NO_SUCH_ID)
    assert result.json["Installed"] is False


def test_history(sample):
    assert ctl.run(sample, "history").out == "Nothing has ended.\n"
    for code in (0, 3):
        start(sample).quit(code)
        until(lambda: not sample.control.running()[0], "its end")
    pid = sample.control.start(SAMPLE).pid
    sample.sample() # its own program, not yet the service's child code, gets the signal
    os.kill(pid, 11)
    pids = [end["Pid"] for end in ended(sample, 3)]
    ctl.golden("history", ctl.normal(ctl.run(sample, "history").out, *((pid, "PID") for pid in pids)))
    assert [end["Detail"] for end in ctl.run_json(sample, "history", "-n", "2")] == [
        "signal 11 (SIGSEGV)", "exit status 3"]
    assert len(ctl.run_json(sample, "history", SAMPLE, "--lines=1")) == 1
    assert ctl.run_json(sample, "history", "org.example.Gone") == []


def test_memory(own_memory):
    own_memory.memory.configure()
    own_memory.install_sample(sandbox=UNSANDBOXED)
    own_memory.start()
    started = own_memory.control.start(SAMPLE)
    ctl.run_json_of_all(own_memory)
    own_memory.memory.set_level("low")
    assert ctl.run_json(own_memory, "memory")["Level"] == 100
    ctl.golden("memory", re.sub(r"\d+ ms|[\d.]+ %", "N", ctl.normal(ctl.run(own_memory, "memory").out,
                                                                   (started.pid, "PID"))))


def test_explain(sample):
    text = ctl.run(sample, "explain", SAMPLE).out
    plan = ctl.run_json(sample, "explain", SAMPLE)
    for title, key in (("Command line", "Arguments"), ("Environment", "Environment")):
        lines = re.search(rf"\n{title}\n((?:  .*\n)+)", text).group(1)
        assert lines == "".join(f"  {line}\n" for line in plan[key])
    head = text.partition("\nCommand line")[0]
    ctl.golden("explain", re.sub(r"\d+ of", "N of", ctl.normal(head, (sample.directory, "DIR"))))
    # What would fail, fails.
    start(sample)
    assert "  FAILED  Instances: it runs, and only one instance may\n" in ctl.run(
        sample, "explain", SAMPLE, status=ctl.REFUSED).out
    ctl.run(sample, "explain", "org.example.Gone", status=ctl.NO_SUCH_ID)


# --- start and stop ---


def test_start_and_stop(sample):
    started = ctl.run_json(sample, "start", SAMPLE)
    (app,), _ = sample.control.running()
    assert started == {"Id": SAMPLE, "Pid": app[1], "StartReason": 4, "RequestorId": ""}
    sample.sample()
    refused = ctl.run(sample, "start", SAMPLE, status=ctl.REFUSED)
    assert (refused.out, refused.error) == (
        "", "procwardenctl: org.kestrix.Procwarden.Error.ApplicationAlreadyRunning\n")
    assert ctl.run_json(sample, "stop", SAMPLE) == {"Id": SAMPLE}
    assert ctl.run(sample, "wait", SAMPLE).out == ""
    assert sample.control.running() == ([], [])
    assert ctl.run(sample, "stop", SAMPLE, status=ctl.NO_SUCH_ID).error == (
        f"procwardenctl: org.freedesktop.DBus.Error.Failed: Application not running: {SAMPLE}\n")
    assert "Cannot find application" in ctl.run(sample, "start", "org.example.Gone", status=ctl.NO_SUCH_ID).error
    text = ctl.run(sample, "start", SAMPLE).out
    assert text == f"{SAMPLE} {sample.control.running()[0][0][1]}\n"


def test_raise(sample):
    assert ctl.run(sample, "start", "--raise", SAMPLE).out == f"{SAMPLE}\n"
    assert ctl.run_json(sample, "start", "-r", SAMPLE) == {"Id": SAMPLE}
    assert len(sample.control.running()[0]) == 1
    until(lambda: SAMPLE in sample.window_model.launched, "it to be raised")


def test_start_with_uris(stack):
    stack.start()
    handler = install_handler(stack, intents="OpenURI", main={"MimeType": "x-scheme-handler/test"})
    assert ctl.run(stack, "start", handler, "--uri", "test:one", "-u", "test:two").out == f"{handler}\n"
    assert ctl.run_json(stack, "start", handler, "--uri", "test:three", "test:four") == {"Id": handler}
    (app,), _ = stack.control.running()
    assert app[0] == handler
    heard = [line for line in stack.sample_files.diary(handler) if line.startswith("intent ")]
    opened = [json.loads(line.split(" ", 2)[2])["uri"] for line in heard]
    assert opened == ["test:one", "test:two", "test:three", "test:four"], heard


def test_debug(sample):
    output = os.path.join(sample.user.home, "out")
    errors = os.path.join(sample.user.home, "err")
    started = ctl.run_json(sample, "debug", SAMPLE, "--no-sandbox", "-e", "COLOUR=red", "--env", "SHAPE=round",
                           "-w", "/usr/bin/env", "--wrapper", "-", "--wrapper", "TASTE=sweet",
                           "--stdout", output, "--stderr", errors,
                           "--", "/bin/sh", "-c", "env; echo bad >&2; exit 7")
    assert started["Id"] == SAMPLE
    (end,) = ended(sample)
    assert (end["Pid"], end["Detail"]) == (started["Pid"], "exit status 7"), open(errors).read()
    lines = open(output).read().splitlines()
    # The wrapper took the environment away, and added to it.
    assert "TASTE=sweet" in lines and "COLOUR=red" not in lines
    assert open(errors).read() == "bad\n"

    ctl.run(sample, "debug", SAMPLE, "--no-sandbox", "-e", "COLOUR=red", "--env", "SHAPE=round", "-o", output, "--",
            "/usr/bin/env")
    ended(sample, 2)
    assert {"COLOUR=red", "SHAPE=round"} <= set(open(output).read().splitlines())


def test_options_of_the_sandbox(service):
    started = ctl.run_json(service, "debug", SAMPLE, "-f", "--quiet", "--firejail-param", "--name=sample")
    command = until(lambda: service.sandbox_command(started["Pid"]), "the sandbox's command line")
    assert "--quiet" in command and "--name=sample" in command


def test_block(sample):
    assert ctl.run_json(sample, "block", SAMPLE) == {"Id": SAMPLE}
    assert "Blocked: yes\n" in ctl.run(sample, "status", SAMPLE).out
    assert ctl.run(sample, "start", SAMPLE, status=ctl.REFUSED).error == (
        "procwardenctl: org.kestrix.Procwarden.Error.ApplicationBlocked\n")
    explained = ctl.run(sample, "explain", SAMPLE, status=ctl.REFUSED).out
    assert "  FAILED  Block: launches are prevented\n" in explained
    assert ctl.run(sample, "unblock", SAMPLE).out == ""
    ctl.run(sample, "start", SAMPLE)
    # What runs goes on.
    ctl.run(sample, "block", SAMPLE)
    assert [process["Id"] for process in ctl.run_json(sample, "list")] == [SAMPLE]
    sample.restart_service()
    assert "Blocked: no\n" in ctl.run(sample, "status", SAMPLE).out


def test_wait(sample):
    client = start(sample)
    result = ctl.run(sample, "wait", SAMPLE, "--timeout", "1", status=ctl.TIMED_OUT)
    assert result.error == "procwardenctl: Time is up\n"
    ctl.run(sample, "wait", SAMPLE, "-t", "0", status=ctl.TIMED_OUT)
    waiting = ctl.Later(sample, "wait", SAMPLE)
    until(lambda: sample.service.log().count("WaitForNotRunning") >= 3, "the call")
    assert waiting.running
    client.quit(0)
    assert (waiting.end(), waiting.lines) == (ctl.DONE, [])


def test_stop_all(sample):
    tasker.install(sample)
    start(sample)
    tasker.start(sample)
    tasker.wait_running(sample)
    ctl.run(sample, "stop", "-a", SAMPLE)
    until(lambda: sample.control.running() == ([], []), "the end of both")
    assert ctl.run_json(sample, "stop", "--all", SAMPLE) == {"Id": SAMPLE}


def test_windows(sample):
    start(sample)
    assert ctl.run(sample, "windows", SAMPLE, "1", "0", "0").out == "active\n"
    assert ctl.run_json(sample, "windows", SAMPLE, "0", "1", "0") == {"Id": SAMPLE, "State": 2}
    assert ctl.run(sample, "windows", SAMPLE, "0", "0", "0").out == "terminating\n"
    ended(sample)
    ctl.run(sample, "windows", SAMPLE, "1", "0", "0", status=ctl.NO_SUCH_ID)


# --- intents, tasks, notifications ---


def test_intent(stack):
    stack.start()
    install_handler(stack)
    answer = ctl.run_json(stack, "intent", "X-do", "text=some words", "number:=3", "list[]=a", "list[]=b")
    assert answer == ctl.run(stack, "intent", "X-do", "text=some words", "number:=3", 'list:=["a","b"]', "--json").json
    assert "some words" in json.dumps(answer)
    text = ctl.run(stack, "intent", "X-do", "text=some words").out
    assert "some words" in text
    refused = ctl.run(stack, "intent", "frob", status=ctl.REFUSED)
    assert refused.error.startswith("procwardenctl: org.freedesktop.DBus.Error.NotSupported")
    started = ctl.run_json(stack, "intent", "Start", "--hint", "preferredHandler=org.example.Handler",
                           "-H", "startDBus=true")
    assert started == {"instanceId": "org.example.Handler"}


@pytest.mark.skipif(bool(cannot_run()), reason=cannot_run())
def test_files_of_an_intent(stack):
    portal = DocumentPortal(stack)
    stack.start()
    install_handler(stack, behaviour="echo")
    paths = {}
    for name in ("one", "two", "three"):
        paths[name] = os.path.join(stack.user.home, f"{name}.txt")
        with open(paths[name], "w") as file:
            file.write(name)
        os.chown(paths[name], stack.user.uid, stack.user.gid)
    answer = ctl.run_json(stack, "intent", "X-do", "--file", f"files[]={paths['one']}", "-f",
                          f"files[]=file://{paths['two']}", "--write-file", f"target={paths['three']}")
    shared = [*answer["files"], answer["target"]]
    names = [os.path.basename(path) for path in shared]
    assert names == ["one.txt", "two.txt", "three.txt"], answer
    assert all(f"/by-app/{HANDLER}/" in path for path in shared), answer
    assert ctl.run_json(stack, "intent", "X-do", "-F", f"target={paths['one']}")["target"].endswith("/one.txt")
    portal.close()


def test_application_learns_of_itself_only(sample):
    sample.install_sample(OTHER, sandbox=UNSANDBOXED)
    sample.control.reload()
    start(sample, OTHER)
    application = start(sample)
    # Where the user can reach it.
    program = sample.applications.install_program("procwardenctl", os.path.join(sample.bin_dir, "procwardenctl"))
    code, text = application.run(program, "list", "--json")
    assert (code, [process["Id"] for process in json.loads(text)]) == (0, [SAMPLE])
    assert application.run(program, "status", OTHER) == (
        ctl.REFUSED, "procwardenctl: org.freedesktop.DBus.Error.AccessDenied: "
                     f"Not allowed to ask about {OTHER}\n")
    code, text = application.run(program, "memory")
    assert (code, text.partition(": ")[2]) == (
        ctl.REFUSED, "org.freedesktop.DBus.Error.AccessDenied: Not allowed to ask about the memory\n")


def test_tasks(sample):
    assert ctl.run(sample, "tasks", SAMPLE).out == "It has no tasks.\n"
    ctl.run(sample, "tasks", "org.example.Gone", status=ctl.NO_SUCH_ID)
    tasker.install(sample, work=tasker.task(sample, permissions=["Audio"], conditions=["Internet"]),
                   often=tasker.task(sample, "periodic"))
    ctl.golden("tasks", ctl.normal(ctl.run(sample, "tasks", SAMPLE).out))
    found = ctl.run_json(sample, "tasks", SAMPLE)
    assert found[1] == {"Id": tasker.task_id("work"), "Type": "worker", "Conditions": ["Internet"],
                        "Permissions": ["Audio"], "Running": False}


def test_task(sample):
    tasker.install(sample)
    work = tasker.task_id("work")
    assert ctl.run_json(sample, "task", "start", work, "--hint", "RunningTime=60", "-H", "Autostart=false",
                        "--", "--flood", "1") == {"Id": work}
    tasker.wait_running(sample)
    (found,) = [task for task in ctl.run_json(sample, "tasks", SAMPLE) if task["Running"]]
    assert found["Id"] == work and state(found["Pid"])
    with open(f"/proc/{found['Pid']}/limits") as file:
        assert re.search(r"Max cpu time +60 ", file.read())
    ctl.run(sample, "task", "stop", "--keep", work)
    until(lambda: not any(task["Running"] for task in ctl.run_json(sample, "tasks", SAMPLE)), "its end")
    assert ctl.run(sample, "task", "stop", work).out == ""
    refused = ctl.run(sample, "task", "start", tasker.task_id("none"), status=ctl.NO_SUCH_ID)
    assert refused.error.startswith("procwardenctl: org.kestrix.Procwarden.Error.TaskNotFound: No such task: ")
    refused = ctl.run(sample, "task", "start", tasker.task_id("often"), "-H", "Interval=5", status=ctl.REFUSED)
    assert refused.error == ("procwardenctl: org.freedesktop.DBus.Error.InvalidArgs: "
                             "Minimum interval is 15 minutes\n")


def test_notifications(sample):
    assert ctl.run(sample, "notifications").out == "No notifications.\n"
    bus = sample.session_bus.connect()
    bus.call_blocking("org.kestrix.Procwarden", "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                      "Notify", "susssasa{sv}i",
                      ("Somebody", dbus.UInt32(0), "icon", "Ready\x1b[2J", "It is done.", dbus.Array([], signature="s"),
                       dbus.Dictionary({"urgency": dbus.Byte(1)}, signature="sv"), -1))
    bus.close()
    ctl.golden("notifications", ctl.normal(ctl.run(sample, "notifications").out))
    (found,) = ctl.run_json(sample, "notifications")
    assert (found["AppName"], found["Summary"], found["Body"]) == ("Somebody", "Ready\x1b[2J", "It is done.")
    assert found["Hints"]["urgency"] == 1 and found["ExpireTimeout"] == -1
