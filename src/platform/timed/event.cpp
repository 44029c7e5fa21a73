#include "timed/event.h"

#include <algorithm>

namespace Maemo {
namespace Timed {

namespace {

void add(QList<int> *values, int value)
{
    const auto place = std::lower_bound(values->begin(), values->end(), value);
    if (place == values->end() || *place != value) {
        values->insert(place, value);
    }
}

void addAll(QList<int> *values, int first, int last)
{
    for (int value = first; value <= last; ++value) {
        add(values, value);
    }
}

QString text(const QDateTime &time)
{
    return time.toUTC().toString(Qt::ISODate);
}

} // namespace

void Event::Recurrence::everyDayOfMonth()
{
    addAll(&m_wire.daysOfMonth, 1, 31);
}

void Event::Recurrence::everyMonth()
{
    addAll(&m_wire.months, 0, 11);
}

void Event::Recurrence::everyDayOfWeek()
{
    addAll(&m_wire.daysOfWeek, 0, 6);
}

void Event::Recurrence::addMonth(int month)
{
    add(&m_wire.months, month);
}

void Event::Recurrence::addDayOfWeek(int day)
{
    add(&m_wire.daysOfWeek, day);
}

void Event::Recurrence::addHour(int hour)
{
    add(&m_wire.hours, hour);
}

void Event::Recurrence::addMinute(int minute)
{
    add(&m_wire.minutes, minute);
}

void Event::Recurrence::setStartTime(const QDateTime &time)
{
    m_wire.start = text(time);
}

void Event::Recurrence::setEndTime(const QDateTime &time)
{
    m_wire.end = text(time);
}

void Event::Action::dbusMethodCall(const QString &service, const QString &method, const QString &path,
                                   const QString &interface)
{
    m_wire.service = service;
    m_wire.method = method;
    m_wire.path = path;
    m_wire.interface = interface;
}

void Event::Action::setSendEventAttributesFlag()
{
    m_wire.sendAttributes = true;
}

void Event::Action::whenTriggered()
{
    m_wire.whenTriggered = true;
}

Event::Event()
{
    registerWireTypes();
}

void Event::setAttribute(const QString &key, const QString &value)
{
    m_wire.attributes.insert(key, value);
}

void Event::setUserModeFlag()
{
    m_wire.userMode = true;
}

void Event::setTime(int year, int month, int day, int hour, int minute)
{
    m_wire.time = QString::asprintf("%04d-%02d-%02dT%02d:%02d", year, month, day, hour, minute);
}

Event::Recurrence &Event::addRecurrence()
{
    return m_recurrences.emplace_back();
}

Event::Action &Event::addAction()
{
    return m_actions.emplace_back();
}

QVariant Event::dbus_output() const
{
    WireEvent wire = m_wire;
    for (const Recurrence &recurrence : m_recurrences) {
        wire.recurrences << recurrence.m_wire;
    }
    for (const Action &action : m_actions) {
        wire.actions << action.m_wire;
    }
    return QVariant::fromValue(wire);
}

} // namespace Timed
} // namespace Maemo
