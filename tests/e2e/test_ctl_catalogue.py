"""procwardenctl on what is installed: it reads the same files as the service, which need not run."""

import os

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


def test_apps_as_table(installed):
    ctl.golden("apps", ctl.normal(ctl.run(installed, "apps").out, (installed.directory, "DIR")))


def test_app(installed):
    app = ctl.run_json(installed, "app", NOTES)
    assert (app["Name"], app["Sandboxed"], app["SingleInstance"], app["IsPackage"]) == ("Notes", False, False, True)
    assert [intent["Name"] for intent in app["Intents"]] == ["OpenURI", "Share"]
    assert app["MimeTypes"] == ["text/plain", "x-scheme-handler/note"]
    assert app["BackgroundPolicy"] == 2
    # An instance is one of the application's.
    assert ctl.run_json(installed, "app", f"{NOTES}.instance_3")["Id"] == NOTES


def test_all_that_an_application_declares(stack):
    stack.install_sample(
        NOTES, arguments="%U", manifest={"keepMediaActiveInBackground": True, "vendor": {"name": "We"}},
        main={"MimeType": "text/plain;image/*;x-scheme-handler/note", "X-Nemo-Single-Instance": "no",
              "X-Solvane-Single-Cover": "yes", "Mode": "Old", "X-Maemo-Service": "org.example.legacy",
              "X-Maemo-Method": "org.example.legacy.open", "X-Maemo-Fixed-Args": "one;two",
              "X-Solvane-Support-Mime-Parents": "true"},
        sandbox={"Intents": "Share/private:text|image;OpenURI", "Permissions": "Audio;Internet",
                 "DataDirectory": "org.example/Notes", "ExecDBus": "/usr/bin/notes --service"},
        groups={"X-Task sync": {"Type": "periodic", "Exec": "/bin/true", "Permissions": "Internet",
                                "Conditions": "Internet;Charging"},
                "X-Service talk": {"Type": "service"}})
    stack.root.write(f"opt/app/{NOTES}/current/solvane.pkg",
                     "[package]\nversion=1.2\n[certificate]\nid=af,fe\n")
    text = ctl.run(stack, "app", NOTES).out
    ctl.golden("app", ctl.normal(text, (stack.directory, "DIR")))
    app = ctl.run_json(stack, "app", NOTES)
    assert app["Intents"] == [{"Name": "OpenURI", "Qualifier": "", "Items": []},
                              {"Name": "Share", "Qualifier": "private", "Items": ["text", "image"]}]
    assert app["Tasks"][0]["Id"] == f"{NOTES}.task_sync" or app["Tasks"][0]["Id"] == f"{NOTES}.task_talk"
    (sync,) = [task for task in app["Tasks"] if task["Id"].endswith("sync")]
    assert sync == {"Id": f"{NOTES}.task_sync", "Type": "periodic", "Exec": "/bin/true", "Permissions": ["Internet"],
                    "Conditions": ["Internet", "Charging"]}
    assert app["Manifest"] == {"keepMediaActiveInBackground": True, "vendor": {"name": "We"}}
    assert app["Package"] == {"package/version": "1.2", "certificate/id": "af,fe"} and app["Certificate"] == "af,fe"
    assert (app["LegacyService"], app["LegacyPath"], app["LegacyMethod"], app["LegacyArguments"]) == (
        "org.example.legacy", "/", "org.example.legacy.open", "one;two")
    assert (app["SingleCover"], app["CompatibilityMode"], app["SupportsChildTypes"]) == (True, True, True)
    assert (app["Permissions"], app["DataDirectory"]) == (["Audio", "Internet"], "org.example/Notes")


@pytest.mark.parametrize("manifest, override, policy, reason", [
    (None, None, "0: never frozen", "it has no manifest, so it is made for a system before 4.2.0"),
    ({}, None, "2: frozen when hidden", "it has a manifest, so it is made for 5.2.0"),
    ({"keepMediaActiveInBackground": True}, None, "1: frozen when hidden, unless it uses a multimedia resource",
     "it has a manifest, so it is made for 5.2.0; its manifest keeps media active in the background"),
    (None, "org.example.*=4.2.0", "1: frozen when hidden, unless it uses a multimedia resource",
     "os-version-support.cfg says that it is made for 4.2.0"),
    ({}, f"{NOTES}=3.0", "0: never frozen", "os-version-support.cfg says that it is made for 3.0"),
    ({"keepMediaActiveInBackground": True}, "*=5.2.0", "1: frozen when hidden, unless it uses a multimedia resource",
     "os-version-support.cfg says that it is made for 5.2.0; its manifest keeps media active in the background"),
    ({"keepMediaActiveInBackground": True}, "*=4.5", "1: frozen when hidden, unless it uses a multimedia resource",
     "os-version-support.cfg says that it is made for 4.5"),
])
def test_background_policy_has_its_reason(stack, manifest, override, policy, reason):
    stack.install_sample(NOTES, manifest=manifest)
    if override:
        stack.root.write("etc/procwarden/os-version-support.cfg", f"[Applications]\n{override}\n")
    lines = ctl.run(stack, "app", NOTES).out.splitlines()
    place = next(place for place, line in enumerate(lines) if "Background policy: " in line)
    assert lines[place].partition(": ")[2] == policy and lines[place + 1].strip() == reason
    app = ctl.run_json(stack, "app", NOTES)
    assert (app["BackgroundPolicy"], app["BackgroundReason"]) == (int(policy[0]), reason)


