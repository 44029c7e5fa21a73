#include "DBus/context.h"

#include "Core/bus_call.h"
#include "Core/error.h"
#include "Core/runtime_tracker.h"
#include "Core/types.h"
#include "DBus/error.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFileInfo>
#include <QVariantMap>

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

/// A bus daemon answers at once. Whoever waits for what it knows does not wait for one that is stuck.
constexpr int identificationLimitMs = 2000;

Core::ClientInfo infoOf(pid_t pid)
{
    Core::ClientInfo info;
    info.privileged = true;
    const bool privileged = isPrivileged(pid);
    const auto [error, appId] = Core::RuntimeTracker::instance()->applicationForPid(pid);
    if (error.code() == Core::Error::ProcessNotHandled) {
        return info; // no process of ours
    }
    info.privileged = privileged;
    info.appId = appId;
    return info;
}

/// As the bus's GetConnectionCredentials tells it.
void takeCredentials(Core::Requestor &requestor, const QVariantMap &credentials)
{
    const auto uid = credentials.constFind(QStringLiteral("UnixUserID"));
    if (uid != credentials.cend()) {
        requestor.uid = uid->toUInt();
    }
    requestor.setProcess(static_cast<pid_t>(credentials.value(QStringLiteral("ProcessID")).toUInt()));
}

QString replyText(const Error &error)
{
    return error.message().left(maximumErrorText);
}

} // namespace

Core::ClientInfo Context::clientInfo() const
{
    return calledFromDBus() ? infoOf(callerPid()) : Core::ClientInfo { true, QString() };
}

Caller Context::caller() const
{
    if (!calledFromDBus()) {
        return { { true, QString() }, {} };
    }
    const pid_t pid = callerPid();
    Caller found { infoOf(pid), {} };
    found.requestor.id = found.info.appId;
    if (found.info.appId.isEmpty()) {
        found.requestor.bus = callerBus();
        found.requestor.setProcess(pid);
    }
    return found;
}

std::shared_ptr<const Core::Requestor> Context::identifyCaller(const std::function<void()> &known)
{
    auto question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetConnectionCredentials"));
    question << message().service();
    auto *watcher =
        new QDBusPendingCallWatcher(Core::callOverBus(connection(), question, identificationLimitMs), this);

    const auto requestor = std::make_shared<Core::Requestor>();
    requestor->bus = callerBus();
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [requestor, known](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                const QDBusPendingReply<QVariantMap> reply = *call;
                if (!reply.isError()) { // else it has left since
                    takeCredentials(*requestor, reply.value());
                }
                known();
            });
    return requestor;
}

pid_t Context::callerPid() const
{
    return pidOf(connection(), message());
}

QString Context::callerBus() const
{
    return connection().name() == QDBusConnection::systemBus().name() ? QStringLiteral("system")
                                                                      : QStringLiteral("session");
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
