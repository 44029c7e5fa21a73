#include "DBus/system_control.h"

#include "Core/chronicle.h"
#include "Core/runtime_controller.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>

using Core::ApplicationId;
using Core::RuntimeController;

namespace DBus {

SystemControl::SystemControl(QObject *parent)
    : Context(parent)
{
}

SystemControl::~SystemControl() = default;

void SystemControl::PreventLaunch(const QString &appId)
{
    qDebug() << Q_FUNC_INFO << appId;
    RuntimeController::instance()->blockApplication(ApplicationId(appId));
}

void SystemControl::WaitForNotRunning(const QString &appId)
{
    qDebug() << Q_FUNC_INFO << appId;
    setDelayedReply(true);
    RuntimeController::instance()->waitForNotRunning(
        ApplicationId(appId),
        [connection = connection(), message = message()] { connection.send(message.createReply()); });
}

void SystemControl::Terminate(const QString &appId)
{
    qDebug() << Q_FUNC_INFO << appId;
    const auto error =
        RuntimeController::instance()->terminateAll(ApplicationId(appId), Core::StopReason::Requested);
    // The caller gets its answer when it is known who it is: one that has its answer may be gone.
    setDelayedReply(true);
    const auto requestor = identifyCaller([connection = connection(), message = message(), error] {
        if (error) {
            sendError(connection, message, error);
        } else {
            connection.send(message.createReply());
        }
    });
    Core::Chronicle::instance()->allRequestedBy(appId, requestor);
}

void SystemControl::AllowLaunch(const QString &appId)
{
    qDebug() << Q_FUNC_INFO << appId;
    RuntimeController::instance()->unblockApplication(ApplicationId(appId));
}

} // namespace DBus
