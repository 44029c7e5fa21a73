#include "helper_object.h"

#include "DBus/error.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDebug>

namespace Helper {

namespace {

constexpr int identifyTimeoutMs = 5000; // the bus daemon answers from memory; more means that it hangs

QDBusPendingCall askForUser(const QDBusConnection &bus, const QString &caller)
{
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetConnectionUnixUser"));
    question << caller;
    return bus.asyncCall(question, identifyTimeoutMs);
}

UserHierarchies::Result denied(const QString &reason)
{
    return { QString(), { Core::Error::AccessDenied, reason } };
}

UserHierarchies::Result createFor(const QDBusPendingReply<uint> &caller, uint userId,
                                  const UserHierarchies &hierarchies)
{
    if (caller.isError()) {
        return denied(QStringLiteral("Cannot find out who calls: %1").arg(caller.error().message()));
    }
    if (caller.value() != 0 && caller.value() != userId) {
        return denied(QStringLiteral("User %1 may not ask for user %2").arg(caller.value()).arg(userId));
    }
    return hierarchies.create(userId);
}

} // namespace

HelperObject::HelperObject(const UserHierarchies &hierarchies, QObject *parent)
    : QObject(parent)
    , m_hierarchies(hierarchies)
{
}

QString HelperObject::CreateUserHierarchies(uint userId)
{
    setDelayedReply(true);
    const QDBusConnection bus = connection();
    const QDBusMessage call = message();
    auto *watcher = new QDBusPendingCallWatcher(askForUser(bus, call.service()), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, bus, call, userId] {
        watcher->deleteLater();
        const UserHierarchies::Result result = createFor(*watcher, userId, m_hierarchies);
        if (result.error) {
            qWarning() << "Cannot create hierarchies of user" << userId << "-" << result.error.message();
            bus.send(call.createErrorReply(DBus::Error(result.error).name(), result.error.message()));
        } else {
            qDebug() << "Created hierarchies of user" << userId;
            bus.send(call.createReply(result.path));
        }
    });
    return QString();
}

} // namespace Helper
