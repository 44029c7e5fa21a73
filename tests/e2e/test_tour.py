"""The tour, taken with what the Debian packages hold; docs/tour.md has to be what it makes."""

import difflib
import os

import pytest

import ctl
import tour
from conftest import bring_up
from installed import InstalledTree, package_files
from stack.newcomer import Newcomer
from stack.stack import SANITIZER_OPTIONS, TREE
from transcript import Masks, Shell, Transcript

PAGE = os.path.join(TREE, "docs", "tour.md")


@pytest.fixture
def transcript(request, tmp_path):
    assert package_files()
    tree = InstalledTree(str(tmp_path / "tree"))
    manual = tree.below_prefix("share/man")
    for stack in bring_up(request, bin_dir=tree.make_bin_dir(str(tmp_path / "bin")), own_proc=True):
        if not stack.hierarchies.all_real:
            pytest.skip("needs version 1 control groups")
        tree.give_to(stack)
        newcomer = Newcomer(stack, manual, tree.inside("/etc/procwarden"))
        stack.start()
        shell = Shell(newcomer, **{name: ctl.environment(stack)[name] for name in ("TZ", *SANITIZER_OPTIONS)})
        try:
            yield Transcript(shell, Masks(stack, tour.SIZES), manual)
        finally:
            shell.close()


def test_page_is_what_really_happens(transcript):
    tour.tell(transcript)
    text = transcript.text()
    if os.environ.get("UPDATE_GOLDEN"):
        with open(PAGE, "w") as file:
            file.write(text)
    with open(PAGE) as file:
        expected = file.read()
    assert text == expected, "\n".join(difflib.unified_diff(expected.splitlines(), text.splitlines(), lineterm=""))
