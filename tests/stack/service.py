"""The service itself, as an ordinary user's process."""

import signal

from .process import Child
from .waiting import until

SESSION_NAME = "org.kestrix.Procwarden"
SYSTEM_NAME = "org.kestrix.Procwarden.User"

class ServiceProcess:
    def __init__(self, program, log, env, user, oom_floor, **options):
        self.child = Child("the service", [program], log, env, user, oom_floor=oom_floor, **options)

    @property
    def pid(self):
        return self.child.pid

    @property
    def status(self):
        return self.child.status

    def log(self):
        """Everything that it, and the applications without a journal, have written so far."""
        return self.child.output()

    def wait_for_log(self, text):
        until(lambda: text in self.log(), f"\"{text}\" in the service's log", detail=self.log)

    def wait_for_name(self, bus, name):
        """Returns when the service has claimed the name; fails at once if it ended instead."""

        def ready():
            if self.status is not None:
                raise AssertionError(f"the service ended with status {self.status}\n{self.log()}")
            return bus.owner(name)

        return until(ready, f"the service's name {name}", detail=self.log)

    def stop(self):
        """SIGTERM; returns the exit status."""
        return self.child.stop(signal.SIGTERM)
