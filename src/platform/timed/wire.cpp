#include "timed/wire.h"

#include <QDBusMetaType>

namespace Maemo {
namespace Timed {

const char wireService[] = "org.kestrix.Procwarden.Events";
const char wirePath[] = "/org/kestrix/Procwarden/Events1";
const char wireInterface[] = "org.kestrix.Procwarden.Events1";

QDBusArgument &operator<<(QDBusArgument &argument, const WireRecurrence &recurrence)
{
    argument.beginStructure();
    argument << recurrence.months << recurrence.daysOfMonth << recurrence.daysOfWeek << recurrence.hours
             << recurrence.minutes << recurrence.seconds << recurrence.start << recurrence.end;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, WireRecurrence &recurrence)
{
    argument.beginStructure();
    argument >> recurrence.months >> recurrence.daysOfMonth >> recurrence.daysOfWeek >> recurrence.hours
        >> recurrence.minutes >> recurrence.seconds >> recurrence.start >> recurrence.end;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const WireAction &action)
{
    argument.beginStructure();
    argument << action.service << action.method << action.path << action.interface << action.sendAttributes
             << action.whenTriggered;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, WireAction &action)
{
    argument.beginStructure();
    argument >> action.service >> action.method >> action.path >> action.interface >> action.sendAttributes
        >> action.whenTriggered;
    argument.endStructure();
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const WireEvent &event)
{
    argument.beginStructure();
    argument << event.attributes << event.userMode << event.time << event.recurrences << event.actions;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, WireEvent &event)
{
    argument.beginStructure();
    argument >> event.attributes >> event.userMode >> event.time >> event.recurrences >> event.actions;
    argument.endStructure();
    return argument;
}

void registerWireTypes()
{
    qDBusRegisterMetaType<QMap<QString, QString>>();
    qDBusRegisterMetaType<WireRecurrence>();
    qDBusRegisterMetaType<QList<WireRecurrence>>();
    qDBusRegisterMetaType<WireAction>();
    qDBusRegisterMetaType<QList<WireAction>>();
    qDBusRegisterMetaType<WireEvent>();
}

} // namespace Timed
} // namespace Maemo
