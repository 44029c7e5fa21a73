#pragma once

#include "check/finding.h"
#include "check/key_lines.h"

#include "Core/application_info_p.h"

namespace Ctl::Check {

/// A desktop file that could be read, while it is looked at.
struct DesktopSubject
{
    const KeyLines &lines;
    const Core::MyDesktopEntry &entry;
    const Core::ApplicationInfo &info;
    Report &report;

    [[nodiscard]] Place place(const QString &group, const QString &key = {}) const
    {
        return { lines.lineOf(group, key), group, key };
    }
    [[nodiscard]] Place mainPlace(const QString &key) const
    {
        return place(QStringLiteral("Desktop Entry"), key);
    }
    /// Where the value that counts stands.
    [[nodiscard]] Place sandboxPlace(const QString &key) const;

    /// What several lists have in common: separators and blanks.
    void checkList(const QString &value, const Place &where) const;
    /// Whether the permissions are installed.
    void checkPermissions(const QStringList &permissions, const QString &implied, const Place &where) const;
};

/// Values of the main group and of the sandbox groups.
void checkValues(const DesktopSubject &subject);
/// Its command lines, and what they run.
void checkCommands(const DesktopSubject &subject);
void checkTaskGroups(const DesktopSubject &subject);

/// Entries of a list that the service splits at ";" alone.
[[nodiscard]] QStringList entriesOf(const QString &value);

} // namespace Ctl::Check
