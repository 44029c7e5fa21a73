#pragma once

#include <QDBusPendingCall>
#include <QVariantList>

class QDBusAbstractInterface;
class QDBusConnection;
class QDBusMessage;

namespace Core {

/// Sends a method call; the answer has a limit of @p timeoutMs milliseconds, -1 for D-Bus's default.
///
/// Unlike QDBusConnection::asyncCall(), whose pending call never finishes where there is no connection, what
/// this returns always does: with `Disconnected` then.
[[nodiscard]] QDBusPendingCall callOverBus(const QDBusConnection &connection, const QDBusMessage &message,
                                           int timeoutMs = -1);

/// The same for a method of the object that @p proxy stands for; the limit is the proxy's.
[[nodiscard]] QDBusPendingCall callOverBus(QDBusAbstractInterface &proxy, const QString &method,
                                           const QVariantList &arguments);

} // namespace Core
