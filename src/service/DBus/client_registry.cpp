#include "DBus/client_registry.h"

#include "Core/dbus_name_watcher.h"

#include <QHash>

namespace DBus {

class ClientRegistryPrivate
{
public:
    Core::DBusNameWatcher *watcher;
    QHash<QString, QString> busNames; // application id -> unique name
};

ClientRegistry *ClientRegistry::instance()
{
    static auto *registry = new ClientRegistry(Core::DBusNameWatcher::instance());
    return registry;
}

ClientRegistry::ClientRegistry(Core::DBusNameWatcher *watcher)
    : d(new ClientRegistryPrivate { watcher, {} })
{
}

ClientRegistry::~ClientRegistry() = default;

void ClientRegistry::addClient(const QString &appId, const QString &busName)
{
    d->busNames.insert(appId, busName);
    // Without a guard the callback runs now or never, see addClient() in the header.
    d->watcher->onNameDisappeared(busName, nullptr, [this, appId] { d->busNames.remove(appId); });
}

QString ClientRegistry::busName(const QString &appId) const
{
    return d->busNames.value(appId);
}

} // namespace DBus
