#pragma once

#include <QString>

namespace Core {

/// The command line of a D-Bus service file.
///
/// The last "Exec=" line counts, but a "SystemdService=" line anywhere wins over all of them and
/// gives the systemctl(1) call that starts the unit. Groups are not looked at.
/// @returns the line with its line feed, if it has one; empty if the file has neither line, or,
///          after a warning, if it cannot be opened or is not a regular file of a sensible size.
QString readExecLine(const QString &path);

} // namespace Core
