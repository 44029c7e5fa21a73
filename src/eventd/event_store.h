#pragma once

#include "event_record.h"

#include <QList>
#include <QString>

namespace Eventd {

/// Outcome of something that touches files: an empty text, or what a person is told.
using Failure = QString;

/// The events on disk: for each one its record, a JSON file, and its two systemd units, with the link that
/// makes the user manager start the timer.
///
/// An event exists while its record does. The record is written last and removed first, each file at once as
/// a whole, so that a stop at any moment leaves either an event with everything or units of none, which do
/// nothing and which leftovers() finds. Any number of processes may work on the same directories: each
/// operation holds a lock, and fails if it cannot have it within seconds. Nothing is kept in memory.
class EventStore
{
public:
    struct Directories
    {
        QString data; ///< of our own: records, the last cookie, the lock
        QString units; ///< where the user manager looks for units
        QString stamps; ///< where the user manager keeps when timers have elapsed

        /// Of the user, by the environment.
        static Directories ofUser();
    };

    /// @p program: what the services run.
    EventStore(const Directories &directories, const QString &program);

    /// No more than this many events are kept: each costs the user manager two units.
    static constexpr int maximumEvents = 4096;

    /// Keeps @p event, which must be right and tidy, under a cookie that no event has ever had. @p wake: see
    /// Units::timer(). After a failure the event does not exist.
    [[nodiscard]] Failure add(const Maemo::Timed::WireEvent &event, bool wake, Cookie *cookie);

    enum class State {
        Unknown, ///< there is no such event
        Broken, ///< there is, but its record says nothing that makes sense
        Good
    };

    /// Reads a record.
    State find(Cookie cookie, Maemo::Timed::WireEvent *event) const;

    /// Forgets an event, if there is one, and removes the units of the cookie.
    [[nodiscard]] Failure remove(Cookie cookie);

    /// Cookies of all events, good or broken, in ascending order.
    QList<Cookie> cookies() const;

    /// Cookies that have units but no event.
    QList<Cookie> leftovers() const;

    /// Writes what is not there, or not as it should be, of the units of an event. @p changed becomes true if
    /// anything was.
    [[nodiscard]] Failure repair(Cookie cookie, const Maemo::Timed::WireEvent &event, bool wake,
                                 bool *changed);

private:
    QString recordPath(Cookie cookie) const;
    QString unitPath(const QString &name) const;
    QString linkPath(Cookie cookie) const;
    QString counterPath() const;
    Failure makeDirectories() const;
    Failure nextCookie(Cookie *cookie) const;
    Failure writeUnits(Cookie cookie, const Maemo::Timed::WireEvent &event, bool wake, bool *changed) const;
    void removeFiles(Cookie cookie) const;

    const Directories m_directories;
    const QString m_program;
};

} // namespace Eventd
