#pragma once

#include "DBus/context.h"

#include <QJsonObject>
#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace DBus {

/// Through which an application works with its own background tasks. Session bus only.
///
/// Hears of changes by "StateChanged", a signal sent to one connection alone, the last one through which the
/// application has asked for anything. Making it starts the tasks that are stored for a restart, once the
/// runtime controller is ready. data/interfaces/org.kestrix.Procwarden.Tasks1.xml describes every member.
class Tasks : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Tasks1")

public:
    explicit Tasks(QObject *parent = nullptr);
    ~Tasks() override;

public slots:
    /// "State": Procwarden::TaskState of each task that the caller's application declares, an array, in the
    /// order of the names. The caller gets "StateChanged" from now on.
    QVariantMap GetAll();
    /// Fails with `InvalidArgs` for a hint that is not for applications, or with what the task manager says.
    /// The caller gets "StateChanged" from now on, also after a failure.
    void Start(const QString &fullTaskId, const QStringList &params, const QJsonObject &hints);
    /// @param mustDisable whether the task is also forgotten, with its schedule and its place among those
    ///        that come back after a restart; otherwise it runs again when its conditions hold again
    void Stop(const QString &fullTaskId, bool mustDisable);
};

} // namespace DBus
