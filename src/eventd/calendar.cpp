#include "calendar.h"

#include <QRegularExpression>

#include <algorithm>

namespace Eventd {

namespace Calendar {

namespace {

using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

constexpr int maximumTimeLength = 64; // of any that makes sense; a fraction could have any number of digits

const char *const dayNames[] = { "Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat" };

/// What a field holds, or `*` if that is everything.
QString field(const QList<int> &values, int possible, int offset = 0)
{
    if (values.size() == possible) {
        return QStringLiteral("*");
    }
    QStringList texts;
    for (const int value : values) {
        texts << QStringLiteral("%1").arg(value + offset, 2, 10, QLatin1Char('0'));
    }
    return texts.join(QLatin1Char(','));
}

QString days(const QList<int> &values)
{
    if (values.size() == 7) {
        return QString();
    }
    QStringList names;
    for (const int value : values) {
        names << QString::fromLatin1(dayNames[value]);
    }
    return names.join(QLatin1Char(',')) + QLatin1Char(' ');
}

QDateTime limit(const QString &text)
{
    QDateTime time;
    return parseLimit(text, &time) ? time : QDateTime();
}

/// Spares a device that sleeps the wake-ups of other years; the exact limits are kept when the event is
/// fired.
QString years(const WireRecurrence &recurrence)
{
    const QDateTime start = limit(recurrence.start);
    const QDateTime end = limit(recurrence.end);
    const auto bounded = [](const QDateTime &time) {
        return qBound(firstYear, time.toLocalTime().date().year(), lastYear);
    };
    if (end.isValid()) {
        const int first = start.isValid() ? bounded(start) : firstYear;
        const int last = qMax(first, bounded(end));
        return first == last ? QString::number(first) : QStringLiteral("%1..%2").arg(first).arg(last);
    }
    return start.isValid() ? QStringLiteral("%1..%2").arg(bounded(start)).arg(lastYear) : QStringLiteral("*");
}

QList<int> secondsOf(const WireRecurrence &recurrence)
{
    return recurrence.seconds.isEmpty() ? QList<int> { 0 } : recurrence.seconds;
}

QString expression(const WireRecurrence &recurrence)
{
    return QStringLiteral("%1%2-%3-%4 %5:%6:%7")
        .arg(days(recurrence.daysOfWeek), years(recurrence), field(recurrence.months, 12, 1),
             field(recurrence.daysOfMonth, 31), field(recurrence.hours, 24), field(recurrence.minutes, 60),
             field(secondsOf(recurrence), 60));
}

bool isDay(const WireRecurrence &recurrence, const QDate &date)
{
    return recurrence.months.contains(date.month() - 1) && recurrence.daysOfMonth.contains(date.day())
        && recurrence.daysOfWeek.contains(date.dayOfWeek() % 7);
}

/// Whether some time of day lies within the two, these among them.
bool hasTimeWithin(const WireRecurrence &recurrence, const QTime &from, const QTime &to)
{
    const QList<int> seconds = secondsOf(recurrence);
    for (const int hour : recurrence.hours) {
        for (const int minute : recurrence.minutes) {
            for (const int second : seconds) {
                const QTime time(hour, minute, second);
                if (from <= time && time <= to) {
                    return true;
                }
            }
        }
    }
    return false;
}

} // namespace

bool parseTime(const QString &text, QDateTime *time)
{
    static const QRegularExpression form(QRegularExpression::anchoredPattern(
        QStringLiteral("(\\d{4}-\\d\\d-\\d\\d)T((?:[01]\\d|2[0-3]):\\d\\d)(:\\d\\d)?")));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch()) {
        return false;
    }
    const QDate date = QDate::fromString(match.captured(1), Qt::ISODate);
    const QTime clock = QTime::fromString(match.captured(2) + match.captured(3), Qt::ISODate);
    if (!date.isValid() || !clock.isValid() || date.year() < firstYear || date.year() > lastYear) {
        return false;
    }
    *time = QDateTime(date, clock, Qt::UTC); // a zone without gaps, only to carry the two
    return true;
}

bool parseLimit(const QString &text, QDateTime *time)
{
    const bool isSet = !text.isEmpty() && text.size() <= maximumTimeLength;
    *time = isSet ? QDateTime::fromString(text, Qt::ISODate) : QDateTime();
    return text.isEmpty() || time->isValid();
}

QDateTime instant(const QDateTime &time)
{
    const qint64 seconds = QDateTime(time.date(), time.time(), Qt::LocalTime).toSecsSinceEpoch();
    QDateTime shown = QDateTime::fromSecsSinceEpoch(seconds);
    shown.setTimeSpec(Qt::UTC); // what the clocks show then: earlier if they leave out what is wanted
    return QDateTime::fromSecsSinceEpoch(seconds + shown.secsTo(time));
}

QStringList expressions(const WireEvent &event)
{
    QDateTime time;
    if (parseTime(event.time, &time)) {
        return { instant(time).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) };
    }
    QStringList lines;
    for (const WireRecurrence &recurrence : event.recurrences) {
        lines << expression(recurrence);
    }
    return lines;
}

bool isMetWithin(const WireRecurrence &recurrence, const QDateTime &from, const QDateTime &to)
{
    QDateTime first = from.toLocalTime();
    QDateTime last = to.toLocalTime();
    const QDate begin(firstYear, 1, 1);
    const QDate end(lastYear, 12, 31);
    if (first.date() < begin) {
        first = begin.startOfDay();
    }
    if (last.date() > end) {
        last = end.endOfDay();
    }
    const QTime midnight(0, 0);
    const QTime endOfDay(23, 59, 59, 999);
    for (QDate date = first.date(); date <= last.date(); date = date.addDays(1)) {
        if (isDay(recurrence, date)
            && hasTimeWithin(recurrence, date == first.date() ? first.time() : midnight,
                             date == last.date() ? last.time() : endOfDay)) {
            return true;
        }
    }
    return false;
}

bool hasBeenDue(const WireEvent &event, const QDateTime &now)
{
    return std::any_of(event.recurrences.cbegin(), event.recurrences.cend(), [&](const WireRecurrence &one) {
        const QDateTime start = limit(one.start);
        const QDateTime end = limit(one.end);
        return !start.isValid() || isMetWithin(one, start, end.isValid() ? qMin(now, end) : now);
    });
}

bool willBeDue(const WireEvent &event, const QDateTime &now)
{
    return std::any_of(event.recurrences.cbegin(), event.recurrences.cend(), [&](const WireRecurrence &one) {
        const QDateTime start = limit(one.start);
        const QDateTime end = limit(one.end);
        const QDateTime next = now.addSecs(1);
        return isMetWithin(one, start.isValid() ? qMax(next, start) : next,
                           end.isValid() ? end : QDateTime(QDate(lastYear, 12, 31), QTime(23, 59, 59)));
    });
}

} // namespace Calendar

} // namespace Eventd
