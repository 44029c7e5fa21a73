#include "Core/notification_proxy.h"

#include "Core/notification_names.h"
#include "Core/notification_proxy_p.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace Core {

namespace {

/// Calls @p handle with the reply, read as these types: one that has others counts as an error, and its
/// values are the defaults.
template<typename... Types, typename Handle>
void whenFinished(NotificationProxy *context, const QDBusPendingCall &call, const Handle &handle)
{
    auto *watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [handle](QDBusPendingCallWatcher *finished) {
                         finished->deleteLater();
                         handle(QDBusPendingReply<Types...>(*finished));
                     });
}

template<typename Type, typename Callback>
void passResult(NotificationProxy *context, const QDBusPendingCall &call, const Callback &callback)
{
    whenFinished<Type>(context, call, [callback](const QDBusPendingReply<Type> &reply) {
        if (callback) {
            callback(reply.isError() ? Type() : reply.value());
        }
    });
}

} // namespace

NotificationProxyPrivate::NotificationProxyPrivate(NotificationProxy *owner)
    : QDBusAbstractInterface(NotificationNames::server, NotificationNames::path, NotificationNames::interface,
                             QDBusConnection::sessionBus(), nullptr)
    , q(owner)
{
    registerNotificationTypes();

    const QString closed = QStringLiteral("uu");
    const QString withText = QStringLiteral("us");
    listenTo(NotificationNames::notificationClosed, closed, SLOT(onNotificationClosed(uint, uint)));
    listenTo(NotificationNames::actionInvoked, withText, SLOT(onActionInvoked(uint, QString)));
    listenTo(NotificationNames::inputTextSet, withText, SLOT(onInputTextSet(uint, QString)));
}

void NotificationProxyPrivate::listenTo(const QString &name, const QString &signature, const char *slot)
{
    connection().connect(service(), path(), interface(), name, signature, this, slot);
}

QDBusPendingCall NotificationProxyPrivate::ask(const QString &method, const QVariantList &arguments)
{
    if (!connection().isConnected()) {
        // Left to itself, Qt makes a pending call of this that never finishes.
        return QDBusPendingCall::fromError(
            QDBusError(QDBusError::Disconnected, QStringLiteral("Not connected to the session bus")));
    }
    return asyncCallWithArgumentList(method, arguments);
}

void NotificationProxyPrivate::onNotificationClosed(uint id, uint reason)
{
    emit q->notificationClosed(id, reason);
}

void NotificationProxyPrivate::onActionInvoked(uint id, const QString &actionKey)
{
    emit q->actionInvoked(id, actionKey);
}

void NotificationProxyPrivate::onInputTextSet(uint id, const QString &input)
{
    emit q->inputTextSet(id, input);
}

NotificationProxy::NotificationProxy(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<NotificationProxyPrivate>(this))
{
}

NotificationProxy::~NotificationProxy() = default;

void NotificationProxy::getCapabilities(const CapabilitiesCallback &callback)
{
    passResult<QStringList>(this, d->ask(NotificationNames::getCapabilities, {}), callback);
}

void NotificationProxy::notify(const QString &appName, Id replacesId, const QString &appIcon,
                               const QString &summary, const QString &body, const QStringList &actions,
                               const QVariantMap &hints, qint32 expireTimeout, const IdCallback &callback)
{
    const QVariantList arguments = { appName, replacesId, appIcon, summary,
                                     body,    actions,    hints,   expireTimeout };
    passResult<Id>(this, d->ask(NotificationNames::notify, arguments), callback);
}

void NotificationProxy::closeNotification(Id id)
{
    d->ask(NotificationNames::closeNotification, { id });
}

void NotificationProxy::getServerInformation(const InformationCallback &callback)
{
    using Reply = QDBusPendingReply<QString, QString, QString, QString>;
    whenFinished<QString, QString, QString, QString>(
        this, d->ask(NotificationNames::getServerInformation, {}), [callback](const Reply &reply) {
            if (!callback) {
                return;
            }
            if (reply.isError()) {
                callback({}, {}, {}, {});
            } else {
                callback(reply.argumentAt<0>(), reply.argumentAt<1>(), reply.argumentAt<2>(),
                         reply.argumentAt<3>());
            }
        });
}

void NotificationProxy::getNotifications(const QString &appName, const ListCallback &callback)
{
    passResult<QVector<NotificationData>>(this, d->ask(NotificationNames::getNotifications, { appName }),
                                          callback);
}

void NotificationProxy::getNotificationsByCategory(const QString &category, const ListCallback &callback)
{
    passResult<QVector<NotificationData>>(
        this, d->ask(NotificationNames::getNotificationsByCategory, { category }), callback);
}

} // namespace Core
