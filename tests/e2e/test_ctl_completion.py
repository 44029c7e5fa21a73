"""What shells complete of procwardenctl's words, and what its man page tells."""

import os
import pty
import shutil
import subprocess

import pytest

import ctl
import tasker
from stack.stack import TREE
from stack.waiting import LIMIT, until

SAMPLE = "org.example.Sample"
OTHER = "org.example.Other"
MAN_PAGE = os.path.join(TREE, "docs", "man", "procwardenctl.1")
BASH = os.path.join(TREE, "data", "completion", "bash", "procwardenctl")
ZSH = os.path.join(TREE, "data", "completion", "zsh", "_procwardenctl")

# Writes each word that is offered into the file $OFFERED, when Control-T has put $LINE on the command line.
ZSH_SETUP = """
fpath=("$FUNCTIONS" $fpath)
autoload -Uz compinit
compinit -D -u
setopt no_auto_list no_auto_menu
compadd() {
    local -a found
    if [[ " $* " != *" -"[OAD]* ]]; then
        builtin compadd -A found "$@"
        (( $#found )) && print -rl -- "${(@)found}" >> "$OFFERED"
    fi
    builtin compadd "$@"
}
offer() {
    BUFFER=$LINE
    CURSOR=$#BUFFER
    zle complete-word
    print -r -- "$BUFFER" > "$OFFERED.done"
}
zle -N offer
bindkey '^T' offer
PS1='READY> '
"""


def shell_environment(stack, **more):
    env = ctl.environment(stack, **more)
    env["PATH"] = f"{stack.bin_dir}:{env['PATH']}"
    return env


def in_bash(stack, line, directory):
    """What bash offers for the last word of a line."""
    words = line.split(" ")
    script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; '
              'COMP_POINT=${#COMP_LINE}; '
              '_procwardenctl procwardenctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    found = subprocess.run(["/bin/bash", "-c", script, "bash", BASH, *words], env=shell_environment(stack),
                           capture_output=True, text=True, timeout=2 * LIMIT, cwd=directory)
    assert found.stderr == ""
    return {word.rstrip() for word in found.stdout.split("\n") if word}


def in_zsh(stack, line, directory):
    """What zsh, on a terminal, offers for the last word of a line."""
    offered = os.path.join(directory, "offered")
    setup = os.path.join(directory, ".zshrc")
    with open(setup, "w") as file:
        file.write(ZSH_SETUP)
    for path in (offered, offered + ".done"):
        if os.path.exists(path):
            os.unlink(path)
    ours, its = pty.openpty()
    # No start file of the machine's, ours alone.
    shell = subprocess.Popen(["zsh", "-o", "no_global_rcs", "-i"], cwd=directory, stdin=its, stdout=its, stderr=its,
                             start_new_session=True,
                             env=shell_environment(stack, ZDOTDIR=directory, OFFERED=offered, LINE=line, TERM="dumb",
                                                   FUNCTIONS=os.path.dirname(ZSH)))
    os.close(its)
    os.set_blocking(ours, False)
    seen = b""

    def read():
        nonlocal seen
        try:
            seen += os.read(ours, 65536)
        except BlockingIOError:
            pass
        return seen

    try:
        until(lambda: b"READY> " in read(), "zsh's prompt", detail=lambda: seen.decode(errors="replace"))
        os.write(ours, b"\x14")
        # It is there before it has its line.
        until(lambda: read() and os.path.exists(offered + ".done") and os.path.getsize(offered + ".done"),
              "the completion", limit=2 * LIMIT,
              detail=lambda: seen.decode(errors="replace"))
    finally:
        shell.kill()
        shell.wait()
        os.close(ours)
    with open(offered + ".done") as file:
        buffer = file.read().rstrip("\n")
    if not os.path.exists(offered):
        return set()
    with open(offered) as file:
        found = set(file.read().split())
    if len(found) == 1:
        # One that is alone is on the command line by then.
        assert buffer.startswith(line[:line.rfind(" ") + 1] + next(iter(found)).partition("/")[0]), buffer
    return found


@pytest.fixture(params=["bash", "zsh"])
def completed(request, tmp_path):
    """completed(stack, line): what the shell offers."""
    if not shutil.which(request.param):
        pytest.skip(f"needs {request.param}")
    (tmp_path / "files").mkdir()
    (tmp_path / "files" / "letter.txt").write_text("")
    offer = in_bash if request.param == "bash" else in_zsh
    return lambda stack, line: offer(stack, line, str(tmp_path / "files"))


