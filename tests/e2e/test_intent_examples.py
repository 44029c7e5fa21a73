"""The guide to intents shows code that works."""

import os
import re
import shutil

import pytest

from invoker import Application
from stack.document_portal import DocumentPortal, cannot_run
from stack.stack import TREE

GUIDE = os.path.join(TREE, "docs", "intents.md")
EXAMPLES = os.path.join(TREE, "docs", "examples", "intents")
COUNTER = "org.example.Counter"


def read(path):
    with open(path) as file:
        return file.read()


def test_guide_shows_the_examples():
    shown = dict(re.findall(r"<!-- (\S+) -->\n```\w+\n(.*?)```", read(GUIDE), re.S))
    assert sorted(shown) == ["example.desktop", "handler.cpp", "handler.py", "invoke.cpp", "invoke.py"]
    for name, code in shown.items():
        assert code == read(os.path.join(EXAMPLES, name)), name


def command(stack, name, language):
    """Installs an example; returns what runs it."""
    if language == "cpp":
        source = os.path.join(stack.bin_dir, f"procwarden-example-{name}")
        return [stack.applications.install_program(f"example-{name}", source)]
    target = stack.applications.program(f"{name}.py")
    shutil.copyfile(os.path.join(EXAMPLES, f"{name}.py"), target)
    os.chmod(target, 0o755)
    return ["/usr/bin/python3", target]


@pytest.mark.skipif(bool(cannot_run()), reason=cannot_run())
@pytest.mark.parametrize("invoker", ["py", "cpp"])
@pytest.mark.parametrize("handler", ["py", "cpp"])
def test_examples(stack, handler, invoker):
    portal = DocumentPortal(stack)
    stack.start()
    # As the guide has it, but for where the program lies and for the sandbox, which has no interpreter.
    entry = read(os.path.join(EXAMPLES, "example.desktop"))
    entry = re.sub(r"(?m)^Exec=.*", "Exec=" + " ".join(command(stack, "handler", handler)), entry)
    with open(stack.applications.desktop_file(COUNTER), "w") as file:
        file.write(entry + "Sandboxing=Disabled\n")
    caller = Application(stack, "org.example.Caller")

    lines = os.path.join(stack.user.home, "lines.txt")
    with open(lines, "w") as file:
        file.write("one\ntwo\nthree\n")
    os.chown(lines, stack.user.uid, stack.user.gid)
    program = command(stack, "invoke", invoker)
    assert caller.sample.run(*program, lines) == (0, "3\n")

    # An error of the handler's is not for the eyes of an application.
    stack.applications.remove(COUNTER)
    stack.control.reload()
    code, text = caller.sample.run(*program, lines)
    assert (code, text) == (1, "org.freedesktop.DBus.Error.Failed: Operation failed\n")
    portal.close()
