#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class QDBusConnection;

namespace Core {

class DBusNameWatcherPrivate;

/// Calls back when a bus name gets its owner or loses it, unique names included.
///
/// What it knows comes from the bus, in the bus's order among all other messages: who handles a call finds
/// the caller's name known. Until the bus has answered for the first time it knows no name at all. Main
/// thread only.
class DBusNameWatcher : public QObject
{
    Q_OBJECT

public:
    using Callback = std::function<void()>;

    /// The one for the session bus, made at the first use and never destroyed.
    static DBusNameWatcher *instance();

    explicit DBusNameWatcher(const QDBusConnection &connection, QObject *parent = nullptr);
    ~DBusNameWatcher() override;

    /// Calls @p callback once when @p name has an owner: at once, before this returns, if it is known to have
    /// one; otherwise when it gets one, provided that @p guard is still alive then. Without a guard the
    /// callback is called at once or never.
    void onNameAppeared(const QString &name, QObject *guard, const Callback &callback);

    /// Calls @p callback once when @p name has no owner: at once, before this returns, if it is known to have
    /// none; otherwise when it loses it, provided that @p guard is still alive then. Without a guard the
    /// callback is called at once or never.
    void onNameDisappeared(const QString &name, QObject *guard, const Callback &callback);

private slots:
    void onNamesListed(const QStringList &names);
    void onNameOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);

private:
    const std::unique_ptr<DBusNameWatcherPrivate> d;
};

} // namespace Core
