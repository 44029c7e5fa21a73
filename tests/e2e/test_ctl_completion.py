"""What shells complete of procwardenctl's words, and what its man page tells."""

import os
import re
import shutil
import subprocess

import pytest

import ctl
from stack.stack import TREE
from stack.waiting import LIMIT

SAMPLE = "org.example.Sample"
MAN_PAGE = os.path.join(TREE, "docs", "man", "procwardenctl.1")
BASH = os.path.join(TREE, "data", "completion", "bash", "procwardenctl")
ZSH = os.path.join(TREE, "data", "completion", "zsh", "_procwardenctl")


def completed(stack, line):
    """What bash offers for the last word of a line."""
    words = line.split(" ")
    script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}; '
              '_procwardenctl procwardenctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    env = ctl.environment(stack)
    env["PATH"] = f"{stack.bin_dir}:{env['PATH']}"
    found = subprocess.run(["/bin/bash", "-c", script, "bash", BASH, *words], env=env, capture_output=True, text=True,
                           timeout=LIMIT)
    assert found.stderr == ""
    return [word.rstrip() for word in found.stdout.split("\n") if word]


def test_bash_completion(service):
    names = ctl.run(service, "--list-commands").out.split()
    assert set(completed(service, "procwardenctl ")) >= set(names)
    assert completed(service, "procwardenctl hist") == ["history"]
    assert set(completed(service, "procwardenctl history -")) == {"--help", "--json", "--lines", "-h", "-n"}
    assert completed(service, "procwardenctl task ") == ["start", "stop"]
    service.control.start(SAMPLE)
    assert completed(service, "procwardenctl stop ") == [SAMPLE]
    assert completed(service, "procwardenctl status org.example.S") == [SAMPLE]
    assert completed(service, "procwardenctl status org.example.X") == []


def test_completion_without_the_service(stack):
    assert completed(stack, "procwardenctl stop ") == []


def test_scripts_are_in_order(stack):
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


def test_man_page_has_every_option(stack):
    with open(MAN_PAGE) as file:
        page = file.read().replace("\\-", "-")
    commands = page.partition("\n.SH COMMANDS\n")[2].partition("\n.SH ")[0]
    names = ctl.run(stack, "--list-commands").out.split()
    for name in names:
        section = re.search(rf"(?ms)^\.TP\n\.BR? {name}\b.*?(?=^\.TP\n\.BR? (?:{'|'.join(names)})\b|\Z)", commands)
        assert section, f"no word about {name}"
        for option in re.findall(r"--[\w-]+", ctl.run(stack, name, "--help").out.partition("Options:")[2]):
            if option not in ("--help", "--json"):
                assert option in section.group(), f"{option} of {name}"
    for option in ("--help", "--json", "--version", "--list-commands"):
        assert option in page
