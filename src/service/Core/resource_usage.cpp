#include "Core/resource_usage.h"

#include <QDBusArgument>

namespace Core {

QDBusArgument &operator<<(QDBusArgument &argument, const ResourceUsage &usage)
{
    argument.beginStructure();
    argument << usage.resource << usage.appId << usage.pid;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, ResourceUsage &usage)
{
    argument.beginStructure();
    argument >> usage.resource >> usage.appId >> usage.pid;
    argument.endStructure();
    return argument;
}

} // namespace Core
