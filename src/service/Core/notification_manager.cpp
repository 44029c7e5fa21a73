#include "Core/notification_manager.h"

#include "Core/application_registry.h"
#include "Core/notification_manager_p.h"
#include "Core/process_id.h"

#include <QDBusVariant>
#include <QDebug>

#include <mremoteaction.h>

#include <algorithm>
#include <iterator>

namespace Core {

namespace {

const QLatin1String applicationIdHint("x-solvane-application-id"); // string: whose it is, written here
const QLatin1String progressHint("x-nemo-progress"); // real number
const QLatin1String remoteActionHint("x-nemo-remote-action-"); // prefix; a call that the server will make

constexpr int longestBusName = 255; // what is longer is no name, and does not fill the log either

/// Plain id of the application that an instance or a task belongs to; empty for a client that is none.
QString applicationOf(const ClientInfo &clientInfo)
{
    return ProcessId(clientInfo.appId).toString();
}

/// Each key once, with the value that was sent last. The bus takes the same key more often, and then each
/// reader would take another value: the server not the one that has been checked or stamped here.
QVariantMap unambiguous(const QVariantMap &hints)
{
    QVariantMap result;
    for (auto hint = hints.cbegin(); hint != hints.cend(); ++hint) {
        // Of equal keys, the one that was added last comes first.
        if (result.isEmpty() || result.lastKey() != hint.key()) {
            result.insert(result.cend(), hint.key(), hint.value());
        }
    }
    return result;
}

/// What a hint holds, also if it is wrapped in variants once more.
QVariant unwrapped(QVariant value)
{
    while (value.userType() == qMetaTypeId<QDBusVariant>()) {
        value = value.value<QDBusVariant>().variant();
    }
    return value;
}

Error invalidId()
{
    return Error(Error::InvalidArgs, QStringLiteral("Invalid notification ID"));
}

} // namespace

NotificationManagerPrivate::NotificationManagerPrivate(NotificationManager *owner)
    : q(owner)
{
    qRegisterMetaType<ClientInfo>("ClientInfo");
    QObject::connect(&proxy, &NotificationProxy::notificationClosed, q,
                     [this](Id id, uint reason) { onNotificationClosed(id, reason); });
    QObject::connect(&proxy, &NotificationProxy::actionInvoked, q,
                     [this](Id id, const QString &actionKey) { onActionInvoked(id, actionKey); });
    QObject::connect(&proxy, &NotificationProxy::inputTextSet, q,
                     [this](Id id, const QString &input) { onInputTextSet(id, input); });
}

bool NotificationManagerPrivate::checkActions(const QVariantMap &hints, const ClientInfo &clientInfo)
{
    // The keys are sorted: those with the prefix follow each other.
    for (auto hint = hints.lowerBound(remoteActionHint);
         hint != hints.cend() && hint.key().startsWith(remoteActionHint); ++hint) {
        const QString service = MRemoteAction(unwrapped(hint.value()).toString()).serviceName();
        if (!service.isEmpty() && service != clientInfo.appId && service != applicationOf(clientInfo)) {
            qWarning() << clientInfo.appId << "not allowed to invoke actions on"
                       << service.left(longestBusName);
            return false;
        }
    }
    return true;
}

bool NotificationManagerPrivate::isOwner(Id id, const ClientInfo &clientInfo) const
{
    const auto owner = owners.constFind(id);
    return owner != owners.constEnd() && applicationOf(*owner) == applicationOf(clientInfo);
}

NotificationProxy::ListCallback NotificationManagerPrivate::filterFor(
    const ClientInfo &clientInfo, const NotificationProxy::ListCallback &callback) const
{
    if (clientInfo.privileged) {
        return callback;
    }
    return [this, clientInfo, callback](const QVector<NotificationData> &notifications) {
        QVector<NotificationData> own;
        std::copy_if(
            notifications.cbegin(), notifications.cend(), std::back_inserter(own),
            [&](const NotificationData &notification) { return isOwner(notification.id, clientInfo); });
        callback(own);
    };
}

void NotificationManagerPrivate::onNotificationClosed(Id id, uint reason)
{
    const auto entry = owners.constFind(id);
    if (entry == owners.constEnd()) {
        return;
    }
    const ClientInfo owner = *entry;
    emit q->notificationClosed(id, reason, owner);
    owners.remove(id);
}

void NotificationManagerPrivate::onActionInvoked(Id id, const QString &actionKey)
{
    const auto entry = owners.constFind(id);
    if (entry != owners.constEnd()) {
        emit q->actionInvoked(id, actionKey, ClientInfo(*entry));
    }
}

void NotificationManagerPrivate::onInputTextSet(Id id, const QString &input)
{
    const auto entry = owners.constFind(id);
    if (entry != owners.constEnd()) {
        emit q->inputTextSet(id, input, ClientInfo(*entry));
    }
}

NotificationManager *NotificationManager::instance()
{
    static auto *const manager = new NotificationManager;
    return manager;
}

NotificationManager::NotificationManager(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<NotificationManagerPrivate>(this))
{
}

NotificationManager::~NotificationManager() = default;

Error NotificationManager::notify(const QString &appName, Id replacesId, const QString &appIcon,
                                  const QString &summary, const QString &body, const QStringList &actions,
                                  const QVariantMap &hints, qint32 expireTimeout,
                                  const ClientInfo &clientInfo, const NotificationProxy::IdCallback &callback)
{
    QString shownName = appName;
    QString shownIcon = appIcon;
    QVariantMap stampedHints = unambiguous(hints);

    if (!clientInfo.privileged) {
        if (replacesId != 0 && d->owners.contains(replacesId) && !d->isOwner(replacesId, clientInfo)) {
            qWarning() << clientInfo.appId << "tried to update notification belonging to"
                       << d->owners.value(replacesId).appId;
            return invalidId();
        }
        if (!NotificationManagerPrivate::checkActions(stampedHints, clientInfo)) {
            return Error(Error::AccessDenied, QStringLiteral("Cannot invoke actions on other services"));
        }
        const auto *registry = ApplicationRegistry::instance();
        const ProcessId application(clientInfo.appId);
        const QString displayName = registry->name(application);
        if (!displayName.isEmpty()) {
            shownName = displayName;
            shownIcon = registry->icon(application);
        }
    }
    // Only who is privileged may speak for whomever it likes, and only while it is no application itself.
    const QString applicationId = applicationOf(clientInfo);
    if (!clientInfo.privileged || !applicationId.isEmpty()) {
        stampedHints.insert(applicationIdHint, applicationId);
    }

    const auto progress = stampedHints.constFind(progressHint);
    if (progress != stampedHints.constEnd()) {
        emit notificationProgressUpdated(static_cast<float>(progress->toDouble()), clientInfo);
    }
    d->proxy.notify(shownName, replacesId, shownIcon, summary, body, actions, stampedHints, expireTimeout,
                    [this, clientInfo, callback](Id id) {
                        d->owners.insert(id, clientInfo);
                        callback(id);
                    });
    return Error();
}

Error NotificationManager::closeNotification(Id id, const ClientInfo &clientInfo)
{
    if (!clientInfo.privileged && !d->isOwner(id, clientInfo)) {
        return invalidId();
    }
    d->proxy.closeNotification(id);
    return Error();
}

void NotificationManager::getCapabilities(const NotificationProxy::CapabilitiesCallback &callback)
{
    d->proxy.getCapabilities(callback);
}

void NotificationManager::getServerInformation(const NotificationProxy::InformationCallback &callback)
{
    d->proxy.getServerInformation(callback);
}

void NotificationManager::getNotifications(const QString &appName, const ClientInfo &clientInfo,
                                           const NotificationProxy::ListCallback &callback)
{
    d->proxy.getNotifications(appName, d->filterFor(clientInfo, callback));
}

void NotificationManager::getNotificationsByCategory(const QString &category, const ClientInfo &clientInfo,
                                                     const NotificationProxy::ListCallback &callback)
{
    d->proxy.getNotificationsByCategory(category, d->filterFor(clientInfo, callback));
}

} // namespace Core
