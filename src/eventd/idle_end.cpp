#include "idle_end.h"

namespace Eventd {

IdleEnd::IdleEnd(const QDBusConnection &bus, const QString &name, const std::function<bool()> &isBusy,
                 int idleTimeoutMs, int lingerTimeoutMs)
    : m_bus(bus)
    , m_name(name)
    , m_isBusy(isBusy)
    , m_idleMs(idleTimeoutMs)
    , m_lingerMs(lingerTimeoutMs)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &IdleEnd::onTimeout);
    restart();
}

void IdleEnd::restart()
{
    m_timer.start(m_nameIsGone ? m_lingerMs : m_idleMs);
}

void IdleEnd::onTimeout()
{
    if (m_isBusy()) {
        restart();
    } else if (m_nameIsGone) {
        emit over();
    } else {
        m_nameIsGone = true;
        m_bus.unregisterService(m_name);
        restart();
    }
}

} // namespace Eventd
