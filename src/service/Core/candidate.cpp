#include "Core/candidate.h"

#include <algorithm>

namespace Core {

const char *victimRuleName(VictimRule rule)
{
    switch (rule) {
    case VictimRule::None:
        return "equal to the next";
    case VictimRule::ScoreAdjustment:
        return "oom_score_adj";
    case VictimRule::TaskFirst:
        return "task before application";
    case VictimRule::LeastRecentlyActive:
        return "least recently active";
    case VictimRule::KernelScore:
        return "oom_score";
    }
    return "";
}

VictimRule decidingRule(const Candidate &a, const Candidate &b)
{
    if (a.oomScoreAdj != b.oomScoreAdj) {
        return VictimRule::ScoreAdjustment;
    }
    if (a.isApplication != b.isApplication) {
        return VictimRule::TaskFirst;
    }
    if (a.isApplication) {
        return a.lastActive != b.lastActive ? VictimRule::LeastRecentlyActive : VictimRule::None;
    }
    return a.oomScore != b.oomScore ? VictimRule::KernelScore : VictimRule::None;
}

bool isKilledBefore(const Candidate &a, const Candidate &b)
{
    switch (decidingRule(a, b)) {
    case VictimRule::None:
        return false;
    case VictimRule::ScoreAdjustment:
        return a.oomScoreAdj > b.oomScoreAdj;
    case VictimRule::TaskFirst:
        return !a.isApplication;
    case VictimRule::LeastRecentlyActive:
        return a.lastActive < b.lastActive;
    case VictimRule::KernelScore:
        return a.oomScore > b.oomScore;
    }
    return false;
}

QVector<Candidate> victimOrder(QVector<Candidate> candidates)
{
    std::sort(candidates.begin(), candidates.end(), isKilledBefore);
    return candidates;
}

} // namespace Core
