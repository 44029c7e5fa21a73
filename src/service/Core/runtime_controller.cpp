// The life of an application:
//
//   start request -> checks -> launching list -> launcher -> record (Launched) -> applicationStarted
//   window counts: Active <-> Inactive <-> Hidden, each entry writes its state's settings after a delay
//   stop: SIGTERM (Terminating), after the kill time-out SIGKILL; or no windows left; or killAll()
//   exit: the tracker reports it -> directories go -> applicationTerminated -> record goes -> waiters
//
// A process that ends by itself goes from any state straight to the exit. Exits arrive as queued calls from
// the tracker's thread, so that none can come between two lines here.

#include "Core/runtime_controller.h"
#include "Core/runtime_controller_p.h"

#include "Core/application.h"
#include "Core/application_launch_data.h"
#include "Core/application_registry.h"
#include "Core/chronicle.h"
#include "Core/memory_monitor.h"
#include "Core/process_id.h"
#include "Core/resource_configuration.h"
#include "Core/resource_usage_watcher.h"
#include "Core/runtime_tracker.h"
#include "Core/task.h"

#include <QDebug>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <optional>
#include <utility>

namespace Core {

namespace {

constexpr int defaultKillTimeoutMs = 2000; // time for an application to save its state
// Background policies, from the system version that an application is made for.
constexpr int neverFrozenPolicy = 0;
constexpr int frozenUnlessUsingResourcePolicy = 1;

const QString cgroupBackend = QStringLiteral("cgroup1");

CGroupController::Settings toSettings(const QVariantMap &values)
{
    CGroupController::Settings settings;
    for (auto value = values.cbegin(); value != values.cend(); ++value) {
        settings.insert(value.key().toUtf8(), value.value().toString().toUtf8());
    }
    return settings;
}

/// The state that an application's windows call for; nothing if there are none left.
std::optional<ApplicationState> stateForWindows(int active, int inactive, int hidden, int backgroundPolicy,
                                                bool usesResource)
{
    if (active > 0) {
        return ApplicationState::Active;
    }
    if (inactive > 0) {
        return ApplicationState::Inactive;
    }
    if (hidden < 1) {
        return std::nullopt;
    }
    const bool staysAwake = backgroundPolicy == neverFrozenPolicy
        || (backgroundPolicy == frozenUnlessUsingResourcePolicy && usesResource);
    return staysAwake ? ApplicationState::Inactive : ApplicationState::Hidden;
}

Error notRunning(const QString &id)
{
    return Error(Error::NotRunning, QStringLiteral("Application not running: %1").arg(id));
}

} // namespace

int killTimeoutFromEnvironment()
{
    bool ok = false;
    const int timeoutMs = qEnvironmentVariable("PROCWARDEN_KILL_TIMEOUT").toInt(&ok);
    return ok && timeoutMs > 0 ? timeoutMs : defaultKillTimeoutMs;
}

RuntimeControllerPrivate::RuntimeControllerPrivate(RuntimeController *owner)
    : q(owner)
    , launcher(&cgroups, &oomController)
    , killTimeoutMs(killTimeoutFromEnvironment())
{
    earlyOomTimer.setInterval(oomController.checkIntervalMsecCriticalMem());
    QObject::connect(&earlyOomTimer, &QTimer::timeout, &earlyOomTimer, [this] { runOomKiller(); });
    loadStates(ResourceConfiguration());
    ResourceUsageWatcher::instance(); // it has to have heard the list before it is asked
}

RuntimeControllerPrivate::~RuntimeControllerPrivate() = default;

void RuntimeControllerPrivate::loadStates(const ResourceConfiguration &configuration)
{
    states.load(configuration);
    const QStringList names = configuration.stateNames();
    for (const QString &name : names) {
        cgroups.registerState(name, toSettings(configuration.settingsFor(name, cgroupBackend)));
    }
    backgroundSettings = toSettings(configuration.settingsFor(QStringLiteral("background"), cgroupBackend));
}

void RuntimeControllerPrivate::runInitializationCallbacks()
{
    initialized = true;
    const auto callbacks = std::exchange(initializationCallbacks, {});
    for (const auto &callback : callbacks) {
        callback();
    }
}

/// Why @p appId may not be started now; no error if it may.
Error RuntimeControllerPrivate::checkStart(const ApplicationId &appId) const
{
    const ApplicationLaunchData &launchData = ApplicationRegistry::instance()->launchData(appId);
    if (launchData.singleInstance) {
        if (const Process *running = records.value(appId.text())) {
            return Error(running->state() == ApplicationState::Terminating ? Error::ApplicationTerminating
                                                                           : Error::ApplicationAlreadyRunning,
                         QString());
        }
        if (launching.contains(appId.text())) {
            return Error(Error::ApplicationAlreadyLaunching, QString());
        }
    }
    // Several instances may run, yet only one of them on the screen.
    if (launchData.singleCover && hasApplicationWithWindows(appId)) {
        return Error(Error::ApplicationAlreadyRunning, QString());
    }
    if (blocked.contains(appId)) {
        qDebug() << "Application is blocked, won't start it:" << appId.text();
        return Error(Error::ApplicationBlocked, QString());
    }
    return Error();
}

bool RuntimeControllerPrivate::hasApplicationWithWindows(const ApplicationId &appId) const
{
    return std::any_of(records.cbegin(), records.cend(), [text = appId.toString()](const Process *process) {
        const auto *application = qobject_cast<const Application *>(process);
        return application && ApplicationInstanceId(application->id()).toString() == text
            && application->windowCount() > 0;
    });
}

bool RuntimeControllerPrivate::hasRecordOf(const QString &idPrefix) const
{
    // The keys are ordered, so the first that is not less is the first that can begin with the prefix.
    const auto first = records.lowerBound(idPrefix);
    return first != records.cend() && first.key().startsWith(idPrefix);
}

void RuntimeControllerPrivate::addApplication(const ApplicationInstanceId &instanceId, pid_t pid,
                                              const InvocationContext &context, const QList<QUrl> &uris)
{
    // Before anything else: an exit that is seen from here on finds its entry.
    RuntimeTracker::instance()->addProcess(pid, instanceId.text());

    auto *application = new Application(instanceId.text(), pid, context, uris, q);
    records.insert(application->id(), application);
    QObject::connect(application, &Process::stateChanged, q, [this, application](ApplicationState state) {
        onApplicationStateChanged(*application, state);
    });
    refreshMonitoring();
    emit q->applicationStarted(application->record());
}

void RuntimeControllerPrivate::onApplicationStateChanged(const Application &application,
                                                         ApplicationState state)
{
    emit q->applicationStateChanged(application.id(), state);

    const StateTable::Entry *entry = states.find(state);
    if (!entry) {
        return;
    }
    // Each entry of a state is carried out, also when the next has come meanwhile: they fire in order.
    QTimer::singleShot(entry->delayMs, &application,
                       [this, instanceId = ApplicationInstanceId(application.id()), name = entry->stateName] {
                           cgroups.applyState(instanceId, name);
                       });
}

void RuntimeControllerPrivate::onProcessTerminated(const QString &id, int exitStatus)
{
    cgroups.removeApplication(ApplicationInstanceId(id));

    Process *process = records.value(id);
    if (!process) {
        qWarning() << "Internal error, missing record for app" << id;
        return;
    }
    if (qobject_cast<const Task *>(process)) {
        emit q->taskTerminated(id, process->pid(), exitStatus, process->stopReason());
    } else {
        emit q->applicationTerminated(id, process->pid(), exitStatus, process->stopReason());
    }
    records.remove(id);
    delete process;
    refreshMonitoring();

    const QString applicationId = ProcessId(id).toString();
    if (!hasRecordOf(applicationId)) {
        waiters.release(applicationId);
    }
}

// Without this the child would stay a zombie until the next successful launch, and its groups for good.
void RuntimeControllerPrivate::onChildAbandoned(pid_t pid, const ApplicationInstanceId &instanceId)
{
    RuntimeTracker::instance()->abandonProcess(
        pid, [this, owner = QPointer<RuntimeController>(q), instanceId] {
            // The same id may have been started again meanwhile: then the groups are that one's.
            if (owner && !records.contains(instanceId.text()) && !launching.contains(instanceId.toString())) {
                cgroups.removeApplication(instanceId);
            }
        });
}

Error RuntimeControllerPrivate::terminate(const QString &id, StopReason reason)
{
    Process *process = records.value(id);
    if (!process) {
        return notRunning(id);
    }
    process->setStopReason(reason);
    if (reason == StopReason::Requested) {
        Chronicle::instance()->decide(id, Decision::Requested);
    }
    const bool signalled = process->terminate(killTimeoutMs);
    // The state is `Terminating` here, so a hidden process keeps its group frozen and gets its signals when
    // something else thaws it. Thawing it now would let it run on for as long as it ignores SIGTERM.
    if (process->state() == ApplicationState::Hidden) {
        process->setState(ApplicationState::Inactive);
    }
    return signalled ? Error() : Error(Error::Failed, QString());
}

RuntimeController *RuntimeController::instance()
{
    static auto *controller = new RuntimeController;
    return controller;
}

RuntimeController::RuntimeController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<RuntimeControllerPrivate>(this))
{
    connect(MemoryMonitor::instance(), &MemoryMonitor::levelChanged, this,
            [this](MemoryLevel level) { d->onMemoryLevelChanged(level); });
    connect(RuntimeTracker::instance(), &RuntimeTracker::applicationTerminated, this,
            [this](const QString &id, int exitStatus) { d->onProcessTerminated(id, exitStatus); });
    connect(
        &d->cgroups, &CGroupController::initializationDone, this, [this] { d->runInitializationCallbacks(); },
        Qt::QueuedConnection);
    connect(&d->launcher, &Launcher::childAbandoned, this,
            [this](pid_t pid, const ApplicationInstanceId &id) { d->onChildAbandoned(pid, id); });
}

