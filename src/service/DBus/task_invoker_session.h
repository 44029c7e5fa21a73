#pragma once

#include "DBus/context.h"
#include "DBus/types.h"

#include <QVariantMap>
#include <QVector>

#include <memory>

namespace DBus {

class TaskInvokerSessionPrivate;

/// The tasks of one type, as a task invoker sees them and runs them. Owned by the TaskInvoker.
/// data/interfaces/org.kestrix.Procwarden.TaskInvokerSession1.xml describes every member.
class TaskInvokerSession : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.TaskInvokerSession1")
    Q_PROPERTY(
        QVector<Procwarden::AvailableTask> AvailableTasks READ availableTasks NOTIFY availableTasksChanged)
    Q_PROPERTY(QVector<Procwarden::ActiveTask> ActiveTasks READ activeTasks NOTIFY activeTasksChanged)

public:
    explicit TaskInvokerSession(const QString &taskType, QObject *parent = nullptr);
    ~TaskInvokerSession() override;

    /// Where the session is exported.
    QString sessionPath() const;
    /// The same for any type. Not every type gives a path that the bus allows.
    static QString pathOf(const QString &taskType);

    /// All tasks of the type that applications declare, in the registry's order. Walks the registry.
    QVector<Procwarden::AvailableTask> availableTasks() const;
    /// Those that run now, in the runtime controller's order.
    QVector<Procwarden::ActiveTask> activeTasks() const;

public slots:
    /// Runs a task, of this type or of another one, with the full range of hints.
    /// @param startupInfo "Params" and "Environment", lists of strings
    /// @returns the process, or 0 if it waits for its conditions
    int Start(const QString &fullTaskId, const QVariantMap &startupInfo, const QVariantMap &hints);
    /// Stops a task, whether it runs or not, and forgets it.
    void Stop(const QString &fullTaskId);

signals:
    void availableTasksChanged();
    void activeTasksChanged();

private:
    const std::unique_ptr<TaskInvokerSessionPrivate> d;
};

} // namespace DBus
