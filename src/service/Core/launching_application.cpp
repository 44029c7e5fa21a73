// States of a launch, and what leads from one to the next:
//
//   created    start():        GetAllowed asked, prepare() (may ask for permissions), child made and blocked
//   starting   setupAndExec(): queued; score, journal, output, control group, environment
//   waiting    stepDone():     once for setupAndExec, for GetAllowed, and for the prompt if there is one, in
//                              any order; the last one releases the child and calls back
//   released   release():      at once, or for a D-Bus service when its method has answered
//   gone                       deleted by the event loop
//
// fail() leads from every state behind "created" to "gone".

#include "Core/launching_application.h"

#include "Core/application_registry.h"
#include "Core/cgroup_controller.h"
#include "Core/child_ipc.h"
#include "Core/chronicle.h"
#include "Core/command_line.h"
#include "Core/dbus_name_watcher.h"
#include "Core/error.h"
#include "Core/maemo_dbus_invoker.h"
#include "Core/process_setup.h"
#include "Core/send_signal.h"
#include "Core/timeout.h"

#include <QDebug>
#include <QFileInfo>
#include <QPointer>

#include <cerrno>
#include <csignal>
#include <unistd.h>
#include <utility>

namespace Core {

namespace {

// Runs in the child: nothing here may allocate.
void setupChild(ChildIPC &ipc)
{
    ProcessSetup::becomeRealUser(ipc);
    if (!ProcessSetup::receiveOomScore(ipc)) {
        ChildIPC::die("Could not set OOM score\n");
    }
    ProcessSetup::receiveJournalIdentifier(ipc);
    if (!ProcessSetup::receiveOutputFds(ipc)) {
        ChildIPC::die("Could not redirect stdout/stderr\n");
    }
}

} // namespace

LaunchingApplication::LaunchingApplication(const LaunchRequest &request, CGroupController *cgroupController,
                                           QObject *parent)
    : QObject(parent)
    , appId(request.appId)
    , launchData(request.launchData)
    , debugParams(request.debugParams)
    , hints(request.hints)
    , uris(request.uris)
    , cgroups(cgroupController)
    , desktopFile(ApplicationRegistry::instance()->desktopFile(request.appId))
    , packageName(QFileInfo(desktopFile).completeBaseName())
    , m_launch(Chronicle::instance()->launchUnderWay(request.appId.toString()))
{
}

LaunchingApplication::~LaunchingApplication() = default;

pid_t LaunchingApplication::start()
{
    checkAllowed();
    if (!prepare()) {
        qWarning() << "Error preparing launch for" << appId.toString();
        markFailed(LaunchStep::Prepared);
        return -1;
    }
    const pid_t child = spawner.spawn(setupChild);
    if (child < 0) {
        qWarning() << "Failed to start child process";
        markFailed(LaunchStep::Spawned);
        return -1;
    }
    passed(LaunchStep::Spawned);
    pid = child;
    instanceId = ApplicationInstanceId(appId, launchData.singleInstance ? 0 : pid);
    QMetaObject::invokeMethod(this, "setupAndExec", Qt::QueuedConnection);
    return pid;
}

void LaunchingApplication::setupAndExec()
{
    if (pid < 0) {
        // A denial overtook the queue; the child is about to end, and must not be given groups that stay
        // behind.
        return;
    }
    ProcessSetup setup(&spawner);
    const bool isSetUp = setup.sendOomScore(pid, oomScore) && setup.sendJournalIdentifier(appId.toString())
        && setup.sendOutputFds(stdoutFile.handle(), stderrFile.handle());
    if (!isSetUp || !setupCGroup() || !setupEnvironment()) {
        failAt(isSetUp ? LaunchStep::Grouped : LaunchStep::SetUp,
               Error(Error::Failed, QStringLiteral("Cannot setup child process")));
        return;
    }
    stepDone();
}

void LaunchingApplication::postExec()
{
    if (!launchData.maemoService.isEmpty()) {
        ++references;
        activateMaemoService();
    }
}

void LaunchingApplication::promptPermissions(const std::function<void(const QStringList &)> &granted)
{
    ++pendingSteps;
    passed(LaunchStep::Prompted);
    const auto onGranted = [this, granted](const QStringList &permissions) {
        passed(LaunchStep::Granted);
        granted(permissions);
    };
    sailjail.promptLaunchPermissions(packageName, onGranted, [this](const QString &message) {
        qWarning() << "Permissions request failed:" << message;
        qWarning() << "Perhaps the user has declined to grant permissions";
        failAt(LaunchStep::Granted, Error(Error::AccessDenied, message));
    });
}

void LaunchingApplication::stepDone()
{
    --pendingSteps;
    if (pendingSteps > 0) {
        return;
    }
    // What is called back may end the launcher, and this object with it.
    const QPointer<LaunchingApplication> self(this);
    if (!exec()) {
        failAt(LaunchStep::Released, Error(Error::Failed, QStringLiteral("exec() call failed")));
    } else if (const Callback report = std::exchange(callback, nullptr)) {
        report(instanceId, pid, Error());
    }
    if (self) {
        release();
    }
}

void LaunchingApplication::fail(const Error &error)
{
    qWarning() << "Failed to setup child process";
    deleteLater();
    if (!error) {
        return;
    }
    if (const pid_t child = std::exchange(pid, -1); child > 0) {
        emit childAbandoned(child, instanceId);
    }
    if (const Callback report = std::exchange(callback, nullptr)) {
        report(ApplicationInstanceId(), -1, error);
    }
}

void LaunchingApplication::failAt(LaunchStep step, const Error &error)
{
    markFailed(step);
    fail(error);
}

void LaunchingApplication::checkAllowed()
{
    ++pendingSteps;
    sailjail.getAllowed(packageName, [this](bool allowed) {
        if (!allowed) {
            qDebug() << "Application not allowed by sailjaild:" << packageName;
            failAt(LaunchStep::Allowed,
                   Error(Error::AccessDenied, QStringLiteral("Application not allowed by sailjaild")));
            return;
        }
        passed(LaunchStep::Allowed);
        stepDone();
    });
}

void LaunchingApplication::passed(LaunchStep step) const
{
    if (m_launch) {
        m_launch->pass(step);
    }
}

void LaunchingApplication::markFailed(LaunchStep step) const
{
    if (m_launch) {
        m_launch->fail(step);
    }
}

bool LaunchingApplication::setupCGroup()
{
    if (!cgroups->setupApplication(instanceId, pid)) {
        qWarning() << "Could not setup cgroup";
        return false;
    }
    passed(LaunchStep::Grouped);
    return true;
}

bool LaunchingApplication::setupEnvironment()
{
    spawner.setEnvironment(environmentFor(appId, instanceId, packageName, debugParams));
    return true;
}

QByteArrayList LaunchingApplication::environmentFor(const ApplicationId &application,
                                                    const ApplicationInstanceId &instance,
                                                    const QString &package, const DebugParams &params)
{
    QByteArrayList environment;
    for (char **entry = environ; entry && *entry; ++entry) {
        environment << QByteArray(*entry);
    }
    environment << "SOLVANE_APP_ID=" + application.toString().toUtf8()
                << "SOLVANE_APP_INSTANCE_ID=" + instance.text().toUtf8()
                << "SOLVANE_PACKAGE_NAME=" + package.toUtf8();
    for (const QString &entry : params.environment) {
        environment << entry.toUtf8();
    }
    return environment;
}

bool LaunchingApplication::exec()
{
    if (!spawner.exec()) {
        qWarning() << "Error starting child program";
        return false;
    }
    passed(LaunchStep::Released);
    postExec();
    return true;
}

void LaunchingApplication::release()
{
    --references;
    if (references < 1) {
        deleteLater();
    }
}

void LaunchingApplication::activateMaemoService()
{
    auto *timeout = new Timeout(this);
    // May run the function before it returns.
    DBusNameWatcher::instance()->onNameAppeared(launchData.maemoService, timeout,
                                                [this, timeout] { invokeMaemoMethod(timeout); });
    timeout->start(m_activationLimitMs, [this] { onMaemoServiceTimeout(); });
}

void LaunchingApplication::invokeMaemoMethod(Timeout *timeout)
{
    auto *invoker = new MaemoDBusInvoker(launchData.maemoService, launchData.maemoObjectPath,
                                         launchData.maemoMethod, timeout);
    QStringList arguments;
    if (!launchData.maemoFixedArgs.isEmpty()) {
        arguments = launchData.maemoFixedArgs.split(QLatin1Char(';'));
    }
    for (const QUrl &uri : uris) {
        arguments << uriArgument(uri);
    }
    connect(invoker, &MaemoDBusInvoker::replyReceived, this, [this, timeout](bool ok) {
        timeout->stop();
        timeout->deleteLater();
        if (ok) {
            release();
            return;
        }
        // The program stays: it runs, and that was reported.
        qWarning() << "Failed to invoke D-Bus method on" << launchData.maemoService;
        fail(Error());
    });
    invoker->invoke(arguments);
}

void LaunchingApplication::onMaemoServiceTimeout()
{
    qWarning() << "App took too long to start up:" << launchData.maemoService;
    fail(Error());
    if (pid <= 0) {
        return;
    }
    const int error = sendSignal(pid, SignalTarget::Group, SIGKILL);
    if (error != 0 && error != ESRCH) {
        qWarning() << "Failed to kill process group" << pid;
    }
}

} // namespace Core
