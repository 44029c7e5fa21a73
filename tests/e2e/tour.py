"""What docs/tour.md shows: a newcomer's first hour, with nothing but the man pages."""

from stack.memory import resident_mb
from stack.process import descendants
from stack.waiting import until

ALBUM, READER = "org.example.Album", "org.example.Reader"
SIZES = {ALBUM: "66.0 MB", READER: "10.1 MB"} # as they are shown, in place of what was measured
FILES = "~/.local/share/applications"


def tell(tour):
    _begin(tour)
    _write_a_program(tour)
    _declare(tour)
    _understand(tour)
    _watch(tour)
    _freeze(tour)
    _stop(tour)
    _run_short(tour)
    _go_on(tour)


def _start(tour, app, size_mb):
    """Returns when the program has taken its memory, which it would not get while it is frozen."""
    # A new desktop file may not have been noticed yet.
    pid = int(tour.run(f"procwardenctl start {app}", shows=f"^{app} ").split()[1])
    until(lambda: any(resident_mb(child) > size_mb for child in descendants(pid)), f"the pictures of {app}")


def _begin(tour):
    tour.say("""
        # A tour

        <!-- Made by tests/e2e/tour.py; UPDATE_GOLDEN=1 rewrites it. -->

        A program becomes an application: it is declared, checked, started, watched, frozen, and killed when memory runs
        short. Everything that had to be known for it stands in the man pages, which are quoted where they tell it. The
        commands were really typed, and a test types them again and compares what they print; only process ids, times,
        sizes and places are examples.

        Service, helper, tools, man pages, states and configuration are what the Debian packages hold, unpacked by
        `dpkg-deb -x`. The prompt is an ordinary user's; `./dev shell` opens the same one over what has just been built.
        Buses, sandbox and control groups are real. The permission daemon is a stand-in that agrees to everything. Three
        things are there for trying out:

        - what is `/` on a device lies below `$PROCWARDEN_ROOTFS`, and the user may put packages into its `opt/app`;
        - its `proc/meminfo` says how much memory there is, and the user may write to it;
        - a sandbox shows the programs in `~/bin`.
        """)


def _write_a_program(tour):
    tour.say("""
        ## A program

        The album takes as many megabytes for pictures as it is told to, and waits. A script would not do:
        """)
    tour.quote("procwarden.desktop(5)", "In a sandbox, the program must be executable and an ELF binary: a script is "
               'refused with "is not an ELF binary".')
    tour.run("""\
cat >album.c <<'END'
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    size_t size = (argc > 1 ? atoi(argv[1]) : 1) << 20;
    memset(malloc(size), 1, size);
    for (;;) {
        sleep(1);
    }
}
END""")
    tour.run("cc -o ~/bin/album album.c")


def _declare(tour):
    tour.say("""
        ## A desktop file, and its faults

        Now for its description.
        """)
    tour.quote("procwarden.desktop(5)", "A desktop file makes an application known to procwarden(8). It has the form of "
               "the Desktop Entry Specification. This page names every key that the service reads.")
    tour.quote("procwarden.desktop(5)", "The id of the application is organization.name.")
    tour.say("This one is written in good faith, by somebody who has not read much further.")
    tour.run(f"cd {FILES}")
    tour.run(f"""\
cat >{ALBUM}.desktop <<END
[Desktop Entry]
Type=Application
Name=Album
Exec="$HOME/bin/album" 64 --open=%U

[X-Sailjail]
OrganizationName=org.example
ApplicationName=Album
Sandboxing=disabled
END""")
    tour.quote("procwardenctl(1)", "Tells what the service would pass over in silence, or take for something else than "
               "it seems: in these files, or else in all that are installed.")
    check = f"procwardenctl check {ALBUM}.desktop"
    tour.run(check, status=1)
    tour.say("The man page of the format agrees. First, the quotes:")
    tour.quote("procwarden.desktop(5)", 'There is no quoting: with Exec="/usr/bin/my app" %U the program is '
               '/usr/bin/"/usr/bin/my, which does not exist.')
    tour.run(f"""sed -i 's/"//g' {ALBUM}.desktop""")
    tour.run(check, status=1)
    tour.say("Then what is to be opened:")
    tour.quote("procwarden.desktop(5)", "A code must be an argument of its own: --open=%U and %U, are passed as they are.")
    tour.run(f"sed -i 's/--open=%U/%U/' {ALBUM}.desktop")
    tour.run(check, status=1)
    tour.say("And it was to run outside the sandbox, but may as well run inside:")
    tour.quote("procwarden.desktop(5)", "Where one value changes a default, every other value keeps it, without a "
               "message: Sandboxing=disabled does nothing")
    tour.run(f"sed -i '/^Sandboxing/d' {ALBUM}.desktop")
    tour.run(check)


