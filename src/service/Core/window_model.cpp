#include "Core/window_model.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace Core {

namespace {

QDBusMessage launchProcessCall(const QString &applicationId)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.nemomobile.lipstick"), QStringLiteral("/WindowModel"),
        QStringLiteral("local.Lipstick.WindowModel"), QStringLiteral("launchProcess"));
    message << applicationId;
    return message;
}

} // namespace

void notifyWindowModel(const QString &applicationId)
{
    QDBusConnection::sessionBus().call(launchProcessCall(applicationId));
}

void raiseApplication(const QString &applicationId)
{
    QDBusConnection::sessionBus().send(launchProcessCall(applicationId));
}

} // namespace Core