def test_commands_and_options(stack, completed):
    names = set(ctl.run(stack, "--list-commands").out.split())
    general = {"--help", "--json", "--list-commands", "--list-ids", "--version"}
    # zsh keeps words with a dash for those who type one.
    assert completed(stack, "procwardenctl ") - general == names
    assert completed(stack, "procwardenctl --") == general
    assert completed(stack, "procwardenctl hist") == {"history"}
    assert completed(stack, "procwardenctl help hist") == {"history"}
    assert completed(stack, "procwardenctl --json hist") == {"history"}
    assert completed(stack, "procwardenctl history -") == {"--help", "--json", "--lines", "-h", "-n"}
    assert completed(stack, "procwardenctl debug --s") == {"--stdout", "--stderr"}
    assert completed(stack, "procwardenctl task ") == {"start", "stop"}
    assert completed(stack, "procwardenctl top --sort ") == {"memory", "cpu", "state", "oom", "id"}


def test_ids(stack, completed):
    stack.install_sample(OTHER)
    stack.start()
    tasker.install(stack, work=tasker.task(stack))
    handler = {"org.example.Sample", OTHER}
    work = tasker.task_id("work")
    assert completed(stack, "procwardenctl start ") == handler
    assert completed(stack, "procwardenctl explain org.example.S") == {SAMPLE}
    assert completed(stack, "procwardenctl stop ") == set()
    stack.control.start(SAMPLE)
    assert completed(stack, "procwardenctl stop ") == {SAMPLE}
    assert completed(stack, "procwardenctl status ") == {SAMPLE, OTHER, work}
    assert completed(stack, "procwardenctl status org.example.X") == set()
    assert completed(stack, "procwardenctl task start ") == {work}
    # What has an id already takes no second one, but for list.
    assert completed(stack, f"procwardenctl stop {SAMPLE} ") == set()
    assert completed(stack, f"procwardenctl list {SAMPLE} {OTHER[:-1]}") == {OTHER}
    # The value of an option is none of the words.
    assert completed(stack, "procwardenctl history -n ") == set()
    assert completed(stack, "procwardenctl history --lines ") == set()
    assert completed(stack, "procwardenctl history --json org.example.O") == {OTHER}
    assert completed(stack, "procwardenctl history -n 3 org.example.O") == {OTHER}


def test_files(stack, completed):
    assert completed(stack, "procwardenctl handlers le") == {"letter.txt"}
    assert completed(stack, f"procwardenctl debug {SAMPLE} --stdout le") == {"letter.txt"}
    assert completed(stack, f"procwardenctl debug {SAMPLE} -- le") == {"letter.txt"}
    assert completed(stack, "procwardenctl memory ") == set()


def test_without_the_service(stack, completed):
    assert completed(stack, "procwardenctl stop ") == set()
    stack.install_sample()
    assert completed(stack, "procwardenctl start ") == {SAMPLE}


def test_ids_for_the_completion(stack):
    stack.install_sample(OTHER)
    stack.start()
    tasker.install(stack, work=tasker.task(stack))
    work = tasker.task_id("work")

    def ids(*words):
        return ctl.run(stack, "--list-ids", *words).out.split()

    installed = [OTHER, SAMPLE]
    for command in ("app", "block", "debug", "explain", "start", "unblock"):
        assert ids(command) == installed
    for command in ("list", "status", "history", "frob"):
        assert ids(command) == [OTHER, SAMPLE, work]
    assert ids() == [OTHER, SAMPLE, work]
    assert ctl.run_json(stack, "--list-ids") == ctl.run(stack, "--list-ids", "--json").json == ids()
    assert ctl.run(stack, "--list-ids", "start", "--json").json == installed
    assert ctl.run_json(stack, "--list-ids", "stop") == []
    assert ids("stop") == ids("windows") == ids("wait") == ids("top") == []
    tasker.start(stack)
    tasker.wait_running(stack)
    assert ids("stop") == [work] and ids("wait") == [SAMPLE] and ids("tasks") == [OTHER, SAMPLE]
    stack.applications.remove(SAMPLE)
    stack.control.reload()
    assert ids("task") == [work] and ids("start") == [OTHER] # it runs still


def test_completion_does_not_wait_for_a_service_that_hangs(service):
    os.kill(service.service.child.popen.pid, 19)
    try:
        assert ctl.run(service, "--list-ids", "status").out.split() == [SAMPLE]
    finally:
        os.kill(service.service.child.popen.pid, 18)


def test_scripts_are_in_order():
    subprocess.run(["/bin/bash", "-n", BASH], check=True)
    if shutil.which("shellcheck"):
        subprocess.run(["shellcheck", "--shell=bash", BASH], check=True)
    if shutil.which("zsh"):
        subprocess.run(["zsh", "-n", ZSH], check=True)
    with open(ZSH) as file:
        assert file.readline() == "#compdef procwardenctl\n"


def test_man_page_is_in_order():
    groff = shutil.which("groff")
    if not groff:
        pytest.skip("needs groff")
    checked = subprocess.run([groff, "-man", "-Tutf8", "-ww", "-z", MAN_PAGE], capture_output=True, text=True)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")
