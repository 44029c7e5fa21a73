"""procwardenctl: its options as a whole. Every one is used by a test, and the man page and the help agree."""

import ast
import glob
import os
import re
import shutil
import subprocess

import pytest

import ctl
import tasker
from invoker import install_handler
from stack.document_portal import DocumentPortal, cannot_run
from stack.stack import TREE
from stack.waiting import LIMIT

HERE = os.path.dirname(os.path.abspath(__file__))
MAN_PAGE = os.path.join(TREE, "docs", "man", "procwardenctl.1")
SAMPLE = "org.example.Sample"


def commands(stack):
    return ctl.run(stack, "--list-commands").out.split()


def options_of(stack, command):
    """Each option of a command as its help has it: a set of the forms that mean the same."""
    text = ctl.run(stack, command, "--help").out.partition("\nOptions:\n")[2]
    lines = re.findall(r"(?m)^  (-[\w-]+(?:, -[\w-]+)*)", text)
    return [frozenset(re.findall(r"-[\w-]+", line)) for line in lines]


# --- what tests use: read from their sources ---


def ordered(node):
    """The texts in a call's arguments, in the order of the source, which ast.walk() does not keep."""
    found = [part for part in ast.walk(node) if isinstance(part, ast.Constant) and isinstance(part.value, str)]
    return [part.value for part in sorted(found, key=lambda part: (part.lineno, part.col_offset))]


def used_options(names):
    """(command, option) for all that calls in the tests of this directory have. What stands in the lists of
    parametrized tests does not count, since most of that is there to be refused."""
    used = set()
    for path in glob.glob(os.path.join(HERE, "test_ctl*.py")):
        with open(path) as file:
            tree = ast.parse(file.read())
        subject = re.search(r"test_ctl_?(\w*)\.py$", path).group(1)
        for function in (node for node in ast.walk(tree) if isinstance(node, ast.FunctionDef)):
            for statement in function.body:
                for node in ast.walk(statement):
                    if isinstance(node, ast.Call):
                        used |= options_in(ordered(node), names, subject)
    return used


def options_in(words, names, subject):
    """Of one call: the command is its first word that is one, or what the whole file is about."""
    places = [place for place, word in enumerate(words) if word in names]
    if places:
        command, words = words[places[0]], words[:places[0]] + words[places[0] + 1:]
    elif subject in names:
        command = subject
    else:
        command = ""
    if "--" in words:
        words = words[:words.index("--")]
    return {(command, re.match(r"--?[\w-]+", word).group()) for word in words if re.match(r"--?[a-zA-Z]", word)}


def test_every_option_has_a_test(stack):
    names = commands(stack)
    used = used_options(names)
    missing = [f"{command} {form}" for command in names for option in options_of(stack, command)
               for form in sorted(option) if form not in ("-h", "--help", "--json") and (command, form) not in used]
    assert not missing, f"no test uses: {missing}"
    general = ctl.run(stack, "--help").out.partition("\nOptions:\n")[2]
    for option in re.findall(r"(?m)^  .*?(--[\w-]+)", general):
        assert ("", option) in used, option


def test_man_page_and_help_have_the_same_options(stack):
    with open(MAN_PAGE) as file:
        page = file.read().replace("\\-", "-")
    page = re.sub(r"\\f[A-Z]", "", page).replace('"', "")
    names = commands(stack)
    body = page.partition("\n.SH COMMANDS\n")[2].partition("\n.SH ")[0]
    for name in names:
        section = re.search(rf"(?ms)^\.TP\n\.BR? {name}\b.*?(?=^\.TP\n\.BR? (?:{'|'.join(names)})\b|^\.SS|\Z)", body)
        assert section, f"no word about {name}"
        heads = re.findall(r"(?m)^\.TP\n\.(?:BR?|TQ) (-.*)$", section.group())
        told = {frozenset(re.findall(r"(?:^|(?<=[ ,]))--?[a-zA-Z][\w-]*", head)) for head in heads}
        known = {option for option in options_of(stack, name) if not option & {"--help", "--json"}}
        assert told == known, name
    # In the page's order, so that a reader of one finds the place in the other: no name is told of twice.
    for name in names:
        assert len(re.findall(rf"(?m)^\.TP\n\.BR? {name}\b", body)) == 1, name


