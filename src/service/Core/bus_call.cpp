#include "Core/bus_call.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

namespace Core {

QDBusPendingCall callOverBus(const QDBusConnection &connection, const QDBusMessage &message, int timeoutMs)
{
    if (!connection.isConnected()) {
        return QDBusPendingCall::fromError(
            QDBusError(QDBusError::Disconnected, QStringLiteral("Not connected to the session bus")));
    }
    return connection.asyncCall(message, timeoutMs);
}

} // namespace Core
