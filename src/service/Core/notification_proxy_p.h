#pragma once

#include "Core/notification_data.h"

#include <QDBusAbstractInterface>

namespace Core {

class NotificationProxy;

/// The server's object, as it is seen on the bus.
class NotificationProxyPrivate : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    explicit NotificationProxyPrivate(NotificationProxy *owner);

    /// Calls @p method. The call always finishes, at the latest when the bus's default time is over.
    QDBusPendingCall ask(const QString &method, const QVariantList &arguments);

public slots:
    void onNotificationClosed(uint id, uint reason);
    void onActionInvoked(uint id, const QString &actionKey);
    void onInputTextSet(uint id, const QString &input);

private:
    void listenTo(const QString &name, const QString &signature, const char *slot);

    NotificationProxy *const q;
};

} // namespace Core
