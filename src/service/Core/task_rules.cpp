#include "Core/task_rules.h"

#include "Core/task_hints.h"

namespace Core {

namespace {

constexpr qint32 defaultWorkerMaxTime = 900; // s: time for a large transfer
constexpr qint32 shortTaskLimit = 60; // s: what comes again and again has to be short

} // namespace

TaskRules TaskRules::forType(const QString &type, qint32 workerMaxTime)
{
    TaskRules rules;
    rules.defaultLimit = shortTaskLimit;
    if (type == TaskTypes::worker) {
        rules.isWorker = true;
        rules.holdsKeepalive = true;
        rules.defaultLimit = workerMaxTime;
    } else if (type == TaskTypes::periodic || type == TaskTypes::scheduled) {
        rules.holdsKeepalive = true;
        rules.greatestLimit = shortTaskLimit;
    }
    return rules;
}

qint32 workerMaxTimeFromEnvironment()
{
    bool ok = false;
    const int value = qEnvironmentVariableIntValue("PROCWARDEN_WORKER_MAX_TIME", &ok);
    return ok && value >= 1 ? value : defaultWorkerMaxTime;
}

int autostartValue(const QVariantMap &hints)
{
    const QVariant hint = hints.value(TaskHints::autostart);
    if (hint.userType() == QMetaType::Bool) {
        return hint.toBool() ? 1 : 0;
    }
    const int value = hint.toInt();
    return value == 1 || value == 2 ? value : 0;
}

} // namespace Core
