#include "Core/notification_data.h"

#include <QDBusArgument>
#include <QDBusMetaType>

namespace Core {

QDBusArgument &operator<<(QDBusArgument &argument, const NotificationData &data)
{
    argument.beginStructure();
    argument << data.appName << data.id << data.appIcon << data.summary << data.body << data.actions
             << data.hints << data.expireTimeout;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, NotificationData &data)
{
    argument.beginStructure();
    argument >> data.appName >> data.id >> data.appIcon >> data.summary >> data.body >> data.actions
        >> data.hints >> data.expireTimeout;
    argument.endStructure();
    return argument;
}

void registerNotificationTypes()
{
    qRegisterMetaType<Id>("Id");
    qRegisterMetaType<Id>("Core::Id"); // as signals name it
    qRegisterMetaType<NotificationData>("NotificationData");
    qRegisterMetaType<QVector<NotificationData>>("QVector<NotificationData>");
    qDBusRegisterMetaType<NotificationData>();
    qDBusRegisterMetaType<QVector<NotificationData>>();
}

} // namespace Core
