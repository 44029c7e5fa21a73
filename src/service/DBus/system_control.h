#pragma once

#include "DBus/context.h"

namespace DBus {

/// For the package manager and other system services, on the system bus only: blocks launches and waits
/// until an application is gone.
///
/// Stateless; who may call is the bus policy's matter. Ids match by prefix in Terminate() and
/// WaitForNotRunning(), so that an empty id means everything that runs.
/// data/interfaces/org.kestrix.Procwarden.SystemControl1.xml describes every member.
class SystemControl : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.SystemControl1")

public:
    explicit SystemControl(QObject *parent = nullptr);
    ~SystemControl() override;

public slots:
    void PreventLaunch(const QString &appId);
    /// Replies when nothing runs whose id begins with @p appId. It looks again when an application of exactly
    /// that id ends, so waiting for a mere prefix of ids may wait for ever. There is no time-out on this
    /// side.
    void WaitForNotRunning(const QString &appId);
    void Terminate(const QString &appId);
    void AllowLaunch(const QString &appId);
};

} // namespace DBus
