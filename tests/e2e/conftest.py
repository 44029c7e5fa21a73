"""Fixtures over the stack: every test gets one of its own, and leaves it in order."""

import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

from notifier import MAIL, NOTES, start_application # noqa: E402 (the path comes first)
from stack import Stack # noqa: E402


def bring_up(request, **options):
    with Stack(**options) as stack:
        request.node.stack = stack
        yield stack
        check_end(stack)


@pytest.fixture
def stack(request):
    """Buses, stand-ins and user; nothing of ours runs yet."""
    yield from bring_up(request)


@pytest.fixture
def own_memory(request):
    """The same, with a memory that holds what a test says; the thresholds are those of Memory.LEVELS."""
    yield from bring_up(request, own_proc=True)


@pytest.fixture
def running(stack):
    """The stack with helper and service running, and no application."""
    stack.start()
    return stack


@pytest.fixture
def notes(running):
    """An application with a name of its own to show, which notifies."""
    return start_application(running, NOTES, "Notes by Example")


@pytest.fixture
def mail(running):
    """Another one."""
    return start_application(running, MAIL)


@pytest.fixture
def service(stack):
    """The stack with helper and service running, and the sample application installed."""
    stack.install_sample()
    stack.start()
    return stack


def check_end(stack):
    """What holds at the end of each test, however it went: clean exits, no finding, correct calls."""
    problems = [f"a stand-in got a wrong call: {complaint}" for complaint in stack.complaints()]
    for child in (stack.service and stack.service.child, stack.helper):
        if not child:
            continue
        # One that ended before is looked at by its test.
        if child.status is None and child.stop() != 0:
            problems.append(f"{child.name} ended with status {child.status}")
        report = child.sanitizer_report()
        if report:
            problems.append(f"{child.name}: {report}")
    assert not problems, "\n".join(problems)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Shows, with a failure, what service and helper had to say."""
    outcome = yield
    report = outcome.get_result()
    stack = getattr(item, "stack", None)
    if report.failed and stack:
        for child in (stack.service and stack.service.child, stack.helper):
            if child and os.path.exists(child.log):
                report.sections.append((f"log of {child.name}", child.output()))
