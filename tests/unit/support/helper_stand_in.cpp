#include "support/helper_stand_in.h"

#include <utility>

namespace TestSupport {

namespace {

const QString serviceName = QStringLiteral("org.kestrix.Procwarden.Helper");
const QString objectPath = QStringLiteral("/org/kestrix/Procwarden/Helper");

} // namespace

HelperStandIn::HelperStandIn(const QDBusConnection &bus, Answer answer)
    : m_bus(bus)
    , m_answer(std::move(answer))
{
    if (!m_bus.registerVirtualObject(objectPath, this) || !m_bus.registerService(serviceName)) {
        qFatal("cannot stand in for the helper");
    }
}

HelperStandIn::~HelperStandIn()
{
    m_bus.unregisterService(serviceName);
    m_bus.unregisterObject(objectPath);
}

HelperStandIn::Answer HelperStandIn::path(const QString &path)
{
    return [path](const QDBusMessage &call) {
        return call.createReply(path);
    };
}

QString HelperStandIn::introspect(const QString &) const
{
    return QString();
}

bool HelperStandIn::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    calls.append(message);
    const QDBusMessage reply = m_answer(message);
    if (reply.type() != QDBusMessage::InvalidMessage) {
        connection.send(reply);
    }
    return true;
}

} // namespace TestSupport
