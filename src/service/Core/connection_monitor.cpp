#include "Core/connection_monitor.h"

#include "Core/network_source.h"

#include <QMetaObject>

namespace Core {

MonitorSingleton *MonitorSingleton::instance()
{
    static auto *singleton = new MonitorSingleton(NetworkSource::system());
    return singleton;
}

MonitorSingleton::MonitorSingleton(std::unique_ptr<NetworkSource> source)
    : m_source(std::move(source))
{
    connect(m_source.get(), &NetworkSource::changed, this, &MonitorSingleton::scheduleUpdate);
    scheduleUpdate();
}

MonitorSingleton::~MonitorSingleton() = default;

void MonitorSingleton::scheduleUpdate()
{
    if (!m_updatePending) {
        QMetaObject::invokeMethod(this, &MonitorSingleton::update, Qt::QueuedConnection);
        m_updatePending = true;
    }
}

void MonitorSingleton::update()
{
    m_updatePending = false;
    const bool online = m_source->isOnline();
    const int type = online ? NetworkSource::connectionType(m_source->bearerType()) : 0;
    if (online == m_online && type == m_connectionType) {
        return;
    }
    m_online = online;
    m_connectionType = type;
    emit stateChanged();
}

ConnectionMonitor::ConnectionMonitor(QObject *parent)
    : ConnectionMonitor(MonitorSingleton::instance(), parent)
{
}

ConnectionMonitor::ConnectionMonitor(MonitorSingleton *network, QObject *parent)
    : QObject(parent)
    , m_network(network)
{
    connect(m_network, &MonitorSingleton::stateChanged, this, &ConnectionMonitor::stateChanged);
}

bool ConnectionMonitor::isOnline() const
{
    return m_network->isOnline();
}

int ConnectionMonitor::connectionType() const
{
    return m_network->connectionType();
}

} // namespace Core
