#!/usr/bin/env python3
"""Draws who tells whom what, one below the other, as an SVG that is readable on light and dark pages.

    draw.py FILE.txt >FILE.svg      draws it
    draw.py --check FILE.txt        compares FILE.svg with what would be drawn; status 1 if it is another one

A line of the text is one of these; one that begins with # is a comment:

    title TEXT
    lane NAME TEXT                  who takes part, from left to right
    NAME -> NAME : TEXT             a message; with ..> an answer
    NAME -> NAME : TEXT | MARK      the same, with a name for this moment at the edge
    note NAME : TEXT                what one of them does meanwhile
"""

import difflib
import re
import sys
from xml.sax.saxutils import escape

MARKS = 116 # width of the column with the names of moments
LANE = 172 # from one lane to the next
MARGIN = 96 # of the outer lanes to the edge
TOP, ROW, HEAD = 56, 34, 32
CHARACTER = 7 # about the width of one: a note is sized by it

STYLE = """
    svg { font: 13px system-ui, "Noto Sans", "DejaVu Sans", sans-serif }
    .page { fill: #fbfbf9; stroke: #d8d8d2 }
    text { fill: #24292f }
    .title { font-size: 16px; font-weight: 600 }
    .head { font-weight: 600; fill: #ffffff }
    .mark { font-size: 12px; fill: #8a5a00; font-family: ui-monospace, "DejaVu Sans Mono", monospace }
    .said { paint-order: stroke; stroke: #fbfbf9; stroke-width: 5px; stroke-linejoin: round }
    .box { fill: #2b5f75 }
    .lane { stroke: #b9c2c6 }
    .moment { stroke: #e7e3d6 }
    .arrow { stroke: #2b5f75; stroke-width: 1.6; fill: none }
    .tip { fill: #2b5f75 }
    .note { fill: #eef3e6; stroke: #a9bd8c }
    @media (prefers-color-scheme: dark) {
      .page { fill: #1b1f24; stroke: #3a4047 }
      text { fill: #e3e6ea }
      .head { fill: #0f1418 }
      .mark { fill: #e0b668 }
      .said { stroke: #1b1f24 }
      .box { fill: #86bdd3 }
      .lane { stroke: #49525b }
      .moment { stroke: #2c3238 }
      .arrow { stroke: #86bdd3 }
      .tip { fill: #86bdd3 }
      .note { fill: #28301f; stroke: #6b7f4e }
    }"""


class Mistake(Exception):
    pass


class Picture:
    """What a text says: title, lanes (name -> text) and steps (from, to, answer, text, mark); of a note, to is None."""

    def __init__(self, text):
        self.title, self.lanes, self.steps = "", {}, []
        for number, line in enumerate(text.splitlines(), start=1):
            try:
                self._read(line.strip())
            except Mistake as mistake:
                raise Mistake(f"line {number}: {mistake}") from None

    def _read(self, line):
        if not line or line.startswith("#"):
            return
        if found := re.fullmatch(r"title (.+)", line):
            self.title = found[1]
        elif found := re.fullmatch(r"lane (\w+)\s+(.+)", line):
            self.lanes[found[1]] = found[2]
        elif found := re.fullmatch(r"note (\w+)\s*: (.+)", line):
            self.steps.append((self._known(found[1]), None, False, found[2], ""))
        elif found := re.fullmatch(r"(\w+) (->|\.\.>) (\w+)\s*: ([^|]+?)(?:\s*\| (.+))?", line):
            self.steps.append((self._known(found[1]), self._known(found[3]), found[2] == "..>", found[4],
                               found[5] or ""))
        else:
            raise Mistake(f"not understood: {line}")

    def _known(self, name):
        if name not in self.lanes:
            raise Mistake(f"no such lane: {name}")
        return name

    def described(self):
        """The same in sentences, for who does not see it."""
        said = [f"{self.lanes[source]} to {self.lanes[target]}: {text}." if target else f"{self.lanes[source]}: {text}."
                for source, target, _, text, _ in self.steps]
        return " ".join(said)


