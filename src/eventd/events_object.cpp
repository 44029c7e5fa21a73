#include "events_object.h"

#include "calendar.h"
#include "units.h"

#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDebug>

#include <utility>

namespace Eventd {

namespace {

using Maemo::Timed::WireEvent;

constexpr int busTimeoutMs = 10000; // the bus daemon itself answers at once

} // namespace

bool isOver(const WireEvent &event)
{
    const QDateTime now = QDateTime::currentDateTime();
    QDateTime time;
    return Calendar::parseTime(event.time, &time) ? Calendar::instant(time) <= now
                                                  : !Calendar::willBeDue(event, now);
}

EventsObject::EventsObject(const QDBusConnection &bus, EventStore *store, UserManager *manager,
                           QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_store(store)
    , m_manager(manager)
{
    Maemo::Timed::registerWireTypes();
}

uint EventsObject::add_event(const WireEvent &event)
{
    const QString problem = whatIsWrongWith(event);
    if (!problem.isEmpty()) {
        sendErrorReply(QDBusError::InvalidArgs, problem);
        return 0;
    }
    if (event.time.isEmpty() && isOver(event)) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("The event is never due"));
        return 0;
    }
    WireEvent tidied = event;
    tidy(&tidied);

    const QDBusMessage call = message();
    const Answer answer = answerLater();
    ifOwned(event.actions.first().service, call, answer,
            [=] { m_manager->canWake([=](bool wake) { keep(tidied, wake, call, answer); }); });
    return 0;
}

void EventsObject::cancel(uint cookie)
{
    WireEvent event;
    const EventStore::State state = m_store->find(cookie, &event);
    if (state == EventStore::State::Unknown) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("No event has the cookie %1").arg(cookie));
        return;
    }
    const QDBusMessage call = message();
    const Answer answer = answerLater();
    if (state == EventStore::State::Broken) {
        // Whose it was cannot be told, and it does nothing any more.
        forget(cookie, call, answer);
        return;
    }
    ifOwned(event.actions.first().service, call, answer, [=] { forget(cookie, call, answer); });
}

EventsObject::Answer EventsObject::answerLater()
{
    setDelayedReply(true);
    begin();
    return [this, bus = connection()](const QDBusMessage &answer) {
        bus.send(answer);
        end();
    };
}

void EventsObject::begin()
{
    ++m_tasks;
    emit busyChanged();
}

void EventsObject::end()
{
    --m_tasks;
    emit busyChanged();
}

void EventsObject::ifOwned(const QString &service, const QDBusMessage &call, const Answer &answer,
                           const std::function<void()> &then)
{
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetNameOwner"));
    question << service;
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(question, busTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [=](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        const QDBusPendingReply<QString> owner = *done;
        if (owner.isError() || owner.value() != call.service()) {
            answer(call.createErrorReply(QDBusError::AccessDenied,
                                         QStringLiteral("The caller does not own %1").arg(service)));
            return;
        }
        then();
    });
}

void EventsObject::keep(const WireEvent &event, bool wake, const QDBusMessage &call, const Answer &answer)
{
    Cookie cookie = 0;
    const Failure failure = m_store->add(event, wake, &cookie);
    if (!failure.isEmpty()) {
        qWarning().noquote() << failure;
        answer(call.createErrorReply(QDBusError::Failed, failure));
        return;
    }
    m_manager->start(Units::timerName(cookie), [=](const QString &problem) {
        if (!problem.isEmpty()) {
            qWarning().noquote() << problem;
            const Failure leftover = m_store->remove(cookie);
            if (!leftover.isEmpty()) {
                qWarning().noquote() << leftover;
            }
            answer(call.createErrorReply(QDBusError::Failed, problem));
            return;
        }
        answer(call.createReply(QVariant::fromValue(cookie)));
        if (isOver(event)) {
            // A timer does not elapse for what is past; if it did just now, the second start finds nothing.
            fireOverdue({ cookie });
        }
    });
}

void EventsObject::forget(Cookie cookie, const QDBusMessage &call, const Answer &answer)
{
    const Failure failure = m_store->remove(cookie);
    if (!failure.isEmpty()) {
        qWarning().noquote() << failure;
        answer(call.createErrorReply(QDBusError::Failed, failure));
        return;
    }
    m_manager->stop(Units::timerName(cookie), [=](const QString &problem) {
        // The timer, if it runs, starts something that finds no event any more.
        if (!problem.isEmpty()) {
            qWarning().noquote() << problem;
        }
        answer(call.createReply());
    });
}

void EventsObject::restore()
{
    const QList<Cookie> leftovers = m_store->leftovers();
    for (const Cookie cookie : leftovers) {
        const Failure failure = m_store->remove(cookie);
        if (!failure.isEmpty()) {
            qWarning().noquote() << failure;
        }
        m_manager->stop(Units::timerName(cookie), [](const QString &) {});
    }
    if (m_store->cookies().isEmpty()) {
        return;
    }
    begin();
    m_manager->canWake([this](bool wake) {
        restoreEvents(wake);
        end();
    });
}

void EventsObject::restoreEvents(bool wake)
{
    QStringList timers;
    QList<Cookie> overdue;
    const QList<Cookie> cookies = m_store->cookies();
    for (const Cookie cookie : cookies) {
        WireEvent event;
        if (m_store->find(cookie, &event) != EventStore::State::Good) {
            qWarning() << "The record of this event makes no sense:" << cookie;
            continue;
        }
        bool changed = false;
        const Failure failure = m_store->repair(cookie, event, wake, &changed);
        if (!failure.isEmpty()) {
            qWarning().noquote() << failure;
        }
        if (changed) {
            timers << Units::timerName(cookie);
        }
        if (isOver(event)) {
            overdue << cookie;
        }
    }
    if (timers.isEmpty()) {
        fireOverdue(overdue);
        return;
    }
    begin();
    m_manager->reload([=](const QString &problem) {
        if (!problem.isEmpty()) {
            qWarning().noquote() << problem;
        } else {
            for (const QString &timer : timers) {
                m_manager->start(timer, [](const QString &failure) {
                    if (!failure.isEmpty()) {
                        qWarning().noquote() << failure;
                    }
                });
            }
            fireOverdue(overdue);
        }
        end();
    });
}

void EventsObject::fireOverdue(const QList<Cookie> &cookies)
{
    for (const Cookie cookie : cookies) {
        // It runs as long as its call takes; what becomes of it is in the journal.
        m_manager->start(Units::serviceName(cookie), [](const QString &) {});
    }
}

} // namespace Eventd