RuntimeController::~RuntimeController() = default;

void RuntimeController::startApplication(const ApplicationId &appId, const DebugParams &debugParams,
                                         const QVariantMap &hints, const QList<QUrl> &uris,
                                         const InvocationContext &context, const StartApplicationCb &callback)
{
    if (const Error refusal = d->checkStart(appId)) {
        callback(ApplicationInstanceId(appId.text()), refusal);
        return;
    }

    d->launching.append(appId.text());
    const auto launch = Chronicle::instance()->launchAsked(appId.toString());
    const auto launched = [this, appId, uris, context, callback,
                           launch](const ApplicationInstanceId &instanceId, pid_t pid, const Error &error) {
        if (error) {
            Chronicle::instance()->launchFailed(launch, error);
        } else {
            Chronicle::instance()->launchGoesOn(launch);
            d->addApplication(instanceId, pid, context, uris);
        }
        callback(instanceId, error);
        d->launching.removeOne(appId.text());
    };
    // The child goes into its control groups before it runs, so they have to be there.
    whenInitialized([=] {
        const bool direct = context.reason == InvocationContext::DirectStart;
        Chronicle::instance()->launchGoesOn(launch);
        d->launcher.launch(appId, debugParams, hints, uris, direct, launched);
    });
}

void RuntimeController::startApplication(const ApplicationId &appId, const QVariantMap &hints,
                                         const QList<QUrl> &uris, const InvocationContext &context,
                                         const StartApplicationCb &callback)
{
    startApplication(appId, DebugParams(), hints, uris, context, callback);
}

