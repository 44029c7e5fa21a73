"""The first application of the README, typed as it stands there."""

import os
import re
import signal
import subprocess

import pytest

import ctl
from conftest import bring_up
from installed import InstalledTree
from stack.newcomer import Newcomer
from stack.stack import SANITIZER_OPTIONS, TREE
from stack.waiting import LIMIT, until

APP = "org.example.Nap"


def readme():
    with open(os.path.join(TREE, "README.md")) as file:
        return file.read()


def typed():
    return re.search(r"(?ms)^## A first application$.*?^```sh\n(.*?)^```$", readme())[1]


@pytest.fixture
def prompt(request, tmp_path):
    """A stack of the installed programs, and how the shell of the user beside it is started."""
    tree = InstalledTree(str(tmp_path / "tree"))
    for stack in bring_up(request, bin_dir=tree.make_bin_dir(str(tmp_path / "bin")), own_proc=True):
        tree.give_to(stack)
        newcomer = Newcomer(stack, tree.below_prefix("share/man"), tree.inside("/etc/procwarden"))
        stack.start()
        more = {name: ctl.environment(stack)[name] for name in SANITIZER_OPTIONS}
        yield stack, {"args": newcomer.command("/bin/bash", "-e"), "cwd": newcomer.home,
                      "env": {**newcomer.environment(), **more}}


def test_first_application(prompt, tmp_path):
    stack, options = prompt
    log = tmp_path / "output"
    with open(log, "w") as output:
        shell = subprocess.Popen(**options, stdin=subprocess.PIPE, stdout=output, stderr=output, text=True,
                                 start_new_session=True)
    try:
        shell.stdin.write(typed())
        shell.stdin.close()
        until(lambda: "memory" in log.read_text() or shell.poll() is not None, "the monitor", detail=log.read_text)
        assert shell.poll() is None, log.read_text()
        (running,) = ctl.run_json(stack, "list")
        assert running["Id"] == APP
        assert stack.sandbox_command(running["Pid"])[-2:] == ["/usr/bin/sleep", "600"]
        assert re.search(rf"(?m)^{APP} {running['Pid']}\n\S+  memory +normal\n\Z", log.read_text())
        # What becomes of it is shown until somebody presses Ctrl-C.
        ctl.run(stack, "stop", APP)
        until(lambda: re.search(r"ended .*requested", log.read_text()), "its end", detail=log.read_text)
        os.killpg(shell.pid, signal.SIGINT)
        shell.wait(LIMIT)
    finally:
        if shell.poll() is None:
            os.killpg(shell.pid, signal.SIGKILL)
            shell.wait()


def test_shell_that_it_speaks_of():
    """What ./dev shell calls, with commands in place of somebody at a terminal."""
    checked = typed().partition("procwardenctl start")[0]
    # Programs have more than one name where /bin is /usr/bin; each of them is one in that shell.
    elsewhere = "".join(checked.replace("/usr/bin/sleep", program) for program in ("/bin/sleep", "/sbin/ldconfig"))
    commands = f"procwardenctl start org.example.Sample\nprocwardenctl list\nls ${{MANPATH%:}}\n{checked}{elsewhere}"
    shell = subprocess.run(["/usr/bin/python3", "-B", "-m", "stack", "shell"], input=commands, text=True,
                           env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}, capture_output=True, timeout=4 * LIMIT)
    assert shell.returncode == 0, shell.stderr
    told = shell.stdout.partition("exit, or Ctrl-D: everything goes")[2]
    for line in (r"org\.example\.Sample \d+", r"org\.example\.Sample +launched .*", "man1", "1 file: nothing found"):
        assert re.search(rf"(?m)^{line}$", told), (shell.stdout, shell.stderr)
    assert told.count("1 file: nothing found") == 3, told


def test_it_has_ten_lines():
    assert len(typed().splitlines()) == 10

