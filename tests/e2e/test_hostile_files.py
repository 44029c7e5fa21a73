"""Desktop files as nobody should write them: none stops the service or hides a good one."""

import os

import pytest

from stack.client import BusError
from stack.permission_daemon import granted, held

SAMPLE = "org.example.Sample"
UNKNOWN = "org.kestrix.Procwarden.Error.HandlerNotFound"


def put(stack, name, content):
    path = stack.applications.desktop_file(name)
    with open(path, "wb") as file:
        file.write(content)
    return path


def starts(stack, app_id):
    try:
        stack.control.start(app_id)
        return True
    except BusError as error:
        assert error.name == UNKNOWN
        return False


@pytest.mark.parametrize("content", [
    b"",
    b"\0" * 4096,
    os.urandom(65536),
    b"no group\nkey=value\n",
    b"[Desktop Entry\nName=x\n",
    b"[Desktop Entry]\nName\n",
    b"[Other]\nName=x\n",
    b"[Desktop Entry]\nType=Application\nName=\xff\xfe\nExec=/bin/true\n",
    b"[Desktop Entry]\nName=x\n" + b"#" * 10_000_000,
    b"[Desktop Entry]\nName=x\nExec=" + b"/" * 5_000_000,
], ids=["empty", "zeroes", "random", "no group", "open group", "no value", "other group", "not UTF-8",
        "huge comment", "huge value"])
def test_broken_file_hides_no_other(service, content):
    put(service, "broken", content)
    service.control.reload()
    assert service.control.running() == ([], [])
    assert service.control.start(SAMPLE).instance_id == SAMPLE


def test_what_is_no_file_at_all_is_passed_over(service):
    directory = os.path.dirname(service.applications.desktop_file("x"))
    os.symlink("/nonexistent", os.path.join(directory, "dangling.desktop"))
    os.symlink("loop.desktop", os.path.join(directory, "loop.desktop"))
    os.symlink("/dev/zero", os.path.join(directory, "zero.desktop"))
    os.mkdir(os.path.join(directory, "directory.desktop"))
    os.mkfifo(os.path.join(directory, "fifo.desktop"))
    with open(put(service, "secret", b"[Desktop Entry]\nName=x\n"), "rb") as file:
        os.fchmod(file.fileno(), 0)
    service.control.reload()
    assert service.control.start(SAMPLE).instance_id == SAMPLE


def test_file_that_vanishes_while_its_application_is_launched(service):
    service.permission_daemon.set_rule(SAMPLE, prompt=held())
    start = service.control.start_later(SAMPLE)
    service.permission_daemon.wait_for_held("PromptLaunchPermissions", SAMPLE)
    # What the launch needs of the file it has.
    service.applications.remove(SAMPLE)
    service.control.reload()
    service.permission_daemon.release("PromptLaunchPermissions", SAMPLE, granted())
    assert start.result()[0] == SAMPLE


def test_thousands_of_files(service):
    for number in range(3000):
        put(service, f"generated{number}", b"[Desktop Entry]\nType=Application\nName=x\nExec=/bin/true\n")
    service.control.reload()
    assert service.control.start(SAMPLE).instance_id == SAMPLE
    assert service.control.running()[0][0][0] == SAMPLE


def test_directory_of_applications_that_goes_and_comes_back(service):
    directory = os.path.dirname(service.applications.desktop_file("x"))
    os.rename(directory, directory + ".away")
    service.control.reload()
    assert not starts(service, SAMPLE)
    os.rename(directory + ".away", directory)
    service.control.reload()
    assert starts(service, SAMPLE)
