#pragma once

#include <QString>
#include <QVariantMap>

namespace Core {

/// What the type of a task decides about its life. A table: see forType().
struct TaskRules
{
    bool isWorker = false; ///< its record ends with its process; progress extends its limit
    bool holdsKeepalive = false; ///< the device stays awake while it runs
    qint32 defaultLimit = 0; ///< s that it may run unless the request says otherwise
    qint32 greatestLimit = 0; ///< s that a request may ask for; 0: any number

    /// @param workerMaxTime default limit of workers, in s
    static TaskRules forType(const QString &type, qint32 workerMaxTime);
};

/// The running limit of workers, in s: what `PROCWARDEN_WORKER_MAX_TIME` says if that is a whole number above
/// 0, else the default.
[[nodiscard]] qint32 workerMaxTimeFromEnvironment();

/// What the hint "Autostart" asks for: 1 to store the task; 0 and 2 to do nothing of the kind. 0 also for
/// what makes no sense.
[[nodiscard]] int autostartValue(const QVariantMap &hints);

} // namespace Core
