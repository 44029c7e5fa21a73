#include "Core/chronicle.h"

#include "Core/dbus_name_watcher.h"
#include "Core/error.h"
#include "Core/process_id.h"
#include "Core/runtime_controller.h"

#include <QElapsedTimer>
#include <QHash>

#include <cstring>
#include <memory>

#include <sys/wait.h>

namespace Core {

namespace {

constexpr int maximumLaunches = 500; // of different applications, after which the oldest is forgotten

/// A launch, under way or over.
struct Launch
{
    LaunchAccount account;
    bool hasStarted = false; ///< something runs of it, or has
    QElapsedTimer clock; ///< since it was asked for; the time of day may be set meanwhile

    void pass(LaunchStep step)
    {
        // Answers may come when a launch has failed already.
        if (account.failedAt.isEmpty() && !account.stepsMs.contains(step)) {
            account.stepsMs.insert(step, static_cast<qint32>(clock.elapsed()));
        }
    }
};

/// What runs now.
struct Running
{
    bool isTask = false;
    QDateTime since;
    std::shared_ptr<QObject> guard; ///< of the wait for its name
    std::shared_ptr<Launch> launch; ///< of an application; null if that was not seen
};

/// What is about to end something.
struct Verdict
{
    Decision decision = Decision::Exited;
    QString detail;
    QString requestor;
    bool isAttributed = false; ///< it is known who requested it, be it nobody of the service's own
};

QString applicationOf(const QString &id)
{
    return ProcessId(id).toString();
}

QString exitText(int exitStatus)
{
    if (WIFSIGNALED(exitStatus)) {
        const int number = WTERMSIG(exitStatus);
        const char *name = sigabbrev_np(number);
        return QStringLiteral("signal %1 (%2)")
            .arg(number)
            .arg(name ? QStringLiteral("SIG") + QLatin1String(name) : QStringLiteral("unknown"));
    }
    return QStringLiteral("exit status %1").arg(WEXITSTATUS(exitStatus));
}

/// What decided an end that nobody here had a part in.
Verdict ownVerdict(int exitStatus)
{
    return { WIFSIGNALED(exitStatus) ? Decision::Crashed : Decision::Exited, QString(), QString(), false };
}

} // namespace

QString launchStepName(LaunchStep step)
{
    switch (step) {
    case LaunchStep::Allowed:
        return QStringLiteral("Allowed");
    case LaunchStep::Prompted:
        return QStringLiteral("Prompted");
    case LaunchStep::Granted:
        return QStringLiteral("Granted");
    case LaunchStep::Spawned:
        return QStringLiteral("Spawned");
    case LaunchStep::Grouped:
        return QStringLiteral("Grouped");
    case LaunchStep::Released:
        return QStringLiteral("Released");
    case LaunchStep::NameSeen:
        return QStringLiteral("NameSeen");
    case LaunchStep::FirstWindow:
        return QStringLiteral("FirstWindow");
    }
    return QString();
}

QString decisionName(Decision decision)
{
    switch (decision) {
    case Decision::Exited:
        return QStringLiteral("exited");
    case Decision::Crashed:
        return QStringLiteral("crashed");
    case Decision::Requested:
        return QStringLiteral("requested");
    case Decision::Closed:
        return QStringLiteral("closed");
    case Decision::EarlyOom:
        return QStringLiteral("early-oom");
    case Decision::TimeLimit:
        return QStringLiteral("time-limit");
    case Decision::Stopped:
        return QStringLiteral("stopped");
    case Decision::LaunchFailed:
        return QStringLiteral("launch-failed");
    }
    return QString();
}

class ChroniclePrivate
{
public:
    void passOf(const QString &id, LaunchStep step);
    void remember(const Ending &ending);
    void onStarted(const QString &id, bool isTask, DBusNameWatcher *names);
    void onTerminated(const QString &id, pid_t pid, int exitStatus, StopReason reason);

