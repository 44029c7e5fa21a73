#include "Core/launcher.h"

#include "Core/application_registry.h"
#include "Core/error.h"
#include "Core/maemo_application.h"
#include "Core/oom_controller.h"
#include "Core/regular_application.h"

namespace Core {

namespace {

LaunchingApplication *makeLaunchingApplication(const LaunchRequest &request, CGroupController *cgroups,
                                               QObject *parent)
{
    if (!request.launchData.maemoService.isEmpty() && request.launchData.execDBus.isEmpty()) {
        return new MaemoApplication(request, cgroups, parent);
    }
    return new RegularApplication(request, cgroups, parent);
}

void reportFailure(const Launcher::Callback &callback, const Error &error)
{
    if (callback) {
        callback(ApplicationInstanceId(), -1, error);
    }
}

} // namespace

Launcher::Launcher(CGroupController *cgroups, OomController *oom, QObject *parent)
    : QObject(parent)
    , m_cgroups(cgroups)
    , m_oom(oom)
{
}

Launcher::~Launcher() = default;

void Launcher::launch(const ApplicationId &appId, const DebugParams &debugParams, const QVariantMap &hints,
                      const QList<QUrl> &uris, bool direct, const Callback &callback)
{
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    if (!appId.isValid() || registry->desktopFile(appId).isEmpty()) {
        reportFailure(callback,
                      Error(Error::HandlerNotFound,
                            QStringLiteral("Cannot find application %1").arg(appId.toString())));
        return;
    }
    // Organisation and name as the application declares them: its text alone can be split in another way.
    const ApplicationId installed = registry->applicationForDesktopFile(registry->desktopFile(appId));
    const LaunchRequest request { installed, registry->launchData(appId), debugParams, hints, uris };
    LaunchingApplication *launching = makeLaunchingApplication(request, m_cgroups, this);
    launching->setOomScore(m_oom->oomScoreForStart(direct ? OomController::DirectRequest : 0));
    launching->setCallback(callback);
    connect(launching, &LaunchingApplication::childAbandoned, this, &Launcher::childAbandoned);
    if (launching->start() < 0) {
        delete launching;
        reportFailure(
            callback,
            Error(Error::HandlerFailed, QStringLiteral("Error launching %1").arg(appId.toString())));
    }
}

} // namespace Core
