#include "Core/timed_proxy.h"

#include "Core/bus_call.h"
#include "Core/message_size.h"
#include "Core/timed_proxy_p.h"
#include "timed/event.h"

#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDebug>

#include <utility>

namespace Core {

namespace {

const QString service = QStringLiteral("org.kestrix.Procwarden");
const QString path = QStringLiteral("/org/kestrix/Procwarden/Timed");
const QString interface = QStringLiteral("org.kestrix.Procwarden.Timed");
const QString eventTriggeredMethod = QStringLiteral("EventTriggered");
const QString addEventMethod = QStringLiteral("add_event");
const QString cancelMethod = QStringLiteral("cancel");

const QString eventIdKey = QStringLiteral("eventId");
const QString applicationKey = QStringLiteral("APPLICATION");
const QString applicationName = QStringLiteral("Procwarden");

constexpr int hoursOfDay = 24;

using Maemo::Timed::Event;

void setTime(Event *event, const QDateTime &start)
{
    const QDate date = start.date();
    const QTime time = start.time();
    event->setTime(date.year(), date.month(), date.day(), time.hour(), time.minute());
}

void setRecurrence(Event *event, const TimedEventSpec &spec)
{
    Event::Recurrence &recurrence = event->addRecurrence();
    recurrence.everyDayOfMonth();
    if (spec.start.isValid()) {
        recurrence.setStartTime(spec.start);
    }
    if (spec.end.isValid()) {
        recurrence.setEndTime(spec.end);
    }
    if (spec.months.isEmpty()) {
        recurrence.everyMonth();
    }
    for (const int month : spec.months) {
        recurrence.addMonth(month);
    }
    if (spec.weekDays.isEmpty()) {
        recurrence.everyDayOfWeek();
    }
    for (const int day : spec.weekDays) {
        recurrence.addDayOfWeek(day);
    }
    if (spec.hours.isEmpty()) {
        for (int hour = 0; hour < hoursOfDay; ++hour) {
            recurrence.addHour(hour);
        }
    }
    for (const int hour : spec.hours) {
        recurrence.addHour(hour);
    }
    if (spec.minutes.isEmpty()) {
        recurrence.addMinute(0);
    }
    for (const int minute : spec.minutes) {
        recurrence.addMinute(minute);
    }
}

QVariant eventFrom(const TimedEventSpec &spec)
{
    Event event;
    event.setAttribute(eventIdKey, spec.eventId);
    event.setAttribute(applicationKey, applicationName);
    event.setUserModeFlag();
    if (spec.start.isValid() && spec.start == spec.end) {
        setTime(&event, spec.start);
    } else {
        setRecurrence(&event, spec);
    }
    Event::Action &action = event.addAction();
    action.dbusMethodCall(service, eventTriggeredMethod, path, interface);
    action.setSendEventAttributesFlag();
    action.whenTriggered();
    return event.dbus_output();
}

Error errorFrom(const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::AccessDenied:
        return Error(Error::AccessDenied, error.message());
    case QDBusError::InvalidArgs:
        return Error(Error::InvalidArgs, error.message());
    default:
        return Error(Error::Failed, error.message());
    }
}

} // namespace

TimedProxyPrivate::TimedProxyPrivate(TimedProxy *owner, const QDBusConnection &bus)
    : q(owner)
    , m_bus(bus)
{
    if (!m_bus.registerObject(path, this, QDBusConnection::ExportAllSlots)) {
        qWarning() << "couldn't register Timed object";
    }
}

TimedProxyPrivate::~TimedProxyPrivate()
{
    if (m_bus.objectRegisteredAt(path) == this) {
        m_bus.unregisterObject(path);
    }
}

void TimedProxyPrivate::EventTriggered(const QVariantMap &attributes)
{
    const QString eventId = attributes.value(eventIdKey).toString();
    if (eventId.isEmpty()) {
        qWarning() << "Received empty eventId from timed";
        return;
    }
    if (ready) {
        emit q->eventTriggered(eventId);
    } else {
        pending << eventId;
    }
}

TimedProxy *TimedProxy::instance()
{
    static auto *proxy = new TimedProxy(QDBusConnection::sessionBus());
    return proxy;
}

TimedProxy::TimedProxy(const QDBusConnection &bus, QObject *parent, int replyTimeoutMs)
    : QObject(parent)
    , d(std::make_unique<TimedProxyPrivate>(this, bus))
{
    d->timed.setTimeout(replyTimeoutMs);
    qRegisterMetaType<CookieId>("CookieId");
}

TimedProxy::~TimedProxy() = default;

void TimedProxy::addEvent(const TimedEventSpec &spec, const AddCallback &callback)
{
    // The bus closes the connection of whoever sends it too much.
    const QDBusPendingCall call = fitsIntoMessage({ spec.eventId })
        ? callOverBus(d->timed, addEventMethod, { eventFrom(spec) })
        : QDBusPendingCall::fromError(
            QDBusError(QDBusError::LimitsExceeded, QStringLiteral("Message is too large")));
    auto *watcher = new QDBusPendingCallWatcher(call, d.get());
    connect(watcher, &QDBusPendingCallWatcher::finished, d.get(), [callback](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        // Turns an answer of another type into an error.
        const QDBusPendingReply<CookieId> reply = *done;
        if (!callback) {
            return;
        }
        if (reply.isError()) {
            callback(0, errorFrom(reply.error()));
        } else {
            callback(reply.value(), Error());
        }
    });
}

void TimedProxy::removeEvent(CookieId cookie)
{
    auto *watcher = new QDBusPendingCallWatcher(callOverBus(d->timed, cancelMethod, { cookie }), d.get());
    connect(watcher, &QDBusPendingCallWatcher::finished, d.get(), [](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        if (done->isError()) {
            qWarning() << "Error cancelling timed event:" << done->error();
        }
    });
}

void TimedProxy::markReady()
{
    // A listener may call back here, and end nothing but itself.
    const QStringList arrived = std::exchange(d->pending, {});
    for (const QString &eventId : arrived) {
        emit eventTriggered(eventId);
    }
    d->ready = true;
}

} // namespace Core
