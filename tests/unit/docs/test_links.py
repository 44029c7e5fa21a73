"""Links between the pages of the documentation."""

import glob
import os
import re
import unittest

TREE = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", ".."))


def pages():
    return [*glob.glob(f"{TREE}/*.md"), *glob.glob(f"{TREE}/docs/**/*.md", recursive=True)]


def content(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def anchors(path):
    """What a link can name behind a #: the headings, in the way that they are shown in a browser."""
    headings = re.findall(r"(?m)^#+ (.+)$", content(path))
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


class LinksTest(unittest.TestCase):
    def test_every_link_leads_to_a_file(self):
        found = 0
        for page in pages():
            for target in re.findall(r"\]\(([^)\s]+)\)", content(page)):
                if "://" in target:
                    continue
                found += 1
                name, _, anchor = target.partition("#")
                path = os.path.join(os.path.dirname(page), name) if name else page
                with self.subTest(page=os.path.relpath(page, TREE), target=target):
                    self.assertTrue(os.path.exists(path))
                    if anchor:
                        self.assertIn(anchor, anchors(path))
        self.assertGreater(found, 10)


if __name__ == "__main__":
    unittest.main()
