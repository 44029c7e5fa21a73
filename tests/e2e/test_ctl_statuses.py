"""procwardenctl: ids under which nothing is known, or which several things run under."""

import pytest

import ctl
import tasker
from stack.waiting import until

SAMPLE = "org.example.Sample"
MANY = "org.example.Multi"
TYPO = "org.example.Sampel"


@pytest.fixture
def sample(service):
    service.install_sample(sandbox={"Sandboxing": "Disabled"})
    service.control.reload()
    return service


@pytest.mark.parametrize("task_id", [tasker.task_id("nope"), "sync", SAMPLE, f"{SAMPLE}.task_", f"{TYPO}.task_work"])
def test_stop_of_a_task_that_there_is_not(sample, task_id):
    tasker.install(sample)
    sample.control.start(SAMPLE) # an application is no task
    for words in ([task_id], ["--keep", task_id]):
        result = ctl.run(sample, "task", "stop", *words, status=ctl.NO_SUCH_ID)
        assert (result.out, result.error) == ("", f"procwardenctl: No such task: {task_id}\n")
    assert [process["Id"] for process in ctl.run_json(sample, "list")] == [SAMPLE]


def test_stop_of_a_task_that_does_not_run(sample):
    tasker.install(sample)
    work = tasker.task_id("work")
    assert ctl.run_json(sample, "task", "stop", work) == {"Id": work}


def test_stop_of_a_task_that_is_not_declared_any_more(sample):
    tasker.install(sample)
    work = tasker.task_id("work")
    ctl.run(sample, "task", "start", work)
    tasker.wait_running(sample)
    sample.install_sample(sandbox={"Sandboxing": "Disabled"}) # it has no tasks
    ctl.run(sample, "task", "stop", work)
    until(lambda: not ctl.run_json(sample, "list", work), "its end")
    ctl.run(sample, "task", "stop", work, status=ctl.NO_SUCH_ID)


def test_misspelt_ids_are_told_of_though_they_are_no_error(sample):
    for command in ("block", "unblock", "wait"):
        result = ctl.run(sample, "--json", command, SAMPLE)
        assert result.json == {"Id": SAMPLE}
        finished = ctl.run(sample, "--json", command, TYPO, may_tell=True)
        assert (finished.json, finished.error) == ({"Id": TYPO}, f"procwardenctl: Not installed: {TYPO}\n")


def test_instances_that_may_be_meant_are_named(service):
    service.install_sample(MANY, sandbox={"Sandboxing": "Disabled"}, main={"X-Nemo-Single-Instance": "no"})
    service.control.reload()
    ids = [ctl.run_json(service, "start", MANY)["Id"] for _ in range(2)]
    assert len(set(ids)) == 2 and all(one.startswith(f"{MANY}.instance_") for one in ids)
    hint = f"Name one of its instances: {', '.join(sorted(ids))}\n"
    for words in (["stop", MANY], ["windows", MANY, "1", "0", "0"]):
        result = ctl.run(service, *words, status=ctl.NO_SUCH_ID)
        assert (result.out, result.error) == (
            "", f"procwardenctl: org.freedesktop.DBus.Error.Failed: Application not running: {MANY}\n{hint}")
    assert "Name one" not in ctl.run(service, "stop", f"{MANY}.instance_99", status=ctl.NO_SUCH_ID).error
    for instance in ids:
        ctl.run(service, "windows", instance, "1", "0", "0")
        ctl.run(service, "stop", instance)
    until(lambda: not ctl.run_json(service, "list"), "the end of both")
    assert "Name one" not in ctl.run(service, "stop", MANY, status=ctl.NO_SUCH_ID).error
