#include "Core/oom_controller.h"

namespace Core {

namespace {

constexpr int protection = -100;

} // namespace

int OomController::oomScoreForStart(int flags)
{
    int score = 0;
    if (flags & DirectRequest) {
        score += protection;
    }
    if (flags & ExtraProtection) {
        score += protection;
    }
    return score;
}

} // namespace Core
