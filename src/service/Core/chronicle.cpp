#include "Core/chronicle.h"

#include "Core/application_task_id.h"
#include "Core/dbus_name_watcher.h"
#include "Core/error.h"
#include "Core/process_id.h"
#include "Core/runtime_controller.h"

#include <QHash>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include <sys/wait.h>

namespace Core {

namespace {

constexpr int maximumLaunches =
    500; // of different applications and tasks, after which the oldest is forgotten, a stranger's first

/// What runs now.
struct Running
{
    bool isTask = false;
    QDateTime since;
    std::shared_ptr<QObject> guard; ///< of the wait for its name
    std::shared_ptr<Launch> launch; ///< null if that was not seen
};

/// What is about to end something.
struct Verdict
{
    Decision decision = Decision::Exited;
    QString detail;
    std::shared_ptr<const Requestor> requestor; ///< null as long as nobody is known to have

    void attribute(const std::shared_ptr<const Requestor> &who)
    {
        if (!requestor && (decision == Decision::Requested || decision == Decision::Stopped)) {
            requestor = who;
        }
    }
};

QString applicationOf(const QString &id)
{
    return ProcessId(id).toString();
}

/// Whether it was nobody's: nothing is known under its id.
bool isStrangers(const LaunchAccount &launch)
{
    return launch.failedAt == launchStepName(LaunchStep::Asked);
}

/// Whose @p ending is. Anybody may ask for any id, so all that is nobody's counts as one application's.
QString ownerOf(const Ending &ending)
{
    return isStrangers(ending.launch) ? QString() : applicationOf(ending.id);
}

/// @p text, or as much of it as is kept.
QString bounded(const QString &text, int maximumLength)
{
    if (text.size() <= maximumLength) {
        return text;
    }
    const int end = maximumLength - 1;
    return text.left(text.at(end - 1).isHighSurrogate() ? end - 1 : end) + QChar(0x2026); // an ellipsis
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
    return { WIFSIGNALED(exitStatus) ? Decision::Crashed : Decision::Exited, QString(), nullptr };
}

} // namespace

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
    void forgetOldestLaunch();
    void remember(const Ending &ending);
    void forgetEnding();
    void onStarted(const QString &id, bool isTask, DBusNameWatcher *names);
    void onTerminated(const QString &id, pid_t pid, int exitStatus, StopReason reason);

    QHash<QString, std::shared_ptr<Launch>>
        launches; ///< application or full task id -> its last one; see maximumLaunches
    QStringList launchOrder; ///< its keys, the oldest first
    QHash<QString, Running> running; ///< instance or full task id; removed at the end
    QHash<QString, Verdict> verdicts; ///< the same keys; removed at the end
    QList<Ending> endings; ///< the latest first
    std::shared_ptr<Launch> underWay; ///< that was told of last; may be over
};

/// What an instance does belongs to the launch that it came from, which need not be the last one.
void ChroniclePrivate::passOf(const QString &id, LaunchStep step)
{
    const std::shared_ptr<Launch> launch = running.value(id).launch;
    if (launch) {
        launch->pass(step);
    }
}

void ChroniclePrivate::forgetOldestLaunch()
{
    const auto strangers = std::find_if(launchOrder.cbegin(), launchOrder.cend(), [this](const QString &id) {
        return isStrangers(launches.value(id)->account);
    });
    const auto index = strangers == launchOrder.cend() ? 0 : std::distance(launchOrder.cbegin(), strangers);
    launches.remove(launchOrder.takeAt(static_cast<int>(index)));
}

void ChroniclePrivate::remember(const Ending &ending)
{
    endings.prepend(ending);
    endings.first().detail = bounded(ending.detail, Chronicle::maximumDetailLength);
    if (endings.size() > Chronicle::maximumEndings) {
        forgetEnding();
    }
}

/// The oldest of who has the most: what starts and ends in a loop does not push out what others did.
void ChroniclePrivate::forgetEnding()
{
    QStringList owners;
    QHash<QString, int> counts;
    int most = 0;
    for (const Ending &ending : qAsConst(endings)) {
        owners.append(ownerOf(ending));
        most = std::max(most, ++counts[owners.last()]);
    }
    int index = owners.size() - 1;
    while (counts.value(owners.at(index)) < most) {
        --index;
    }
    endings.removeAt(index);
}

void ChroniclePrivate::onStarted(const QString &id, bool isTask, DBusNameWatcher *names)
{
    Running entry { isTask, QDateTime::currentDateTimeUtc(), std::make_shared<QObject>(), nullptr };
    const QString launchedId = isTask ? id : applicationOf(id);
    if (underWay && underWay->id == launchedId && !underWay->hasStarted) {
        underWay->hasStarted = true;
        entry.launch = underWay;
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

std::shared_ptr<Launch> Chronicle::launchAsked(const QString &id)
{
    // Anything may be asked for, also what cannot be anybody's.
    const auto launch = std::make_shared<Launch>(bounded(id, maximumIdLength));
    d->launchOrder.removeOne(launch->id);
    d->launchOrder.append(launch->id);
    d->launches.insert(launch->id, launch);
    if (d->launchOrder.size() > maximumLaunches) {
        d->forgetOldestLaunch();
    }
    d->underWay = launch;
    return launch;
}

void Chronicle::launchGoesOn(const std::shared_ptr<Launch> &launch)
{
    d->underWay = launch;
}

std::shared_ptr<Launch> Chronicle::launchUnderWay(const QString &id) const
{
    return d->underWay && d->underWay->id == id ? d->underWay : nullptr;
}

void Chronicle::launchFailed(const std::shared_ptr<Launch> &launch, const Error &error)
{
    launch->fail(LaunchStep::Asked);
    LaunchAccount &account = launch->account;
    account.error = bounded(error.message(), maximumErrorLength);

    Ending ending;
    ending.id = launch->id;
    ending.isTask = ApplicationTaskId(launch->id).isValid();
    ending.started = account.asked;
    ending.ended = QDateTime::currentDateTimeUtc();
    ending.decision = Decision::LaunchFailed;
    ending.detail = QStringLiteral("at \"%1\": %2").arg(account.failedAt, account.error);
    ending.launch = account;
    d->remember(ending);
}

void Chronicle::decide(const QString &id, Decision decision, const QString &detail)
{
    if (!d->running.contains(id)) {
        return;
    }
    if (!d->verdicts.contains(id) || decision == Decision::EarlyOom) {
        d->verdicts.insert(id, { decision, detail, nullptr });
    }
}

void Chronicle::requestedBy(const QString &id, const Requestor &requestor)
{
    const auto verdict = d->verdicts.find(id);
    if (verdict != d->verdicts.end()) {
        verdict->attribute(std::make_shared<const Requestor>(requestor));
    }
}

void Chronicle::allRequestedBy(const QString &idPrefix, const std::shared_ptr<const Requestor> &requestor)
{
    for (auto verdict = d->verdicts.begin(); verdict != d->verdicts.end(); ++verdict) {
        if (verdict.key().startsWith(idPrefix)) {
            verdict->attribute(requestor);
        }
    }
}

LaunchAccount Chronicle::lastLaunch(const QString &id) const
{
    const std::shared_ptr<Launch> launch = d->launches.value(id);
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
