"""Applications as installed: program, desktop file, manifest."""

import json
import os
import shutil

SAMPLE = "org.example.Sample"


class Applications:
    """Installs into one program directory and one data directory, both readable by everybody."""

    def __init__(self, programs, share, root, sample_program):
        self._programs = programs
        self._desktop_files = os.path.join(share, "applications")
        self._root = root
        self._sample_program = sample_program
        os.makedirs(programs)
        os.makedirs(self._desktop_files)

    def desktop_file(self, app_id):
        return os.path.join(self._desktop_files, f"{app_id}.desktop")

    def is_installed(self, app_id):
        return os.path.exists(self.desktop_file(app_id))

    def program(self, name):
        return os.path.join(self._programs, name)

    def install_program(self, name, source=None):
        """Puts a program (default: the sample application) among the installed ones; returns its path."""
        target = self.program(name)
        if not os.path.exists(target):
            # Copied, since the build may lie where an ordinary user cannot look.
            shutil.copyfile(source or self._sample_program, target)
            os.chmod(target, 0o755)
        return target

    def install(self, app_id=SAMPLE, arguments="", main=None, sandbox=None, groups=None, manifest=None,
                exec_line=None):
        """Installs a sample application; again for the same id: replaces its files.

        arguments go behind the program in Exec, whose first one is the bus name to own: app_id + ".Main", or
        for one that may run several times the text of the instance id; main, sandbox: further
        keys of [Desktop Entry] and [X-Sailjail]; groups: group name -> keys; manifest: what its manifest.json
        holds, {} for an empty one, None for an application that is no package.
        """
        organization, name = app_id.rsplit(".", 1)
        # Only one process can own a name, so each of several instances needs its own.
        suffix = "@" if (main or {}).get("X-Nemo-Single-Instance") == "no" else "Main"
        line = f"{self.install_program(app_id)} --name {app_id}.{suffix} {arguments}".rstrip()
        sections = {
            "Desktop Entry": {"Type": "Application", "Name": name, "Icon": "icon-" + name.lower(),
                              "Exec": line if exec_line is None else exec_line, **(main or {})},
            "X-Sailjail": {"OrganizationName": organization, "ApplicationName": name, **(sandbox or {})},
            **(groups or {}),
        }
        self.write_desktop_file(app_id, sections)

        directory = f"opt/app/{app_id}/current"
        shutil.rmtree(self._root.inside(f"opt/app/{app_id}"), ignore_errors=True)
        if manifest is not None:
            self._root.write(f"{directory}/manifest.json", json.dumps(manifest))
        return app_id

    def write_desktop_file(self, base_name, sections):
        lines = []
        for section, keys in sections.items():
            lines.append(f"[{section}]")
            lines += [f"{key}={content}" for key, content in keys.items()]
            lines.append("")
        target = self.desktop_file(base_name)
        # The service watches the directory: it must never read half a file.
        with open(target + ".new", "w") as file:
            file.write("\n".join(lines))
        os.rename(target + ".new", target)

    def remove(self, app_id):
        os.unlink(self.desktop_file(app_id))


class SampleFiles:
    """What running sample applications write, seen from outside, so also while they are frozen."""

    def __init__(self, home):
        self._directory = os.path.join(home, ".cache", "org.example", "Sample")

    def _read(self, name):
        try:
            with open(os.path.join(self._directory, name)) as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def ticks(self, instance_id=SAMPLE):
        """How often it has counted; 0 before the first time."""
        return int(self._read(f"{instance_id}.ticks") or 0)

    def diary(self, instance_id=SAMPLE):
        """Its lines, in order; those of earlier runs too."""
        return self._read(f"{instance_id}.diary").splitlines()
