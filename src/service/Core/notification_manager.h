#pragma once

#include "Core/client_info.h"
#include "Core/error.h"
#include "Core/notification_proxy.h"

#include <QObject>

#include <memory>

namespace Core {

class NotificationManagerPrivate;

/// Stands between the applications and the notification server: says who sent a notification, and keeps each
/// application to its own.
///
/// Two clients are the same application if their plain application ids are equal, so that the instances and
/// tasks of one application share its notifications. Privileged clients may act on all notifications. Who
/// owns which is kept in memory only: a notification from before the start of this service is nobody's.
///
/// Callbacks are those of NotificationProxy: they run from the event loop, with default values if the server
/// fails. Main thread only.
class NotificationManager : public QObject
{
    Q_OBJECT

public:
    /// The one of the service, made at first use, never destroyed.
    static NotificationManager *instance();

    explicit NotificationManager(QObject *parent = nullptr);
    ~NotificationManager() override;

    /// Sends a notification, or the new contents of @p replacesId if that is not 0.
    ///
    /// What an application is called, its icon and its id in the hints are those of the catalogue, whatever
    /// it says itself. A privileged client keeps its name and icon; its hint is only set if it belongs to an
    /// application.
    /// @param callback gets the id; not called if an error is returned. The id 0 means that the server has
    ///                 not taken it.
    /// @returns InvalidArgs if @p replacesId is another application's, AccessDenied if a remote action in
    ///          @p hints is aimed at anybody but the client. Nothing has been sent then.
    Error notify(const QString &appName, Id replacesId, const QString &appIcon, const QString &summary,
                 const QString &body, const QStringList &actions, const QVariantMap &hints,
                 qint32 expireTimeout, const ClientInfo &clientInfo,
                 const NotificationProxy::IdCallback &callback);

    /// @returns InvalidArgs if the notification is not known as the client's. Success only says that the
    ///          server was asked; notificationClosed() comes when it has been closed.
    Error closeNotification(Id id, const ClientInfo &clientInfo);

    void getCapabilities(const NotificationProxy::CapabilitiesCallback &callback);
    void getServerInformation(const NotificationProxy::InformationCallback &callback);

    // Open notifications in the server's order, of which an application gets those that it owns.

    void getNotifications(const QString &appName, const ClientInfo &clientInfo,
                          const NotificationProxy::ListCallback &callback);
    void getNotificationsByCategory(const QString &category, const ClientInfo &clientInfo,
                                    const NotificationProxy::ListCallback &callback);

signals:
    /// A client has asked for a notification with this progress, normally 0 to 1. The server has not had it
    /// yet.
    void notificationProgressUpdated(float progress, const Core::ClientInfo &clientInfo);

    // Events of the server. The client is the owner; events of notifications without an owner are dropped.

    void notificationClosed(Core::Id id, uint reason, const Core::ClientInfo &clientInfo);
    void actionInvoked(Core::Id id, const QString &actionKey, const Core::ClientInfo &clientInfo);
    void inputTextSet(Core::Id id, const QString &input, const Core::ClientInfo &clientInfo);

private:
    const std::unique_ptr<NotificationManagerPrivate> d;
};

} // namespace Core
