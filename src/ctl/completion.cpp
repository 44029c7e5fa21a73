#include "completion.h"

#include "bus.h"

#include "Core/application_registry.h"
#include "Core/process_id.h"

#include <QMap>

namespace Ctl {

namespace {

constexpr int patienceMs = 1000; // of a user who has pressed the key

enum Kind {
    Installed = 1, ///< applications
    Declared = 2, ///< tasks
    Running = 4, ///< instances and tasks
    RunningTasks = 8,
    RunningApplications = 16, ///< without their instances
};

int kindsFor(const QString &command)
{
    static const QMap<QString, int> kinds = {
        { QStringLiteral("app"), Installed },
        { QStringLiteral("block"), Installed },
        { QStringLiteral("debug"), Installed },
        { QStringLiteral("explain"), Installed },
        { QStringLiteral("start"), Installed },
        { QStringLiteral("stop"), Running },
        { QStringLiteral("task"), Declared | RunningTasks },
        { QStringLiteral("tasks"), Installed | RunningApplications },
        { QStringLiteral("top"), Running },
        { QStringLiteral("unblock"), Installed },
        { QStringLiteral("wait"), RunningApplications },
        { QStringLiteral("windows"), Running },
    };
    return kinds.value(command, Installed | Declared | Running);
}

QStringList installedIds(int kinds)
{
    QStringList found;
    const Core::ApplicationRegistry registry;
    const QStringList ids = registry.applicationIds();
    for (const QString &id : ids) {
        if (kinds & Installed) {
            found.append(id);
        }
        if (kinds & Declared) {
            const auto tasks = registry.tasks(Core::ApplicationId(id));
            for (const Core::ApplicationInfo::TaskInfo &task : tasks) {
                found.append(task.id.text());
            }
        }
    }
    return found;
}

QStringList runningIds(int kinds)
{
    QStringList found;
    const Reply reply =
        Bus().ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"), {}, patienceMs);
    const QVariantList processes = reply.value().toList();
    for (const QVariant &entry : processes) {
        const QVariantMap process = entry.toMap();
        const QString id = process.value(QStringLiteral("Id")).toString();
        const bool isTask = process.value(QStringLiteral("Kind")) == QLatin1String("task");
        if ((kinds & Running) || (isTask && (kinds & RunningTasks))) {
            found.append(id);
        }
        if (kinds & RunningApplications) {
            found.append(Core::ProcessId(id).toString());
        }
    }
    return found;
}

} // namespace

QStringList idsFor(const QString &command)
{
    const int kinds = kindsFor(command);
    QStringList ids;
    if (kinds & (Installed | Declared)) {
        ids += installedIds(kinds);
    }
    if (kinds & (Running | RunningTasks | RunningApplications)) {
        ids += runningIds(kinds);
    }
    ids.sort();
    ids.removeDuplicates();
    return ids;
}

} // namespace Ctl
