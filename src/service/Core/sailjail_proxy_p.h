#pragma once

#include <QDBusAbstractInterface>

namespace Core {

/// The daemon's object, as it is seen on the bus.
class SailjailProxyPrivate : public QDBusAbstractInterface
{
public:
    SailjailProxyPrivate();

    /// Calls @p method with @p application as its one argument. The call always finishes.
    QDBusPendingCall ask(const QString &method, const QString &application);
};

} // namespace Core
