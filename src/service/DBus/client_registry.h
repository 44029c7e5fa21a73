#pragma once

#include <QString>

#include <memory>

namespace Core {
class DBusNameWatcher;
} // namespace Core

namespace DBus {

class ClientRegistryPrivate;

/// Knows the bus name through which each application is reached with signals of its own.
///
/// Main thread only.
class ClientRegistry
{
public:
    /// The one of the service, made at the first use and never destroyed.
    static ClientRegistry *instance();

    /// @param watcher must outlive the registry.
    explicit ClientRegistry(Core::DBusNameWatcher *watcher);
    ~ClientRegistry();

    ClientRegistry(const ClientRegistry &) = delete;
    ClientRegistry &operator=(const ClientRegistry &) = delete;

    /// From now on @p appId is reached through @p busName, and no longer through what was set before. A name
    /// that is known to have no owner at this moment is not kept, and takes the application's entry with it.
    /// The entry of a name whose owner leaves later stays: the bus drops what is sent to such a name.
    void addClient(const QString &appId, const QString &busName);

    /// Empty if the application has no entry.
    QString busName(const QString &appId) const;

private:
    const std::unique_ptr<ClientRegistryPrivate> d;
};

} // namespace DBus
