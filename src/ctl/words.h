#pragma once

#include "table.h"

#include <QString>
#include <QVariantMap>

namespace Ctl {

// The numbers of the bus in words. A number that has none stands as it is.

/// Of a raw status of waitpid(2): "exit status 3" or "signal 11 (SIGSEGV)", with ", core dumped" if so.
[[nodiscard]] QString waitStatusText(int status);

[[nodiscard]] QString stateName(uint state);
[[nodiscard]] Style stateStyle(uint state);
[[nodiscard]] QString startReasonName(uint reason);
[[nodiscard]] QString stopReasonName(uint reason);
[[nodiscard]] QString memoryLevelName(int level);
[[nodiscard]] Style memoryLevelStyle(int level);

/// "340 ms", "5 s", "3 min 20 s", "2 h 5 min", "4 d 3 h".
[[nodiscard]] QString durationText(qint64 milliseconds);
/// "512 kB", "3.4 MB", "1.2 GB".
[[nodiscard]] QString sizeText(quint64 kilobytes);
/// Local time of milliseconds since 1970: "2026-03-01 12:30:05".
[[nodiscard]] QString timeText(qint64 milliseconds);

[[nodiscard]] QString yesOrNo(bool value);

/// What the directories, by hierarchy, have in common at their ends: where in the hierarchies it is.
/// Empty if they have nothing in common.
[[nodiscard]] QString commonGroup(const QVariantMap &directories);

} // namespace Ctl