def test_every_command_has_help(stack):
    for name in commands(stack):
        text = ctl.run(stack, name, "--help").out
        assert text.startswith(f"Usage: procwardenctl {name}"), name
        for words in ((name, "-h"), ("help", name), (name, "--json", "--help"), ("--json", name, "-h")):
            assert ctl.run(stack, *words).out == text
        refused = ctl.run(stack, name, "--frob", status=ctl.WRONG_USAGE)
        assert refused.error == (f"procwardenctl: Unknown option 'frob'.\n"
                                 f'Try "procwardenctl {name} --help".\n')


# --- JSON of every command ---


@pytest.fixture
def full(stack):
    """A service with something of everything."""
    stack.start()
    tasker.install(stack)
    install_handler(stack, intents="X-do;OpenURI")
    return stack


# Command -> words that make it succeed, in an order in which all of them do.
WORDS = [
    ["start", SAMPLE], ["windows", SAMPLE, "1", "0", "0"], ["list"], ["status", SAMPLE],
    ["task", "start", tasker.task_id("work")], ["tasks", SAMPLE], ["memory"], ["apps"], ["app", SAMPLE],
    ["handlers", "test:x"], ["intent", "X-do", "text=x"], ["notifications"], ["stop", SAMPLE],
    ["task", "stop", tasker.task_id("work")], ["wait", SAMPLE],
    ["history"], ["explain", SAMPLE], ["debug", SAMPLE], ["block", SAMPLE], ["unblock", SAMPLE],
]
# These run on, or look at files: they have tests of their own.
OTHERS = {"monitor", "top", "check"}


def test_json_of_every_command(full):
    assert {words[0] for words in WORDS} | OTHERS >= set(commands(full))
    for words in WORDS:
        result = ctl.run(full, *words, "--json")
        value = result.json
        assert isinstance(value, (dict, list)) and result.out.endswith("\n"), words
        if words[0] in ("start", "stop", "wait", "block", "unblock", "windows", "debug"):
            assert value["Id"] == SAMPLE


def test_options_of_check(stack, tmp_path):
    fine = tmp_path / "example.desktop"
    fine.write_text("[Desktop Entry]\nType=Application\nName=Example\nExec=/bin/true\n")
    notes = ctl.run_json(stack, "check", str(fine))["Findings"]
    assert notes and {note["Severity"] for note in notes} == {"note"}
    assert ctl.run_json(stack, "check", "--quiet", str(fine))["Findings"] == []
    assert ctl.run_json(stack, "check", "-q", str(fine))["Findings"] == []
    strict = ctl.run(stack, "check", "--strict", str(fine), status=ctl.REFUSED)
    assert strict.out == ctl.run(stack, "check", str(fine)).out
    # Nothing tells what this is; as a desktop file it has no usable name.
    strange = tmp_path / "example"
    strange.write_text(fine.read_text())
    found = ctl.run_json(stack, "check", "--type", "desktop", str(strange), status=ctl.REFUSED)
    assert found["Errors"] + found["Warnings"] > 0
    assert ctl.run_json(stack, "check", "-t", "desktop", str(strange), status=ctl.REFUSED) == found
    rules = ctl.run_json(stack, "check", "--rules")
    assert {note["Rule"] for note in notes} <= {rule["Rule"] for rule in rules}


# --- what the man page says ---


def examples():
    with open(MAN_PAGE) as file:
        text = file.read().partition("\n.EX\n")[2].partition("\n.EE")[0]
    return [line.replace("\\-", "-") for line in text.splitlines()]


@pytest.mark.skipif(bool(cannot_run()), reason=cannot_run())
def test_examples_of_the_man_page(stack, tmp_path):
    portal = DocumentPortal(stack)
    stack.start()
    stack.install_sample("org.example.Notes", sandbox={"Sandboxing": "Disabled"})
    install_handler(stack, intents="Share", main={"MimeType": "image/png"})
    # Where the portal of the user can look.
    picture = os.path.join(stack.user.home, "picture.png")
    with open(picture, "wb"):
        os.chown(picture, stack.user.uid, stack.user.gid)
    with open(stack.applications.desktop_file("org.example.Notes")) as file:
        (tmp_path / "org.example.Notes.desktop").write_text(file.read())
    env = ctl.environment(stack)
    env["PATH"] = f"{stack.bin_dir}:{env['PATH']}"
    lines = examples()
    assert len(lines) >= 6
    for line in lines:
        if " | jq " in line and not shutil.which("jq"):
            line = line.partition(" | jq ")[0]
        if line.startswith("procwardenctl debug"):
            # It may be frozen, in which state it does not end.
            ctl.run(stack, "windows", "org.example.Notes", "1", "0", "0")
            ctl.run(stack, "stop", "org.example.Notes")
            ctl.run(stack, "wait", "org.example.Notes")
        line = line.replace("/tmp/picture.png", picture)
        finished = subprocess.run(["/bin/bash", "-o", "pipefail", "-c", line], env=env, cwd=tmp_path,
                                  capture_output=True, text=True, timeout=2 * LIMIT)
        assert (finished.returncode, finished.stderr) == (0, ""), (line, finished)
        assert finished.stdout, line
    portal.close()


