"""Commands typed into a real shell, with prose between them, as a page of Markdown.

What differs from run to run is replaced by examples: process ids, times, sizes, places.
"""

import gzip
import os
import re
import select
import subprocess
import textwrap
import time

from stack.waiting import LIMIT, NotInTime, until

DATE, CLOCK = "2026-11-21 10:15:00", 10 * 3600 + 15 * 60
RIGHT = {"PID", "SINCE", "MEMORY", "CPU", "CPU%", "OOM", "RAN"} # titles of columns that are aligned at their right
STEPS = {"allowed": 4, "prompted": 4, "granted": 6, "spawned": 5, "in its groups": 6, "released": 6, "name seen": 90,
         "first window": 1830} # ms since a start was asked for
FIRST_PID, NEXT_PID = 2418, 137


class Masks:
    """sizes: application -> the memory that it is shown with."""

    def __init__(self, stack, sizes):
        self._places = ((stack.user.home, "/home/you"), (stack.directory, "/tmp/stack"),
                        (f"user-{stack.user.uid}", "user-1000"), (stack.user.name, "you"))
        self._sizes = sizes
        self._pids = {}

    def pid(self, text):
        return self._pids.setdefault(text, str(FIRST_PID + NEXT_PID * len(self._pids)))

    def apply(self, text):
        for place, example in self._places:
            text = text.replace(place, example)
        lines = text.splitlines()
        result = []
        while lines:
            if re.fullmatch(r"[A-Z][A-Z% ]*?(  +[A-Z][A-Z% ]*?)+", lines[0]):
                count = next((i for i, line in enumerate(lines) if not line), len(lines))
                result += self._table(cells_of(lines[:count]))
                lines = lines[count:]
            else:
                result.append(self._line(lines.pop(0)))
        return self._groups("\n".join(result))

    def _table(self, rows):
        titles = rows[0]
        for row in rows[1:]:
            for i, title in enumerate(titles):
                row[i] = row[i] and self._cell(title, row[i], row)
        widths = [max(len(row[i]) for row in rows) for i in range(len(titles))]
        return ["  ".join(cell.rjust(width) if title in RIGHT else cell.ljust(width)
                          for cell, width, title in zip(row, widths, titles)).rstrip() for row in rows]

    def _cell(self, title, text, row):
        if title == "PID":
            return self.pid(text)
        if title == "MEMORY":
            return next(size for app, size in self._sizes.items() if app in row)
        examples = {"SINCE": "2 s", "RAN": "9 s", "CPU": "45 ms", "CPU%": "0.0", "ENDED": DATE}
        return examples.get(title) or self._line(text)

    def _line(self, text):
        """Of a table, one cell."""
        app = next((app for app in self._sizes if app in text), next(iter(self._sizes)))
        text = re.sub(r"(\bpid |\bPid: )(\d+)", lambda found: found[1] + self.pid(found[2]), text)
        text = re.sub(r"\buid \d+", "uid 1000", text)
        text = re.sub(r"^(org\.[\w.]+ )(\d+)$", lambda found: found[1] + self.pid(found[2]), text)
        text = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", DATE, text)
        text = re.sub(r"  \d\d:\d\d:\d\d$", f"  {DATE.split()[1]}", text)
        text = re.sub(r"\bfor \d+ \w+( \d+ \w+)?", "for 2 s", text)
        text = re.sub(rf"\b({'|'.join(STEPS)}) \d+ ms", lambda found: f"{found[1]} {STEPS[found[1]]} ms", text)
        text = re.sub(r"Memory: [\d.]+ \wB(, processes: )\d+", rf"Memory: {self._sizes[app]}\g<1>5", text)
        text = re.sub(r"CPU: \d+ m?s", "CPU: 45 ms", text)
        text = re.sub(r"oom_score \d+", "oom_score 667", text)
        text = re.sub(r"\b\d+ of 8192", "1024 of 8192", text)
        return re.sub(r"\b\d+ of 127", "15 of 127", text)

    @staticmethod
    def _groups(text):
        """Control group hierarchies lie elsewhere on other machines, which may have more; events have clock times."""
        text = re.sub(r"(?m)^( *(?:Groups:)? +)[\w,]*\b(cpu|freezer|memory)\b[\w,]* /\S*(/procwarden/user-)",
                      r"\1\2 /sys/fs/cgroup/\2\3", text)
        text = re.sub(r"(?m)^ +\w+ /(?!sys/fs/cgroup/)\S*/procwarden/user-.*\n", "", text)
        seconds = iter(range(CLOCK, CLOCK + 3600, 3))

        def clock(_):
            now = next(seconds)
            return f"{now // 3600:02}:{now // 60 % 60:02}:{now % 60:02}.{now % 7}42"
        return re.sub(r"(?m)^\d\d:\d\d:\d\d\.\d{3}", clock, text)


