#include "trigger.h"

#include "calendar.h"
#include "events_object.h"
#include "units.h"

#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QDebug>

namespace Eventd {

namespace {

using Maemo::Timed::WireAction;
using Maemo::Timed::WireEvent;

/// Longer than the bus waits for a service that it starts, so that who has not answered by then has the call.
constexpr int replyTimeoutMs = 300000;

QDBusMessage messageOf(const WireEvent &event)
{
    const WireAction &action = event.actions.first();
    QDBusMessage message =
        QDBusMessage::createMethodCall(action.service, action.path, action.interface, action.method);
    if (action.sendAttributes) {
        QVariantMap attributes;
        for (auto attribute = event.attributes.cbegin(); attribute != event.attributes.cend(); ++attribute) {
            attributes.insert(attribute.key(), attribute.value());
        }
        message << attributes;
    }
    return message;
}

} // namespace

Trigger::Trigger(const QDBusConnection &bus, EventStore *store, UserManager *manager, QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_store(store)
    , m_manager(manager)
{
}

void Trigger::fire(Cookie cookie)
{
    WireEvent event;
    switch (m_store->find(cookie, &event)) {
    case EventStore::State::Unknown:
        forget(cookie); // its timer should not be there either
        return;
    case EventStore::State::Broken:
        qWarning() << "The record of this event makes no sense:" << cookie;
        finish(brokenEventStatus);
        return;
    case EventStore::State::Good:
        break;
    }
    if (event.time.isEmpty() && !Calendar::hasBeenDue(event, QDateTime::currentDateTime())) {
        finish(0);
        return;
    }
    call(cookie, event);
}

void Trigger::finish(int status)
{
    QMetaObject::invokeMethod(
        this, [this, status] { emit finished(status); }, Qt::QueuedConnection);
}

void Trigger::call(Cookie cookie, const WireEvent &event)
{
    m_clock.start();
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(messageOf(event), replyTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [=](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        if (done->isError()) {
            qWarning() << "The call of event" << cookie << "has failed:" << done->error();
            if (!hasArrived(done->reply())) {
                finish(1);
                return;
            }
        }
        if (isOver(event)) {
            forget(cookie);
        } else {
            finish(0);
        }
    });
}

/// An error of the called program's own says that it was called; one of the bus, or of the connection, that
/// it was not, unless it just never answered.
bool Trigger::hasArrived(const QDBusMessage &reply) const
{
    const QString sender = reply.service();
    return (!sender.isEmpty() && sender != QLatin1String("org.freedesktop.DBus"))
        || m_clock.elapsed() >= replyTimeoutMs;
}

void Trigger::forget(Cookie cookie)
{
    const Failure failure = m_store->remove(cookie);
    if (!failure.isEmpty()) {
        qWarning().noquote() << failure;
    }
    m_manager->stop(Units::timerName(cookie), [this](const QString &) { finish(0); });
}

} // namespace Eventd
