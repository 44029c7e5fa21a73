#include "Core/condition_battery.h"

#include <qbatteryinfo.h>

namespace Core {

class ConditionBatteryPrivate
{
public:
    ConditionBatteryPrivate(ConditionBattery *condition, quint32 wanted)
        : mask(wanted)
        , q(condition)
    {
    }

    [[nodiscard]] bool isWanted() const
    {
        return (ConditionBattery::state(battery.level(), battery.chargingState()) & mask) != 0;
    }

    const quint32 mask;
    QBatteryInfo battery;
    ConditionBattery *const q;
};

ConditionBattery::ConditionBattery(quint32 mask, QObject *parent)
    : Condition(QStringLiteral("battery"), parent)
    , d(new ConditionBatteryPrivate(this, mask))
{
    const auto update = [this] {
        setSatisfied(d->isWanted());
    };
    connect(&d->battery, &QBatteryInfo::levelChanged, this, update);
    connect(&d->battery, &QBatteryInfo::chargingStateChanged, this, update);
    update();
}

ConditionBattery::~ConditionBattery() = default;

quint32 ConditionBattery::state(int level, int chargingState)
{
    quint32 bits = 0;
    const int decade = level / 10; // toward 0: the -1 of a missing battery is in decade 0
    if (decade >= 0 && decade <= 10) {
        bits |= 1U << qMin(decade, 9);
    }
    if (chargingState == QBatteryInfo::Charging || chargingState == QBatteryInfo::IdleChargingState) {
        bits |= charging;
    }
    return bits;
}

} // namespace Core
