"""Brings up a stack and a user manager, and measures in them what the start of a task costs.

The program of the sandbox is one that only tells when it runs: what the sandbox itself takes is not the service's.
Prints one line of JSON per figure. PROCWARDEN_BIN_DIR names the programs, an optimised build.
"""

import os
import shutil
import sys

from stack import Stack
from stack.user_manager import UserManager

BIN = os.environ["PROCWARDEN_BIN_DIR"]
APPLICATION = "org.example.Stamp"
ROUNDS = 200


def main():
    with Stack() as stack:
        stack.start()
        fifo = os.path.join(stack.directory, "stamps")
        os.mkfifo(fifo)
        os.chown(fifo, stack.user.uid, stack.user.gid)
        stamp, bench = (stack.applications.install_program(name, os.path.join(BIN, name))
                        for name in ("bench_stamp", "bench_task_start"))
        sandbox = stack.root.inside("usr/bin/firejail")
        shutil.copyfile(stamp, sandbox + ".new")
        os.chmod(sandbox + ".new", 0o755)
        os.rename(sandbox + ".new", sandbox)
        stack.install_sample(APPLICATION, groups={"X-Task stamp": {"Type": "worker", "Exec": f"{stamp} {fifo}"}})
        stack.control.reload()
        with UserManager(stack) as manager:
            result = manager.run(bench, str(ROUNDS), fifo, stamp, f"{APPLICATION}.task_stamp")
    sys.stderr.write(result.stderr)
    sys.stdout.write(result.stdout)
    sys.exit(result.returncode)


if __name__ == "__main__":
    main()
