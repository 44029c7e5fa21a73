#pragma once

#include <QObject>

#include <memory>

class UPowerBattery;

/// The battery, or all batteries taken together, as `org.freedesktop.UPower` on the system bus says.
///
/// The level is -1 and the state unknown until it has answered, while there is none, and without a battery.
/// Main thread only; no operation blocks.
class QBatteryInfo : public QObject
{
    Q_OBJECT

public:
    enum ChargingState {
        UnknownChargingState = 0,
        Charging = 1,
        IdleChargingState = 2, ///< there is external power, and the battery takes none
        Discharging = 3
    };
    Q_ENUM(ChargingState)

    explicit QBatteryInfo(QObject *parent = nullptr);
    ~QBatteryInfo() override;

    /// Percent.
    [[nodiscard]] int level() const;
    [[nodiscard]] ChargingState chargingState() const;

signals:
    void levelChanged(int level);
    void chargingStateChanged(QBatteryInfo::ChargingState state);

private:
    const std::shared_ptr<UPowerBattery> m_battery;
};
