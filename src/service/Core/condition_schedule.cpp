#include "Core/condition_schedule.h"

#include "Core/timed_event_spec.h"
#include "Core/timed_proxy.h"

#include <QDebug>
#include <QPointer>
#include <QSequentialIterable>

namespace Core {

namespace {

const QString cookieKey = QStringLiteral("cookieId");

constexpr CookieId noCookie = 4294967295; // the daemon refuses to cancel it

QDateTime dateTime(const QVariant &text)
{
    return QDateTime::fromString(text.toString(), Qt::ISODate);
}

} // namespace

class ConditionSchedulePrivate
{
public:
    ConditionSchedulePrivate(const QString &id, TimedProxy *timed)
        : eventId(id)
        , proxy(timed ? timed : TimedProxy::instance())
    {
        spec.eventId = id;
    }

    const QString eventId; ///< what the trigger bears
    TimedEventSpec spec;
    TimedProxy *const proxy;
    const std::shared_ptr<bool> removed = std::make_shared<bool>(false); ///< the task is gone for good
};

ConditionSchedule::ConditionSchedule(const QString &eventId, const QVariantMap &schedule, QObject *parent,
                                     TimedProxy *proxy)
    : Condition(QStringLiteral("Schedule"), parent)
    , d(new ConditionSchedulePrivate(eventId, proxy))
{
    d->spec.start = dateTime(schedule.value(QStringLiteral("StartDate")));
    d->spec.end = dateTime(schedule.value(QStringLiteral("EndDate")));
    d->spec.months = numbers(schedule.value(QStringLiteral("Months")));
    d->spec.weekDays = numbers(schedule.value(QStringLiteral("WeekDays")));
    d->spec.hours = numbers(schedule.value(QStringLiteral("Hours")));
    d->spec.minutes = numbers(schedule.value(QStringLiteral("Minutes")));
}

ConditionSchedule::ConditionSchedule(const QString &eventId, const QDateTime &dateTime, QObject *parent,
                                     TimedProxy *proxy)
    : Condition(QStringLiteral("Schedule"), parent)
    , d(new ConditionSchedulePrivate(eventId, proxy))
{
    d->spec.start = dateTime;
    d->spec.end = dateTime;
}

ConditionSchedule::~ConditionSchedule() = default;

QList<int> ConditionSchedule::numbers(const QVariant &list)
{
    QList<int> result;
    if (list.canConvert<QVariantList>()) {
        for (const QVariant &number : list.value<QSequentialIterable>()) {
            result.append(number.toInt());
        }
    }
    return result;
}

void ConditionSchedule::conditionDataLoaded()
{
    setupTimed();
}

void ConditionSchedule::setupTimed()
{
    connect(d->proxy, &TimedProxy::eventTriggered, this, [this](const QString &eventId) {
        if (eventId == d->eventId) {
            setSatisfied(true);
        }
    });
    if (!config().contains(cookieKey)) {
        addEvent();
    }
    // What was triggered while nobody listened comes now.
    d->proxy->markReady();
}

void ConditionSchedule::addEvent()
{
    qDebug() << "No timed cookie saved, creating new event" << config();
    // The task may be gone by the time of the answer, and then nobody else knows the event that came of it.
    const QPointer<ConditionSchedule> self(this);
    TimedProxy *const proxy = d->proxy;
    proxy->addEvent(d->spec, [self, proxy, removed = d->removed](CookieId cookie, const Error &error) {
        if (*removed) {
            if (!error) {
                proxy->removeEvent(cookie);
            }
        } else if (self) {
            self->eventAdded(cookie, error);
        }
    });
}

void ConditionSchedule::eventAdded(quint32 cookie, const Error &error)
{
    if (error) {
        qWarning() << "Could not create timed event for" << d->eventId;
        qDebug() << "Timed event refused:" << error;
        return;
    }
    QVariantMap changed = config();
    changed.insert(cookieKey, cookie);
    setConfig(changed);
}

void ConditionSchedule::taskWasTriggered()
{
    setSatisfied(false);
}

void ConditionSchedule::taskRemoved()
{
    *d->removed = true;
    // Without a cookie too: what the daemon makes of it is only logged.
    d->proxy->removeEvent(config().value(cookieKey, noCookie).toUInt());
}

} // namespace Core
