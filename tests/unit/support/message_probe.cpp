#include "support/message_probe.h"

#include "support/private_bus.h"

#include <QDBusPendingCallWatcher>
#include <QEventLoop>

namespace TestSupport {

MessageProbe::MessageProbe(PrivateBus &bus)
    : m_sender(bus.connect())
    , m_connection(bus.connect())
{
    if (!m_connection.registerVirtualObject(QStringLiteral("/"), &m_receiver)) {
        qFatal("cannot register the receiving object");
    }
}

MessageProbe::Result MessageProbe::pass(const QVariantList &arguments)
{
    m_receiver.messages.clear();
    QDBusMessage call =
        QDBusMessage::createMethodCall(m_connection.baseService(), QStringLiteral("/"),
                                       QStringLiteral("org.example.Probe"), QStringLiteral("Pass"));
    call.setArguments(arguments);

    const QDBusPendingCallWatcher watcher(m_sender.asyncCall(call));
    if (!watcher.isFinished()) {
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        loop.exec();
    }

    Result result;
    result.arrived = !m_receiver.messages.isEmpty();
    result.message = m_receiver.messages.value(0);
    result.error = watcher.error();
    return result;
}

QString MessageProbe::Receiver::introspect(const QString &) const
{
    return QString();
}

bool MessageProbe::Receiver::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    messages.append(message);
    connection.send(message.createReply());
    return true;
}

} // namespace TestSupport
