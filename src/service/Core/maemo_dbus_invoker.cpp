#include "Core/maemo_dbus_invoker.h"

#include "Core/bus_call.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDebug>

namespace Core {

class MaemoDBusInvokerPrivate
{
public:
    /// An invalid message where @p interfaceMethod names no method.
    static QDBusMessage methodCall(const QString &service, const QString &objectPath,
                                   const QString &interfaceMethod);

    QDBusPendingCall send(const QStringList &arguments) const;

    const QDBusConnection connection = QDBusConnection::sessionBus();
    QDBusMessage message;
};

QDBusMessage MaemoDBusInvokerPrivate::methodCall(const QString &service, const QString &objectPath,
                                                 const QString &interfaceMethod)
{
    const int dot = interfaceMethod.lastIndexOf(QLatin1Char('.'));
    if (dot < 0) {
        qWarning() << "Invalid interface.method name:" << interfaceMethod;
        return QDBusMessage();
    }
    const QString method = interfaceMethod.mid(dot + 1);
    if (method.isEmpty()) {
        qWarning() << "Missing method name from" << interfaceMethod;
        return QDBusMessage();
    }
    return QDBusMessage::createMethodCall(service, objectPath, interfaceMethod.left(dot), method);
}

QDBusPendingCall MaemoDBusInvokerPrivate::send(const QStringList &arguments) const
{
    QDBusMessage call = message;
    call.setArguments({ arguments });
    return callOverBus(connection, call);
}

MaemoDBusInvoker::MaemoDBusInvoker(const QString &service, const QString &objectPath,
                                   const QString &interfaceMethod, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<MaemoDBusInvokerPrivate>())
{
    d->message = MaemoDBusInvokerPrivate::methodCall(service, objectPath, interfaceMethod);
}

MaemoDBusInvoker::~MaemoDBusInvoker() = default;

void MaemoDBusInvoker::invoke(const QStringList &arguments)
{
    if (d->message.type() == QDBusMessage::InvalidMessage) {
        emit replyReceived(false);
        return;
    }
    auto *watcher = new QDBusPendingCallWatcher(d->send(arguments), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        emit replyReceived(!call->isError());
    });
}

} // namespace Core
