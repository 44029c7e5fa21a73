"""Callers of the notification interface: applications that the service has started, some of them privileged, and a
stranger."""

import os
import re

import pytest

import raw
from stack.service import SESSION_NAME
from stack.users import PRIVILEGED, privileged_group

NAME = "org.freedesktop.Notifications"
PATH = "/org/freedesktop/Notifications"
NOTES = "org.example.Notes"
MAIL = "org.example.Mail"
GDBUS = ("/usr/bin/gdbus", "call", "--session", "--dest", NAME, "--object-path", PATH, "--method")


def start_application(stack, app_id, display_name=None):
    """Starts a sample application outside the sandbox. It owns its id as bus name, where its events go."""
    program = stack.applications.install_program(app_id)
    return _start(stack, app_id, f"{program} --name {app_id}", display_name)


def start_privileged_application(stack, app_id, display_name=None):
    """The same for one that runs in the group "privileged", as a program does that has this group and the
    set-group-ID bit."""
    program = stack.applications.install_program(app_id)
    entrance = stack.applications.install_program("privileged", source="/usr/bin/setpriv")
    os.chown(entrance, 0, privileged_group())
    os.chmod(entrance, 0o2755)
    if os.statvfs(entrance).f_flag & os.ST_NOSUID:
        pytest.skip("no program changes its group here")
    # All of its group ids, since the process is shown as root's while they differ.
    application = _start(stack, app_id, f"{entrance} --regid={PRIVILEGED} --keep-groups {program} --name {app_id}",
                         display_name)
    code, text = application.run("/usr/bin/stat", "--format=%U %G", "/proc/self/")
    assert (code, text) == (0, f"{stack.user.name} {PRIVILEGED}\n"), text
    if not stack.root.real_proc:
        # Shows itself where the service looks: what it makes has its own user and group, as the kernel's would.
        application.entrance = ("/bin/sh", "-c", f'mkdir "{stack.root.inside("proc")}/$$" && exec "$@"', "sh")
    return application


def _start(stack, app_id, exec_line, display_name):
    stack.install_sample(app_id, exec_line=exec_line, sandbox={"Sandboxing": "Disabled"},
                         main={"Name": display_name or app_id.rsplit(".", 1)[1]})
    stack.control.reload()
    stack.control.start(app_id)
    return Application(stack.sample(app_id, app_id), app_id)


class Application:
    """Calls with GLib's own tool, in a process of the application's."""

    def __init__(self, sample, app_id):
        self.id = app_id
        self.sample = sample
        self.entrance = () # what runs each program

    def run(self, *command, **options):
        """Runs a program as a part of the application; returns exit code and output."""
        return self.sample.run(*self.entrance, *command, **options)

    def gdbus(self, member, *arguments):
        """Arguments in GLib's text form. Returns exit code and output."""
        return self.run(*GDBUS, f"{NAME}.{member}", *arguments)

    def notify(self, summary="Hello", replaces=0, hints="{}", name="'Own name'", icon="'own-icon'"):
        """The id; raises AssertionError with what was printed if the call is refused."""
        code, text = self.gdbus("Notify", name, str(replaces), icon, f"'{summary}'", "'body'",
                                "['default', 'Open']", hints, "5000")
        found = re.fullmatch(r"\(uint32 (\d+),\)\n", text)
        assert code == 0 and found, text
        return int(found.group(1))

    def refusal(self, member, *arguments):
        """(error name, message) of a call that must fail."""
        code, text = self.gdbus(member, *arguments)
        found = re.match(r"Error: GDBus\.Error:([\w.]+): ([^\n]*)\n", text)
        assert code != 0 and found, text
        return found.groups()

    def refused_notify(self, replaces=0, hints="{}"):
        return self.refusal("Notify", "'Own name'", str(replaces), "''", "'stolen'", "''", "@as []", hints, "5000")

    def list(self, member, argument):
        """Ids, in order."""
        code, text = self.gdbus(member, f"'{argument}'")
        assert code == 0, text
        # In each record the id is what follows the first string.
        return [int(number) for number in re.findall(r"\('[^']*', (?:uint32 )?(\d+), '", text)]


def call(stack, member, *arguments, signature="", name=NAME):
    """As a stranger, who is privileged. Returns (signature, arguments) of the reply."""
    return raw.call(stack.session_bus, name, "Notifications", member, *arguments, signature=signature,
                    prefix="org.freedesktop.")


def notify(stack, summary="Hello", replaces=0, hints=None, name=NAME, actions=()):
    """As a stranger; returns the id."""
    signature, (number,) = call(stack, "Notify", "Own name", replaces, "own-icon", summary, "body", list(actions),
                                hints or {}, -1, signature="susssasa{sv}i", name=name)
    assert signature == "u"
    return int(number)


def by_the_other_name(stack, member, *arguments, signature=""):
    return call(stack, member, *arguments, signature=signature, name=SESSION_NAME)
