"""Measures notifications on their way through the service, beside the same calls straight to the server.

Prints one line of JSON per figure. PROCWARDEN_BIN_DIR names the programs, an optimised build.
"""

import json

from stack import Stack
from stack.waiting import until

APP = "org.example.Notes"
PYTHON = "/usr/bin/python3"
LIMIT = 300
CALLS = 1000 # on each way
BURST = 2000
OPEN = 20_000

# A program of the application's, so that the service has the most to do: it looks up who calls, and what the
# application is called. Both ways take turns, so that what else goes on meets both.
CLIENT = """
import json, statistics, sys, time
from gi.repository import Gio, GLib
what, count, loop = sys.argv[1], int(sys.argv[2]), GLib.MainLoop()
bus = Gio.bus_get_sync(Gio.BusType.SESSION)
path, interface = "/org/freedesktop/Notifications", "org.freedesktop.Notifications"
def arguments(index):
    return GLib.Variant("(susssasa{sv}i)", ("n", 0, "", f"{what} {index}", "body", ["default", "Open"], {}, -1))
def once(name, index):
    begin = time.perf_counter()
    bus.call_sync(name, path, interface, "Notify", arguments(index), None, 0, 60000, None)
    return (time.perf_counter() - begin) * 1000
def burst():
    numbers = []
    def on_reply(_, result):
        numbers.append(bus.call_finish(result).unpack()[0])
        if len(numbers) == count:
            loop.quit()
    begin = time.perf_counter()
    for index in range(count):
        bus.call(interface, path, interface, "Notify", arguments(index), None, 0, 600000, None, on_reply)
    loop.run()
    return {"seconds": time.perf_counter() - begin, "lost": count - len(set(numbers) - {0})}
if what == "latency":
    straight, through = [], []
    for index in range(count):
        straight.append(once("org.solvaneos.Notifications", index))
        through.append(once(interface, index))
    print(json.dumps({"straight_ms": statistics.median(straight), "through_ms": statistics.median(through),
                      "added_ms": statistics.median(through) - statistics.median(straight)}))
elif what == "burst":
    print(json.dumps(burst()))
else:
    # One after the other: what waits would count, too.
    for index in range(count):
        once(interface, index)
    print("{}")
"""


def report(**figure):
    print(json.dumps(figure), flush=True)


def private_kb(pid):
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty:"))


def run(sample, what, count):
    code, text = sample.run(PYTHON, "-c", CLIENT, what, str(count), limit=LIMIT)
    if code != 0:
        raise RuntimeError(text)
    return json.loads(text)


def main():
    with Stack() as stack:
        program = stack.applications.install_program(APP)
        stack.install_sample(APP, exec_line=f"{program} --name {APP} --no-lifecycle",
                             sandbox={"Sandboxing": "Disabled"})
        stack.start()
        stack.control.start(APP)
        sample = stack.sample(APP, APP)
        run(sample, "latency", 50) # what is loaded and made once
        report(bench="notify_latency", n=CALLS, **run(sample, "latency", CALLS))
        # All stay open, and the table of owners grows by one each. The burst comes later: memory that it leaves
        # free would be taken first.
        before = private_kb(stack.service.pid)
        run(sample, "open", OPEN)
        until(lambda: len(stack.notification_server.open) >= OPEN, "all to be open")
        report(bench="notify_open", n=OPEN, bytes_each=(private_kb(stack.service.pid) - before) * 1024 / OPEN)
        report(bench="notify_burst", n=BURST, **run(sample, "burst", BURST))


main()
