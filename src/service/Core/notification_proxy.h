#pragma once

#include "Core/notification_data.h"

#include <QObject>

#include <functional>
#include <memory>

namespace Core {

class NotificationProxyPrivate;

/// Client of the notification server, which sits behind a name of its own on the session bus.
///
/// No operation waits for the server. Each callback runs exactly once, from the event loop and never inside
/// the call that was given it, unless this object ends first. A server that is absent, answers with an error,
/// with another type or not in the bus's default time gives the default value of the result: the id 0, an
/// empty list, empty strings; so does a call that is too large to be passed on, or comes when too much waits
/// for the server's answers. Answers come in the server's order. Main thread only.
class NotificationProxy : public QObject
{
    Q_OBJECT

public:
    using IdCallback = std::function<void(Id id)>;
    using ListCallback = std::function<void(const QVector<NotificationData> &notifications)>;
    using CapabilitiesCallback = std::function<void(const QStringList &capabilities)>;
    using InformationCallback = std::function<void(const QString &name, const QString &vendor,
                                                   const QString &version, const QString &specVersion)>;

    /// What may wait for the server, by an estimate in bytes; it takes some two times as much memory. Large
    /// calls get one half of it, more than a hundred pictures that fill a small screen; the other half is for
    /// small ones alone, 30,000 of them, so that nobody's close is lost to somebody else's pictures.
    static constexpr qint64 maximumWaiting = 256 * 1024 * 1024;

    explicit NotificationProxy(QObject *parent = nullptr, qint64 mayWait = maximumWaiting);
    ~NotificationProxy() override;

    void getCapabilities(const CapabilitiesCallback &callback);
    /// @p hints may hold whatever came over the bus: it goes out as it came in.
    void notify(const QString &appName, Id replacesId, const QString &appIcon, const QString &summary,
                const QString &body, const QStringList &actions, const QVariantMap &hints,
                qint32 expireTimeout, const IdCallback &callback);
    /// Has no result: whether it was open shows in notificationClosed().
    void closeNotification(Id id);
    void getServerInformation(const InformationCallback &callback);
    void getNotifications(const QString &appName, const ListCallback &callback);
    void getNotificationsByCategory(const QString &category, const ListCallback &callback);

signals:
    // The server's own; whoever else sends signals of these names is not heard.
    void notificationClosed(Core::Id id, uint reason);
    void actionInvoked(Core::Id id, const QString &actionKey);
    void inputTextSet(Core::Id id, const QString &input);

private:
    const std::unique_ptr<NotificationProxyPrivate> d;
};

} // namespace Core