void RuntimeController::blockApplication(const ApplicationId &appId)
{
    d->blocked.add(appId);
}

void RuntimeController::unblockApplication(const ApplicationId &appId)
{
    d->blocked.remove(appId);
}

Error RuntimeController::terminateApplication(const ApplicationInstanceId &instanceId, StopReason reason)
{
    return d->terminate(instanceId.text(), reason);
}

Error RuntimeController::terminateAll(const ApplicationId &appId, StopReason reason)
{
    Error result;
    const QStringList ids = d->records.keys();
    for (const QString &id : ids) {
        if (!id.startsWith(appId.text())) {
            continue;
        }
        if (const Error error = d->terminate(id, reason)) {
            result = error;
        }
    }
    return result;
}

void RuntimeController::waitForNotRunning(const ApplicationId &appId, const std::function<void()> &callback)
{
    if (!d->hasRecordOf(appId.text())) {
        callback();
        return;
    }
    d->waiters.add(appId.text(), callback);
}

void RuntimeController::killAll()
{
    const QString thawed = d->states.stateName(ApplicationState::Inactive);
    for (Process *process : qAsConst(d->records)) {
        qDebug() << "Killing process" << process->id() << "with pid" << process->pid();
        process->kill();
        // A frozen group would not die.
        if (qobject_cast<const Task *>(process)) {
            d->thawTask(process->id());
        } else {
            d->cgroups.applyState(ApplicationInstanceId(process->id()), thawed);
        }
    }
}

