#pragma once

#include "timed/wire.h"

#include <QDateTime>
#include <QString>
#include <QVariant>

#include <deque>

namespace Maemo {
namespace Timed {

/// Something that the timed daemon does at its time: once, by setTime(), or again and again, by recurrences.
///
/// A value that is filled in and then sent. Nothing is checked here: the daemon refuses what it cannot make
/// sense of. Stands in for the platform's class of the same name with the operations that are used here.
class Event
{
public:
    /// The minutes at which it is due: those whose month, day of the month, day of the week, hour and minute
    /// have all been added. One kind of which nothing has been added is never met.
    class Recurrence
    {
    public:
        void everyDayOfMonth();
        void everyMonth();
        void everyDayOfWeek();
        void addMonth(int month); ///< 0 (January) to 11
        void addDayOfWeek(int day); ///< 0 (Sunday) to 6
        void addHour(int hour); ///< 0 to 23
        void addMinute(int minute); ///< 0 to 59
        void setStartTime(const QDateTime &time); ///< not due before
        void setEndTime(const QDateTime &time); ///< not due after

    private:
        friend class Event;
        WireRecurrence m_wire;
    };

    /// What is done.
    class Action
    {
    public:
        /// Calls a method on the session bus; starts the service if need be.
        void dbusMethodCall(const QString &service, const QString &method, const QString &path,
                            const QString &interface);
        /// The call has the event's attributes as its argument, a map of text to variants that hold text.
        void setSendEventAttributesFlag();
        /// It is done when the event is due.
        void whenTriggered();

    private:
        friend class Event;
        WireAction m_wire;
    };

    Event();

    void setAttribute(const QString &key, const QString &value);

    /// The event belongs to the device's ordinary mode of operation.
    void setUserModeFlag();

    /// Makes it a single event at a local time; @p month is 1 to 12.
    void setTime(int year, int month, int day, int hour, int minute);

    /// The references stay good as long as the event does.
    Recurrence &addRecurrence();
    Action &addAction();

    /// The argument of the daemon's "add_event".
    QVariant dbus_output() const;

private:
    WireEvent m_wire;
    std::deque<Recurrence> m_recurrences;
    std::deque<Action> m_actions;
};

} // namespace Timed
} // namespace Maemo
