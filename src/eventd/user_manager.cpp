#include "user_manager.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFile>
#include <QHash>
#include <QTimer>

#include <ctime>
#include <optional>

#include <linux/capability.h>

// A start is answered when it has been queued. How it went says the signal JobRemoved, which the manager
// sends to whoever asked for the job, and which may be seen before the answer.

namespace Eventd {

namespace {

constexpr int reloadTimeoutMs = 60000; // reads all units there are; nobody waits for it

QString describe(const QDBusError &error)
{
    const auto absent = QStringLiteral("The systemd user manager is not on the session bus");
    if (error.name() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")) {
        return absent;
    }
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
    case QDBusError::Disconnected:
        return absent;
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        return QStringLiteral("The systemd user manager does not answer");
    default:
        return QStringLiteral("The systemd user manager refuses: %1").arg(error.message());
    }
}

QDBusMessage managerCall(const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.systemd1"), QStringLiteral("/org/freedesktop/systemd1"),
        QStringLiteral("org.freedesktop.systemd1.Manager"), method);
    call.setArguments(arguments);
    call.setAutoStartService(false); // it is there, or nothing can bring it up
    return call;
}

/// False on a machine without a clock that runs while it sleeps: a timer that wants to wake it fails there.
bool hasWakingClock()
{
    timespec time {};
    return ::clock_gettime(CLOCK_REALTIME_ALARM, &time) == 0;
}

} // namespace

class UserManagerPrivate
{
public:
    UserManagerPrivate(const QDBusConnection &connection, int limitMs)
        : bus(connection)
        , timeoutMs(limitMs)
    {
    }

    QDBusPendingCall ask(const QDBusMessage &call, int limitMs)
    {
        if (!bus.isConnected()) {
            // Left to itself, Qt makes a pending call of this that never finishes.
            return QDBusPendingCall::fromError(QDBusError(QDBusError::Disconnected, QString()));
        }
        return bus.asyncCall(call, limitMs);
    }

    /// Answers the oldest start of @p unit, if any is out.
    void finish(const QString &unit, const QString &failure)
    {
        const auto waiting = starts.find(unit);
        if (waiting != starts.end()) {
            const UserManager::Callback callback = *waiting;
            starts.erase(waiting);
            callback(failure);
        }
    }

    QDBusConnection bus;
    const int timeoutMs;
    QMultiHash<QString, UserManager::Callback> starts; ///< unit -> who waits; removed when its job has ended
    std::optional<bool> mayWake; ///< once known
};

UserManager::UserManager(const QDBusConnection &bus, QObject *parent, int timeoutMs)
    : QObject(parent)
    , d(std::make_unique<UserManagerPrivate>(bus, timeoutMs))
{
    d->bus.connect(QStringLiteral("org.freedesktop.systemd1"), QStringLiteral("/org/freedesktop/systemd1"),
                   QStringLiteral("org.freedesktop.systemd1.Manager"), QStringLiteral("JobRemoved"), this,
                   SLOT(onJobRemoved(uint, QDBusObjectPath, QString, QString)));
}

UserManager::~UserManager() = default;

void UserManager::start(const QString &unit, const Callback &callback)
{
    d->starts.insert(unit, callback);
    const QDBusMessage call = managerCall(QStringLiteral("StartUnit"), { unit, QStringLiteral("replace") });
    auto *watcher = new QDBusPendingCallWatcher(d->ask(call, d->timeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, unit](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        if (done->isError()) {
            d->finish(unit, describe(done->error()));
            return;
        }
        QTimer::singleShot(d->timeoutMs, this, [this, unit] {
            d->finish(unit, QStringLiteral("The systemd user manager does not start %1 in time").arg(unit));
        });
    });
}

void UserManager::stop(const QString &unit, const Callback &callback)
{
    const QDBusMessage call = managerCall(QStringLiteral("StopUnit"), { unit, QStringLiteral("replace") });
    auto *watcher = new QDBusPendingCallWatcher(d->ask(call, d->timeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [callback](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        const bool isUnknown = done->error().name() == QLatin1String("org.freedesktop.systemd1.NoSuchUnit");
        callback(done->isError() && !isUnknown ? describe(done->error()) : QString());
    });
}

void UserManager::reload(const Callback &callback)
{
    const QDBusMessage call = managerCall(QStringLiteral("Reload"), {});
    auto *watcher = new QDBusPendingCallWatcher(d->ask(call, reloadTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [callback](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        callback(done->isError() ? describe(done->error()) : QString());
    });
}

void UserManager::canWake(const std::function<void(bool)> &callback)
{
    if (d->mayWake) {
        QMetaObject::invokeMethod(
            this, [this, callback] { callback(*d->mayWake); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetConnectionUnixProcessID"));
    call << QStringLiteral("org.freedesktop.systemd1");
    auto *watcher = new QDBusPendingCallWatcher(d->ask(call, d->timeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, callback](QDBusPendingCallWatcher *done) {
                done->deleteLater();
                const QDBusPendingReply<uint> reply = *done;
                if (reply.isError()) {
                    callback(false); // asked again the next time
                    return;
                }
                QFile status(QStringLiteral("/proc/%1/status").arg(reply.value()));
                d->mayWake = hasWakingClock() && status.open(QIODevice::ReadOnly)
                    && hasWakeCapability(status.readAll());
                callback(*d->mayWake);
            });
}

void UserManager::onJobRemoved(uint /*id*/, const QDBusObjectPath & /*job*/, const QString &unit,
                               const QString &result)
{
    d->finish(unit,
              result == QLatin1String("done")
                  ? QString()
                  : QStringLiteral("The systemd user manager could not start %1: %2").arg(unit, result));
}

bool hasWakeCapability(const QByteArray &status)
{
    const QByteArray key("\nCapEff:");
    const int start = status.indexOf(key);
    if (start < 0) {
        return false;
    }
    const int from = start + key.size();
    const quint64 set =
        status.mid(from, status.indexOf('\n', from) - from).trimmed().toULongLong(nullptr, 16);
    return (set >> CAP_WAKE_ALARM) & 1;
}

} // namespace Eventd
