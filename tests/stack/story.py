"""./dev run: one application's life, told with the values that were really seen."""

import os
import subprocess

from . import cgroups, client_story, intent_story, shortage, task_story
from .client import BusError
from .process import descendants, is_running
from .stack import Stack
from .telling import STATES, chapter, line, wait_status
from .waiting import until

APP = "org.example.Sample"
CLOCK = "org.example.Clock"
OWNER, THIEF = "org.example.Letters", "org.example.Thief"


def tell():
    with Stack() as stack:
        _introduce(stack)
        client_story.explain(stack, APP)
        pid = _start(stack)
        client_story.status(stack, APP)
        _hide_and_show(stack)
        _refuse_second(stack)
        _stop(stack, pid)
        _steal_notification(stack)
        intent_story.tell(stack)
        _end(stack)
        directory, uid = stack.directory, stack.user.uid
    _nothing_left(directory, uid)
    with Stack() as stack:
        task_story.tell(stack)
        directory, uid = stack.directory, stack.user.uid
    _nothing_left(directory, uid)
    # A service reads its thresholds when it starts, so this is one of its own.
    with Stack() as stack:
        shortage.tell(stack)
        directory, uid = stack.directory, stack.user.uid
    _nothing_left(directory, uid)


def _sandbox_version():
    output = subprocess.run(["/usr/bin/firejail", "--version"], capture_output=True, text=True, check=False).stdout
    return " ".join(output.split()[:3]) or "not found"


def describe(stack):
    """What is real on this machine, and what stands in for what."""
    hierarchies = stack.hierarchies
    if hierarchies.machine:
        line("control groups", "real, the machine's own version 1 hierarchies")
    else:
        names = ", ".join(sorted(hierarchies.real)) or "none"
        line("control groups", f"not the machine's own; version 1 hierarchies mounted for this run: {names}")
        if not hierarchies.all_real:
            missing = ", ".join(sorted(set(hierarchies.directories) - hierarchies.real))
            line("", f"plain directories, which take what is written and do nothing: {missing}")
    line("sandbox", f"real, {_sandbox_version()}, which is not given --template (it does not know it)")
    if stack.root.real_proc:
        line("/proc", "real")
    else:
        why = ("so that the memory can run short" if stack.own_proc else "this root may not lower a score"
               if hierarchies.all_real else "the kernel lists no version 1 groups")
        line("/proc", f"partly stood in for ({why}): score files are plain files")
    line("stood in for", "the permission daemon (org.sailfishos.sailjaild1), which grants everything here;")
    line("", "the window model (org.nemomobile.lipstick); the compositor's window counts come from here;")
    line("", "the notification server (org.solvaneos.Notifications)")
    line("buses", "real, a private session bus and a private system bus")


def _introduce(stack):
    chapter("What is real here, and what is not")
    describe(stack)
    chapter("The service comes up")
    stack.install_sample(APP)
    # Runs beside the other one and is never hidden: its ticks show that time passes.
    stack.install_sample(CLOCK, sandbox={"Sandboxing": "Disabled"}, arguments="--no-lifecycle")
    stack.start()
    line("service", f"pid {stack.service.pid}, user {stack.user.name} ({stack.user.uid})")
    for bus, name in ((stack.session_bus, "org.kestrix.Procwarden"),
                      (stack.system_bus, "org.kestrix.Procwarden.User")):
        line(f"{bus.kind} bus", f"owns {name}")
    for path in stack.user_groups().values():
        line("delegated to it", path)


def _start(stack):
    chapter(f"Start {APP}")
    started = stack.control.start(APP)
    line("reply", f"instance {started.instance_id}, pid {started.pid}, start reason {started.start_reason}")
    command = until(lambda: stack.sandbox_command(started.pid), "the sandbox's command line")
    line("sandbox", f"{len(command)} arguments:")
    for argument in command:
        print(f"  {'':<18}   {argument}")
    stack.sample(APP)
    groups = cgroups.of_process(started.pid)
    for controller in cgroups.REQUIRED:
        real = stack.hierarchies.is_real(controller)
        line(f"group {controller}", groups[controller] if real else stack.group(controller, APP))
    line("processes in it", f"{started.pid} and {len(descendants(started.pid))} below it")
    stack.control.start(CLOCK)
    stack.sample(CLOCK)
    _set_windows(stack, "active", active=1)
    _show_ticks(stack)
    return started.pid


def _set_windows(stack, wanted, **counts):
    state = stack.control.update_windows(APP, **counts)
    text = ", ".join(f"{count} {kind}" for kind, count in counts.items())
    line("windows", f"{text}: the state is {state}, {STATES.get(state, 'none')}")
    if STATES.get(state) != wanted:
        raise AssertionError(f"the state should be {wanted}")


def _show_ticks(stack):
    before = stack.sample_files.ticks(APP)
    until(lambda: stack.sample_files.ticks(APP) > before + 9, "ticks of the application")
    line("ticks", f"{before}, then {stack.sample_files.ticks(APP)}: it runs")


