#include "Core/condition_delay.h"

#include "Core/wakeup_timer.h"

namespace Core {

class ConditionDelayPrivate
{
public:
    WakeupTimer timer;
};

ConditionDelay::ConditionDelay(int seconds, QObject *parent)
    : Condition(QStringLiteral("StartDelay"), parent)
    , d(new ConditionDelayPrivate)
{
    connect(&d->timer, &WakeupTimer::timeout, this, [this] { setSatisfied(true); });
    d->timer.start(seconds);
}

ConditionDelay::~ConditionDelay() = default;

} // namespace Core