def test_declarations_do_not_reach_the_terminal(stack):
    stack.install_sample(NOTES, main={"Name": "a\x1b[2Jb", "Comment": "x"}, sandbox={"Permissions": "\x1b[31m;\u202ea"},
                         manifest={"k\x9bey": "v\x1balue"})
    for words in (["app", NOTES], ["apps"], ["app", NOTES, "--json"]):
        text = ctl.run(stack, *words).out
        assert not any(character in text for character in "\x1b\x9b\u202e"), words
    assert ctl.run_json(stack, "app", NOTES)["Manifest"] == {"k\x9bey": "v\x1balue"}


def test_app_that_is_not_installed(installed):
    result = ctl.run(installed, "app", "org.example.Gone", status=ctl.NO_SUCH_ID)
    assert "Cannot find application org.example.Gone" in result.error


@pytest.mark.parametrize("uri, handlers", [
    ("note:1", [(NOTES, "scheme", "x-scheme-handler/note")]),
    ("https://example.org/a", [("org.example.Browser", "scheme", "x-scheme-handler/https")]),
    ("http://example.org/a", [("org.example.Browser", "address", "x-url-handler/example.org/*")]),
    ("http://example.organic/a", []),
    ("/tmp/a.txt", [("org.example.Browser", "type", "text/plain"), (NOTES, "type", "text/plain")]),
    ("a.txt", [("org.example.Browser", "type", "text/plain"), (NOTES, "type", "text/plain")]),
])
def test_handlers(installed, uri, handlers):
    found = ctl.run_json(installed, "handlers", uri)
    # Files of a directory come in no order.
    assert sorted((handler["Id"], handler["Because"], handler["Declares"]) for handler in found) == handlers
    assert not any(handler["IsDefault"] for handler in found)
    text = ctl.run(installed, "handlers", uri).out
    assert text == "Nobody handles it.\n" if not handlers else text.startswith("HANDLER")


def test_handlers_stand_in_the_order_in_which_they_are_offered(stack):
    uri = "https://example.org/pictures/one.png"
    for name, types in (("Picture", "image/*"), ("Place", "x-url-handler/example.org/pictures/*"),
                        ("Site", "x-url-handler/example.org/*"), ("Web", "x-scheme-handler/https;image/png"),
                        ("Any", "application/octet-stream"), ("Chosen", "text/html")):
        more = {"X-Solvane-Support-Mime-Parents": "true"} if name == "Any" else {}
        stack.install_sample(f"org.example.{name}", main={"MimeType": types, **more})
    stack.start()
    choice = os.path.join(stack.user.home, ".config", "mimeapps.list")
    os.makedirs(os.path.dirname(choice), exist_ok=True)
    with open(choice, "w") as file:
        file.write("[Default Applications]\nimage/png=org.example.Chosen.desktop\n")
    ctl.golden("handlers", ctl.normal(ctl.run(stack, "handlers", uri).out))
    with open(choice, "w") as file:
        file.write("[Default Applications]\nimage/png=org.example.Site.desktop\n")
    found = ctl.run_json(stack, "handlers", uri)
    assert [(handler["Id"].rpartition(".")[2], handler["Because"], handler["IsDefault"]) for handler in found] == [
        ("Web", "scheme", False), ("Site", "address", True), ("Place", "address", False), ("Picture", "type", False),
        ("Any", "parent type", False)]


def test_handlers_of_a_file_that_nobody_handles(installed, tmp_path):
    archive = tmp_path / "a b.zip"
    archive.write_bytes(b"")
    for name in (str(archive), archive.as_uri()):
        assert ctl.run(installed, "handlers", name).out == "Nobody handles it.\n"
    archive.unlink()
    for name in (str(archive), archive.as_uri()):
        result = ctl.run(installed, "handlers", name, status=ctl.NO_SUCH_ID)
        assert (result.out, result.error) == (
            "Nobody handles it.\n", f"procwardenctl: {archive}: No such file or directory\n")
        assert ctl.run_json(installed, "handlers", name, status=ctl.NO_SUCH_ID) == []


def test_faults_of_other_files_are_told_by_check_only(installed):
    installed.install_sample("org.example.Strange", groups={"X-Task My Task": {"Type": "worker"}})
    installed.start()
    # Each with nothing on standard error.
    for words in (["apps"], ["app", NOTES], ["tasks", NOTES], ["handlers", "note:1"], ["--list-ids"]):
        ctl.run(installed, *words)
    path = installed.applications.desktop_file("org.example.Strange")
    result = ctl.run(installed, "check", path, status=ctl.REFUSED)
    assert "[task-name]\n" in result.out and result.error == ""


def test_handlers_of_what_is_no_uri(installed):
    result = ctl.run(installed, "handlers", "http://[", status=ctl.WRONG_USAGE)
    assert result.error.startswith("procwardenctl: Invalid URI: http://[\n")
