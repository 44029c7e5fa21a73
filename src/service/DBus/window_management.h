#pragma once

#include "DBus/context.h"

namespace DBus {

/// Takes the compositor's window counts, which drive the states of applications. Session bus only.
/// data/interfaces/org.kestrix.Procwarden.WindowManagement1.xml describes every member.
class WindowManagement : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.WindowManagement1")

public:
    explicit WindowManagement(QObject *parent = nullptr);
    ~WindowManagement() override;

public slots:
    /// @returns the application's state after the update; 255 for "none", with an error reply if the update
    ///          was refused. An application with no windows left is being stopped: 4.
    uint UpdateWindowStatus(const QString &appId, int activeWindowCount, int inactiveWindowCount,
                            int hiddenWindowCount);
};

} // namespace DBus
