#pragma once

#include <QString>

namespace Ctl {

/// Prints the ids that the words of @p command may be, one on each line: what is installed, what runs, or the
/// tasks. All of these for a command that is not known. Never waits long: a user has pressed a key.
void printIds(const QString &command);

} // namespace Ctl
