"""What ./dev run and ./dev shell call."""

import os
import subprocess
import sys

from . import story
from .newcomer import Newcomer
from .stack import TREE, Stack
from .waiting import NotInTime

PROMPT = r"procwarden \$ "
TOUR = os.path.join(TREE, "docs", "tour.md")


def shell():
    """An ordinary user's prompt beside the service; see docs/tour.md for what to do there."""
    with Stack(own_proc=True) as stack:
        newcomer = Newcomer(stack, os.path.join(TREE, "docs", "man"), os.path.join(TREE, "data"))
        stack.install_sample()
        stack.start()
        story.describe(stack)
        story.line("service", f"pid {stack.service.pid}, log: {stack.service.child.log}")
        story.line("you are", f"{stack.user.name}, at home in {stack.user.home}")
        story.line("what to try", "procwardenctl start org.example.Sample, procwardenctl list, man procwardenctl,")
        story.line("", f"and {os.path.relpath(TOUR)}")
        story.line("end", "exit, or Ctrl-D: everything goes")
        startup = os.path.join(stack.directory, "bashrc")
        with open(startup, "w") as file:
            file.write(f"PS1='{PROMPT}'\n")
        subprocess.run(newcomer.command("/bin/bash", "--noprofile", "--rcfile", startup, "-i"), cwd=newcomer.home,
                       env={**newcomer.environment(), "TERM": os.environ.get("TERM", "dumb")}, check=False)


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
