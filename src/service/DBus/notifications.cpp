#include "DBus/notifications.h"

#include "Core/client_info.h"
#include "Core/notification_manager.h"
#include "Core/notification_names.h"
#include "Core/process_id.h"

#include <QDBusConnection>
#include <QDBusMessage>

using Core::ClientInfo;
using Core::Id;
using Core::NotificationData;
using Core::NotificationManager;

namespace Names = Core::NotificationNames;

namespace DBus {

namespace {

/// Answers a delayed call, unless its sender has said that it does not want to hear.
void reply(const QDBusConnection &connection, const QDBusMessage &call, const QVariantList &results)
{
    if (call.isReplyRequired()) {
        connection.send(call.createReply(results));
    }
}

/// The application's id serves as its bus name. No application: no receiver is named, so that all hear it.
void tellOwner(const ClientInfo &owner, const QString &member, const QVariantList &arguments)
{
    auto signal = QDBusMessage::createTargetedSignal(Core::ProcessId(owner.appId).toString(), Names::path,
                                                     QString::fromLatin1(Names::interface), member);
    signal.setArguments(arguments);
    QDBusConnection::sessionBus().send(signal);
}

} // namespace

Notifications::Notifications(QObject *parent)
    : Context(parent)
{
    auto *manager = NotificationManager::instance();
    connect(manager, &NotificationManager::notificationClosed, this,
            [](Id id, uint reason, const ClientInfo &owner) {
                tellOwner(owner, Names::notificationClosed, { uint(id), reason });
            });
    connect(manager, &NotificationManager::actionInvoked, this,
            [](Id id, const QString &actionKey, const ClientInfo &owner) {
                tellOwner(owner, Names::actionInvoked, { uint(id), actionKey });
            });
    connect(manager, &NotificationManager::inputTextSet, this,
            [](Id id, const QString &input, const ClientInfo &owner) {
                tellOwner(owner, Names::inputTextSet, { uint(id), input });
            });
}

Notifications::~Notifications() = default;

QStringList Notifications::GetCapabilities()
{
    setDelayedReply(true);
    NotificationManager::instance()->getCapabilities(
        [connection = connection(), message = message()](const QStringList &capabilities) {
            reply(connection, message, { capabilities });
        });
    return {};
}

uint Notifications::Notify(const QString &appName, uint replacesId, const QString &appIcon,
                           const QString &summary, const QString &body, const QStringList &actions,
                           const QVariantMap &hints, int expireTimeout)
{
    setDelayedReply(true);
    const auto answer = [connection = connection(), message = message()](Id id) {
        reply(connection, message, { uint(id) });
    };
    const auto error = NotificationManager::instance()->notify(
        appName, replacesId, appIcon, summary, body, actions, hints, expireTimeout, clientInfo(), answer);
    if (error && message().isReplyRequired()) {
        sendError(error);
    }
    return 0;
}

void Notifications::CloseNotification(uint id)
{
    const auto error = NotificationManager::instance()->closeNotification(id, clientInfo());
    if (error && message().isReplyRequired()) {
        sendError(error);
    }
}

QString Notifications::GetServerInformation(QString & /*vendor*/, QString & /*version*/,
                                            QString & /*specVersion*/)
{
    setDelayedReply(true);
    NotificationManager::instance()->getServerInformation(
        [connection = connection(), message = message()](const QString &name, const QString &vendor,
                                                         const QString &version, const QString &specVersion) {
            reply(connection, message, { name, vendor, version, specVersion });
        });
    return {};
}

QVector<NotificationData> Notifications::GetNotifications(const QString &appName)
{
    setDelayedReply(true);
    NotificationManager::instance()->getNotifications(
        appName, clientInfo(),
        [connection = connection(), message = message()](const QVector<NotificationData> &notifications) {
            reply(connection, message, { QVariant::fromValue(notifications) });
        });
    return {};
}

QVector<NotificationData> Notifications::GetNotificationsByCategory(const QString &category)
{
    setDelayedReply(true);
    NotificationManager::instance()->getNotificationsByCategory(
        category, clientInfo(),
        [connection = connection(), message = message()](const QVector<NotificationData> &notifications) {
            reply(connection, message, { QVariant::fromValue(notifications) });
        });
    return {};
}

} // namespace DBus
