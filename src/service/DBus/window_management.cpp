#include "DBus/window_management.h"

#include "Core/runtime_controller.h"

#include <QDebug>

using Core::ApplicationState;
using Core::RuntimeController;

namespace DBus {

namespace {

constexpr uint noState = 255;

} // namespace

WindowManagement::WindowManagement(QObject *parent)
    : Context(parent)
{
}

WindowManagement::~WindowManagement() = default;

uint WindowManagement::UpdateWindowStatus(const QString &appId, int activeWindowCount,
                                          int inactiveWindowCount, int hiddenWindowCount)
{
    auto *controller = RuntimeController::instance();
    const auto error = controller->updateWindowStatus(Core::ApplicationInstanceId(appId), activeWindowCount,
                                                      inactiveWindowCount, hiddenWindowCount);
    if (error) {
        sendError(error);
        return noState;
    }

    const ApplicationState state = controller->applicationRecord(Core::ApplicationId(appId)).state;
    if (state >= ApplicationState::NotRunning) {
        qWarning() << "Unknown application state" << uint(state);
        return noState;
    }
    return uint(state);
}

} // namespace DBus
