#include "Core/condition_interval.h"

#include "Core/wakeup_timer.h"

namespace Core {

class ConditionIntervalPrivate
{
public:
    explicit ConditionIntervalPrivate(int seconds)
        : interval(seconds)
    {
    }

    const int interval; ///< seconds from one start to the next
    WakeupTimer timer;
};

ConditionInterval::ConditionInterval(int seconds, QObject *parent)
    : Condition(QStringLiteral("Interval"), parent)
    , d(new ConditionIntervalPrivate(seconds))
{
    connect(&d->timer, &WakeupTimer::timeout, this, [this] { setSatisfied(true); });
    setSatisfied(true);
}

ConditionInterval::~ConditionInterval() = default;

void ConditionInterval::taskWasTriggered()
{
    setSatisfied(false);
    d->timer.start(d->interval);
}

} // namespace Core
