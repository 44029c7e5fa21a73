#include "Core/intent_resolver.h"

#include "Core/bus_call.h"
#include "Core/message_size.h"

#include "DBus/json.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace Core {

namespace {

Error::Code codeOf(QDBusError::ErrorType type)
{
    if (type == QDBusError::NotSupported) {
        return Error::HandlerNotFound;
    }
    return type == QDBusError::InvalidArgs ? Error::InvalidArgs : Error::Failed;
}

} // namespace

class IntentResolverPrivate : public QObject
{
public:
    void resolveIntent(const QString &name, const QJsonObject &requestData, const QVariantMap &hints,
                       const QStringList &candidates, const IntentResolver::Callback &callback);

private:
    static QDBusPendingCall ask(const QVariantList &arguments);
};

QDBusPendingCall IntentResolverPrivate::ask(const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.solvaneos.intentresolver"),
        QStringLiteral("/org/kestrix/Procwarden/IntentResolver1"),
        QStringLiteral("org.kestrix.Procwarden.IntentResolver1"), QStringLiteral("ResolveIntent"));
    message.setArguments(arguments);
    return callOverBus(QDBusConnection::sessionBus(), message);
}

void IntentResolverPrivate::resolveIntent(const QString &name, const QJsonObject &requestData,
                                          const QVariantMap &hints, const QStringList &candidates,
                                          const IntentResolver::Callback &callback)
{
    const std::optional<QVariantMap> data = DBus::toBusMap(requestData);
    const QVariantList arguments = { name, data.value_or(QVariantMap()), hints, candidates };
    const QDBusPendingCall call = data && fitsIntoMessage(arguments)
        ? ask(arguments)
        : QDBusPendingCall::fromError(
            QDBusError(QDBusError::LimitsExceeded, QStringLiteral("Message is too large")));

    auto *watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [callback](QDBusPendingCallWatcher *finished) {
        finished->deleteLater();
        // Turns an answer of another form into an error.
        const QDBusPendingReply<QString, QVariantMap> reply = *finished;
        if (reply.isError()) {
            const QDBusError error = reply.error();
            callback(QString(), QVariantMap(), Error(codeOf(error.type()), error.message()));
        } else {
            callback(reply.argumentAt<0>(), reply.argumentAt<1>(), Error());
        }
    });
}

IntentResolver::IntentResolver(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<IntentResolverPrivate>())
{
}

IntentResolver::~IntentResolver() = default;

void IntentResolver::resolveIntent(const QString &name, const QJsonObject &requestData,
                                   const QVariantMap &hints, const QStringList &candidates,
                                   const Callback &callback)
{
    d->resolveIntent(name, requestData, hints, candidates, callback);
}

} // namespace Core
