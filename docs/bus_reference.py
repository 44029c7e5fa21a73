#!/usr/bin/env python3
"""Makes docs/bus.md of docs/bus.in.md and the interfaces in data/interfaces.

    docs/bus_reference.py            writes docs/bus.md
    docs/bus_reference.py --check    says how it differs, with exit status 1

A line of bus.in.md that is @contents@, @offered@, @called@ or @reference@ stands for what is made.

In an interface file, each interface, method, signal and property has a comment in front of it:

    Start:
    @appId: The application id.
    @details: All keys are optional.
      - "Pid" (i): the process.

    A paragraph. Another one begins after a blank line.

    Errors:

    - org.example.Error: when it comes.

The first line is the name. Then come the arguments, each of which has to be there; those of an interface are
@short_description, @service with "NAME (session)" or "NAME (system)" for each bus, @callers, and @object if that is not
the path that the node has. Text may hold lists. "Quoted" words, types in parentheses, @arguments and names of interfaces
become code, and a name leads to its description.
"""

import argparse
import difflib
import os
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field

HERE = os.path.dirname(os.path.abspath(__file__))
INTERFACES = os.path.join(HERE, "..", "data", "interfaces")
WIDTH = 120
INTERFACE_TAGS = ["short_description", "service", "object", "callers"]

# One complete type, as D-Bus writes it.
TYPE = r"a*(?:[ybnqiuxtdsoghv]|\([a-z(){}]+\)|\{[a-z(){}]+\})"
NAME = r"(?:org|local|com)\.(?:\w+\.)*\w+"

# What becomes code in a text, or must not be taken for Markdown.
PATTERN = (rf'(?P<of>\b[A-Z]\w+ of {NAME})|"(?P<quoted>[^"\s]+)"|(?P<message>"[^"]*")|\((?P<type>{TYPE})\)'
           rf"|@(?P<argument>\w+)|(?P<map>\ba+\{{[a-z]+\}})|(?P<name>\b{NAME})|(?P<word>\b[A-Za-z]\w*)|(?P<special>[*<|\\`\[])")


class Undocumented(Exception):
    """What an interface file lacks."""


@dataclass
class Comment:
    """tags: name -> blocks; text: blocks. A block is a paragraph, or a list with an entry for each item."""

    name: str
    tags: dict = field(default_factory=dict)
    text: list = field(default_factory=list)


@dataclass
class Member:
    kind: str # "method", "signal" or "property"
    name: str
    inputs: list # of (name, type)
    outputs: list
    access: str
    comment: Comment


@dataclass
class Interface:
    name: str
    path: str
    comment: Comment
    members: list

    @property
    def short_name(self):
        parts = self.name.split(".")
        # Others have interfaces of these names, too.
        return ".".join(parts[-2:] if parts[-1] in ("Manager", "Device") else parts[-1:])

    @property
    def services(self):
        """Of (name, bus)."""
        return re.findall(r"(?:^|, )(.+?) \((session|system)\)", " ".join(self.comment.tags["service"]))

    @property
    def is_offered(self):
        return any(name.startswith("org.kestrix.Procwarden") for name, _ in self.services)


# --- reading ---

def indent_of(line):
    return len(line) - len(line.lstrip())


def blocks(lines):
    """Paragraphs and lists of lines that share their indentation."""
    found, paragraph = [], []
    for line in [*lines, ""]:
        text = line.strip()
        if text.startswith("- "):
            if paragraph:
                found.append(" ".join(paragraph))
                paragraph = []
            if not (found and isinstance(found[-1], list)):
                found.append([])
            found[-1].append(text[2:])
        elif text and not paragraph and found and isinstance(found[-1], list) and indent_of(line):
            found[-1][-1] += " " + text # goes on with the item
        elif text:
            paragraph.append(text)
        elif paragraph:
            found.append(" ".join(paragraph))
            paragraph = []
    return found


def dedent(lines):
    return textwrap.dedent("\n".join(lines)).splitlines()


def parse_comment(text, where):
    lines = dedent(text.strip("\n").splitlines())
    while lines and not lines[0].strip():
        lines.pop(0)
    if not lines or not lines[0].endswith(":"):
        raise Undocumented(f"{where}: the comment does not begin with a name")
    comment = Comment(lines.pop(0)[:-1])
    while lines and lines[0].startswith("@"):
        tag, colon, first = lines.pop(0)[1:].partition(":")
        if not colon or tag in comment.tags:
            raise Undocumented(f"{where}: @{tag} is malformed, or there twice")
        rest = []
        while lines and lines[0].startswith(" "):
            rest.append(lines.pop(0))
        comment.tags[tag] = blocks([first.strip(), *dedent(rest)])
        if not comment.tags[tag]:
            raise Undocumented(f"{where}: nothing is said of @{tag}")
    comment.text = blocks(lines)
    return comment


def documented(parent, where):
    """(element, comment) of the children, but annotations and other nodes."""
    comment = None
    for element in parent:
        if element.tag is ElementTree.Comment:
            comment = element.text
        elif element.tag not in ("annotation", "arg"):
            name = element.get("name")
            if comment is None:
                raise Undocumented(f"{where}: {name} has no comment")
            parsed = parse_comment(comment, f"{where}: {name}")
            if parsed.name != name:
                raise Undocumented(f"{where}: the comment of {name} is about {parsed.name}")
            yield element, parsed
            comment = None