class Drawing:
    def __init__(self, picture):
        self._picture = picture
        self._x = {name: MARKS + MARGIN + i * LANE for i, name in enumerate(picture.lanes)}
        self._lines = []
        self.width = MARKS + 2 * MARGIN + (len(picture.lanes) - 1) * LANE
        self.height = TOP + HEAD + ROW * (len(picture.steps) + 1)

    def _add(self, name, text=None, **attributes):
        words = " ".join(f'{key.rstrip("_").replace("_", "-")}="{value}"' for key, value in attributes.items())
        self._lines.append(f"  <{name} {words}/>" if text is None else f"  <{name} {words}>{escape(text)}</{name}>")

    def svg(self):
        picture = self._picture
        self._add("rect", class_="page", x=0.5, y=0.5, width=self.width - 1, height=self.height - 1, rx=10)
        self._add("text", picture.title, class_="title", x=24, y=34)
        bottom = self.height - ROW // 2
        for name, text in picture.lanes.items():
            x = self._x[name]
            self._add("line", class_="lane", x1=x, y1=TOP + HEAD, x2=x, y2=bottom)
            self._add("rect", class_="box", x=x - LANE // 2 + 10, y=TOP, width=LANE - 20, height=HEAD, rx=6)
            self._add("text", text, class_="head", x=x, y=TOP + 21, text_anchor="middle")
        y = TOP + HEAD
        for step in picture.steps:
            y += ROW
            if step[1]:
                self._message(y, *step)
            else:
                self._note(y, step[0], step[3])
        body = "\n".join(self._lines)
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" '
                f'width="{self.width}" height="{self.height}" role="img" aria-labelledby="title desc">\n'
                f'  <title id="title">{escape(picture.title)}</title>\n'
                f'  <desc id="desc">{escape(picture.described())}</desc>\n'
                f"  <style>{STYLE}\n  </style>\n{body}\n</svg>\n")

    def _message(self, y, source, target, answer, text, mark):
        start, end = self._x[source], self._x[target]
        way = 1 if end > start else -1
        if mark:
            self._add("line", class_="moment", x1=MARKS, y1=y, x2=min(start, end), y2=y)
            self._add("text", mark, class_="mark", x=MARKS - 8, y=y + 4, text_anchor="end")
        dashes = {"stroke_dasharray": "5 4"} if answer else {}
        self._add("line", class_="arrow", x1=start, y1=y, x2=end - way * 8, y2=y, **dashes)
        self._add("path", class_="tip", d=f"M{end} {y}l{-way * 10} -5v10z")
        self._add("text", text, class_="said", x=(start + end) // 2, y=y - 7, text_anchor="middle")

    def _note(self, y, lane, text):
        width = len(text) * CHARACTER + 20
        x = min(max(self._x[lane] - width // 2, MARKS), self.width - width - 12)
        self._add("rect", class_="note", x=x, y=y - 17, width=width, height=24, rx=12)
        self._add("text", text, x=x + width // 2, y=y, text_anchor="middle")


def draw(text):
    return Drawing(Picture(text)).svg()


def main():
    check = sys.argv[1:2] == ["--check"]
    names = sys.argv[1 + check:]
    if len(names) != 1 or not names[0].endswith(".txt"):
        sys.exit(__doc__)
    with open(names[0], encoding="utf-8") as file:
        try:
            svg = draw(file.read())
        except Mistake as mistake:
            sys.exit(f"{names[0]}: {mistake}")
    if not check:
        sys.stdout.write(svg)
        return
    drawn = names[0][:-len("txt")] + "svg"
    with open(drawn, encoding="utf-8") as file:
        there = file.read()
    if there != svg:
        sys.stdout.writelines(difflib.unified_diff(there.splitlines(True), svg.splitlines(True), drawn, "drawn anew"))
        sys.exit(f"{drawn} is not what {names[0]} says; draw it anew")


if __name__ == "__main__":
    main()
