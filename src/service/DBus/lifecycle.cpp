#include "DBus/lifecycle.h"

#include "Core/client_info.h"
#include "Core/runtime_controller.h"
#include "DBus/client_registry.h"
#include "DBus/keys.h"

#include <QDBusConnection>
#include <QDBusMessage>

using Core::ApplicationState;
using Core::RuntimeController;

namespace DBus {

namespace {

void tellState(const QString &appId, ApplicationState state)
{
    const QString busName = ClientRegistry::instance()->busName(appId);
    if (busName.isEmpty()) {
        return;
    }
    auto signal = QDBusMessage::createTargetedSignal(
        busName, QStringLiteral("/org/kestrix/Procwarden/Lifecycle1"),
        QStringLiteral("org.kestrix.Procwarden.Lifecycle1"), QStringLiteral("StateChanged"));
    signal << appId << uint(state);
    QDBusConnection::sessionBus().send(signal);
}

} // namespace

Lifecycle::Lifecycle(QObject *parent)
    : Context(parent)
{
    connect(RuntimeController::instance(), &RuntimeController::applicationStateChanged, this, &tellState);
}

Lifecycle::~Lifecycle() = default;

QVariantMap Lifecycle::GetProperties()
{
    const Core::ClientInfo client = clientInfo();
    // A caller that is refused is remembered all the same: it may be an application whose record comes later.
    ClientRegistry::instance()->addClient(client.appId, message().service());

    const auto record = RuntimeController::instance()->applicationRecord(Core::ApplicationId(client.appId));
    if (record.id.isEmpty()) {
        sendError(Core::Error(Core::Error::ProcessNotHandled,
                              QStringLiteral("Client not handled by the procwarden")));
        return {};
    }
    return { { Keys::state, uint(record.state) } };
}

} // namespace DBus
