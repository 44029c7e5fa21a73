#include "DBus/context.h"

#include "Core/client_info.h"
#include "Core/error.h"
#include "Core/runtime_tracker.h"
#include "Core/types.h"
#include "DBus/error.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFileInfo>

namespace DBus {

namespace {

// 0 if the bus does not know the sender, which has left since, or if there is no bus to ask.
pid_t pidOf(const QDBusConnection &connection, const QDBusMessage &message)
{
    const QDBusConnectionInterface *bus = connection.interface();
    if (!bus) {
        return 0;
    }
    const QDBusReply<uint> reply = bus->servicePid(message.service());
    return reply.isValid() ? static_cast<pid_t>(reply.value()) : 0;
}

// Names are compared, not numbers: the group has no fixed one.
bool isPrivileged(pid_t pid)
{
    const QFileInfo process(QStringLiteral("%1/proc/%2").arg(Core::Types::rootFs()).arg(pid));
    return process.group() == QLatin1String("privileged") || process.owner() == QLatin1String("root");
}

// An error names what it is about, which a client may have sent. The bus closes the connection of whoever
// sends it a message beyond its limits, so an answer must not be longer than the question was allowed to be.
constexpr int maximumErrorText = 4 * 1024 * 1024; // UTF-16 units: 12 MiB at most, of 32 that every bus takes

QString replyText(const Error &error)
{
    return error.message().left(maximumErrorText);
}

} // namespace

Core::ClientInfo Context::clientInfo() const
{
    Core::ClientInfo info;
    info.privileged = true;
    if (!calledFromDBus()) {
        return info;
    }
    const pid_t pid = pidOf(connection(), message());
    const bool privileged = isPrivileged(pid);
    const auto [error, appId] = Core::RuntimeTracker::instance()->applicationForPid(pid);
    if (error.code() == Core::Error::ProcessNotHandled) {
        return info; // no process of ours
    }
    info.privileged = privileged;
    info.appId = appId;
    return info;
}

void Context::sendError(const Core::Error &error) const
{
    const Error reply(error);
    sendErrorReply(reply.name(), replyText(reply));
}

void Context::sendError(const QDBusConnection &connection, const QDBusMessage &message,
                        const Core::Error &error)
{
    const Error reply(error);
    connection.send(message.createErrorReply(reply.name(), replyText(reply)));
}

} // namespace DBus
