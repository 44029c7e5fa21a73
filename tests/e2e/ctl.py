"""Runs procwardenctl beside the service, and compares what it prints with golden files."""

import difflib
import json
import os
import re
import signal
import subprocess
import threading

from stack.stack import SHORT_LIVED_OPTIONS, TREE
from stack.waiting import LIMIT, until

GOLDEN = os.path.join(TREE, "tests", "data", "ctl")
DONE, REFUSED, WRONG_USAGE, NOT_THERE, NO_SUCH_ID, TIMED_OUT = range(6)


def environment(stack, **more):
    # What sanitizers find ends it with a status of its own.
    return {**stack.environment(), **SHORT_LIVED_OPTIONS, "TZ": "UTC", **more}


def command(stack, *words):
    return [os.path.join(stack.bin_dir, "procwardenctl"), *words]


def start_pair(stack, windowless, shown):
    """Two applications outside the sandbox, of which the second one has a window. Returns when both run."""
    for app_id in (windowless, shown):
        stack.install_sample(app_id, sandbox={"Sandboxing": "Disabled"})
    stack.control.reload()
    for app_id in (windowless, shown):
        stack.control.start(app_id)
        stack.sample(app_id)
    stack.control.update_windows(shown, active=1)


class Result:
    def __init__(self, finished):
        self.status, self.out, self.error = finished.returncode, finished.stdout, finished.stderr

    @property
    def json(self):
        return json.loads(self.out)


def run(stack, *words, status=DONE, may_tell=False, **more):
    """Runs it to its end, with the exit status that it must have. may_tell: also on standard error, though nothing has
    failed. more: environment variables."""
    result = Result(subprocess.run(command(stack, *words), env=environment(stack, **more), capture_output=True,
                                   text=True, timeout=2 * LIMIT, stdin=subprocess.DEVNULL))
    assert result.status == status, (result.status, result.out, result.error)
    if status == DONE and not may_tell:
        assert result.error == ""
    return result


def run_json(stack, *words, **options):
    return run(stack, "--json", *words, **options).json


def run_json_of_all(stack, count=1):
    """What list tells, once it knows all of that many: what stands for /proc may have their files a little later."""
    return until(lambda: len(found := run_json(stack, "list")) >= count
                 and all("OomRank" in process for process in found) and found, f"{count} that run")


class Later:
    """It runs meanwhile. lines grows as it prints."""

    def __init__(self, stack, *words, **more):
        self.lines = []
        self._process = subprocess.Popen(command(stack, *words), env=environment(stack, **more), text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.rstrip("\n"))

    def wait_for(self, pattern, count=1):
        """Waits for lines that hold a pattern; returns the last of these."""
        def found():
            return [line for line in list(self.lines) if re.search(pattern, line)]
        until(lambda: len(found()) >= count, f"{count} times {pattern!r}", detail=lambda: "\n".join(self.lines))
        return found()[count - 1]

    @property
    def running(self):
        return self._process.poll() is None

    def interrupt(self):
        self._process.send_signal(signal.SIGINT)

    def end(self):
        """Waits for its end by itself; returns the exit status."""
        status = self._process.wait(LIMIT)
        self._reader.join(LIMIT)
        return status

    def close(self):
        self._process.kill()
        self._process.wait()
        self._reader.join(LIMIT)


def normal(text, *pairs):
    """Without what differs from run to run. pairs: what to replace further, and by what."""
    for old, new in pairs:
        text = text.replace(str(old), new)
    text = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "DATE", text)
    text = re.sub(r"\d\d:\d\d:\d\d\.\d{3}", "TIME", text)
    text = re.sub(r"\b\d+ ms\b", "N ms", text)
    text = re.sub(r"\b\d+ (s|min|h|d)( \d+ (s|min|h))?\b", "N ms", text)
    text = re.sub(r"\b\d+(\.\d+)? (kB|MB|GB)\b", "SIZE", text)
    text = re.sub(r"\bpid \d+", "pid PID", text)
    # Alignment depends on what has been replaced: what stays is the order of the words.
    return re.sub(r"(?<=\S)  +", "  ", text)


def golden(name, text):
    """Compares with tests/data/ctl/NAME.txt; UPDATE_GOLDEN=1 rewrites it."""
    path = os.path.join(GOLDEN, f"{name}.txt")
    if os.environ.get("UPDATE_GOLDEN"):
        os.makedirs(GOLDEN, exist_ok=True)
        with open(path, "w") as file:
            file.write(text)
    with open(path) as file:
        expected = file.read()
    assert text == expected, "\n".join(difflib.unified_diff(expected.splitlines(), text.splitlines(), lineterm=""))
