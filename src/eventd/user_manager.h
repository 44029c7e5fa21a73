#pragma once

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QDBusPendingCall;

namespace Eventd {

class UserManagerPrivate;

/// Client of the systemd user manager, org.freedesktop.systemd1 on the session bus.
///
/// No operation waits; each callback runs once, later, unless this object ends first. A manager that is
/// absent or silent gives a failure within seconds.
class UserManager : public QObject
{
    Q_OBJECT

public:
    /// An empty text, or what a person is told.
    using Callback = std::function<void(const QString &failure)>;

    static constexpr int defaultTimeoutMs = 10000; // below the 25 s for which our own callers wait

    /// @p timeoutMs: for an answer, and again for the start of a unit.
    explicit UserManager(const QDBusConnection &bus, QObject *parent = nullptr,
                         int timeoutMs = defaultTimeoutMs);
    ~UserManager() override;

    /// Starts a unit. That of a timer has succeeded when the timer waits, or has elapsed.
    void start(const QString &unit, const Callback &callback);
    /// Succeeds also if the unit does not run or is not known.
    void stop(const QString &unit, const Callback &callback);
    /// Makes the manager read all units again.
    void reload(const Callback &callback);

    /// Whether the manager has the capability for timers that wake the device, and the device a clock for
    /// them; false if it cannot be found out. The answer is kept.
    void canWake(const std::function<void(bool)> &callback);

private slots:
    void onJobRemoved(uint id, const QDBusObjectPath &job, const QString &unit, const QString &result);

private:
    const std::unique_ptr<UserManagerPrivate> d;
};

/// Whether the text of a file `/proc/<pid>/status`, see proc(5), has CAP_WAKE_ALARM among the effective
/// capabilities.
bool hasWakeCapability(const QByteArray &status);

} // namespace Eventd