def cells_of(lines):
    """A table as rows of cells, empty ones included. A cell begins or ends where its title does."""
    titles = list(re.finditer(r"\S+(?: \S+)*", lines[0]))
    rows = [[title[0] for title in titles]]
    for line in lines[1:]:
        cells = list(re.finditer(r"\S+(?: \S+)*", line))
        rows.append([next((cell[0] for cell in cells
                           if (cell.end() == title.end() if title[0] in RIGHT else cell.start() == title.start())), "")
                     for title in titles])
    return rows


class Shell:
    """One shell of the newcomer's, from the first to the last command."""

    def __init__(self, newcomer, **environment):
        self._process = subprocess.Popen(newcomer.command("/bin/bash", "--noprofile", "--norc"), cwd=newcomer.home,
                                         env={**newcomer.environment(), **environment}, stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self._number = 0

    def run(self, command):
        """Types a command; returns what it prints and its status."""
        self._number += 1
        mark = f"--- end of command {self._number}, status "
        # On a line of their own, so that a command may end in a here-document or a comment.
        self._process.stdin.write(f"{{\n{command}\n}} </dev/null\nprintf '%s%s\\n' '{mark}' $?\n".encode())
        self._process.stdin.flush()
        output, end = b"", time.monotonic() + 2 * LIMIT
        found = None
        while not found:
            readable, _, _ = select.select([self._process.stdout], [], [], max(end - time.monotonic(), 0))
            part = os.read(self._process.stdout.fileno(), 65536) if readable else b""
            if not part:
                raise NotInTime(f"no end of: {command}\n{output.decode()}")
            output += part
            found = re.search(re.escape(mark.encode()) + rb"(\d+)\n$", output)
        return output[:found.start()].decode(), int(found[1])

    def close(self):
        self._process.kill() # what it has started in the background ends with the stack
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


class Transcript:
    """manual: directory with the man pages, as installed."""

    def __init__(self, shell, masks, manual):
        self._shell, self._masks, self._manual = shell, masks, manual
        self._parts = []
        self._typed = [] # commands with their output since the last prose

    def say(self, text):
        self._end_block()
        self._parts.append(textwrap.dedent(text).strip("\n"))

    def quote(self, page, text):
        """A sentence of a man page, such as procwardenctl(1), which must be there word by word."""
        name, section = re.fullmatch(r"(\S+)\((\d)\)", page).groups()
        path = os.path.join(self._manual, f"man{section}", f"{name}.{section}")
        with gzip.open(path + ".gz", "rt") if os.path.exists(path + ".gz") else open(path) as file:
            words = plain(file.read())
        if plain(text.replace("`", "")) not in words:
            raise AssertionError(f"{page} does not say: {text}")
        self.say("\n".join(f"> {line}" for line in textwrap.wrap(f"{text} ({page})", 118, break_on_hyphens=False)))

    def run(self, command, shows=None, status=0):
        """Types a command, and shows it with what it prints.

        shows: a pattern; what only looks is typed until its output has that, and shown as it is then.
        """
        last = []

        def typed():
            last[:] = self._shell.run(command)
            if shows is None and last[1] != status:
                raise AssertionError(f"{command}: status {last[1]}\n{last[0]}")
            return shows is None or last[1] == status and re.search(shows, last[0])

        until(typed, f"{shows!r} in the output of {command}", limit=2 * LIMIT, detail=lambda: last[0])
        output = self._masks.apply(last[0].rstrip("\n"))
        self._typed.append(f"$ {command}" + (f"\n{output}" if output else ""))
        return last[0]

    def wait(self, command, shows):
        """What nobody has to type who is not as fast as a script."""
        until(lambda: re.search(shows, self._shell.run(command)[0]), f"{shows!r} in the output of {command}")

    def _end_block(self):
        if self._typed:
            self._parts.append("```console\n" + "\n".join(self._typed) + "\n```")
            self._typed = []

    def text(self):
        self._end_block()
        return "\n\n".join(self._parts) + "\n"


def plain(roff):
    """The words of a man page, without requests, fonts and line breaks."""
    roff = re.sub(r'(?m)^\.\\".*$', "", roff)
    # What alternates fonts joins its words, and quotation marks keep blanks.
    roff = re.sub(r"(?m)^\.(?:BR|RB|IR|RI|BI|IB) (.*)$",
                  lambda found: "".join(quoted or word for quoted, word in re.findall(r'"([^"]*)"|(\S+)', found[1])),
                  roff)
    roff = re.sub(r"(?m)^\.[A-Z]{1,2}\b ?", "", roff)
    for sign, shown in (("\\fB", ""), ("\\fI", ""), ("\\fR", ""), ("\\fP", ""), ("\\-", "-"), ("\\&", ""), ("\\(aq", "'"),
                        ("\\(dq", '"')):
        roff = roff.replace(sign, shown)
    return " ".join(roff.split())
