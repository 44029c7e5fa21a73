#include "Core/bus_call.h"

#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>

namespace Core {

namespace {

QDBusPendingCall disconnectedCall()
{
    return QDBusPendingCall::fromError(
        QDBusError(QDBusError::Disconnected, QStringLiteral("Not connected to the bus")));
}

} // namespace

QDBusPendingCall callOverBus(const QDBusConnection &connection, const QDBusMessage &message, int timeoutMs)
{
    return connection.isConnected() ? connection.asyncCall(message, timeoutMs) : disconnectedCall();
}

QDBusPendingCall callOverBus(QDBusAbstractInterface &proxy, const QString &method,
                             const QVariantList &arguments)
{
    return proxy.connection().isConnected() ? proxy.asyncCallWithArgumentList(method, arguments)
                                            : disconnectedCall();
}

} // namespace Core
