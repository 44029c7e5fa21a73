#include "Core/keepalive.h"

#include <QDebug>

#include <backgroundactivity.h>

namespace Core {

KeepaliveSingleton *KeepaliveSingleton::instance()
{
    static auto *singleton = new KeepaliveSingleton;
    return singleton;
}

KeepaliveSingleton::KeepaliveSingleton()
    : m_activity(std::make_unique<BackgroundActivity>(nullptr))
{
}

KeepaliveSingleton::~KeepaliveSingleton() = default;

void KeepaliveSingleton::addKeepalive()
{
    if (m_count == 0) {
        m_activity->run();
    }
    ++m_count;
}

void KeepaliveSingleton::removeKeepalive()
{
    if (m_count < 1) {
        qWarning() << "Mismatch removing keepalive";
        return;
    }
    --m_count;
    if (m_count == 0) {
        m_activity->stop();
    }
}

KeepaliveSwitch::~KeepaliveSwitch()
{
    off();
}

void KeepaliveSwitch::on()
{
    if (!held) {
        KeepaliveSingleton::instance()->addKeepalive();
        held = true;
    }
}

void KeepaliveSwitch::off()
{
    if (held) {
        KeepaliveSingleton::instance()->removeKeepalive();
        held = false;
    }
}

} // namespace Core
