#pragma once

#include "timed/wire.h"

#include <QDateTime>
#include <QStringList>

namespace Eventd {

/// When events are due: what their times mean, and how systemd.time(7) writes them.
///
/// Times of day are those that the clocks show where the device is, whenever that is asked. None of these
/// functions logs. Values are expected to be those that whatIsWrongWith() accepts.
namespace Calendar {

/// The years that systemd's calendar reaches.
constexpr int firstYear = 1970;
constexpr int lastYear = 2199;

/// Whether @p text is a time of a single event as it goes on the wire; if so, gives it to @p time, without a
/// time zone of its own. It may be one that the clocks leave out in spring.
[[nodiscard]] bool parseTime(const QString &text, QDateTime *time);

/// Whether @p text is empty or an ISO 8601 time; @p time is invalid if it is empty.
[[nodiscard]] bool parseLimit(const QString &text, QDateTime *time);

/// When a single event is due. A time that the clocks leave out comes as much later as they are put forward.
QDateTime instant(const QDateTime &time);

/// Values of `OnCalendar=` of an event, each the text of one line.
QStringList expressions(const Maemo::Timed::WireEvent &event);

/// Whether a recurrence is met at some second from @p from to @p to, these two among them, without regard to
/// its own limits. Where the clocks go back, the hour that they show twice counts as one.
bool isMetWithin(const Maemo::Timed::WireRecurrence &recurrence, const QDateTime &from, const QDateTime &to);

/// Whether a recurrent event has been due by @p now, given the start and end of its recurrences: a timer that
/// makes up for what it missed knows neither.
bool hasBeenDue(const Maemo::Timed::WireEvent &event, const QDateTime &now);

/// Whether a recurrent event will be due after @p now.
bool willBeDue(const Maemo::Timed::WireEvent &event, const QDateTime &now);

} // namespace Calendar

} // namespace Eventd
