// The controller when memory runs short: one victim per pass while the level is critical, and the moment that
// a frozen application gets to react.

#include "Core/runtime_controller.h"
#include "Core/runtime_controller_p.h"

#include "Core/application.h"
#include "Core/candidate.h"
#include "Core/chronicle.h"
#include "Core/memory_monitor.h"
#include "Core/send_signal.h"
#include "Core/task.h"

#include <QDebug>
#include <QTimer>

#include <csignal>

namespace Core {

namespace {

constexpr int maximumSubprocessKills = 5; // of one record, before all of it goes

/// How the first of @p order, which is not empty, came to be that.
QString choiceText(const QVector<Candidate> &order)
{
    if (order.size() == 1) {
        return QStringLiteral("the only candidate");
    }
    const VictimRule rule = decidingRule(order.at(0), order.at(1));
    return rule == VictimRule::None ? QStringLiteral("chosen among equals")
                                    : QStringLiteral("chosen by %1").arg(QLatin1String(victimRuleName(rule)));
}

} // namespace

void RuntimeControllerPrivate::onMemoryLevelChanged(MemoryLevel level)
{
    if (level == MemoryLevel::Critical) {
        qDebug() << "Low memory, activating early OOM killer";
        runOomKiller();
        earlyOomTimer.start();
    } else {
        earlyOomTimer.stop();
        killedSubprocesses.clear();
    }
    refreshMonitoring();
}

/// The monitor runs exactly while there is something to lose, and until a critical level is over.
void RuntimeControllerPrivate::refreshMonitoring()
{
    MemoryMonitor *monitor = MemoryMonitor::instance();
    const bool wanted = !records.isEmpty() || monitor->level() == MemoryLevel::Critical;
    if (monitor->isActive() == wanted) {
        return;
    }
    if (wanted) {
        monitor->start();
    } else {
        monitor->stop();
    }
}

QVector<Candidate> RuntimeControllerPrivate::oomCandidates() const
{
    const QDateTime now =
        QDateTime::currentDateTime(); // one for all: the order must not depend on when each is asked
    QVector<Candidate> candidates;
    candidates.reserve(records.size());
    for (Process *process : records) {
        Candidate candidate;
        if (!oomController.readProcessScore(process->pid(), &candidate)) {
            qWarning() << "Failed to read process score, excluding" << process->id();
            continue;
        }
        candidate.process = process;
        if (const auto *application = qobject_cast<const Application *>(process)) {
            candidate.isApplication = true;
            candidate.lastActive =
                application->state() == ApplicationState::Active ? now : application->lastActive();
        }
        candidates.append(candidate);
    }
    return candidates;
}

void RuntimeControllerPrivate::runOomKiller()
{
    const QVector<Candidate> order = victimOrder(oomCandidates());
    if (order.isEmpty()) {
        qWarning() << "No candidates for killing, early OOM aborted.";
        return;
    }
    const Candidate &victim = order.first();
    Process *process = victim.process;
    bool onlySubprocess = victim.killPid != process->pid();
    if (onlySubprocess && killedSubprocesses[process->pid()]++ >= maximumSubprocessKills) {
        qDebug() << "Already killed 5 subprocesses, giving up!";
        onlySubprocess = false;
    }
    logVictim(victim, choiceText(order), onlySubprocess);
    if (onlySubprocess) {
        killSubprocess(victim);
    } else {
        qDebug() << "Early OOM: killing application" << process->id();
        emit q->processSelectedByOom(process->id());
        process->setStopReason(StopReason::OomKilled);
        process->kill();
    }
    // Thaws the group of a hidden application: frozen, it would not die, and be the victim of every pass.
    process->setState(ApplicationState::Inactive);
    if (qobject_cast<const Task *>(process)) {
        thawTask(process->id());
    }
}

QVector<OomVictim> RuntimeController::oomVictims() const
{
    const QVector<Candidate> order = victimOrder(d->oomCandidates());
    QVector<OomVictim> victims;
    victims.reserve(order.size());
    for (int i = 0; i < order.size(); ++i) {
        const Candidate &candidate = order.at(i);
        const QString rule = i + 1 < order.size()
            ? QString::fromLatin1(victimRuleName(decidingRule(candidate, order.at(i + 1))))
            : QString();
        victims.append({ candidate.process->id(), candidate.killPid, rule });
    }
    return victims;
}

void RuntimeControllerPrivate::killSubprocess(const Candidate &victim)
{
    qDebug() << "Early OOM: killing process" << victim.killPid << "of" << victim.process->id();
    const int error = sendSignal(victim.killPid, SignalTarget::Process, SIGKILL);
    if (error != 0) {
        qWarning() << "Cannot kill" << victim.killPid << "- errno:" << error;
    }
}

/// The one line that tells the user of a default journal why something has gone. Its figures are of this
/// moment: the monitor's may be as old as the last pass, and then a recovery that came since, too late for
/// this victim, could not be told from a shortage that lasts.
void RuntimeControllerPrivate::logVictim(const Candidate &victim, const QString &choice,
                                         bool onlySubprocess) const
{
    const bool isKnown = oomController.readMemoryLevel() != MemoryLevel::Unknown;
    const MemoryReading &memory =
        isKnown ? oomController.lastReading() : MemoryMonitor::instance()->reading();
    const Process *process = victim.process;
    QString reason;
    QDebug(&reason).nospace() << "memory is " << memoryLevelName(memory.level) << ", " << memory.availableKb
                              << " kB of " << memory.totalKb << " kB available; oom_score_adj "
                              << victim.oomScoreAdj << ", oom_score " << victim.oomScore << ", "
                              << qUtf8Printable(choice);
    qWarning().nospace() << "Early OOM: killing " << process->id() << ", pid "
                         << (onlySubprocess ? victim.killPid : process->pid())
                         << (onlySubprocess ? " (one process of it)" : " (all of it)") << ": "
                         << qUtf8Printable(reason);
    if (!onlySubprocess) {
        Chronicle::instance()->decide(process->id(), Decision::EarlyOom, reason);
    }
}

void RuntimeControllerPrivate::letClientRun(const QString &appId, UnfreezeReason reason)
{
    const int intervalMs = oomController.notificationUnfreezeMsec();
    if (reason != UnfreezeReason::Notification || intervalMs <= 0) {
        qWarning() << "Notification unfreeze timeout is invalid!";
        return;
    }
    Process *process = records.value(appId);
    if (!process || process->state() != ApplicationState::Hidden) {
        return;
    }
    cgroups.applyState(ApplicationInstanceId(appId), states.stateName(ApplicationState::Inactive));

    // A call in the meantime arms a timer of its own, and whichever fires first ends the moment.
    QTimer::singleShot(intervalMs, process, [this, process] {
        if (const StateTable::Entry *entry = states.find(process->state())) {
            cgroups.applyState(ApplicationInstanceId(process->id()), entry->stateName);
        }
    });
}

} // namespace Core
