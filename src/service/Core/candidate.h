#pragma once

#include <QDateTime>
#include <QVector>

#include <sys/types.h>

namespace Core {

class Process;

/// What the early out-of-memory killer knows of one record.
struct Candidate
{
    Process *process = nullptr;
    pid_t killPid = -1; ///< the process to kill first, see OomController::readProcessScore()
    int oomScore = 0; ///< the kernel's, of the record's process
    int oomScoreAdj = 0;
    bool isApplication = false; ///< else it is a task
    QDateTime lastActive; ///< of an application, now for one that is active; null sorts before every date
};

/// By which rule one candidate goes before another.
enum class VictimRule {
    None, ///< nothing tells them apart
    ScoreAdjustment, ///< greater oomScoreAdj
    TaskFirst, ///< a task before an application
    LeastRecentlyActive, ///< of two applications
    KernelScore, ///< of two tasks, greater oomScore
};

/// In words, for example "oom_score_adj".
const char *victimRuleName(VictimRule rule);

/// The first rule that tells the two apart, whichever of them it puts first.
VictimRule decidingRule(const Candidate &a, const Candidate &b);

/// True if @p a is to be killed before @p b. A strict weak order.
bool isKilledBefore(const Candidate &a, const Candidate &b);

/// The candidates, the first to be killed at the front.
QVector<Candidate> victimOrder(QVector<Candidate> candidates);

} // namespace Core