def _understand(tour):
    tour.say("""
        ## Before it is started

        What the service makes of the file:
        """)
    tour.quote("procwardenctl(1)", "Shows all that the desktop file, the manifest and the package of an application "
               "declare, and its background policy with the reason for it.")
    tour.run(f"procwardenctl app {ALBUM}")
    tour.say("And what would come of a start:")
    tour.quote("procwardenctl(1)", "Shows what a start would do, without starting anything: each check with its result, "
               "the counts against their limits, the complete command line one argument a line, and the environment.")
    tour.run(f"procwardenctl explain {ALBUM} | head -n 19")
    tour.say("The command line goes on until the program and its own arguments; the environment comes after it.")


def _watch(tour):
    tour.say("""
        ## Started, and watched

        Whatever happens from now on is written down beside.
        """)
    tour.quote("procwardenctl(1)", "Shows what happens until it is interrupted: starts, ends with their exit status and "
               "what decided them, states, memory levels, and who is chosen to be killed.")
    tour.run("procwardenctl monitor >~/events &")
    tour.wait("cat ~/events", "memory")
    _start(tour, ALBUM, 64)
    tour.quote("procwardenctl(1)", "Shows what runs, or what of it belongs to these applications: state, process id, for "
               "how long, the memory and the processor time of its control group, its place among those that are killed "
               "when memory runs short (1 is the first), and its place in the control group hierarchies.")
    tour.run("procwardenctl list")
    tour.say("More about one of them, also how long its start took:")
    tour.run(f"procwardenctl status {ALBUM}")
    tour.quote("procwardenctl(1)", "its last launch with the steps that it has passed, each with the milliseconds since "
               "the launch was asked for, and its last five ends, the latest first.")


def _freeze(tour):
    tour.say("""
        ## Frozen

        An application that nobody sees is frozen. The compositor says what can be seen, and here the user does: one active
        window, then a hidden one.
        """)
    tour.quote("procwardenctl(1)", "Reports numbers of windows, as the compositor does, and prints the state that follows.")
    tour.run(f"procwardenctl windows {ALBUM} 1 0 0")
    tour.run(f"procwardenctl windows {ALBUM} 0 0 1")
    tour.say("""
        It should be hidden now, and is inactive. The end of what `app` printed says why: without a manifest, it is made for
        a system that froze nothing.
        """)
    tour.quote("procwarden-states(5)", "It has a visible window, but no active one; or only hidden ones, and it may not "
               "be frozen now (see procwarden-os-version-support.cfg(5)).")
    tour.quote("procwarden-os-version-support.cfg(5)",
               "Without an entry, an application whose package has a valid manifest.json counts as made for 5.2.0, and "
               "any other one as made for 4.0.0.")
    tour.say("So it needs a package, and the least that a package has is a manifest.")
    package = f"$PROCWARDEN_ROOTFS/opt/app/{ALBUM}/current"
    tour.run(f"mkdir -p {package}")
    tour.run(f"echo '{{}}' >{package}/manifest.json")
    tour.quote("procwarden.desktop(5)", "Both are read together with the desktop file. A change of them alone is "
               "noticed at the next change of any desktop file")
    tour.run(f"touch {ALBUM}.desktop")
    tour.run(f"procwardenctl app {ALBUM} | tail -n 2")
    tour.run(f"procwardenctl windows {ALBUM} 0 0 1", shows="hidden")
    tour.run("procwardenctl list", shows="hidden, frozen")
    tour.say("Not one instruction of it is executed now. An active window, and it goes on where it was.")
    tour.run(f"procwardenctl windows {ALBUM} 1 0 0")
    tour.run("procwardenctl list", shows="active ")


