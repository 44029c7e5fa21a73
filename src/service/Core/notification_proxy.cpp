#include "Core/notification_proxy.h"

#include "Core/message_size.h"
#include "Core/notification_names.h"
#include "Core/notification_proxy_p.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusPendingReply>

namespace Core {

namespace {

constexpr qint64 bytesPerCall = 4096; // of memory, however small the message is; a larger one counts as large

/// Runs the callback with what the answer holds, or with the default: an answer of another type counts as an
/// error.
template<typename Type, typename Callback>
NotificationAnswer::Handle passTo(const Callback &callback)
{
    return [callback](const QDBusMessage &answer) {
        const QDBusPendingReply<Type> reply(answer);
        if (callback) {
            callback(reply.isError() ? Type() : reply.value());
        }
    };
}

} // namespace

NotificationAnswer::NotificationAnswer(const Handle &handle, QObject *parent)
    : QObject(parent)
    , m_handle(handle)
{
}

void NotificationAnswer::onReply(const QDBusMessage &reply)
{
    deleteLater();
    m_handle(reply);
}

void NotificationAnswer::onError(const QDBusError &error, const QDBusMessage & /*call*/)
{
    deleteLater();
    m_handle(QDBusMessage::createError(error));
}

NotificationProxyPrivate::NotificationProxyPrivate(NotificationProxy *owner, qint64 mayWait)
    : QDBusAbstractInterface(NotificationNames::server, NotificationNames::path, NotificationNames::interface,
                             QDBusConnection::sessionBus(), nullptr)
    , q(owner)
    , m_mayWait(mayWait)
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

// An answer must not change places with another one or with an event: an id would be given to the owner of
// a notification only after it has been closed. A pending call watcher, which is made after the call was
// sent, takes a longer way if the answer is faster than that. So the receiver is made first.
//
// Until the server has answered, both the call that came in and the one that went out are kept. With a server
// that has stopped, clients could let that grow without end.
void NotificationProxyPrivate::ask(const QString &method, const QVariantList &arguments,
                                   const NotificationAnswer::Handle &handle)
{
    const qint64 size = estimatedMessageSize(arguments);
    const qint64 mayWait = size > bytesPerCall ? m_mayWait / 2 : m_mayWait;
    const bool isTooLarge = size > maximumMessageSize || m_waiting + bytesPerCall + size > mayWait;
    const qint64 waits = isTooLarge ? 0 : bytesPerCall + size;
    m_waiting += waits;
    auto *answer = new NotificationAnswer(
        [this, waits, handle](const QDBusMessage &reply) {
            m_waiting -= waits;
            handle(reply);
        },
        q);
    const auto fail = [answer](QDBusError::ErrorType type, const QString &text) {
        const QDBusError error(type, text);
        QMetaObject::invokeMethod(
            answer, [answer, error] { answer->onError(error, QDBusMessage()); }, Qt::QueuedConnection);
    };
    if (isTooLarge) {
        fail(QDBusError::LimitsExceeded, QStringLiteral("Message is too large"));
    } else if (!callWithCallback(method, arguments, answer, SLOT(onReply(QDBusMessage)),
                                 SLOT(onError(QDBusError, QDBusMessage)))) {
        fail(QDBusError::Disconnected, QStringLiteral("Not connected to the session bus"));
    }
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

NotificationProxy::NotificationProxy(QObject *parent, qint64 mayWait)
    : QObject(parent)
    , d(std::make_unique<NotificationProxyPrivate>(this, mayWait))
{
}

NotificationProxy::~NotificationProxy() = default;

void NotificationProxy::getCapabilities(const CapabilitiesCallback &callback)
{
    d->ask(NotificationNames::getCapabilities, {}, passTo<QStringList>(callback));
}

void NotificationProxy::notify(const QString &appName, Id replacesId, const QString &appIcon,
                               const QString &summary, const QString &body, const QStringList &actions,
                               const QVariantMap &hints, qint32 expireTimeout, const IdCallback &callback)
{
    const QVariantList arguments = { appName, replacesId, appIcon, summary,
                                     body,    actions,    hints,   expireTimeout };
    d->ask(NotificationNames::notify, arguments, passTo<Id>(callback));
}

void NotificationProxy::closeNotification(Id id)
{
    d->ask(NotificationNames::closeNotification, { id }, [](const QDBusMessage &) {});
}

void NotificationProxy::getServerInformation(const InformationCallback &callback)
{
    d->ask(NotificationNames::getServerInformation, {}, [callback](const QDBusMessage &answer) {
        const QDBusPendingReply<QString, QString, QString, QString> reply(answer);
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
    d->ask(NotificationNames::getNotifications, { appName }, passTo<QVector<NotificationData>>(callback));
}

void NotificationProxy::getNotificationsByCategory(const QString &category, const ListCallback &callback)
{
    d->ask(NotificationNames::getNotificationsByCategory, { category },
           passTo<QVector<NotificationData>>(callback));
}

} // namespace Core