def read_member(element, comment, where):
    arguments = [(argument.get("direction", "out" if element.tag == "signal" else "in"), argument.get("name"),
                  argument.get("type")) for argument in element.findall("arg")]
    names = [name for _, name, _ in arguments]
    if sorted(map(str, names)) != sorted(comment.tags):
        raise Undocumented(f"{where}.{comment.name}: its arguments are {names}, described are {list(comment.tags)}")
    if not comment.tags and not comment.text:
        raise Undocumented(f"{where}.{comment.name}: nothing is said of it")
    if element.tag == "property":
        arguments = [("out", comment.name, element.get("type"))]
    return Member(element.tag, comment.name,
                  [(name, kind) for direction, name, kind in arguments if direction == "in"],
                  [(name, kind) for direction, name, kind in arguments if direction == "out"],
                  element.get("access"), comment)


def read_interfaces(directory=INTERFACES):
    """All interfaces, in the order of their names, with what is offered first."""
    found = []
    for file in sorted(os.listdir(directory)):
        parser = ElementTree.XMLParser(target=ElementTree.TreeBuilder(insert_comments=True))
        node = ElementTree.parse(os.path.join(directory, file), parser).getroot()
        for element, comment in documented(node, file):
            if file != f"{comment.name}.xml":
                raise Undocumented(f"{file}: it holds {comment.name}")
            missing = {*INTERFACE_TAGS} - {*comment.tags, "object"}
            unknown = {*comment.tags} - {*INTERFACE_TAGS}
            if missing or unknown:
                raise Undocumented(f"{file}: missing are {sorted(missing)}, unknown {sorted(unknown)}")
            members = [read_member(child, described, comment.name)
                       for child, described in documented(element, comment.name)]
            found.append(Interface(comment.name, node.get("name"), comment, members))
            if not found[-1].services:
                raise Undocumented(f"{file}: @service does not name a bus")
    return sorted(found, key=lambda interface: (not interface.is_offered, interface.name.lower()))


# --- writing ---

