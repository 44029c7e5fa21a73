#pragma once

#include "Core/error.h"
#include "Core/timed_event_spec.h"

#include <QDBusConnection>
#include <QObject>

#include <functional>
#include <memory>

namespace Core {

class TimedProxyPrivate;

/// Number that the timed daemon gives to an event; 0 is none. A meta-type of the name "CookieId".
using CookieId = quint32;

/// Client of the timed daemon, which keeps events over the end of the service and of the session.
///
/// The daemon calls back by D-Bus, also while the service comes up: what is triggered before markReady() is
/// kept until then. So the object has to stand before the service claims its name. Nothing here waits for the
/// daemon. Main thread only.
class TimedProxy : public QObject
{
    Q_OBJECT

public:
    /// Gets the cookie, or 0 with an error: AccessDenied or InvalidArgs if the daemon says so, otherwise
    /// Failed, also if it is absent, does not answer in time or answers something that is no cookie.
    using AddCallback = std::function<void(CookieId cookie, const Error &error)>;

    /// What the bus itself sets when nothing is said. The daemon may have to be started first.
    static constexpr int defaultReplyTimeoutMs = 25000;

    /// On the session bus; made at the first use.
    static TimedProxy *instance();

    /// @p bus is where the daemon's calls arrive. The daemon itself is called on the session bus.
    /// @p replyTimeoutMs: how long it has to answer.
    explicit TimedProxy(const QDBusConnection &bus, QObject *parent = nullptr,
                        int replyTimeoutMs = defaultReplyTimeoutMs);

    /// Drops the callbacks of calls that are still out.
    ~TimedProxy() override;

    /// Has the daemon trigger @p spec.eventId. @p callback runs once, from the event loop, never inside this
    /// call; it may be empty. A single event has no seconds, and it is the clock reading of its time that
    /// counts, whatever time zone it names.
    void addEvent(const TimedEventSpec &spec, const AddCallback &callback);

    /// Makes the daemon forget an event; a refusal is only logged.
    void removeEvent(CookieId cookie);

    /// Somebody listens now: what has been triggered so far comes at once, in the order of arrival, and from
    /// now on each trigger as it arrives. Later calls have no effect.
    void markReady();

signals:
    /// The time of an event has come. @p eventId is whatever text the caller sent, known here or not.
    void eventTriggered(const QString &eventId);

private:
    const std::unique_ptr<TimedProxyPrivate> d;
};

} // namespace Core
