#pragma once

#include "event_store.h"
#include "user_manager.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>

#include <functional>

namespace Eventd {

/// The object that keeps events for others, as data/interfaces/org.kestrix.Procwarden.Events1.xml describes
/// it.
///
/// Whoever owns a bus name may have events that call this name, and nobody else: the call is made with the
/// rights of this program, and reaches what a sandboxed caller might not.
class EventsObject : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Events1")

public:
    /// @p store and @p manager must outlive it.
    EventsObject(const QDBusConnection &bus, EventStore *store, UserManager *manager,
                 QObject *parent = nullptr);

    /// Whether somebody waits for an answer, or restore() is at work.
    bool isBusy() const { return m_tasks > 0; }

    /// Makes good what has happened to the events while this program did not run: puts right units, removes
    /// those without an event, and has the events fired that were due and have not been.
    void restore();

public slots:
    uint add_event(const Maemo::Timed::WireEvent &event);
    void cancel(uint cookie);

signals:
    void busyChanged();

private:
    using Answer = std::function<void(const QDBusMessage &answer)>;

    Answer answerLater();
    void begin();
    void end();
    void ifOwned(const QString &service, const QDBusMessage &call, const Answer &answer,
                 const std::function<void()> &then);
    void keep(const Maemo::Timed::WireEvent &event, bool wake, const QDBusMessage &call,
              const Answer &answer);
    void forget(Cookie cookie, const QDBusMessage &call, const Answer &answer);
    void restoreEvents(bool wake);
    void fireOverdue(const QList<Cookie> &cookies);

    QDBusConnection m_bus;
    EventStore *const m_store;
    UserManager *const m_manager;
    int m_tasks = 0; ///< begun and not ended
};

/// Whether an event should have been fired for the last time: a single one whose time has come, a recurrent
/// one that will not be due again.
bool isOver(const Maemo::Timed::WireEvent &event);

} // namespace Eventd
