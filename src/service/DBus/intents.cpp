#include "DBus/intents.h"

#include "Core/bus_call.h"
#include "Core/intents.h"
#include "Core/message_size.h"
#include "DBus/types.h"

#include "Core/client_info.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDebug>

namespace DBus {

namespace {

constexpr int handlerLimitMs = 86400;

/// Whether @p data can be sent beside @p others. What is too deep or too large would otherwise be missing
/// from the message, or end the connection.
bool canBeSent(const QJsonObject &data, const QVariantList &others)
{
    const std::optional<QVariantMap> map = toBusMap(data);
    return map && Core::fitsIntoMessage(others + QVariantList { *map });
}

/// The hints of an answer, with nested values as raw arguments. Anything but a map has none.
QVariantMap readHints(const QVariant &argument)
{
    if (argument.userType() != qMetaTypeId<QDBusArgument>()) {
        return argument.toMap();
    }
    QVariantMap hints;
    const auto raw = argument.value<QDBusArgument>();
    if (raw.currentSignature() != QLatin1String("a{sv}")) {
        return hints;
    }
    raw.beginMap();
    while (!raw.atEnd()) {
        QString key;
        QDBusVariant value;
        raw.beginMapEntry();
        raw >> key >> value;
        raw.endMapEntry();
        hints.insert(key, value.variant());
    }
    raw.endMap();
    return hints;
}

QJsonObject readData(const QVariant &argument)
{
    if (argument.userType() != qMetaTypeId<QDBusArgument>()) {
        return argument.toJsonObject();
    }
    QJsonObject data;
    argument.value<QDBusArgument>() >> data;
    return data;
}

} // namespace

class IntentsPrivate
{
public:
    explicit IntentsPrivate(Intents *owner)
        : q(owner)
    {
    }

    void callHandler(const QString &handlerName, const QString &intentName, const QJsonObject &data,
                     const Core::Intents::HandlerReply &reply) const;

    Core::Intents intents;
    Intents *const q;
};

void IntentsPrivate::callHandler(const QString &handlerName, const QString &intentName,
                                 const QJsonObject &data, const Core::Intents::HandlerReply &reply) const
{
    if (!canBeSent(data, { intentName })) {
        reply(QJsonObject(), QVariantMap(),
              Core::Error(Core::Error::HandlerFailed, QStringLiteral("Message is too large")));
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        handlerName, QStringLiteral("/org/kestrix/Procwarden/IntentHandler1"),
        QStringLiteral("org.kestrix.Procwarden.IntentHandler1"), QStringLiteral("HandleIntent"));
    call.setArguments({ intentName, QVariant::fromValue(data) });

    auto *watcher = new QDBusPendingCallWatcher(
        Core::callOverBus(QDBusConnection::sessionBus(), call, handlerLimitMs), q);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, q, [watcher, reply] {
        watcher->deleteLater();
        const QDBusPendingReply<> answer = *watcher;
        if (answer.isError()) {
            reply(QJsonObject(), QVariantMap(),
                  Core::Error(Core::Error::HandlerFailed, answer.error().message()));
            return;
        }
        const QVariantList arguments = answer.reply().arguments();
        reply(readData(arguments.value(0)), readHints(arguments.value(1)), Core::Error());
    });
}

Intents::Intents(QObject *parent)
    : Context(parent)
    , d(std::make_unique<IntentsPrivate>(this))
{
    Procwarden::registerTypes();
}

Intents::~Intents() = default;

void Intents::InvokeIntent(const QString &intentName, const QVariantMap &hints,
                           const QJsonObject &requestData)
{
    qDebug() << "InvokeIntent" << intentName << hints << requestData;
    const Core::ClientInfo client = clientInfo();

    setDelayedReply(true);
    d->intents.setHandlerCall(
        [this](const QString &handlerName, const QString &name, const QJsonObject &data,
               const Core::Intents::HandlerReply &reply) { d->callHandler(handlerName, name, data, reply); });
    const auto answer = [connection = connection(), message = message()](const QJsonObject &data,
                                                                         const Core::Error &error) {
        if (error) {
            sendError(connection, message, error);
        } else if (!canBeSent(data, {})) {
            sendError(connection, message,
                      Core::Error(Core::Error::Failed, QStringLiteral("Message is too large")));
        } else {
            connection.send(message.createReply(QVariant::fromValue(data)));
        }
    };
    d->intents.invokeIntent(intentName, hints, requestData, client, answer);
}

} // namespace DBus