def _hide_and_show(stack):
    chapter("Its only window is hidden")
    _set_windows(stack, "hidden", hidden=1)
    if stack.hierarchies.is_real("freezer"):
        until(lambda: stack.freezer_state(APP) == "FROZEN", "the freezing of the group")
        line("freezer", f"{stack.group('freezer', APP)}/freezer.state reads {stack.freezer_state(APP)}")
        before, clock = stack.sample_files.ticks(APP), stack.sample_files.ticks(CLOCK)
        until(lambda: stack.sample_files.ticks(CLOCK) > clock + 25, "ticks of the other application")
        after, passed = stack.sample_files.ticks(APP), stack.sample_files.ticks(CLOCK) - clock
        line("ticks", f"{before}, then {after}, while {CLOCK} counted {passed} more")
        if after != before:
            raise AssertionError("a frozen application has gone on counting")
    else:
        until(lambda: stack.freezer_state(APP) == "FROZEN", "the order to freeze the group")
        line("freezer", "FROZEN was written; there is no freezer behind it here, so it runs on")
    chapter("Its window is shown again")
    _set_windows(stack, "active", active=1)
    until(lambda: stack.freezer_state(APP) == "THAWED", "the thawing of the group")
    line("freezer", f"reads {stack.freezer_state(APP)}")
    _show_ticks(stack)


def _refuse_second(stack):
    chapter("A second start of the same application")
    try:
        stack.control.start(APP)
    except BusError as error:
        line("refused", error.name)
    else:
        raise AssertionError("a single-instance application was started twice")


def _stop(stack, pid):
    chapter("Stop it")
    monitor = stack.monitor()
    client_story.stop(stack, APP)
    details = monitor.wait_for("Terminated", APP)[-1].arguments[1]
    line("signal Terminated", f"pid {details['Pid']}, stop reason {details['StopReason']} (requested)")
    line("exit", wait_status(details["ExitStatus"]))
    until(lambda: not is_running(pid), "the end of the process")
    # A plain directory, unlike a group, cannot be removed while it has files.
    left = [controller for controller in cgroups.REQUIRED
            if stack.hierarchies.is_real(controller) and os.path.exists(stack.group(controller, APP))]
    line("group directories", f"left behind: {left}" if left else "gone")
    running = [record[0] for record in stack.control.running()[0]]
    line("running", ", ".join(running) or "nothing")
    client_story.history(stack, APP, "requested .* procwardenctl")


def _steal_notification(stack):
    chapter("Two applications and one notification")
    for app in (OWNER, THIEF):
        program = stack.applications.install_program(app)
        stack.install_sample(app, exec_line=f"{program} --name {app} --no-lifecycle",
                             sandbox={"Sandboxing": "Disabled"})
    stack.control.reload()
    owner, thief = (_started_with_name(stack, app) for app in (OWNER, THIEF))
    code, text = owner.run("/usr/bin/notify-send", "--print-id", "--app-name=Your bank", "A letter", "for you")
    if code != 0:
        raise AssertionError(text)
    shown = stack.notification_server.wait_for("A letter")
    line("notify-send", f"of {OWNER}, as \"Your bank\": number {text.strip()}")
    line("the server has", f"\"{shown.app_name}\", of {shown.hints['x-solvane-application-id']}")
    code, text = thief.run("/usr/bin/gdbus", "call", "--session", "--dest", "org.freedesktop.Notifications",
                           "--object-path", "/org/freedesktop/Notifications", "--method",
                           "org.freedesktop.Notifications.CloseNotification", str(shown.id))
    line(f"close, {THIEF.rpartition('.')[2]}", text.splitlines()[0])
    if code == 0 or stack.notification_server.closed:
        raise AssertionError("an application has closed another's notification")
    monitor = stack.monitor()
    stack.notification_server.invoke(shown.id)
    told = monitor.wait_for("ActionInvoked", shown.id)[-1]
    line("the user taps it", f"{told.member} {told.arguments} goes to {told.destination} alone")
    for app in (OWNER, THIEF):
        stack.control.terminate(app)
        monitor.wait_for("Terminated", app)


def _started_with_name(stack, app):
    stack.control.start(app)
    return stack.sample(app, app)


def _end(stack):
    chapter("SIGTERM to the service, while two applications run, one of them hidden")
    for app in (APP, CLOCK):
        if app not in [record[0] for record in stack.control.running()[0]]:
            stack.control.start(app)
        stack.sample(app)
    pids = [record[1] for record in stack.control.running()[0]]
    stack.control.update_windows(APP, hidden=1)
    until(lambda: stack.freezer_state(APP) == "FROZEN", "the freezing of the group")
    everything = set(pids).union(*(descendants(pid) for pid in pids))
    line("running", f"{len(pids)} applications, {len(everything)} processes")
    line("exit status", str(stack.service.stop()))
    until(lambda: not any(is_running(pid) for pid in everything), "the end of the applications",
          detail=lambda: str([pid for pid in everything if is_running(pid)]))
    line("processes left", "none")


def _nothing_left(directory, uid):
    left = [path for hierarchy in cgroups.mounted_hierarchies().values()
            if os.path.exists(path := cgroups.user_directory(hierarchy, uid))]
    left += [directory] if os.path.exists(directory) else []
    line("files and groups", f"left behind: {left}" if left else "none left after the buses went, too")
    if left:
        raise AssertionError("not everything was removed")
