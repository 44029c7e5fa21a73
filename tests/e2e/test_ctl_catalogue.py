"""procwardenctl on what is installed: it reads the same files as the service, which need not run."""

import ctl
import pytest

NOTES = "org.example.Notes"


@pytest.fixture
def installed(stack):
    stack.install_sample(NOTES, main={"MimeType": "text/plain;x-scheme-handler/note", "X-Nemo-Single-Instance": "no"},
                         sandbox={"Intents": "OpenURI;Share", "Sandboxing": "Disabled"},
                         groups={"X-Task sync": {"Type": "worker", "Exec": "/bin/true"}})
    stack.install_sample("org.example.Browser", manifest=None,
                         main={"MimeType": "x-scheme-handler/https;x-url-handler/example.org/*;text/plain"})
    return stack


def test_apps(installed):
    assert [app["Id"] for app in ctl.run_json(installed, "apps")] == ["org.example.Browser", NOTES]
    lines = ctl.run(installed, "apps").out.splitlines()
    assert lines[0].split() == ["APPLICATION", "NAME", "DESKTOP", "FILE"]
    assert lines[2].split() == [NOTES, "Notes", installed.applications.desktop_file(NOTES)]


def test_nothing_is_installed(stack):
    assert ctl.run(stack, "apps").out == "Nothing is installed.\n"
    assert ctl.run_json(stack, "apps") == []


def test_app(installed):
    app = ctl.run_json(installed, "app", NOTES)
    assert (app["Name"], app["Sandboxed"], app["SingleInstance"], app["IsPackage"]) == ("Notes", False, False, True)
    assert (app["Intents"], app["MimeTypes"]) == (["OpenURI", "Share"], ["text/plain", "x-scheme-handler/note"])
    assert app["BackgroundPolicy"] == 2
    text = ctl.run(installed, "app", NOTES).out
    assert "Background policy: 2: frozen when hidden\n" in text and "Sandboxed: no\n" in text
    text = ctl.run(installed, "app", "org.example.Browser").out
    assert "Background policy: 0: never frozen, for it is made for a system before 4.2.0\n" in text
    # An instance is one of the application's.
    assert ctl.run_json(installed, "app", f"{NOTES}.instance_3")["Id"] == NOTES


def test_app_that_is_not_installed(installed):
    result = ctl.run(installed, "app", "org.example.Gone", status=ctl.NO_SUCH_ID)
    assert "Cannot find application org.example.Gone" in result.error


@pytest.mark.parametrize("uri, handlers", [
    ("note:1", [(NOTES, "scheme")]),
    ("https://example.org/a", [("org.example.Browser", "scheme")]),
    ("http://example.org/a", [("org.example.Browser", "address")]),
    ("/tmp/a.txt", [("org.example.Browser", "type"), (NOTES, "type")]),
    ("file:///tmp/a.zip", []),
])
def test_handlers(installed, uri, handlers):
    found = ctl.run_json(installed, "handlers", uri)
    assert sorted((handler["Id"], handler["Because"]) for handler in found) == handlers
    assert not any(handler["IsDefault"] for handler in found)
    text = ctl.run(installed, "handlers", uri).out
    assert text == "Nobody handles it.\n" if not handlers else text.startswith("HANDLER")


def test_handlers_of_what_is_no_uri(installed):
    ctl.run(installed, "handlers", "http://[", status=ctl.WRONG_USAGE)
