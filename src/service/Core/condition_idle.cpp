#include "Core/condition_idle.h"

#include <displayblanking.h>

namespace Core {

namespace {

constexpr int displayOff = 1; // the platform's number

} // namespace

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
        setSatisfied(d->display.status() == displayOff);
    };
    connect(&d->display, &DisplayBlanking::statusChanged, this, update);
    update();
}

ConditionIdle::~ConditionIdle() = default;

} // namespace Core
