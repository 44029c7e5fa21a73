#pragma once

#include <QMetaType>
#include <QString>
#include <QVector>

class QDBusArgument;

namespace Core {

/// One use of a multimedia resource, `(ssi)` on the bus.
struct ResourceUsage
{
    QString resource;
    QString appId; ///< may be empty: then only the process is known
    qint32 pid = 0;
};

QDBusArgument &operator<<(QDBusArgument &argument, const ResourceUsage &usage);
const QDBusArgument &operator>>(const QDBusArgument &argument, ResourceUsage &usage);

} // namespace Core

Q_DECLARE_METATYPE(Core::ResourceUsage)