def test_texts_of_the_help_and_the_man_page_agree(stack):
    with open(MAN_PAGE) as file:
        page = file.read()
    # The same exit statuses, in the same order.
    told = re.findall(r"(?m)^\.B (\d)$", page.partition(".SH EXIT STATUS")[2].partition("\n.SH ")[0])
    text = " ".join(ctl.run(stack, "--help").out.partition("Exit status: ")[2].split())
    assert told == re.findall(r"\b(\d) ", text) == [str(status) for status in range(6)]


def test_empty_words_are_refused(stack):
    # An id of nothing would mean everything to some calls, and be waited for for ever by another.
    for words in WORDS:
        if len(words) > 1:
            result = ctl.run(stack, *words[:-1], "", status=ctl.WRONG_USAGE)
            assert result.error.startswith("procwardenctl: Empty argument\n"), words
    for name in ("list", "top", "history", "check"):
        ctl.run(stack, name, "", status=ctl.WRONG_USAGE)


# --- where words may stand ---


def test_options_stand_anywhere(full):
    ctl.run(full, "start", SAMPLE)
    expected = ctl.run_json(full, "history", "-n", "1", SAMPLE)
    for words in (["history", SAMPLE, "-n", "1", "--json"], ["history", "-n1", "--json", SAMPLE],
                  ["history", "--lines=1", SAMPLE, "--json"], ["--json", "history", "-n", "1", "--", SAMPLE],
                  ["history", "--json", "--json", "-n", "5", "-n", "1", SAMPLE]):
        assert ctl.run(full, *words).json == expected
    assert ctl.run(full, "list", "--", "--json").out == "Nothing runs.\n" # the word behind -- is an id


@pytest.mark.parametrize("words, text", [
    (["--frob", "list"], "No such option: --frob"),
    (["--json"], "No command"),
    (["help", "frob"], "No such command: frob"),
    (["--", "list"], "No such option: --"),
    (["--version", "list"], "Too many arguments"),
    (["--json", "--list-commands", "list"], "Too many arguments"),
    (["--list-ids", "list", "status"], "Too many arguments"),
    (["start", SAMPLE, "--raise", "--uri", "a:b"], "Either --raise or --uri"),
    (["task", "start", SAMPLE, "--keep"], "--keep goes with stop only"),
    (["task", "stop", SAMPLE, "--hint", "a=b"], "Hints and arguments go with start only"),
    (["task", "stop", SAMPLE, "--", "a"], "Hints and arguments go with start only"),
    (["start"], "Too few arguments"), (["start", "a", "b"], "Too many arguments"),
    (["stop"], "Too few arguments"), (["wait"], "Too few arguments"), (["block"], "Too few arguments"),
    (["unblock"], "Too few arguments"), (["explain"], "Too few arguments"), (["app"], "Too few arguments"),
    (["handlers"], "Too few arguments"), (["intent"], "Too few arguments"), (["tasks"], "Too few arguments"),
    (["task", "start"], "Too few arguments"), (["windows", "a", "1", "0"], "Too few arguments"),
    (["debug"], "Too few arguments"), (["debug", "a", "b"], "Too many arguments"),
    (["apps", "a"], "Too many arguments"), (["memory", "a"], "Too many arguments"),
    (["notifications", "a"], "Too many arguments"), (["monitor", "a"], "Too many arguments"),
    (["history", "a", "b"], "Too many arguments"),
    (["windows", "a", "1", "0", "99999999999"], "Not a number: 99999999999"),
    (["windows", "a", "-1", "0", "0"], "Unknown option '1'."),
    (["history", "-n", "-1"], "Not a number: -1"),
    (["intent", "a", "=b"], "Not KEY=VALUE: =b"),
    (["intent", "a", "b=1", "b[]=2"], "Not an array: b"),
])
def test_wrong_words(stack, words, text):
    result = ctl.run(stack, *words, status=ctl.WRONG_USAGE)
    lines = result.error.splitlines()
    assert (result.out, lines[0]) == ("", f"procwardenctl: {text}")
    assert re.fullmatch(r'Try "procwardenctl( \w+)? --help"\.', lines[1])
