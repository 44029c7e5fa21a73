#pragma once

#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>

namespace Core {

class SailjailProxyPrivate;

/// Client of the sailjail daemon on the system bus: may an application start, and with which permissions.
///
/// Owned by whoever waits for the answers: its end drops those that are still
/// out, and their functions are then never called. No call has a time limit,
/// since the daemon may be waiting for the user. Main thread only; functions
/// run from the event loop, never inside the call that was given them, and may
/// delete the proxy. Empty functions are allowed.
class SailjailProxy : public QObject
{
    Q_OBJECT

public:
    explicit SailjailProxy(QObject *parent = nullptr);
    ~SailjailProxy() override;

    /// Asks whether @p application, the complete base name of a desktop file, may start at all.
    /// @p callback gets false also when the daemon is absent, answers with an error or with
    /// anything but a 32-bit integer: who cannot be asked has not allowed it.
    void getAllowed(const QString &application, const std::function<void(bool)> &callback);

    /// Asks for the permissions of @p application, for which the daemon may prompt the user.
    /// Exactly one of the two runs: @p success with the names of the granted permissions, or
    /// @p failure with the message of the error, which may also be that the answer is not a
    /// list of strings.
    void promptLaunchPermissions(const QString &application,
                                 const std::function<void(const QStringList &)> &success,
                                 const std::function<void(const QString &)> &failure);

private:
    const std::unique_ptr<SailjailProxyPrivate> d;
};

} // namespace Core
