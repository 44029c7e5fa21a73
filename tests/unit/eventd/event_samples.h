#pragma once

#include "timed/event.h"

#include <QStringList>

/// Events as clients make them.
namespace EventSamples {

inline const QString service = QStringLiteral("org.example.Listener");

inline void addAction(Maemo::Timed::Event *event)
{
    Maemo::Timed::Event::Action &action = event->addAction();
    action.dbusMethodCall(service, QStringLiteral("Due"), QStringLiteral("/org/example/Listener"),
                          QStringLiteral("org.example.Listener1"));
    action.setSendEventAttributesFlag();
    action.whenTriggered();
}

inline Maemo::Timed::WireEvent wire(const Maemo::Timed::Event &event)
{
    return event.dbus_output().value<Maemo::Timed::WireEvent>();
}

/// Every day on the hour.
inline Maemo::Timed::WireRecurrence daily(const QList<int> &hours, const QList<int> &minutes = { 0 })
{
    Maemo::Timed::WireRecurrence recurrence;
    for (int month = 0; month < 12; ++month) {
        recurrence.months << month;
    }
    for (int day = 1; day <= 31; ++day) {
        recurrence.daysOfMonth << day;
    }
    for (int day = 0; day < 7; ++day) {
        recurrence.daysOfWeek << day;
    }
    recurrence.hours = hours;
    recurrence.minutes = minutes;
    return recurrence;
}

inline Maemo::Timed::WireEvent recurrent(const QList<Maemo::Timed::WireRecurrence> &recurrences)
{
    Maemo::Timed::Event event;
    event.setAttribute(QStringLiteral("eventId"), QStringLiteral("org.example.Notes.task_sync"));
    event.setUserModeFlag();
    addAction(&event);
    Maemo::Timed::WireEvent result = wire(event);
    result.recurrences = recurrences;
    return result;
}

inline Maemo::Timed::WireEvent single(const QString &time)
{
    Maemo::Timed::WireEvent result = recurrent({});
    result.time = time;
    return result;
}

} // namespace EventSamples
