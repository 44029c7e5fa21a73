"""What stands around the service in tests and in ./dev run.

Two private buses, the privileged helper, stand-ins for the daemons that no package has, a root directory of
its own for configuration and installed applications, and an ordinary user for the service to run as. Real are
the processes, the control groups (where the machine has version 1 hierarchies) and the sandbox program.

    with Stack(bin_dir) as stack:
        stack.start()
        stack.install_sample()
        started = stack.control.start("org.example.Sample")

A stack leaves nothing behind, and two of them do not see each other.
"""

from .stack import Stack

__all__ = ["Stack"]
