"""The bus reference is what docs/bus_reference.py makes, which refuses what is not described."""

import importlib.util
import os
import re
import subprocess
import sys

import pytest

DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "docs")
SCRIPT = os.path.join(DOCS, "bus_reference.py")

spec = importlib.util.spec_from_file_location("bus_reference", SCRIPT)
bus_reference = importlib.util.module_from_spec(spec)
sys.modules["bus_reference"] = bus_reference
spec.loader.exec_module(bus_reference)

NAME = "org.kestrix.Procwarden.Sample1"
OTHER = "org.example.Other"
HEADER = """@short_description: A sample
      @service: org.kestrix.Procwarden (session)
      @callers: everybody."""
GOOD = """<!--
        Start:
        @appId: The application id.
        @details: What is known:
          - "Pid" (i): the process,
            which runs.

        Starts it.

        Errors:

        - org.example.Failed: it did
          not.
    -->
    <method name="Start">
      <arg name="appId" type="s" direction="in"/>
      <arg name="details" type="a{sv}" direction="out"/>
    </method>
    <!--
        StateChanged:
        @state: See Start.
    -->
    <signal name="StateChanged">
      <arg name="state" type="u"/>
    </signal>
    <!--
        Level:

        How much.
    -->
    <property name="Level" type="i" access="read"/>"""


def write(directory, members=GOOD, header=HEADER, name=NAME, file=None):
    with open(directory / (file or f"{name}.xml"), "w") as output:
        output.write(f"""<node name="/sample">
  <!--
      {name}:
      {header}
  -->
  <interface name="{name}">
    {members}
  </interface>
</node>
""")
    return str(directory)


def made(directory, source="@reference@\n"):
    return bus_reference.make(source, bus_reference.read_interfaces(str(directory)))


