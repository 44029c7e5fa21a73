#pragma once

#include <QMap>
#include <QString>

#include <optional>

#include <sys/types.h>

namespace Core {

/// What the version 1 control groups of a process say. See cgroups(7).
struct GroupReport
{
    QMap<QString, QString> directories; ///< controller -> directory
    std::optional<bool> frozen;
    std::optional<int> processes; ///< in the memory group
    std::optional<quint64> memoryKb;
    std::optional<quint64> cpuMs; ///< processor time of the group since it was made

    /// Reads the files as they are now; what cannot be read is left out.
    static GroupReport read(pid_t pid);
};

} // namespace Core