Error RuntimeController::updateWindowStatus(const ApplicationInstanceId &instanceId, int active, int inactive,
                                            int hidden)
{
    Process *process = d->records.value(instanceId.text());
    if (!process) {
        return notRunning(instanceId.text());
    }
    auto *application = qobject_cast<Application *>(process);
    if (!application) {
        return Error(Error::NotRunning, QStringLiteral("Not an application ID: %1").arg(instanceId.text()));
    }

    application->setWindowCounts(active, inactive, hidden);
    const int policy =
        ApplicationRegistry::instance()->backgroundPolicy(ApplicationId(instanceId.toString()));
    // Who uses a resource is named by its application, or by the instance that a process belongs to.
    const auto *usage = ResourceUsageWatcher::instance();
    const bool usesResource =
        usage->isUsingResource(instanceId.toString()) || usage->isUsingResource(instanceId.text());
    if (const auto state = stateForWindows(active, inactive, hidden, policy, usesResource)) {
        application->setState(*state);
    } else {
        Chronicle::instance()->decide(instanceId.text(), Decision::Closed);
        application->terminate(d->killTimeoutMs);
    }
    return Error();
}

ApplicationRecord RuntimeController::applicationRecord(const ApplicationId &appId) const
{
    const auto *application = qobject_cast<const Application *>(d->records.value(appId.text()));
    return application ? application->record() : ApplicationRecord();
}

ApplicationState RuntimeController::state(const QString &id) const
{
    const Process *process = d->records.value(id);
    return process ? process->state() : ApplicationState::NotRunning;
}

QVector<ApplicationRecord> RuntimeController::runningApplications() const
{
    QVector<ApplicationRecord> running;
    running.reserve(d->records.size());
    for (const Process *process : qAsConst(d->records)) {
        if (const auto *application = qobject_cast<const Application *>(process)) {
            running.append(application->record());
        }
    }
    return running;
}

bool RuntimeController::isLaunching(const ApplicationId &appId) const
{
    return d->launching.contains(appId.text());
}

bool RuntimeController::isBlocked(const ApplicationId &appId) const
{
    return d->blocked.contains(appId);
}

const OomController &RuntimeController::oomController() const
{
    return d->oomController;
}

void RuntimeController::letClientRun(const QString &appId, UnfreezeReason reason)
{
    d->letClientRun(appId, reason);
}

void RuntimeController::whenInitialized(const std::function<void()> &callback)
{
    if (d->initialized) {
        callback();
        return;
    }
    d->initializationCallbacks.append(callback);
}

} // namespace Core
