#pragma once

#include "Core/notification_data.h"
#include "DBus/context.h"

namespace DBus {

/// The desktop's notification interface, in front of the notification server. Session bus only.
///
/// Clients cannot tell it from the server, but that each event goes to the owner of the notification alone:
/// as a signal to the bus name that is the application's id. One without an application is told everybody.
/// data/interfaces/org.freedesktop.Notifications.xml describes every member.
class Notifications : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    explicit Notifications(QObject *parent = nullptr);
    ~Notifications() override;

public slots:
    // All but CloseNotification() answer when the server has: what they return is not sent.

    QStringList GetCapabilities();
    /// `InvalidArgs` for another application's notification, `AccessDenied` for a remote action on another
    /// service.
    uint Notify(const QString &appName, uint replacesId, const QString &appIcon, const QString &summary,
                const QString &body, const QStringList &actions, const QVariantMap &hints, int expireTimeout);
    /// `InvalidArgs` for a notification that is not known as the caller's.
    void CloseNotification(uint id);
    QString GetServerInformation(QString &vendor, QString &version, QString &specVersion);
    QVector<Core::NotificationData> GetNotifications(const QString &appName);
    QVector<Core::NotificationData> GetNotificationsByCategory(const QString &category);

signals:
    // Never emitted, since that would tell everybody: they are here for the description of the interface.
    void NotificationClosed(uint id, uint reason);
    void ActionInvoked(uint id, const QString &actionKey);
    void InputTextSet(uint id, const QString &input);
};

} // namespace DBus
