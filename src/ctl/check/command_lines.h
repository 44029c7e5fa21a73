#pragma once

#include "check/finding.h"

#include "Core/application_info.h"

namespace Ctl::Check {

/// A command line, and what becomes of it.
struct CommandSubject
{
    QString line;
    Place place;
    bool isTask = false; ///< no field code is replaced, and blanks at the end count
    bool takesUris = true; ///< URIs are given on it
};

/// What stands in the words of a command line.
void checkWords(const CommandSubject &command, Report &report);
/// Only the field codes in them.
void checkFieldCodes(const CommandSubject &command, Report &report);

/// The application that is run by @p place: its program, and the complete command line with the sandbox.
/// @param overDBus whether ExecDBus is looked at
void checkApplicationProgram(const Core::ApplicationInfo &info, const QStringList &permissions, bool overDBus,
                             const Place &place, Report &report);

/// The same for one of its tasks.
void checkTaskProgram(const Core::ApplicationInfo &info, const Core::ApplicationInfo::TaskInfo &task,
                      const Place &place, Report &report);

/// Whether the file is where the catalogue reads it.
[[nodiscard]] bool isInstalledDesktopFile(const QString &path);

} // namespace Ctl::Check
