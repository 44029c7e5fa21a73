"""Brings up a stack and measures the service in it: starts, lists, and what it costs at rest.

Prints one line of JSON per figure. PROCWARDEN_BIN_DIR names the programs, an optimised build.
"""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

from stack import Stack
from stack.process import descendants
from stack.user_manager import UserManager
from stack.waiting import until

BIN = os.environ["PROCWARDEN_BIN_DIR"]
UNSANDBOXED = {"Sandboxing": "Disabled"}
IDLE_SECONDS = 30


def report(**figure):
    print(json.dumps(figure), flush=True)


def installed(stack, name):
    """A copy of a built program that the stack's user can run."""
    target = stack.applications.install_program(name, os.path.join(BIN, name))
    return target


def measure_start(stack, rounds=200):
    fifo = os.path.join(stack.directory, "stamps")
    os.mkfifo(fifo)
    os.chown(fifo, stack.user.uid, stack.user.gid)
    stamp, bench = installed(stack, "bench_stamp"), installed(stack, "bench_service")
    stack.install_sample("org.example.Stamp", exec_line=f"{stamp} {fifo}", sandbox=UNSANDBOXED,
                         main={"X-Nemo-Single-Instance": "no"})
    stack.control.reload()
    with UserManager(stack) as manager:
        result = manager.run(bench, "start", str(rounds), fifo, stamp, "org.example.Stamp")
    sys.stderr.write(result.stderr)
    sys.stdout.write(result.stdout)
    sys.stdout.flush()


def measure_running(stack, calls=200):
    bench = installed(stack, "bench_service")
    stack.install_sample("org.example.Many", exec_line="/bin/sleep 6000", sandbox=UNSANDBOXED,
                         main={"X-Nemo-Single-Instance": "no"})
    stack.control.reload()
    for records in (1, 100, 1000):
        while len(stack.control.running()[0]) < records:
            for _ in range(records - len(stack.control.running()[0])):
                stack.control.start("org.example.Many")
        # The service's user runs it, so that the bus tells nobody apart.
        subprocess.run(["/usr/bin/setpriv", f"--reuid={stack.user.uid}", f"--regid={stack.user.gid}", "--clear-groups",
                        "--", bench, "running", str(calls), str(records)], env=stack.environment(), check=True)


def system_calls(pid, seconds):
    """How many system calls all threads of a process make in a span, from strace's summary."""
    with tempfile.NamedTemporaryFile("r") as summary:
        subprocess.run(["timeout", str(seconds), "strace", "-f", "-c", "-q", "-o", summary.name, "-p", str(pid)],
                       stderr=subprocess.DEVNULL, check=False)
        total = re.search(r"^\s*100\.00\s.*?(\d+)(?:\s+\d+)?\s+total$", summary.read(), re.MULTILINE)
    return int(total.group(1)) if total else 0


def measure_idle(stack, applications=200):
    for number in range(applications):
        stack.install_sample(f"org.example.Idle{number}", exec_line="/bin/true", manifest=None)
    stack.control.reload()
    pid = stack.service.pid
    until(lambda: not descendants(pid), "the end of all children")
    with open(f"/proc/{pid}/smaps_rollup") as file:
        dirty = sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty:"))
    report(bench="idle", n=applications, private_dirty_kb=dirty, descriptors=len(os.listdir(f"/proc/{pid}/fd")),
           system_calls_in_30_s=system_calls(pid, IDLE_SECONDS) if shutil.which("strace") else None)


def run(measure):
    with Stack() as stack:
        stack.start()
        measure(stack)


if __name__ == "__main__":
    for step in (measure_start, measure_running, measure_idle):
        run(step)
