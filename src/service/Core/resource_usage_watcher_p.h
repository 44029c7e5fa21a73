#pragma once

#include "Core/resource_usage.h"

#include <QObject>
#include <QSet>
#include <QVector>

namespace Core {

class ResourceUsageWatcherPrivate : public QObject
{
    Q_OBJECT

public:
    ResourceUsageWatcherPrivate();

    QSet<QString> users; // ids of the applications that use a resource now

public slots:
    /// Each notification is a complete picture, not a change.
    void onMultimediaUsageNotification(const QVector<Core::ResourceUsage> &facts);
};

} // namespace Core
