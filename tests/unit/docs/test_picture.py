"""The picture of a start, and the program that draws it."""

import os
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

PICTURES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "docs", "picture")
sys.path.insert(0, PICTURES)

import draw # noqa: E402 (the path comes first)

SVG = "{http://www.w3.org/2000/svg}"


def content(name):
    with open(os.path.join(PICTURES, name), encoding="utf-8") as file:
        return file.read()


class StartTest(unittest.TestCase):
    maxDiff = None

    def test_picture_is_what_the_text_says(self):
        self.assertEqual(content("start.svg"), draw.draw(content("start.txt")))

    def test_every_word_of_the_text_is_in_the_picture(self):
        shown = {text.text for text in ElementTree.fromstring(content("start.svg")).iter(f"{SVG}text")}
        picture = draw.Picture(content("start.txt"))
        self.assertEqual(shown - {picture.title}, {*picture.lanes.values(), *(step[3] for step in picture.steps),
                                                   *(step[4] for step in picture.steps if step[4])})

    def test_moments_are_those_that_the_client_tells_of(self):
        told = re.search(r"The steps are: (.*?)\.", " ".join(content("../man/procwardenctl.1").split()))[1]
        marks = [step[4] for step in draw.Picture(content("start.txt")).steps if step[4]]
        self.assertEqual(marks[0], "asked")
        self.assertEqual(sorted(marks[1:]), sorted(told.replace(" by the permission daemon", "").split(", ")))

    def test_nothing_leaves_the_page(self):
        root = ElementTree.fromstring(content("start.svg"))
        for rectangle in root.iter(f"{SVG}rect"):
            left, width = float(rectangle.get("x")), float(rectangle.get("width"))
            self.assertTrue(0 <= left and left + width <= int(root.get("width")), ElementTree.tostring(rectangle))


class DrawingTest(unittest.TestCase):
    def test_texts_are_escaped(self):
        svg = draw.draw("title <a> & b\nlane x A&B\nnote x : 1 < 2")
        self.assertEqual([text.text for text in ElementTree.fromstring(svg).iter(f"{SVG}text")],
                         ["<a> & b", "A&B", "1 < 2"])

    def test_mistakes_are_told_with_their_line(self):
        for text, mistake in (("lane a A\na -> b : hello", "line 2: no such lane: b"),
                              ("# hello\nhello", "line 2: not understood: hello")):
            with self.assertRaises(draw.Mistake) as raised:
                draw.draw(text)
            self.assertEqual(str(raised.exception), mistake)

    def test_another_picture_is_found(self):
        with tempfile.TemporaryDirectory() as directory:
            for name, text in (("a.txt", "title A\nlane x X\n"), ("a.svg", "<svg/>")):
                with open(os.path.join(directory, name), "w") as file:
                    file.write(text)
            command = [sys.executable, "-B", os.path.join(PICTURES, "draw.py"), "--check", f"{directory}/a.txt"]
            checked = subprocess.run(command, capture_output=True, text=True)
            self.assertEqual((checked.returncode, "\n-<svg/>" in checked.stdout), (1, True))
            with open(os.path.join(directory, "a.svg"), "w") as file:
                file.write(draw.draw("title A\nlane x X\n"))
            self.assertEqual(subprocess.run(command).returncode, 0)


if __name__ == "__main__":
    unittest.main()
