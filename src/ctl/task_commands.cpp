#include "key_value.h"
#include "session.h"

#include "Core/application_id.h"
#include "Core/application_registry.h"
#include "Core/application_task_id.h"
#include "DBus/json.h"

#include <algorithm>

namespace Ctl {

namespace {

/// The hints that are no texts. A schedule is given as JSON.
QHash<QString, ValueKind> hintKinds()
{
    return {
        { QStringLiteral("Priority"), ValueKind::Integer },
        { QStringLiteral("RunningTime"), ValueKind::Integer },
        { QStringLiteral("StartDelay"), ValueKind::Integer },
        { QStringLiteral("Interval"), ValueKind::Integer },
        { QStringLiteral("CreateIPCSocket"), ValueKind::Boolean },
        { QStringLiteral("Autostart"), ValueKind::Boolean },
    };
}

int startTask(const Session &session, const QString &id)
{
    KeyValues hints(hintKinds());
    const QString fault = hints.add(session.arguments.values(QStringLiteral("hint")));
    if (!fault.isEmpty()) {
        return session.arguments.wrong(fault);
    }
    const std::optional<QVariantMap> map = DBus::toBusMap(hints.object());
    if (!map) {
        return session.arguments.wrong(QStringLiteral("The hints are too large, or nested too deeply"));
    }
    return session.finish(session.bus.act(QStringLiteral("Tasks1"), QStringLiteral("Start"),
                                          { id, session.arguments.tail(), *map }),
                          { { QStringLiteral("Id"), id } });
}

/// Full task id -> what ListRunning says of it, of the tasks of an application.
QMap<QString, QVariantMap> runningTasks(const QVariantList &processes, const QString &appId)
{
    QMap<QString, QVariantMap> running;
    for (const QVariant &entry : processes) {
        const QVariantMap process = entry.toMap();
        const QString id = process.value(QStringLiteral("Id")).toString();
        if (id.startsWith(appId + QLatin1String(".task_"))) {
            running.insert(id, process);
        }
    }
    return running;
}

QVector<Output::Column> taskColumns()
{
    const auto listOf = [](const QString &key) {
        return [key](const QVariantMap &task) {
            return Table::Cell { task.value(key).toStringList().join(QLatin1Char(' ')) };
        };
    };
    return {
        keyColumn(QStringLiteral("TASK"), QStringLiteral("Id"), true),
        keyColumn(QStringLiteral("TYPE"), QStringLiteral("Type")),
        { { QStringLiteral("RUNS") },
          [](const QVariantMap &task) {
              const bool runs = task.value(QStringLiteral("Running")).toBool();
              return Table::Cell { runs ? QStringLiteral("yes") : QStringLiteral("no"),
                                   runs ? Style::Good : Style::Dim };
          } },
        { { QStringLiteral("PID"), Table::Align::Right },
          [](const QVariantMap &task) {
              return Table::Cell { task.value(QStringLiteral("Pid")).toString() };
          } },
        { { QStringLiteral("CONDITIONS"), Table::Align::Left, true }, listOf(QStringLiteral("Conditions")) },
        { { QStringLiteral("PERMISSIONS"), Table::Align::Left, true },
          listOf(QStringLiteral("Permissions")) },
    };
}

int noSuchTask(const QString &id)
{
    Output::error(QStringLiteral("No such task: %1").arg(id));
    return NoSuchId;
}

int stopTask(const Session &session, const QString &id, bool isForgotten)
{
    // The service takes any id. One that is not declared may be that of a task that still runs.
    const Core::ApplicationTaskId taskId(id);
    bool isKnown = Core::ApplicationRegistry().taskInfo(taskId).id.isValid();
    if (!isKnown) {
        const Reply running = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"));
        if (running.failed()) {
            return session.fail(running);
        }
        if (!taskId.isValid()) {
            return noSuchTask(id); // without the call, which would stop an application of this id
        }
        const QVariantList processes = running.value().toList();
        isKnown = std::any_of(processes.cbegin(), processes.cend(), [&id](const QVariant &process) {
            return process.toMap().value(QStringLiteral("Id")) == id;
        });
    }
    // Also if it is not known: it may be remembered from before its application was removed.
    const Reply reply =
        session.bus.ask(QStringLiteral("Tasks1"), QStringLiteral("Stop"), { id, isForgotten });
    return reply.failed() || isKnown ? session.finish(reply, { { QStringLiteral("Id"), id } })
                                     : noSuchTask(id);
}

} // namespace

int tasksCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString appId = session.arguments.word(0);
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"));
    if (reply.failed()) {
        return session.fail(reply);
    }
    QMap<QString, QVariantMap> running = runningTasks(reply.value().toList(), appId);
    const Core::ApplicationRegistry registry;
    const Core::ApplicationId application(appId);
    QVariantList tasks;
    const auto declared = registry.tasks(application);
    for (const Core::ApplicationInfo::TaskInfo &task : declared) {
        QVariantMap map = { { QStringLiteral("Id"), task.id.text() },
                            { QStringLiteral("Type"), task.type },
                            { QStringLiteral("Conditions"), task.conditions },
                            { QStringLiteral("Permissions"), task.permissions },
                            { QStringLiteral("Running"), running.contains(task.id.text()) } };
        if (running.contains(task.id.text())) {
            map.insert(QStringLiteral("Pid"), running.take(task.id.text()).value(QStringLiteral("Pid")));
        }
        tasks.append(map);
    }
    // What runs though it is not declared any more.
    for (auto task = running.cbegin(); task != running.cend(); ++task) {
        tasks.append(QVariantMap { { QStringLiteral("Id"), task.key() },
                                   { QStringLiteral("Running"), true },
                                   { QStringLiteral("Pid"), task->value(QStringLiteral("Pid")) } });
    }
    if (tasks.isEmpty() && registry.desktopFile(application).isEmpty()) {
        Output::error(QStringLiteral("Cannot find application %1").arg(appId));
        return NoSuchId;
    }
    session.output.rows(tasks, taskColumns(), QStringLiteral("It has no tasks."));
    return Done;
}

int taskCommand(Session &session)
{
    session.arguments.addOption(
        { QStringLiteral("H"), QStringLiteral("hint") },
        QStringLiteral("start: give a hint, as KEY=VALUE or KEY:=JSON; may be repeated"),
        QStringLiteral("KEY=VALUE"));
    session.arguments.addSwitch({ QStringLiteral("keep") },
                                QStringLiteral("stop: end the process only; the task may run again"));
    if (const auto end = session.begin(2, 2, true)) {
        return *end;
    }
    const QString verb = session.arguments.word(0);
    const QString id = session.arguments.word(1);
    const Arguments &arguments = session.arguments;
    const bool keeps = arguments.isSet(QStringLiteral("keep"));
    if (verb == QLatin1String("start")) {
        return keeps ? arguments.wrong(QStringLiteral("--keep goes with stop only")) : startTask(session, id);
    }
    if (verb != QLatin1String("stop")) {
        return arguments.wrong(QStringLiteral("Neither start nor stop: %1").arg(verb));
    }
    if (arguments.isSet(QStringLiteral("hint")) || arguments.hasTail()) {
        return arguments.wrong(QStringLiteral("Hints and arguments go with start only"));
    }
    return stopTask(session, id, !keeps);
}

} // namespace Ctl
