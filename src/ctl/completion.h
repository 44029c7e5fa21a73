#pragma once

#include <QStringList>

namespace Ctl {

/// Ids that @p command may be about, or all that are known if it is empty or none: what is installed, and
/// what runs, the tasks. Sorted. Never waits long for the service: a user has pressed a key.
[[nodiscard]] QStringList idsFor(const QString &command);

} // namespace Ctl
