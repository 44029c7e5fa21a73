#include "bus.h"

#include "wire_value.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QEventLoop>
#include <QTimer>

#include <limits>
#include <memory>

namespace Ctl {

namespace {

constexpr int probePauseMs = 5000; // seldom enough for a call that waits for hours
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
        reply.isSilent = answer.service() != QLatin1String("org.freedesktop.DBus");
        reply.status = reply.isSilent ? TimedOut : NotThere;
    } else if (meansNoSuchId(reply.errorName, reply.errorText)) {
        reply.status = NoSuchId;
    }
    return reply;
}

std::optional<Reply> whyNotConnected(const QDBusConnection &connection)
{
    if (connection.isConnected()) {
        return std::nullopt;
    }
    Reply reply;
    reply.isWithoutBus = true;
    const QDBusError error = connection.lastError();
    reply.errorName = error.isValid() ? error.name() : QStringLiteral("org.freedesktop.DBus.Error.NoServer");
    reply.errorText = error.isValid() ? error.message() : QStringLiteral("There is no bus");
    reply.status = NotThere;
    return reply;
}

/// A bus that goes ends all calls as if their time were up.
Reply seenFrom(const QDBusConnection &connection, Reply reply)
{
    if (reply.failed() && !connection.isConnected()) {
        reply.status = NotThere;
        reply.isWithoutBus = true;
        reply.isSilent = false;
    }
    return reply;
}

void waitFor(const QDBusPendingCallWatcher &answer)
{
    QEventLoop loop;
    QObject::connect(&answer, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    if (!answer.isFinished()) {
        loop.exec();
    }
}

/// For an answer that the service has at once.
Reply sendBriefly(const QDBusConnection &connection, const QDBusMessage &call, int timeoutMs)
{
    if (const auto reply = whyNotConnected(connection)) {
        return *reply;
    }
    // Not a blocking call: those are not told that the bus has gone.
    const QDBusPendingCallWatcher answer(connection.asyncCall(call, timeoutMs));
    waitFor(answer);
    return seenFrom(connection, Bus::replyOf(answer.reply()));
}

/// What the object of @p call always answers, in the thread in which it answers the call.
QDBusMessage probeFor(const QDBusMessage &call)
{
    auto probe = QDBusMessage::createMethodCall(call.service(), call.path(),
                                                QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                                QStringLiteral("Introspect"));
    probe.setAutoStartService(false);
    return probe;
}

/// For an answer that may take long: waits as long as the service answers something else meanwhile.
Reply sendPatiently(const QDBusConnection &connection, const QDBusMessage &call, int timeoutMs)
{
    if (const auto reply = whyNotConnected(connection)) {
        return *reply;
    }
    std::optional<Reply> silence;
    QEventLoop loop;
    const QDBusPendingCallWatcher answer(connection.asyncCall(call, timeoutMs));
    QObject::connect(&answer, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    std::unique_ptr<QDBusPendingCallWatcher> probe; // while it is open
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        probe = std::make_unique<QDBusPendingCallWatcher>(
            connection.asyncCall(probeFor(call), Bus::askTimeoutMs));
        QObject::connect(probe.get(), &QDBusPendingCallWatcher::finished, &loop, [&] {
            const Reply reply = Bus::replyOf(probe->reply());
            probe.release()->deleteLater();
            if (reply.isSilent) {
                silence = reply;
                loop.quit();
            } else {
                timer.start(probePauseMs); // a refusal is an answer, too
            }
        });
    });
    timer.start(probePauseMs);
    if (!answer.isFinished()) {
        loop.exec();
    }
    if (silence && !answer.isFinished()) {
        return seenFrom(connection, *silence);
    }
    Reply reply = Bus::replyOf(answer.reply());
    reply.isSilent = false; // the time is up that the caller gave
    return seenFrom(connection, reply);
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

QDBusMessage Bus::question(const QString &object, const QString &member)
{
    auto message = QDBusMessage::createMethodCall(sessionName, pathOf(object), interfaceOf(object), member);
    message.setAutoStartService(false);
    return message;
}

std::optional<Reply> Bus::whyNoBus()
{
    return whyNotConnected(QDBusConnection::sessionBus());
}

Reply Bus::ask(const QString &object, const QString &member, const QVariantList &arguments,
               int timeoutMs) const
{
    QDBusMessage message = question(object, member);
    message.setArguments(arguments);
    return sendBriefly(QDBusConnection::sessionBus(), message, timeoutMs);
}

Reply Bus::act(const QString &object, const QString &member, const QVariantList &arguments) const
{
    auto message = QDBusMessage::createMethodCall(sessionName, pathOf(object), interfaceOf(object), member);
    message.setArguments(arguments);
    return sendPatiently(QDBusConnection::sessionBus(), message, noLimit);
}

Reply Bus::actOnSystem(const QString &object, const QString &member, const QVariantList &arguments,
                       int timeoutMs) const
{
    auto message = QDBusMessage::createMethodCall(systemName, pathOf(object), interfaceOf(object), member);
    message.setArguments(arguments);
    message.setAutoStartService(false);
    return sendPatiently(QDBusConnection::systemBus(), message, timeoutMs < 0 ? noLimit : timeoutMs);
}

Reply Bus::call(const QDBusMessage &call) const
{
    return sendBriefly(QDBusConnection::sessionBus(), call, askTimeoutMs);
}

void Bus::callLater(const QDBusMessage &call, int timeoutMs, QObject *context,
                    const std::function<void(const Reply &)> &then)
{
    auto *watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, timeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, then] {
        watcher->deleteLater();
        then(replyOf(watcher->reply()));
    });
}

} // namespace Ctl
