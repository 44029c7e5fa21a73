#include "Core/window_model.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace Core {

void notifyWindowModel(const QString &applicationId)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.nemomobile.lipstick"), QStringLiteral("/WindowModel"),
        QStringLiteral("local.Lipstick.WindowModel"), QStringLiteral("launchProcess"));
    message << applicationId;
    QDBusConnection::sessionBus().call(message);
}

} // namespace Core
