"""What ./dev run and ./dev shell call."""

import os
import subprocess
import sys
import tempfile

from . import story
from .stack import Stack
from .waiting import NotInTime

PROMPT = r"procwarden \$ "


def shell():
    """The stack with service and sample application, and a prompt beside it."""
    with Stack() as stack:
        stack.install_sample()
        stack.start()
        story.describe(stack)
        story.line("service", f"pid {stack.service.pid}, log: {stack.service.child.log}")
        story.line("a start", "dbus-send --session --print-reply --dest=org.kestrix.Procwarden "
                   "/org/kestrix/Procwarden/Control1 org.kestrix.Procwarden.Control1.Start "
                   "string:org.example.Sample")
        story.line("end", "exit, or Ctrl-D: everything goes")
        with tempfile.NamedTemporaryFile("w", suffix=".bashrc") as startup:
            startup.write(f"PS1='{PROMPT}'\n")
            startup.flush()
            environment = {**os.environ, **stack.environment(), "HOME": os.environ.get("HOME", "/"),
                           "PATH": os.environ["PATH"], "STACK": stack.directory}
            subprocess.run(["/bin/bash", "--noprofile", "--rcfile", startup.name, "-i"], env=environment, check=False)


def main():
    commands = {"run": story.tell, "shell": shell}
    if len(sys.argv) != 2 or sys.argv[1] not in commands:
        sys.exit(f"usage: {sys.argv[0]} {'|'.join(commands)}")
    try:
        commands[sys.argv[1]]()
    except (AssertionError, NotInTime) as error:
        sys.exit(f"\nThis is not as it should be: {error}")


if __name__ == "__main__":
    main()