    QHash<QString, std::shared_ptr<Launch>> launches; ///< application id -> its last one; see maximumLaunches
    QStringList launchOrder; ///< its keys, the oldest first
    QHash<QString, Running> running; ///< instance or full task id; removed at the end
    QHash<QString, Verdict> verdicts; ///< the same keys; removed at the end
    QList<Ending> endings; ///< the latest first
};

/// What an instance does belongs to the launch that it came from, which need not be the last one.
void ChroniclePrivate::passOf(const QString &id, LaunchStep step)
{
    const std::shared_ptr<Launch> launch = running.value(id).launch;
    if (launch) {
        launch->pass(step);
    }
}

void ChroniclePrivate::remember(const Ending &ending)
{
    endings.prepend(ending);
    while (endings.size() > Chronicle::maximumEndings) {
        endings.removeLast();
    }
}

void ChroniclePrivate::onStarted(const QString &id, bool isTask, DBusNameWatcher *names)
{
    Running entry { isTask, QDateTime::currentDateTimeUtc(), std::make_shared<QObject>(), nullptr };
    const std::shared_ptr<Launch> launch = isTask ? nullptr : launches.value(applicationOf(id));
    if (launch && !launch->hasStarted) {
        launch->hasStarted = true;
        entry.launch = launch;
    }
    running.insert(id, entry);
    verdicts.remove(id);
    if (isTask || !names) {
        return;
    }
    names->onNameAppeared(id, entry.guard.get(), [this, id] { passOf(id, LaunchStep::NameSeen); });
}

void ChroniclePrivate::onTerminated(const QString &id, pid_t pid, int exitStatus, StopReason reason)
{
    const Running entry = running.take(id);
    const bool decided = verdicts.contains(id);
    const Verdict verdict = decided ? verdicts.take(id) : ownVerdict(exitStatus);

    Ending ending;
    ending.id = id;
    ending.isTask = entry.isTask;
    ending.pid = pid;
    ending.started = entry.since;
    ending.ended = QDateTime::currentDateTimeUtc();
    ending.exitStatus = exitStatus;
    ending.stopReason = reason;
    ending.decision = verdict.decision;
    ending.requestor = verdict.requestor;
    if (entry.launch) {
        ending.launch = entry.launch->account;
    }
    ending.detail = verdict.detail.isEmpty() ? exitText(exitStatus)
                                             : verdict.detail + QStringLiteral("; ") + exitText(exitStatus);
    remember(ending);
}

Chronicle *Chronicle::instance()
{
    static auto *chronicle = new Chronicle;
    return chronicle;
}

Chronicle::Chronicle(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<ChroniclePrivate>())
{
}

Chronicle::~Chronicle() = default;

void Chronicle::follow(RuntimeController *controller, DBusNameWatcher *names)
{
    connect(controller, &RuntimeController::applicationStarted, this,
            [this, names](const ApplicationRecord &record) { d->onStarted(record.id, false, names); });
    connect(controller, &RuntimeController::taskStarted, this,
            [this, names](const QString &id) { d->onStarted(id, true, names); });
    connect(controller, &RuntimeController::applicationTerminated, this,
            [this](const QString &id, pid_t pid, int exitStatus, StopReason reason) {
                d->onTerminated(id, pid, exitStatus, reason);
            });
    connect(controller, &RuntimeController::taskTerminated, this,
            [this](const QString &id, pid_t pid, int exitStatus, StopReason reason) {
                d->onTerminated(id, pid, exitStatus, reason);
            });
    connect(controller, &RuntimeController::applicationStateChanged, this,
            [this](const QString &id, ApplicationState state) {
                if (state != ApplicationState::Terminating) {
                    d->passOf(id, LaunchStep::FirstWindow);
                }
            });
}

void Chronicle::launchAsked(const QString &appId)
{
    d->launchOrder.removeOne(appId);
    d->launchOrder.append(appId);
    while (d->launchOrder.size() > maximumLaunches) {
        d->launches.remove(d->launchOrder.takeFirst());
    }
    const auto launch = std::make_shared<Launch>();
    launch->account.asked = QDateTime::currentDateTimeUtc();
    launch->clock.start();
    d->launches.insert(appId, launch);
}

void Chronicle::launchStep(const QString &appId, LaunchStep step)
{
    if (const std::shared_ptr<Launch> launch = d->launches.value(appId)) {
        launch->pass(step);
    }
}

void Chronicle::launchFailed(const QString &appId, const Error &error)
{
    const std::shared_ptr<Launch> launch = d->launches.value(appId);
    if (!launch) {
        return;
    }
    LaunchAccount &account = launch->account;
    account.failedAt =
        account.stepsMs.isEmpty() ? QStringLiteral("Asked") : launchStepName(account.stepsMs.lastKey());
    account.error = error.message();

    Ending ending;
    ending.id = appId;
    ending.started = account.asked;
    ending.ended = QDateTime::currentDateTimeUtc();
    ending.decision = Decision::LaunchFailed;
    ending.detail = QStringLiteral("after \"%1\": %2").arg(account.failedAt, account.error);
    ending.launch = account;
    d->remember(ending);
}

void Chronicle::decide(const QString &id, Decision decision, const QString &detail)
{
    if (!d->running.contains(id)) {
        return;
    }
    if (!d->verdicts.contains(id) || decision == Decision::EarlyOom) {
        d->verdicts.insert(id, { decision, detail, QString(), false });
    }
}

void Chronicle::requestedBy(const QString &id, const QString &requestor)
{
    const auto verdict = d->verdicts.find(id);
    const bool canBeRequested = verdict != d->verdicts.end()
        && (verdict->decision == Decision::Requested || verdict->decision == Decision::Stopped);
    if (canBeRequested && !verdict->isAttributed) {
        verdict->isAttributed = true;
        verdict->requestor = requestor;
    }
}

LaunchAccount Chronicle::lastLaunch(const QString &appId) const
{
    const std::shared_ptr<Launch> launch = d->launches.value(appId);
    return launch ? launch->account : LaunchAccount();
}

LaunchAccount Chronicle::launchOf(const QString &id) const
{
    const std::shared_ptr<Launch> launch = d->running.value(id).launch;
    return launch ? launch->account : LaunchAccount();
}

QDateTime Chronicle::runsSince(const QString &id) const
{
    return d->running.value(id).since;
}

QList<Ending> Chronicle::endings(const QString &id, int limit) const
{
    QList<Ending> found;
    for (const Ending &ending : qAsConst(d->endings)) {
        if (limit > 0 && found.size() == limit) {
            break;
        }
        if (id.isEmpty() || ending.id == id || applicationOf(ending.id) == id) {
            found.append(ending);
        }
    }
    return found;
}

} // namespace Core
