#pragma once

#include "DBus/context.h"

#include <QVariantMap>

namespace DBus {

/// Tells an application its own state. Session bus only.
///
/// An application that has asked once hears each change in a signal "StateChanged" (s instance id, u state)
/// that is sent to it alone. data/interfaces/org.kestrix.Procwarden.Lifecycle1.xml describes every member.
class Lifecycle : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Lifecycle1")

public:
    explicit Lifecycle(QObject *parent = nullptr);
    ~Lifecycle() override;

public slots:
    /// @returns "State" (u); the error `ProcessNotHandled` to a caller that is no application of the
    /// service's.
    QVariantMap GetProperties();
};

} // namespace DBus
