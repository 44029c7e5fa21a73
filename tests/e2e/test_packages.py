"""The Debian packages: what each says of itself, and what goes where."""

import gzip
import os
import subprocess

import pytest
from installed import COMPONENTS, InstalledTree, control_fields, package_files, run


@pytest.fixture(scope="module")
def packages():
    """Name -> file."""
    return {control_fields(package)["Package"]: package for package in package_files()}


def contents(package, directory):
    """Unpacks one package; its files, as paths on the machine."""
    run("dpkg-deb", "-x", package, str(directory))
    return {os.path.join("/", os.path.relpath(os.path.join(parent, name), directory))
            for parent, _, names in os.walk(directory) for name in names}


def test_there_is_one_package_for_each_purpose(packages):
    assert sorted(packages) == sorted(COMPONENTS)
    assert len(package_files()) == len(COMPONENTS)
    assert len({control_fields(package)["Version"] for package in packages.values()}) == 1


def test_documents_are_as_debian_wants_them(packages, tmp_path):
    for name, package in packages.items():
        files = contents(package, tmp_path / name)
        documents = {path for path in files if path.startswith("/usr/share/doc/")}
        assert documents == {f"/usr/share/doc/{name}/{file}"
                             for file in ("changelog.gz", "changelog.Debian.gz", "copyright")}
        assert all(path.endswith(".gz") for path in files if path.startswith("/usr/share/man/"))


def test_no_file_is_in_two_packages(packages, tmp_path):
    found = {}
    for name, package in packages.items():
        for path in contents(package, tmp_path / name):
            found.setdefault(path, []).append(name)
    assert {path: owners for path, owners in found.items() if len(owners) > 1} == {}


def test_everything_belongs_to_root_and_nothing_is_writable_for_others(packages):
    for package in packages.values():
        for line in run("dpkg-deb", "-c", package).splitlines():
            mode, owner = line.split()[:2]
            assert owner == "root/root" and mode[5] == mode[8] == "-" and "s" not in mode.lower(), line


def test_configuration_is_kept_over_an_upgrade(packages, tmp_path):
    files = contents(packages["procwarden"], tmp_path)
    listed = run("dpkg-deb", "-I", packages["procwarden"], "conffiles").split()
    assert set(listed) == {path for path in files if path.startswith("/etc/")}


def test_dependencies_are_said(packages):
    service = control_fields(packages["procwarden"])
    for needed in ("libc6 ", "libqt5core5a ", "libsystemd0", "firejail", "dbus",
                   f"procwarden-helper (= {service['Version']})"):
        assert needed in service["Depends"], needed
    assert "libqt5dbus5 " in control_fields(packages["procwarden-helper"])["Depends"]
    assert "libqt5dbus5 " in control_fields(packages["procwarden-tools"])["Depends"]
    development = control_fields(packages["procwarden-dev"])
    assert development["Architecture"] == "all" and "Depends" not in development


def test_changelog_is_of_the_version(packages, tmp_path):
    contents(packages["procwarden"], tmp_path)
    with gzip.open(tmp_path / "usr/share/doc/procwarden/changelog.Debian.gz", "rt") as file:
        first = file.readline()
    assert first.startswith(f"procwarden ({control_fields(packages['procwarden'])['Version']}) ")


def test_scripts_make_groups_and_nothing_else_where_no_system_manager_runs(packages, tmp_path):
    root = InstalledTree(str(tmp_path / "root"))
    for name, package in packages.items():
        control = tmp_path / name
        run("dpkg-deb", "-e", package, str(control))
        for script in ("postinst", "prerm", "postrm"):
            if not (control / script).exists():
                continue
            for arguments in (["configure", ""], ["configure", "0.0.1"], ["remove"], ["purge"], ["upgrade", "9"]):
                # Its own empty /run: what manager the machine has is not asked. Nor are its accounts touched.
                subprocess.run(["unshare", "-m", "sh", "-ec", 'mount -t tmpfs none /run; exec "$@"', "sh",
                                str(control / script), *arguments], check=True, env={**os.environ, "DPKG_ROOT": root.path})
    with open(root.inside("/etc/group")) as file:
        assert "privileged:" in file.read()
