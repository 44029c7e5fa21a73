#include "Core/resource_usage_watcher.h"
#include "Core/resource_usage_watcher_p.h"

#include "Core/runtime_tracker.h"

#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDebug>

namespace Core {

ResourceUsageWatcherPrivate::ResourceUsageWatcherPrivate()
{
    qRegisterMetaType<ResourceUsage>("ResourceUsage");
    qRegisterMetaType<QVector<ResourceUsage>>("QVector<ResourceUsage>");
    qDBusRegisterMetaType<ResourceUsage>();
    qDBusRegisterMetaType<QVector<ResourceUsage>>();

    // With the signature, since what does not have it would be read as if it had, past its end.
    const bool connected = QDBusConnection::systemBus().connect(
        QStringLiteral("org.freedesktop.ohm"), QStringLiteral("/org/solvaneos/PrivacyViolation"),
        QStringLiteral("org.solvaneos.PrivacyViolation"), QStringLiteral("Notify"), QStringLiteral("a(ssi)"),
        this, SLOT(onMultimediaUsageNotification(QVector<Core::ResourceUsage>)));
    if (!connected) {
        qWarning() << "Failed to connect to Privacy Violation signal!";
    }
}

void ResourceUsageWatcherPrivate::onMultimediaUsageNotification(const QVector<ResourceUsage> &facts)
{
    users.clear();
    for (const ResourceUsage &fact : facts) {
        QString appId = fact.appId;
        if (appId.isEmpty()) {
            const auto [error, id] = RuntimeTracker::instance()->applicationForPid(fact.pid);
            if (error) {
                qWarning() << "Could not find appId for given pid: " << fact.pid;
            }
            appId = id;
        }
        users.insert(appId);
    }
}

ResourceUsageWatcher *ResourceUsageWatcher::instance()
{
    static auto *watcher = new ResourceUsageWatcher;
    return watcher;
}

ResourceUsageWatcher::ResourceUsageWatcher()
    : d(std::make_unique<ResourceUsageWatcherPrivate>())
{
}

ResourceUsageWatcher::~ResourceUsageWatcher() = default;

bool ResourceUsageWatcher::isUsingResource(const QString &appId) const
{
    return d->users.contains(appId);
}

} // namespace Core
