#pragma once

#include <QDBusArgument>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>

// The form in which an event goes to the daemon, as data/interfaces/org.kestrix.Procwarden.Events1.xml
// describes it. Members go in this order.

namespace Maemo {
namespace Timed {

struct WireRecurrence
{
    // Sorted, each value once. What is to be at any value holds all of them: an empty list, but for that of
    // the seconds, never fits.
    QList<int> months; ///< 0 (January) to 11
    QList<int> daysOfMonth; ///< 1 to 31
    QList<int> daysOfWeek; ///< 0 (Sunday) to 6
    QList<int> hours; ///< 0 to 23
    QList<int> minutes; ///< 0 to 59
    QList<int> seconds; ///< 0 to 59; empty: 0
    QString start; ///< ISO 8601; empty: no limit
    QString end; ///< the same
};

struct WireAction
{
    QString service;
    QString method;
    QString path;
    QString interface;
    bool sendAttributes = false; ///< the event's attributes are the call's argument, as `a{sv}`
    bool whenTriggered = false; ///< the call is made when the event is due
};

struct WireEvent
{
    QMap<QString, QString> attributes;
    bool userMode = false;
    QString
        time; ///< local time of a single event, "yyyy-MM-ddThh:mm" or "yyyy-MM-ddThh:mm:ss"; empty: recurrent
    QList<WireRecurrence> recurrences;
    QList<WireAction> actions;
};

QDBusArgument &operator<<(QDBusArgument &argument, const WireRecurrence &recurrence);
const QDBusArgument &operator>>(const QDBusArgument &argument, WireRecurrence &recurrence);
QDBusArgument &operator<<(QDBusArgument &argument, const WireAction &action);
const QDBusArgument &operator>>(const QDBusArgument &argument, WireAction &action);
QDBusArgument &operator<<(QDBusArgument &argument, const WireEvent &event);
const QDBusArgument &operator>>(const QDBusArgument &argument, WireEvent &event);

/// Makes them known to QtDBus. Harmless when called again.
void registerWireTypes();

/// Where the daemon is found on the session bus.
extern const char wireService[];
extern const char wirePath[];
extern const char wireInterface[];

} // namespace Timed
} // namespace Maemo

Q_DECLARE_METATYPE(Maemo::Timed::WireRecurrence)
Q_DECLARE_METATYPE(Maemo::Timed::WireAction)
Q_DECLARE_METATYPE(Maemo::Timed::WireEvent)
