#pragma once

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

class QDBusArgument;

namespace Core {

/// Number of a notification, given out by the notification server. Never 0 for one that it shows.
using Id = quint32;

/// A notification as the server lists it, `(susssasa{sv}i)` on the bus.
struct NotificationData
{
    QString appName;
    Id id = 0;
    QString appIcon;
    QString summary;
    QString body;
    QStringList actions; ///< key and text in turn
    QVariantMap hints;
    qint32 expireTimeout = 0; ///< ms; -1: the server decides, 0: never
};

QDBusArgument &operator<<(QDBusArgument &argument, const NotificationData &data);
const QDBusArgument &operator>>(const QDBusArgument &argument, NotificationData &data);

/// Registers Id, the record and the vector of it with Qt's type systems. To be called before the first of
/// them is sent or received, or an object is exported that has them in its slots; a repeated call does
/// nothing.
void registerNotificationTypes();

} // namespace Core

Q_DECLARE_METATYPE(Core::NotificationData)
