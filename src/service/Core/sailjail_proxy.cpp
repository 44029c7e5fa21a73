#include "Core/sailjail_proxy.h"

#include "Core/bus_call.h"
#include "Core/sailjail_proxy_p.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <limits>

namespace Core {

namespace {

/// libdbus takes this value for "no limit": a prompt waits for as long as the user does.
constexpr int unlimitedMs = std::numeric_limits<qint32>::max();

} // namespace

SailjailProxyPrivate::SailjailProxyPrivate()
    : QDBusAbstractInterface(QStringLiteral("org.sailfishos.sailjaild1"),
                             QStringLiteral("/org/sailfishos/sailjaild1"), "org.sailfishos.sailjaild1",
                             QDBusConnection::systemBus(), nullptr)
{
    setTimeout(unlimitedMs);
}

SailjailProxy::SailjailProxy(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<SailjailProxyPrivate>())
{
}

SailjailProxy::~SailjailProxy() = default;

void SailjailProxy::getAllowed(const QString &application, const std::function<void(bool)> &callback)
{
    auto *watcher =
        new QDBusPendingCallWatcher(callOverBus(*d, QStringLiteral("GetAllowed"), { application }), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [callback](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        // Turns an answer of another type into an error.
        const QDBusPendingReply<qint32> reply = *call;
        if (callback) {
            callback(!reply.isError() && reply.value() != 0);
        }
    });
}

void SailjailProxy::promptLaunchPermissions(const QString &application,
                                            const std::function<void(const QStringList &)> &success,
                                            const std::function<void(const QString &)> &failure)
{
    auto *watcher = new QDBusPendingCallWatcher(
        callOverBus(*d, QStringLiteral("PromptLaunchPermissions"), { application }), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [success, failure](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                const QDBusPendingReply<QStringList> reply = *call;
                if (reply.isError()) {
                    if (failure) {
                        failure(reply.error().message());
                    }
                } else if (success) {
                    success(reply.value());
                }
            });
}

} // namespace Core
