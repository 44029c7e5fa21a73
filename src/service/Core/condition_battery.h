#pragma once

#include "Core/condition.h"

#include <memory>

namespace Core {

class ConditionBatteryPrivate;

/// "battery": true while the battery is in one of the wanted states.
class ConditionBattery : public Condition
{
    Q_OBJECT

public:
    /// Bit n, from 0 to 9, is a level in the n-th ten of percent; this one is charging.
    static constexpr quint32 charging = 1024;
    /// At least 20 percent, or charging.
    static constexpr quint32 notLow = 2044;

    /// @p mask is the states wanted.
    explicit ConditionBattery(quint32 mask, QObject *parent = nullptr);
    ~ConditionBattery() override;

    /// The bits of a level in percent and of a QBatteryInfo::ChargingState.
    [[nodiscard]] static quint32 state(int level, int chargingState);

private:
    const std::unique_ptr<ConditionBatteryPrivate> d;
};

} // namespace Core
