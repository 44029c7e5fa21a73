#pragma once

#include "DBus/context.h"
#include "DBus/types.h"

#include <QVariantMap>
#include <QVector>

#include <memory>

namespace DBus {

class ControlPrivate;

/// Starts, stops and observes applications, on both buses.
///
/// Who may call is the bus policy's matter: nothing here looks at the caller but to name it as the one who
/// asked for a start. data/interfaces/org.kestrix.Procwarden.Control1.xml describes every member.
class Control : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Control1")

public:
    explicit Control(QObject *parent = nullptr);
    ~Control() override;

public slots:
    /// Scans the installed applications anew.
    void Reload();
    void Start(const QString &appId);
    /// The reply, which comes when the launch has ended: the instance id, and a map of "Pid" (i),
    /// "StartReason" (u) and "RequestorId" (s).
    void StartDebug(const QString &appId, const QVariantMap &debugParams);
    /// The reply does not wait for the exit. A hidden application, whose group is frozen, gets its signals
    /// only when a window update or the end of the service thaws it.
    void Terminate(const QString &appInstanceId);
    void GetRunningApplications(QVector<Procwarden::RunningApplication> &apps,
                                QVector<Procwarden::RunningService> &services);

signals:
    void Started(const QString &appInstanceId, const QVariantMap &details);
    void Terminated(const QString &appInstanceId, const QVariantMap &details);
    void StateChanged(const QString &appInstanceId, const QVariantMap &details);
    void SelectedByOom(const QString &processId);

private:
    const std::unique_ptr<ControlPrivate> d;
};

} // namespace DBus
