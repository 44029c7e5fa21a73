#pragma once

#include "DBus/context.h"

#include <QDBusObjectPath>
#include <QVariantMap>

#include <memory>

namespace DBus {

class TaskInvokerPrivate;

/// Where a system component that runs the tasks of one type on its own decision gets its session. On both
/// buses. data/interfaces/org.kestrix.Procwarden.TaskInvoker1.xml describes every member.
class TaskInvoker : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.TaskInvoker1")

public:
    explicit TaskInvoker(QObject *parent = nullptr);
    ~TaskInvoker() override;

public slots:
    /// Gives the session of a type, which is made at the first call, exported on that caller's bus, and then
    /// lasts as long as the service. Anybody may ask: each call through the session is judged by itself.
    ///
    /// A type that cannot be part of an object path, or that is too long, gets none but `InvalidArgs`.
    /// @param properties "ActiveTasks" and "AvailableTasks", as the session's properties
    void RegisterInvoker(const QString &taskType, QDBusObjectPath &sessionPath, QVariantMap &properties);

private:
    const std::unique_ptr<TaskInvokerPrivate> d;
};

} // namespace DBus