def _stop(tour):
    tour.say("## Stopped")
    tour.quote("procwardenctl(1)", "Ends an instance: SIGTERM now, SIGKILL when the kill time-out is over. It does not "
               "wait for the end.")
    tour.run(f"procwardenctl stop {ALBUM}")
    tour.run("procwardenctl history", shows="requested")
    tour.run("procwardenctl list", shows="Nothing runs")
    tour.say("143 is 128 and the number of SIGTERM: so the sandbox tells which signal has ended the program.")


def _run_short(tour):
    tour.say("""
        ## Killed

        A second application of the same program, and both are started. The album is hidden, the reader is in use.
        """)
    tour.run(f"sed 's/Album/Reader/; s/64/8/' {ALBUM}.desktop >{READER}.desktop")
    tour.run(f"procwardenctl check --quiet {READER}.desktop")
    tour.run(f"procwardenctl start {ALBUM}")
    tour.run(f"procwardenctl start {READER}", shows=READER) # the file may not have been noticed yet
    tour.run(f"procwardenctl windows {ALBUM} 0 0 1")
    tour.run(f"procwardenctl windows {READER} 1 0 0")
    tour.run("procwardenctl list", shows=r"(?s)hidden, frozen.*active ")
    tour.say("""
        `procwardenctl top` has the same on the whole screen, as it changes, with keys to sort, to stop, and to watch the
        freezing. This is one look of it:
        """)
    tour.run("procwardenctl top --sort id --iterations 1")
    tour.say("What would happen if the memory ran short:")
    tour.quote("procwardenctl(1)", "Shows how short the memory is, and who would be killed, in this order.")
    tour.run("procwardenctl memory")
    tour.quote("procwarden-oom.cfg(5)", "Critical memory is told, too, and at each look one victim is killed: what has "
               "offered itself most through its oom_score_adj, then what the user has left longest ago.")
    tour.say("Both have the same `oom_score_adj`, and the user has left the album. So let it run short.")
    tour.run("sed -i 's/^MemAvailable: .*/MemAvailable: 100000 kB/' $PROCWARDEN_ROOTFS/proc/meminfo")
    tour.run("procwardenctl memory | head -n 2", shows="critical")
    tour.run(f"procwardenctl status {ALBUM}", shows=r"(?s)not running.*early-oom")
    tour.say("""
        That is why: which figures, which rule, which signal. How little it had to be, the configuration says, and its page
        what the configuration means.
        """)
    tour.run("grep ^MinMemoryTermPercent $PROCWARDEN_ROOTFS/etc/procwarden/oom.cfg")
    tour.run("man oom.cfg | grep -A 2 'MinMemoryTermPercent$'")
    tour.say("""
        The reader goes on, and the album's whole life is in what was written down beside. It is inactive for a moment at its
        end, since what is frozen does not die of a signal.
        """)
    tour.run("procwardenctl list", shows=f"^(?!.*{ALBUM})")
    tour.run(f"grep {ALBUM} ~/events", shows=r"early-oom")
    tour.quote("procwardenctl(1)", "Shows the last 200 ends, the latest first: when, how long it ran, and what decided it")
    tour.run("procwardenctl history -n 1")
    tour.wait("kill %1", "")


def _go_on(tour):
    tour.say("""
        ## Where to go on

        - `man procwardenctl` has the commands that were left out: intents, background tasks, notifications, starts for
          debugging.
        - `man procwarden.desktop` names every key, default and trap of desktop files.
        - [intents.md](intents.md) has code for applications that have something done by others.
        - [architecture.md](architecture.md) tells how a start goes its way through the service.
        """)
