#include "DBus/memory_pressure.h"

#include "Core/client_info.h"
#include "Core/memory_monitor.h"
#include "Core/runtime_controller.h"
#include "DBus/client_registry.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QSet>
#include <QVariantMap>

using Core::ApplicationState;
using Core::MemoryLevel;
using Core::MemoryMonitor;
using Core::RuntimeController;

namespace DBus {

namespace {

void tellLevel(const QString &busName, const QVariantMap &changed)
{
    auto signal = QDBusMessage::createTargetedSignal(
        busName, QStringLiteral("/org/kestrix/Procwarden/MemoryPressure1"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"));
    signal << QStringLiteral("org.kestrix.Procwarden.MemoryPressure1") << changed << QStringList();
    QDBusConnection::sessionBus().send(signal);
}

} // namespace

class MemoryPressurePrivate
{
public:
    void onLevelChanged(MemoryLevel level);

    QSet<QString> subscribers; // ids of clients, removed when they have no bus name
};

void MemoryPressurePrivate::onLevelChanged(MemoryLevel level)
{
    const QVariantMap changed = { { QStringLiteral("Level"), Core::wireMemoryLevel(level) } };
    const QStringList clients = subscribers.values();
    for (const QString &client : clients) {
        const QString busName = ClientRegistry::instance()->busName(client);
        if (busName.isEmpty()) {
            subscribers.remove(client);
            continue;
        }
        // It is frozen and a candidate for killing: thawing it now would only cost memory.
        if (level == MemoryLevel::Critical
            && RuntimeController::instance()->state(client) == ApplicationState::Hidden) {
            continue;
        }
        tellLevel(busName, changed);
        RuntimeController::instance()->letClientRun(client, Core::UnfreezeReason::Notification);
    }
}

MemoryPressure::MemoryPressure(QObject *parent)
    : Context(parent)
    , d(std::make_unique<MemoryPressurePrivate>())
{
    connect(MemoryMonitor::instance(), &MemoryMonitor::levelChanged, this,
            [this](MemoryLevel level) { d->onLevelChanged(level); });
}

MemoryPressure::~MemoryPressure() = default;

int MemoryPressure::level() const
{
    return Core::wireMemoryLevel(MemoryMonitor::instance()->level());
}

void MemoryPressure::Subscribe()
{
    const Core::ClientInfo client = clientInfo();
    d->subscribers.insert(client.appId);
    ClientRegistry::instance()->addClient(client.appId, message().service());
}

} // namespace DBus
