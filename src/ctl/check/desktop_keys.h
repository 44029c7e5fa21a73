#pragma once

#include <QStringList>

/// What the groups of a desktop file may hold.
namespace Ctl::Check::DesktopKeys {

enum class GroupKind {
    Main,
    Sandbox,
    Task,
    Other, ///< nothing in it is read
};

/// Names of the three groups, in the order in which a key is looked for.
[[nodiscard]] const QStringList &sandboxGroups();
[[nodiscard]] GroupKind kindOf(const QString &group);
/// Keys that are read in a group of this kind.
[[nodiscard]] const QStringList &keysOf(GroupKind kind);
/// What the Desktop Entry Specification defines for the main group beyond that.
[[nodiscard]] const QStringList &standardKeys();
/// Settings of a request for a task, which the group of a task does not have.
[[nodiscard]] const QStringList &taskHints();
/// A key without its language.
[[nodiscard]] QString withoutLanguage(const QString &key);
/// The group in words.
[[nodiscard]] QString groupText(GroupKind kind);

} // namespace Ctl::Check::DesktopKeys