def anchor(heading):
    """What the web pages of Git hosts make of a heading."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def link(text, heading):
    return f"[{text}](#{anchor(heading)})"


def wrap(text, first="", rest=""):
    lines = textwrap.wrap(text, WIDTH, initial_indent=first, subsequent_indent=rest, break_long_words=False,
                          break_on_hyphens=False)
    # A line that begins like a list or a heading is none.
    return lines[:1] + [re.sub(r"^(\s*)(\d+(?=[.)] )|[-+#>](?= ))", lambda found: found[1] + (
        f"{found[2]}\\" if found[2].isdigit() else f"\\{found[2]}"), line) for line in lines[1:]]


class Page:
    """Turns interfaces into Markdown."""

    def __init__(self, interfaces):
        self.interfaces = interfaces
        self._by_name = {interface.name: interface for interface in interfaces}

    def inline(self, text, interface=None):
        """Plain text with what is code in it marked."""
        members = {member.name for member in interface.members} if interface else set()

        def code(name):
            if name in self._by_name and not (interface and name == interface.name):
                return link(f"`{name}`", name)
            owner, _, member = name.rpartition(".")
            if owner in self._by_name and any(found.name == member for found in self._by_name[owner].members):
                return link(f"`{name}`", f"{self._by_name[owner].short_name}.{member}")
            return f"`{name}`"

        def replace(found):
            if found["of"]:
                return self._member_of(*found["of"].split(" of ")) or found["of"]
            if found["quoted"]:
                return code(found["quoted"])
            if found["message"]:
                return escape(found["message"])
            if found["type"]:
                return f"(`{found['type']}`)"
            if found["argument"] or found["map"]:
                return f"`{found['argument'] or found['map']}`"
            if found["name"]:
                return code(found["name"])
            if found["special"]:
                return escape(found["special"])
            word = found["word"]
            begins = re.search(r"(^|[.:;] )$", text[:found.start()])
            # At the beginning of a sentence it may be an ordinary word.
            if word in members and (not begins or re.search(r"[a-z][A-Z]", word)):
                return link(f"`{word}`", f"{interface.short_name}.{word}")
            return word

        return re.sub(PATTERN, replace, text)

    def _member_of(self, member, owner):
        if owner not in self._by_name:
            return None
        target = self._by_name[owner]
        if not any(found.name == member for found in target.members):
            raise Undocumented(f"{owner} has no {member}")
        return link(f"`{member}`", f"{target.short_name}.{member}") + " of " + link(f"`{owner}`", owner)

    # --- parts of the page ---

    def contents(self, source):
        """The headings of the page itself, then every interface with its members."""
        lines = [f"- {link(heading, heading)}" for heading in re.findall(r"(?m)^## (.+)$", source)]
        for interface in self.interfaces:
            lines += wrap(f"{link(f'`{interface.name}`', interface.name)}: " + ", ".join(
                link(member.name, f"{interface.short_name}.{member.name}") for member in interface.members),
                "  - ", "    ")
        return lines

    def table(self, offered):
        rows = [["Interface", "Object", "Bus", "For"] if offered else ["Interface", "Service", "Bus", "Who calls"],
                ["---"] * 4]
        for interface in self.interfaces:
            if interface.is_offered != offered:
                continue
            tags = interface.comment.tags
            short = self.inline(" ".join(tags["short_description"]))
            buses = list(dict.fromkeys(bus for _, bus in interface.services))
            rows.append([link(f"`{interface.name}`", interface.name),
                         self.object_of(interface) if offered
                         else self.service_name(interface.services[0][0]),
                         "both" if len(buses) == 2 else buses[0],
                         short if offered else self.inline(" ".join(tags["callers"]).rstrip("."))])
        return ["| " + " | ".join(row) + " |" if row[0] != "---" else "|" + "|".join(row) + "|" for row in rows]

    def service_name(self, name):
        return f"`{name}`" if re.fullmatch(NAME, name) else self.inline(name)

    def object_of(self, interface):
        return "`" + "".join(interface.comment.tags.get("object", [interface.path])) + "`"

    def reference(self):
        lines = []
        for interface in self.interfaces:
            lines += ["", *self.describe(interface)] if lines else self.describe(interface)
        return lines

    def describe(self, interface):
        tags = interface.comment.tags
        services = "; ".join(", ".join(self.service_name(name) for name, on in interface.services if on == bus)
                             + f" on the {bus} bus" for bus in ("session", "system")
                             if bus in {on for _, on in interface.services})
        lines = [f"### {interface.name}", "",
                 *wrap(self.inline(" ".join(tags["short_description"]), interface) + "."), "",
                 "| | |", "|---|---|", f"| Service | {services} |", f"| Object | {self.object_of(interface)} |",
                 f"| {'Who may call' if interface.is_offered else 'Who calls'} | "
                 f"{self.inline(' '.join(tags['callers']), interface)} |"]
        lines += self.text(interface.comment.text, interface)
        for member in interface.members:
            lines += ["", f"#### {interface.short_name}.{member.name}", "", "```", signature(member), "```"]
            lines += self.arguments(member, interface)
            lines += self.text(member.comment.text, interface)
        return lines

    def arguments(self, member, interface):
        lines = [""] if member.comment.tags else []
        described = [("", argument) for argument in member.inputs]
        described += [("" if member.kind == "signal" else "answer ", argument) for argument in member.outputs]
        for prefix, (name, kind) in described:
            if name not in member.comment.tags:
                continue # a property is described by its text
            first, *more = member.comment.tags[name]
            if isinstance(first, list):
                first, more = "", [first, *more]
            lines += wrap(f"{prefix}`{name}` (`{kind}`): {self.inline(first, interface)}", "- ", "  ")
            for block in more:
                lines += self.block(block, interface, "  ")
        return lines

    def text(self, found, interface):
        lines = []
        for block in found:
            lines += ["", *self.block(block, interface)]
        return lines

    def block(self, block, interface, indent=""):
        if not isinstance(block, list):
            return wrap(self.inline(block, interface), indent, indent)
        return [line for item in block for line in wrap(self.inline(item, interface), f"{indent}- ", f"{indent}  ")]


def escape(text):
    return re.sub(r"([*<|\\`\[])", r"\\\1", text)


def signature(member):
    """As C and its kin write it."""
    def listed(arguments):
        return ", ".join(f"{kind} {name}" for name, kind in arguments)

    if member.kind == "property":
        return f"property {member.outputs[0][1]} {member.name} ({member.access})"
    if member.kind == "signal":
        return f"signal {member.name}({listed(member.outputs)})"
    answer = f" -> ({listed(member.outputs)})" if member.outputs else ""
    return f"{member.name}({listed(member.inputs)}){answer}"


def make(source, interfaces):
    page = Page(interfaces)
    parts = {"@contents@": lambda: page.contents(source), "@offered@": lambda: page.table(True),
             "@called@": lambda: page.table(False), "@reference@": page.reference}
    lines = ["<!-- Made by ./dev docs of docs/bus.in.md and data/interfaces: change these. -->"]
    for line in source.splitlines():
        lines += parts[line]() if line in parts else [line]
    return "\n".join(lines) + "\n"


def read(name):
    with open(os.path.join(HERE, name), encoding="utf-8") as file:
        return file.read()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="write nothing; fail if docs/bus.md would change")
    check = parser.parse_args().check
    try:
        made = make(read("bus.in.md"), read_interfaces())
    except (Undocumented, ElementTree.ParseError) as error:
        sys.exit(f"bus_reference: {error}")
    if not check:
        with open(os.path.join(HERE, "bus.md"), "w", encoding="utf-8") as file:
            file.write(made)
    elif made != read("bus.md"):
        sys.stdout.writelines(difflib.unified_diff(read("bus.md").splitlines(True), made.splitlines(True),
                                                   "docs/bus.md", "as it should be"))
        sys.exit("bus_reference: docs/bus.md is not what ./dev docs makes")


if __name__ == "__main__":
    main()
