#include "bus.h"

#include "wire_value.h"

#include <QDBusError>

#include <limits>

namespace Ctl {

namespace {

constexpr int noLimit = std::numeric_limits<int>::max(); // what libdbus takes for none

/// Errors that say that nobody is there, if they do not come from the service.
bool meansNobody(const QString &name)
{
    static const QStringList names = {
        QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"),
        QStringLiteral("org.freedesktop.DBus.Error.NameHasNoOwner"),
        QStringLiteral("org.freedesktop.DBus.Error.Disconnected"),
        QStringLiteral("org.freedesktop.DBus.Error.NoServer"),
        QStringLiteral("org.freedesktop.DBus.Error.TimedOut"), // the bus has tried to start it
    };
    return names.contains(name) || name.startsWith(QLatin1String("org.freedesktop.DBus.Error.Spawn."));
}

/// Errors that say that there is nothing under the id that was given.
bool meansNoSuchId(const QString &name, const QString &text)
{
    return name == QLatin1String("org.kestrix.Procwarden.Error.TaskNotFound")
        || text.startsWith(QLatin1String("Cannot find application "))
        || text.startsWith(QLatin1String("Application not running: "));
}

Reply failure(const QDBusMessage &answer)
{
    Reply reply;
    reply.errorName = answer.errorName();
    reply.errorText = answer.errorMessage();
    reply.status = Refused;
    const bool isFromPeer = answer.service().startsWith(QLatin1Char(':'));
    const bool isNoReply = reply.errorName == QLatin1String("org.freedesktop.DBus.Error.NoReply")
        || reply.errorName == QLatin1String("org.freedesktop.DBus.Error.Timeout");
    if (!isFromPeer && meansNobody(reply.errorName)) {
        reply.status = NotThere;
    } else if (isNoReply && !isFromPeer) {
        // The bus says it when the service ended over the call, this side when time is up.
        reply.status = answer.service() == QLatin1String("org.freedesktop.DBus") ? NotThere : TimedOut;
    } else if (meansNoSuchId(reply.errorName, reply.errorText)) {
        reply.status = NoSuchId;
    }
    return reply;
}

} // namespace

const QString Bus::sessionName = QStringLiteral("org.kestrix.Procwarden");
const QString Bus::systemName = QStringLiteral("org.kestrix.Procwarden.User");

QString Bus::pathOf(const QString &object)
{
    return QStringLiteral("/org/kestrix/Procwarden/") + object;
}

QString Bus::interfaceOf(const QString &object)
{
    return QStringLiteral("org.kestrix.Procwarden.") + object;
}

Reply Bus::send(const QDBusConnection &connection, const QDBusMessage &call, int timeoutMs)
{
    if (!connection.isConnected()) {
        Reply reply;
        reply.isWithoutBus = true;
        const QDBusError error = connection.lastError();
        reply.errorName =
            error.isValid() ? error.name() : QStringLiteral("org.freedesktop.DBus.Error.NoServer");
        reply.errorText = error.isValid() ? error.message() : QStringLiteral("There is no bus");
        reply.status = NotThere;
        return reply;
    }
    return replyOf(connection.call(call, QDBus::Block, timeoutMs));
}

Reply Bus::replyOf(const QDBusMessage &answer)
{
    if (answer.type() != QDBusMessage::ReplyMessage) {
        return failure(answer);
    }
    Reply reply;
    const QVariantList values = answer.arguments();
    for (const QVariant &value : values) {
        reply.values.append(plainValue(value));
    }
    return reply;
}

Reply Bus::ask(const QString &object, const QString &member, const QVariantList &arguments,
               int timeoutMs) const
{
    auto message = QDBusMessage::createMethodCall(sessionName, pathOf(object), interfaceOf(object), member);
    message.setArguments(arguments);
    message.setAutoStartService(false);
    return send(QDBusConnection::sessionBus(), message, timeoutMs);
}

Reply Bus::act(const QString &object, const QString &member, const QVariantList &arguments) const
{
    auto message = QDBusMessage::createMethodCall(sessionName, pathOf(object), interfaceOf(object), member);
    message.setArguments(arguments);
    return send(QDBusConnection::sessionBus(), message, noLimit);
}

Reply Bus::actOnSystem(const QString &object, const QString &member, const QVariantList &arguments,
                       int timeoutMs) const
{
    auto message = QDBusMessage::createMethodCall(systemName, pathOf(object), interfaceOf(object), member);
    message.setArguments(arguments);
    message.setAutoStartService(false);
    return send(QDBusConnection::systemBus(), message, timeoutMs < 0 ? noLimit : timeoutMs);
}

Reply Bus::call(const QDBusMessage &call) const
{
    return send(QDBusConnection::sessionBus(), call, askTimeoutMs);
}

} // namespace Ctl
