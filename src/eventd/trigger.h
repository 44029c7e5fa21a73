#pragma once

#include "event_store.h"
#include "user_manager.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QObject>

namespace Eventd {

/// Fires one event whose time has come: what the service unit of an event runs.
class Trigger : public QObject
{
    Q_OBJECT

public:
    /// @p store and @p manager must outlive it.
    Trigger(const QDBusConnection &bus, EventStore *store, UserManager *manager, QObject *parent = nullptr);

    /// Makes the call of the event; an event that is over with this is removed. Ends in finished(), which is
    /// emitted from the event loop.
    void fire(Cookie cookie);

signals:
    /// Exit status: 0 if the call has arrived or there was none to be made, 1 if it has not and should be
    /// tried again, brokenEventStatus if it can never be made.
    void finished(int status);

private:
    void finish(int status);
    void call(Cookie cookie, const Maemo::Timed::WireEvent &event);
    bool hasArrived(const QDBusMessage &reply) const;
    void forget(Cookie cookie);

    QDBusConnection m_bus;
    EventStore *const m_store;
    UserManager *const m_manager;
    QElapsedTimer m_clock; ///< since the call was sent
};

} // namespace Eventd
