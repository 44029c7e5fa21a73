#pragma once

#include "Core/client_info.h"
#include "Core/notification_proxy.h"

#include <QHash>

namespace Core {

class NotificationManager;

class NotificationManagerPrivate
{
public:
    explicit NotificationManagerPrivate(NotificationManager *owner);

    /// Whether all remote actions among @p hints are aimed at the client itself. A warning names the first
    /// one that is not.
    static bool checkActions(const QVariantMap &hints, const ClientInfo &clientInfo);

    /// Whether the notification is known, and an application's that the client belongs to.
    bool isOwner(Id id, const ClientInfo &clientInfo) const;
    /// Passes on what the client may see.
    NotificationProxy::ListCallback filterFor(const ClientInfo &clientInfo,
                                              const NotificationProxy::ListCallback &callback) const;

    void onNotificationClosed(Id id, uint reason);
    void onActionInvoked(Id id, const QString &actionKey);
    void onInputTextSet(Id id, const QString &input);

    NotificationManager *const q;
    QHash<Id, ClientInfo> owners; // id -> who sent it last; removed when the server says that it was closed
    NotificationProxy proxy; // its end drops what is still asked for, which uses the table
};

} // namespace Core