def test_reference_is_up_to_date():
    done = subprocess.run([sys.executable, "-B", SCRIPT, "--check"], capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr


def test_every_link_leads_somewhere():
    with open(os.path.join(DOCS, "bus.md")) as file:
        page = file.read()
    headings = [bus_reference.anchor(heading) for heading in re.findall(r"(?m)^#+ (.+)$", page)]
    assert len(headings) == len(set(headings))
    assert set(re.findall(r"\]\(#([^)]+)\)", page)) <= set(headings)


def test_page_of_an_interface(tmp_path):
    write(tmp_path)
    assert made(tmp_path).splitlines()[1:] == f"""### {NAME}

A sample.

| | |
|---|---|
| Service | `org.kestrix.Procwarden` on the session bus |
| Object | `/sample` |
| Who may call | everybody. |

#### Sample1.Start

```
Start(s appId) -> (a{{sv}} details)
```

- `appId` (`s`): The application id.
- answer `details` (`a{{sv}}`): What is known:
  - `Pid` (`i`): the process, which runs.

Starts it.

Errors:

- `org.example.Failed`: it did not.

#### Sample1.StateChanged

```
signal StateChanged(u state)
```

- `state` (`u`): See [`Start`](#sample1start).

#### Sample1.Level

```
property i Level (read)
```

How much.""".splitlines()


def test_contents_and_tables(tmp_path):
    write(tmp_path)
    write(tmp_path, name=OTHER, members=GOOD, header="""@short_description: Another
      @service: org.example.Service (session), org.example.Service (system)
      @object: /TYPE
      @callers: the service.""")
    page = made(tmp_path, "@contents@\n@offered@\n@called@\n## Reference\n").splitlines()
    assert page[1] == "- [Reference](#reference)"
    assert page[2:6] == [f"  - [`{NAME}`](#orgkestrixprocwardensample1): [Start](#sample1start),",
                         "    [StateChanged](#sample1statechanged), [Level](#sample1level)",
                         f"  - [`{OTHER}`](#orgexampleother): [Start](#otherstart), [StateChanged](#otherstatechanged),",
                         "    [Level](#otherlevel)"]
    assert f"| [`{NAME}`](#orgkestrixprocwardensample1) | `/sample` | session | A sample |" in page
    assert f"| [`{OTHER}`](#orgexampleother) | `org.example.Service` | both | the service |" in page


@pytest.mark.parametrize("text, expected", [
    ('"Pid" (i), "Uris" (as)', "`Pid` (`i`), `Uris` (`as`)"),
    ('"No such task: ID" (sic)', '"No such task: ID" (sic)'),
    ("@appId of it, as a{sv}", "`appId` of it, as `a{sv}`"),
    (f"as in {NAME}.", f"as in `{NAME}`."),
    (f"as in {OTHER}.", f"as in [`{OTHER}`](#orgexampleother)."),
    (f"{OTHER}.Start tells", f"[`{OTHER}.Start`](#otherstart) tells"),
    (f"Start of {OTHER}", f"[`Start`](#otherstart) of [`{OTHER}`](#orgexampleother)"),
    ("Start it. Start it with Start, or Started.", "Start it. Start it with [`Start`](#sample1start), or Started."),
    ("StateChanged comes", "[`StateChanged`](#sample1statechanged) comes"),
    ("a * b <c> [d] e|f", "a \\* b \\<c> \\[d] e\\|f"),
    ("see org.example.Unknown", "see `org.example.Unknown`"),
])
def test_text(tmp_path, text, expected):
    write(tmp_path)
    write(tmp_path, name=OTHER)
    interfaces = bus_reference.read_interfaces(str(tmp_path))
    sample = next(interface for interface in interfaces if interface.name == NAME)
    assert bus_reference.Page(interfaces).inline(text, sample) == expected


def test_line_that_looks_like_a_list_is_none():
    words = " ".join(["word"] * 23)
    for found, expected in (("2026. It", "2026\\. It"), ("- It", "\\- It"), ("# It", "\\# It"), ("20 It", "20 It")):
        assert bus_reference.wrap(f"{words} long {found}")[1] == expected


@pytest.mark.parametrize("old, new, complaint", [
    ("        @appId: The application id.\n", "", "its arguments are"),
    ("@appId:", "@other:", "its arguments are"),
    ("@appId: The application id.", "@appId:", "nothing is said of @appId"),
    ("@appId: The application id.", "@appId The application id.", "malformed"),
    ("Start:", "Stop:", "the comment of Start is about Stop"),
    ("Start:", "Starts it", "does not begin with a name"),
    ('<arg name="appId" type="s" direction="in"/>', '<arg type="s" direction="in"/>', "its arguments are"),
    ("        How much.\n", "", "nothing is said"),
    (HEADER.splitlines()[0], "@title: A sample", "missing are"),
    ("(session)", "", "does not name a bus"),
    ("everybody.", f"see Stop of {NAME}.", "has no Stop"),
])
def test_what_is_not_described_is_refused(tmp_path, old, new, complaint):
    path = write(tmp_path)
    with open(os.path.join(path, f"{NAME}.xml")) as file:
        content = file.read()
    assert old in content
    with open(os.path.join(path, f"{NAME}.xml"), "w") as file:
        file.write(content.replace(old, new, 1))
    with pytest.raises(bus_reference.Undocumented, match=complaint):
        made(tmp_path)


def test_member_without_a_comment_is_refused(tmp_path):
    write(tmp_path, members='<method name="Bare"/>')
    with pytest.raises(bus_reference.Undocumented, match="Bare has no comment"):
        made(tmp_path)


def test_file_has_to_bear_the_name_of_its_interface(tmp_path):
    write(tmp_path, file="other.xml")
    with pytest.raises(bus_reference.Undocumented, match="it holds"):
        made(tmp_path)


def test_every_name_in_the_sources_is_described():
    interfaces = bus_reference.read_interfaces()
    known = {interface.name for interface in interfaces}
    known |= {service for interface in interfaces for service, _ in interface.services}
    # The library's own and what every object has; the error that a manager without the unit answers with; whose
    # applications without an organisation are; what stands before the name of an interface; the server that has the
    # service's interface.
    known |= {"org.freedesktop.DBus.Local", "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Properties",
              "org.freedesktop.systemd1.NoSuchUnit", "org.kestrix", "org.kestrix.Procwarden.",
              "org.solvaneos.Notifications"}
    found = {}
    for directory, _, files in os.walk(os.path.join(DOCS, "..", "src")):
        for name in files:
            with open(os.path.join(directory, name), encoding="utf-8") as file:
                for text in re.findall(r'"((?:org|com|net|local)\.[\w.]+)"', file.read()):
                    found[text] = name
    unknown = {text: name for text, name in found.items()
               if text not in known and ".Error." not in text and not text.startswith("org.example.")}
    assert not unknown and len(found) > 30
