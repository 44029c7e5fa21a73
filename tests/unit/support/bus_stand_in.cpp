#include "support/bus_stand_in.h"

#include "support/private_bus.h"

namespace TestSupport {

BusStandIn::BusStandIn(PrivateBus &bus, const QString &service, const QString &path)
    : m_bus(bus)
    , m_connection(bus.connect())
    , m_path(path)
{
    if (!m_connection.registerVirtualObject(path, this)) {
        qFatal("%s: cannot register", qUtf8Printable(path));
    }
    if (!service.isEmpty()) {
        own(service);
    }
}

BusStandIn::~BusStandIn()
{
    leave();
}

void BusStandIn::answerWith(const QVariantList &arguments)
{
    setHandler([arguments](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createReply(arguments));
    });
}

void BusStandIn::own(const QString &service)
{
    if (!m_connection.registerService(service)) {
        qFatal("%s: cannot own", qUtf8Printable(service));
    }
    m_services << service;
}

void BusStandIn::leave()
{
    if (m_left) {
        return;
    }
    m_left = true;
    for (const QString &service : qAsConst(m_services)) {
        m_connection.unregisterService(service); // waits, so that another stand-in can take the name
    }
    m_connection.unregisterObject(m_path);
    m_bus.disconnect(m_connection);
    m_connection = QDBusConnection(QString()); // the last copy
    m_calls.clear();
}

QString BusStandIn::introspect(const QString &) const
{
    return QString();
}

bool BusStandIn::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    if (message.interface().startsWith(QLatin1String("org.freedesktop.DBus."))) {
        return false;
    }
    m_calls << message;
    if (m_handler) {
        m_handler(message, connection);
    }
    return true;
}

} // namespace TestSupport
