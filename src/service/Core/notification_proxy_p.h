#pragma once

#include "Core/notification_data.h"

#include <QDBusAbstractInterface>
#include <QDBusMessage>

#include <functional>

namespace Core {

class NotificationProxy;

/// Waits for the answer to one call, hands it on, and deletes itself.
class NotificationAnswer : public QObject
{
    Q_OBJECT

public:
    using Handle = std::function<void(const QDBusMessage &answer)>;

    NotificationAnswer(const Handle &handle, QObject *parent);

public slots:
    void onReply(const QDBusMessage &reply);
    void onError(const QDBusError &error, const QDBusMessage &call);

private:
    const Handle m_handle;
};

/// The server's object, as it is seen on the bus.
class NotificationProxyPrivate : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    NotificationProxyPrivate(NotificationProxy *owner, qint64 mayWait);

    /// Calls @p method. @p handle always runs, later, at the latest when the bus's default time is over.
    void ask(const QString &method, const QVariantList &arguments, const NotificationAnswer::Handle &handle);

public slots:
    void onNotificationClosed(uint id, uint reason);
    void onActionInvoked(uint id, const QString &actionKey);
    void onInputTextSet(uint id, const QString &input);

private:
    void listenTo(const QString &name, const QString &signature, const char *slot);

    NotificationProxy *const q;
    const qint64 m_mayWait;
    qint64 m_waiting = 0; ///< bytes, of the calls that have been sent and not been answered
};

} // namespace Core
