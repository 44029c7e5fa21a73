#pragma once

#include <QDateTime>
#include <QList>
#include <QString>

namespace Core {

/// When a timed event is due, in local time.
///
/// With @ref start and @ref end equal and valid it is a single event, and the lists say nothing. Otherwise it
/// comes back at every minute that all lists allow, not before a valid start and not after a valid end; an
/// empty list of months, week days or hours allows any, an empty list of minutes the full hour only.
struct TimedEventSpec
{
    QString eventId; ///< what the trigger bears: the full id of the task
    QDateTime start;
    QDateTime end;
    QList<int> months; ///< 0 to 11
    QList<int> weekDays; ///< 0 to 6
    QList<int> hours; ///< 0 to 23
    QList<int> minutes; ///< 0 to 59
};

} // namespace Core
