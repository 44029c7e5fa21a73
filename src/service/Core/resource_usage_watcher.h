#pragma once

#include <QString>

#include <memory>

namespace Core {

class ResourceUsageWatcherPrivate;

/// Knows which applications use a multimedia resource at this moment, so that one that plays is not frozen.
///
/// The resource policy daemon publishes the full list on the system bus whenever it changes. Without the
/// daemon the list stays empty. Main thread only.
class ResourceUsageWatcher
{
public:
    /// The one of the process, made on first use and never destroyed.
    static ResourceUsageWatcher *instance();

    ResourceUsageWatcher();
    ~ResourceUsageWatcher();

    ResourceUsageWatcher(const ResourceUsageWatcher &) = delete;
    ResourceUsageWatcher &operator=(const ResourceUsageWatcher &) = delete;

    /// Goes by the text with which the daemon, or for a mere process the tracker, names the application.
    bool isUsingResource(const QString &appId) const;

private:
    const std::unique_ptr<ResourceUsageWatcherPrivate> d;
};

} // namespace Core
