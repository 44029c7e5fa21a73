#include "Core/condition_idle.h"

#include <displayblanking.h>

namespace Core {

class ConditionIdlePrivate
{
public:
    DisplayBlanking display;
};

ConditionIdle::ConditionIdle(QObject *parent)
    : Condition(QStringLiteral("idle"), parent)
    , d(new ConditionIdlePrivate)
{
    const auto update = [this] {
        setSatisfied(d->display.status() == 1);
    }; // switched off
    connect(&d->display, &DisplayBlanking::statusChanged, this, update);
    update();
}

ConditionIdle::~ConditionIdle() = default;

} // namespace Core
