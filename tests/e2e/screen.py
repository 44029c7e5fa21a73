"""procwardenctl on a terminal whose screen can be read: a pseudo terminal, and what it shows."""

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time

import pyte

import ctl
from stack.waiting import LIMIT, NotInTime

# As the terminal sends them that TERM names below.
UP, DOWN, PAGE_UP, PAGE_DOWN = "\x1bOA", "\x1bOB", "\x1b[5~", "\x1b[6~"
HOME, END, DELETE, ESCAPE = "\x1b[1~", "\x1b[4~", "\x1b[3~", "\x1b"
INTERRUPT, SUSPEND, QUIT = "\x03", "\x1a", "\x1c"
HOLD, GO_ON = "\x13", "\x11"


class _Contents(pyte.Screen):
    """With what the terminal can do besides: moving the lines of a region."""

    def scroll_up(self, count=1):
        self._scroll(pyte.Screen.index, bottom=True, count=count)

    def scroll_down(self, count=1):
        self._scroll(pyte.Screen.reverse_index, bottom=False, count=count)

    def _scroll(self, move, bottom, count):
        top_line, bottom_line = self.margins or (0, self.lines - 1)
        line, self.cursor.y = self.cursor.y, bottom_line if bottom else top_line
        for _ in range(count or 1):
            move(self)
        self.cursor.y = line


class _Stream(pyte.ByteStream):
    csi = {**pyte.ByteStream.csi, "S": "scroll_up", "T": "scroll_down"}
    events = pyte.ByteStream.events | {"scroll_up", "scroll_down"}


class Screen:
    """It runs meanwhile, as the leader of a session whose terminal this is."""

    def __init__(self, stack, *words, columns=100, lines=30, term="screen-256color", before=(),
                 **more):
        self._screen = _Contents(columns, lines)
        self._stream = _Stream(self._screen)
        self.raw = b""
        self._ours, self._its = pty.openpty()
        self._set_size(columns, lines)
        self.before = termios.tcgetattr(self._its)
        self.process = subprocess.Popen(
            [*before, *ctl.command(stack, *words)], env=ctl.environment(stack, TERM=term, **more), stdin=self._its,
            stdout=self._its, stderr=self._its, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def _set_size(self, columns, lines):
        fcntl.ioctl(self._ours, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))

    def resize(self, columns, lines):
        self._screen.resize(lines, columns)
        self._set_size(columns, lines)

    def read(self, seconds=0.05):
        """Takes in what it has written, or waits so long for more; False at its end."""
        if not select.select([self._ours], [], [], seconds)[0]:
            return True
        try:
            part = os.read(self._ours, 65536)
        except OSError: # nobody has the other side open
            return False
        self.raw += part
        self._stream.feed(part)
        return bool(part)

    @property
    def rows(self):
        return [line.rstrip() for line in self._screen.display]

    @property
    def text(self):
        return "\n".join(self.rows)

    def is_reversed(self, row):
        return self._screen.buffer[row][0].reverse

    def colour(self, word):
        """Of the last character of a word; None while it is not shown. What is drawn at once may come in parts."""
        row = next((i for i, line in enumerate(self.rows) if word in line), None)
        return None if row is None else self._screen.buffer[row][self.rows[row].index(word) + len(word) - 1].fg

    def press(self, *keys):
        os.write(self._ours, "".join(keys).encode())

    def until(self, condition, what):
        """Returns the first true value of condition(); reads meanwhile."""
        end = time.monotonic() + LIMIT
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() >= end:
                raise NotInTime(f"not within {LIMIT:g} s: {what}\n{self.text}")
            self.read()

    def wait_for(self, *texts):
        """Until the screen has all of them at once."""
        self.until(lambda: all(text in self.text for text in texts), f"{texts}")

    def wait_without(self, text):
        self.until(lambda: text not in self.text, f"no {text!r}")

    def row(self, start):
        """The words of the row of an id; waits for it."""
        return self.until(lambda: next((line[1:].split() for line in self.rows if line[1:].startswith(start)), None),
                          f"a row of {start}")

    def ids(self):
        """Of the rows of the table, in their order."""
        return [line[1:].split()[0] for line in self.rows if line[1:].startswith("org.example.")]

    def end(self):
        """Reads to its end; returns the exit status, negative for a signal."""
        self.until(lambda: self.process.poll() is not None, "its end")
        while select.select([self._ours], [], [], 0)[0] and self.read():
            pass
        return self.process.returncode

    @property
    def settings(self):
        """Of the terminal, as before if it was restored."""
        return termios.tcgetattr(self._its)

    def is_restored(self):
        # The second buffer has been left, the cursor is there, and keys are echoed again.
        return (self.settings == self.before and self.raw.rstrip().rfind(b"\x1b[?1049l") > self.raw.rfind(b"\x1b[?1049h")
                and not self._screen.cursor.hidden)

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        os.close(self._ours)
        os.close(self._its)
